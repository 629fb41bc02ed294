#include <gtest/gtest.h>

#include "codec/decode.h"
#include "fixtures.h"
#include "test_support.h"

namespace tarnbloom {
namespace {

using testing::TempDir;

int enlarge(const std::string& arguments, std::string* output = nullptr) {
  return testing::runCommand(std::string(TARNBLOOM_CLI) + " enlarge --method exact " + arguments +
                                 " 2>&1",
                             output);
}

std::vector<std::string> namesIn(const std::filesystem::path& folder) {
  std::vector<std::string> names;
  for (const auto& entry : std::filesystem::directory_iterator(folder))
    names.push_back(entry.path().filename().string());
  std::sort(names.begin(), names.end());
  return names;
}

TEST(EnlargeCommand, FollowsTheSourceFormatAndNamesWithoutReplacing) {
  TempDir dir;
  testing::writePng(dir / "a.png", 4, 3, 3, 8, std::vector<uint16_t>(36, 90));
  testing::writeJpeg(dir / "b.jpg", 4, 3, std::vector<uint8_t>(36, 90));
  const std::string files = " '" + (dir / "a.png").string() + "' '" + (dir / "b.jpg").string() + "'";
  const std::string out = " --out '" + dir.path().string() + "'";
  ASSERT_EQ(enlarge("--size x2" + out + files), 0);
  ASSERT_EQ(enlarge("--size x2" + out + files), 0);
  // {source} alone names the source itself: it must be skipped, not replaced.
  const auto sourceBytes = testing::readBytes(dir / "a.png");
  std::string text;
  ASSERT_EQ(enlarge("--size x2 --name '{source}'" + out + " '" + (dir / "a.png").string() + "'", &text), 0);
  EXPECT_EQ(testing::readBytes(dir / "a.png"), sourceBytes);
  EXPECT_EQ(namesIn(dir.path()),
            (std::vector<std::string>{"a 2.png", "a.png", "a_8x6 2.png", "a_8x6.png", "b.jpg",
                                      "b_8x6 2.jpg", "b_8x6.jpg"}));
  ASSERT_EQ(enlarge("--size x2 --format webp --name '{source}-{method}-{scale}-{index}'" + out + files), 0);
  EXPECT_TRUE(std::filesystem::exists(dir / "a-exact-2x-1.webp"));
  EXPECT_TRUE(std::filesystem::exists(dir / "b-exact-2x-2.webp"));
}

TEST(EnlargeCommand, RefusesBadOptionsWritingNothing) {
  TempDir dir;
  testing::writePng(dir / "a.png", 4, 3, 3, 8, std::vector<uint16_t>(36, 90));
  const std::string tail = " --size x2 --out '" + (dir / "out").string() + "' '" + (dir / "a.png").string() + "'";
  struct Case {
    const char* flags;
    const char* message;
  };
  for (const Case& c : std::vector<Case>{
           {"--format bmp", "Unknown format “bmp”"},
           {"--flatten grey", "“grey” isn’t a colour Tarnbloom understands"},
           {"--name '{Source}'", "Unknown template token: {Source}"},
           {"--name 'a/{source}'", "no “/”"},
           {"--gps maybe", "--gps takes keep or strip"},
           {"--profile p3", "--profile takes keep or srgb"},
           {"--max-kb 0", "--max-kb must be"},
           {"--quality 101", "Quality must be"},
       }) {
    std::string output;
    EXPECT_EQ(enlarge(std::string(c.flags) + tail, &output), 1) << c.flags;
    EXPECT_NE(output.find(c.message), std::string::npos) << output;
  }
  EXPECT_FALSE(std::filesystem::exists(dir / "out"));
}

TEST(EnlargeCommand, FlattensAndMeetsTheCeiling) {
  TempDir dir;
  // Transparent everywhere: the JPEG shows only the flatten colour.
  std::vector<uint16_t> rgba;
  for (int i = 0; i < 64 * 64; ++i) rgba.insert(rgba.end(), {0, 0, 255, 0});
  testing::writePng(dir / "clear.png", 64, 64, 4, 8, rgba);
  std::string output;
  ASSERT_EQ(enlarge("--size x2 --format jpeg --flatten '#FF0000' --out '" + dir.path().string() +
                        "' '" + (dir / "clear.png").string() + "'",
                    &output),
            0)
      << output;
  const auto bytes = testing::readBytes(dir / "clear_128x128.jpg");
  const auto frame = codec::decodeFrame(bytes);
  EXPECT_NEAR(frame.pixels.row(5)[3 * 5], 255, 2);
  EXPECT_NEAR(frame.pixels.row(5)[3 * 5 + 2], 0, 2);

  // A noisy photo under a 20 KB ceiling; then one no quality can meet.
  std::vector<uint8_t> noise(200 * 150 * 3);
  for (size_t i = 0; i < noise.size(); ++i) noise[i] = static_cast<uint8_t>((i * 2654435761u) >> 7);
  testing::writeJpeg(dir / "noise.jpg", 200, 150, noise);
  ASSERT_EQ(enlarge("--size x2 --max-kb 60 --out '" + (dir / "c").string() + "' '" +
                        (dir / "noise.jpg").string() + "'",
                    &output),
            0);
  EXPECT_LE(std::filesystem::file_size(dir / "c" / "noise_400x300.jpg"), 60000u);
  EXPECT_NE(output.find("JPEG quality"), std::string::npos) << output;
  ASSERT_EQ(enlarge("--size x2 --max-kb 1 --out '" + (dir / "d").string() + "' '" +
                        (dir / "noise.jpg").string() + "'",
                    &output),
            0);
  EXPECT_NE(output.find("Reached the minimum JPEG quality (Q40)"), std::string::npos) << output;
}

}  // namespace
}  // namespace tarnbloom
