#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <sstream>

#include "fixtures.h"
#include "test_support.h"

namespace tarnbloom {
namespace {

using testing::TempDir;

struct InfoRun {
  int status;
  std::vector<nlohmann::json> objects;
};

InfoRun runInfoJson(const std::vector<std::filesystem::path>& files) {
  std::string command = std::string(TARNBLOOM_CLI) + " info --json";
  for (const auto& f : files) command += " '" + f.string() + "'";
  std::string output;
  InfoRun run{testing::runCommand(command + " 2>/dev/null", &output), {}};
  std::istringstream lines(output);
  for (std::string line; std::getline(lines, line);) run.objects.push_back(nlohmann::json::parse(line));
  return run;
}

TEST(InfoCommand, ReportsEachFileAsOneJsonLineWithEveryKey) {
  TempDir dir;
  testing::writePng(dir / "deep.png", 3, 2, 4, 16, std::vector<uint16_t>(3 * 2 * 4, 40000));
  testing::writeJpeg(dir / "turned.jpg", 30, 20, std::vector<uint8_t>(30 * 20 * 3, 90), 6);
  testing::writeText(dir / "notes.jpg", "plain text\n");

  const InfoRun run = runInfoJson({dir / "deep.png", dir / "turned.jpg", dir / "notes.jpg"});
  EXPECT_EQ(run.status, 3) << "one file is refused";
  ASSERT_EQ(run.objects.size(), 3u);
  for (const auto& object : run.objects)
    for (const char* key : {"file", "readable", "supportedFormat", "notAnImage", "width", "height",
                            "bitDepth", "orientation", "hasAlpha", "frames", "profileName",
                            "nativeBitDepth", "refusal"})
      EXPECT_TRUE(object.contains(key)) << key << " missing in " << object.dump();

  const auto& deep = run.objects[0];
  EXPECT_EQ(deep["width"], 3);
  EXPECT_EQ(deep["bitDepth"], 16);
  EXPECT_EQ(deep["hasAlpha"], true);
  EXPECT_EQ(deep["frames"], 1);
  EXPECT_EQ(deep["profileName"], "sRGB");
  EXPECT_TRUE(deep["nativeBitDepth"].is_null());
  EXPECT_TRUE(deep["refusal"].is_null());

  const auto& turned = run.objects[1];
  EXPECT_EQ(turned["orientation"], 6);
  EXPECT_EQ(turned["width"], 20) << "sizes are reported upright";
  EXPECT_EQ(turned["height"], 30);
  EXPECT_EQ(turned["hasAlpha"], false);

  const auto& notes = run.objects[2];
  EXPECT_EQ(notes["notAnImage"], true);
  EXPECT_EQ(notes["readable"], false);
  EXPECT_TRUE(notes["hasAlpha"].is_null());
  EXPECT_EQ(notes["refusal"], "“notes.jpg” couldn’t be read as an image.");
}

TEST(InfoCommand, ExitsWithTheProtocolCodes) {
  const std::string cli = TARNBLOOM_CLI;
  EXPECT_EQ(testing::runCommand(cli + " info '" + testing::samplePath("rocket.jpg").string() + "' >/dev/null"), 0);
  EXPECT_EQ(testing::runCommand(cli + " info 2>/dev/null"), 1);
  EXPECT_EQ(testing::runCommand(cli + " info --colour " + testing::samplePath("rocket.jpg").string() + " 2>/dev/null"), 1);
  EXPECT_EQ(testing::runCommand(cli + " no-such-command 2>/dev/null"), 1);
  EXPECT_EQ(testing::runCommand(cli + " info /nonexistent/photo.jpg >/dev/null"), 3);
}

// An independent reader must agree on size, depth and orientation.
TEST(InfoCommand, AgreesWithExiftool) {
  if (testing::runCommand("command -v exiftool >/dev/null") != 0) GTEST_SKIP() << "exiftool not installed";
  TempDir dir;
  testing::writeJpeg(dir / "turned.jpg", 48, 32, std::vector<uint8_t>(48 * 32 * 3, 200), 8);
  testing::writePng(dir / "grey16.png", 7, 5, 1, 16, std::vector<uint16_t>(35, 1234));
  const std::vector<std::filesystem::path> files = {testing::samplePath("chelsea.png"),
                                                    testing::samplePath("rocket.jpg"),
                                                    dir / "turned.jpg", dir / "grey16.png"};
  const InfoRun run = runInfoJson(files);
  ASSERT_EQ(run.objects.size(), files.size());
  for (size_t i = 0; i < files.size(); ++i) {
    std::string output;
    ASSERT_EQ(testing::runCommand("exiftool -j -n -ImageWidth -ImageHeight -Orientation -BitsPerSample "
                                  "-BitDepth '" + files[i].string() + "'", &output), 0);
    const auto tool = nlohmann::json::parse(output)[0];
    const auto& ours = run.objects[i];
    const int orientation = tool.value("Orientation", 1);
    const bool swapped = orientation >= 5;
    EXPECT_EQ(ours["orientation"], orientation) << files[i];
    EXPECT_EQ(ours["width"], swapped ? tool["ImageHeight"] : tool["ImageWidth"]) << files[i];
    EXPECT_EQ(ours["height"], swapped ? tool["ImageWidth"] : tool["ImageHeight"]) << files[i];
    const int bits = tool.contains("BitDepth") ? tool["BitDepth"].get<int>() : tool["BitsPerSample"].get<int>();
    EXPECT_EQ(ours["bitDepth"], bits) << files[i];
  }
}

// A file we may not read is a permission problem, said as the system says
// it, not a damaged image. Run as an ordinary user: root may read anything.
TEST(InfoCommand, AFileWeMayNotReadIsAPermissionProblem) {
  TempDir dir;
  const auto secret = dir / "secret.jpg";
  testing::writeJpeg(secret, 30, 20, std::vector<uint8_t>(30 * 20 * 3, 90));
  std::filesystem::permissions(secret, std::filesystem::perms::none);
  std::filesystem::permissions(dir.path(), std::filesystem::perms::all);
  std::string said;
  const int status = testing::runCommand(
      "setpriv --reuid=65534 --regid=65534 --clear-groups " + std::string(TARNBLOOM_CLI) +
          " info '" + secret.string() + "' 2>&1",
      &said);
  EXPECT_EQ(status, 3) << said;
  EXPECT_NE(said.find("Couldn’t open “secret.jpg”: Permission denied."), std::string::npos)
      << said;
  EXPECT_EQ(said.find("couldn’t be read as an image"), std::string::npos) << said;
}

}  // namespace
}  // namespace tarnbloom
