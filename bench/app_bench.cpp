// How the desktop window holds up with real-sized photos, offscreen:
//  1. the Exact preview of a 1600×1000 view at 100 % after a change of
//     size, against the engine rendering the same tiles with no window
//     (goal: under 150 ms);
//  2. the longest the event loop goes without running while a 24 MP photo
//     is exported ×2 to JPEG, against the same window left idle for as long
//     (goal: no stall over 50 ms);
//  3. resident memory while twenty tabs of 24 MP photos are opened and each
//     is visited in turn, against one tab (goal: under 2 GiB).
//
//   app_bench [MEGAPIXELS]      (default 24)

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include <QAction>
#include <QApplication>
#include <QElapsedTimer>
#include <QTabWidget>
#include <QTest>
#include <QTimer>

#include "app/compare_view.h"
#include "app/export_host.h"
#include "app/main_window.h"
#include "app/photo_document.h"
#include "bench_support.h"
#include "preview/view_geometry.h"

using namespace tarnbloom;
using namespace tarnbloom::app;
namespace fs = std::filesystem;

namespace {

double residentMiB() {
  std::ifstream status("/proc/self/status");
  std::string line;
  while (std::getline(status, line))
    if (line.rfind("VmRSS:", 0) == 0) return std::stod(line.substr(6)) / 1024.0;
  return 0;
}

bool waitFor(const std::function<bool()>& done, int ms = 600000) { return QTest::qWaitFor(done, ms); }

bool settled(MainWindow& window) {
  auto* document = window.activeDocument();
  auto* view = window.activeView();
  if (!document || !view || document->state() != PhotoDocument::State::loaded || view->renderer().busy())
    return false;
  // A fitted view of a large enlargement shows the original: nothing to render.
  return view->complete() || view->geometry().visibleRect().area() > CompareView::kRenderBudget;
}

// Gaps between the ticks of a 5 ms timer while `running` holds: the
// longest and the 99th percentile, less the timer's own interval.
struct Stalls {
  double longest = 0;
  double p99 = 0;
};

Stalls measureStalls(const std::function<bool()>& running) {
  std::vector<double> gaps;
  QElapsedTimer clock;
  clock.start();
  qint64 last = clock.nsecsElapsed();
  QTimer ticker;
  ticker.setTimerType(Qt::PreciseTimer);
  QObject::connect(&ticker, &QTimer::timeout, [&] {
    const qint64 now = clock.nsecsElapsed();
    gaps.push_back((now - last) / 1e6 - 5.0);
    last = now;
  });
  ticker.start(5);
  while (running()) QTest::qWait(20);
  ticker.stop();
  Stalls s;
  if (gaps.empty()) return s;
  std::sort(gaps.begin(), gaps.end());
  s.longest = gaps.back();
  s.p99 = gaps[gaps.size() * 99 / 100];
  return s;
}

}  // namespace

