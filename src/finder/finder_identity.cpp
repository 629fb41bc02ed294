#include "finder/finder_identity.h"

#include <cstddef>
#include <span>

#include "finder/finder_menu_file.h"
#include "support/strict_json.h"

namespace tarnbloom::finder {

namespace {

constexpr std::string_view kRecipePrefix = "recipe:";
constexpr std::string_view kEnlargePrefix = "enlarge-";

bool isQuickScale(int scale) { return scale == 2 || scale == 4 || scale == 8; }

}  // namespace

bool isUsableRecipeID(std::string_view id) {
  if (id.empty()) return false;
  for (const char c : id) {
    const auto byte = static_cast<unsigned char>(c);
    if (byte < 0x20 || byte == 0x7f) return false;
  }
  return true;
}

FinderIdentity FinderIdentity::enlarge(int scale) {
  if (!isQuickScale(scale))
    throw FinderMenuError::invalidIdentity("Enlarge takes 2, 4 or 8, not " + std::to_string(scale) +
                                           ".");
  return FinderIdentity(scale, {});
}

FinderIdentity FinderIdentity::recipe(std::string id) {
  if (!isUsableRecipeID(id))
    throw FinderMenuError::invalidIdentity(
        "A recipe entry needs an id without control characters.");
  return FinderIdentity(0, std::move(id));
}

nlohmann::json FinderIdentity::json() const {
  if (isEnlarge()) return {{"enlarge", m_scale}};
  return {{"recipe", {{"id", m_recipeID}}}};
}

std::string FinderIdentity::canonicalText() const { return json().dump(); }

FinderIdentity FinderIdentity::fromJson(const nlohmann::json& json) {
  const auto refuse = [] {
    return FinderMenuError::invalidIdentity(
        R"(A menu entry is {"enlarge":2|4|8} or {"recipe":{"id":"…"}}.)");
  };
  if (!json.is_object() || json.size() != 1) throw refuse();
  if (const auto found = json.find("enlarge"); found != json.end()) {
    // 2.0 or true are not scales: only an integer literal is.
    if (!found->is_number_integer()) throw refuse();
    const auto scale = found->get<int64_t>();
    if (scale != 2 && scale != 4 && scale != 8) throw refuse();
    return enlarge(static_cast<int>(scale));
  }
  const auto found = json.find("recipe");
  if (found == json.end() || !found->is_object() || found->size() != 1) throw refuse();
  const auto id = found->find("id");
  if (id == found->end() || !id->is_string()) throw refuse();
  return recipe(id->get<std::string>());
}

FinderIdentity FinderIdentity::fromCanonicalText(std::string_view text) {
  nlohmann::json parsed;
  try {
    parsed = parseStrictJson(std::as_bytes(std::span(text.data(), text.size())), 4);
  } catch (const StrictJsonError& error) {
    throw FinderMenuError::invalidIdentity(error.description());
  }
  return fromJson(parsed);
}

std::string FinderIdentity::commandLineText() const {
  if (isEnlarge()) return std::string(kEnlargePrefix) + std::to_string(m_scale);
  return std::string(kRecipePrefix) + m_recipeID;
}

FinderIdentity FinderIdentity::fromCommandLineText(std::string_view text) {
  for (const int scale : {2, 4, 8})
    if (text == std::string(kEnlargePrefix) + std::to_string(scale)) return enlarge(scale);
  if (text.starts_with(kRecipePrefix))
    return recipe(std::string(text.substr(kRecipePrefix.size())));
  throw FinderMenuError::invalidIdentity("“" + std::string(text) +
                                         "” is not a menu entry: use enlarge-2, enlarge-4, "
                                         "enlarge-8 or recipe:ID.");
}

}  // namespace tarnbloom::finder
