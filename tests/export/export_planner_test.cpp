// Planning decides every output's name and size before anything runs: a
// name that is taken is numbered, skipped or replaced as asked, the source
// itself is never an output, and files that cannot work are refused with
// the reason a user can act on.

#include "export/export_planner.h"

#include <gtest/gtest.h>

#include "export/preflight.h"
#include "fixtures.h"
#include "test_support.h"

namespace tarnbloom::exporting {
namespace {

namespace fs = std::filesystem;
using testing::TempDir;

struct Planning : ::testing::Test {
  TempDir dir;
  fs::path photo = dir / "photo.png";
  void SetUp() override {
    testing::writePng(photo, 16, 12, 3, 8, std::vector<uint16_t>(16 * 12 * 3));
  }

  ExportPlan plan(CollisionPolicy collision, const std::vector<fs::path>& sources,
                  std::string templ = "{source}_{w}x{h}",
                  std::optional<fs::path> folder = std::nullopt, std::set<fs::path> reserved = {}) {
    JobDescription description;
    description.options.sizeMode = SizeMode::x2;
    description.options.formatFollowsSource = true;
    description.collision = collision;
    ExportPlanner planner(description, std::move(templ), DestinationRule{std::move(folder)});
    planner.reserve(std::move(reserved));
    return planner.plan(sources);
  }
};

TEST_F(Planning, ATakenNameIsNumberedSkippedOrReplacedAsAsked) {
  testing::writeText(dir / "photo_32x24.png", "an earlier export");
  const auto numbered = plan(CollisionPolicy::number, {photo, photo});
  ASSERT_EQ(numbered.items.size(), 2u);
  EXPECT_EQ(numbered.items[0].assignedOutput, dir / "photo_32x24 2.png");
  EXPECT_EQ(numbered.items[1].assignedOutput, dir / "photo_32x24 3.png");  // not the same twice
  EXPECT_EQ(numbered.items[0].plannedSize, (std::pair<int64_t, int64_t>{32, 24}));

  const auto skipped = plan(CollisionPolicy::skip, {photo});
  EXPECT_TRUE(skipped.items.empty());
  ASSERT_EQ(skipped.refusals.size(), 1u);
  EXPECT_EQ(skipped.refusals[0].kind, PlanRefusal::Kind::skipped);
  EXPECT_EQ(skipped.refusals[0].text, "skipped. “photo_32x24.png” already exists.");

  const auto replaced = plan(CollisionPolicy::replace, {photo, photo});
  ASSERT_EQ(replaced.items.size(), 2u);
  EXPECT_EQ(replaced.items[0].assignedOutput, dir / "photo_32x24.png");
  EXPECT_EQ(replaced.items[1].assignedOutput, dir / "photo_32x24 2.png");

  // A name another unfinished export holds counts as taken.
  const auto held = plan(CollisionPolicy::replace, {photo}, "{source}_{w}x{h}", dir / "out",
                         {dir / "out" / "photo_32x24.png"});
  EXPECT_EQ(held.items.at(0).assignedOutput, dir / "out" / "photo_32x24 2.png");
}

TEST_F(Planning, TheSourceIsNeverItsOwnOutput) {
  for (const auto policy : {CollisionPolicy::number, CollisionPolicy::replace}) {
    const auto planned = plan(policy, {photo}, "{source}");
    ASSERT_EQ(planned.items.size(), 1u);
    EXPECT_EQ(planned.items[0].assignedOutput, dir / "photo 2.png");
  }
}

TEST_F(Planning, RefusesWhatCannotWorkAndLeavesTheUnreadableToTheExport) {
  testing::writeText(dir / "notes.png", "not a picture");
  fs::create_directories(dir / "folder.png");
  testing::writePng(dir / "wide.png", 4096, 2, 3, 8, std::vector<uint16_t>(4096 * 2 * 3));
  testing::writePng(dir / "edge.png", 8191, 2, 3, 8, std::vector<uint16_t>(8191 * 2 * 3));
  JobDescription description;
  description.options.sizeMode = SizeMode::x4;
  description.options.format = encoding::ExportFormat::webp;
  const auto planned =
      ExportPlanner(description, "{source}", {})
          .plan({dir / "gone.png", dir / "folder.png", dir / "notes.png", dir / "wide.png", photo});
  ASSERT_EQ(planned.refusals.size(), 3u);
  EXPECT_EQ(planned.refusals[0].text, "“" + (dir / "gone.png").string() + "” doesn’t exist.");
  EXPECT_EQ(planned.refusals[1].text,
            "“" + (dir / "folder.png").string() + "” is not a regular file, so it was not read.");
  EXPECT_EQ(planned.refusals[2].text,
            "16,384 × 8 is over WebP’s 16383-pixel limit for one side. Choose a smaller target, "
            "or export PNG, JPEG or TIFF instead.");
  ASSERT_EQ(planned.items.size(), 2u);
  EXPECT_EQ(planned.items[0].url, dir / "notes.png");  // its export says why it fails
  EXPECT_FALSE(planned.items[0].assignedOutput);
  EXPECT_EQ(planned.items[1].assignedOutput, dir / "photo.webp");
  // {index} skips what is no photo at all, not what this output refuses.
  EXPECT_EQ(planned.items[1].batchIndex, 3);

  description.options.sizeMode = SizeMode::x2;  // 16,382 wide: within the limit
  EXPECT_TRUE(ExportPlanner(description, "{source}", {}).plan({dir / "edge.png"}).refusals.empty());
}

// Files written as they render hold one band whatever the output's size;
// formats and paths that hold the picture whole grow with it, so the same
// enlargement can pass as PNG and be refused as WebP or HEIC.
TEST(MemoryAdmission, FollowsWhatEachPathHolds) {
  using encoding::ExportFormat;
  const auto peak = [](int64_t scale, ExportFormat format, ResampleMethod method,
                       const ExportMemoryShape& shape = {}) {
    return estimatedPeakWorkingBytes(6000, 4000, 6000 * scale, 4000 * scale, method, format, shape);
  };
  for (const ExportFormat format : {ExportFormat::png, ExportFormat::tiff, ExportFormat::jpeg}) {
    SCOPED_TRACE(encoding::rawValue(format));
    const double small = static_cast<double>(
        estimatedPeakWorkingBytes(1620, 1080, 6480, 4320, ResampleMethod::exact, format));
    const double large = static_cast<double>(
        estimatedPeakWorkingBytes(1620, 1080, 24000, 16000, ResampleMethod::exact, format));
    EXPECT_LT(large, 1.5 * small) << "a streamed export's peak stays flat";
    EXPECT_FALSE(exceedsMemoryAdmission(6000, 4000, 24000, 16000, ResampleMethod::exact, format));
    EXPECT_LT(peak(4, format, ResampleMethod::exact), peak(4, format, ResampleMethod::clarity));
  }
  EXPECT_TRUE(
      exceedsMemoryAdmission(6000, 4000, 24000, 16000, ResampleMethod::exact, ExportFormat::heic));
  EXPECT_GT(peak(2, ExportFormat::webp, ResampleMethod::exact),
            peak(2, ExportFormat::png, ResampleMethod::exact));
  // A byte ceiling or a canvas holds the JPEG whole; a 16-bit source is
  // held at twice the bytes.
  ExportMemoryShape ceiling, canvas, wide;
  ceiling.jpegSizeCeiling = true;
  canvas.canvas = std::pair<int64_t, int64_t>{13000, 9000};
  wide.sourceBitDepth = 16;
  const double streamed = static_cast<double>(peak(2, ExportFormat::jpeg, ResampleMethod::exact));
  EXPECT_GT(static_cast<double>(peak(2, ExportFormat::jpeg, ResampleMethod::exact, ceiling)),
            1.5 * streamed);
  EXPECT_GT(static_cast<double>(peak(2, ExportFormat::jpeg, ResampleMethod::exact, canvas)),
            1.5 * streamed);
  EXPECT_GT(peak(2, ExportFormat::png, ResampleMethod::exact, wide),
            peak(2, ExportFormat::png, ResampleMethod::exact) + 6000 * 4000 * 3);
  // PNG deflates pieces on every core at once, so a larger machine holds
  // more; JPEG's rows do not depend on the cores.
  ExportMemoryShape many;
  many.threads = 32;
  EXPECT_GT(peak(4, ExportFormat::png, ResampleMethod::exact, many),
            peak(4, ExportFormat::png, ResampleMethod::exact) + 200'000'000);
  EXPECT_EQ(peak(4, ExportFormat::jpeg, ResampleMethod::exact, many),
            peak(4, ExportFormat::jpeg, ResampleMethod::exact));
  EXPECT_EQ(
      estimatedPeakWorkingBytes(0, 4000, 12000, 8000, ResampleMethod::exact, ExportFormat::png), 0);
  EXPECT_EQ(estimatedPeakWorkingBytes(1, 1, INT64_MAX / 2, INT64_MAX / 2, ResampleMethod::exact,
                                      ExportFormat::webp),
            INT64_MAX);
}

}  // namespace
}  // namespace tarnbloom::exporting
