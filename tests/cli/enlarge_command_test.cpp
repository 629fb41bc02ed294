#include <gtest/gtest.h>

#include "fixtures.h"
#include "test_support.h"

namespace tarnbloom {
namespace {

TEST(EnlargeCommand, EnhanceWithoutAModelSaysWhatIsMissingAndWritesNothing) {
  testing::TempDir dir;
  std::string output;
  const int status = testing::runCommand(
      "TARNBLOOM_HOME='" + (dir / "home").string() +
          "' TARNBLOOM_ESTIMATE_MODEL=/nonexistent/model.param " + std::string(TARNBLOOM_CLI) +
          " enlarge --method enhance --strength 0.5 --size x2 --out '" + (dir / "out").string() +
          "' '" + testing::samplePath("chelsea.png").string() + "' 2>&1",
      &output);
  EXPECT_EQ(status, 3);
  EXPECT_NE(
      output.find("Estimate needs realesr-general-x4v3.param. Set TARNBLOOM_ESTIMATE_MODEL for an "
                  "experimental build."),
      std::string::npos)
      << output;
  EXPECT_TRUE(std::filesystem::is_empty(dir / "out"));

  EXPECT_EQ(testing::runCommand(std::string(TARNBLOOM_CLI) +
                                " enlarge --method enhance --strength 1.5 --size x2 --out '" +
                                dir.path().string() + "' x.png 2>/dev/null"),
            1);
}

namespace fs = std::filesystem;

int enlarge(const fs::path& home, const std::string& arguments, std::string* output = nullptr) {
  return testing::runCommand(
      "TARNBLOOM_HOME='" + home.string() + "' " + TARNBLOOM_CLI +
          " enlarge --size x2 --receipts beside " + arguments +
          (arguments.find("2>&1") == std::string::npos ? " 2>/dev/null" : ""),
      output);
}

TEST(EnlargeCommand, TakenNamesAreNumberedSkippedOrReplacedAsAsked) {
  testing::TempDir dir;
  const fs::path in = dir / "in";
  fs::create_directories(in);
  fs::copy_file(testing::samplePath("chelsea.png"), in / "cat.png");
  const std::string out = " --out '" + (dir / "out").string() + "' '" + in.string() + "'";
  const fs::path first = dir / "out" / "cat_902x600.png";
  ASSERT_EQ(enlarge(dir / "home", out), 0);
  const auto original = testing::readBytes(first);

  std::string said;
  EXPECT_EQ(enlarge(dir / "home", "--if-exists skip" + out, &said), 0);
  EXPECT_NE(said.find("skipped. “cat_902x600.png” already exists."), std::string::npos) << said;
  EXPECT_EQ(enlarge(dir / "home", out), 0);
  EXPECT_TRUE(fs::exists(dir / "out" / "cat_902x600 2.png"));
  EXPECT_TRUE(fs::exists(dir / "out" / "cat_902x600 2.png.tarnbloomreceipt"));

  // Replacing: a different size of output under the same name, so the
  // bytes and the receipt must both be the new ones.
  EXPECT_EQ(enlarge(dir / "home", "--if-exists overwrite --name cat_902x600 --format jpeg" + out),
            0);
  EXPECT_TRUE(fs::exists(dir / "out" / "cat_902x600.jpg"));
  EXPECT_EQ(enlarge(dir / "home", "--if-exists overwrite --method clarity" + out), 0);
  EXPECT_NE(testing::readBytes(first), original);
  std::string receipt;
  testing::runCommand("cat '" + first.string() + ".tarnbloomreceipt'", &receipt);
  EXPECT_NE(receipt.find("\"clarity\""), std::string::npos);
  EXPECT_EQ(std::distance(fs::directory_iterator(dir / "out"), fs::directory_iterator()), 6);
}

TEST(EnlargeCommand, ReportsEachBadFileAndExportsTheRest) {
  testing::TempDir dir;
  testing::writeText(dir / "bad.png", "not an image");
  const std::string out = "--out '" + (dir / "out").string() + "' ";
  const std::string bad = "'" + (dir / "bad.png").string() + "' ";
  const std::string rocket = "'" + testing::samplePath("rocket.jpg").string() + "'";
  std::string said;
  // A source that is not there is a mistake in the command: nothing runs.
  EXPECT_EQ(enlarge(dir / "home",
                    out + "'" + (dir / "missing.png").string() + "' " + rocket + " 2>&1", &said),
            3);
  EXPECT_NE(said.find((dir / "missing.png").string() + " does not exist."), std::string::npos)
      << said;
  EXPECT_FALSE(fs::exists(dir / "out" / "rocket_1280x854.jpg"));
  said.clear();
  EXPECT_EQ(enlarge(dir / "home", out + bad + rocket, &said), 2);
  EXPECT_NE(said.find("bad.png: Not a supported image."), std::string::npos) << said;
  EXPECT_TRUE(fs::exists(dir / "out" / "rocket_1280x854.jpg"));
  said.clear();
  EXPECT_EQ(enlarge(dir / "home", out + bad + " 2>&1", &said), 1);
  EXPECT_NE(said.find("bad.png: Not a supported image."), std::string::npos) << said;
  EXPECT_NE(said.find("No images were found in the given sources."), std::string::npos) << said;
}

TEST(EnlargeCommand, HelpAndAReaderThatGoesAwayAreNoReasonToFail) {
  for (const std::string command : {"enlarge", "preflight", "canvas", "queue", "info"}) {
    std::string usage;
    EXPECT_EQ(testing::runCommand(std::string(TARNBLOOM_CLI) + " " + command + " --help", &usage),
              0);
    EXPECT_EQ(usage.rfind("Usage: tarnbloom " + command, 0), 0u) << usage;
    EXPECT_EQ(std::count_if(usage.begin(), usage.end(), [](char c) { return c & 0x80; }), 0)
        << command << ": the manual page takes plain text";
  }
  // The manual page is made of those texts and must stay valid roff.
  const auto manual = fs::path(TARNBLOOM_CLI).parent_path() / "tarnbloom.1";
  std::string warnings;
  EXPECT_EQ(testing::runCommand("groff -ww -z -man '" + manual.string() + "' 2>&1", &warnings), 0);
  EXPECT_EQ(warnings, "");
  // `| head -c 1` closes the pipe after the first byte; the export goes on
  // to its end, with the status it would have had.
  testing::TempDir dir;
  std::string status;
  testing::runCommand("{ { TARNBLOOM_HOME='" + (dir / "home").string() + "' " + TARNBLOOM_CLI +
                          " enlarge --size x2 --out '" + (dir / "out").string() + "' '" +
                          testing::samplePath("chelsea.png").string() + "' '" +
                          testing::samplePath("coffee.png").string() + "' '" +
                          testing::samplePath("rocket.jpg").string() +
                          "' 2>&1; echo $? >&3; } | head -c 1 >/dev/null; } 3>&1",
                      &status);
  EXPECT_EQ(status, "0\n");
  EXPECT_EQ(testing::filesIn(dir / "out").size(), 3u);
}

// JPEG keeps 8 bits: a 16-bit source goes there only when the person says
// so with --allow-8bit; otherwise it is skipped and the run has failed.
TEST(EnlargeCommand, SixteenBitToJpegNeedsAllow8Bit) {
  testing::TempDir dir;
  std::vector<uint16_t> deep(40 * 30 * 3);
  for (size_t i = 0; i < deep.size(); ++i) deep[i] = static_cast<uint16_t>(i * 997 % 65536);
  testing::writePng(dir / "deep.png", 40, 30, 3, 16, deep);
  const std::string photo = " '" + (dir / "deep.png").string() + "'";
  std::string said;
  EXPECT_EQ(
      enlarge(dir / "home", "--format jpeg --out '" + (dir / "out").string() + "'" + photo, &said),
      0);
  EXPECT_NE(said.find("deep.png: skipped. This source is 16-bit and the output format stores "
                      "8-bit channels."),
            std::string::npos)
      << said;
  EXPECT_NE(said.find("No files exported.\n1 skipped. See receipt.\n"), std::string::npos) << said;
  EXPECT_TRUE(testing::filesIn(dir / "out").empty());
  EXPECT_EQ(enlarge(dir / "home", "--allow-8bit --format jpeg" + photo, &said), 0);
  EXPECT_NE(said.find("Exported 1 file.\n"), std::string::npos) << said;
  EXPECT_NE(said.find("Saved next to the original.\n"), std::string::npos) << said;
  EXPECT_TRUE(fs::exists(dir / "deep_80x60.jpg"));
  EXPECT_EQ(enlarge(dir / "home", "--allow-8bit --format webp" + photo, &said), 0);
  EXPECT_NE(said.find("(80 × 60)\n  16-bit source reduced to 8-bit for WebP.\n"), std::string::npos)
      << said;
}

// Files that crash or confuse the decoders (they run in the helper) are
// refused with their messages, beside real photos that are exported.
TEST(EnlargeCommand, AFolderWithHostileFilesExportsTheRest) {
  testing::TempDir dir;
  const fs::path in = dir / "in";
  fs::create_directories(in);
  const fs::path kept = fs::path(TARNBLOOM_SOURCE_DIR) / "tests" / "fuzz" / "decoder-crashes";
  for (const char* name : {"heif-decode-segv.heic", "avif-dav1d-leak.avif"})
    fs::copy_file(kept / name, in / name);
  fs::copy_file(testing::samplePath("rocket.jpg"), in / "rocket.jpg");
  std::string said;
  EXPECT_EQ(
      enlarge(dir / "home", "--out '" + (dir / "out").string() + "' '" + in.string() + "'", &said),
      2);
  EXPECT_NE(said.find("“heif-decode-segv.heic” couldn’t be read as an image.\n  The decoder "
                      "stopped with signal"),
            std::string::npos)
      << said;
  EXPECT_NE(said.find("“avif-dav1d-leak.avif” couldn’t be read as an image."), std::string::npos)
      << said;
  EXPECT_TRUE(fs::exists(dir / "out" / "rocket_1280x854.jpg"));
}

}  // namespace
}  // namespace tarnbloom

