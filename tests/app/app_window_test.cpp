#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>

#include <QAction>
#include <QLabel>
#include <QPalette>
#include <QMessageBox>
#include <QTimer>
#include <QPushButton>
#include <QTabWidget>
#include <QTest>
#include <QMimeData>
#include <QUrl>
#include <QWheelEvent>
#include <QDropEvent>

#include "agent/agent_client.h"
#include "agent/agent_paths.h"
#include "app/compare_view.h"
#include "app/export_host.h"
#include "app/export_sheet.h"
#include "app/inspector_panel.h"
#include "app/main_window.h"
#include "app/menu_run_confirmation.h"
#include "app/photo_document.h"
#include "app/pixel_image.h"
#include "app/progress_strip.h"
#include "engine/dimension_resolver.h"
#include "engine/resample_engine.h"
#include "export/export_queue_store.h"
#include "finder/finder_menu_store.h"
#include "support/settings.h"
#include "support/uuid.h"
#include "fixtures.h"
#include "model_fixtures.h"
#include "test_support.h"

namespace tarnbloom::app {
namespace {

namespace fs = std::filesystem;
using testing::TempDir;

// Texture and hard edges, where the methods differ, as a real photo has.
void writePhoto(const fs::path& path, int w, int h) {
  std::vector<uint16_t> samples(static_cast<size_t>(w) * h * 3);
  for (int y = 0; y < h; ++y)
    for (int x = 0; x < w; ++x) {
      uint16_t* p = samples.data() + (static_cast<size_t>(y) * w + x) * 3;
      p[0] = static_cast<uint16_t>(128 + 100 * std::sin(x * 0.3) * std::cos(y * 0.2));
      p[1] = static_cast<uint16_t>(((x / 7 + y / 5) % 2) ? 210 : 40);
      p[2] = static_cast<uint16_t>((x * 3 + y * 2) % 256);
    }
  testing::writePng(path, w, h, 3, 8, samples);
}

void saveScreenshot(QWidget& widget, const char* name) {
  // Layouts settle on posted events; a grab before them shows stale sizes.
  QTest::qWait(50);
  fs::create_directories(TARNBLOOM_SCREENSHOTS);
  widget.grab().save(QString::fromStdString(std::string(TARNBLOOM_SCREENSHOTS) + "/" + name + ".png"));
}

bool waitFor(const std::function<bool()>& done, int ms = 30000) { return QTest::qWaitFor(done, ms); }

QImage rgba(const QImage& image) { return image.convertToFormat(QImage::Format_RGBA8888); }

// A private state folder and settings, and a small Enhance network of the
// real graph's shape so Enhance runs without the shipped weights.
class DesktopWindow : public ::testing::Test {
 protected:
  void SetUp() override {
    setenv("TARNBLOOM_HOME", home.path().c_str(), 1);
    const auto model = testing::makeModel(8, 2, 4, true);
    testing::writeText(home / "tiny.param", model.param);
    testing::writeBytes(home / "tiny.bin", model.bin);
    setenv("TARNBLOOM_ESTIMATE_MODEL", (home / "tiny.param").c_str(), 1);
  }
  void TearDown() override {
    unsetenv("TARNBLOOM_ESTIMATE_MODEL");
  }

  fs::path photo(const std::string& name, int w = 120, int h = 90) {
    writePhoto(photos / name, w, h);
    return photos / name;
  }

  void setOptions(MainWindow& window, const std::function<void(exporting::ExportOptions&)>& edit) {
    auto options = window.activeDocument()->options();
    edit(options);
    window.activeDocument()->setOptions(options);
  }

