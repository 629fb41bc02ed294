#include "recipes/recipes_window_logic.h"

#include <algorithm>
#include <map>

#include "engine/size_mode.h"

namespace tarnbloom::recipes {

std::vector<RecipeStore::LibraryEntry> RecipesWindowLogic::sortedEntries(
    std::vector<RecipeStore::LibraryEntry> entries, const std::vector<std::string>& orderedIDs) {
  std::map<std::string, size_t, std::less<>> rank;
  // A list edited by hand may name an id twice; its first place counts.
  for (size_t i = 0; i < orderedIDs.size(); ++i) rank.emplace(orderedIDs[i], i);
  const auto rankOf = [&](const RecipeStore::LibraryEntry& entry) {
    const auto found = rank.find(entry.id());
    return found == rank.end() ? orderedIDs.size() : found->second;
  };
  std::stable_sort(entries.begin(), entries.end(),
                   [&](const auto& a, const auto& b) { return rankOf(a) < rankOf(b); });
  return entries;
}

RecipeOutputDraft RecipesWindowLogic::outputFrom(
    const exporting::ExportOptions& options, const std::string& nameTemplate,
    const std::optional<std::filesystem::path>& folder,
    const std::optional<std::filesystem::path>& source) {
  RecipeOutputDraft output;
  output.method = options.method;
  if (options.method == ResampleMethod::estimate) {
    output.model = RecipeOutputDraft::installedEstimateModel();
    output.estimateStrength = options.estimateStrength;
  }
  output.sizeMode = options.sizeMode;
  // The quick sizes carry no value; a stale one would fail the recipe check.
  output.sizeValue = quickFactor(options.sizeMode) ? 0 : options.sizeValue;
  output.boxWidth = static_cast<int64_t>(options.boxWidth);
  output.boxHeight = static_cast<int64_t>(options.boxHeight);
  output.canvas = options.canvas;
  if (options.formatFollowsSource)
    output.format = source ? options.resolvedFormat(*source) : encoding::ExportFormat::png;
  else
    output.format = options.format;
  output.jpeg = options.jpeg;
  output.webp = options.webp;
  output.colourPolicy = options.colourPolicy;
  output.namingTemplate = nameTemplate;
  if (folder) output.destination = folder->string();
  return output;
}

}  // namespace tarnbloom::recipes
