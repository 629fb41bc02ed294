#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>

#include <QPushButton>
#include <QSignalSpy>
#include <QTest>
#include <QUrl>

#include "app/main_window.h"
#include "app/update_checker.h"
#include "support/settings.h"
#include "test_support.h"

namespace tarnbloom::app {
namespace {

namespace fs = std::filesystem;

QPushButton* button(UpdateBar& bar, const QString& name) {
  for (auto* candidate : bar.findChildren<QPushButton*>())
    if (candidate->accessibleName() == name) return candidate;
  ADD_FAILURE() << "no button " << name.toStdString();
  return nullptr;
}

void saveScreenshot(QWidget& widget, const char* name) {
  QTest::qWait(50);  // layouts settle on posted events
  fs::create_directories(TARNBLOOM_SCREENSHOTS);
  widget.grab().save(QString::fromUtf8(TARNBLOOM_SCREENSHOTS) + "/" + name + ".png");
}

// A private settings file pointing the checker at a version file on disk.
class UpdateNotice : public ::testing::Test {
 protected:
  void SetUp() override {
    setenv("TARNBLOOM_HOME", home.path().c_str(), 1);
    testing::writeText(home / "manifest.json",
                       R"({"version":"999.0.0","url":"https://tarnbloom.example/notes/999",)"
                       R"("published":"2026-11-20"})");
    editSettings([this](Settings& s) {
      s.set(UpdateChecker::kManifestURLKey,
            QUrl::fromLocalFile(QString::fromStdString((home / "manifest.json").string())).toString().toStdString());
    });
  }

  void editSettings(const std::function<void(Settings&)>& edit) {
    Settings settings = Settings::loadDefault();
    edit(settings);
    settings.save();
  }

  testing::TempDir home;
};

TEST_F(UpdateNotice, AsksFirstThenShowsANewerVersionUntilItIsSkipped) {
  {
    MainWindow window;
    window.resize(1000, 640);
    window.show();
    window.startExports();
    auto* bar = window.findChild<UpdateBar*>();
    ASSERT_TRUE(QTest::qWaitFor([&] { return bar->isVisible(); }, 5000));
    EXPECT_TRUE(bar->message().startsWith("Check for Tarnbloom updates once a day?"));
    // Nothing is fetched before the user agrees.
    EXPECT_FALSE(Settings::loadDefault().value(UpdateChecker::kLastCheckKey));
    saveScreenshot(window, "update-question");

    QTest::mouseClick(button(*bar, "Check Daily"), Qt::LeftButton);
    EXPECT_EQ(Settings::loadDefault().boolean(UpdateChecker::kEnabledKey), true);
    ASSERT_TRUE(QTest::qWaitFor([&] { return bar->isVisible(); }, 20000));
    EXPECT_EQ(bar->message(), "Tarnbloom 999.0.0 is available.");
    saveScreenshot(window, "update-notice");

    QTest::mouseClick(button(*bar, "Skip This Version"), Qt::LeftButton);
    EXPECT_FALSE(bar->isVisible());
    EXPECT_EQ(Settings::loadDefault().string(UpdateChecker::kSkippedVersionKey), "999.0.0");
  }

  // The next check, a day later, finds the same version and stays quiet.
  editSettings([](Settings& s) { s.remove(UpdateChecker::kLastCheckKey); });
  MainWindow window;
  window.show();
  QSignalSpy finished(window.updates(), &UpdateChecker::checkFinished);
  window.updates()->start();
  ASSERT_TRUE(finished.count() > 0 || finished.wait(20000));
  EXPECT_TRUE(Settings::loadDefault().value(UpdateChecker::kLastCheckKey));
  EXPECT_FALSE(window.findChild<UpdateBar*>()->isVisible());
}

TEST_F(UpdateNotice, DeclinedChecksNeverFetchOrAskAgain) {
  {
    MainWindow window;
    window.show();
    window.updates()->start();
    auto* bar = window.findChild<UpdateBar*>();
    ASSERT_TRUE(bar->isVisible());
    QTest::mouseClick(button(*bar, "Don’t Check"), Qt::LeftButton);
    EXPECT_FALSE(bar->isVisible());
  }
  EXPECT_EQ(Settings::loadDefault().boolean(UpdateChecker::kEnabledKey), false);

  MainWindow window;
  window.show();
  window.updates()->start();
  QTest::qWait(100);
  EXPECT_FALSE(window.findChild<UpdateBar*>()->isVisible());
  EXPECT_FALSE(Settings::loadDefault().value(UpdateChecker::kLastCheckKey));
}

}  // namespace
}  // namespace tarnbloom::app