  TempDir home, photos;
};

bool loaded(const MainWindow& window) {
  return window.activeDocument() &&
         window.activeDocument()->state() == PhotoDocument::State::loaded;
}

TEST_F(DesktopWindow, OpensTabsNamesTheActivePhotoAndKeepsOnlyRecentTabsResident) {
  MainWindow window;
  window.resize(1280, 800);
  window.show();
  EXPECT_EQ(window.windowTitle(), "Tarnbloom");
  EXPECT_FALSE(window.action("export")->isEnabled());
  saveScreenshot(window, "empty-window");

  QStringList files;
  for (const char* name : {"a.png", "b.png", "c.png", "d.png", "e.png"})
    files << QString::fromStdString(photo(name).string());
  window.openFiles(files);
  ASSERT_EQ(window.tabs()->count(), 5);
  EXPECT_EQ(window.windowTitle(), "e.png — Tarnbloom");
  ASSERT_TRUE(waitFor([&] { return loaded(window); }));

  // Visiting every tab leaves only the active one and the two before it
  // holding pixels; the others keep their settings.
  for (int i = 0; i < 5; ++i) {
    window.action("nextTab")->trigger();
    ASSERT_TRUE(waitFor([&] { return loaded(window); })) << i;
  }
  int resident = 0;
  for (int i = 0; i < window.tabs()->count(); ++i) {
    auto* view = window.tabs()->widget(i)->findChild<CompareView*>();
    auto* document = window.tabs()->widget(i)->findChild<PhotoDocument*>();
    ASSERT_TRUE(view && document);
    resident += document->state() == PhotoDocument::State::loaded ? 1 : 0;
    if (document->state() != PhotoDocument::State::loaded) {
      EXPECT_EQ(document->residentBytes(), 0u);
    }
  }
  EXPECT_EQ(resident, static_cast<int>(MainWindow::kResidentTabs));
  EXPECT_EQ(window.windowTitle(), "e.png — Tarnbloom");

  // A file dropped on the window opens in a tab of its own.
  const fs::path dropped = photo("dropped.png");
  QMimeData mime;
  mime.setUrls({QUrl::fromLocalFile(QString::fromStdString(dropped.string()))});
  QDragEnterEvent enter(QPoint(300, 300), Qt::CopyAction, &mime, Qt::LeftButton, Qt::NoModifier);
  QApplication::sendEvent(&window, &enter);
  EXPECT_TRUE(enter.isAccepted());
  QDropEvent drop(QPointF(300, 300), Qt::CopyAction, &mime, Qt::LeftButton, Qt::NoModifier);
  QApplication::sendEvent(&window, &drop);
  EXPECT_EQ(window.tabs()->count(), 6);
  EXPECT_EQ(window.windowTitle(), "dropped.png — Tarnbloom");
  ASSERT_TRUE(waitFor([&] { return loaded(window); }));

  window.action("close")->trigger();
  window.action("close")->trigger();
  EXPECT_EQ(window.tabs()->count(), 4);
  EXPECT_EQ(window.windowTitle(), window.activeDocument()->fileName() + " — Tarnbloom");
  // An evicted tab loads again when shown, and its digest still matches.
  window.tabs()->setCurrentIndex(0);
  ASSERT_TRUE(waitFor([&] { return loaded(window); }));
}

TEST_F(DesktopWindow, ShowsTheEnginesOwnMessageForInputItCannotOpen) {
  const fs::path gif = photos / "anim.gif";
  testing::writeText(gif, std::string("GIF89a\x01\x00\x01\x00\x00\x00\x00;", 14));
  const fs::path empty = photos / "empty.png";
  testing::writeText(empty, "");
  const fs::path folder = photos / "folder.png";
  fs::create_directories(folder);
  const fs::path vanished = photos / "vanished.jpg";
  const fs::path raw = photos / "fake.nef";
  testing::writeText(raw, "not a camera file at all");

  MainWindow window;
  window.resize(1280, 800);
  window.show();
  for (const fs::path& file : {gif, empty, folder, vanished, raw}) {
    window.openFiles({QString::fromStdString(file.string())});
    PhotoDocument* document = window.activeDocument();
    ASSERT_TRUE(waitFor([&] { return document->state() == PhotoDocument::State::failed; }))
        << file;
    std::string expected;
    try {
      ResampleEngine::load(file);
      FAIL() << "the engine opened " << file;
    } catch (const Error& error) {
      expected = error.description();
    }
    EXPECT_TRUE(document->errorText().startsWith(QString::fromStdString(expected)))
        << document->errorText().toStdString() << " / " << expected;
    auto* message = window.tabs()->currentWidget()->findChild<QLabel*>("Photo message");
    ASSERT_TRUE(message);
    EXPECT_TRUE(message->isVisible());
    EXPECT_FALSE(window.action("export")->isEnabled());
  }
  saveScreenshot(window, "error-in-tab");
  // The window goes on working.
  window.openFiles({QString::fromStdString(photo("fine.png").string())});
  ASSERT_TRUE(waitFor([&] { return loaded(window); }));
}

TEST_F(DesktopWindow, RefusesAChoiceInlineAndSaysWhyExportIsOff) {
  MainWindow window;
  window.resize(1280, 800);
  window.show();
  window.startExports();
  window.openFiles({QString::fromStdString(photo("small.png", 120, 90).string())});
  ASSERT_TRUE(waitFor([&] { return loaded(window) && window.exportHost().isReady(); }));
  setOptions(window, [](auto& o) {
    o.sizeMode = SizeMode::x2;
    o.method = ResampleMethod::exact;
  });
  EXPECT_TRUE(window.action("export")->isEnabled());

  setOptions(window, [](auto& o) {
    o.sizeMode = SizeMode::width;
    o.sizeValue = 100;
  });
  std::string expected;
  try {
    DimensionResolver::resolve(120, 90, SizeMode::width, 100, 0, 0, 8, "png", false);
  } catch (const Error& error) {
    expected = error.description();
  }
  ASSERT_FALSE(expected.empty());
  auto* message = window.inspector()->findChild<QLabel*>("Inspector message");
  auto* button = window.inspector()->findChild<QPushButton*>("Export");
  ASSERT_TRUE(message && button);
  EXPECT_TRUE(message->text().startsWith(QString::fromStdString(expected))) << message->text().toStdString();
  EXPECT_TRUE(message->isVisible());
  EXPECT_TRUE(button->isVisible()) << "disabled, never hidden";
  EXPECT_FALSE(button->isEnabled());
  EXPECT_EQ(button->toolTip(), message->text());
  EXPECT_FALSE(window.action("export")->isEnabled());
  saveScreenshot(window, "refused-size");
}

// What the compare view shows at 100 % is what the export writes, for
// each method: the exported PNG decodes to the preview's pixels.
TEST_F(DesktopWindow, PreviewEqualsTheExportedPixelsForEveryMethod) {
  MainWindow window;
  window.resize(1400, 900);
  window.show();
  window.startExports();
  const fs::path source = photo("texture.png", 150, 110);
  window.openFiles({QString::fromStdString(source.string())});
  ASSERT_TRUE(waitFor([&] { return loaded(window) && window.exportHost().isReady(); }));
  TempDir out;
  for (ResampleMethod method : kAllResampleMethods) {
    setOptions(window, [&](auto& o) {
      o.sizeMode = SizeMode::x2;
      o.method = method;
      o.estimateStrength = 0.7;
      o.format = encoding::ExportFormat::png;
      o.formatFollowsSource = false;
    });
    CompareView* view = window.activeView();
    view->zoomTo(1);
    if (method == ResampleMethod::estimate) saveScreenshot(window, "enhance-in-progress");
    ASSERT_TRUE(waitFor([&] { return view->complete(); })) << rawValue(method);
    if (method == ResampleMethod::exact) saveScreenshot(window, "split-view-100");
    const QImage preview = rgba(view->resultPixels({0, 0, 300, 220}));

    ExportRequest request;
    request.options = window.activeDocument()->options();
    request.nameTemplate = "{source}-{method}";
    request.folder = out.path();
    ASSERT_TRUE(window.exportHost().submit(source, request).isEmpty());
    const fs::path output = out / ("texture-" + std::string(rawValue(method)) + ".png");
    ASSERT_TRUE(waitFor([&] { return !window.exportHost().busy() && fs::exists(output); }))
        << output;
    const SourceImage written = ResampleEngine::load(output);
    const QImage exported = rgba(toQImage(*written.bitmap));
    ASSERT_EQ(exported.size(), preview.size());
    int differing = 0;
    for (int y = 0; y < exported.height(); ++y)
      differing += std::memcmp(exported.constScanLine(y), preview.constScanLine(y),
                               static_cast<size_t>(exported.width()) * 4) != 0;
    EXPECT_EQ(differing, 0) << rawValue(method) << ": rows that differ";
  }
  EXPECT_FALSE(window.progressStrip()->lastOutcome().isEmpty());
  saveScreenshot(window, "exported");
}

TEST_F(DesktopWindow, ANewStrengthReblendsWithoutRunningTheNetworkAgain) {
  MainWindow window;
  window.resize(1280, 800);
  window.show();
  window.openFiles({QString::fromStdString(photo("strength.png", 100, 80).string())});
  ASSERT_TRUE(waitFor([&] { return loaded(window); }));
  setOptions(window, [](auto& o) {
    o.sizeMode = SizeMode::x2;
    o.method = ResampleMethod::estimate;
    o.estimateStrength = 0.3;
  });
  CompareView* view = window.activeView();
  view->zoomTo(1);
  ASSERT_TRUE(waitFor([&] { return view->complete(); }));
  const QImage weak = rgba(view->resultPixels({0, 0, 200, 160}));
  const int64_t runs = window.estimates().inferences();
  EXPECT_GE(runs, 1);
  setOptions(window, [](auto& o) { o.estimateStrength = 1.0; });
  ASSERT_TRUE(waitFor([&] { return view->complete(); }));
  EXPECT_EQ(window.estimates().inferences(), runs);
  EXPECT_NE(rgba(view->resultPixels({0, 0, 200, 160})), weak) << "the new strength shows";
}

TEST_F(DesktopWindow, TheExportSheetExportsOnEnterAndKeepsTheChoices) {
  const fs::path source = photo("sheet.png");
  ExportRequest initial;
  initial.nameTemplate = "{source}_{w}x{h}";
  initial.options.format = encoding::ExportFormat::jpeg;
  ExportSheet sheet(initial, source, ResolvedSize{480, 360, 4.0, false});
  sheet.show();
  auto* example = sheet.findChild<QLabel*>("Name example");
  ASSERT_TRUE(example);
  EXPECT_TRUE(example->text().endsWith("sheet_480x360.jpg")) << example->text().toStdString();
  saveScreenshot(sheet, "export-sheet");
  QTest::keyClick(&sheet, Qt::Key_Return);
  EXPECT_EQ(sheet.result(), QDialog::Accepted);

  ExportRequest chosen = sheet.request();
  chosen.receiptsBesideExports = true;
  chosen.folder = photos.path();
  saveRequest(chosen);
  const ExportRequest again = savedRequest(chosen.options, source);
  EXPECT_EQ(again.nameTemplate, "{source}_{w}x{h}");
  EXPECT_TRUE(again.receiptsBesideExports);
  EXPECT_EQ(again.folder, photos.path());
  EXPECT_EQ(again.options.format, encoding::ExportFormat::jpeg);
}

}  // namespace
}  // namespace tarnbloom::app

