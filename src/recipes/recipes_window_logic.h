#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "export/export_options.h"
#include "recipes/recipe_store.h"

namespace tarnbloom::recipes {

// What the recipes window decides without widgets: the order it lists the
// library in, and the recipe it offers to make from the current settings.
struct RecipesWindowLogic {
  // The settings key of the order the user gave the window's list.
  static constexpr std::string_view kOrderKey = "RecipesWindow.orderedIDs";

  // `entries` in the order of `orderedIDs`; entries whose id is not in the
  // list follow the listed ones in their own order (newest first, as the
  // library lists them). Stable, so equal ranks keep the library's order.
  static std::vector<RecipeStore::LibraryEntry> sortedEntries(
      std::vector<RecipeStore::LibraryEntry> entries, const std::vector<std::string>& orderedIDs);

  // One output that writes what `options` would: the same method, size,
  // format, quality, colour and canvas, named by `nameTemplate` into
  // `folder` (none: beside each source). A format that follows the source
  // takes `source`'s format, or PNG without a source.
  static RecipeOutputDraft outputFrom(const exporting::ExportOptions& options,
                                      const std::string& nameTemplate,
                                      const std::optional<std::filesystem::path>& folder,
                                      const std::optional<std::filesystem::path>& source);
};

}  // namespace tarnbloom::recipes
