#include <gtest/gtest.h>

#include <cstring>
#include <sstream>

#include "engine/estimate_error.h"
#include "engine/ncnn_model.h"
#include "test_support.h"

namespace tarnbloom {
namespace {

// Writes a network of the Enhance graph's shape in ncnn's format: `body`
// hidden convolutions of `features` channels, upscale r. Weights are
// generated; float16 when `half` (the tagged layout ncnn writes), else
// float32 with a zero flag.
struct ModelFiles {
  std::string param;
  std::vector<std::byte> bin;
  std::vector<float> firstWeights;
};

uint16_t toHalf(float f) {
  // Exact for the small dyadic values the generator uses.
  uint32_t bits;
  std::memcpy(&bits, &f, 4);
  const uint32_t sign = (bits >> 16) & 0x8000u;
  const int exponent = static_cast<int>((bits >> 23) & 0xff) - 127 + 15;
  if ((bits & 0x7fffffffu) == 0) return static_cast<uint16_t>(sign);
  return static_cast<uint16_t>(sign | (exponent << 10) | ((bits >> 13) & 0x3ffu));
}

ModelFiles makeModel(int features, int body, int r, bool half) {
  ModelFiles m;
  std::ostringstream p;
  const int convs = body + 2;
  const int layers = 2 + convs + (convs - 1) + 3;
  p << "7767517\n" << layers << " " << layers + 2 << "\n";
  p << "Input in 0 1 data\nSplit split 1 2 data a b\n";
  auto append = [&](const void* data, size_t size) {
    const auto* bytes = static_cast<const std::byte*>(data);
    m.bin.insert(m.bin.end(), bytes, bytes + size);
  };
  std::string blob = "a";
  int in = 3;
  for (int c = 0; c < convs; ++c) {
    const int out = c == convs - 1 ? 3 * r * r : features;
    const int count = out * in * 9;
    p << "Convolution conv" << c << " 1 1 " << blob << " c" << c << " 0=" << out << " 1=3 4=1 5=1 6=" << count << "\n";
    std::vector<float> w(count);
    for (int i = 0; i < count; ++i) w[i] = static_cast<float>((i * 7 + c * 3) % 17 - 8) / 64.0f;
    if (c == 0) m.firstWeights = w;
    if (half) {
      const uint32_t tag = 0x01306B47;
      append(&tag, 4);
      std::vector<uint16_t> h(count);
      for (int i = 0; i < count; ++i) h[i] = toHalf(w[i]);
      append(h.data(), h.size() * 2);
      if (count % 2) append("\0\0", 2);
    } else {
      const uint32_t zero = 0;
      append(&zero, 4);
      append(w.data(), w.size() * 4);
    }
    std::vector<float> bias(out, 0.125f);
    append(bias.data(), bias.size() * 4);
    blob = "c" + std::to_string(c);
    if (c < convs - 1) {
      p << "PReLU prelu" << c << " 1 1 " << blob << " p" << c << " 0=" << out << "\n";
      std::vector<float> slopes(out, 0.25f);
      append(slopes.data(), slopes.size() * 4);
      blob = "p" + std::to_string(c);
    }
    in = out;
  }
  p << "PixelShuffle shuffle 1 1 " << blob << " s 0=" << r << "\n";
  p << "Interp up 1 1 b u 0=1 1=" << r << ".000000e+00 2=" << r << ".000000e+00\n";
  p << "BinaryOp add 2 1 s u output\n";
  m.param = p.str();
  return m;
}

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
    EXPECT_EQ(network.convolutions[2].bias, std::vector<float>(8, 0.125f));
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
