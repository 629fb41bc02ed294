// The Enhance render: the network's ×4 estimate, resized to the target and
// blended with Exact. The estimate works on 8-bit premultiplied sRGB, as the
// network was trained on sRGB pictures; the result then goes through the
// same output conversion as every other method.

#include <algorithm>
#include <cmath>

#include "engine/colour_conversion.h"
#include "engine/engine_error.h"
#include "engine/estimate_engine.h"
#include "engine/estimate_error.h"
#include "engine/lanczos_resampler.h"
#include "engine/resample_engine.h"

namespace tarnbloom {
namespace {

uint8_t premultiplied(uint8_t colour, uint8_t alpha) {
  return static_cast<uint8_t>((colour * alpha + 127) / 255);
}

// An 8-bit premultiplied RGBA image resampled with Lanczos to another size,
// in the sRGB values themselves.
std::vector<uint8_t> resizeMosaic(const MosaicImage& from, ResampleTarget to) {
  FloatImage source(from.width, from.height, 4);
  for (size_t i = 0; i < from.rgba.size(); ++i) source.data[i] = from.rgba[i] / 255.0f;
  std::vector<uint8_t> out(static_cast<size_t>(to.width * to.height) * 4);
  const LanczosResampler::BandResampler band(source, 0, 0, from.width, from.height, to.width, to.height, 0, 0,
                                             to.width, to.height);
#pragma omp parallel
  {
    FloatImage row(to.width, 1, 4);
#pragma omp for schedule(static)
    for (int64_t y = 0; y < to.height; ++y) {
      band.row(y, row.data.data());
      uint8_t* o = out.data() + static_cast<size_t>(y * to.width) * 4;
      for (int64_t x = 0; x < to.width; ++x) {
        const float alpha = std::clamp(row.data[x * 4 + 3], 0.0f, 1.0f);
        for (int c = 0; c < 3; ++c)
          o[x * 4 + c] = static_cast<uint8_t>(std::lround(std::clamp(row.data[x * 4 + c], 0.0f, alpha) * 255));
        o[x * 4 + 3] = static_cast<uint8_t>(std::lround(alpha * 255));
      }
    }
  }
  return out;
}

}  // namespace

std::vector<uint8_t> ResampleEngine::exactMosaic(ResampleTarget target) const {
  RenderOutput srgb;
  srgb.keepProfile = false;
  const codec::PixelBuffer rendered = exportImage(target, ResampleMethod::exact, srgb);
  std::vector<uint8_t> mosaic(static_cast<size_t>(target.width * target.height) * 4);
  const int channels = rendered.channels;
#pragma omp parallel for schedule(static)
  for (int64_t y = 0; y < target.height; ++y) {
    const uint8_t* in = rendered.row(static_cast<int>(y));
    uint8_t* out = mosaic.data() + static_cast<size_t>(y * target.width) * 4;
    for (int64_t x = 0; x < target.width; ++x) {
      const uint8_t alpha = channels == 4 ? in[x * 4 + 3] : 255;
      for (int c = 0; c < 3; ++c) out[x * 4 + c] = premultiplied(in[x * channels + c], alpha);
      out[x * 4 + 3] = alpha;
    }
  }
  return mosaic;
}

std::shared_ptr<const std::vector<uint8_t>> ResampleEngine::blendedEstimate(
    ResampleTarget target, double strength, const RenderProgress& progress,
    const std::atomic<bool>* cancel) const {
  if (!m_estimates) throw EstimateError::modelMissing();
  m_estimates->model();  // a missing model fails before any rendering
  strength = EstimateEngine::clampStrength(strength);
  std::lock_guard lock(m_estimate->lock);
  EstimateCache& cache = *m_estimate;
  if (cache.width != target.width || cache.height != target.height) {
    const ResampleTarget sourceSize{width(), height()};
    const MosaicImage mosaic{sourceSize.width, sourceSize.height, exactMosaic(sourceSize)};
    MosaicImage estimate = m_estimates->inferTiled(mosaic, progress, cancel);
    std::vector<uint8_t> pixels = estimate.width == target.width && estimate.height == target.height
                                      ? std::move(estimate.rgba)
                                      : resizeMosaic(estimate, target);
    std::vector<uint8_t> exact = exactMosaic(target);
    cache.estimate = std::move(pixels);
    cache.exact = std::move(exact);
    cache.width = target.width;
    cache.height = target.height;
    cache.blended.reset();
  } else if (progress) {
    progress(1, 1);  // nothing left to infer
  }
  if (!cache.blended || cache.strength != strength) {
    cache.blended = std::make_shared<const std::vector<uint8_t>>(
        EstimateEngine::isUnblended(strength)
            ? cache.estimate
            : EstimateEngine::blendedPixels(cache.estimate, cache.exact, strength));
    cache.strength = strength;
  }
  return cache.blended;
}

namespace {

// Rows [y0, y0 + out.height) and columns [x0, x0 + out.width) of an 8-bit
// premultiplied sRGB mosaic `width` pixels wide, through `converter`.
void convertMosaic(const std::vector<uint8_t>& pixels, int64_t width, int64_t x0, int64_t y0,
                   const OutputConverter& converter, codec::PixelBuffer& out) {
  float decode[256];
  for (int v = 0; v < 256; ++v) decode[v] = linearFromSRGB(v / 255.0);
#pragma omp parallel
  {
    FloatImage row(out.width, 1, 4);
#pragma omp for schedule(static)
    for (int y = 0; y < out.height; ++y) {
      const uint8_t* in = pixels.data() + static_cast<size_t>((y0 + y) * width + x0) * 4;
      for (int x = 0; x < out.width; ++x) {
        // Straight sRGB, then linear light premultiplied: the working format.
        const uint8_t alpha = in[x * 4 + 3];
        const float a = alpha / 255.0f;
        for (int c = 0; c < 3; ++c) {
          const int straight = alpha ? std::min(255, (in[x * 4 + c] * 255 + alpha / 2) / alpha) : 0;
          row.data[x * 4 + c] = decode[straight] * a;
        }
        row.data[x * 4 + 3] = a;
      }
      converter.convertRow(row.data.data(), out.width, out.row(y));
    }
  }
}

}  // namespace

codec::PixelBuffer ResampleEngine::renderEstimate(ResampleTarget target, const RenderOutput& output,
                                                  const OutputConverter& converter,
                                                  const RenderProgress& progress,
                                                  const std::atomic<bool>* cancel) const {
  const auto pixels = blendedEstimate(target, output.estimateStrength, progress, cancel);
  if (cancel && cancel->load()) throw EngineError::cancelled();
  codec::PixelBuffer result;
  result.allocate(static_cast<int>(target.width), static_cast<int>(target.height), converter.channels(),
                  converter.format());
  convertMosaic(*pixels, target.width, 0, 0, converter, result);
  return result;
}

codec::PixelBuffer ResampleEngine::estimateTile(ResampleTarget target, OutputRect rect,
                                                const OutputConverter& converter,
                                                double strength,
                                                const RenderProgress& progress,
                                                const std::atomic<bool>* cancel) const {
  const auto pixels = blendedEstimate(target, strength, progress, cancel);
  codec::PixelBuffer tile;
  tile.allocate(static_cast<int>(rect.width), static_cast<int>(rect.height), converter.channels(),
                converter.format());
  convertMosaic(*pixels, target.width, rect.x, rect.y, converter, tile);
  return tile;
}

}  // namespace tarnbloom
