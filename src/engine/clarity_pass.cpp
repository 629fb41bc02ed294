#include "engine/clarity_pass.h"

#include <omp.h>

#include <algorithm>
#include <cmath>
#include <exception>
#include <new>

#include "engine/engine_error.h"
#include "engine/lanczos_resampler.h"

namespace tarnbloom {

int ClarityParams::margin(double scale) {
  const double s = std::max(scale, 0.0);
  // Three sigmas of the detail filter in output pixels, then in source rows;
  // 21 = ibpIterations × (ibpReach + 1 footprint) + 1 for the rounds of
  // back-projection, each reaching a little further out.
  const int r = static_cast<int>(std::ceil(3.0 * sigmaPerScale * s));
  return static_cast<int>(std::ceil(r / std::max(s, 1.0))) + ibpIterations * (ibpReach + 1) + 1;
}

namespace ClarityPass {
namespace {

[[noreturn]] void fail(const char* stage) {
  throw EngineError::vImage(stage, kResamplerInvalidParameter);
}

Plane makePlane(int64_t width, int64_t height) {
  try {
    return Plane(width, height, 1);
  } catch (const std::bad_alloc&) {
    throw EngineError::vImage("resample scratch", kResamplerMemoryAllocationError);
  } catch (const std::length_error&) {
    throw EngineError::vImage("resample scratch", kResamplerMemoryAllocationError);
  }
}

// Gives `plane` the shape w × h, reusing its memory when it is large enough
// (the contents are left undefined).
void reshape(Plane& plane, int64_t width, int64_t height) {
  const size_t floats = static_cast<size_t>(width) * static_cast<size_t>(height);
  try {
    if (plane.data.capacity() < floats) {
      plane.data.clear();
      plane.data.shrink_to_fit();
    }
    plane.data.resize(floats);
  } catch (const std::bad_alloc&) {
    throw EngineError::vImage("resample scratch", kResamplerMemoryAllocationError);
  } catch (const std::length_error&) {
    throw EngineError::vImage("resample scratch", kResamplerMemoryAllocationError);
  }
  plane.width = width, plane.height = height, plane.channels = 1;
}

// Runs body(row, scratch) for rows [0, count) over OpenMP threads, each with
// its own scratch of scratchFloats. The first exception is rethrown after
// the loop; nothing leaves the parallel region.
template <typename Body>
void forRows(int64_t count, size_t scratchFloats, Body&& body) {
  const int threads = std::max(1, omp_get_max_threads());
  Plane scratch = makePlane(static_cast<int64_t>(std::max<size_t>(scratchFloats, 1)), threads);
  std::exception_ptr failure;
#pragma omp parallel num_threads(threads)
  {
    float* mine = scratch.row(omp_get_thread_num());
    // Rows differ in cost (some have nothing left to correct); results do
    // not depend on which thread takes which row.
#pragma omp for schedule(dynamic, 8)
    for (int64_t y = 0; y < count; ++y) {
      try {
        body(y, mine);
      } catch (...) {
#pragma omp critical(clarity_failure)
        if (!failure) failure = std::current_exception();
      }
    }
  }
  if (failure) std::rethrow_exception(failure);
}

// The hot loops are built for several instruction sets; the loader picks
// the best one the processor has. Each adds in a fixed order, so results do
// not depend on the instruction set chosen, the band or the thread.
#define TARNBLOOM_CLONES __attribute__((target_clones("arch=x86-64-v4", "arch=x86-64-v3", "default")))

TARNBLOOM_CLONES
void luminanceRow(const float* __restrict rgba, int64_t n, float* __restrict out) {
  for (int64_t x = 0; x < n; ++x)
    out[x] = lumR * rgba[x * 4] + lumG * rgba[x * 4 + 1] + lumB * rgba[x * 4 + 2];
}

TARNBLOOM_CLONES
void scaleRow(const float* __restrict in, float w, int64_t n, float* __restrict out) {
  for (int64_t i = 0; i < n; ++i) out[i] = w * in[i];
}

TARNBLOOM_CLONES
void addScaledRow(const float* __restrict in, float w, int64_t n, float* __restrict out) {
  for (int64_t i = 0; i < n; ++i) out[i] += w * in[i];
}

// Element-wise minimum and maximum of two source rows, then of each column
// with its right neighbour (the last column pairs with itself): the range of
// the 2 × 2 source pixels whose top-left is that column.
TARNBLOOM_CLONES
void pairBoundsRow(const float* __restrict a, const float* __restrict b, int64_t n,
                   float* __restrict lo, float* __restrict hi) {
  for (int64_t x = 0; x < n; ++x) {
    lo[x] = std::min(a[x], b[x]);
    hi[x] = std::max(a[x], b[x]);
  }
  for (int64_t x = 0; x + 1 < n; ++x) {
    lo[x] = std::min(lo[x], lo[x + 1]);
    hi[x] = std::max(hi[x], hi[x + 1]);
  }
}

TARNBLOOM_CLONES
void gatherRow(const float* __restrict colLo, const float* __restrict colHi,
               const int32_t* __restrict tx, int64_t n, float* __restrict lo,
               float* __restrict hi) {
  for (int64_t x = 0; x < n; ++x) {
    lo[x] = colLo[tx[x]];
    hi[x] = colHi[tx[x]];
  }
}

// One row of gated sharpening, clamped into its bounds. `padded` holds the
// row after the vertical half of the Gaussian, with `taps / 2` edge copies
// on each side; the detail is what the horizontal half leaves. The edge
// mask rises from 0 at the noise threshold to 1 a mask width above it, so
// detail at the noise level is never amplified.
TARNBLOOM_CLONES
void sharpenRow(const float* __restrict y0, const float* __restrict padded,
                const float* __restrict w, int taps, const float* __restrict lo,
                const float* __restrict hi, int64_t n, float threshold, float inverseWidth,
                float* __restrict out) {
  for (int64_t x = 0; x < n; ++x) out[x] = w[0] * padded[x];
  for (int k = 1; k < taps; ++k) {
    const float wk = w[k];
    const float* p = padded + k;
    for (int64_t x = 0; x < n; ++x) out[x] += wk * p[x];
  }
  for (int64_t x = 0; x < n; ++x) {
    const float d = y0[x] - out[x];
    const float m = std::min(std::max((std::fabs(d) - threshold) * inverseWidth, 0.0f), 1.0f);
    const float v = y0[x] + ClarityParams::amount * m * d;
    out[x] = std::min(std::max(v, lo[x]), hi[x]);
  }
}

// Residuals within the noise threshold are dropped, so the source's noise
// is never copied back in; a larger one is given back less propagatedGain
// of the threshold.
TARNBLOOM_CLONES
void residualRow(const float* __restrict source, const float* __restrict tmp,
                 const int32_t* __restrict idx, const float* __restrict w,
                 const uint8_t* __restrict covered, int taps, int64_t n, float threshold,
                 float* __restrict out) {
  for (int64_t c = 0; c < n; ++c) {
    float down = 0;
    for (int k = 0; k < taps; ++k) down += w[c * taps + k] * tmp[idx[c * taps + k]];
    const float r = source[c] - down;
    const float kept = r - propagatedGain * std::min(std::max(r, -threshold), threshold);
    out[c] = covered[c] && std::fabs(r) > threshold ? ClarityParams::ibpStep * kept : 0.0f;
  }
}

// The horizontal half of the Lanczos spread: each output column is the
// weighted sum of its six taps.
TARNBLOOM_CLONES
void horizontalTaps(const float* __restrict in, const int32_t* __restrict idx,
                    const float* __restrict w, int64_t n, float* __restrict out) {
  for (int64_t x = 0; x < n; ++x) {
    float sum = 0;
    for (int k = 0; k < LanczosResampler::tapCount; ++k)
      sum += w[x * LanczosResampler::tapCount + k] * in[idx[x * LanczosResampler::tapCount + k]];
    out[x] = sum;
  }
}

TARNBLOOM_CLONES
void addClampRow(const float* __restrict u, const float* __restrict lo,
                 const float* __restrict hi, int64_t n, float* __restrict y) {
  for (int64_t x = 0; x < n; ++x) y[x] = std::min(std::max(y[x] + u[x], lo[x]), hi[x]);
}

// Carries each pixel's luminance change to its colour: darkening scales
// towards black, brightening moves towards white at the pixel's alpha, so
// hue is kept and nothing leaves [0, alpha] that was inside it. The new
// luminance is met exactly either way; where neither applies (luminance at
// or beyond its ends) the change is added to each channel. Each case is a
// colour × gain + offset, so the loop has no branches.
template <bool kAlpha>
inline void carryColour(float* __restrict rgba, const float* __restrict after, int64_t n) {
  constexpr float kTiny = 1e-12f;
  for (int64_t x = 0; x < n; ++x) {
    float* p = rgba + x * 4;
    const float r = p[0], g = p[1], b = p[2], a = p[3];
    const float yo = lumR * r + lumG * g + lumB * b;
    const float yn = after[x];
    const float change = yn - yo;
    const float room = a - yo;
    // Non-short-circuit &, so the loop has no branches to vectorise around.
    const bool darken = (change < 0) & (yo > kTiny) & (yn >= 0);
    const bool brighten = (change > 0) & (room > kTiny) & (change <= room);
    const float k = yn / std::max(yo, kTiny);
    const float t = change / std::max(room, kTiny);
    float gain = 1.0f, offset = change;
    if (brighten) gain = 1.0f - t, offset = t * a;
    if (darken) gain = k, offset = 0.0f;
    float nr = r * gain + offset, ng = g * gain + offset, nb = b * gain + offset;
    if constexpr (kAlpha) {
      const float top = std::max(a, 0.0f);
      nr = std::min(nr, top), ng = std::min(ng, top), nb = std::min(nb, top);
    }
    p[0] = nr, p[1] = ng, p[2] = nb;
  }
}

TARNBLOOM_CLONES
void colourRow(float* __restrict rgba, const float* __restrict after, int64_t n, bool hasAlpha) {
  if (hasAlpha)
    carryColour<true>(rgba, after, n);
  else
    carryColour<false>(rgba, after, n);
}

// Normalised Gaussian taps of a sigma in output pixels, radius ceil(3σ).
std::vector<float> gaussian(double sigma) {
  const int radius = std::max(1, static_cast<int>(std::ceil(3.0 * sigma)));
  std::vector<double> w(2 * radius + 1);
  double sum = 0;
  for (int k = -radius; k <= radius; ++k) {
    w[k + radius] = std::exp(-0.5 * k * k / (sigma * sigma));
    sum += w[k + radius];
  }
  std::vector<float> taps(w.size());
  for (size_t k = 0; k < w.size(); ++k) taps[k] = static_cast<float>(w[k] / sum);
  return taps;
}

int64_t floorDiv(int64_t a, int64_t b) { return a / b - ((a % b != 0) && ((a < 0) != (b < 0))); }

// Source range [start, end) whose pixels a run of output samples reads or
// covers: its Lanczos window, its footprint and its brackets.
LanczosResampler::Window sourceSpan(int64_t imageCount, int64_t outputCount, int64_t start,
                                    int64_t length) {
  const auto lanczos = LanczosResampler::window(imageCount, outputCount, start, length);
  const int64_t first = floorDiv(start * imageCount, outputCount);
  const int64_t last = floorDiv((start + length) * imageCount + outputCount - 1, outputCount);
  const int64_t begin = std::clamp(std::min(lanczos.start, first), int64_t{0}, imageCount - 1);
  const int64_t end = std::clamp(std::max(lanczos.start + lanczos.count, last), begin + 1, imageCount);
  return {begin, end - begin};
}

}  // namespace

void luminance(const FloatImage& rgba, Plane& into) {
  if (rgba.channels != 4 || into.channels != 1 || into.width != rgba.width ||
      into.height != rgba.height)
    fail("clarity geometry");
#pragma omp parallel for schedule(static)
  for (int64_t y = 0; y < rgba.height; ++y) luminanceRow(rgba.row(y), rgba.width, into.row(y));
}

float estimateNoise(const FloatImage& linear) {
  if (linear.channels != 4 || linear.width < 2 || linear.height < 2) return 0.0f;
  // Every block row of a small image; at most about four million blocks of
  // a large one, spread evenly, which pins the median well enough.
  const int64_t blocksX = linear.width / 2, blocksY = linear.height / 2;
  const int64_t step = std::max<int64_t>(1, (blocksX * blocksY + 3'999'999) / 4'000'000);
  const int64_t rows = (blocksY + step - 1) / step;
  std::vector<float> detail;
  try {
    detail.resize(static_cast<size_t>(rows * blocksX));
  } catch (const std::bad_alloc&) {
    throw EngineError::vImage("resample scratch", kResamplerMemoryAllocationError);
  }
#pragma omp parallel for schedule(static)
  for (int64_t r = 0; r < rows; ++r) {
    const float* a = linear.row(2 * r * step);
    const float* b = linear.row(2 * r * step + 1);
    float* out = detail.data() + r * blocksX;
    for (int64_t x = 0; x < blocksX; ++x) {
      auto lum = [](const float* p) { return lumR * p[0] + lumG * p[1] + lumB * p[2]; };
      const float* p = a + x * 8;
      const float* q = b + x * 8;
      // The diagonal Haar detail has the noise's sigma and no response to
      // flat areas or straight horizontal and vertical edges.
      out[x] = 0.5f * std::fabs(lum(p) - lum(p + 4) - lum(q) + lum(q + 4));
    }
  }
  if (detail.empty()) return 0.0f;
  auto middle = detail.begin() + static_cast<std::ptrdiff_t>(detail.size() / 2);
  std::nth_element(detail.begin(), middle, detail.end());
  // Median absolute deviation of a Gaussian is 0.6745 σ.
  return *middle / 0.6745f;
}

std::vector<int32_t> bracketTable(int64_t imageCount, int64_t outputCount, int64_t start,
                                  int64_t length, int64_t windowStart, int64_t windowCount) {
  if (imageCount < 1 || outputCount < 1 || length < 0 || start < 0 || windowCount < 1)
    fail("clarity geometry");
  std::vector<int32_t> table(static_cast<size_t>(length));
  for (int64_t i = 0; i < length; ++i) {
    const double p = (static_cast<double>(start + i) + 0.5) * static_cast<double>(imageCount) /
                         static_cast<double>(outputCount) -
                     0.5;
    const int64_t below = std::clamp(static_cast<int64_t>(std::floor(p)), int64_t{0}, imageCount - 1);
    const int64_t above = std::min(below + 1, imageCount - 1);
    if (below < windowStart || above >= windowStart + windowCount) fail("clarity geometry");
    table[i] = static_cast<int32_t>(below - windowStart);
  }
  return table;
}

BracketTables bracketTables(const BandFrame& frame, int64_t bandWidth, int64_t bandHeight,
                            int64_t windowX, int64_t windowY, int64_t windowWidth,
                            int64_t windowHeight) {
  return {bracketTable(frame.imageWidth, frame.targetWidth, frame.outputX, bandWidth, windowX,
                       windowWidth),
          bracketTable(frame.imageHeight, frame.targetHeight, frame.outputY, bandHeight, windowY,
                       windowHeight)};
}

namespace {

// The bounds of every 2 × 2 block of a window plane, indexed by its
// top-left pixel: what bracket tables gather from.
struct PairBounds {
  Plane lo, hi;
};

PairBounds pairBounds(const Plane& sourceY) {
  PairBounds pairs{makePlane(sourceY.width, sourceY.height),
                   makePlane(sourceY.width, sourceY.height)};
#pragma omp parallel for schedule(static)
  for (int64_t r = 0; r < sourceY.height; ++r)
    pairBoundsRow(sourceY.row(r), sourceY.row(std::min(r + 1, sourceY.height - 1)), sourceY.width,
                  pairs.lo.row(r), pairs.hi.row(r));
  return pairs;
}

void checkTables(const Plane& sourceY, const BracketTables& tables) {
  for (int32_t t : tables.x)
    if (t < 0 || t >= sourceY.width) fail("clarity geometry");
  for (int32_t t : tables.y)
    if (t < 0 || t >= sourceY.height) fail("clarity geometry");
}

}  // namespace

void bounds(const Plane& sourceY, const BracketTables& tables, Plane& lo, Plane& hi) {
  const int64_t width = static_cast<int64_t>(tables.x.size());
  const int64_t height = static_cast<int64_t>(tables.y.size());
  if (lo.width != width || hi.width != width || lo.height != height || hi.height != height)
    fail("clarity geometry");
  checkTables(sourceY, tables);
  const PairBounds pairs = pairBounds(sourceY);
#pragma omp parallel for schedule(static)
  for (int64_t y = 0; y < height; ++y)
    gatherRow(pairs.lo.row(tables.y[y]), pairs.hi.row(tables.y[y]), tables.x.data(), width,
              lo.row(y), hi.row(y));
}

AreaAxis areaAxis(int64_t imageCount, int64_t outputCount, int64_t sourceStart,
                  int64_t sourceLength, int64_t outputStart, int64_t outputLength) {
  if (imageCount < 1 || outputCount < 1 || sourceStart < 0 || sourceLength < 0 ||
      sourceStart + sourceLength > imageCount || outputStart < 0 || outputLength < 1 ||
      outputStart + outputLength > outputCount)
    fail("clarity down-projection");
  AreaAxis axis;
  // Output samples one source footprint can touch: M/N rounded up, plus one
  // for a footprint that straddles sample boundaries (never on an integral
  // scale).
  axis.taps = static_cast<int>((outputCount + imageCount - 1) / imageCount) +
              (outputCount % imageCount != 0 ? 1 : 0);
  const size_t entries = static_cast<size_t>(sourceLength) * axis.taps;
  axis.index.assign(entries, 0);
  axis.weight.assign(entries, 0.0f);
  axis.covered.assign(static_cast<size_t>(sourceLength), 0);
  const double scale = static_cast<double>(outputCount) / static_cast<double>(imageCount);
  std::vector<double> weights(static_cast<size_t>(axis.taps));
  for (int64_t j = 0; j < sourceLength; ++j) {
    const int64_t s = sourceStart + j;
    // Footprint [s·M/N, (s+1)·M/N) in output samples, exact in integers.
    const int64_t first = std::max(floorDiv(s * outputCount, imageCount), outputStart);
    const int64_t last = std::min(floorDiv((s + 1) * outputCount - 1, imageCount),
                                  outputStart + outputLength - 1);
    const double lo = static_cast<double>(s) * scale, hi = static_cast<double>(s + 1) * scale;
    double sum = 0;
    int count = 0;
    for (int64_t i = first; i <= last && count < axis.taps; ++i, ++count) {
      weights[count] = std::min(static_cast<double>(i + 1), hi) - std::max(static_cast<double>(i), lo);
      sum += weights[count];
    }
    if (count == 0 || sum <= 0) continue;
    axis.covered[j] = 1;
    for (int k = 0; k < count; ++k) {
      axis.index[j * axis.taps + k] = static_cast<int32_t>(first + k - outputStart);
      axis.weight[j * axis.taps + k] = static_cast<float>(weights[k] / sum);
    }
    // Unused taps point at the first one with no weight.
    for (int k = count; k < axis.taps; ++k)
      axis.index[j * axis.taps + k] = static_cast<int32_t>(first - outputStart);
  }
  return axis;
}

namespace {

// Down-projects rows of `plane` for the source rows of `ay`, handing each
// finished source row to `emit(j, tmp)` where tmp holds the vertical
// average at output resolution.
template <typename Emit>
void downRows(const Plane& plane, const AreaAxis& ay, Emit&& emit) {
  downRows(plane, ay, [](int64_t) { return true; }, emit);
}

// The same for only the source rows `wanted(j)` names.
template <typename Wanted, typename Emit>
void downRows(const Plane& plane, const AreaAxis& ay, Wanted&& wanted, Emit&& emit) {
  const int64_t n = plane.width;
  forRows(static_cast<int64_t>(ay.covered.size()), static_cast<size_t>(n),
          [&](int64_t j, float* tmp) {
            if (!wanted(j)) return;
            const int32_t* idx = ay.index.data() + j * ay.taps;
            const float* w = ay.weight.data() + j * ay.taps;
            if (ay.covered[j]) {
              scaleRow(plane.row(idx[0]), w[0], n, tmp);
              for (int k = 1; k < ay.taps; ++k)
                if (w[k] != 0.0f) addScaledRow(plane.row(idx[k]), w[k], n, tmp);
            }
            emit(j, tmp);
          });
}

}  // namespace

void areaDown(const Plane& plane, const BandFrame& frame, int64_t windowX, int64_t windowY,
              Plane& into) {
  if (plane.channels != 1 || into.channels != 1 || plane.width < 1 || plane.height < 1 ||
      frame.outputX + plane.width > frame.targetWidth ||
      frame.outputY + plane.height > frame.targetHeight)
    fail("clarity down-projection");
  const AreaAxis ax = areaAxis(frame.imageWidth, frame.targetWidth, windowX, into.width,
                               frame.outputX, plane.width);
  const AreaAxis ay = areaAxis(frame.imageHeight, frame.targetHeight, windowY, into.height,
                               frame.outputY, plane.height);
  downRows(plane, ay, [&](int64_t j, const float* tmp) {
    float* out = into.row(j);
    if (!ay.covered[j]) {
      std::fill(out, out + into.width, 0.0f);
      return;
    }
    for (int64_t c = 0; c < into.width; ++c) {
      float down = 0;
      for (int k = 0; k < ax.taps; ++k)
        down += ax.weight[c * ax.taps + k] * tmp[ax.index[c * ax.taps + k]];
      out[c] = ax.covered[c] ? down : 0.0f;
    }
  });
}

void clampTo(Plane& plane, const Plane& lo, const Plane& hi) {
  if (lo.width != plane.width || hi.width != plane.width || lo.height != plane.height ||
      hi.height != plane.height)
    fail("clarity geometry");
#pragma omp parallel for schedule(static)
  for (int64_t y = 0; y < plane.height; ++y) {
    float* p = plane.row(y);
    const float *l = lo.row(y), *h = hi.row(y);
    for (int64_t x = 0; x < plane.width; ++x) p[x] = std::min(std::max(p[x], l[x]), h[x]);
  }
}

void carryColourRow(float* rgba, const float* luminance, int64_t count, bool hasAlpha) {
  colourRow(rgba, luminance, count, hasAlpha);
}

void apply(FloatImage& band, const BandFrame& frame, const FloatImage& source, bool hasAlpha,
           float noiseSigma, BandMapping mapping) {
  Workspace workspace;
  const Plane& result = sharpenLuminance(band, frame, source, noiseSigma, mapping, workspace);
  forRows(band.height, 0, [&](int64_t y, float*) {
    colourRow(band.row(y), result.row(y), band.width, hasAlpha);
  });
}

const Plane& sharpenLuminance(const FloatImage& band, const BandFrame& frame,
                              const FloatImage& source, float noiseSigma, BandMapping mapping,
                              Workspace& workspace) {
  const int64_t width = band.width, height = band.height;
  if (band.channels != 4 || source.channels != 4 || width < 1 || height < 1 ||
      frame.imageWidth < 1 || frame.imageHeight < 1 || frame.targetWidth < 1 ||
      frame.targetHeight < 1 || frame.outputX < 0 || frame.outputY < 0 ||
      frame.outputX + width > frame.targetWidth || frame.outputY + height > frame.targetHeight)
    fail("clarity geometry");

  // Everything the band reads of the source: Lanczos windows of the
  // back-projection, footprints of the down-projection, bracket pairs.
  const auto spanX = sourceSpan(frame.imageWidth, frame.targetWidth, frame.outputX, width);
  const auto spanY = sourceSpan(frame.imageHeight, frame.targetHeight, frame.outputY, height);
  const int64_t originX = mapping == BandMapping::local ? frame.sourceX : 0;
  const int64_t originY = mapping == BandMapping::local ? frame.sourceY : 0;
  if (mapping == BandMapping::global &&
      (source.width != frame.imageWidth || source.height != frame.imageHeight))
    fail("clarity geometry");
  if (spanX.start < originX || spanY.start < originY ||
      spanX.start + spanX.count > originX + source.width ||
      spanY.start + spanY.count > originY + source.height)
    fail("clarity geometry");

  // Source luminance over the span.
  Plane& sourceY = workspace.sourceY;
  reshape(sourceY, spanX.count, spanY.count);
#pragma omp parallel for schedule(static)
  for (int64_t y = 0; y < spanY.count; ++y)
    luminanceRow(source.row(spanY.start - originY + y) + (spanX.start - originX) * 4, spanX.count,
                 sourceY.row(y));

  const BracketTables tables = bracketTables(frame, width, height, spanX.start, spanY.start,
                                             spanX.count, spanY.count);
  checkTables(sourceY, tables);
  // Bounds spread to output columns once per bracket row, so that output
  // rows sharing a bracket row read them as plain rows.
  Plane &spreadLo = workspace.spreadLo, &spreadHi = workspace.spreadHi;
  reshape(spreadLo, width, spanY.count);
  reshape(spreadHi, width, spanY.count);
  {
    const PairBounds pairs = pairBounds(sourceY);
#pragma omp parallel for schedule(static)
    for (int64_t r = 0; r < spanY.count; ++r)
      gatherRow(pairs.lo.row(r), pairs.hi.row(r), tables.x.data(), width, spreadLo.row(r),
                spreadHi.row(r));
  }
  auto rowLo = [&](int64_t y) { return spreadLo.row(tables.y[y]); };
  auto rowHi = [&](int64_t y) { return spreadHi.row(tables.y[y]); };

  // Sharpening stays clear of the noise and of a floor below which detail
  // is too faint to be worth amplifying; agreement with the source is
  // restored down to the noise itself.
  const float threshold = ClarityParams::noiseK * std::max(noiseSigma, ClarityParams::noiseFloor);
  const float inverseWidth = 1.0f / (ClarityParams::maskWidth * threshold);
  const float residualThreshold = ClarityParams::noiseK * std::max(noiseSigma, 0.0f);
  const double scaleX = static_cast<double>(frame.targetWidth) / frame.imageWidth;
  const double scaleY = static_cast<double>(frame.targetHeight) / frame.imageHeight;

  // Sharpening of the detail above a Gaussian of the detail scale; band
  // edges repeat (the margin keeps what that disturbs out of the result).
  Plane& current = workspace.current;
  reshape(current, width, height);
  {
    Plane& before = workspace.before;
    reshape(before, width, height);
    luminance(band, before);
    const std::vector<float> wx = gaussian(ClarityParams::sigmaPerScale * scaleX);
    const std::vector<float> wy = gaussian(ClarityParams::sigmaPerScale * scaleY);
    const int rx = static_cast<int>(wx.size() / 2), ry = static_cast<int>(wy.size() / 2);
    forRows(height, static_cast<size_t>(width + 2 * rx), [&](int64_t y, float* padded) {
      float* centre = padded + rx;
      for (int k = 0; k < static_cast<int>(wy.size()); ++k) {
        const int64_t row = std::clamp<int64_t>(y + k - ry, 0, height - 1);
        if (k == 0)
          scaleRow(before.row(row), wy[k], width, centre);
        else
          addScaledRow(before.row(row), wy[k], width, centre);
      }
      std::fill(padded, centre, centre[0]);
      std::fill(centre + width, centre + width + rx, centre[width - 1]);
      sharpenRow(before.row(y), padded, wx.data(), static_cast<int>(wx.size()), rowLo(y), rowHi(y),
                 width, threshold, inverseWidth, current.row(y));
    });
  }

  // Back-projection: what the source says minus what the current result
  // averages to, beyond the noise, spread back with the Lanczos kernel.
  const AreaAxis ax = areaAxis(frame.imageWidth, frame.targetWidth, spanX.start, spanX.count,
                               frame.outputX, width);
  const AreaAxis ay = areaAxis(frame.imageHeight, frame.targetHeight, spanY.start, spanY.count,
                               frame.outputY, height);
  const LanczosResampler::Window needX =
      LanczosResampler::window(frame.imageWidth, frame.targetWidth, frame.outputX, width);
  const LanczosResampler::Window needY =
      LanczosResampler::window(frame.imageHeight, frame.targetHeight, frame.outputY, height);
  if (needX.start < spanX.start || needY.start < spanY.start ||
      needX.start + needX.count > spanX.start + spanX.count ||
      needY.start + needY.count > spanY.start + spanY.count)
    fail("clarity back-projection");
  // The Lanczos taps of the spread, relative to the span.
  LanczosResampler::Axis hx = LanczosResampler::axis(frame.imageWidth, frame.targetWidth,
                                                     frame.outputX, width, needX.start, needX.count);
  LanczosResampler::Axis hy = LanczosResampler::axis(
      frame.imageHeight, frame.targetHeight, frame.outputY, height, needY.start, needY.count);
  for (int32_t& i : hx.index) i += static_cast<int32_t>(needX.start - spanX.start);
  for (int32_t& i : hy.index) i += static_cast<int32_t>(needY.start - spanY.start);
  constexpr int kTaps = LanczosResampler::tapCount;

  // Most residuals fall within the noise once the first round has fixed the
  // edges, so each source row keeps the output columns its non-zero
  // residuals reach ([first, end), empty when first == end), and only those
  // are spread and updated. A skipped value would only have added zeros.
  // Likewise each output row keeps the columns the last round updated, and
  // a source row none of whose footprint changed keeps its residual.
  Plane& residual = workspace.residual;
  Plane& spreadRows = workspace.spreadRows;
  reshape(residual, spanX.count, spanY.count);
  reshape(spreadRows, width, spanY.count);
  std::vector<int64_t> first(static_cast<size_t>(spanY.count)), end(first.size());
  std::vector<uint8_t> changed(static_cast<size_t>(height), 1);
  for (int round = 0; round < ClarityParams::ibpIterations; ++round) {
    auto stale = [&](int64_t j) {
      bool any = round == 0;
      for (int k = 0; k < ay.taps; ++k)
        any |= ay.weight[j * ay.taps + k] != 0.0f && changed[ay.index[j * ay.taps + k]];
      return any;
    };
    downRows(current, ay, stale, [&](int64_t j, const float* tmp) {
      float* r = residual.row(j);
      first[j] = end[j] = 0;
      if (!ay.covered[j]) return;
      residualRow(sourceY.row(j), tmp, ax.index.data(), ax.weight.data(), ax.covered.data(),
                  ax.taps, spanX.count, residualThreshold, r);
      int64_t c0 = 0, c1 = spanX.count;
      while (c0 < c1 && r[c0] == 0.0f) ++c0;
      while (c1 > c0 && r[c1 - 1] == 0.0f) --c1;
      if (c0 == c1) return;
      // Output columns whose taps reach [c0, c1): taps only move right.
      const int32_t* idx = hx.index.data();
      int64_t xa = 0, xb = width;
      while (xa < xb && idx[xa * kTaps + kTaps - 1] < c0) ++xa;
      while (xb > xa && idx[(xb - 1) * kTaps] >= c1) --xb;
      first[j] = xa, end[j] = xb;
      horizontalTaps(r, idx + xa * kTaps, hx.weight.data() + xa * kTaps, xb - xa,
                     spreadRows.row(j) + xa);
    });
    if (first == end) break;  // nothing left to correct: later rounds would change nothing
    forRows(height, static_cast<size_t>(width), [&](int64_t y, float* u) {
      const int32_t* rows = hy.index.data() + y * kTaps;
      const float* w = hy.weight.data() + y * kTaps;
      int64_t xa = width, xb = 0;
      for (int k = 0; k < kTaps; ++k)
        if (first[rows[k]] != end[rows[k]])
          xa = std::min(xa, first[rows[k]]), xb = std::max(xb, end[rows[k]]);
      changed[y] = xa < xb;
      if (xa >= xb) return;
      std::fill(u + xa, u + xb, 0.0f);
      for (int k = 0; k < kTaps; ++k) {
        const int64_t a = first[rows[k]], b = end[rows[k]];
        if (a != b) addScaledRow(spreadRows.row(rows[k]) + a, w[k], b - a, u + a);
      }
      addClampRow(u + xa, rowLo(y) + xa, rowHi(y) + xa, xb - xa, current.row(y) + xa);
    });
  }
  return current;
}

}  // namespace ClarityPass
}  // namespace tarnbloom
