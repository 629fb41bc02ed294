#include <gtest/gtest.h>

#include <QCheckBox>
#include <QComboBox>
#include <QPushButton>
#include <QTest>

#include "app/menu_settings_dialog.h"
#include "finder/finder_menu_store.h"
#include "support/settings.h"
#include "test_support.h"

namespace tarnbloom::app {
namespace {

namespace fs = std::filesystem;
using encoding::ExportFormat;
using testing::TempDir;

template <typename W>
W* control(QWidget& dialog, const char* name) {
  auto* widget = dialog.findChild<W*>(QString::fromUtf8(name));
  EXPECT_NE(widget, nullptr) << name;
  return widget;
}

finder::FinderMenuStore storeOf(Settings& settings) {
  return finder::FinderMenuStore(settings, recipes::RecipeStore::userLibrary());
}

// The settings page writes what the file manager's runs read: the store in
// the shared settings file, each entry on its own.
TEST(MenuSettingsDialog, EachEnlargeEntryKeepsItsOwnSettingsUntilToldToFollowTheWindow) {
  TempDir home;
  setenv("TARNBLOOM_HOME", home.path().c_str(), 1);
  setenv("TARNBLOOM_MENU_CONTAINER", (home / "Group").c_str(), 1);
  exporting::ExportOptions window;
  window.format = ExportFormat::tiff;
  window.method = ResampleMethod::clarity;
  {
    auto settings = Settings::loadDefault();
    window.save(settings);
    settings.save();
  }

  MenuSettingsDialog dialog([&] { return window; }, home / "tarnbloom");
  dialog.show();
  auto* format4 = control<QComboBox>(dialog, "Enlarge 4× format");
  ASSERT_TRUE(format4);
  EXPECT_EQ(format4->currentData().toInt(), static_cast<int>(ExportFormat::tiff))
      << "an entry without settings shows the window's";

  format4->setCurrentIndex(format4->findData(static_cast<int>(ExportFormat::jpeg)));
  control<QCheckBox>(dialog, "Enlarge 8× include subfolders")->setChecked(true);
  {
    auto settings = Settings::loadDefault();
    auto store = storeOf(settings);
    EXPECT_TRUE(store.hasCustomEnlargeOptions(4));
    EXPECT_EQ(store.enlargeOptions(4).format, ExportFormat::jpeg);
    EXPECT_EQ(store.enlargeOptions(4).method, ResampleMethod::clarity);
    EXPECT_FALSE(store.hasCustomEnlargeOptions(2)) << "one entry's change is its own";
    EXPECT_TRUE(store.includeSubfolders(finder::FinderIdentity::enlarge(8)));
    EXPECT_FALSE(store.includeSubfolders(finder::FinderIdentity::enlarge(4)));
  }

  // Another process changes the settings file while the page is open: the
  // page's next change must not put back what it read at first.
  {
    auto settings = Settings::loadDefault();
    settings.set("export.nameTemplate", "{name}-big");
    settings.save();
  }
  control<QPushButton>(dialog, "Enlarge 4× use the window's export settings")->click();
  auto settings = Settings::loadDefault();
  EXPECT_FALSE(storeOf(settings).hasCustomEnlargeOptions(4));
  EXPECT_EQ(settings.string("export.nameTemplate"), "{name}-big");
  EXPECT_EQ(format4->currentData().toInt(), static_cast<int>(ExportFormat::tiff));
  QTest::qWait(50);
  fs::create_directories(TARNBLOOM_SCREENSHOTS);
  dialog.grab().save(QStringLiteral(TARNBLOOM_SCREENSHOTS "/menu-settings.png"));
  unsetenv("TARNBLOOM_MENU_CONTAINER");
  unsetenv("TARNBLOOM_HOME");
}

}  // namespace
}  // namespace tarnbloom::app
