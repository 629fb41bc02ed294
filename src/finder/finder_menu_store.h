#pragma once

#include <cstddef>
#include <filesystem>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "export/export_options.h"
#include "finder/finder_identity.h"
#include "finder/finder_menu_file.h"
#include "recipes/recipe_store.h"

namespace tarnbloom {
class Settings;
}

namespace tarnbloom::finder {

// The user's choices for the file manager's Tarnbloom menu, kept in the
// shared settings file: which recipes it shows and in what order, and the
// settings of each entry. Every change is saved at once and then reported
// to the listeners; publish() turns the choices into the menu file that the
// file manager integrations read, which is how other processes see them.
class FinderMenuStore {
 public:
  static constexpr std::string_view kDidChangeNotification =
      "com.tarnbloom.FinderMenuStore.didChange";
  static constexpr std::string_view kOrderedRecipeIDsKey = "FinderMenuStore.orderedRecipeIDs";
  static constexpr std::string_view kIncludeSubfoldersKey = "FinderMenuStore.includeSubfolders";
  static constexpr std::string_view kFolderDestinationsKey = "FinderMenuStore.folderDestinations";
  static constexpr std::string_view kEnlargeOptionsKeyPrefix = "FinderMenuStore.enlargeOptions.";
  static constexpr std::string_view kAcknowledgedIdentitiesKey =
      "FinderMenuStore.acknowledgedIdentities";
  // The answer to a menu choice that names a recipe no longer in the library.
  static constexpr std::string_view kRemovedRecipeMessage =
      "This recipe was removed. Choose another recipe in the file manager.";
  // A context menu longer than this is no longer a menu.
  static constexpr size_t kMaxRecipes = 100;

  using Listener = std::function<void()>;

  // `settings` must outlive the store; `library` is the recipe library.
  FinderMenuStore(Settings& settings, recipes::RecipeStore library);

  std::vector<std::string> orderedRecipeIDs() const;
  bool isInMenu(std::string_view id) const;
  // Why `id` cannot be added: already in the menu, no usable recipe of that
  // id in the library, or the menu is full. None when it can.
  std::optional<std::string> addRefusal(std::string_view id) const;
  // Appends a recipe; false (nothing changed) when addRefusal() says why not.
  bool add(std::string_view id);
  void remove(std::string_view id);
  // Moves a recipe `offset` places down (up when negative), stopping at
  // either end. Nothing happens for an id that is not in the menu.
  void move(std::string_view id, int offset);

  bool isAcknowledged(const FinderIdentity& identity) const;
  void acknowledge(const FinderIdentity& identity);
  void resetAcknowledgements();
  bool hasAcknowledgements() const;

  bool includeSubfolders(const FinderIdentity& identity) const;
  void setIncludeSubfolders(bool value, const FinderIdentity& identity);

  std::optional<std::filesystem::path> folderDestination(const FinderIdentity& identity) const;
  void setFolderDestination(const std::optional<std::filesystem::path>& folder,
                            const FinderIdentity& identity);

  // The settings of Enlarge `scale`×: the options saved for it, else the
  // current export options, either way at that size and without a canvas
  // (an Enlarge entry places nothing). A saved value that no longer decodes
  // counts as none. Throws FinderMenuError for a scale other than 2, 4, 8.
  exporting::ExportOptions enlargeOptions(int scale) const;
  void setEnlargeOptions(const exporting::ExportOptions& options, int scale);
  bool hasCustomEnlargeOptions(int scale) const;
  // Enlarge `scale`× follows the current export options again.
  void clearEnlargeOptions(int scale);

  // The menu as the library has it now: the chosen recipes in order, less
  // those that no longer exist or cannot be read.
  FinderMenuFile menuFile() const;
  // Writes menuFile() into the App Group container and returns it. Throws
  // FinderMenuError::containerUnavailable (the previous file stays) or
  // FileError.
  FinderMenuFile publish() const;

  // Called after every change, on the thread that made it.
  size_t addListener(Listener listener);
  void removeListener(size_t token);

 private:
  std::optional<std::string> refusalFor(std::string_view id,
                                        const std::vector<std::string>& ids) const;
  void setOrderedRecipeIDs(const std::vector<std::string>& ids);
  nlohmann::json identityMap(std::string_view key) const;
  void change(const std::string& key, nlohmann::json value);
  std::optional<exporting::ExportOptions> savedEnlargeOptions(int scale) const;

  Settings& m_settings;
  recipes::RecipeStore m_library;
  std::map<size_t, Listener> m_listeners;
  size_t m_nextToken = 1;
};

// "2 outputs · Enhance (AI), strength 0.70 · Long edge 3,000 px · JPEG 85; …"
std::string menuSummary(const recipes::RecipeDraft& recipe);

}  // namespace tarnbloom::finder
