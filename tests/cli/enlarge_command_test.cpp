#include <gtest/gtest.h>

#include "test_support.h"

namespace tarnbloom {
namespace {

TEST(EnlargeCommand, EnhanceWithoutAModelSaysWhatIsMissingAndWritesNothing) {
  testing::TempDir dir;
  std::string output;
  const int status = testing::runCommand(
      "TARNBLOOM_ESTIMATE_MODEL=/nonexistent/model.param " + std::string(TARNBLOOM_CLI) +
          " enlarge --method enhance --strength 0.5 --size x2 --out '" + dir.path().string() + "' '" +
          testing::samplePath("chelsea.png").string() + "' 2>&1",
      &output);
  EXPECT_EQ(status, 3);
  EXPECT_NE(output.find("Estimate needs realesr-general-x4v3.param. Set TARNBLOOM_ESTIMATE_MODEL for an "
                        "experimental build."),
            std::string::npos)
      << output;
  EXPECT_TRUE(std::filesystem::is_empty(dir.path()));

  EXPECT_EQ(testing::runCommand(std::string(TARNBLOOM_CLI) + " enlarge --method enhance --strength 1.5 --size x2 --out '" +
                                dir.path().string() + "' x.png 2>/dev/null"),
            1);
}

}  // namespace
}  // namespace tarnbloom
