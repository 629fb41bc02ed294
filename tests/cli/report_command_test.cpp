// `tarnbloom report` as a cluster's final job uses it: one table in three
// forms, and an exit status a scheduler can act on.

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "export/receipt.h"
#include "support/sha256.h"
#include "test_support.h"

namespace tarnbloom {
namespace {

namespace fs = std::filesystem;

int report(const std::string& arguments, std::string* output) {
  output->clear();
  return testing::runCommand(std::string(TARNBLOOM_CLI) + " report " + arguments + " 2>&1", output);
}

void exportWithReceipt(const fs::path& output, const std::string& bytes) {
  testing::writeText(output, bytes);
  exporting::ReceiptInputs inputs;
  inputs.sourcePath = "/photos/" + output.stem().string() + ".jpg";
  inputs.outputPath = output;
  inputs.options.method = ResampleMethod::exact;
  inputs.outputSHA256 = sha256Hex(std::as_bytes(std::span(bytes)));
  testing::writeText(output.string() + ".tarnbloomreceipt",
                     exporting::Receipt::text(exporting::Receipt::build(
                         "1.0", "1", std::chrono::system_clock::now(), inputs)));
}

TEST(ReportCommand, TablesTheCatalogueAndExitsOnWhatItFound) {
  testing::TempDir dir;
  const fs::path out = dir / "out";
  fs::create_directories(out);
  exportWithReceipt(out / "plain.png", "P");
  exportWithReceipt(out / "comma, \"quoted\".png", "Q");
  const std::string tree = "'" + out.string() + "'";
  std::string said;

  EXPECT_EQ(report(tree, &said), 0) << said;
  EXPECT_NE(said.find("2 receipts, 2 verified."), std::string::npos) << said;
  EXPECT_EQ(report(tree + " --csv", &said), 0);
  EXPECT_EQ(said.substr(0, said.find('\n')),
            "receipt,source,source_sha256,output,output_sha256,bytes,width,height,method,format,"
            "seconds,claims,detail_effect,status,note");
  // A file name with a comma and quotes stays one field.
  EXPECT_NE(said.find(",\"" + (out / "comma, \"\"quoted\"\".png").string() + "\","),
            std::string::npos)
      << said;

  testing::writeText(out / "plain.png", "changed");
  EXPECT_EQ(report(tree + " --json", &said), 2);
  const auto document = nlohmann::json::parse(said);
  EXPECT_EQ(document["verified"], 1);
  EXPECT_EQ(document["problems"]["mismatched"], 1);
  EXPECT_EQ(document["rows"].size(), 2u);

  EXPECT_EQ(report("'" + (dir / "nowhere").string() + "'", &said), 1);
  EXPECT_NE(said.find("is not a folder"), std::string::npos) << said;
  EXPECT_EQ(report(tree + " --json --csv", &said), 1);
  // An empty tree proves nothing was made: a problem, not success.
  fs::create_directories(dir / "empty");
  EXPECT_EQ(report("'" + (dir / "empty").string() + "'", &said), 2);
  EXPECT_NE(said.find("No receipts found"), std::string::npos) << said;
}

}  // namespace
}  // namespace tarnbloom
