// `tarnbloom menu` and the recipe commands that republish the menu, run as a
// user runs them, with every folder they touch in a temporary one.

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include <chrono>
#include <thread>

#include "finder/finder_menu_file.h"
#include "finder/finder_menu_store.h"
#include "fixtures.h"
#include "support/settings.h"
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

// What a file manager's entry runs: an Enlarge entry someone confirmed
// before exports with that entry's own settings, photos beside themselves
// and a folder into a folder beside it; a recipe that is gone is refused
// with the message the menu promises.
TEST_F(MenuCommandTest, MenuRunExportsWithTheEntrysOwnSettings) {
  const fs::path photos = home / "Photos";
  fs::create_directories(photos / "Shoot");
  std::vector<uint16_t> samples(48 * 32 * 3);
  for (size_t i = 0; i < samples.size(); ++i) samples[i] = static_cast<uint16_t>(i * 7 % 256);
  testing::writePng(photos / "a.png", 48, 32, 3, 8, samples);
  testing::writePng(photos / "Shoot" / "b.png", 48, 32, 3, 8, samples);
  {
    auto settings = Settings::load(home / "State" / "settings.json");
    FinderMenuStore store(settings, recipes::RecipeStore(home / "State" / "Recipes"));
    auto options = store.enlargeOptions(2);
    options.method = ResampleMethod::exact;
    options.format = encoding::ExportFormat::jpeg;
    options.formatFollowsSource = false;
    store.setEnlargeOptions(options, 2);
    store.acknowledge(FinderIdentity::enlarge(2));
  }
  std::string output;
  ASSERT_EQ(tarnbloom("menu-run --entry enlarge-2 -- '" + (photos / "a.png").string() + "' '" +
                          (photos / "Shoot").string() + "'",
                      &output),
            0)
      << output;
  const auto jpegsIn = [](const fs::path& folder) {
    int count = 0;
    std::error_code error;
    for (const auto& entry : fs::directory_iterator(folder, error))
      count += entry.path().extension() == ".jpg" ? 1 : 0;
    return count;
  };
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
  while (std::chrono::steady_clock::now() < deadline &&
         (jpegsIn(photos) < 1 || jpegsIn(photos / "Shoot (Enlarged)") < 1))
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
  EXPECT_EQ(jpegsIn(photos), 1) << output;
  EXPECT_EQ(jpegsIn(photos / "Shoot (Enlarged)"), 1);
  EXPECT_EQ(jpegsIn(photos / "Shoot"), 0) << "a folder run never writes into the folder it reads";

  // Something moved away since the menu opened leaves the rest of the
  // selection to run.
  EXPECT_EQ(tarnbloom("menu-run --entry enlarge-2 -- '" + (photos / "Gone").string() + "'", &output), 3);
  EXPECT_NE(output.find("“Gone” is no longer there, so it was left out."), std::string::npos) << output;
  output.clear();
  EXPECT_EQ(tarnbloom("menu-run --entry enlarge-2 -- '" + (photos / "Gone").string() + "' '" +
                          (photos / "a.png").string() + "'",
                      &output),
            2)
      << output;
  EXPECT_NE(output.find("“Gone” is no longer there"), std::string::npos) << output;
  while (std::chrono::steady_clock::now() < deadline && jpegsIn(photos) < 2)
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
  EXPECT_EQ(jpegsIn(photos), 2) << "the photo still ran";

  EXPECT_EQ(tarnbloom("menu-run --entry recipe:no-such-recipe -- '" + (photos / "a.png").string() + "'",
                      &output),
            3);
  EXPECT_NE(output.find(FinderMenuStore::kRemovedRecipeMessage), std::string::npos) << output;
  EXPECT_EQ(tarnbloom("menu-run --entry enlarge-3 -- x.png", &output), 1) << output;
}

}  // namespace
}  // namespace tarnbloom::finder
