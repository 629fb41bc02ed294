#include <gtest/gtest.h>

#include <cstring>
#include <sstream>

#include "engine/estimate_error.h"
#include "engine/ncnn_model.h"
#include "model_fixtures.h"
#include "test_support.h"

namespace tarnbloom {
namespace {

using testing::makeModel;
using testing::ModelFiles;

std::string refusal(const std::string& param, const std::vector<std::byte>& bin) {
  try {
    SrvggNetwork::parse(param, bin);
  } catch (const EstimateError& error) {
    return error.description();
  }
  return "(accepted)";
}

TEST(NcnnModel, ReadsHalfAndSingleWeightsAlike) {
  for (bool half : {true, false}) {
    const ModelFiles files = makeModel(8, 2, 2, half);
    const SrvggNetwork network = SrvggNetwork::parse(files.param, files.bin);
    ASSERT_EQ(network.convolutions.size(), 4u);
    EXPECT_EQ(network.upscale, 2);
    EXPECT_EQ(network.convolutions.front().inputChannels, 3);
    EXPECT_EQ(network.convolutions.back().outputChannels, 12);
    EXPECT_EQ(network.convolutions.front().weights, files.firstWeights);
    EXPECT_EQ(network.convolutions[1].preluSlopes, std::vector<float>(8, 0.25f));
    EXPECT_TRUE(network.convolutions.back().preluSlopes.empty());
    EXPECT_EQ(network.convolutions[2].bias, std::vector<float>(8, 1.0f / 64));
  }
}

TEST(NcnnModel, RefusesAnythingElseWithAClearDetail) {
  const ModelFiles good = makeModel(4, 1, 2, true);
  auto edited = [&](const std::string& from, const std::string& to) {
    std::string p = good.param;
    p.replace(p.find(from), from.size(), to);
    return p;
  };
  EXPECT_EQ(refusal(edited("PReLU prelu1", "ReLU prelu1"), good.bin),
            "Enhance model failed: unsupported layer type ReLU (prelu1)");
  EXPECT_EQ(refusal(edited("6=144", "6=143"), good.bin),
            "Enhance model failed: layer conv1 declares 143 weights for 4 → 4 channels");
  EXPECT_EQ(refusal(edited("1=3 4=1 5=1 6=108", "1=5 4=1 5=1 6=108"), good.bin),
            "Enhance model failed: layer conv0 is not a 3 × 3 convolution with stride 1 and padding 1");
  EXPECT_EQ(refusal(edited("0=1 1=2", "0=2 1=2"), good.bin),
            "Enhance model failed: the upsampling branch must be nearest-neighbour by the same factor");
  EXPECT_EQ(refusal("7767516\n1 1\n", good.bin), "Enhance model failed: not an ncnn param file");

  std::vector<std::byte> truncated(good.bin.begin(), good.bin.end() - 5);
  EXPECT_EQ(refusal(good.param, truncated), "Enhance model failed: the weight file ends inside layer conv2");
  std::vector<std::byte> longer = good.bin;
  longer.resize(longer.size() + 4);
  EXPECT_EQ(refusal(good.param, longer), "Enhance model failed: the weight file is longer than the network needs");
  std::vector<std::byte> quantised = good.bin;
  quantised[0] = std::byte{1};
  EXPECT_EQ(refusal(good.param, quantised),
            "Enhance model failed: layer conv0 stores its weights quantised, which is not supported");
}

TEST(NcnnModel, ReadsTheInstalledModelWhenPresent) {
  const auto param = std::filesystem::path(TARNBLOOM_SOURCE_DIR) / "models" / "realesr-general-x4v3.param";
  if (!std::filesystem::exists(param)) GTEST_SKIP() << "the Enhance model is not installed";
  const SrvggNetwork network = SrvggNetwork::read(param);
  EXPECT_EQ(network.convolutions.size(), 34u);
  EXPECT_EQ(network.upscale, 4);
  EXPECT_NEAR(network.flopsPerInputPixel() * 256 * 256 / 1e9, 158.5, 0.05);
}

}  // namespace
}  // namespace tarnbloom
