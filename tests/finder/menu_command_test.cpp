// `tarnbloom menu` and the recipe commands that republish the menu, run as a
// user runs them, with every folder they touch in a temporary one.

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "finder/finder_menu_file.h"
#include "test_support.h"

namespace tarnbloom::finder {
namespace {

namespace fs = std::filesystem;
using testing::readText;
using testing::runCommand;
using testing::TempDir;

class MenuCommandTest : public ::testing::Test {
 protected:
  TempDir home;

  int tarnbloom(const std::string& arguments, std::string* output = nullptr) {
    if (output) output->clear();
    const std::string environment =
        "HOME='" + home.path().string() + "' TARNBLOOM_HOME='" + (home / "State").string() +
        "' TARNBLOOM_MENU_CONTAINER='" + (home / "Group").string() + "' XDG_DATA_HOME='" +
        (home / "data").string() + "' XDG_CONFIG_HOME='" + (home / "config").string() + "' ";
    return runCommand(environment + TARNBLOOM_CLI + " " + arguments + " 2>&1", output);
  }
  FinderMenuFile menu() { return FinderMenuFile::read(home / "Group" / "finder-menu.json"); }
  std::string dolphin() {
    return readText(home / "data" / "kio" / "servicemenus" / "tarnbloom.desktop");
  }
};

TEST_F(MenuCommandTest, ChoosesRecipesPublishesThemAndDropsADeletedOne) {
  std::string output;
  ASSERT_EQ(tarnbloom("recipe save Print --size x2 --format png", &output), 0) << output;
  EXPECT_FALSE(fs::exists(home / "Group")) << "no menu file before the menu is used";
  ASSERT_EQ(tarnbloom("recipe save Web --size x4 --format jpeg", &output), 0) << output;

  EXPECT_EQ(tarnbloom("menu add Print", &output), 0) << output;
  EXPECT_EQ(tarnbloom("menu add Print", &output), 0) << output;
  EXPECT_NE(output.find("already"), std::string::npos);
  EXPECT_EQ(tarnbloom("menu add Web", &output), 0) << output;
  EXPECT_NE(tarnbloom("menu add Nothing", &output), 0);
  EXPECT_EQ(tarnbloom("menu move Web x", &output), 1) << output;
  EXPECT_EQ(tarnbloom("menu move Web -1", &output), 0) << output;
  ASSERT_EQ(menu().items.size(), 2u);
  EXPECT_EQ(menu().items[0].title, "Web");
  EXPECT_NE(menu().items[0].summary.find("1 output"), std::string::npos);

  EXPECT_EQ(tarnbloom("menu publish", &output), 0) << output;
  EXPECT_NE(dolphin().find("Name=Print"), std::string::npos);
  EXPECT_TRUE(fs::exists(home / "config" / "Thunar" / "uca.xml"));

  // Deleting a recipe takes it out of the menu file and the installed menus.
  ASSERT_EQ(tarnbloom("recipe delete Print", &output), 0) << output;
  ASSERT_EQ(menu().items.size(), 1u);
  EXPECT_EQ(menu().items[0].title, "Web");
  EXPECT_EQ(dolphin().find("Name=Print"), std::string::npos);
  EXPECT_EQ(readText(home / "config" / "Thunar" / "uca.xml").find("Print"), std::string::npos);

  EXPECT_EQ(tarnbloom("menu list", &output), 0) << output;
  EXPECT_NE(output.find("Enlarge 8×"), std::string::npos) << output;
  EXPECT_NE(output.find("removed from the library"), std::string::npos) << output;

  EXPECT_EQ(tarnbloom("menu integrations --remove", &output), 0) << output;
  EXPECT_FALSE(fs::exists(home / "data" / "kio" / "servicemenus" / "tarnbloom.desktop"));
  EXPECT_EQ(tarnbloom("menu frobnicate", &output), 1) << output;
}

}  // namespace
}  // namespace tarnbloom::finder
