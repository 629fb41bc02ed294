#include "export/receipt.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdlib>

#include "support/files.h"
#include "support/sha256.h"
#include "test_support.h"

namespace tarnbloom::exporting {
namespace {

namespace fs = std::filesystem;
using encoding::ExportFormat;
using testing::readBytes;
using testing::TempDir;
using testing::writeText;

std::string readText(const fs::path& path) {
  const auto bytes = readBytes(path);
  return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
}

ReceiptInputs inputsFor(const fs::path& output, const std::string& outputBytes,
                        ResampleMethod method = ResampleMethod::exact,
                        ExportFormat format = ExportFormat::png) {
  ReceiptInputs inputs;
  inputs.sourcePath = "/photos/cat.jpg";
  inputs.sourceSHA256 = std::string(64, 'a');
  inputs.sourceWidth = 100;
  inputs.sourceHeight = 80;
  inputs.outputPath = output;
  inputs.outputSHA256 = sha256Hex(std::as_bytes(std::span(outputBytes)));
  inputs.outputWidth = 400;
  inputs.outputHeight = 320;
  inputs.format = format;
  inputs.options.method = method;
  inputs.timings = {{"render", 1.5}, {"encode", 0.25}};
  if (method == ResampleMethod::estimate)
    inputs.estimate = EstimateProvenance{"Real-ESRGAN General x4v3",
                                         "realesr-general-x4v3/8dc7edb9",
                                         std::string(64, 'b'),
                                         "256x256 tiles",
                                         "CPU",
                                         0.7,
                                         "float32"};
  return inputs;
}

nlohmann::ordered_json receiptFor(const fs::path& output, const std::string& bytes) {
  return Receipt::build("1.0", "7", WallTime{}, inputsFor(output, bytes));
}

TEST(Receipt, KeepsItsKeyOrderAndRecordsTheModelOnlyForEnhance) {
  const std::vector<std::string> keys = {
      "schema",        "version", "app_version", "app_build",         "created",
      "source",        "output",  "method",      "dimensions_mode",   "canvas",
      "crop",          "masks",   "colour",      "encoder",           "text_check",
      "quality_flags", "claims",  "claim_note",  "vision_provenance", "timing_scope",
      "timings"};
  auto exact = receiptFor("/out/cat.png", "png bytes");
  std::vector<std::string> seen;
  for (const auto& item : exact.items()) seen.push_back(item.key());
  EXPECT_EQ(seen, keys);

  auto inputs = inputsFor("/out/cat.webp", "webp", ResampleMethod::estimate, ExportFormat::webp);
  inputs.sourceBitDepth = 16;
  auto enhance = Receipt::build("1.0", "7", WallTime{}, inputs);
  EXPECT_EQ(enhance.back()["model"]["version"], "realesr-general-x4v3/8dc7edb9");
  EXPECT_EQ(enhance["claims"]["codes"],
            nlohmann::json({"CLAIM-ESTIMATE-EXPORT", "WEBP-16BIT-REDUCED"}));

  // The text form is what gets published and read back by recovery.
  const auto reread = nlohmann::json::parse(Receipt::text(exact));
  EXPECT_EQ(Receipt::outputSHA256(reread), exact["output"]["sha256"].get<std::string>());
  EXPECT_EQ(Receipt::text(exact).back(), '\n');

  inputs.estimate.reset();  // an Enhance receipt without its model would hide the claim
  EXPECT_THROW(Receipt::build("1.0", "7", WallTime{}, inputs), ReceiptError);
  auto jpeg = inputsFor("/out/cat.jpg", "jpeg", ResampleMethod::exact, ExportFormat::jpeg);
  EXPECT_THROW(Receipt::build("1.0", "7", WallTime{}, jpeg), ReceiptError);
}

class ReceiptFiles : public ::testing::Test {
 protected:
  void SetUp() override { ::setenv("TARNBLOOM_HOME", (m_dir / "state").c_str(), 1); }
  void TearDown() override { ::unsetenv("TARNBLOOM_HOME"); }

  fs::path journalFolder() const { return m_dir / "state" / "ReceiptPublications"; }
  size_t entries(const fs::path& folder) const {
    std::error_code error;
    size_t count = 0;
    for (fs::directory_iterator it(folder, error), end; !error && it != end; it.increment(error))
      ++count;
    return count;
  }

  // A staged output with its receipt, ready to publish as `name`.
  ReceiptPairPublication prepare(const std::string& name, const std::string& bytes,
                                 bool beside = true) {
    m_output = m_dir / name;
    m_staged = m_dir / ("." + name + ".tmp");
    m_receipt = ReceiptLocation{m_dir / "state" / "Receipts"}.url(m_output, beside);
    m_stagedReceipt = m_receipt.parent_path() / ("." + m_receipt.filename().string() + ".tmp");
    writeText(m_staged, bytes);
    return ReceiptPairPublication::prepare("op-1", m_staged, m_output, receiptFor(m_output, bytes),
                                           m_receipt, m_stagedReceipt, m_dir / "state");
  }

