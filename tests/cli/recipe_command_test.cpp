// The recipe library from the command line: saved from flags, listed,
// shared and imported under a new id, found by id or name, and deleted
// without touching anything exported with it.

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "test_support.h"

namespace tarnbloom {
namespace {

namespace fs = std::filesystem;

TEST(RecipeCommand, SavesSharesImportsAndDeletes) {
  testing::TempDir dir;
  const auto run = [&](const std::string& arguments, std::string& said) {
    said.clear();
    return testing::runCommand("cd '" + dir.path().string() + "' && TARNBLOOM_HOME='" +
                                   (dir / "home").string() + "' " + TARNBLOOM_CLI + " recipe " +
                                   arguments + " 2>&1",
                               &said);
  };
  std::string said;
  EXPECT_EQ(run("save Tiles --size long-edge:3000 --format jpeg --max-kb 800 --canvas 3000x3000 "
                "--fill '#FFFFFF' --out Enlarged",
                said),
            0)
      << said;
  EXPECT_EQ(run("save Tiles --size x2", said), 1);  // a recipe names its format
  EXPECT_NE(said.find("A recipe names its format"), std::string::npos) << said;

  ASSERT_EQ(run("show Tiles --json", said), 0) << said;
  const auto document = nlohmann::json::parse(said);
  EXPECT_EQ(document["outputs"][0]["quality"]["max_bytes"], 800000);
  EXPECT_EQ(document["outputs"][0]["naming"]["destination"], "Enlarged");
  const std::string id = document["id"];

  EXPECT_EQ(run("export Tiles shared.tarnbloomrecipe", said), 0) << said;
  EXPECT_EQ(run("export Tiles shared.tarnbloomrecipe", said), 3);  // never replaced
  EXPECT_EQ(run("import shared.tarnbloomrecipe", said), 0) << said;
  EXPECT_EQ(run("show Tiles", said), 3);
  EXPECT_NE(said.find("More than one recipe is named “Tiles”; use its id."), std::string::npos)
      << said;

  testing::writeText(dir / "home" / "Recipes" / "broken.tarnbloomrecipe",
                     R"({"name": "From the future", "bleed": 3})");
  ASSERT_EQ(run("list --json", said), 0);
  EXPECT_EQ(std::count(said.begin(), said.end(), '\n'), 3) << said;
  EXPECT_NE(said.find("which this version of Tarnbloom does not understand"), std::string::npos);

  EXPECT_EQ(run("delete " + id, said), 0) << said;
  EXPECT_NE(said.find("It never touches anything already exported."), std::string::npos);
  EXPECT_EQ(run("show Tiles", said), 0);  // the imported copy is left
  EXPECT_EQ(run("delete broken", said), 0) << said;
  EXPECT_EQ(run("import broken.tarnbloomrecipe", said), 3);
  EXPECT_NE(said.find("That recipe can’t be used"), std::string::npos) << said;
}

}  // namespace
}  // namespace tarnbloom
