// The catalogue report reads receipts other runs (other machines) wrote:
// every output is checked against its receipt, every kind of trouble is
// named once, and no file in the tree can take the reader down.

#include "export/receipt_report.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <map>

#include "export/receipt.h"
#include "support/sha256.h"
#include "test_support.h"

namespace tarnbloom::exporting {
namespace {

namespace fs = std::filesystem;
using testing::TempDir;
using testing::writeText;

// Publishes `bytes` at `output` with a real receipt at `receipt` (beside it
// unless told otherwise), made `secondsAgo` before a fixed time.
void exportWithReceipt(const fs::path& output, const std::string& bytes,
                       const fs::path& source = "/photos/cat.jpg", int secondsAgo = 0,
                       std::optional<fs::path> receipt = std::nullopt,
                       ResampleMethod method = ResampleMethod::exact) {
  writeText(output, bytes);
  ReceiptInputs inputs;
  inputs.sourcePath = source;
  inputs.sourceSHA256 = std::string(64, 'a');
  inputs.outputPath = output;
  inputs.outputSHA256 = sha256Hex(std::as_bytes(std::span(bytes)));
  inputs.outputWidth = 400;
  inputs.outputHeight = 320;
  inputs.options.method = method;
  inputs.timings = {{"render", 1.5}, {"encode", 0.25}};
  if (method == ResampleMethod::estimate)
    inputs.estimate = EstimateProvenance{"model", "v1", std::string(64, 'b'), "", "", 0.5, ""};
  const WallTime created =
      WallTime{} + std::chrono::hours(24 * 365 * 50) - std::chrono::seconds(secondsAgo);
  writeText(receipt.value_or(fs::path(output.string() + ".tarnbloomreceipt")),
            Receipt::text(Receipt::build("1.0", "1", created, inputs)));
}

std::map<std::string, ReportStatus> statusByName(const ReceiptReport& report) {
  std::map<std::string, ReportStatus> statuses;
  for (const auto& row : report.rows)
    statuses[(row.receipt.empty() ? row.output : row.receipt).filename().string()] = row.status;
  return statuses;
}

TEST(ReceiptReport, ReadsEveryReceiptBesideOutputsAndInReceiptFolders) {
  TempDir dir;
  const fs::path tree = dir / "catalogue", store = dir / "Receipts";
  fs::create_directories(tree / "2024");
  fs::create_directories(store);
  exportWithReceipt(tree / "a.png", "A", "/photos/a.jpg");
  exportWithReceipt(tree / "2024" / "b.png", "BB", "/photos/2024/b.jpg", 0, std::nullopt,
                    ResampleMethod::estimate);
  exportWithReceipt(tree / "c.png", "CCC", "/photos/c.jpg", 0,
                    store / "0123-c.png.tarnbloomreceipt");
  // Staging files and state kept beside the outputs are not the catalogue.
  writeText(tree / ".tarnbloom-op-1.tmp", "partial");
  fs::create_directories(tree / ".state" / "Receipts");
  writeText(tree / ".state" / "x.png", "x");

  const auto report = ReceiptReportReader::read(tree, {store});
  ASSERT_EQ(report.rows.size(), 3u);
  EXPECT_EQ(report.receipts, 3u);
  EXPECT_TRUE(report.clean());
  const auto& enhanced = report.rows[0];  // path order: 2024/b.png first
  EXPECT_EQ(enhanced.output, tree / "2024" / "b.png");
  EXPECT_EQ(enhanced.source, "/photos/2024/b.jpg");
  EXPECT_EQ(enhanced.bytes, 2u);
  EXPECT_EQ(enhanced.method, "estimate");
  EXPECT_EQ(enhanced.format, "png");
  EXPECT_EQ(enhanced.claims, std::vector<std::string>{"CLAIM-ESTIMATE-EXPORT"});
  EXPECT_EQ(enhanced.detailEffect, "may_alter_detail");
  EXPECT_DOUBLE_EQ(enhanced.seconds.value_or(0), 1.75);
  EXPECT_EQ(report.rows[2].output, tree / "c.png");  // from the receipts folder
}

TEST(ReceiptReport, NamesMissingChangedDuplicateAndUnreceiptedOutputs) {
  TempDir dir;
  const fs::path tree = dir / "out", store = dir / "Receipts";
  fs::create_directories(tree);
  fs::create_directories(store);
  exportWithReceipt(tree / "gone.png", "G", "/photos/gone.jpg");
  fs::remove(tree / "gone.png");
  exportWithReceipt(tree / "edited.png", "original", "/photos/edited.jpg");
  writeText(tree / "edited.png", "retouched");
  exportWithReceipt(tree / "linked.png", "L", "/photos/linked.jpg");
  fs::remove(tree / "linked.png");
  writeText(dir / "elsewhere.png", "L");
  fs::create_symlink(dir / "elsewhere.png", tree / "linked.png");
  // One source exported twice with the same settings, as a shard run twice
  // would leave it: the earlier export stands whatever the names sort as.
  exportWithReceipt(tree / "twice.png", "T1", "/photos/twice.jpg", 60);
  exportWithReceipt(tree / "twice-2.png", "T2", "/photos/twice.jpg", 0);
  // Two receipts for one output: one beside it, one in the receipts folder.
  exportWithReceipt(tree / "pair.png", "P", "/photos/pair.jpg", 10);
  fs::copy_file(tree / "pair.png.tarnbloomreceipt", store / "ff-pair.png.tarnbloomreceipt");
  writeText(tree / "stray.png", "no receipt");

  const auto report = ReceiptReportReader::read(tree, {store});
  const auto statuses = statusByName(report);
  EXPECT_EQ(statuses.at("gone.png.tarnbloomreceipt"), ReportStatus::missing);
  EXPECT_EQ(statuses.at("edited.png.tarnbloomreceipt"), ReportStatus::mismatched);
  EXPECT_EQ(statuses.at("linked.png.tarnbloomreceipt"), ReportStatus::mismatched);
  EXPECT_EQ(statuses.at("twice.png.tarnbloomreceipt"), ReportStatus::ok);
  EXPECT_EQ(statuses.at("twice-2.png.tarnbloomreceipt"), ReportStatus::duplicate);
  EXPECT_EQ(statuses.at("pair.png.tarnbloomreceipt"), ReportStatus::ok);
  EXPECT_EQ(statuses.at("ff-pair.png.tarnbloomreceipt"), ReportStatus::duplicate);
  EXPECT_EQ(statuses.at("stray.png"), ReportStatus::unreceipted);
  EXPECT_EQ(report.count(ReportStatus::ok), 2u);
  EXPECT_EQ(report.rows.size(), 8u);  // one row each, the linked output included
  EXPECT_FALSE(report.clean());

  // A different size for the same source is another export, not a repeat.
  std::vector<ReceiptReportRow> rows(2);
  rows[0].source = rows[1].source = "/photos/x.jpg";
  rows[0].output = "/out/x_2x.png";
  rows[1].output = "/out/x_4x.png";
  rows[0].settingsKey = "[\"exact\",{\"mode\":\"x2\"}]";
  rows[1].settingsKey = "[\"exact\",{\"mode\":\"x4\"}]";
  markDuplicates(rows);
  EXPECT_EQ(rows[1].status, ReportStatus::ok);
}

TEST(ReceiptReport, HostileReceiptsAreReportedNeverFollowedOrTrusted) {
  TempDir dir;
  const fs::path tree = dir / "out";
  fs::create_directories(tree);
  exportWithReceipt(dir / "real.png", "R");
  writeText(tree / "text.png.tarnbloomreceipt", "shot list, not JSON");
  writeText(tree / "huge.png.tarnbloomreceipt", "{\"pad\":\"" + std::string(2 << 20, 'x') + "\"}");
  writeText(tree / "deep.png.tarnbloomreceipt",
            std::string(100000, '[') + std::string(100000, ']'));
  writeText(tree / "twice-keyed.png.tarnbloomreceipt",
            "{\"schema\":\"com.tarnbloom.receipt\",\"schema\":\"x\"}");
  writeText(tree / "foreign.png.tarnbloomreceipt", "{\"schema\":\"org.other\",\"output\":{}}");
  writeText(tree / "nodigest.png.tarnbloomreceipt",
            "{\"schema\":\"com.tarnbloom.receipt\",\"source\":{},\"output\":{\"sha256\":7}}");
  // A link to a good receipt elsewhere must not vouch for anything here.
  fs::create_symlink(dir / "real.png.tarnbloomreceipt", tree / "link.png.tarnbloomreceipt");
  // A FIFO would make a careless reader wait for ever.
  ASSERT_EQ(::mkfifo((tree / "fifo.png.tarnbloomreceipt").c_str(), 0600), 0);

  const auto report = ReceiptReportReader::read(tree, {});
  EXPECT_EQ(report.receipts, 8u);
  EXPECT_EQ(report.count(ReportStatus::unreadableReceipt), 8u);
  for (const auto& row : report.rows) EXPECT_FALSE(row.note.empty()) << row.receipt;
  for (const auto& row : report.rows)
    if (row.receipt.filename() == "link.png.tarnbloomreceipt") {
      EXPECT_NE(row.note.find("symbolic link"), std::string::npos);
    }
}

TEST(ReceiptReport, ATreeMovedOrMountedElsewhereStillChecksBesideReceipts) {
  TempDir dir;
  fs::create_directories(dir / "node");
  exportWithReceipt(dir / "node" / "a.png", "A");  // written under the node's mount
  fs::create_directories(dir / "head");
  fs::rename(dir / "node", dir / "head" / "mnt");
  const auto report = ReceiptReportReader::read(dir / "head", {});
  ASSERT_EQ(report.rows.size(), 1u);
  EXPECT_EQ(report.rows[0].status, ReportStatus::ok) << report.rows[0].note;
  EXPECT_EQ(report.rows[0].output, dir / "head" / "mnt" / "a.png");
}

}  // namespace
}  // namespace tarnbloom::exporting
