// Canvases from the command line: an exact canvas pads, a crop is exported
// only with the confirmation of that very preview, and never over a batch.

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "test_support.h"

namespace tarnbloom {
namespace {

namespace fs = std::filesystem;

struct CanvasCommand : ::testing::Test {
  testing::TempDir dir;
  fs::path photo = dir / "rocket.jpg";
  void SetUp() override { fs::copy_file(testing::samplePath("rocket.jpg"), photo); }
  int run(const std::string& arguments, std::string* said = nullptr) {
    std::string ignored;
    if (!said) said = &ignored;
    said->clear();
    return testing::runCommand("cd '" + dir.path().string() + "' && TARNBLOOM_HOME='" +
                                   (dir / "home").string() + "' " + TARNBLOOM_CLI + " " +
                                   arguments + " 2>&1",
                               said);
  }
};

TEST_F(CanvasCommand, ACropIsExportedOnlyAsItWasPreviewed) {
  std::string said;
  ASSERT_EQ(run("canvas preview rocket.jpg --size x2 --canvas 800x600 --crop 100,50 "
                "--out preview.png",
                &said),
            0)
      << said;
  ASSERT_TRUE(fs::exists(dir / "preview.png.tarnbloomcrop"));
  const std::string crop = "enlarge rocket.jpg --size x2 --canvas 800x600 --receipts beside ";
  const std::string confirmed = " --confirmation preview.png.tarnbloomcrop";

  // Another position, another size, another format, no confirmation, or a
  // confirmation for another file: nothing is written.
  EXPECT_EQ(run(crop + "--crop 100,60 --out a" + confirmed, &said), 3);
  EXPECT_NE(said.find("the canvas settings changed"), std::string::npos) << said;
  EXPECT_EQ(run(crop + "--crop 100,50 --format png --out b" + confirmed, &said), 3);
  EXPECT_EQ(run(crop + "--crop 100,50 --out c", &said), 3);
  EXPECT_NE(said.find("This crop hasn’t been shown and confirmed yet."), std::string::npos);
  fs::copy_file(testing::samplePath("chelsea.png"), dir / "cat.png");
  EXPECT_EQ(run("enlarge cat.png --size x2 --canvas 800x600 --crop 100,50 --format jpeg --out d" +
                    confirmed,
                &said),
            3);
  EXPECT_NE(said.find("a different image is open now"), std::string::npos) << said;
  for (const char* folder : {"a", "b", "c", "d"})
    EXPECT_TRUE(!fs::exists(dir / folder) || fs::is_empty(dir / folder)) << folder;

  EXPECT_EQ(run(crop + "--crop 100,50 --out e" + confirmed, &said), 0) << said;
  const auto receipt =
      nlohmann::json::parse(testing::readText(dir / "e" / "rocket_800x600.jpg.tarnbloomreceipt"));
  EXPECT_EQ(receipt["crop"]["x"], 100);
  EXPECT_EQ(receipt["output"]["width"], 800);

  EXPECT_EQ(
      run("enlarge rocket.jpg cat.png --size x2 --canvas 800x600 --crop 100,50 --out f" + confirmed,
          &said),
      1);
  EXPECT_NE(said.find("“Crop” can’t run on a batch"), std::string::npos) << said;
}

TEST_F(CanvasCommand, AnExactCanvasPadsAndRefusesWhatDoesNotFit) {
  std::string said;
  EXPECT_EQ(run("enlarge rocket.jpg --size x2 --canvas 1281x900 --fill '#FFFFFF' --out a "
                "--receipts beside",
                &said),
            0)
      << said;
  const auto receipt =
      nlohmann::json::parse(testing::readText(dir / "a" / "rocket_1281x900.jpg.tarnbloomreceipt"));
  EXPECT_EQ(receipt["canvas"]["padding"],
            (nlohmann::json{{"left", 0}, {"top", 23}, {"right", 1}, {"bottom", 23}}));
  EXPECT_EQ(run("enlarge rocket.jpg --size x2 --canvas 1000x900 --out b", &said), 1);
  EXPECT_NE(said.find("CANVAS-TOO-LARGE"), std::string::npos) << said;
  EXPECT_FALSE(fs::exists(dir / "b") && !fs::is_empty(dir / "b"));
}

}  // namespace
}  // namespace tarnbloom
