// A folder batch never reads its own output, and preflight sets aside every
// file that cannot work, from its header, with the reason a user can act
// on; the rest are planned exactly as they will run.

#include "recipes/folder_batch_walker.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include "fixtures.h"
#include "test_support.h"

namespace tarnbloom::recipes {
namespace {

namespace fs = std::filesystem;
using exporting::PreflightExceptionClass;
using testing::TempDir;
using testing::writeText;

void writePhoto(const fs::path& path, int width = 16, int height = 12) {
  testing::writePng(path, width, height, 3, 8,
                    std::vector<uint16_t>(static_cast<size_t>(width) * height * 3, 100));
}

TEST(FolderBatchWalker, NeverReadsItsOwnOutput) {
  TempDir dir;
  const fs::path in = dir / "in";
  fs::create_directories(in / "Enlarged");
  fs::create_directories(in / "sub");
  fs::create_directory_symlink(in, dir / "link");
  writePhoto(in / "a.png");
  writePhoto(in / "Enlarged" / "a_32x24.png");
  writePhoto(in / "sub" / "b.png");

  const auto same = FolderBatchWalker::destinationRejection(in, dir / "link");
  ASSERT_TRUE(same);
  EXPECT_EQ(*same,
            "“in” is the folder you are enlarging. Enlarged copies must go somewhere else, or a "
            "re-run would read its own output. Choose or create a different folder — an "
            "“Enlarged” subfolder is fine.");
  const auto above = FolderBatchWalker::destinationRejection(in / "sub", in);
  ASSERT_TRUE(above);
  EXPECT_EQ(above->rfind("“in” contains the folder you are enlarging, so every photo", 0), 0u);
  EXPECT_FALSE(FolderBatchWalker::destinationRejection(in, in / "Enlarged"));

  const auto walk = FolderBatchWalker::walkDetailed(in, true, {in / "Enlarged"});
  EXPECT_EQ(walk.files, (std::vector<fs::path>{in / "a.png", in / "sub" / "b.png"}));
  ASSERT_EQ(walk.excludedFolders.size(), 1u);
  EXPECT_EQ(walk.excludedFolders[0].folder, in / "Enlarged");
}

TEST(FolderBatchWalker, ListsHiddenFilesOnlyDirectlyInTheFolderAndNeverOddFiles) {
  TempDir dir;
  fs::create_directories(dir / "in" / ".cache");
  writeText(dir / "in" / ".hidden.png", "x");
  writeText(dir / "in" / ".cache" / "c.png", "x");
  writeText(dir / "in" / "z.png", "x");
  ASSERT_EQ(::mkfifo((dir / "in" / "pipe.png").c_str(), 0600), 0);
  EXPECT_EQ(FolderBatchWalker::walkDetailed(dir / "in", false, {}).files,
            (std::vector<fs::path>{dir / "in" / ".hidden.png", dir / "in" / "z.png"}));
  EXPECT_EQ(FolderBatchWalker::walkDetailed(dir / "in", true, {}).files,
            std::vector<fs::path>{dir / "in" / "z.png"});

  const auto gone = FolderBatchWalker::walkDetailed(dir / "nothing", true, {});
  ASSERT_EQ(gone.problems.size(), 1u);
  EXPECT_EQ(gone.problems[0].message, "“nothing” is no longer there. Choose the folder again.");
  EXPECT_EQ(FolderBatchWalker::walkDetailed(dir / "in" / "z.png", true, {}).problems.at(0).message,
            "“z.png” is not a folder.");
}

TEST(Preflight, SetsAsideWhatCannotWorkWithItsCodeAndPlansTheRest) {
  TempDir dir;
  const fs::path in = dir / "in";
  fs::create_directories(in);
  writePhoto(in / "good.png");
  writePhoto(in / "wide.png", 5000, 2);  // x4 is 20,000 wide: over WebP's side limit
  writeText(in / "notes.jpg", "a text file named like a photo");
  writeText(in / "empty.png", "");
  writeText(in / "anim.gif", "GIF89a\x01\x00\x01\x00\x00\x00\x00;");
  // A PNG signature and header chunk that claim an image but hold no size.
  writeText(in / "broken.png", std::string("\x89PNG\r\n\x1a\n\0\0\0\x0dIHDR", 16));

  exporting::JobDescription description;
  description.options.sizeMode = SizeMode::x4;
  description.options.format = encoding::ExportFormat::webp;
  exporting::ExportPlanner planner(description, "{source}", {dir / "out"});
  const auto walk = FolderBatchWalker::walkDetailed(in, false, {dir / "out"});
  const PreflightReport report = FolderBatchWalker::runPreflight(walk.files, planner);

  EXPECT_EQ(report.passed(), std::vector<fs::path>{in / "good.png"});
  ASSERT_EQ(report.plan.items.size(), 1u);
  EXPECT_EQ(report.plan.items[0].assignedOutput, dir / "out" / "good.webp");
  std::map<std::string, std::string> codes;
  for (const auto& [file, exception] : report.excluded)
    codes[file.filename().string()] =
        std::string(rawValue(exception.code)) + " " + std::string(rawValue(exception.cause));
  EXPECT_EQ(codes,
            (std::map<std::string, std::string>{{"anim.gif", "UNSUPPORTED_FORMAT notAnImage"},
                                                {"broken.png", "UNREADABLE unreadable"},
                                                {"empty.png", "UNSUPPORTED_FORMAT notAnImage"},
                                                {"notes.jpg", "UNSUPPORTED_FORMAT notAnImage"},
                                                {"wide.png", "OVER_CODEC_LIMIT codecLimit"}}));

  const std::string text = report.exclusionsExport();
  EXPECT_EQ(text.substr(0, text.find('\n') + 1), "file\tcode\tcause\texplanation\n");
  EXPECT_NE(text.find((in / "wide.png").string() +
                      "\tOVER_CODEC_LIMIT\tcodecLimit\t20,000 × 8 is over WebP’s 16383-pixel limit "
                      "for one side. Choose a smaller target, or export PNG, JPEG or TIFF "
                      "instead.\n"),
            std::string::npos)
      << text;
  EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 6);
  EXPECT_EQ(text.back(), '\n');
}

TEST(Preflight, SizesAndMemoryAreCheckedBeforeAnythingRuns) {
  TempDir dir;
  writePhoto(dir / "photo.png", 400, 300);
  exporting::JobDescription description;
  description.options.sizeMode = SizeMode::width;
  description.options.sizeValue = 300;
  description.options.format = encoding::ExportFormat::png;
  const auto explain = [&] {
    const auto report = FolderBatchWalker::runPreflight(
        {dir / "photo.png"}, exporting::ExportPlanner(description, "{source}_big", {dir / "out"}));
    return report.excluded.empty() ? std::string("passes")
                                   : report.excluded.begin()->second.explanation;
  };
  EXPECT_EQ(explain(),
            "Target 300 px wide is smaller than this 400 × 300 source. Choose at least 400 px, or "
            "downscale it in your other tool — Tarnbloom only enlarges.");
  description.options.sizeValue = 40000;  // 40,000 × 30,000: 1.2 billion pixels
  EXPECT_EQ(explain(),
            "40,000 × 30,000 is over the 400,000,000-pixel limit for this output. Choose a smaller "
            "target size, or an 8-bit output format.");
  // 300 million pixels: AVIF is encoded from the whole picture; PNG is
  // written to disk a band at a time, Enhance's as much as Exact's.
  description.options.sizeValue = 20000;
  description.options.format = encoding::ExportFormat::avif;
  EXPECT_EQ(explain().rfind("Enlarging 400 × 300 to 20,000 × 15,000 needs more memory", 0), 0u);
  description.options.format = encoding::ExportFormat::png;
  EXPECT_EQ(explain(), "passes");
  description.options.method = ResampleMethod::exact;
  EXPECT_EQ(explain(), "passes");
  description.options.method = ResampleMethod::estimate;
  description.options.sizeValue = 800;
  EXPECT_EQ(explain(), "passes");

  // A name already taken stays in the batch under a numbered name.
  fs::create_directories(dir / "out");
  writeText(dir / "out" / "photo_big.png", "an earlier export");
  const auto report = FolderBatchWalker::runPreflight(
      {dir / "photo.png"}, exporting::ExportPlanner(description, "{source}_big", {dir / "out"}));
  ASSERT_EQ(report.collisionNotes().size(), 1u);
  EXPECT_EQ(report.collisionNotes()[0].second,
            "Possible name collision — a numbered copy will be used (photo_big 2.png)");
}

}  // namespace
}  // namespace tarnbloom::recipes
