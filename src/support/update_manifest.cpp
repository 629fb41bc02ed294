#include "support/update_manifest.h"

#include <algorithm>
#include <charconv>
#include <chrono>

#include "support/strict_json.h"

namespace tarnbloom {

namespace {

using Case = UpdateManifestError::Case;

constexpr size_t kMaxVersionParts = 4;
constexpr size_t kMaxPartDigits = 9;  // fits uint32_t without overflow checks
constexpr size_t kMaxURLLength = 2048;

bool isDigit(char c) { return c >= '0' && c <= '9'; }

// https only, since the notes open in the browser: a file: or custom-scheme
// link from a tampered file must never be one click away. Printable ASCII
// only, with a host and no user part ("https://ours@elsewhere").
bool isReleaseNotesURL(std::string_view url) {
  constexpr std::string_view scheme = "https://";
  if (url.size() > kMaxURLLength || !url.starts_with(scheme)) return false;
  if (!std::all_of(url.begin(), url.end(), [](char c) { return c > 0x20 && c < 0x7f; })) return false;
  const std::string_view rest = url.substr(scheme.size());
  const std::string_view authority = rest.substr(0, rest.find_first_of("/?#"));
  return !authority.empty() && authority.find('@') == std::string_view::npos && authority[0] != ':';
}

bool isCalendarDate(std::string_view text) {
  if (text.size() != 10 || text[4] != '-' || text[7] != '-') return false;
  for (size_t i : {0, 1, 2, 3, 5, 6, 8, 9})
    if (!isDigit(text[i])) return false;
  const auto number = [&](size_t at, size_t length) {
    int value = 0;
    std::from_chars(text.data() + at, text.data() + at + length, value);
    return value;
  };
  using namespace std::chrono;
  const year_month_day date{year(number(0, 4)), month(static_cast<unsigned>(number(5, 2))),
                            day(static_cast<unsigned>(number(8, 2)))};
  return date.ok();
}

const std::string& stringAt(const nlohmann::json& document, const char* key) {
  const auto found = document.find(key);
  if (found == document.end()) throw UpdateManifestError(Case::missingKey, key);
  if (!found->is_string()) throw UpdateManifestError(Case::notAString, key);
  return found->get_ref<const std::string&>();
}

}  // namespace

std::string UpdateManifestError::description() const {
  switch (m_case) {
    case Case::notJson:
      return "The update manifest couldn’t be read. " + m_text;
    case Case::notAnObject:
      return "The update manifest isn’t a JSON object.";
    case Case::missingKey:
      return "The update manifest has no “" + m_text + "”.";
    case Case::unknownKey:
      return "The update manifest has an unknown key “" + m_text + "”.";
    case Case::notAString:
      return "The update manifest’s “" + m_text + "” isn’t a string.";
    case Case::badVersion:
      return "“" + m_text + "” isn’t a version number (such as 1.2.0).";
    case Case::badURL:
      return "The update manifest’s release notes address “" + m_text + "” isn’t an https address.";
    case Case::badDate:
      return "The update manifest’s date “" + m_text + "” isn’t a date (YYYY-MM-DD).";
    case Case::tooLarge:
      return "The update manifest is larger than " + m_text + " bytes.";
  }
  return "The update manifest couldn’t be read.";
}

Version Version::parse(std::string_view text) {
  Version version;
  size_t start = 0;
  while (true) {
    const size_t dot = std::min(text.find('.', start), text.size());
    const std::string_view part = text.substr(start, dot - start);
    if (part.empty() || part.size() > kMaxPartDigits || !std::all_of(part.begin(), part.end(), isDigit) ||
        version.m_parts.size() == kMaxVersionParts)
      throw UpdateManifestError(Case::badVersion, std::string(text));
    uint32_t value = 0;
    std::from_chars(part.data(), part.data() + part.size(), value);
    version.m_parts.push_back(value);
    if (dot == text.size()) break;
    start = dot + 1;
  }
  return version;
}

std::strong_ordering Version::operator<=>(const Version& other) const {
  const size_t count = std::max(m_parts.size(), other.m_parts.size());
  for (size_t i = 0; i < count; ++i) {
    const uint32_t mine = i < m_parts.size() ? m_parts[i] : 0;
    const uint32_t theirs = i < other.m_parts.size() ? other.m_parts[i] : 0;
    if (mine != theirs) return mine <=> theirs;
  }
  return std::strong_ordering::equal;
}

UpdateManifest UpdateManifest::parse(std::span<const std::byte> data) {
  if (data.size() > kMaxBytes) throw UpdateManifestError(Case::tooLarge, std::to_string(kMaxBytes));
  nlohmann::json document;
  try {
    document = parseStrictJson(data, 4);
  } catch (const StrictJsonError& error) {
    throw UpdateManifestError(Case::notJson, error.description());
  }
  if (!document.is_object()) throw UpdateManifestError(Case::notAnObject, {});
  for (const auto& [key, value] : document.items())
    if (key != "version" && key != "url" && key != "published") throw UpdateManifestError(Case::unknownKey, key);

  UpdateManifest manifest{stringAt(document, "version"), stringAt(document, "url"),
                          stringAt(document, "published")};
  Version::parse(manifest.version);
  if (!isReleaseNotesURL(manifest.url)) throw UpdateManifestError(Case::badURL, manifest.url);
  if (!isCalendarDate(manifest.published)) throw UpdateManifestError(Case::badDate, manifest.published);
  return manifest;
}

bool shouldCheck(WallTime now, std::optional<WallTime> lastCheck, std::optional<bool> enabled) {
  if (enabled != true) return false;
  if (!lastCheck || *lastCheck > now) return true;
  return now - *lastCheck >= std::chrono::hours(24);
}

bool shouldNotify(const UpdateManifest& manifest, std::string_view running,
                  const std::optional<std::string>& skipped) {
  const Version offered = Version::parse(manifest.version);
  if (offered <= Version::parse(running)) return false;
  if (!skipped) return true;
  try {
    return offered != Version::parse(*skipped);
  } catch (const UpdateManifestError&) {
    return true;
  }
}

}  // namespace tarnbloom
