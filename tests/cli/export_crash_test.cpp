// Kills real `tarnbloom` processes at random moments and checks that the
// queue, the ledger and the receipts still add up: every source ends with
// exactly one output and one matching receipt, and nothing is left behind.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <functional>
#include <nlohmann/json.hpp>
#include <random>
#include <thread>

#include "export/receipt.h"
#include "fixtures.h"
#include "support/sha256.h"
#include "test_support.h"

namespace tarnbloom {
namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;
using testing::filesIn;

struct ToolRun {
  int status = -1;  // exit status, or -1 when killed
  double seconds = 0;
};

// What a /proc file of another process says; empty once that process is
// gone, which can happen in the middle of the read.
std::string readProcFile(const fs::path& path) {
  std::string text;
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return text;
  char buffer[4096];
  for (ssize_t n; (n = ::read(fd, buffer, sizeof buffer)) > 0;) text.append(buffer, n);
  ::close(fd);
  return text;
}

// The running instances serving `home`: `tarnbloom enlarge` hands its work
// to one (starting it when none runs), so killing the tool alone would
// kill nothing that exports. Found by their command line and environment;
// a zombie has neither.
std::vector<pid_t> instancesOf(const fs::path& home) {
  std::vector<pid_t> found;
  std::error_code error;
  const std::string variable = "TARNBLOOM_HOME=" + home.string() + '\0';
  for (const auto& entry : fs::directory_iterator("/proc", error)) {
    const std::string name = entry.path().filename().string();
    if (name.find_first_not_of("0123456789") != std::string::npos) continue;
    const std::string command = readProcFile(entry.path() / "cmdline");
    if (command.find(std::string("\0service\0")) == std::string::npos) continue;
    if (readProcFile(entry.path() / "environ").find(variable) == std::string::npos) continue;
    found.push_back(static_cast<pid_t>(std::stoi(name)));
  }
  return found;
}

// Ends the instances serving `home` with `signal` and waits until they are gone.
void stopInstances(const fs::path& home, int signal) {
  const auto deadline = Clock::now() + std::chrono::seconds(30);
  for (auto pids = instancesOf(home); !pids.empty() && Clock::now() < deadline;
       pids = instancesOf(home)) {
    for (const pid_t pid : pids) ::kill(pid, signal);
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
}

// Runs the tool with TARNBLOOM_HOME set; kills it with SIGKILL after
// `killAfter` seconds when given, or once `killWhen` says so, together with
// the instance doing its work. Whatever the tool started is gone on return.
ToolRun runTool(const fs::path& home, const std::vector<std::string>& arguments,
                std::optional<double> killAfter = std::nullopt,
                const std::function<bool()>& killWhen = {},
                const std::optional<fs::path>& decoder = std::nullopt) {
  const auto start = Clock::now();
  const pid_t pid = ::fork();
  if (pid == 0) {
    ::setenv("TARNBLOOM_HOME", home.c_str(), 1);
    if (decoder) ::setenv("TARNBLOOM_DECODE_HELPER", decoder->c_str(), 1);
    std::freopen("/dev/null", "w", stdout);
    std::freopen("/dev/null", "w", stderr);
    std::vector<char*> argv;
    static std::string tool = TARNBLOOM_CLI;
    argv.push_back(tool.data());
    for (const auto& a : arguments) argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);
    ::execv(tool.c_str(), argv.data());
    ::_exit(127);
  }
  ToolRun run;
  bool killed = false;
  int status = 0;
  bool reaped = false;
  if (killAfter) {
    std::this_thread::sleep_for(std::chrono::duration<double>(*killAfter));
    reaped = ::waitpid(pid, &status, WNOHANG) == pid;
    if (!reaped) {
      stopInstances(home, SIGKILL);
      ::kill(pid, SIGKILL);
      killed = true;
    }
  }
  if (killWhen) {
    while (!killWhen() && !(reaped = ::waitpid(pid, &status, WNOHANG) == pid))
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
    if (!reaped) {
      stopInstances(home, SIGKILL);
      ::kill(pid, SIGKILL);
      killed = true;
    }
  }
  if (!reaped) ::waitpid(pid, &status, 0);
  run.seconds = std::chrono::duration<double>(Clock::now() - start).count();
  // An instance started by the tool would otherwise linger until idle and
  // hold the state folder for the next step.
  stopInstances(home, killed ? SIGKILL : SIGTERM);
  if (WIFEXITED(status) && !killed) run.status = WEXITSTATUS(status);
  return run;
}

nlohmann::json readJson(const fs::path& path) {
  const auto bytes = testing::readBytes(path);
  return nlohmann::json::parse(reinterpret_cast<const char*>(bytes.data()),
                               reinterpret_cast<const char*>(bytes.data() + bytes.size()), nullptr,
                               false);
}

// The queue file is whole JSON whenever it exists.
void expectReadableQueue(const fs::path& home, const std::string& when) {
  const fs::path queue = home / "export-queue.json";
  if (!fs::exists(queue)) return;
  const auto document = readJson(queue);
  ASSERT_TRUE(document.is_object()) << when;
  EXPECT_EQ(document.value("schemaVersion", 0), 1) << when;
}

bool queueHasJob(const fs::path& home) {
  if (!fs::exists(home / "export-queue.json")) return false;
  return !readJson(home / "export-queue.json")["jobs"].empty();
}

bool hasFailedItem(const fs::path& home) {
  if (!fs::exists(home / "export-queue.json")) return false;
  const auto queue = readJson(home / "export-queue.json");
  for (const auto& job : queue["jobs"])
    for (const auto& item : job["items"])
      if (item["state"] == "failed") return true;
  return false;
}

void expectSettled(const std::vector<fs::path>& sources, const fs::path& out, const fs::path& home,
                   bool beside, const std::string& when) {
  const auto outputs = filesIn(out);
  // One output (and one receipt beside it) per source, nothing else: no
  // staging file, no second copy.
  EXPECT_EQ(outputs.size(), sources.size() * (beside ? 2 : 1)) << when;
  for (const auto& source : sources) {
    std::vector<fs::path> mine;
    for (const auto& file : outputs)
      if (file.filename().string().starts_with(source.stem().string() + "_") &&
          file.extension() != ".tarnbloomreceipt")
        mine.push_back(file);
    ASSERT_EQ(mine.size(), 1u) << when << ": " << source.filename();
    const fs::path receipt = exporting::ReceiptLocation{home / "Receipts"}.url(mine[0], beside);
    ASSERT_TRUE(fs::exists(receipt)) << when << ": " << receipt;
    const auto document = readJson(receipt);
    EXPECT_EQ(document["output"]["sha256"], *sha256OfFile(mine[0])) << when << ": " << receipt;
    EXPECT_EQ(document["source"]["hash"], *sha256OfFile(source)) << when;
  }
  EXPECT_TRUE(filesIn(home / "Operations").empty()) << when;
  if (!beside) {
    EXPECT_EQ(filesIn(home / "Receipts").size(), sources.size()) << when;
  }
  // The automation documents under Agent/ are not exports: a killed
  // instance may leave one's unnamed temporary, which no output depends on.
  for (const auto& file : filesIn(home))
    EXPECT_FALSE(!file.string().starts_with((home / "Agent").string() + "/") &&
                 (file.extension() == ".tmp" ||
                  file.string().find("corrupt") != std::string::npos ||
                  file.parent_path().filename() == "ReceiptPublications"))
        << when << ": " << file;
  const auto queue = readJson(home / "export-queue.json");
  for (const auto& job : queue["jobs"])
    for (const auto& item : job["items"]) EXPECT_EQ(item["state"], "completed") << when;
}

TEST(ExportCrashSafety, RandomKillsNeverLoseOrDuplicateAnExport) {
  testing::TempDir dir;
  const fs::path in = dir / "in";
  fs::create_directories(in);
  std::vector<fs::path> sources;
  for (int i = 0; i < 6; ++i) {
    const int w = 200 + 37 * i, h = 150 + 23 * i;
    std::vector<uint8_t> rgb(static_cast<size_t>(w) * h * 3);
    for (size_t k = 0; k < rgb.size(); ++k) rgb[k] = static_cast<uint8_t>((k * 7 + i * 31) % 251);
    const fs::path path = in / ("photo" + std::to_string(i) + (i % 2 ? ".jpg" : ".png"));
    if (i % 2) {
      testing::writeJpeg(path, w, h, rgb);
    } else {
      std::vector<uint16_t> samples(rgb.begin(), rgb.end());
      testing::writePng(path, w, h, 3, 8, samples);
    }
    sources.push_back(path);
  }
  const auto enlarge = [&](const fs::path& out, bool beside = true) {
    return std::vector<std::string>{"enlarge",
                                    "--size",
                                    "x2",
                                    "--method",
                                    "clarity",
                                    "--receipts",
                                    beside ? "beside" : "store",
                                    "--out",
                                    out.string(),
                                    in.string()};
  };

  // How long an undisturbed run takes here, so kills land all through it.
  const ToolRun calibration = runTool(dir / "calibration-home", enlarge(dir / "calibration-out"));
  ASSERT_EQ(calibration.status, 0);
  expectSettled(sources, dir / "calibration-out", dir / "calibration-home", true,
                "undisturbed run");
  const double span = calibration.seconds * 1.1;

  const unsigned seed = std::random_device{}();
  std::mt19937 random(seed);
  std::uniform_real_distribution<double> moment(0.0, span);
  const char* roundsText = std::getenv("TARNBLOOM_KILL_ROUNDS");
  const int rounds = roundsText ? std::atoi(roundsText) : 16;
  const auto deadline = Clock::now() + std::chrono::seconds(roundsText ? 36000 : 90);
  int kills = 0, leftOut = 0;
  for (int round = 0; round < rounds && Clock::now() < deadline; ++round) {
    const std::string when = "seed " + std::to_string(seed) + ", round " + std::to_string(round);
    const fs::path home = dir / ("home" + std::to_string(round));
    const fs::path out = dir / ("out" + std::to_string(round));
    // Receipts beside the outputs in even rounds, in the state folder in odd ones.
    const bool beside = round % 2 == 0;
    // Every third round replaces the outputs of a finished run, so the
    // killed publications have old files and receipts to put back.
    std::vector<std::string> arguments = enlarge(out, beside);
    if (round % 3 == 2) {
      ASSERT_EQ(runTool(home, arguments).status, 0) << when;
      arguments.insert(arguments.end(), {"--if-exists", "overwrite"});
    }
    if (runTool(home, arguments, moment(random)).status < 0) ++kills;
    expectReadableQueue(home, when + " after enlarge");
    // Resume, itself killed at random now and then, until one finishes.
    for (int attempt = 0;; ++attempt) {
      const bool kill = attempt < 3 && random() % 2 == 0;
      const ToolRun resume =
          runTool(home, {"queue", "resume"}, kill ? std::optional(moment(random)) : std::nullopt);
      expectReadableQueue(home, when + " after resume");
      if (resume.status < 0) {
        ++kills;
        continue;
      }
      // A resume that leaves out a source whose reading two kills
      // interrupted reports it as failed (2, or 3 when it was the last).
      ASSERT_TRUE(resume.status == 0 || (resume.status >= 2 && hasFailedItem(home)))
          << when << ": status " << resume.status;
      break;
    }
    // Two kills that land in the reading of one source leave it out, as a
    // file that keeps taking the program down would be; a retry brings it
    // back, as a person would.
    if (hasFailedItem(home)) {
      ++leftOut;
      ASSERT_EQ(runTool(home, {"queue", "retry"}).status, 0) << when;
    }
    // Killed before the job was recorded: nothing was exported; run it again.
    if (!queueHasJob(home)) {
      ASSERT_TRUE(filesIn(out).empty()) << when;
      ASSERT_EQ(runTool(home, enlarge(out, beside)).status, 0) << when;
    }
    expectSettled(sources, out, home, beside, when);
    if (HasFailure()) break;
  }
  RecordProperty("kills", kills);
  RecordProperty("leftOut", leftOut);
  EXPECT_GT(kills, 0);
}

// Sources written for the decode tests: two photos, one of them the file
// whose reading is killed.
std::vector<fs::path> twoPhotos(const fs::path& in) {
  fs::create_directories(in);
  std::vector<uint8_t> rgb(120 * 80 * 3, 90);
  testing::writeJpeg(in / "a.jpg", 120, 80, rgb);
  testing::writeJpeg(in / "b.jpg", 120, 80, rgb);
  return {in / "a.jpg", in / "b.jpg"};
}

// A decoder that takes the file and never answers, so the tool is inside a
// decode for as long as the test likes; it ends when the tool does.
fs::path hangingDecoder(const fs::path& dir) {
  const fs::path script = dir / "hanging-decoder";
  testing::writeText(script, "#!/bin/sh\nexec cat <&3 >/dev/null\n");
  fs::permissions(script, fs::perms::owner_all);
  return script;
}

// True once an export is reading a source for the `attempt`th time (the
// ledger counts the reads).
bool reading(const fs::path& home, int attempt = 1) {
  for (const auto& file : filesIn(home / "Operations")) {
    if (file.extension() != ".reading") continue;
    // Caught between its creation and its one write, the count is not there yet.
    const auto count = readJson(file);
    if (count.is_object() && count.value("attempts", 0) == attempt) return true;
  }
  return false;
}

TEST(ExportCrashSafety, AKillDuringADecodeIsResumed) {
  testing::TempDir dir;
  const auto sources = twoPhotos(dir / "in");
  const fs::path home = dir / "home", out = dir / "out";
  const std::vector<std::string> enlarge = {
      "enlarge", "--size", "x2",         "--receipts",
      "beside",  "--out",  out.string(), (dir / "in").string()};
  const auto inDecode = [&] { return reading(home); };
  EXPECT_LT(runTool(home, enlarge, std::nullopt, inDecode, hangingDecoder(dir.path())).status, 0);
  ASSERT_EQ(runTool(home, {"queue", "resume"}).status, 0);
  expectSettled(sources, out, home, true, "after a kill in a decode");
}

TEST(ExportCrashSafety, ASourceThatKillsTheProgramTwiceWhileReadIsLeftOut) {
  testing::TempDir dir;
  const auto sources = twoPhotos(dir / "in");
  const fs::path home = dir / "home", out = dir / "out";
  const fs::path hanging = hangingDecoder(dir.path());
  const auto inDecode = [&] { return reading(home); };
  EXPECT_LT(runTool(home, {"enlarge", "--size", "x2", "--out", out.string(), sources[0].string()},
                    std::nullopt, inDecode, hanging)
                .status,
            0);
  // Once is bad luck: the next run reads the file again, and dies again.
  EXPECT_LT(runTool(
                home, {"queue", "resume"}, std::nullopt, [&] { return reading(home, 2); }, hanging)
                .status,
            0);
  EXPECT_TRUE(filesIn(out).empty());
  // Twice is the file: it is left out, and later jobs run as ever.
  std::string listing;
  const std::string tool = TARNBLOOM_CLI;
  EXPECT_EQ(testing::runCommand(
                "TARNBLOOM_HOME=" + home.string() + " " + tool + " queue resume; echo status $?",
                &listing),
            0);
  EXPECT_NE(listing.find("“a.jpg” stopped the program twice while it was being read; it was left "
                         "out.\nNo interrupted exports to resume.\n"),
            std::string::npos)
      << listing;
  EXPECT_NE(listing.find("status 3"), std::string::npos) << listing;  // nothing exported
  EXPECT_TRUE(filesIn(home / "Operations").empty());
  ASSERT_EQ(
      runTool(home, {"enlarge", "--size", "x2", "--out", out.string(), sources[1].string()}).status,
      0);
  EXPECT_EQ(filesIn(out).size(), 1u);
  ASSERT_EQ(
      testing::runCommand("TARNBLOOM_HOME=" + home.string() + " " + tool + " queue", &listing), 0);
  EXPECT_NE(listing.find("failed  a.jpg"), std::string::npos) << listing;
}

}  // namespace
}  // namespace tarnbloom