namespace tarnbloom::app {
namespace {

// Exports the last run left in the queue are offered again at launch:
// resumed, they run under the window's host; discarded, they stay in the
// queue as stopped (a later retry can still run them) and are not offered
// again.
TEST_F(DesktopWindow, ResumesOrDiscardsExportsALaunchLeftUnfinished) {
  const fs::path first = photo("left.png", 40, 30);
  const fs::path second = photo("right.png", 40, 30);
  exporting::JobDescription description;
  description.options.method = ResampleMethod::exact;
  description.options.sizeMode = SizeMode::x2;
  {
    exporting::ExportQueueStore queue(home.path());
    exporting::PlannedItem a, b;
    a.url = first;
    a.destination = photos.path();
    b.url = second;
    b.destination = photos.path();
    queue.enqueue(description, std::vector{a});
    queue.enqueue(description, std::vector{b});
  }
  {
    EstimateEngine estimates;
    ExportHost host(&estimates);
    host.start();
    ASSERT_TRUE(waitFor([&] { return host.isReady(); }));
    EXPECT_TRUE(host.recover().interrupted);
    EXPECT_TRUE(host.resumeInterrupted().isEmpty());
    ASSERT_TRUE(waitFor([&] { return testing::filesIn(photos.path()).size() == 4; }));
    ASSERT_TRUE(waitFor([&] { return !host.busy(); }));
    EXPECT_FALSE(host.recover().interrupted) << "nothing is left once both ran";
  }
  {
    exporting::ExportQueueStore queue(home.path());
    exporting::PlannedItem c;
    c.url = first;
    c.destination = photos.path();
    queue.enqueue(description, std::vector{c});
  }
  EstimateEngine estimates;
  ExportHost host(&estimates);
  host.start();
  ASSERT_TRUE(waitFor([&] { return host.isReady(); }));
  ASSERT_TRUE(host.recover().interrupted);
  host.discardInterrupted();
  EXPECT_FALSE(host.recover().interrupted);
  EXPECT_EQ(testing::filesIn(photos.path()).size(), 4u) << "nothing ran";
  exporting::ExportQueueStore reread(home.path());
  int stopped = 0;
  for (const auto& job : reread.jobs())
    for (const auto& item : job.items) stopped += item.state == exporting::ExportQueueItemState::stopped;
  EXPECT_EQ(stopped, 1);
}

}  // namespace
}  // namespace tarnbloom::app