  TempDir m_dir;
  fs::path m_output, m_staged, m_receipt, m_stagedReceipt;
};

TEST_F(ReceiptFiles, PublishesThePairAndLeavesNothingStaged) {
  prepare("cat.png", "new image").publish(false);
  EXPECT_EQ(readText(m_output), "new image");
  EXPECT_EQ(Receipt::outputSHA256(nlohmann::json::parse(readText(m_receipt))),
            Receipt::sha256(m_output));
  EXPECT_EQ(entries(m_dir.path()), 3u);  // output, receipt, state
  EXPECT_EQ(entries(journalFolder()), 0u);

  // Replacing on request swaps both files and keeps no links to the old ones.
  prepare("cat.png", "newer image", false).publish(true);
  EXPECT_EQ(readText(m_output), "newer image");
  EXPECT_EQ(entries(m_dir.path()), 3u);
  EXPECT_EQ(entries(m_receipt.parent_path()), 1u);
}

TEST_F(ReceiptFiles, NeverReplacesAnExistingOutputUnasked) {
  writeText(m_dir / "cat.png", "the user's photo");
  writeText(m_dir / "cat.png.tarnbloomreceipt", "its receipt");
  auto publication = prepare("cat.png", "new image");
  try {
    publication.publish(false);
    FAIL() << "an existing output was replaced";
  } catch (const FileError& error) {
    EXPECT_EQ(error.errnoValue(), EEXIST);
  }
  EXPECT_EQ(readText(m_output), "the user's photo");
  EXPECT_EQ(readText(m_receipt), "its receipt");
  EXPECT_EQ(entries(m_dir.path()), 3u);
  EXPECT_EQ(entries(journalFolder()), 0u);
}

TEST_F(ReceiptFiles, AFailedPublishRestoresThePreviousReceipt) {
  // The output's folder is missing, so the output move fails after the
  // receipt (in the store) has already replaced an older one.
  auto receipt =
      ReceiptLocation{m_dir / "state" / "Receipts"}.url(m_dir / "gone" / "cat.png", false);
  ReceiptLocation::ensureParentExists(receipt);
  writeText(receipt, "older receipt");
  writeText(m_dir / "staged", "image");
  auto publication =
      ReceiptPairPublication::prepare("op-2", m_dir / "staged", m_dir / "gone" / "cat.png",
                                      receiptFor(m_dir / "gone" / "cat.png", "image"), receipt,
                                      receipt.parent_path() / ".staged-receipt", m_dir / "state");
  EXPECT_THROW(publication.publish(true), FileError);
  EXPECT_EQ(readText(receipt), "older receipt");
  EXPECT_EQ(entries(receipt.parent_path()), 1u);
  EXPECT_FALSE(fs::exists(m_dir / "staged"));
  EXPECT_EQ(entries(journalFolder()), 0u);
}

TEST_F(ReceiptFiles, RefusesAReceiptForOtherBytes) {
  writeText(m_dir / "staged", "what was encoded");
  try {
    ReceiptPairPublication::prepare("op-3", m_dir / "staged", m_dir / "cat.png",
                                    receiptFor(m_dir / "cat.png", "something else"),
                                    m_dir / "cat.png.tarnbloomreceipt", m_dir / ".r.tmp",
                                    m_dir / "state");
    FAIL() << "a mismatched receipt was accepted";
  } catch (const ReceiptError& error) {
    EXPECT_EQ(error.description(), "Invalid receipt: output_sha256 must match staged image");
  }
  EXPECT_EQ(entries(m_dir.path()), 1u);  // only the staged output
  EXPECT_EQ(entries(journalFolder()), 0u);
}

// Crashes are simulated by doing by hand the moves publish() had got through.
TEST_F(ReceiptFiles, RecoveryLeavesAMatchingPairAndReportsAStrayReceipt) {
  auto recover = [&] {
    return ReceiptPairPublication::recoverInterrupted(m_dir / "state").removed;
  };

  // Crash before anything moved.
  prepare("a.png", "a");
  EXPECT_EQ(recover(), std::vector<fs::path>{m_stagedReceipt});
  EXPECT_TRUE(fs::exists(m_staged));  // the export's own record removes it
  EXPECT_FALSE(fs::exists(m_receipt));
  fs::remove(m_staged);

  // Crash between the receipt move and the output move: the receipt stays
  // (the export's next run replaces it) and is reported.
  prepare("b.png", "b");
  fs::rename(m_stagedReceipt, m_receipt);
  const auto recovery = ReceiptPairPublication::recoverInterrupted(m_dir / "state");
  EXPECT_TRUE(recovery.removed.empty());
  EXPECT_EQ(recovery.mismatchedReceipts, std::vector<fs::path>{m_receipt});
  EXPECT_TRUE(fs::exists(m_receipt));
  fs::remove(m_staged);
  fs::remove(m_receipt);

  // The same while replacing: the old pair comes back unchanged.
  writeText(m_dir / "c.png", "old c");
  writeText(m_dir / "c.png.tarnbloomreceipt", "old receipt");
  prepare("c.png", "c");
  ASSERT_EQ(::link(m_receipt.c_str(), (m_dir / ".c.png.tarnbloomreceipt.op-1.previous").c_str()),
            0);
  fs::rename(m_stagedReceipt, m_receipt);
  recover();
  EXPECT_EQ(readText(m_dir / "c.png"), "old c");
  EXPECT_EQ(readText(m_receipt), "old receipt");
  fs::remove(m_staged);

  // Crash after both moves: the pair stands.
  prepare("d.png", "d");
  fs::rename(m_stagedReceipt, m_receipt);
  fs::rename(m_staged, m_output);
  EXPECT_TRUE(recover().empty());
  EXPECT_EQ(Receipt::outputSHA256(nlohmann::json::parse(readText(m_receipt))),
            Receipt::sha256(m_output));

  EXPECT_EQ(entries(m_dir.path()), 5u);  // state and the c and d pairs
  EXPECT_EQ(entries(journalFolder()), 0u);

  writeText(journalFolder() / "op-9.json", "{ torn");
  recover();
  EXPECT_TRUE(fs::exists(journalFolder() / "op-9.json.damaged"));
}

}  // namespace
}  // namespace tarnbloom::exporting
