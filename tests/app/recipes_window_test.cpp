#include <gtest/gtest.h>

#include <filesystem>

#include <QApplication>
#include <QCheckBox>
#include <QComboBox>
#include <QLineEdit>
#include <QListWidget>
#include <QMessageBox>
#include <QPushButton>
#include <QTest>
#include <QTimer>

#include "app/export_sheet.h"
#include "app/inspector_panel.h"
#include "app/main_window.h"
#include "app/photo_document.h"
#include "app/recipe_editor.h"
#include "app/recipes_window.h"
#include "engine/resample_engine.h"
#include "finder/finder_menu_file.h"
#include "recipes/recipes_window_logic.h"
#include "fixtures.h"
#include "test_support.h"

namespace tarnbloom::app {
namespace {

namespace fs = std::filesystem;
using recipes::RecipeDraft;
using recipes::RecipeStore;
using testing::TempDir;

bool waitFor(const std::function<bool()>& done, int ms = 30000) { return QTest::qWaitFor(done, ms); }

RecipeDraft recipeNamed(const std::string& id, const std::string& name) {
  RecipeDraft draft;
  draft.id = id;
  draft.name = name;
  draft.outputs.emplace_back();
  return draft;
}

RecipeStore::LibraryEntry entry(const std::string& id) {
  RecipeStore::LibraryEntry e;
  e.url = "/library/" + id + ".tarnbloomrecipe";
  e.name = id;
  e.draft = recipeNamed(id, id);
  return e;
}

std::vector<std::string> idsOf(const std::vector<RecipeStore::LibraryEntry>& entries) {
  std::vector<std::string> ids;
  for (const auto& e : entries) ids.push_back(e.id());
  return ids;
}

TEST(RecipesWindowOrder, FollowsTheSavedIdsThenKeepsTheLibrarysOrder) {
  RecipeStore::LibraryEntry broken;
  broken.url = "/library/broken.tarnbloomrecipe";
  broken.refusal = "not a recipe";
  const std::vector<RecipeStore::LibraryEntry> library = {entry("a"), entry("b"), broken,
                                                          entry("c"), entry("d")};
  using Logic = recipes::RecipesWindowLogic;
  EXPECT_EQ(idsOf(Logic::sortedEntries(library, {})), idsOf(library));
  // Unknown ids and repeats in the saved list change nothing; a broken
  // file is placed by its path.
  EXPECT_EQ(idsOf(Logic::sortedEntries(library, {"c", "gone", "/library/broken.tarnbloomrecipe", "a", "c"})),
            (std::vector<std::string>{"c", "/library/broken.tarnbloomrecipe", "a", "b", "d"}));
}

// A private state folder (recipes, settings, menu container) per test.
class RecipesWindowTest : public ::testing::Test {
 protected:
  void SetUp() override { setenv("TARNBLOOM_HOME", home.path().c_str(), 1); }

  QPushButton* button(QWidget& window, const QString& name) {
    auto* b = window.findChild<QPushButton*>(name);
    EXPECT_NE(b, nullptr) << name.toStdString();
    return b;
  }
  // Answers the next modal box with the button titled `title`.
  void answerNextBox(const QString& title, QString* shown = nullptr) {
    QTimer::singleShot(100, [title, shown] {
      auto* box = qobject_cast<QMessageBox*>(QApplication::activeModalWidget());
      ASSERT_NE(box, nullptr);
      if (shown) *shown = box->text() + "\n" + box->informativeText();
      for (auto* b : box->buttons())
        if (b->text() == title) b->click();
    });
  }
  std::vector<std::string> menuIDs() {
    std::vector<std::string> ids;
    const auto menu = finder::FinderMenuFile::read(finder::finderMenuContainer() /
                                                   std::string(finder::FinderMenuShared::fileName));
    for (const auto& item : menu.items) ids.push_back(item.id);
    return ids;
  }

