#include <gtest/gtest.h>

#include <cmath>
#include <random>

#include "engine/estimate_network.h"
#include "model_fixtures.h"

namespace tarnbloom {
namespace {

// The network computed the obvious way, in double precision: zero-padded
// 3 × 3 convolutions, PReLU, pixel shuffle, plus the nearest-upsampled input.
std::vector<double> reference(const SrvggNetwork& net, const std::vector<float>& input, int h, int w) {
  std::vector<double> x(input.begin(), input.end());
  int channels = 3;
  for (const auto& conv : net.convolutions) {
    std::vector<double> y(static_cast<size_t>(conv.outputChannels) * h * w);
    for (int o = 0; o < conv.outputChannels; ++o)
      for (int yy = 0; yy < h; ++yy)
        for (int xx = 0; xx < w; ++xx) {
          double sum = conv.bias[o];
          for (int i = 0; i < channels; ++i)
            for (int ky = 0; ky < 3; ++ky)
              for (int kx = 0; kx < 3; ++kx) {
                const int sy = yy + ky - 1, sx = xx + kx - 1;
                if (sy < 0 || sy >= h || sx < 0 || sx >= w) continue;
                sum += conv.weights[((o * channels + i) * 3 + ky) * 3 + kx] * x[(static_cast<size_t>(i) * h + sy) * w + sx];
              }
          if (!conv.preluSlopes.empty() && sum < 0) sum *= conv.preluSlopes[o];
          y[(static_cast<size_t>(o) * h + yy) * w + xx] = sum;
        }
    x = std::move(y);
    channels = conv.outputChannels;
  }
  const int r = net.upscale;
  std::vector<double> out(static_cast<size_t>(3) * h * r * w * r);
  for (int c = 0; c < 3; ++c)
    for (int yy = 0; yy < h * r; ++yy)
      for (int xx = 0; xx < w * r; ++xx) {
        const int channel = c * r * r + (yy % r) * r + (xx % r);
        out[(static_cast<size_t>(c) * h * r + yy) * w * r + xx] =
            x[(static_cast<size_t>(channel) * h + yy / r) * w + xx / r] +
            input[(static_cast<size_t>(c) * h + yy / r) * w + xx / r];
      }
  return out;
}

TEST(EstimateNetwork, MatchesThePlainComputation) {
  const auto files = testing::makeModel(8, 3, 4, true);
  const SrvggNetwork net = SrvggNetwork::parse(files.param, files.bin);
  const int h = 19, w = 23, batch = 2;
  std::mt19937 random(5);
  std::uniform_real_distribution<float> unit(0.0f, 1.0f);
  std::vector<float> input(static_cast<size_t>(batch) * 3 * h * w);
  for (float& v : input) v = unit(random);

  std::vector<double> expected;
  for (int b = 0; b < batch; ++b) {
    const std::vector<float> one(input.begin() + b * 3 * h * w, input.begin() + (b + 1) * 3 * h * w);
    const auto r = reference(net, one, h, w);
    expected.insert(expected.end(), r.begin(), r.end());
  }

  EstimateNetwork fp32(net, h, w, batch, EstimateNetwork::Precision::fp32);
  std::vector<float> out(expected.size());
  fp32.infer(input.data(), out.data());
  double worst = 0;
  for (size_t i = 0; i < out.size(); ++i) worst = std::max(worst, std::abs(out[i] - expected[i]));
  EXPECT_LT(worst, 1e-4) << "float32 must match the plain computation";

  if (!EstimateNetwork::processorHasBf16()) GTEST_SKIP() << "no native BF16 on this processor";
  EstimateNetwork bf16(net, h, w, batch, EstimateNetwork::Precision::bf16);
  bf16.infer(input.data(), out.data());
  double bf16Worst = 0;
  for (size_t i = 0; i < out.size(); ++i) bf16Worst = std::max(bf16Worst, std::abs(out[i] - expected[i]));
  EXPECT_LT(bf16Worst, 0.05) << "BF16 keeps about three significant digits";
  EXPECT_NE(bf16.precisionText().find("BF16"), std::string::npos);
}

}  // namespace
}  // namespace tarnbloom
