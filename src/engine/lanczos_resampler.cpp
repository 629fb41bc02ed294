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

// The hot loops are built for several instruction sets; the loader picks
// the best one the processor has. Results are the same on each: the loops
// add in the same order and nothing is contracted into fused multiply-adds.
#define TARNBLOOM_CLONES __attribute__((target_clones("arch=x86-64-v4", "arch=x86-64-v3", "default")))

// The horizontal pass for one source row: each output column is the
// weighted sum of its six taps, per channel.
TARNBLOOM_CLONES
void horizontalRow4(const float* __restrict in, const int32_t* __restrict idx,
                    const float* __restrict w, int64_t outWidth, float* __restrict out) {
  for (int64_t x = 0; x < outWidth; ++x, idx += tapCount, w += tapCount, out += 4) {
    float s0 = 0, s1 = 0, s2 = 0, s3 = 0;
    for (int k = 0; k < tapCount; ++k) {
      const float* p = in + static_cast<int64_t>(idx[k]) * 4;
      s0 += w[k] * p[0];
      s1 += w[k] * p[1];
      s2 += w[k] * p[2];
      s3 += w[k] * p[3];
    }
    out[0] = s0;
    out[1] = s1;
    out[2] = s2;
    out[3] = s3;
  }
}

TARNBLOOM_CLONES
void horizontalRow1(const float* __restrict in, const int32_t* __restrict idx,
                    const float* __restrict w, int64_t outWidth, float* __restrict out) {
  for (int64_t x = 0; x < outWidth; ++x, idx += tapCount, w += tapCount) {
    float sum = 0;
    for (int k = 0; k < tapCount; ++k) sum += w[k] * in[idx[k]];
    out[x] = sum;
  }
}

// The vertical pass for one output row: a row-wide multiply-add of the six
// scratch rows.
TARNBLOOM_CLONES
void verticalRow(const float* __restrict r0, const float* __restrict r1, const float* __restrict r2,
                 const float* __restrict r3, const float* __restrict r4, const float* __restrict r5,
                 const float* w, size_t n, float* __restrict out) {
  const float w0 = w[0], w1 = w[1], w2 = w[2], w3 = w[3], w4 = w[4], w5 = w[5];
  for (size_t i = 0; i < n; ++i)
    out[i] = w0 * r0[i] + w1 * r1[i] + w2 * r2[i] + w3 * r3[i] + w4 * r4[i] + w5 * r5[i];
}

void checkGeometry(const FloatImage& source, int64_t windowX, int64_t windowY, int64_t imageWidth,
                   int64_t imageHeight, int64_t targetWidth, int64_t targetHeight, int64_t outX,
                   int64_t outY, int64_t width, int64_t height) {
  if (imageWidth < 1 || imageHeight < 1 || targetWidth < 1 || targetHeight < 1 || outX < 0 ||
      outY < 0 || width < 1 || height < 1 || outX + width > targetWidth ||
      outY + height > targetHeight || windowX < 0 || windowY < 0)
    geometryFailure();
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

BandResampler::BandResampler(const FloatImage& source, int64_t windowX, int64_t windowY,
                             int64_t imageWidth, int64_t imageHeight, int64_t targetWidth,
                             int64_t targetHeight, int64_t outX, int64_t outY, int64_t width,
                             int64_t height)
    : m_width(width), m_height(height) {
  checkGeometry(source, windowX, windowY, imageWidth, imageHeight, targetWidth, targetHeight, outX,
                outY, width, height);
  const Window wx = window(imageWidth, targetWidth, outX, width);
  const Window wy = window(imageHeight, targetHeight, outY, height);
  // The source view must hold the whole window the rectangle reads.
  if (wx.start < windowX || wy.start < windowY || wx.start + wx.count > windowX + source.width ||
      wy.start + wy.count > windowY + source.height)
    geometryFailure();

  const Axis ax = axis(imageWidth, targetWidth, outX, width, wx.start, wx.count);
  m_vertical = axis(imageHeight, targetHeight, outY, height, wy.start, wy.count);
  try {
    m_scratch = FloatImage(width, wy.count, source.channels);
  } catch (const std::bad_alloc&) {
    throw EngineError::vImage("resample scratch", kResamplerMemoryAllocationError);
  }

  const int64_t columnOffset = (wx.start - windowX) * source.channels;
  const bool rgba = source.channels == 4;
#pragma omp parallel for schedule(static)
  for (int64_t r = 0; r < wy.count; ++r) {
    const float* in = source.row(wy.start - windowY + r) + columnOffset;
    if (rgba)
      horizontalRow4(in, ax.index.data(), ax.weight.data(), width, m_scratch.row(r));
    else
      horizontalRow1(in, ax.index.data(), ax.weight.data(), width, m_scratch.row(r));
  }
}

void BandResampler::row(int64_t y, float* out) const {
  const int32_t* idx = m_vertical.index.data() + y * tapCount;
  verticalRow(m_scratch.row(idx[0]), m_scratch.row(idx[1]), m_scratch.row(idx[2]),
              m_scratch.row(idx[3]), m_scratch.row(idx[4]), m_scratch.row(idx[5]),
              m_vertical.weight.data() + y * tapCount, m_scratch.rowFloats(), out);
}

namespace {

void resampleInto(int channels, const FloatImage& source, int64_t windowX, int64_t windowY,
                  int64_t imageWidth, int64_t imageHeight, int64_t targetWidth,
                  int64_t targetHeight, int64_t outX, int64_t outY, FloatImage& into) {
  if (source.channels != channels || into.channels != channels) geometryFailure();
  const BandResampler band(source, windowX, windowY, imageWidth, imageHeight, targetWidth,
                           targetHeight, outX, outY, into.width, into.height);
#pragma omp parallel for schedule(static)
  for (int64_t y = 0; y < into.height; ++y) band.row(y, into.row(y));
}

}  // namespace

void resampleRGBA(const FloatImage& source, int64_t windowX, int64_t windowY, int64_t imageWidth,
                  int64_t imageHeight, int64_t targetWidth, int64_t targetHeight, int64_t outX,
                  int64_t outY, FloatImage& into) {
  resampleInto(4, source, windowX, windowY, imageWidth, imageHeight, targetWidth, targetHeight, outX,
               outY, into);
}

void resamplePlanar(const FloatImage& source, int64_t windowX, int64_t windowY,
                    int64_t imageWidth, int64_t imageHeight, int64_t targetWidth,
                    int64_t targetHeight, int64_t outX, int64_t outY, FloatImage& into) {
  resampleInto(1, source, windowX, windowY, imageWidth, imageHeight, targetWidth, targetHeight, outX,
               outY, into);
}

}  // namespace tarnbloom::LanczosResampler
