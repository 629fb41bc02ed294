#include "engine/clarity_pass.h"

#include <gtest/gtest.h>
#include <omp.h>

#include <cmath>
#include <cstdio>
#include <functional>
#include <random>

#include "engine/engine_error.h"
#include "engine/lanczos_resampler.h"
#include "engine/resample_engine.h"

namespace tarnbloom {
namespace {

using codec::PixelBuffer;
using codec::SampleFormat;

std::filesystem::path photo(const std::string& name) {
  return std::filesystem::path(TARNBLOOM_SOURCE_DIR) / name;
}

const std::vector<std::string> kPhotos = {"samples/chelsea.png", "samples/coffee.png",
                                          "samples/rocket.jpg", "bench/data/retina.jpg"};

SourceImage sourceFrom(PixelBuffer pixels) {
  SourceImage source;
  source.bitsPerComponent = pixels.format == SampleFormat::uint16 ? 16 : 8;
  source.hasAlpha = pixels.hasAlpha();
  source.colorSpace = codec::ColourSpace::forFrame({}, pixels.isGrey());
  source.bitmap = std::make_shared<const PixelBuffer>(std::move(pixels));
  return source;
}

PixelBuffer grey8(int w, int h, const std::function<double(int, int)>& value) {
  PixelBuffer p;
  p.allocate(w, h, 3, SampleFormat::uint8);
  for (int y = 0; y < h; ++y)
    for (int x = 0; x < w; ++x) {
      const auto v = static_cast<uint8_t>(std::clamp(std::lround(value(x, y)), 0L, 255L));
      std::fill_n(p.row(y) + x * 3, 3, v);
    }
  return p;
}

float lum(const float* p) {
  return ClarityPass::lumR * p[0] + ClarityPass::lumG * p[1] + ClarityPass::lumB * p[2];
}

double srgbToLinear(double v) { return v <= 0.04045 ? v / 12.92 : std::pow((v + 0.055) / 1.055, 2.4); }

// Linear luminance of an 8- or 16-bit sRGB render.
std::vector<double> renderedLuminance(const PixelBuffer& image) {
  const bool wide = image.format == SampleFormat::uint16;
  auto sample = [&](int y, int i) {
    return (wide ? reinterpret_cast<const uint16_t*>(image.row(y))[i] : image.row(y)[i]) /
           (wide ? 65535.0 : 255.0);
  };
  std::vector<double> out;
  for (int y = 0; y < image.height; ++y)
    for (int x = 0; x < image.width; ++x) {
      const int i = x * image.channels;
      out.push_back(0.2126 * srgbToLinear(sample(y, i)) + 0.7152 * srgbToLinear(sample(y, i + 1)) +
                    0.0722 * srgbToLinear(sample(y, i + 2)));
    }
  return out;
}

// The Exact band of a rectangle of the output, and the same band after the
// Clarity pass, both in linear light.
struct Bands {
  FloatImage exact, clarity;
  BandFrame frame;
};

Bands render(const ResampleEngine& engine, ResampleTarget target, OutputRect rect) {
  const FloatImage& linear = engine.linear();
  Bands b;
  b.exact = FloatImage(rect.width, rect.height, 4);
  LanczosResampler::resampleRGBA(linear, 0, 0, linear.width, linear.height, target.width,
                                 target.height, rect.x, rect.y, b.exact);
  b.clarity = b.exact;
  b.frame = {0, 0, rect.x, rect.y, linear.width, linear.height, target.width, target.height};
  ClarityPass::apply(b.clarity, b.frame, linear, engine.source().hasAlpha, engine.sourceNoiseSigma(),
                     BandMapping::global);
  return b;
}

// The largest distance of any output luminance outside the range of the
// four source pixels bracketing it, computed from first principles.
double worstBracketExcess(const FloatImage& linear, const FloatImage& band, const BandFrame& f) {
  auto bracket = [](int64_t i, int64_t n, int64_t m) {
    const double p = (i + 0.5) * n / m - 0.5;
    const int64_t below = std::clamp<int64_t>(static_cast<int64_t>(std::floor(p)), 0, n - 1);
    return std::pair{below, std::min(below + 1, n - 1)};
  };
  double worst = 0;
  for (int64_t y = 0; y < band.height; ++y) {
    const auto [r0, r1] = bracket(f.outputY + y, f.imageHeight, f.targetHeight);
    for (int64_t x = 0; x < band.width; ++x) {
      const auto [c0, c1] = bracket(f.outputX + x, f.imageWidth, f.targetWidth);
      const float corners[4] = {lum(linear.row(r0) + c0 * 4), lum(linear.row(r0) + c1 * 4),
                                lum(linear.row(r1) + c0 * 4), lum(linear.row(r1) + c1 * 4)};
      const float lo = *std::min_element(corners, corners + 4);
      const float hi = *std::max_element(corners, corners + 4);
      const float v = lum(band.row(y) + x * 4);
      worst = std::max({worst, double(lo - v), double(v - hi)});
    }
  }
  return worst;
}

// Mean |source − block average| of the luminance, over whole k × k blocks
// of an integral enlargement.
double backProjectionError(const FloatImage& linear, const FloatImage& band, const BandFrame& f,
                           int k) {
  double sum = 0;
  int64_t count = 0;
  for (int64_t by = (f.outputY + k - 1) / k; (by + 1) * k <= f.outputY + band.height; ++by)
    for (int64_t bx = (f.outputX + k - 1) / k; (bx + 1) * k <= f.outputX + band.width; ++bx) {
      double mean = 0;
      for (int dy = 0; dy < k; ++dy)
        for (int dx = 0; dx < k; ++dx)
          mean += lum(band.row(by * k + dy - f.outputY) + (bx * k + dx - f.outputX) * 4);
      sum += std::fabs(mean / (k * k) - lum(linear.row(by) + bx * 4));
      ++count;
    }
  return sum / count;
}

// Edge acutance: the root mean square gradient (central differences) of a
// luminance image. A plain mean of |gradient| would not do: across a
// monotonic edge it sums to the edge's height however soft the edge is.
double acutance(const std::vector<double>& l, int w, int h) {
  double sum = 0;
  for (int y = 1; y + 1 < h; ++y)
    for (int x = 1; x + 1 < w; ++x) {
      const double gx = l[y * w + x + 1] - l[y * w + x - 1];
      const double gy = l[(y + 1) * w + x] - l[(y - 1) * w + x];
      sum += (gx * gx + gy * gy) / 4;
    }
  return std::sqrt(sum / ((w - 2.0) * (h - 2.0)));
}

double acutance(const FloatImage& band) {
  std::vector<double> l(static_cast<size_t>(band.width * band.height));
  for (int64_t y = 0; y < band.height; ++y)
    for (int64_t x = 0; x < band.width; ++x) l[y * band.width + x] = lum(band.row(y) + x * 4);
  return acutance(l, static_cast<int>(band.width), static_cast<int>(band.height));
}

// A rectangle of about 600 × 600 output pixels in the middle of the photo.
OutputRect middle(ResampleTarget target) {
  const int64_t w = std::min<int64_t>(600, target.width), h = std::min<int64_t>(600, target.height);
  return {(target.width - w) / 2, (target.height - h) / 2, w, h};
}

TEST(Clarity, StaysInsideTheSourcePixelsAndAgreesWithThemBetterThanExact) {
  for (const std::string& name : kPhotos) {
    const ResampleEngine engine(ResampleEngine::load(photo(name)));
    for (int k : {4, 3}) {
      const ResampleTarget target{engine.linear().width * k, engine.linear().height * k};
      const Bands b = render(engine, target, middle(target));
      const FloatImage& linear = engine.linear();
      EXPECT_LT(worstBracketExcess(linear, b.clarity, b.frame), 2e-6) << name << " x" << k;
      EXPECT_GT(worstBracketExcess(linear, b.exact, b.frame), 1e-3) << name << " x" << k;
      const double exact = backProjectionError(linear, b.exact, b.frame, k);
      const double clarity = backProjectionError(linear, b.clarity, b.frame, k);
      const double sharpExact = acutance(b.exact), sharpClarity = acutance(b.clarity);
      std::printf("%-22s x%d  back-projection error %.6f (Exact %.6f)  acutance %.6f (Exact %.6f)  noise %.5f\n",
                  name.c_str(), k, clarity, exact, sharpClarity, sharpExact, engine.sourceNoiseSigma());
      EXPECT_LT(clarity, exact * 0.9) << name << " x" << k;
      EXPECT_GT(sharpClarity, sharpExact * 1.05) << name << " x" << k;
    }
  }
}

// Hard edges: black/white and grey/grey, straight and at an angle, at
// integral and fractional scales.
TEST(Clarity, PutsNoHaloOrOvershootAtHardEdges) {
  struct Edge {
    const char* name;
    double dark, light, slope;
  };
  for (const Edge& e : {Edge{"black/white", 0, 255, 0}, Edge{"grey/grey", 80, 160, 0},
                        Edge{"diagonal", 30, 220, 0.37}}) {
    const ResampleEngine engine(sourceFrom(grey8(48, 40, [&](int x, int y) {
      return x + e.slope * y < 23.5 ? e.dark : e.light;
    })));
    for (const ResampleTarget target : {ResampleTarget{192, 160}, ResampleTarget{125, 97}}) {
      const Bands b = render(engine, target, {0, 0, target.width, target.height});
      EXPECT_LT(worstBracketExcess(engine.linear(), b.clarity, b.frame), 2e-6) << e.name;

      // And in the stored bytes: nothing darker or lighter than the two
      // sides, where Exact rings past both.
      const PixelBuffer clarity = engine.exportImage(target, ResampleMethod::clarity, {});
      const PixelBuffer exact = engine.exportImage(target, ResampleMethod::exact, {});
      const auto [cmin, cmax] = std::minmax_element(clarity.data.begin(), clarity.data.end());
      const auto [emin, emax] = std::minmax_element(exact.data.begin(), exact.data.end());
      EXPECT_EQ(*cmin, e.dark) << e.name << " " << target.width;
      EXPECT_EQ(*cmax, e.light) << e.name << " " << target.width;
      if (e.dark > 0) {
        EXPECT_LT(*emin, e.dark) << e.name;
      }
      if (e.light < 255) {
        EXPECT_GT(*emax, e.light) << e.name;
      }
      if (target.width == 192) {
        const double sharp = acutance(renderedLuminance(clarity), clarity.width, clarity.height);
        const double soft = acutance(renderedLuminance(exact), exact.width, exact.height);
        std::printf("%-12s edge x4  acutance %.6f (Exact %.6f)\n", e.name, sharp, soft);
        EXPECT_GT(sharp, soft * 1.05) << e.name;
      }
    }
  }
}

TEST(Clarity, DoesNotAmplifyNoiseAndKeepsFlatAreasFlat) {
  // Mid grey with Gaussian noise of 6 levels per channel.
  std::mt19937 random(11);
  std::normal_distribution<double> noise(0.0, 6.0);
  const ResampleEngine noisy(sourceFrom(grey8(64, 64, [&](int, int) { return 128 + noise(random); })));
  double truth = 0, mean = 0;
  {
    const FloatImage& l = noisy.linear();
    std::vector<double> v;
    for (int64_t i = 0; i < l.width * l.height; ++i) v.push_back(lum(l.data.data() + i * 4));
    for (double x : v) mean += x / v.size();
    for (double x : v) truth += (x - mean) * (x - mean) / v.size();
    truth = std::sqrt(truth);
  }
  EXPECT_NEAR(noisy.sourceNoiseSigma(), truth, 0.2 * truth);

  const RenderOutput sixteen{false, true, std::nullopt};
  for (const ResampleTarget target : {ResampleTarget{256, 256}, ResampleTarget{160, 160}}) {
    auto spread = [&](ResampleMethod method) {
      const auto l = renderedLuminance(noisy.exportImage(target, method, sixteen));
      double m = 0, s = 0;
      for (double v : l) m += v / l.size();
      for (double v : l) s += (v - m) * (v - m) / l.size();
      return std::sqrt(s);
    };
    const double exact = spread(ResampleMethod::exact), clarity = spread(ResampleMethod::clarity);
    std::printf("noise on a flat patch, %lld px: Clarity %.6f, Exact %.6f (source %.6f)\n",
                static_cast<long long>(target.width), clarity, exact, truth);
    EXPECT_LE(clarity, exact * 1.001);
    EXPECT_GT(clarity, exact * 0.5);
  }

  // A flat colour stays one colour, the one Exact gives.
  PixelBuffer flat;
  flat.allocate(31, 17, 4, SampleFormat::uint16);
  auto* samples = reinterpret_cast<uint16_t*>(flat.data.data());
  for (size_t i = 0; i < flat.data.size() / 2; i += 4)
    samples[i] = 40000, samples[i + 1] = 9000, samples[i + 2] = 21000, samples[i + 3] = 50000;
  const ResampleEngine engine(sourceFrom(std::move(flat)));
  const PixelBuffer out = engine.exportImage({124, 68}, ResampleMethod::clarity, sixteen);
  const PixelBuffer exact = engine.exportImage({124, 68}, ResampleMethod::exact, sixteen);
  EXPECT_TRUE(out.data == exact.data);
  for (size_t i = 8; i < out.data.size(); ++i) ASSERT_EQ(out.data[i], out.data[i % 8]) << i;
}

// A band budget that gives bands of `rows` output rows.
int64_t bandBudgetFor(const ResampleEngine& engine, ResampleTarget target, int64_t rows) {
  const auto [sx, sy] = target.scale(engine.linear().width, engine.linear().height);
  const bool fractional = !target.integralFactor(engine.linear().width, engine.linear().height);
  return rows * target.width *
         ResampleEngine::workingBytesPerPixel(ResampleMethod::clarity, sx, sy, fractional);
}

TEST(Clarity, GivesTheSameBytesForAnyBandsTilesAndThreads) {
  // A real photo at a fractional and an integral scale, and noise with
  // alpha enlarged a little.
  std::mt19937 random(5);
  PixelBuffer noise;
  noise.allocate(45, 38, 4, SampleFormat::uint16);
  auto* samples = reinterpret_cast<uint16_t*>(noise.data.data());
  for (size_t i = 0; i < noise.data.size() / 2; ++i) samples[i] = static_cast<uint16_t>(random());
  const ResampleEngine cat(ResampleEngine::load(photo("samples/chelsea.png")));
  const ResampleEngine speckle(sourceFrom(std::move(noise)));
  struct Case {
    const ResampleEngine& engine;
    ResampleTarget target;
  };
  for (const Case& c : {Case{cat, {1128, 750}}, Case{cat, {902, 600}}, Case{speckle, {61, 53}}}) {
    const RenderOutput output{true, true, std::nullopt};
    const PixelBuffer whole = c.engine.exportImage(c.target, ResampleMethod::clarity, output);
    int64_t bands = 0;
    const PixelBuffer striped = c.engine.exportImage(
        c.target, ResampleMethod::clarity, output, [&](int64_t, int64_t total) { bands = total; },
        nullptr, bandBudgetFor(c.engine, c.target, c.target.height / 7));
    EXPECT_GE(bands, 7) << c.target.width;
    EXPECT_TRUE(whole.data == striped.data) << c.target.width << ": bands must join without seams";

    const int threads = omp_get_max_threads();
    omp_set_num_threads(1);
    const PixelBuffer single = c.engine.exportImage(c.target, ResampleMethod::clarity, output);
    omp_set_num_threads(std::max(threads, 3));
    const PixelBuffer many = c.engine.exportImage(c.target, ResampleMethod::clarity, output);
    omp_set_num_threads(threads);
    EXPECT_TRUE(single.data == whole.data) << c.target.width;
    EXPECT_TRUE(many.data == whole.data) << c.target.width;

    const PixelBuffer full8 = c.engine.exportImage(c.target, ResampleMethod::clarity, {});
    const OutputRect rect{c.target.width / 3, c.target.height / 4, c.target.width / 3, 40};
    const PixelBuffer tile = c.engine.previewTile(c.target, rect, ResampleMethod::clarity, true);
    for (int y = 0; y < tile.height; ++y)
      ASSERT_TRUE(std::equal(tile.row(y), tile.row(y) + tile.rowBytes(),
                             full8.row(y + rect.y) + rect.x * full8.channels))
          << c.target.width << " tile row " << y;
  }
}

TEST(Clarity, SizesItsContextMapsWindowsAndRefusesGeometryThatDoesNotFit) {
  EXPECT_EQ(ClarityParams::margin(1.0), 23);
  EXPECT_EQ(ClarityParams::margin(4.0), 23);
  EXPECT_EQ(ResampleEngine::margin(ResampleMethod::clarity, 1.0), 23);
  EXPECT_EQ(ResampleEngine::margin(ResampleMethod::exact, 4.0), 6);

  const ResampleEngine engine(sourceFrom(grey8(20, 10, [](int x, int) { return x * 10; })));
  FloatImage band(40, 10, 4);
  auto stage = [&](const BandFrame& frame, const FloatImage& source, BandMapping mapping) {
    try {
      ClarityPass::apply(band, frame, source, false, 0.0f, mapping);
    } catch (const EngineError& error) {
      return error.description();
    }
    return std::string("accepted");
  };
  // Below the bottom of the output.
  EXPECT_EQ(stage({0, 0, 0, 15, 20, 10, 40, 20}, engine.linear(), BandMapping::global),
            "The resampler failed at the clarity geometry stage (invalid input).");
  // A source window that starts after the rows the band needs.
  EXPECT_EQ(stage({0, 3, 0, 0, 20, 10, 40, 20}, engine.linear(), BandMapping::local),
            "The resampler failed at the clarity geometry stage (invalid input).");
  EXPECT_EQ(stage({0, 0, 0, 0, 20, 10, 40, 20}, engine.linear(), BandMapping::global), "accepted");

  // A caller holding only the source pixels around a band gets what the
  // whole source gives.
  const ResampleEngine coffee(ResampleEngine::load(photo("samples/coffee.png")));
  const FloatImage& linear = coffee.linear();
  const ResampleTarget target{linear.width * 5 / 2, linear.height * 5 / 2};
  const Bands whole = render(coffee, target, {300, 200, 180, 90});
  FloatImage window(200, 120, 4);
  const int64_t wx = 80, wy = 50;
  for (int64_t y = 0; y < window.height; ++y)
    std::copy_n(linear.row(wy + y) + wx * 4, window.rowFloats(), window.row(y));
  FloatImage local = whole.exact;
  BandFrame frame = whole.frame;
  frame.sourceX = wx, frame.sourceY = wy;
  ClarityPass::apply(local, frame, window, false, coffee.sourceNoiseSigma(), BandMapping::local);
  EXPECT_TRUE(local.data == whole.clarity.data);

  // Area averages: a 3× block mean on an integral scale; a constant stays
  // itself on a fractional one, partly covered footprints included.
  ClarityPass::Plane plane(12, 9, 1), down(4, 3, 1);
  for (int64_t i = 0; i < 12 * 9; ++i) plane.data[i] = static_cast<float>(i % 12 + 12 * (i / 12));
  ClarityPass::areaDown(plane, {0, 0, 0, 0, 4, 3, 12, 9}, 0, 0, down);
  EXPECT_FLOAT_EQ(down.row(1)[2], (6 + 7 + 8) / 3.0f + 12 * 4);
  std::fill(plane.data.begin(), plane.data.end(), 0.25f);
  ClarityPass::Plane fractional(4, 3, 1);
  ClarityPass::areaDown(plane, {0, 0, 3, 2, 7, 6, 29, 23}, 0, 0, fractional);
  for (float v : fractional.data) EXPECT_NEAR(v, 0.25f, 1e-6f);
}

}  // namespace
}  // namespace tarnbloom
