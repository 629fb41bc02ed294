// `tarnbloom preflight` as scripts use it: the lists, the exclusions file,
// the exit statuses, and nothing exported.

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "fixtures.h"
#include "test_support.h"

namespace tarnbloom {
namespace {

namespace fs = std::filesystem;

int preflight(const fs::path& home, const std::string& arguments, std::string* output) {
  output->clear();
  return testing::runCommand("TARNBLOOM_HOME='" + home.string() + "' " + TARNBLOOM_CLI +
                                 " preflight " + arguments + " 2>&1",
                             output);
}

TEST(PreflightCommand, ListsTheBatchAndWhatItSetsAsideAndExportsNothing) {
  testing::TempDir dir;
  const fs::path in = dir / "in", out = dir / "out";
  fs::create_directories(in);
  fs::copy_file(testing::samplePath("rocket.jpg"), in / "rocket.jpg");
  testing::writeText(in / "notes.txt", "shot list");
  const std::string folders = "'" + in.string() + "' --out '" + out.string() + "' --size x2";
  std::string said;
  EXPECT_EQ(preflight(dir / "home",
                      folders + " --exclusions '" + (dir / "left-out.tsv").string() + "'", &said),
            2)
      << said;
  EXPECT_NE(said.find("rocket.jpg → rocket_1280x854.jpg (1280 × 854)"), std::string::npos) << said;
  EXPECT_NE(said.find("Not a supported image\n  notes.txt: Not a supported image."),
            std::string::npos)
      << said;
  std::string saved;  // the tab-separated exclusions
  testing::runCommand("cat '" + (dir / "left-out.tsv").string() + "'", &saved);
  EXPECT_EQ(saved, "file\tcode\tcause\texplanation\n" + (in / "notes.txt").string() +
                       "\tUNSUPPORTED_FORMAT\tnotAnImage\tNot a supported image. Tarnbloom "
                       "enlarges photos — PNG, JPEG, TIFF, HEIC and WebP.\n");
  EXPECT_FALSE(fs::exists(out / "rocket_1280x854.jpg"));

  EXPECT_EQ(preflight(dir / "home", folders + " --json", &said), 2);
  const auto document = nlohmann::json::parse(said);
  EXPECT_EQ(document["passed"].size(), 1u);
  EXPECT_EQ(document["excluded"][0]["group"], "Not a supported image");

  fs::remove(in / "notes.txt");
  EXPECT_EQ(preflight(dir / "home", folders, &said), 0);
  EXPECT_NE(said.find("Every file passed preflight."), std::string::npos) << said;
  EXPECT_EQ(preflight(dir / "home", folders + " --format webp --size x16", &said), 1);  // no x16
  EXPECT_EQ(preflight(dir / "home", folders + " --size width:10000000 --format webp", &said), 3);
  EXPECT_EQ(
      preflight(dir / "home", "'" + in.string() + "' --out '" + in.string() + "' --size x2", &said),
      1);
  EXPECT_NE(said.find("“in” is the folder you are enlarging."), std::string::npos) << said;
  EXPECT_FALSE(fs::exists(out));
}

}  // namespace
}  // namespace tarnbloom
