// A recipe over a folder: one unit per output, every name fixed before the
// run and never shared between outputs, the same {index} for a photo in
// every output, and no crop confirmed on one image reused for others.

#include "recipes/recipe_run_planner.h"

#include <gtest/gtest.h>

#include "fixtures.h"
#include "test_support.h"

namespace tarnbloom::recipes {
namespace {

namespace fs = std::filesystem;

RecipeOutputDraft pngOutput(std::string templ, std::optional<std::string> destination) {
  RecipeOutputDraft output;
  output.format = encoding::ExportFormat::png;
  output.namingTemplate = std::move(templ);
  output.destination = std::move(destination);
  return output;
}

TEST(RecipeRunPlanner, PlansEveryOutputWithItsOwnNamesAndStableRows) {
  testing::TempDir dir;
  for (const char* name : {"a.png", "b.png"})
    testing::writePng(dir / name, 8, 6, 3, 8, std::vector<uint16_t>(8 * 6 * 3, 7));
  testing::writeText(dir / "notes.png", "not a photo");
  RecipeDraft recipe;
  recipe.outputs = {pngOutput("{index}_{source}", "Enlarged"),
                    pngOutput("{index}_{source}", "Enlarged")};
  recipe.outputs[1].sizeMode = SizeMode::x4;
  RecipeRunSettings settings;
  settings.refuseUnreadable = [](const fs::path&) { return true; };
  const auto units =
      RecipeRunPlanner::plan(recipe, {dir / "a.png", dir / "notes.png", dir / "b.png"}, settings);
  ASSERT_EQ(units.size(), 2u);
  const fs::path out = dir / "Enlarged";
  EXPECT_EQ(units[0].plan.items.at(1).assignedOutput, out / "2_b.png");
  EXPECT_EQ(units[0].plan.items.at(1).batchIndex, 2);  // the note takes no row
  // The second output's template gives the same names: numbered, never shared.
  EXPECT_EQ(units[1].plan.items.at(0).assignedOutput, out / "1_a 2.png");
  EXPECT_EQ(units[1].plan.items.at(0).plannedSize, (std::pair<int64_t, int64_t>{32, 24}));
  EXPECT_EQ(units[1].plan.refusals.size(), 1u);
  EXPECT_FALSE(fs::exists(out)) << "planning writes nothing";

  settings.destinationOverride = dir / "elsewhere";
  EXPECT_EQ(RecipeRunPlanner::plan(recipe, {dir / "a.png"}, settings)[0].plan.items[0].destination,
            dir / "elsewhere");

  recipe.outputs[1].canvas =
      canvas::Canvas{canvas::CanvasMode::crop, 4, 4, {}, canvas::CropRect{0, 0, 4, 4}};
  EXPECT_THROW(RecipeRunPlanner::plan(recipe, {dir / "a.png", dir / "b.png"}, settings),
               BatchCanvasRefusal);
  EXPECT_NO_THROW(RecipeRunPlanner::plan(recipe, {dir / "a.png"}, settings));
}

}  // namespace
}  // namespace tarnbloom::recipes