namespace tarnbloom {
namespace {

// A failed file is retried as a job of its own, once: the old job keeps
// only what it finished, so nothing can run twice.
TEST(QueueCommand, RetryRunsFailedFilesAsANewJobOnce) {
  testing::TempDir dir;
  const fs::path photo = dir / "photo.png";
  // Its header reads, so it is planned; its pixels are cut off, so it fails.
  const auto whole = testing::readBytes(testing::samplePath("chelsea.png"));
  testing::writeText(photo, std::string(reinterpret_cast<const char*>(whole.data()), 400));
  const std::string tool = "TARNBLOOM_HOME='" + (dir / "home").string() + "' " + TARNBLOOM_CLI;
  const std::string out = " --out '" + (dir / "out").string() + "' ";
  EXPECT_EQ(enlarge(dir / "home", out + "'" + photo.string() + "' '" +
                                      testing::samplePath("rocket.jpg").string() + "'"),
            2);
  fs::copy_file(testing::samplePath("chelsea.png"), photo, fs::copy_options::overwrite_existing);

  const auto run = [&](const std::string& command, std::string& said) {
    said.clear();
    return testing::runCommand(tool + command + " 2>&1", &said);
  };
  std::string said;
  EXPECT_EQ(run(" queue retry", said), 0) << said;
  EXPECT_NE(said.find("Exported 1 file."), std::string::npos) << said;
  EXPECT_EQ(run(" queue retry", said), 0);
  EXPECT_NE(said.find("No failed exports to retry."), std::string::npos) << said;
  EXPECT_EQ(run(" queue resume", said), 0);
  EXPECT_NE(said.find("No interrupted exports to resume."), std::string::npos) << said;

  run(" queue", said);
  EXPECT_NE(said.find("1 file: 1 completed"), std::string::npos) << said;  // the retry's job
  EXPECT_NE(said.find("1 file: 1 completed"), said.rfind("1 file: 1 completed")) << said;
  EXPECT_EQ(std::distance(fs::directory_iterator(dir / "out"), fs::directory_iterator()), 4);
}

}  // namespace
}  // namespace tarnbloom
