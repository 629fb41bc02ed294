#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <memory>
#include <random>
#include <thread>

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

// A photo-like input: smooth shading, a hard diagonal edge, fine texture
// and grain, different in each colour and batch entry.
std::vector<float> photoLike(int h, int w, int batch) {
  std::mt19937 random(11);
  std::uniform_real_distribution<float> grain(-0.02f, 0.02f);
  std::vector<float> input(static_cast<size_t>(batch) * 3 * h * w);
  for (int b = 0; b < batch; ++b)
    for (int c = 0; c < 3; ++c)
      for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x) {
          const float shade = 0.2f + 0.5f * (x + 2 * y + 40 * c + 17 * b) / (w + 2 * h + 120);
          const float edge = x * 3 > y * 2 + w / 2 ? 0.25f : 0.0f;
          const float texture = 0.05f * std::sin(x * 0.9f + c) * std::cos(y * 1.3f);
          input[((static_cast<size_t>(b) * 3 + c) * h + y) * w + x] =
              std::clamp(shade + edge + texture + grain(random), 0.0f, 1.0f);
        }
  return input;
}

TEST(EstimateNetwork, WinogradStaysWithinALevelOfDirect) {
  const auto files = testing::makeModel(64, 2, 4, true);
  SrvggNetwork net = SrvggNetwork::parse(files.param, files.bin);
  // The generated weights amplify about 3.5 times per 64-channel layer;
  // scaled to unit gain the output stays mostly inside 0...1, where a
  // difference would show in an export instead of being clamped away.
  // Slopes and biases differ per channel, so a channel read from the wrong
  // place shows.
  for (auto& conv : net.convolutions) {
    for (float& weight : conv.weights) weight /= 0.144f * std::sqrt(9.0f * conv.inputChannels);
    for (size_t o = 0; o < conv.preluSlopes.size(); ++o)
      conv.preluSlopes[o] = 0.05f + 0.05f * (o % 7);
    for (size_t o = 0; o < conv.bias.size(); ++o) conv.bias[o] = 0.02f * ((o % 5) - 2.0f);
  }

  using Convolution = EstimateNetwork::Convolution;
  struct Shape {
    int height, width, batch;
  };
  // The engine's tile, odd sizes, a batch, and a single row: each picks
  // its own transform tiling, with partial tiles at the right and bottom.
  for (const Shape s : {Shape{256, 256, 1}, Shape{19, 23, 2}, Shape{1, 37, 1}, Shape{61, 6, 1}}) {
    SCOPED_TRACE(std::to_string(s.height) + "x" + std::to_string(s.width));
    const std::vector<float> input = photoLike(s.height, s.width, s.batch);
    EstimateNetwork direct(net, s.height, s.width, s.batch, EstimateNetwork::Precision::fp32,
                           Convolution::direct);
    EstimateNetwork winograd(net, s.height, s.width, s.batch, EstimateNetwork::Precision::fp32,
                             Convolution::winograd);
    EXPECT_EQ(direct.convolution(), Convolution::direct);
    if (winograd.convolution() != Convolution::winograd)
      GTEST_SKIP() << "no Winograd convolution on this processor";
    std::vector<float> expected(input.size() * 16), out(expected.size());
    direct.infer(input.data(), expected.data());
    winograd.infer(input.data(), out.data());
    double largest = 0, sum = 0;
    int inside = 0;
    for (size_t i = 0; i < out.size(); ++i) {
      const double level =
          std::abs(std::clamp(out[i], 0.0f, 1.0f) - std::clamp(expected[i], 0.0f, 1.0f)) * 255;
      largest = std::max(largest, level);
      sum += level;
      inside += expected[i] > 0 && expected[i] < 1;
    }
    EXPECT_GT(inside, static_cast<int>(out.size() / 2)) << "most of the output must be visible";
    EXPECT_LE(largest, 1.0);
    EXPECT_LE(sum / out.size(), 0.05);
  }
}

// The window builds the network on whichever thread asks first and runs it
// later from preview and export threads. oneDNN's own scratchpad belongs to
// the thread that built a layer, so a network must carry its own.
TEST(EstimateNetwork, RunsOnThreadsOtherThanTheOneThatBuiltIt) {
  const auto files = testing::makeModel(64, 2, 4, true);
  const SrvggNetwork net = SrvggNetwork::parse(files.param, files.bin);
  for (const auto convolution : {EstimateNetwork::Convolution::direct, EstimateNetwork::Convolution::winograd}) {
    const int h = 256, w = 256;
    const std::vector<float> input = photoLike(h, w, 1);
    std::vector<float> here(input.size() * 16), there(here.size());
    auto network = std::make_unique<EstimateNetwork>(net, h, w, 1, EstimateNetwork::Precision::fp32, convolution);
    network->infer(input.data(), here.data());
    std::thread([&] { network->infer(input.data(), there.data()); }).join();
    EXPECT_EQ(here, there);
    // Built on a thread that is gone, run here.
    std::thread([&] {
      network = std::make_unique<EstimateNetwork>(net, h, w, 1, EstimateNetwork::Precision::fp32, convolution);
    }).join();
    network->infer(input.data(), there.data());
    EXPECT_EQ(here, there);
  }
}

}  // namespace
}  // namespace tarnbloom
