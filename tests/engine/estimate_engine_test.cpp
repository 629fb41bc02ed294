#include <gtest/gtest.h>

#include <cmath>
#include <random>

#include "engine/engine_error.h"
#include "engine/estimate_engine.h"
#include "engine/estimate_error.h"
#include "engine/resample_engine.h"
#include "model_fixtures.h"

namespace tarnbloom {
namespace {

TEST(EstimateEngine, LaysTilesSoTrustedSpansCoverEverySide) {
  EXPECT_EQ(EstimateEngine::gridOrigins(100), std::vector<int64_t>{-16});
  EXPECT_EQ(EstimateEngine::gridOrigins(224), std::vector<int64_t>{-16});
  EXPECT_EQ(EstimateEngine::gridOrigins(225), (std::vector<int64_t>{-16, 176}));
  EXPECT_EQ(EstimateEngine::gridOrigins(416).size(), 2u);
  EXPECT_EQ(EstimateEngine::gridOrigins(417).size(), 3u);
  for (int64_t length : {1, 33, 300, 1000, 4001}) {
    const auto origins = EstimateEngine::gridOrigins(length);
    EXPECT_GE(origins.back() + EstimateEngine::context + EstimateEngine::reliableSize, length) << length;
  }
}

TEST(EstimateEngine, BlendsByAClampedStrength) {
  EXPECT_EQ(EstimateEngine::clampStrength(0.05), 0.1);
  EXPECT_EQ(EstimateEngine::clampStrength(NAN), 1.0);
  EXPECT_TRUE(EstimateEngine::isUnblended(1.0));
  EXPECT_TRUE(EstimateEngine::isUnblended(NAN));
  EXPECT_FALSE(EstimateEngine::isUnblended(0.05));

  const std::vector<uint8_t> estimate = {200, 101, 0, 255, 0, 0, 0, 0, 90, 90, 90, 100};
  const std::vector<uint8_t> exact = {100, 100, 50, 255, 30, 40, 50, 0, 200, 10, 90, 100};
  EXPECT_EQ(EstimateEngine::blendedPixels(estimate, exact, 0.5),
            (std::vector<uint8_t>{150, 101, 25, 255, 0, 0, 0, 0, 100, 50, 90, 100}))
      << "halves round away from zero; transparent stays 0; colour never exceeds alpha";
  EXPECT_EQ(EstimateEngine::blendedPixels(estimate, exact, 1.0), estimate);
  EXPECT_EQ(EstimateEngine::blendedPixels(estimate, {1, 2, 3}, 0.5), estimate);
}

// Tiles see only 16 pixels of context but the network looks further, so
// they cannot equal the whole-image result; they must not show where they
// join. The model here is deeper than the context on purpose.
TEST(EstimateEngine, JoinsTilesWithoutSeams) {
  const auto files = testing::makeModel(6, 22, 4, true);
  const SrvggNetwork network = SrvggNetwork::parse(files.param, files.bin);
  EstimateEngine engine;
  engine.useModel(network, "test");

  const int w = 600, h = 500;
  MosaicImage image{w, h, std::vector<uint8_t>(static_cast<size_t>(w) * h * 4)};
  std::mt19937 random(3);
  for (int y = 0; y < h; ++y)
    for (int x = 0; x < w; ++x) {
      uint8_t* p = image.rgba.data() + (static_cast<size_t>(y) * w + x) * 4;
      // Smooth gradients with texture, as a photo has.
      p[0] = static_cast<uint8_t>(128 + 100 * std::sin(x * 0.05) * std::cos(y * 0.03));
      p[1] = static_cast<uint8_t>((x + y) / 5 + random() % 24);
      p[2] = static_cast<uint8_t>(200 - y / 4);
      p[3] = 255;
    }
  int64_t tiles = 0;
  const MosaicImage tiled = engine.inferTiled(image, [&](int64_t, int64_t total) { tiles = total; });
  EXPECT_EQ(tiles, 9);

  std::vector<float> input(3 * static_cast<size_t>(w) * h), whole(3 * static_cast<size_t>(w) * h * 16);
  for (int c = 0; c < 3; ++c)
    for (size_t i = 0; i < static_cast<size_t>(w) * h; ++i) input[c * w * h + i] = image.rgba[i * 4 + c] / 255.0f;
  EstimateNetwork(network, h, w, 1, EstimateNetwork::Precision::fp32).infer(input.data(), whole.data());

  const int W = w * 4, H = h * 4, border = 128;
  auto inSeam = [](int outCoordinate) {
    const int source = outCoordinate / 4;
    return source >= 192 && (source % 192) < 32;
  };
  double squared = 0, seam = 0, rest = 0;
  int64_t count = 0, seamCount = 0, restCount = 0;
  for (int y = border; y < H - border; ++y)
    for (int x = border; x < W - border; ++x)
      for (int c = 0; c < 3; ++c) {
        const double expected = std::clamp(std::round(double(whole[(static_cast<size_t>(c) * H + y) * W + x]) * 255), 0.0, 255.0);
        const double error = std::abs(tiled.rgba[(static_cast<size_t>(y) * W + x) * 4 + c] - expected);
        squared += error * error;
        ++count;
        if (inSeam(x) || inSeam(y)) {
          seam += error;
          ++seamCount;
        } else {
          rest += error;
          ++restCount;
        }
      }
  const double psnr = 10 * std::log10(255.0 * 255.0 / std::max(squared / count, 1e-12));
  EXPECT_GT(psnr, 45.0);
  EXPECT_LE(seam / seamCount, 2 * std::max(rest / restCount, 0.05)) << "seam " << seam / seamCount << " rest " << rest / restCount;

}

}  // namespace
}  // namespace tarnbloom

