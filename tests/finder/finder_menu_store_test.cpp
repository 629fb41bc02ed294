#include "finder/finder_menu_store.h"

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "finder/finder_menu_publisher.h"
#include "finder_test_support.h"
#include "support/settings.h"
#include "test_support.h"

namespace tarnbloom::finder {
namespace {

namespace fs = std::filesystem;
using testing::readText;
using testing::TempDir;
using testing::writeText;

recipes::RecipeDraft recipeNamed(const std::string& id, const std::string& name, int outputs = 1) {
  recipes::RecipeDraft draft;
  draft.id = id;
  draft.name = name;
  for (int i = 0; i < outputs; ++i) draft.outputs.emplace_back();
  return draft;
}

TEST(FinderIdentity, EncodesBothKindsAndRefusesEveryOtherShape) {
  EXPECT_EQ(FinderIdentity::enlarge(2).canonicalText(), R"({"enlarge":2})");
  EXPECT_EQ(FinderIdentity::recipe("A-1").canonicalText(), R"({"recipe":{"id":"A-1"}})");
  for (const auto& identity :
       {FinderIdentity::enlarge(2), FinderIdentity::enlarge(8), FinderIdentity::recipe("x\"y 😀")}) {
    EXPECT_EQ(FinderIdentity::fromCanonicalText(identity.canonicalText()), identity);
    EXPECT_EQ(FinderIdentity::fromCommandLineText(identity.commandLineText()), identity);
  }
  EXPECT_EQ(FinderIdentity::recipe("a:b").commandLineText(), "recipe:a:b");

  for (const char* text :
       {R"({"enlarge":3})", R"({"enlarge":2.0})", R"({"enlarge":true})", R"({"enlarge":"2"})",
        R"({"enlarge":4294967298})", R"({"enlarge":2,"recipe":{"id":"a"}})",
        R"({"enlarge":2,"enlarge":4})", R"({"recipe":"a"})", R"({"recipe":{"id":"a","x":1}})",
        R"({"recipe":{"id":""}})", R"({"recipe":{"id":"a\nb"}})", R"({"recipe":{}})", "[]", "{}",
        "2", "{"}) {
    EXPECT_THROW(FinderIdentity::fromCanonicalText(text), FinderMenuError) << text;
  }
  for (const char* text : {"enlarge-3", "enlarge-2x", "enlarge-", "recipe:", "Recipe:a", "", "2"})
    EXPECT_THROW(FinderIdentity::fromCommandLineText(text), FinderMenuError) << text;
  EXPECT_THROW(FinderIdentity::enlarge(16), FinderMenuError);
}

class FinderMenuStoreTest : public ::testing::Test {
 protected:
  TempDir home;
  ScopedEnvironment container{"TARNBLOOM_MENU_CONTAINER", (home / "Group").string()};
  Settings settings = Settings::load(home / "settings.json");
  recipes::RecipeStore library{home / "Recipes"};
  FinderMenuStore store{settings, library};

