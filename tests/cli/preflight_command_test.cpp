// `tarnbloom preflight` as scripts use it: the lists, the exclusions file,
// the exit statuses, and nothing exported.

#include <gtest/gtest.h>

#include <map>
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

// Shards are cut from the plan of the whole batch: together they are the
// unsharded run, name for name, and no file is in two of them.
TEST(PreflightCommand, ShardsPartitionTheBatchUnderTheWholeBatchsNames) {
  testing::TempDir dir;
  const fs::path in = dir / "in", out = dir / "out";
  fs::create_directories(in / "sub");
  for (int i = 0; i < 12; ++i)
    testing::writePng(in / (i % 3 ? "" : "sub") / ("p" + std::to_string(i) + ".png"), 4, 3, 3, 8,
                      std::vector<uint16_t>(36, 90));
  testing::writeText(in / "notes.png", "not a photo");
  const std::string batch = "'" + in.string() + "' --out '" + out.string() +
                            "' --recursive --size x2 --name '{index}-{source}' --json";
  std::string said;
  ASSERT_EQ(preflight(dir / "home", batch, &said), 2) << said;
  const auto whole = nlohmann::json::parse(said);
  std::map<std::string, std::string> wholeNames, shardNames;
  for (const auto& item : whole["passed"]) wholeNames[item["file"]] = item["output"];
  ASSERT_EQ(wholeNames.size(), 12u);

  size_t excluded = 0, files = 0;
  for (int k = 0; k < 4; ++k) {
    preflight(dir / "home", batch + " --shard " + std::to_string(k) + "/4", &said);
    const auto shard = nlohmann::json::parse(said);
    EXPECT_EQ(shard["shard"]["batch_files"], 13);
    files += shard["shard"]["files"].get<size_t>();
    excluded += shard["excluded"].size();
    for (const auto& item : shard["passed"])
      EXPECT_TRUE(shardNames.emplace(item["file"], item["output"]).second) << item["file"];
  }
  EXPECT_EQ(shardNames, wholeNames);
  EXPECT_EQ(excluded, 1u);
  EXPECT_EQ(files, 13u);

  EXPECT_EQ(preflight(dir / "home", batch + " --shard 4/4", &said), 1);
  EXPECT_NE(said.find("--shard 4/4: shards count from 0"), std::string::npos) << said;
  EXPECT_EQ(preflight(dir / "home", batch + " --shard two", &said), 1);
  EXPECT_NE(said.find("--shard takes K/N with 0 ≤ K < N, for example 0/4."), std::string::npos);
}

}  // namespace
}  // namespace tarnbloom
