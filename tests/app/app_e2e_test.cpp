#include <gtest/gtest.h>

#include <unistd.h>

#include <chrono>
#include <filesystem>
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
    for (int display = 90 + static_cast<int>(::getpid() % 50); display < 200 && !m_pid; ++display) {
      if (fs::exists("/tmp/.X11-unix/X" + std::to_string(display))) continue;
      std::string pid;
      if (runCommand("Xvfb :" + std::to_string(display) +
                         " -screen 0 1600x1000x24 -nolisten tcp >/dev/null 2>&1 & echo $!",
                     &pid) != 0)
        return;
      m_pid = std::stoi(pid);
      m_display = ":" + std::to_string(display);
      if (!waitUntil([&] { return run("xdotool getdisplaygeometry") == 0; }, 10)) stop();
    }
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

  const auto exported = [&] {
    for (const auto& file : testing::filesIn(photos.path()))
      if (file != source && file.extension() != ".tarnbloomreceipt") return file;
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

}  // namespace
}  // namespace tarnbloom
