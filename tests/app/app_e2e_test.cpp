#include <gtest/gtest.h>

#include <unistd.h>

#include <chrono>
#include <algorithm>
#include <filesystem>
#include <functional>
#include <thread>

#include "fixtures.h"
#include "test_support.h"

namespace tarnbloom {
namespace {

namespace fs = std::filesystem;
using testing::runCommand;

// The real binary on a real X server, driven by the keyboard alone:
// open a photo from the command line, Ctrl+E, Enter, and the file and
// its receipt appear.
class XServer {
 public:
  XServer() {
    // Xvfb picks a free display itself and says which: two servers
    // starting at once never race for one number.
    const fs::path number = fs::temp_directory_path() / ("tarnbloom-xvfb-" + std::to_string(::getpid()));
    std::string pid;
    if (runCommand("Xvfb -displayfd 3 -screen 0 1600x1000x24 -nolisten tcp 3>'" + number.string() +
                       "' >/dev/null 2>&1 & echo $!",
                   &pid) != 0)
      return;
    m_pid = std::stoi(pid);
    const auto announced = [&] {
      std::error_code error;
      if (!fs::exists(number, error)) return std::string();
      const std::string text = testing::readText(number);
      return !text.empty() && text.back() == '\n' ? text : std::string();
    };
    if (waitUntil([&] { return !announced().empty(); }, 10))
      m_display = ":" + announced().substr(0, announced().size() - 1);
    fs::remove(number);
    if (m_display.empty() || !waitUntil([&] { return run("xdotool getdisplaygeometry") == 0; }, 10))
      stop();
  }
  ~XServer() { stop(); }
  bool running() const { return m_pid != 0; }
  int run(const std::string& command, std::string* output = nullptr) const {
    return runCommand("DISPLAY=" + m_display + " " + command + " 2>/dev/null", output);
  }
  static bool waitUntil(const std::function<bool()>& done, int seconds) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
    while (std::chrono::steady_clock::now() < deadline) {
      if (done()) return true;
      std::this_thread::sleep_for(std::chrono::milliseconds(200));
    }
    return done();
  }
  void screenshot(const std::string& name) const {
    fs::create_directories(TARNBLOOM_SCREENSHOTS);
    run("/usr/bin/import -window root " + std::string(TARNBLOOM_SCREENSHOTS) + "/" + name + ".png");
  }