namespace tarnbloom {
namespace {

// A 40 × 30 sRGB source of a fixed pattern.
SourceImage patternedSource() {
  codec::PixelBuffer pixels;
  pixels.allocate(40, 30, 3, codec::SampleFormat::uint8);
  for (size_t i = 0; i < pixels.data.size(); ++i) pixels.data[i] = static_cast<uint8_t>((i * 37) % 251);
  SourceImage source;
  source.colorSpace = codec::ColourSpace::forFrame({}, false);
  source.bitmap = std::make_shared<const codec::PixelBuffer>(std::move(pixels));
  return source;
}

TEST(EstimateRender, BlendsTheEstimateIntoTheExportByStrength) {
  const auto files = testing::makeModel(6, 2, 4, true);
  EstimateEngine estimates;
  estimates.useModel(SrvggNetwork::parse(files.param, files.bin), "test");

  const ResampleEngine engine(patternedSource(), &estimates);

  RenderOutput srgb;
  srgb.keepProfile = false;
  const codec::PixelBuffer exact = engine.exportImage({160, 120}, ResampleMethod::exact, srgb);
  auto distance = [&](double strength) {
    RenderOutput output = srgb;
    output.estimateStrength = strength;
    int64_t tiles = 0;
    const codec::PixelBuffer enhanced = engine.exportImage(
        {160, 120}, ResampleMethod::estimate, output, [&](int64_t, int64_t total) { tiles = total; });
    EXPECT_EQ(tiles, 1);
    double sum = 0;
    for (size_t i = 0; i < exact.data.size(); ++i) sum += std::abs(enhanced.data[i] - exact.data[i]);
    return sum / exact.data.size();
  };
  const double full = distance(1.0);
  const double light = distance(0.1);
  EXPECT_GT(full, 5.0) << "the test network must change the picture";
  EXPECT_NEAR(light, 0.1 * full, 0.03 * full + 1.0);

  ::setenv("TARNBLOOM_ESTIMATE_MODEL", "/nonexistent/model.param", 1);
  EXPECT_FALSE(EstimateEngine::configuredURL());
  ::unsetenv("TARNBLOOM_ESTIMATE_MODEL");
}

}  // namespace
}  // namespace tarnbloom

namespace tarnbloom {
namespace {

std::string inferenceFailure(SrvggNetwork network) {
  EstimateEngine engine;
  engine.useModel(std::move(network), "test");
  const MosaicImage image{40, 30, std::vector<uint8_t>(40 * 30 * 4, 200)};
  try {
    engine.inferTiled(image);
  } catch (const EstimateError& error) {
    return error.description();
  }
  return "(inferred)";
}

TEST(EstimateEngine, ChecksEveryPrediction) {
  const auto twice = testing::makeModel(4, 1, 2, true);
  EXPECT_EQ(inferenceFailure(SrvggNetwork::parse(twice.param, twice.bin)),
            "Enhance model failed: prediction must be [1, 3, 1024, 1024]");
  const auto files = testing::makeModel(4, 1, 4, false);
  SrvggNetwork poisoned = SrvggNetwork::parse(files.param, files.bin);
  poisoned.convolutions[1].bias[2] = NAN;
  EXPECT_EQ(inferenceFailure(std::move(poisoned)), "Enhance model failed: non-finite prediction");
}

// The compare view shows exactly what the export writes, and a strength
// slider must not run the network for every step.
TEST(EstimateRender, PreviewTilesAreTheExportAndANewStrengthOnlyBlendsAgain) {
  const auto files = testing::makeModel(6, 2, 4, true);
  EstimateEngine estimates;
  estimates.useModel(SrvggNetwork::parse(files.param, files.bin), "test");
  const ResampleEngine engine(patternedSource(), &estimates);

  const ResampleTarget target{160, 120};
  const OutputRect rect{50, 40, 30, 20};
  // A run the view no longer wants stops and leaves nothing cached: the
  // next request runs the network again and reports every tile of it.
  std::atomic<bool> stop{true};
  EXPECT_THROW(engine.previewTile(target, rect, ResampleMethod::estimate, false, 0.2, {}, &stop),
               EngineError);
  int64_t reported = 0, total = -1;
  const int64_t before = estimates.inferences();
  const auto light = engine.previewTile(target, rect, ResampleMethod::estimate, false, 0.2,
                                        [&](int64_t done, int64_t all) { reported = done, total = all; });
  EXPECT_EQ(reported, total);
  EXPECT_GT(total, 0);
  const auto strong = engine.previewTile(target, rect, ResampleMethod::estimate, false, 0.9);
  EXPECT_EQ(estimates.inferences(), before + 1);
  EXPECT_FALSE(light.data == strong.data);
  EXPECT_FALSE(strong.data ==
               engine.previewTile(target, rect, ResampleMethod::exact, false).data);

  RenderOutput srgb;
  srgb.keepProfile = false;
  srgb.estimateStrength = 0.9;
  const auto whole = engine.exportImage(target, ResampleMethod::estimate, srgb);
  EXPECT_EQ(estimates.inferences(), before + 1);
  ASSERT_EQ(strong.channels, whole.channels);
  for (int y = 0; y < rect.height; ++y)
    ASSERT_TRUE(std::equal(strong.row(y), strong.row(y) + strong.rowBytes(),
                           whole.row(static_cast<int>(rect.y) + y) + rect.x * whole.channels))
        << "row " << y;
}

}  // namespace
}  // namespace tarnbloom