namespace tarnbloom {
namespace {

// A shop's recipe of two outputs (a 3000 px JPEG under a byte ceiling on a
// white tile, and a ×2 PNG) over a folder with files that cannot work,
// killed as soon as its first output is written and then resumed: every
// photo ends with both outputs and their receipts, the tile at its canvas
// size, and the exclusions list exactly the bad files.
TEST(RecipeBatch, TwoOutputsOverAHostileFolderSurviveAKill) {
  testing::TempDir dir;
  const fs::path in = dir / "in", out = dir / "out", home = dir / "home";
  fs::create_directories(in);
  for (const char* name : {"chelsea.png", "coffee.png", "rocket.jpg"})
    fs::copy_file(testing::samplePath(name), in / name);
  testing::writeText(in / "notes.txt", "shot list");
  testing::writeText(in / "empty.jpg", "");
  testing::writeText(in / "anim.gif", std::string("GIF89a\x01\x00\x01\x00\x00\x00\x00;", 13));
  testing::writeText(dir / "shop.tarnbloomrecipe", R"({
    "schema": "com.tarnbloom.recipe", "version": 1, "id": "shared", "name": "Shop pair",
    "created": "2026-11-24T09:00:00Z", "outputs": [
      {"method": "exact", "dimensions": {"mode": "long_edge", "value": 3000},
       "canvas": {"mode": "exact", "width": 3000, "height": 3000,
                  "fill": {"kind": "colour", "value": "#FFFFFF"}},
       "format": "jpeg", "quality": {"value": 90, "floor": 40, "max_bytes": 800000},
       "colour": {"profile_policy": "srgb", "flatten_colour": "white"},
       "metadata": {"icc": "keep", "exif": "keep", "xmp": "keep", "gps": "strip"},
       "naming": {"template": "{source}_tile", "destination": null}},
      {"method": "clarity", "dimensions": {"mode": "scale_factor", "value": 2}, "format": "png",
       "colour": {"profile_policy": "keep", "flatten_colour": "white"},
       "metadata": {"icc": "keep", "exif": "keep", "xmp": "keep", "gps": "strip"},
       "naming": {"template": "{index}_{source}_{w}x{h}", "destination": null}}]})");
  ASSERT_EQ(runTool(home, {"recipe", "import", (dir / "shop.tarnbloomrecipe").string()}).status, 0);
  EXPECT_EQ(runTool(home, {"preflight", in.string(), "--out", out.string(), "--recipe", "Shop pair",
                           "--exclusions", (dir / "excluded.tsv").string()})
                .status,
            2);
  std::string excluded = testing::readText(dir / "excluded.tsv");
  EXPECT_EQ(std::count(excluded.begin(), excluded.end(), '\n'), 4) << excluded;
  for (const char* bad : {"notes.txt", "empty.jpg", "anim.gif"})
    EXPECT_NE(excluded.find((in / bad).string() + "\tUNSUPPORTED_FORMAT\tnotAnImage\t"),
              std::string::npos)
        << excluded;

