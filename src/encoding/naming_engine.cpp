#include "encoding/naming_engine.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <map>
#include <set>

#include "support/files.h"

namespace tarnbloom::encoding {
namespace {

const std::set<std::string, std::less<>>& tokenNames() {
  static const std::set<std::string, std::less<>> names = {
      "source", "sku", "w", "h", "method", "format", "scale", "date", "index", "n"};
  return names;
}

std::string lower(std::string_view text) {
  std::string out(text);
  for (char& c : out) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return out;
}

std::string dateText(const std::optional<std::tm>& date) {
  std::tm tm{};
  if (date) {
    tm = *date;
  } else {
    const std::time_t now = std::time(nullptr);
    localtime_r(&now, &tm);
  }
  char text[48];
  std::snprintf(text, sizeof text, "%04d%02d%02d", tm.tm_year + 1900, tm.tm_mon + 1, tm.tm_mday);
  return text;
}

std::string tokenValue(std::string_view name, const NamingFacts& facts, int64_t n) {
  if (name == "source") return facts.sourcePath.stem().string();
  if (name == "sku") return facts.sku.value_or("");
  if (name == "w") return std::to_string(facts.outputWidth);
  if (name == "h") return std::to_string(facts.outputHeight);
  if (name == "method") return facts.method;
  if (name == "format")
    return NamingEngine::extensionFor(facts.formatToken).value_or(lower(facts.formatToken));
  if (name == "scale") {
    if (facts.scaleLabel) return *facts.scaleLabel;
    return facts.scaleFactor ? NamingEngine::scaleLabel(*facts.scaleFactor) : "";
  }
  if (name == "date") return dateText(facts.exportDate);
  if (name == "index") return std::to_string(facts.index);
  if (name == "n") return n >= 2 ? std::to_string(n) : "";
  return "";
}

}  // namespace

std::string NamingError::description() const {
  switch (m_case) {
    case Case::unknownToken: return "Unknown template token: {" + m_text + "}";
    case Case::unsupportedFormat: return "Unsupported output format: " + m_text;
    case Case::malformedTemplate: return "Malformed naming template.";
  }
  return "Malformed naming template.";
}

std::string NamingEngine::defaultTemplate(bool legacyScale) {
  return legacyScale ? "{source}_{scale}" : "{source}_{w}x{h}";
}

void NamingEngine::validateTemplate(std::string_view templ) {
  std::vector<std::string> names;
  std::string remainder;
  size_t at = 0;
  while (at < templ.size()) {
    if (templ[at] == '{') {
      const size_t close = templ.find('}', at + 1);
      if (close != std::string_view::npos) {
        names.emplace_back(templ.substr(at + 1, close - at - 1));
        at = close + 1;
        continue;
      }
    }
    remainder += templ[at++];
  }
  if (remainder.find_first_of("{}") != std::string::npos) throw NamingError::malformedTemplate();
  for (const auto& name : names)
    if (!tokenNames().contains(name)) throw NamingError::unknownToken(name);
}

std::string NamingEngine::renderTemplate(std::string_view templ, const NamingFacts& facts, int64_t n) {
  validateTemplate(templ);
  std::string out;
  size_t at = 0;
  while (at < templ.size()) {
    if (templ[at] == '{') {
      const size_t close = templ.find('}', at + 1);
      if (close != std::string_view::npos) {
        out += tokenValue(templ.substr(at + 1, close - at - 1), facts, n);
        at = close + 1;
        continue;
      }
    }
    out += templ[at++];
  }
  return out;
}

std::optional<std::string> NamingEngine::extensionFor(std::string_view formatToken) {
  static const std::map<std::string, std::string, std::less<>> table = {
      {"png", "png"},   {"jpg", "jpg"},   {"jpeg", "jpg"}, {"tif", "tif"},
      {"tiff", "tif"},  {"webp", "webp"}, {"avif", "avif"}, {"heic", "heic"}};
  const auto it = table.find(lower(formatToken));
  if (it == table.end()) return std::nullopt;
  return it->second;
}

std::filesystem::path NamingEngine::firstCandidatePath(const std::filesystem::path& folder,
                                                       std::string_view templ,
                                                       const NamingFacts& facts) {
  const auto extension = extensionFor(facts.formatToken);
  if (!extension) throw NamingError::unsupportedFormat(facts.formatToken);
  return folder / (renderTemplate(templ, facts, 1) + "." + *extension);
}

namespace {

// Whether `path` names the source (already made canonical), so an export
// never replaces it.
bool namesSource(const std::filesystem::path& path, const std::filesystem::path& source) {
  std::error_code error;
  return !source.empty() && std::filesystem::weakly_canonical(path, error) == source && !error;
}

std::filesystem::path canonicalSource(const std::filesystem::path& source) {
  std::error_code ignored;
  return source.empty() ? source : std::filesystem::weakly_canonical(source, ignored);
}

}  // namespace

std::filesystem::path NamingEngine::resolveOutputPath(
    const std::filesystem::path& folder, std::string_view templ, const NamingFacts& facts,
    bool createFolder, const std::function<bool(const std::filesystem::path&)>& exists) {
  const auto extension = extensionFor(facts.formatToken);
  if (!extension) throw NamingError::unsupportedFormat(facts.formatToken);
  if (createFolder) {
    std::error_code error;
    std::filesystem::create_directories(folder, error);
    if (error) throw FileError(folder, "create the folder", error.value());
  }
  // A template with {n} numbers itself; others get " 2", " 3", ... added.
  if (templ.find("{n}") == std::string_view::npos)
    return freePathFrom(folder / (renderTemplate(templ, facts, 1) + "." + *extension),
                        facts.sourcePath, exists);
  const auto source = canonicalSource(facts.sourcePath);
  for (int64_t attempt = 1;; ++attempt) {
    const auto path = folder / (renderTemplate(templ, facts, attempt) + "." + *extension);
    if (!namesSource(path, source) && !exists(path)) return path;
  }
}

std::filesystem::path NamingEngine::freePathFrom(
    const std::filesystem::path& path, const std::filesystem::path& sourcePath,
    const std::function<bool(const std::filesystem::path&)>& exists) {
  const auto source = canonicalSource(sourcePath);
  const std::string stem = path.stem().string(), extension = path.extension().string();
  for (int64_t attempt = 1;; ++attempt) {
    const auto candidate =
        attempt == 1 ? path
                     : path.parent_path() / (stem + " " + std::to_string(attempt) + extension);
    if (!namesSource(candidate, source) && !exists(candidate)) return candidate;
  }
}

std::string NamingEngine::scaleLabel(double factor) {
  char text[64];
  std::snprintf(text, sizeof text, "%.2f", factor);
  std::string label = text;
  while (!label.empty() && label.back() == '0') label.pop_back();
  if (!label.empty() && label.back() == '.') label.pop_back();
  return label + "x";
}

}  // namespace tarnbloom::encoding