 private:
  void stop() {
    if (m_pid) runCommand("kill " + std::to_string(m_pid));
    m_pid = 0;
  }
  int m_pid = 0;
  std::string m_display;
};

TEST(DesktopApplication, ExportsAPhotoWithTheKeyboardAlone) {
  if (runCommand("command -v Xvfb >/dev/null && command -v xdotool >/dev/null") != 0)
    GTEST_SKIP() << "Xvfb or xdotool is not installed (scripts/setup installs both)";
  XServer x;
  if (!x.running()) GTEST_SKIP() << "no X server could be started";

  testing::TempDir home, photos;
  const fs::path source = photos / "harbour.jpg";
  std::vector<uint8_t> rgb(static_cast<size_t>(160) * 120 * 3);
  for (size_t i = 0; i < rgb.size(); ++i) rgb[i] = static_cast<uint8_t>((i * 37 + i / 480 * 11) % 256);
  testing::writeJpeg(source, 160, 120, rgb);

  std::string pid;
  ASSERT_EQ(x.run("env TARNBLOOM_HOME=" + home.path().string() + " XDG_CONFIG_HOME=" +
                      home.path().string() + " QT_QPA_PLATFORM=xcb " TARNBLOOM_APP " " +
                      source.string() + " >" + (home / "app.log").string() + " 2>&1 & echo $!",
                  &pid),
            0);
  struct Quit {
    std::string pid;
    ~Quit() { runCommand("kill " + pid + " 2>/dev/null"); }
  } quit{pid};

  std::string window;
  ASSERT_TRUE(XServer::waitUntil(
      [&] {
        window.clear();
        return x.run("xdotool search --name 'harbour.jpg — Tarnbloom'", &window) == 0 &&
               !window.empty();
      },
      20))
      << testing::readText(home / "app.log");
  window = window.substr(0, window.find('\n'));
  x.run("xdotool windowfocus --sync " + window);
  // Sizes, methods and the preview settle within a moment of loading.
  std::this_thread::sleep_for(std::chrono::seconds(2));
  x.screenshot("e2e-window");

  // Ctrl+E until the sheet is up (the export action waits for the load).
  std::string sheet;
  ASSERT_TRUE(XServer::waitUntil(
      [&] {
        x.run("xdotool key ctrl+e");
        std::this_thread::sleep_for(std::chrono::milliseconds(500));
        sheet.clear();
        return x.run("xdotool search --name 'Export “harbour.jpg”'", &sheet) == 0 && !sheet.empty();
      },
      20));
  x.screenshot("e2e-export-sheet");
  x.run("xdotool key Return");

  // The published file, not the hidden staging file it is written as first.
  const auto exported = [&] {
    for (const auto& file : testing::filesIn(photos.path()))
      if (file != source && file.extension() != ".tarnbloomreceipt" &&
          file.filename().string().front() != '.')
        return file;
    return fs::path();
  };
  ASSERT_TRUE(XServer::waitUntil([&] { return !exported().empty(); }, 60))
      << testing::readText(home / "app.log");
  ASSERT_TRUE(XServer::waitUntil([&] { return !testing::filesIn(home / "Receipts").empty(); }, 10))
      << "the receipt goes to the state folder's Receipts by default";
  const fs::path receipt = testing::filesIn(home / "Receipts").front();
  EXPECT_NE(receipt.filename().string().find(exported().filename().string()), std::string::npos);
  std::this_thread::sleep_for(std::chrono::milliseconds(500));
  x.screenshot("e2e-exported");
  // Settings were kept in the shared file under the export options' keys.
  EXPECT_NE(testing::readText(home / "settings.json").find("\"sizeMode\""), std::string::npos);
}

// One instance per state folder, and it is the window: a headless service
// that ran first gives way to it, a second launch hands its photo over and
// ends, and the command-line tool's jobs run in the window's controller.
TEST(DesktopApplication, TheWindowIsTheOneInstanceEveryLaunchAndCommandReaches) {
  if (runCommand("command -v Xvfb >/dev/null && command -v xdotool >/dev/null") != 0)
    GTEST_SKIP() << "Xvfb or xdotool is not installed (scripts/setup installs both)";
  XServer x;
  if (!x.running()) GTEST_SKIP() << "no X server could be started";

  testing::TempDir home, photos, out;
  std::vector<uint8_t> rgb(static_cast<size_t>(96) * 64 * 3);
  for (size_t i = 0; i < rgb.size(); ++i) rgb[i] = static_cast<uint8_t>((i * 29 + i / 288 * 7) % 256);
  testing::writeJpeg(photos / "first.jpg", 96, 64, rgb);
  testing::writeJpeg(photos / "second.jpg", 96, 64, rgb);
  const std::string env = "env TARNBLOOM_HOME=" + home.path().string() +
                          " XDG_CONFIG_HOME=" + home.path().string() + " QT_QPA_PLATFORM=xcb ";
  const auto processesOf = [&](const std::string& pattern) {
    std::string pids;
    runCommand("for p in $(pgrep -f '" + pattern + "'); do grep -qz 'TARNBLOOM_HOME=" +
                   home.path().string() + "$' /proc/$p/environ 2>/dev/null && echo $p; done",
               &pids);
    return pids;
  };
  struct Cleanup {
    std::function<void()> run;
    ~Cleanup() { run(); }
  } cleanup{[&] {
    for (const char* pattern : {"tarnbloom-app", "tarnbloom service"}) {
      std::string pids = processesOf(pattern);
      if (!pids.empty()) {
        for (char& c : pids) c = c == '\n' ? ' ' : c;
        runCommand("kill " + pids);
      }
    }
  }};

  // A service holds the folder first, as after a command-line export.
  ASSERT_EQ(x.run(env + TARNBLOOM_CLI " service >" + (home / "service.log").string() + " 2>&1 &"), 0);
  ASSERT_TRUE(XServer::waitUntil([&] { return !processesOf("tarnbloom service").empty(); }, 10));
  ASSERT_EQ(x.run(env + TARNBLOOM_APP " " + (photos / "first.jpg").string() + " >" +
                  (home / "app.log").string() + " 2>&1 &"),
            0);
  EXPECT_TRUE(XServer::waitUntil([&] { return processesOf("tarnbloom service").empty(); }, 20))
      << "the idle service leaves the instance to the window";
  std::string window;
  ASSERT_TRUE(XServer::waitUntil(
      [&] { return x.run("xdotool search --name 'first.jpg — Tarnbloom'", &window) == 0; }, 20))
      << testing::readText(home / "app.log");

  // A second launch hands its photo to the window and ends.
  std::string launched;
  ASSERT_EQ(x.run(env + "timeout 20 " TARNBLOOM_APP " " + (photos / "second.jpg").string() +
                      "; echo $?",
                  &launched),
            0);
  EXPECT_EQ(launched, "0\n");
  EXPECT_TRUE(XServer::waitUntil(
      [&] { return x.run("xdotool search --name 'second.jpg — Tarnbloom'", &window) == 0; }, 20));
  std::string windows;
  x.run("xdotool search --name ' — Tarnbloom$'", &windows);
  EXPECT_EQ(std::count(windows.begin(), windows.end(), '\n'), 1) << "one window";

  // The command-line tool reaches the window's instance: no service starts.
  std::string output;
  EXPECT_EQ(runCommand("TARNBLOOM_HOME=" + home.path().string() + " " TARNBLOOM_CLI " enlarge " +
                           (photos / "second.jpg").string() + " --size x2 --method exact --out " +
                           out.path().string(),
                       &output),
            0)
      << output;
  EXPECT_EQ(testing::filesIn(out.path()).size(), 1u) << output;
  EXPECT_TRUE(processesOf("tarnbloom service").empty());
  x.screenshot("e2e-single-instance");
}

}  // namespace
}  // namespace tarnbloom
