#pragma once

#include <filesystem>
#include <functional>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "export/export_planner.h"
#include "recipes/recipe_store.h"
#include "support/error.h"

namespace tarnbloom::recipes {

// One output of a recipe over all the sources of a run: its own settings,
// destination and names, run as one export job.
struct RecipeUnit {
  size_t outputIndex = 0;
  std::string summary;  // of the output, for lists
  exporting::ExportPlan plan;
};

// What the run decides beyond the recipe itself.
struct RecipeRunSettings {
  // Replaces every output's destination (the command line's --out).
  std::optional<std::filesystem::path> destinationOverride;
  exporting::CollisionPolicy collision = exporting::CollisionPolicy::number;
  bool receiptsBesideExports = false;
  bool confirmed16BitReduction = false;
  // Names other unfinished exports hold.
  std::set<std::filesystem::path> reserved;
  // Sources a preflight sets aside when they cannot be read (folder files).
  std::function<bool(const std::filesystem::path&)> refuseUnreadable;
};

// A canvas step a batch cannot run: a crop confirmed on one image.
class BatchCanvasRefusal : public Error {
 public:
  BatchCanvasRefusal(std::string title, std::string explanation)
      : m_title(std::move(title)), m_explanation(std::move(explanation)) {}
  const std::string& title() const { return m_title; }
  std::string description() const override { return m_title + ". " + m_explanation; }

 private:
  std::string m_title, m_explanation;
};

// Plans a recipe over sources: N sources by M outputs, one unit per output.
// Rows keep the sources' order, so {index} numbers a source the same in
// every output; names are fixed here, and no two outputs of the run ever
// aim at one name.
class RecipeRunPlanner {
 public:
  // Throws BatchCanvasRefusal for a crop or suggested framing over more
  // than one source.
  static std::vector<RecipeUnit> plan(const RecipeDraft& recipe,
                                      const std::vector<std::filesystem::path>& sources,
                                      const RecipeRunSettings& settings);
  // Where an output's files go: the override, else its destination (a
  // relative one inside each source's folder), else beside each source.
  static exporting::DestinationRule destinationOf(const RecipeOutputDraft& output,
                                                  const RecipeRunSettings& settings);
};

}  // namespace tarnbloom::recipes