namespace tarnbloom::app {
namespace {

// The compare view's gestures: what the user points at stays put, the
// divider follows the mouse, Space shows the original only while held,
// and side by side both panes share one zoom.
TEST_F(DesktopWindow, CompareViewGesturesKeepThePointUnderTheCursor) {
  MainWindow window;
  window.resize(1280, 800);
  window.show();
  window.openFiles({QString::fromStdString(photo("gesture.png", 300, 200).string())});
  ASSERT_TRUE(waitFor([&] { return loaded(window); }));
  setOptions(window, [](auto& o) {
    o.sizeMode = SizeMode::x4;
    o.method = ResampleMethod::exact;
  });
  CompareView* view = window.activeView();
  ASSERT_TRUE(QTest::qWaitForWindowExposed(&window));
  window.action("zoom100")->trigger();
  EXPECT_DOUBLE_EQ(view->geometry().zoom(), 1.0);

  const QPointF cursor(200, 150);
  const auto before = view->geometry().viewToImage({cursor.x(), cursor.y()});
  QWheelEvent wheel(cursor, view->mapToGlobal(cursor), QPoint(), QPoint(0, 240), Qt::NoButton,
                    Qt::NoModifier, Qt::NoScrollPhase, false);
  QApplication::sendEvent(view, &wheel);
  EXPECT_NEAR(view->geometry().zoom(), 1.25 * 1.25, 1e-9);
  const auto after = view->geometry().imageToView(before);
  EXPECT_NEAR(after.x, cursor.x(), 1.0);
  EXPECT_NEAR(after.y, cursor.y(), 1.0);

  // A drag away from the divider pans by exactly the distance dragged.
  const auto centre = view->geometry().centre();
  QTest::mousePress(view, Qt::LeftButton, {}, QPoint(100, 100));
  QTest::mouseMove(view, QPoint(140, 130));
  QTest::mouseRelease(view, Qt::LeftButton, {}, QPoint(140, 130));
  EXPECT_NEAR(view->geometry().centre().x, centre.x - 40 / view->geometry().zoom(), 1e-6);
  EXPECT_NEAR(view->geometry().centre().y, centre.y - 30 / view->geometry().zoom(), 1e-6);

  // The divider is grabbed where it is drawn and follows the mouse.
  const int dividerX = view->width() / 2;
  QTest::mousePress(view, Qt::LeftButton, {}, QPoint(dividerX + 3, 200));
  QTest::mouseMove(view, QPoint(view->width() / 4, 220));
  QTest::mouseRelease(view, Qt::LeftButton, {}, QPoint(view->width() / 4, 220));
  EXPECT_NEAR(view->dividerFraction(), 0.25, 0.01);

  view->setFocus();
  QTest::keyPress(view, Qt::Key_Space);
  EXPECT_TRUE(view->showsOriginal());
  QTest::keyRelease(view, Qt::Key_Space);
  EXPECT_FALSE(view->showsOriginal());

  window.action("sideBySide")->trigger();
  EXPECT_EQ(view->mode(), CompareView::Mode::sideBySide);
  window.action("zoom200")->trigger();
  EXPECT_DOUBLE_EQ(view->geometry().zoom(), 2.0);
  EXPECT_NEAR(view->geometry().viewportWidth(), view->width() / 2, 2) << "each pane is half";
  ASSERT_TRUE(waitFor([&] { return view->complete(); }));
  saveScreenshot(window, "side-by-side-200");
  window.action("zoomFit")->trigger();
  EXPECT_TRUE(view->geometry().fits());
}

// The system's dark theme reaches every part of the window, the compare
// view's own painting included (screenshot: dark-theme.png).
TEST_F(DesktopWindow, FollowsADarkTheme) {
  const QPalette light = QApplication::palette();
  QPalette dark;
  dark.setColor(QPalette::Window, QColor(45, 45, 48));
  dark.setColor(QPalette::WindowText, QColor(230, 230, 230));
  dark.setColor(QPalette::Base, QColor(30, 30, 32));
  dark.setColor(QPalette::Text, QColor(230, 230, 230));
  dark.setColor(QPalette::Button, QColor(55, 55, 58));
  dark.setColor(QPalette::ButtonText, QColor(230, 230, 230));
  dark.setColor(QPalette::Mid, QColor(80, 80, 84));
  dark.setColor(QPalette::PlaceholderText, QColor(150, 150, 150));
  QApplication::setPalette(dark);
  {
    MainWindow window;
    window.resize(1280, 800);
    window.show();
    window.openFiles({QString::fromStdString(photo("night.png", 200, 150).string())});
    ASSERT_TRUE(waitFor([&] { return loaded(window); }));
    ASSERT_TRUE(waitFor([&] { return window.activeView()->complete(); }));
    saveScreenshot(window, "dark-theme");
    // A corner of the compare view shows its background, not the photo.
    const QImage view = window.activeView()->grab().toImage();
    EXPECT_LT(qGray(view.pixel(4, view.height() - 4)), 80);
  }
  QApplication::setPalette(light);
}

// A file-manager entry's first use waits for the person: agreeing delivers
// the waiting request and remembers the entry; cancelling removes it.
TEST_F(DesktopWindow, AMenuEntrysFirstUseIsConfirmedInTheWindowOrDropped) {
  MainWindow window;
  window.show();
  agent::AgentClient client(home.path());
  const auto waiting = [&](const std::string& entry) {
    agent::AgentRequest request;
    request.job = makeUuid();
    request.createdAt = std::chrono::system_clock::now();
    request.sources.push_back({photo("m.png").string(), agent::AgentSourceKind::file});
    client.write(request);
    return agent::AgentURL::MenuConfirmation{request.job, entry};
  };
  // Answers the dialog the call shows, as a person would, and says what it read.
  const auto answer = [](bool agree, QString* text) {
    QTimer::singleShot(100, [agree, text] {
      auto* box = qobject_cast<QMessageBox*>(QApplication::activeModalWidget());
      ASSERT_NE(box, nullptr);
      *text = box->text() + "\n" + box->informativeText();
      if (agree)
        box->defaultButton()->click();
      else
        box->button(QMessageBox::Cancel)->click();
    });
  };

  QString shown;
  const auto first = waiting("enlarge-4");
  answer(true, &shown);
  EXPECT_EQ(confirmMenuRun(&window, first),
            agent::AgentURL::runURL(agent::AgentURL::kScheme, first.jobID));
  EXPECT_NE(shown.indexOf("Enlarge 4×"), -1) << shown.toStdString();
  EXPECT_NE(shown.indexOf("1 photo"), -1) << shown.toStdString();
  auto settings = Settings::loadDefault();
  EXPECT_TRUE(finder::FinderMenuStore(settings, recipes::RecipeStore(home / "Recipes"))
                  .isAcknowledged(finder::FinderIdentity::enlarge(4)));

  const auto second = waiting("enlarge-8");
  answer(false, &shown);
  EXPECT_EQ(confirmMenuRun(&window, second), std::nullopt);
  EXPECT_FALSE(fs::exists(agent::AgentPaths::inboxFile(second.jobID, home.path())));
  EXPECT_EQ(confirmMenuRun(&window, second), std::nullopt) << "nothing waits any more";
}

}  // namespace
}  // namespace tarnbloom::app