  TempDir home, photos;
  RecipeStore library{home / "Recipes"};
};

TEST_F(RecipesWindowTest, ListsABrokenFileWithItsReasonAndDeletesItOnlyWhenConfirmed) {
  library.save(recipeNamed("KEEP", "Keeper"));
  fs::create_directories(library.directory());
  const fs::path broken = library.directory() / "broken.tarnbloomrecipe";
  // Not JSON at all: listed under its file name, unusable.
  testing::writeText(broken, "{ this is not json");
  RecipesWindow window({library, nullptr, {}, {}});
  window.show();
  ASSERT_EQ(window.entries().size(), 2u);
  window.select(broken.string());
  ASSERT_NE(window.selected(), nullptr);
  const QString text = window.findChild<QListWidget*>("Recipes")->currentItem()->text();
  EXPECT_TRUE(text.startsWith("broken\nCan’t be used: ")) << text.toStdString();
  EXPECT_FALSE(button(window, "Edit…")->isEnabled());
  EXPECT_FALSE(window.findChild<QCheckBox*>("Show in File Manager Menu")->isEnabled());

  QString shown;
  answerNextBox("Cancel", &shown);
  window.deleteSelected();
  EXPECT_TRUE(fs::exists(broken));
  EXPECT_NE(shown.indexOf(QString::fromUtf8(RecipeStore::kRemoveNote.data())), -1) << shown.toStdString();
  answerNextBox("Delete");
  window.deleteSelected();
  EXPECT_FALSE(fs::exists(broken));
  ASSERT_EQ(window.entries().size(), 1u);
  EXPECT_EQ(window.entries()[0].id(), "KEEP");
  // A recipe another program saves shows without asking.
  RecipeStore(home / "Recipes").save(recipeNamed("CLI", "From the command line"));
  EXPECT_TRUE(waitFor([&] { return window.entries().size() == 2; }, 5000));
}

TEST_F(RecipesWindowTest, MenuChoicesAndOrderReachThePublishedMenuFile) {
  library.save(recipeNamed("A", "Alpha"));
  library.save(recipeNamed("B", "Beta"));
  RecipesWindow window({library, nullptr, {}, {}});
  window.show();
  auto* inMenu = window.findChild<QCheckBox*>("Show in File Manager Menu");
  for (const char* id : {"A", "B"}) {
    window.select(id);
    ASSERT_TRUE(inMenu->isEnabled());
    inMenu->click();
  }
  EXPECT_EQ(menuIDs(), (std::vector<std::string>{"A", "B"}));
  // The window's own order is the user's, kept for the next window.
  auto* list = window.findChild<QListWidget*>("Recipes");
  const std::string last = window.entries().back().id();
  ASSERT_TRUE(list->model()->moveRow(QModelIndex(), 1, QModelIndex(), 0));
  EXPECT_EQ(RecipesWindow({library, nullptr, {}, {}}).entries().front().id(), last);
  window.menuList()->setCurrentRow(1);
  button(window, "Move Up")->click();
  EXPECT_EQ(menuIDs(), (std::vector<std::string>{"B", "A"}));
  EXPECT_EQ(window.menuList()->item(0)->text(), "Beta");
  window.select("A");
  EXPECT_TRUE(inMenu->isChecked());
  inMenu->click();
  EXPECT_EQ(menuIDs(), (std::vector<std::string>{"B"}));
  // Deleting a recipe takes it out of the menu too.
  window.select("B");
  answerNextBox("Delete");
  window.deleteSelected();
  EXPECT_TRUE(menuIDs().empty());
}

// The whole path a person takes: settings in the inspector become a recipe,
// a second output is added in the editor, and applying it to the open
// photo writes one file per output through the window's exports.
TEST_F(RecipesWindowTest, MakesARecipeFromTheCurrentSettingsAndAppliesBothOutputs) {
  TempDir out;
  const fs::path source = photos / "photo.png";
  testing::writePng(source, 60, 40, 3, 8, std::vector<uint16_t>(60 * 40 * 3, 90));
  ExportRequest naming;
  naming.nameTemplate = "{source}-first";
  naming.folder = out.path();
  saveRequest(naming);

  MainWindow main;
  main.show();
  main.startExports();
  main.openFiles({QString::fromStdString(source.string())});
  ASSERT_TRUE(waitFor([&] {
    return main.activeDocument() && main.activeDocument()->state() == PhotoDocument::State::loaded &&
           main.exportHost().isReady();
  }));
  auto options = main.activeDocument()->options();
  options.method = ResampleMethod::exact;
  options.sizeMode = SizeMode::longEdge;
  options.sizeValue = 90;
  options.format = encoding::ExportFormat::jpeg;
  options.formatFollowsSource = false;
  options.jpeg.quality = 77;
  options.colourPolicy.exif = encoding::MetadataToggle::strip;
  main.activeDocument()->setOptions(options);
  ASSERT_TRUE(waitFor([&] { return main.inspector()->options().jpeg.quality == 77; }));

  RecipesWindow window({library, &main.exportHost(),
                        [&]() -> std::optional<fs::path> { return main.activeDocument()->path(); },
                        [&] { return main.inspector()->options(); }});
  window.show();
  RecipeEditor* editor = window.newRecipe();
  button(*editor, "Save")->click();
  EXPECT_TRUE(editor->isVisible()) << "an unnamed recipe is refused in the editor";
  EXPECT_TRUE(library.entries(recipes::allMethods()).empty());
  editor->findChild<QLineEdit*>("Recipe name")->setText("Web and print");
  button(*editor, "Add Output")->click();
  editor->findChild<QComboBox*>("Format")->setCurrentText("PNG");
  editor->findChild<QComboBox*>("Size mode")->setCurrentIndex(0);  // 2×
  auto* names = editor->findChild<QLineEdit*>("Name template");
  names->setText("{source}-second");
  Q_EMIT names->editingFinished();
  button(*editor, "Save")->click();

  const auto saved = library.all(recipes::allMethods());
  ASSERT_EQ(saved.size(), 1u);
  ASSERT_EQ(saved[0].outputs.size(), 2u);
  const auto first = saved[0].outputs[0].exportOptions();
  EXPECT_EQ(first.method, options.method);
  EXPECT_EQ(first.sizeMode, options.sizeMode);
  EXPECT_EQ(first.sizeValue, options.sizeValue);
  EXPECT_EQ(first.format, options.format);
  EXPECT_EQ(first.jpeg.quality, 77);
  EXPECT_EQ(first.colourPolicy, options.colourPolicy);
  EXPECT_EQ(saved[0].outputs[0].destination, out.path().string());

  window.select(saved[0].id);
  button(window, "Apply to Current Photo")->click();
  const fs::path jpeg = out / "photo-first.jpg";
  const fs::path png = out / "photo-second.png";
  ASSERT_TRUE(waitFor([&] { return fs::exists(jpeg) && fs::exists(png) && !main.exportHost().busy(); }))
      << window.message().toStdString();
  EXPECT_EQ(ResampleEngine::load(jpeg).bitmap->width, 90);
  EXPECT_EQ(ResampleEngine::load(png).bitmap->width, 120);

  // Over a folder, a file that is no photo is refused by name and the
  // photos still run.
  TempDir folder;
  testing::writePng(folder / "a.png", 30, 20, 3, 8, std::vector<uint16_t>(30 * 20 * 3, 200));
  testing::writeText(folder / "notes.png", "not a picture");
  window.applyToFolder(folder.path(), false);
  EXPECT_NE(window.message().indexOf("notes.png: "), -1) << window.message().toStdString();
  ASSERT_TRUE(waitFor([&] {
    return fs::exists(out / "a-first.jpg") && fs::exists(out / "a-second.png") &&
           !main.exportHost().busy();
  })) << window.message().toStdString();
}

}  // namespace
}  // namespace tarnbloom::app