namespace tarnbloom {
namespace {

// 60 × 450: one column of tiles and three rows of them. With `alpha`, an
// alpha channel that reaches 0.
SourceImage tallSource(bool alpha) {
  const int w = 60, h = 450, channels = alpha ? 4 : 3;
  codec::PixelBuffer pixels;
  pixels.allocate(w, h, channels, codec::SampleFormat::uint8);
  for (int y = 0; y < h; ++y)
    for (int x = 0; x < w; ++x) {
      uint8_t* p = pixels.row(y) + x * channels;
      p[0] = static_cast<uint8_t>(128 + 100 * std::sin(x * 0.3) * std::cos(y * 0.05));
      p[1] = static_cast<uint8_t>((x * 7 + y * 3) % 256);
      p[2] = static_cast<uint8_t>(200 - y / 3);
      if (alpha) p[3] = static_cast<uint8_t>(std::clamp((x * 9 + y) % 300 - 40, 0, 255));
    }
  SourceImage source;
  source.hasAlpha = alpha;
  source.colorSpace = codec::ColourSpace::forFrame({}, false);
  source.bitmap = std::make_shared<const codec::PixelBuffer>(std::move(pixels));
  return source;
}

// Exports take the estimate band by band as its rows of tiles finish; the
// compare view keeps it whole. Both must give the same bytes, resized or
// not, with alpha or without, across bands that split rows of tiles.
TEST(EstimateRender, StreamedExportsEqualTheWholeRender) {
  const auto files = testing::makeModel(6, 2, 4, true);
  EstimateEngine estimates;
  estimates.useModel(SrvggNetwork::parse(files.param, files.bin), "test");
  struct Case {
    bool alpha;
    ResampleTarget target;
    double strength;
  };
  for (const Case& c : {Case{false, {240, 1800}, 0.5}, Case{true, {240, 1800}, 1.0},
                        Case{true, {100, 750}, 0.3}, Case{false, {151, 1111}, 0.8}}) {
    SCOPED_TRACE(std::to_string(c.target.width) + (c.alpha ? " alpha" : ""));
    const ResampleEngine previewed(tallSource(c.alpha), &estimates);
    const auto whole = previewed.previewTile(c.target, {0, 0, c.target.width, c.target.height},
                                             ResampleMethod::estimate, true, c.strength);
    const ResampleEngine engine(tallSource(c.alpha), &estimates);
    RenderOutput output;
    output.estimateStrength = c.strength;
    codec::PixelBuffer joined;
    joined.allocate(whole.width, whole.height, whole.channels, whole.format);
    int64_t next = 0, bands = 0;
    engine.exportBands(
        c.target, ResampleMethod::estimate, output,
        [&](const codec::PixelBuffer& rows, int64_t firstRow) {
          ASSERT_EQ(firstRow, next);
          ASSERT_EQ(rows.channels, whole.channels);
          ASSERT_LE(firstRow + rows.height, whole.height);
          std::copy(rows.data.begin(), rows.data.end(), joined.row(static_cast<int>(firstRow)));
          next += rows.height;
          ++bands;
        },
        {}, nullptr, c.target.width * 1000);
    EXPECT_EQ(next, whole.height);
    EXPECT_GT(bands, 6);
    EXPECT_TRUE(joined.data == whole.data);
    EXPECT_TRUE(engine.exportImage(c.target, ResampleMethod::estimate, output).data == whole.data);
  }

  // A receiver that stops the render gets no band after that one.
  const ResampleEngine engine(tallSource(false), &estimates);
  std::atomic<bool> cancel = false;
  int received = 0;
  try {
    engine.exportBands(
        {240, 1800}, ResampleMethod::estimate, {},
        [&](const codec::PixelBuffer&, int64_t) { cancel = ++received == 2; }, {}, &cancel,
        240 * 1000);
    FAIL() << "not cancelled";
  } catch (const EngineError& error) {
    EXPECT_EQ(error.description(), "Stopped.");
  }
  EXPECT_EQ(received, 2);
}

}  // namespace
}  // namespace tarnbloom
