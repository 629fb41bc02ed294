#include "recipes/recipe_run_planner.h"

#include "canvas/canvas_composer.h"

namespace tarnbloom::recipes {

namespace fs = std::filesystem;

exporting::DestinationRule RecipeRunPlanner::destinationOf(const RecipeOutputDraft& output,
                                                           const RecipeRunSettings& settings) {
  exporting::DestinationRule rule;
  if (settings.destinationOverride) {
    rule.folder = *settings.destinationOverride;
  } else if (output.destination) {
    const fs::path destination = *output.destination;
    if (destination.is_absolute())
      rule.folder = destination;
    else
      rule.subfolder = destination;
  }
  return rule;
}

std::vector<RecipeUnit> RecipeRunPlanner::plan(const RecipeDraft& recipe,
                                               const std::vector<fs::path>& sources,
                                               const RecipeRunSettings& settings) {
  if (sources.size() > 1)
    for (const auto& output : recipe.outputs)
      if (const auto decision = canvas::BatchCanvasPolicy::decide(output.canvas); !decision.allowed)
        throw BatchCanvasRefusal(decision.title, decision.explanation);
  std::vector<RecipeUnit> units;
  std::set<fs::path> reserved = settings.reserved;
  for (size_t i = 0; i < recipe.outputs.size(); ++i) {
    const RecipeOutputDraft& output = recipe.outputs[i];
    exporting::JobDescription description;
    description.options = output.exportOptions();
    description.collision = settings.collision;
    description.receiptsBesideExports = settings.receiptsBesideExports;
    description.confirmed16BitReduction = settings.confirmed16BitReduction;
    exporting::ExportPlanner planner(description, output.namingTemplate,
                                     destinationOf(output, settings));
    planner.reserve(reserved);
    if (settings.refuseUnreadable) planner.refuseUnreadable(settings.refuseUnreadable);
    RecipeUnit unit{i, output.summary(), planner.plan(sources)};
    // Later outputs never take a name an earlier one of this run holds.
    for (const auto& item : unit.plan.items)
      if (item.assignedOutput) reserved.insert(*item.assignedOutput);
    units.push_back(std::move(unit));
  }
  return units;
}

}  // namespace tarnbloom::recipes