int main(int argc, char** argv) {
  std::setvbuf(stdout, nullptr, _IOLBF, 0);
  setenv("QT_QPA_PLATFORM", "offscreen", 0);
  const double megapixels = argc > 1 ? std::atof(argv[1]) : 24;
  const fs::path work = fs::temp_directory_path() / ("tarnbloom-app-bench-" + std::to_string(getpid()));
  fs::create_directories(work / "photos");
  fs::create_directories(work / "out");
  setenv("TARNBLOOM_HOME", (work / "state").c_str(), 1);
  setenv("XDG_CONFIG_HOME", (work / "config").c_str(), 1);

  const int height = static_cast<int>(std::lround(std::sqrt(megapixels * 1e6 / 1.5)));
  const int width = static_cast<int>(std::lround(height * 1.5));
  const auto bytes = bench::encodeJpeg(bench::scaledPhoto(bench::samplePhoto("rocket.jpg"), width, height, 8.0), 90);
  QStringList photos;
  for (int i = 0; i < 20; ++i) {
    const fs::path path = work / "photos" / ("photo-" + std::to_string(i) + ".jpg");
    bench::writeFile(path, bytes);
    photos << QString::fromStdString(path.string());
  }
  std::printf("photo: %d x %d (%.1f MP) JPEG\n", width, height, width * height / 1e6);

  QApplication application(argc, argv);
  MainWindow window;
  window.show();
  window.startExports();
  waitFor([&] { return window.exportHost().isReady(); });

  // 1. Exact preview latency.
  window.openFiles({photos[0]});
  waitFor([&] { return window.activeDocument() != nullptr; });
  {
    // Exact: the method whose preview must keep up with every change.
    auto options = window.activeDocument()->options();
    options.method = ResampleMethod::exact;
    window.activeDocument()->setOptions(options);
  }
  waitFor([&] { return settled(window); });
  const double oneTab = residentMiB();
  CompareView* view = window.activeView();
  // The view itself, not the window, is what must be 1600×1000.
  const QSize frame = window.size() - view->size();
  window.resize(frame + QSize(1600, 1000));
  QTest::qWait(100);
  window.action("zoom100")->trigger();
  waitFor([&] { return settled(window); });
  std::printf("view: %d x %d at 100 %%\n", view->width(), view->height());
  std::vector<double> windowTimes, engineTimes;
  for (int round = 0; round < 7; ++round) {
    auto options = window.activeDocument()->options();
    options.sizeMode = SizeMode::percent;
    options.sizeValue = round % 2 ? 200 : 210;
    QElapsedTimer timer;
    timer.start();
    window.activeDocument()->setOptions(options);
    waitFor([&] { return settled(window); });
    windowTimes.push_back(timer.nsecsElapsed() / 1e6);

    // The peer: the same visible tiles rendered by the engine directly.
    const auto settings = *view->settings();
    const auto engine = window.activeDocument()->engine();
    const preview::PixelRect visible = view->geometry().visibleRect();
    const preview::PixelRect wanted{visible.x - CompareView::kTile / 2, visible.y - CompareView::kTile / 2,
                                    visible.width + CompareView::kTile, visible.height + CompareView::kTile};
    const auto tiles =
        preview::tilesCovering(wanted, CompareView::kTile, settings.target.width, settings.target.height);
    timer.restart();
    for (const auto& r : tiles)
      engine->previewTile(settings.target, {r.x, r.y, r.width, r.height}, ResampleMethod::exact, true);
    engineTimes.push_back(timer.nsecsElapsed() / 1e6);
  }
  const double windowMs = bench::median(windowTimes), engineMs = bench::median(engineTimes);
  std::printf("exact preview after a change: %.0f ms in the window, %.0f ms engine alone (%.2fx); goal < 150 ms: %s\n",
              windowMs, engineMs, windowMs / engineMs, windowMs < 150 ? "met" : "MISSED");

  // 2. Event-loop stalls while a 24 MP photo exports.
  ExportRequest request;
  request.options = window.activeDocument()->options();
  request.options.sizeMode = SizeMode::x2;
  request.options.method = ResampleMethod::exact;
  request.options.format = encoding::ExportFormat::jpeg;
  request.options.formatFollowsSource = false;
  request.folder = work / "out";
  bool exporting = true;
  QObject::connect(&window.exportHost(), &ExportHost::drained, [&] { exporting = false; });
  QElapsedTimer exportClock;
  exportClock.start();
  const QStringList refused = window.exportHost().submit(photos[0].toStdString(), request);
  if (!refused.isEmpty()) {
    std::fprintf(stderr, "export refused: %s\n", refused.join("; ").toUtf8().constData());
    return 1;
  }
  const Stalls busy = measureStalls([&] { return exporting; });
  const double exportSeconds = exportClock.nsecsElapsed() / 1e9;
  QElapsedTimer idleClock;
  idleClock.start();
  const Stalls idle = measureStalls([&] { return idleClock.nsecsElapsed() / 1e9 < exportSeconds; });
  std::printf("event loop during a %.1f s export: longest stall %.1f ms (p99 %.1f); idle window: %.1f ms (p99 %.1f); goal <= 50 ms: %s\n",
              exportSeconds, busy.longest, busy.p99, idle.longest, idle.p99,
              busy.longest <= 50 ? "met" : "MISSED");

  // 3. Twenty tabs, each visited once.
  window.openFiles(photos.mid(1));
  double most = residentMiB();
  for (int i = 0; i < window.tabs()->count(); ++i) {
    window.tabs()->setCurrentIndex(i);
    if (!waitFor([&] { return settled(window); })) {
      std::fprintf(stderr, "tab %d did not settle\n", i);
      return 1;
    }
    most = std::max(most, residentMiB());
  }
  std::printf("20 tabs of %.0f MP: %.0f MiB resident at most (one tab: %.0f MiB; process peak %.0f MiB); goal < 2048 MiB: %s\n",
              megapixels, most, oneTab, bench::peakRssMiB(), most < 2048 ? "met" : "MISSED");

  window.close();
  fs::remove_all(work);
  return 0;
}
