#include "engine/lanczos_resampler.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <new>

#include "engine/engine_error.h"

namespace tarnbloom::LanczosResampler {
namespace {

[[noreturn]] void geometryFailure() {
  throw EngineError::vImage("resample geometry", kResamplerInvalidParameter);
}

// Source position of output sample i: pixel centres aligned.
double samplePosition(int64_t i, int64_t imageCount, int64_t outputCount) {
  return (static_cast<double>(i) + 0.5) * static_cast<double>(imageCount) /
             static_cast<double>(outputCount) -
         0.5;
}

// The horizontal pass for one source row: each output column is the
// weighted sum of its six taps, per channel.
template <int C>
void horizontalRow(const float* __restrict in, const Axis& ax, int64_t outWidth, float* __restrict out) {
  const int32_t* idx = ax.index.data();
  const float* w = ax.weight.data();
  for (int64_t x = 0; x < outWidth; ++x, idx += tapCount, w += tapCount, out += C) {
    float sum[C] = {};
    for (int k = 0; k < tapCount; ++k) {
      const float* p = in + static_cast<int64_t>(idx[k]) * C;
      for (int c = 0; c < C; ++c) sum[c] += w[k] * p[c];
    }
    for (int c = 0; c < C; ++c) out[c] = sum[c];
  }
}

// The vertical pass for one output row: a row-wide multiply-add of the six
// scratch rows, which the compiler turns into vector code.
void verticalRow(const float* const rows[tapCount], const float* w, size_t n, float* __restrict out) {
  const float w0 = w[0], w1 = w[1], w2 = w[2], w3 = w[3], w4 = w[4], w5 = w[5];
  const float *r0 = rows[0], *r1 = rows[1], *r2 = rows[2], *r3 = rows[3], *r4 = rows[4], *r5 = rows[5];
#pragma omp simd
  for (size_t i = 0; i < n; ++i)
    out[i] = w0 * r0[i] + w1 * r1[i] + w2 * r2[i] + w3 * r3[i] + w4 * r4[i] + w5 * r5[i];
}

template <int C>
void resample(const FloatImage& source, int64_t windowX, int64_t windowY, int64_t imageWidth,
              int64_t imageHeight, int64_t targetWidth, int64_t targetHeight, int64_t outX,
              int64_t outY, FloatImage& into) {
  if (source.channels != C || into.channels != C || imageWidth < 1 || imageHeight < 1 ||
      targetWidth < 1 || targetHeight < 1 || outX < 0 || outY < 0 || into.width < 1 ||
      into.height < 1 || outX + into.width > targetWidth || outY + into.height > targetHeight ||
      windowX < 0 || windowY < 0)
    geometryFailure();

  const Window wx = window(imageWidth, targetWidth, outX, into.width);
  const Window wy = window(imageHeight, targetHeight, outY, into.height);
  // The source view must hold the whole window the rectangle reads.
  if (wx.start < windowX || wy.start < windowY || wx.start + wx.count > windowX + source.width ||
      wy.start + wy.count > windowY + source.height)
    geometryFailure();

  const Axis ax = axis(imageWidth, targetWidth, outX, into.width, wx.start, wx.count);
  const Axis ay = axis(imageHeight, targetHeight, outY, into.height, wy.start, wy.count);

  FloatImage scratch;
  try {
    scratch = FloatImage(into.width, wy.count, C);
  } catch (const std::bad_alloc&) {
    throw EngineError::vImage("resample scratch", kResamplerMemoryAllocationError);
  }

  const int64_t columnOffset = (wx.start - windowX) * C;
#pragma omp parallel for schedule(static)
  for (int64_t r = 0; r < wy.count; ++r)
    horizontalRow<C>(source.row(wy.start - windowY + r) + columnOffset, ax, into.width, scratch.row(r));

  const size_t n = into.rowFloats();
#pragma omp parallel for schedule(static)
  for (int64_t y = 0; y < into.height; ++y) {
    const int32_t* idx = ay.index.data() + y * tapCount;
    const float* rows[tapCount];
    for (int k = 0; k < tapCount; ++k) rows[k] = scratch.row(idx[k]);
    verticalRow(rows, ay.weight.data() + y * tapCount, n, into.row(y));
  }
}

}  // namespace

double kernel(double x) {
  const double a = std::fabs(x);
  if (a < 1e-12) return 1.0;
  if (a >= radius) return 0.0;
  const double px = M_PI * x;
  return radius * std::sin(px) * std::sin(px / radius) / (px * px);
}

Window window(int64_t imageCount, int64_t outputCount, int64_t start, int64_t length) {
  if (length < 1 || imageCount < 1 || outputCount < 1) return {0, 1};
  const double first = samplePosition(start, imageCount, outputCount);
  const double last = samplePosition(start + length - 1, imageCount, outputCount);
  const int64_t windowStart =
      std::min(std::max(static_cast<int64_t>(std::floor(first)) - 2, int64_t{0}), imageCount - 1);
  const int64_t windowEnd = std::min(static_cast<int64_t>(std::floor(last)) + 4, imageCount);
  return {windowStart, std::max(windowEnd - windowStart, int64_t{1})};
}

Axis axis(int64_t imageCount, int64_t outputCount, int64_t start, int64_t length,
          int64_t windowStart, int64_t windowCount) {
  Axis result;
  if (length < 1) return result;
  if (windowCount < 1 || imageCount < 1 || outputCount < 1) geometryFailure();
  result.index.resize(static_cast<size_t>(length) * tapCount);
  result.weight.resize(static_cast<size_t>(length) * tapCount);
  for (int64_t i = 0; i < length; ++i) {
    const double p = samplePosition(start + i, imageCount, outputCount);
    const int64_t b = static_cast<int64_t>(std::floor(p));
    double w[tapCount];
    double sum = 0;
    for (int k = 0; k < tapCount; ++k) {
      w[k] = kernel(p - static_cast<double>(b - 2 + k));
      sum += w[k];
    }
    for (int k = 0; k < tapCount; ++k) {
      const int64_t clamped = std::clamp(b - 2 + k, int64_t{0}, imageCount - 1);
      const int64_t relative = std::clamp(clamped - windowStart, int64_t{0}, windowCount - 1);
      if (relative > std::numeric_limits<int32_t>::max()) geometryFailure();
      result.index[i * tapCount + k] = static_cast<int32_t>(relative);
      result.weight[i * tapCount + k] = sum == 0 ? 0.0f : static_cast<float>(w[k] / sum);
    }
  }
  return result;
}

void resampleRGBA(const FloatImage& source, int64_t windowX, int64_t windowY, int64_t imageWidth,
                  int64_t imageHeight, int64_t targetWidth, int64_t targetHeight, int64_t outX,
                  int64_t outY, FloatImage& into) {
  resample<4>(source, windowX, windowY, imageWidth, imageHeight, targetWidth, targetHeight, outX, outY, into);
}

void resamplePlanar(const FloatImage& source, int64_t windowX, int64_t windowY,
                    int64_t imageWidth, int64_t imageHeight, int64_t targetWidth,
                    int64_t targetHeight, int64_t outX, int64_t outY, FloatImage& into) {
  resample<1>(source, windowX, windowY, imageWidth, imageHeight, targetWidth, targetHeight, outX, outY, into);
}

}  // namespace tarnbloom::LanczosResampler
