#pragma once

#include <nlohmann/json.hpp>
#include <string>
#include <string_view>

namespace tarnbloom::finder {

// What one entry of the file manager's Tarnbloom menu stands for: one of the
// three Enlarge sizes, or a saved recipe. Settings are kept per identity,
// keyed by its canonical JSON text.
class FinderIdentity {
 public:
  // Throws FinderMenuError::invalidIdentity for a scale other than 2, 4 or 8.
  static FinderIdentity enlarge(int scale);
  // Throws FinderMenuError::invalidIdentity for an id that is empty or holds
  // control characters (it travels on command lines and in menu files).
  static FinderIdentity recipe(std::string id);

  bool isEnlarge() const { return m_scale != 0; }
  int scale() const { return m_scale; }                       // 0 for a recipe
  const std::string& recipeID() const { return m_recipeID; }  // empty for Enlarge

  // {"enlarge":2} or {"recipe":{"id":"…"}}.
  nlohmann::json json() const;
  // json() as compact text: the key of the per-identity settings.
  std::string canonicalText() const;
  // Exactly the two shapes json() writes: no other key, scale or type.
  // Throws FinderMenuError::invalidIdentity.
  static FinderIdentity fromJson(const nlohmann::json& json);
  static FinderIdentity fromCanonicalText(std::string_view text);

  // "enlarge-2", "enlarge-4", "enlarge-8" or "recipe:<id>", for command lines.
  std::string commandLineText() const;
  // Throws FinderMenuError::invalidIdentity for anything else.
  static FinderIdentity fromCommandLineText(std::string_view text);

  bool operator==(const FinderIdentity&) const = default;

 private:
  FinderIdentity(int scale, std::string id) : m_scale(scale), m_recipeID(std::move(id)) {}
  int m_scale = 0;
  std::string m_recipeID;
};

// Whether `id` can name a recipe entry: not empty, no control characters.
bool isUsableRecipeID(std::string_view id);

}  // namespace tarnbloom::finder