  fs::path menuPath() const { return home / "Group" / "finder-menu.json"; }
};

TEST_F(FinderMenuStoreTest, KeepsOneOrderedEntryPerRecipeAndTellsListeners) {
  library.save(recipeNamed("a", "Print"));
  library.save(recipeNamed("b", "Web"));
  library.save(recipeNamed("c", "Archive"));
  int changes = 0;
  store.addListener([&] { ++changes; });

  EXPECT_TRUE(store.add("a"));
  EXPECT_FALSE(store.add("a")) << "adding twice leaves one";
  EXPECT_FALSE(store.add("missing"));
  EXPECT_TRUE(store.add("b"));
  EXPECT_TRUE(store.add("c"));
  EXPECT_EQ(changes, 3) << "refused adds change nothing";
  store.move("c", -10);
  store.move("a", 1);
  EXPECT_EQ(store.orderedRecipeIDs(), (std::vector<std::string>{"c", "b", "a"}));
  store.remove("b");
  store.remove("b");

  // Saved in the shared settings file, where another process finds it.
  auto reread = Settings::load(settings.path());
  EXPECT_EQ(FinderMenuStore(reread, library).orderedRecipeIDs(),
            (std::vector<std::string>{"c", "a"}));
  // A hand-edited list with junk and repeats reads as its usable ids once.
  settings.set("FinderMenuStore.orderedRecipeIDs", {"a", 7, "a", "", "c"});
  EXPECT_EQ(store.orderedRecipeIDs(), (std::vector<std::string>{"a", "c"}));
}

TEST_F(FinderMenuStoreTest, PublishesTheLibraryAsItIsAndRewritesADamagedFile) {
  store.publish();
  EXPECT_EQ(nlohmann::json::parse(readText(menuPath())),
            nlohmann::json::parse(R"({"version":1,"items":[]})"));

  library.save(recipeNamed("a", "Print", 2));
  library.save(recipeNamed("b", "Web"));
  store.add("a");
  store.add("b");
  library.remove("a");
  auto published = store.publish();
  ASSERT_EQ(published.items.size(), 1u) << "a deleted recipe drops out";
  EXPECT_EQ(published.items[0].id, "b");
  EXPECT_EQ(published.items[0].title, "Web");
  EXPECT_TRUE(published.items[0].summary.starts_with("1 output · ")) << published.items[0].summary;
  EXPECT_EQ(FinderMenuFile::read(menuPath()), published);

  for (const char* damaged :
       {"not json", R"({"version":2,"items":[]})", R"({"version":1,"items":[],"extra":1})",
        R"({"version":1,"items":[{"id":"b","title":"Web"}]})",
        R"({"version":1,"items":[{"id":"b","title":7,"summary":""}]})",
        R"({"version":1,"version":1,"items":[]})"}) {
    writeText(menuPath(), damaged);
    EXPECT_THROW(FinderMenuFile::read(menuPath()), FinderMenuError) << damaged;
    store.publish();
    EXPECT_EQ(FinderMenuFile::read(menuPath()), published) << damaged;
  }

  // No container: the error, and the file there stays as it was.
  writeText(home / "NotAFolder", "keep");
  ScopedEnvironment broken("TARNBLOOM_MENU_CONTAINER", (home / "NotAFolder").string());
  try {
    store.publish();
    FAIL() << "published without a container";
  } catch (const FinderMenuError& error) {
    EXPECT_EQ(error.description(), "The App Group container is unavailable.");
  }
  EXPECT_EQ(readText(home / "NotAFolder"), "keep");
}

TEST_F(FinderMenuStoreTest, KeepsEntrySettingsPerIdentity) {
  const auto two = FinderIdentity::enlarge(2);
  const auto recipe = FinderIdentity::recipe("a");
  store.setIncludeSubfolders(true, two);
  store.setFolderDestination(home / "Out", recipe);
  store.acknowledge(recipe);
  store.acknowledge(recipe);
  EXPECT_TRUE(store.includeSubfolders(two));
  EXPECT_FALSE(store.includeSubfolders(recipe));
  EXPECT_EQ(store.folderDestination(recipe), home / "Out");
  EXPECT_EQ(store.folderDestination(two), std::nullopt);
  EXPECT_TRUE(store.isAcknowledged(recipe));
  EXPECT_FALSE(store.isAcknowledged(two));
  EXPECT_EQ(settings.value("FinderMenuStore.includeSubfolders")->dump(),
            R"({"{\"enlarge\":2}":true})");
  store.setFolderDestination(std::nullopt, recipe);
  EXPECT_EQ(store.folderDestination(recipe), std::nullopt);
  store.resetAcknowledgements();
  EXPECT_FALSE(store.hasAcknowledgements());

  // Enlarge settings: the current options at that size until some are saved.
  auto current = exporting::ExportOptions::saved(settings);
  current.format = encoding::ExportFormat::tiff;
  current.save(settings);
  EXPECT_EQ(store.enlargeOptions(4).format, encoding::ExportFormat::tiff);
  EXPECT_EQ(store.enlargeOptions(4).sizeMode, SizeMode::x4);
  auto custom = current;
  custom.format = encoding::ExportFormat::jpeg;
  custom.sizeMode = SizeMode::longEdge;
  store.setEnlargeOptions(custom, 2);
  EXPECT_TRUE(store.hasCustomEnlargeOptions(2));
  EXPECT_FALSE(store.hasCustomEnlargeOptions(4));
  EXPECT_EQ(store.enlargeOptions(2).format, encoding::ExportFormat::jpeg);
  EXPECT_EQ(store.enlargeOptions(2).sizeMode, SizeMode::x2) << "the entry's size always wins";
  EXPECT_EQ(store.enlargeOptions(4).format, encoding::ExportFormat::tiff);
  settings.set("FinderMenuStore.enlargeOptions.2", {{"format", "jpeg"}});
  EXPECT_FALSE(store.hasCustomEnlargeOptions(2)) << "a value that does not decode is none";
  EXPECT_EQ(store.enlargeOptions(2).format, encoding::ExportFormat::tiff);
  EXPECT_THROW(store.enlargeOptions(3), FinderMenuError);
}

// What the window does at launch and the command line after a recipe change.
TEST(FinderMenuPublisher, PutsTheMenuFileRightOnlyForSomeoneWhoUsesTheMenu) {
  TempDir home;
  ScopedEnvironment state("TARNBLOOM_HOME", home.path().string());
  ScopedEnvironment container("TARNBLOOM_MENU_CONTAINER", (home / "Group").string());
  ScopedEnvironment data("XDG_DATA_HOME", (home / "data").string());
  ScopedEnvironment config("XDG_CONFIG_HOME", (home / "config").string());
  const fs::path menu = home / "Group" / "finder-menu.json";
  const fs::path tool = home / "bin" / "tarnbloom";

  EXPECT_TRUE(republishFinderMenu(tool).empty());
  EXPECT_FALSE(fs::exists(menu)) << "nobody asked for a menu";

  const auto library = recipes::RecipeStore::userLibrary();
  library.save(recipeNamed("a", "Print"));
  auto settings = Settings::loadDefault();
  FinderMenuStore(settings, library).add("a");
  fs::create_directories(menu.parent_path());
  writeText(menu, R"({"version":1,"items":[{"id":"evil","title":"x\nExec=rm","summary":""}]})");
  EXPECT_TRUE(republishFinderMenu(tool).empty());
  auto published = FinderMenuFile::read(menu);
  ASSERT_EQ(published.items.size(), 1u);
  EXPECT_EQ(published.items[0].id, "a");

  library.remove("a");
  EXPECT_TRUE(republishFinderMenu(tool).empty());
  EXPECT_TRUE(FinderMenuFile::read(menu).items.empty()) << "a deleted recipe leaves the menu";
  EXPECT_FALSE(fs::exists(home / "data" / "kio")) << "only installed menus are refreshed";
}

}  // namespace
}  // namespace tarnbloom::finder