  const std::vector<std::string> run = {"enlarge",    "--recipe",   "Shop pair", "--out",
                                        out.string(), "--receipts", "beside",    in.string()};
  runTool(home, run, std::nullopt, [&] { return !filesIn(out).empty(); });
  const ToolRun resumed = runTool(home, {"queue", "resume"});
  EXPECT_TRUE(resumed.status == 0 || resumed.status == 2) << resumed.status;

  std::vector<std::string> names;
  for (const auto& file : filesIn(out)) names.push_back(file.filename().string());
  EXPECT_EQ(names, (std::vector<std::string>{
                       "1_chelsea_902x600.png", "1_chelsea_902x600.png.tarnbloomreceipt",
                       "2_coffee_1200x800.png", "2_coffee_1200x800.png.tarnbloomreceipt",
                       "3_rocket_1280x854.png", "3_rocket_1280x854.png.tarnbloomreceipt",
                       "chelsea_tile.jpg", "chelsea_tile.jpg.tarnbloomreceipt", "coffee_tile.jpg",
                       "coffee_tile.jpg.tarnbloomreceipt", "rocket_tile.jpg",
                       "rocket_tile.jpg.tarnbloomreceipt"}));
  for (const char* tile : {"chelsea_tile.jpg", "coffee_tile.jpg", "rocket_tile.jpg"}) {
    const auto receipt = readJson(out / (std::string(tile) + ".tarnbloomreceipt"));
    EXPECT_EQ(receipt["output"]["width"], 3000) << tile;
    EXPECT_EQ(receipt["output"]["height"], 3000) << tile;
    EXPECT_EQ(receipt["output"]["sha256"], *sha256OfFile(out / tile)) << tile;
    EXPECT_LE(fs::file_size(out / tile), 800000u) << tile;
  }
  EXPECT_TRUE(filesIn(home / "Operations").empty());
}

}  // namespace
}  // namespace tarnbloom
