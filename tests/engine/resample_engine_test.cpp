#include "engine/resample_engine.h"

#include <gtest/gtest.h>
#include <lcms2.h>
#include <omp.h>

#include <cmath>
#include <random>

#include "engine/colour_conversion.h"
#include "engine/engine_error.h"
#include "engine/lanczos_resampler.h"

namespace tarnbloom {
namespace {

using codec::PixelBuffer;
using codec::SampleFormat;

FloatImage randomFloatImage(int64_t w, int64_t h, int channels, uint32_t seed) {
  FloatImage image(w, h, channels);
  std::mt19937 random(seed);
  std::uniform_real_distribution<float> unit(0.0f, 1.0f);
  for (float& v : image.data) v = unit(random);
  return image;
}

FloatImage resampleWhole(const FloatImage& source, int64_t tw, int64_t th) {
  FloatImage out(tw, th, source.channels);
  if (source.channels == 4)
    LanczosResampler::resampleRGBA(source, 0, 0, source.width, source.height, tw, th, 0, 0, out);
  else
    LanczosResampler::resamplePlanar(source, 0, 0, source.width, source.height, tw, th, 0, 0, out);
  return out;
}

SourceImage sourceFrom(PixelBuffer pixels, std::vector<uint8_t> icc = {}) {
  SourceImage source;
  source.bitsPerComponent = pixels.format == SampleFormat::uint16 ? 16 : 8;
  source.hasAlpha = pixels.hasAlpha();
  source.colorSpace = codec::ColourSpace::forFrame(icc, pixels.isGrey());
  source.bitmap = std::make_shared<const PixelBuffer>(std::move(pixels));
  return source;
}

PixelBuffer rgb8(int w, int h, const std::function<std::array<uint8_t, 3>(int, int)>& colour) {
  PixelBuffer p;
  p.allocate(w, h, 3, SampleFormat::uint8);
  for (int y = 0; y < h; ++y)
    for (int x = 0; x < w; ++x) {
      const auto c = colour(x, y);
      std::copy(c.begin(), c.end(), p.row(y) + x * 3);
    }
  return p;
}

double srgbToLinear(double v) {
  return v <= 0.04045 ? v / 12.92 : std::pow((v + 0.055) / 1.055, 2.4);
}

TEST(Lanczos, KernelAndWeightsAreNormalised) {
  EXPECT_DOUBLE_EQ(LanczosResampler::kernel(0), 1.0);
  EXPECT_NEAR(LanczosResampler::kernel(1), 0.0, 1e-15);
  EXPECT_EQ(LanczosResampler::kernel(3), 0.0);
  EXPECT_EQ(LanczosResampler::kernel(-3.5), 0.0);
  EXPECT_NEAR(LanczosResampler::kernel(0.5), LanczosResampler::kernel(-0.5), 1e-15);

  for (auto [n, m] : {std::pair<int64_t, int64_t>{7, 7}, {7, 19}, {1, 5}, {640, 2560}}) {
    const auto win = LanczosResampler::window(n, m, 0, m);
    const auto axis = LanczosResampler::axis(n, m, 0, m, win.start, win.count);
    for (int64_t i = 0; i < m; ++i) {
      float sum = 0;
      for (int k = 0; k < 6; ++k) {
        sum += axis.weight[i * 6 + k];
        EXPECT_GE(axis.index[i * 6 + k], 0);
        EXPECT_LT(axis.index[i * 6 + k], win.count);
      }
      EXPECT_NEAR(sum, 1.0f, 1e-6f) << n << "→" << m << " sample " << i;
    }
  }
  // A run in the middle reads only its own span of the source.
  const auto mid = LanczosResampler::window(100, 400, 200, 8);
  EXPECT_EQ(mid.start, 47);
  EXPECT_EQ(mid.count, 55 - 47);
}

TEST(Lanczos, ReproducesTheSourceAtScaleOne) {
  const FloatImage source = randomFloatImage(37, 23, 4, 1);
  const FloatImage out = resampleWhole(source, 37, 23);
  for (size_t i = 0; i < source.data.size(); ++i)
    ASSERT_NEAR(out.data[i], source.data[i], 2e-6f) << i;
}

TEST(Lanczos, KeepsFlatAreasFlatAndThinSourcesConstant) {
  FloatImage flat(13, 9, 1);
  std::fill(flat.data.begin(), flat.data.end(), 0.37f);
  for (auto [w, h] : {std::pair<int64_t, int64_t>{52, 36}, {35, 24}, {13, 9}}) {
    const FloatImage out = resampleWhole(flat, w, h);
    for (float v : out.data) ASSERT_NEAR(v, 0.37f, 1e-6f);
  }
  // One pixel wide: every output row is one value across.
  const FloatImage column = randomFloatImage(1, 9, 1, 2);
  const FloatImage out = resampleWhole(column, 7, 31);
  for (int64_t y = 0; y < out.height; ++y)
    for (int64_t x = 1; x < out.width; ++x) ASSERT_NEAR(out.row(y)[x], out.row(y)[0], 1e-6f);
}

TEST(Lanczos, RefusesGeometryThatDoesNotFit) {
  const FloatImage source = randomFloatImage(10, 10, 4, 3);
  FloatImage band(20, 5, 4);
  try {
    LanczosResampler::resampleRGBA(source, 0, 0, 10, 10, 20, 20, 0, 18, band);
    FAIL() << "a band below the output was accepted";
  } catch (const EngineError& error) {
    EXPECT_EQ(error.description(),
              "The resampler failed at the resample geometry stage (invalid input).");
  }
  // The source view starts below the rows the band needs.
  EXPECT_THROW(LanczosResampler::resampleRGBA(source, 0, 4, 10, 14, 20, 28, 0, 0, band),
               EngineError);
}

// A one-pixel black/white grating averages to half the light. Filtering the
// encoded values instead would make it far darker (about 0.21 linear).
TEST(Render, KeepsTheMeanLinearLightOfFineDetail) {
  const ResampleEngine engine(sourceFrom(rgb8(40, 30, [](int x, int y) {
    const uint8_t v = (x + y) % 2 ? 255 : 0;
    return std::array<uint8_t, 3>{v, v, v};
  })));
  for (const ResampleTarget target : {ResampleTarget{100, 75}, ResampleTarget{160, 120}}) {
    const PixelBuffer out = engine.exportImage(target, ResampleMethod::exact, {});
    double sum = 0;
    for (uint8_t v : out.data) sum += srgbToLinear(v / 255.0);
    EXPECT_NEAR(sum / out.data.size(), 0.5, 0.005) << target.width;
  }
}

TEST(Render, NeverBleedsTheColourOfTransparentPixels) {
  PixelBuffer rgba;
  rgba.allocate(16, 8, 4, SampleFormat::uint8);
  for (int y = 0; y < 8; ++y)
    for (int x = 0; x < 16; ++x) {
      uint8_t* p = rgba.row(y) + x * 4;
      const bool opaque = x < 8;
      p[0] = opaque ? 200 : 0;
      p[1] = opaque ? 0 : 255;  // garbage green under full transparency
      p[2] = 0;
      p[3] = opaque ? 255 : 0;
    }
  const ResampleEngine engine(sourceFrom(std::move(rgba)));
  const PixelBuffer out = engine.exportImage({64, 32}, ResampleMethod::exact, {});
  ASSERT_EQ(out.channels, 4);
  for (int y = 0; y < out.height; ++y)
    for (int x = 0; x < out.width; ++x) {
      const uint8_t* p = out.row(y) + x * 4;
      if (p[3] > 0) {
        EXPECT_LE(p[1], 1) << x << "," << y << " alpha " << int(p[3]);
      }
    }
}

TEST(Render, GivesTheSameBytesForAnyBandsAndThreads) {
  std::mt19937 random(7);
  PixelBuffer noise;
  noise.allocate(53, 41, 4, SampleFormat::uint16);
  auto* samples = reinterpret_cast<uint16_t*>(noise.data.data());
  for (size_t i = 0; i < noise.data.size() / 2; ++i) samples[i] = static_cast<uint16_t>(random());
  const ResampleEngine engine(sourceFrom(std::move(noise)));
  const RenderOutput output{true, true, std::nullopt};
  const ResampleTarget target{131, 97};

  const PixelBuffer whole = engine.exportImage(target, ResampleMethod::exact, output);
  int64_t bands = 0;
  const PixelBuffer striped = engine.exportImage(
      target, ResampleMethod::exact, output, [&](int64_t, int64_t total) { bands = total; },
      nullptr,
      /*bandBudgetOverride=*/131 * 40 * 7);
  EXPECT_GT(bands, 5);
  EXPECT_TRUE(whole.data == striped.data) << "bands must join without seams";

  const int threads = omp_get_max_threads();
  omp_set_num_threads(1);
  const PixelBuffer single = engine.exportImage(target, ResampleMethod::exact, output);
  omp_set_num_threads(std::max(threads, 3));
  const PixelBuffer many = engine.exportImage(target, ResampleMethod::exact, output);
  omp_set_num_threads(threads);
  EXPECT_TRUE(single.data == many.data);
  EXPECT_TRUE(single.data == whole.data);

  // A preview tile is exactly that rectangle of the full render (8-bit).
  const PixelBuffer full8 = engine.exportImage(target, ResampleMethod::exact, {});
  const PixelBuffer tile =
      engine.previewTile(target, {17, 29, 40, 33}, ResampleMethod::exact, true);
  for (int y = 0; y < tile.height; ++y)
    ASSERT_TRUE(std::equal(tile.row(y), tile.row(y) + tile.rowBytes(), full8.row(y + 29) + 17 * 4));
}

// Exports convert only the source rows each band reads; previews convert
// the whole source once. Both must give the same pixels, for a turned
// source too.
TEST(Render, ConvertsTheRowsABandReadsAsTheWholeSourceWouldBe) {
  std::mt19937 random(9);
  const PixelBuffer pixels = rgb8(45, 31, [&](int, int) {
    return std::array<uint8_t, 3>{uint8_t(random()), uint8_t(random()), uint8_t(random())};
  });
  for (const uint32_t orientation : {1u, 6u}) {
    SCOPED_TRACE(orientation);
    SourceImage source = sourceFrom(pixels);
    source.orientation = orientation;
    const ResampleEngine engine(std::move(source));
    const ResampleTarget target{engine.width() * 3 + 1, engine.height() * 3 - 1};
    const PixelBuffer exported =
        engine.exportImage(target, ResampleMethod::exact, {}, {}, nullptr, target.width * 16 * 5);
    const PixelBuffer tile = engine.previewTile(target, {0, 0, target.width, target.height},
                                                ResampleMethod::exact, true);
    EXPECT_TRUE(tile.data == exported.data);
  }
}

// Streamed bands must be the whole render cut into rows: in order, none
// missing, and with Clarity's context the same as on the whole image.
TEST(Render, HandsOverBandsThatJoinIntoTheWholeExport) {
  std::mt19937 random(5);
  PixelBuffer noise;
  noise.allocate(47, 38, 4, SampleFormat::uint16);
  auto* samples = reinterpret_cast<uint16_t*>(noise.data.data());
  for (size_t i = 0; i < noise.data.size() / 2; ++i) samples[i] = static_cast<uint16_t>(random());
  const ResampleEngine engine(sourceFrom(std::move(noise)));
  struct Case {
    ResampleMethod method;
    ResampleTarget target;
    RenderOutput output;
  };
  for (const Case& c : {Case{ResampleMethod::exact, {94, 76}, {true, true, std::nullopt}},
                        Case{ResampleMethod::exact, {131, 97}, {}},
                        Case{ResampleMethod::clarity, {94, 76}, {true, true, std::nullopt}},
                        Case{ResampleMethod::clarity, {119, 101}, {false, false, {{1, 1, 1}}}}}) {
    SCOPED_TRACE(std::string(rawValue(c.method)) + " " + std::to_string(c.target.width));
    const PixelBuffer whole = engine.exportImage(c.target, c.method, c.output);
    // A budget of a few rows: the last band is shorter than the others.
    const int64_t budget = c.target.width * 16 * 7;
    PixelBuffer joined;
    joined.allocate(whole.width, whole.height, whole.channels, whole.format);
    int64_t next = 0, bands = 0, reported = 0;
    engine.exportBands(
        c.target, c.method, c.output,
        [&](const PixelBuffer& rows, int64_t firstRow) {
          ASSERT_EQ(firstRow, next);
          ASSERT_EQ(rows.width, whole.width);
          ASSERT_EQ(rows.channels, whole.channels);
          ASSERT_EQ(rows.format, whole.format);
          ASSERT_LE(firstRow + rows.height, whole.height);
          std::copy(rows.row(0), rows.row(0) + rows.rowBytes() * rows.height,
                    joined.row(static_cast<int>(firstRow)));
          next += rows.height;
          ++bands;
        },
        [&](int64_t done, int64_t) { reported = done; }, nullptr, budget);
    EXPECT_EQ(next, whole.height);
    EXPECT_GT(bands, 2);
    EXPECT_EQ(reported, bands);
    EXPECT_TRUE(joined.data == whole.data);
  }

  // A receiver that stops the render gets no band after that one.
  std::atomic<bool> cancel = false;
  int received = 0;
  EXPECT_THROW(engine.exportBands(
                   {94, 76}, ResampleMethod::exact, {},
                   [&](const PixelBuffer&, int64_t) { cancel = ++received == 2; }, {}, &cancel,
                   94 * 16 * 10),
               EngineError);
  EXPECT_EQ(received, 2);
}

TEST(Render, StopsBetweenBandsAndRefusesOversizedOutput) {
  const ResampleEngine engine(sourceFrom(rgb8(8, 8, [](int, int) {
    return std::array<uint8_t, 3>{1, 2, 3};
  })));
  std::atomic<bool> cancel = false;
  int calls = 0;
  try {
    engine.exportImage(
        {64, 64}, ResampleMethod::exact, {}, [&](int64_t, int64_t) { cancel = ++calls == 2; },
        &cancel, 64 * 16 * 4);
    FAIL() << "not cancelled";
  } catch (const EngineError& error) {
    EXPECT_EQ(error.description(), "Stopped.");
  }
  EXPECT_EQ(calls, 2);

  ::setenv("LC_ALL", "en_US.UTF-8", 1);
  try {
    engine.exportImage({20000, 20001}, ResampleMethod::exact, {});
    FAIL() << "too large accepted";
  } catch (const EngineError& error) {
    EXPECT_EQ(
        error.description(),
        "This export would be 20,000 × 20,001 pixels (1.6 GB in memory), more than this version "
        "can build. Choose a smaller scale.");
  }
  EXPECT_THROW(engine.exportImage({20000, 20000}, ResampleMethod::exact, {true, true, {}}),
               EngineError);
  ::unsetenv("LC_ALL");
}

std::vector<uint8_t> displayP3Profile() {
  const cmsCIExyY d65 = {0.3127, 0.3290, 1.0};
  const cmsCIExyYTRIPLE primaries = {{0.680, 0.320, 1.0}, {0.265, 0.690, 1.0}, {0.150, 0.060, 1.0}};
  const cmsFloat64Number srgbCurve[5] = {2.4, 1 / 1.055, 0.055 / 1.055, 1 / 12.92, 0.04045};
  cmsToneCurve* curve = cmsBuildParametricToneCurve(nullptr, 4, srgbCurve);
  cmsToneCurve* curves[3] = {curve, curve, curve};
  cmsHPROFILE profile = cmsCreateRGBProfile(&d65, &primaries, curves);
  cmsMLU* description = cmsMLUalloc(nullptr, 1);
  cmsMLUsetASCII(description, "en", "US", "Display P3");
  cmsWriteTag(profile, cmsSigProfileDescriptionTag, description);
  cmsUInt32Number size = 0;
  cmsSaveProfileToMem(profile, nullptr, &size);
  std::vector<uint8_t> bytes(size);
  cmsSaveProfileToMem(profile, bytes.data(), &size);
  cmsMLUfree(description);
  cmsCloseProfile(profile);
  cmsFreeToneCurve(curve);
  return bytes;
}

TEST(Render, KeepsWideGamutColoursAndMatchesLcmsInSrgb) {
  const auto p3 = displayP3Profile();
  std::mt19937 random(11);
  const PixelBuffer pixels = rgb8(32, 24, [&](int x, int y) {
    if (x == 0) return std::array<uint8_t, 3>{0, 255, 0};  // saturated P3 green, outside sRGB
    return std::array<uint8_t, 3>{uint8_t(random()), uint8_t(random()), uint8_t(random())};
  });
  const ResampleEngine engine(sourceFrom(pixels, p3));
  EXPECT_EQ(engine.source().profileName(), "DisplayP3");
  EXPECT_LT(engine.linear().row(0)[0], -0.1f) << "P3 green needs negative red in linear sRGB";

  const PixelBuffer kept = engine.exportImage({32, 24}, ResampleMethod::exact, {true, false, {}});
  for (size_t i = 0; i < kept.data.size(); ++i)
    ASSERT_LE(std::abs(int(kept.data[i]) - int(pixels.data[i])), 1) << "sample " << i;

  const PixelBuffer srgb = engine.exportImage({32, 24}, ResampleMethod::exact, {false, false, {}});
  cmsHPROFILE from = cmsOpenProfileFromMem(p3.data(), static_cast<cmsUInt32Number>(p3.size()));
  cmsHPROFILE to = cmsCreate_sRGBProfile();
  cmsHTRANSFORM transform =
      cmsCreateTransform(from, TYPE_RGB_8, to, TYPE_RGB_8, INTENT_RELATIVE_COLORIMETRIC, 0);
  std::vector<uint8_t> expected(pixels.data.size());
  cmsDoTransform(transform, pixels.data.data(), expected.data(), 32 * 24);
  cmsDeleteTransform(transform);
  cmsCloseProfile(from);
  cmsCloseProfile(to);
  for (size_t i = 0; i < expected.size(); ++i)
    ASSERT_LE(std::abs(int(srgb.data[i]) - int(expected[i])), 1) << "sample " << i;
}

TEST(Render, KeepsGreyGreyAndSixteenBitPrecision) {
  PixelBuffer grey;
  grey.allocate(9, 7, 1, SampleFormat::uint16);
  auto* g = reinterpret_cast<uint16_t*>(grey.data.data());
  for (int i = 0; i < 63; ++i) g[i] = static_cast<uint16_t>(1000 + 997 * i);
  const std::vector<uint16_t> original(g, g + 63);
  const ResampleEngine engine(sourceFrom(std::move(grey)));
  const PixelBuffer same = engine.exportImage({9, 7}, ResampleMethod::exact, {true, true, {}});
  ASSERT_EQ(same.channels, 1);
  const auto* out = reinterpret_cast<const uint16_t*>(same.data.data());
  for (int i = 0; i < 63; ++i) EXPECT_NEAR(out[i], original[i], 2) << i;
  EXPECT_EQ(engine.exportImage({18, 14}, ResampleMethod::exact, {false, false, {}}).channels, 3);
}

}  // namespace
}  // namespace tarnbloom
