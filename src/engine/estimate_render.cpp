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

// Target rows [y0, y1) of an 8-bit premultiplied RGBA picture resampled
// with Lanczos to another size, in the sRGB values themselves. `rows` holds
// the picture's rows from `rowsTop` on, at least those the target rows read.
std::vector<uint8_t> resizeRows(const uint8_t* rows, int64_t rowsTop, int64_t fromWidth,
                                int64_t fromHeight, ResampleTarget to, int64_t y0, int64_t y1) {
  const auto window = LanczosResampler::window(fromHeight, to.height, y0, y1 - y0);
  FloatImage source(fromWidth, window.count, 4);
  const uint8_t* first = rows + static_cast<size_t>((window.start - rowsTop) * fromWidth) * 4;
  for (size_t i = 0; i < source.data.size(); ++i) source.data[i] = first[i] / 255.0f;
  std::vector<uint8_t> out(static_cast<size_t>(to.width * (y1 - y0)) * 4);
  const LanczosResampler::BandResampler band(source, 0, window.start, fromWidth, fromHeight,
                                             to.width, to.height, 0, y0, to.width, y1 - y0);
#pragma omp parallel
  {
    FloatImage row(to.width, 1, 4);
#pragma omp for schedule(static)
    for (int64_t y = 0; y < y1 - y0; ++y) {
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

std::vector<uint8_t> resizeMosaic(const MosaicImage& from, ResampleTarget to) {
  return resizeRows(from.rgba.data(), 0, from.width, from.height, to, 0, to.height);
}

// Rows of an Exact render in the output converter's 8-bit sRGB, as
// premultiplied RGBA.
std::vector<uint8_t> premultipliedMosaic(const codec::PixelBuffer& rendered) {
  std::vector<uint8_t> mosaic(static_cast<size_t>(rendered.width) * rendered.height * 4);
  const int channels = rendered.channels;
  const int64_t width = rendered.width;
#pragma omp parallel for schedule(static)
  for (int64_t y = 0; y < rendered.height; ++y) {
    const uint8_t* in = rendered.row(static_cast<int>(y));
    uint8_t* out = mosaic.data() + static_cast<size_t>(y * width) * 4;
    for (int64_t x = 0; x < width; ++x) {
      const uint8_t alpha = channels == 4 ? in[x * 4 + 3] : 255;
      for (int c = 0; c < 3; ++c) out[x * 4 + c] = premultiplied(in[x * channels + c], alpha);
      out[x * 4 + 3] = alpha;
    }
  }
  return mosaic;
}

}  // namespace

std::vector<uint8_t> ResampleEngine::exactMosaic(ResampleTarget target) const {
  RenderOutput srgb;
  srgb.keepProfile = false;
  return premultipliedMosaic(exportImage(target, ResampleMethod::exact, srgb));
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
void convertMosaic(const uint8_t* pixels, int64_t width, int64_t x0, int64_t y0,
                   const OutputConverter& converter, codec::PixelBuffer& out) {
  float decode[256];
  for (int v = 0; v < 256; ++v) decode[v] = linearFromSRGB(v / 255.0);
#pragma omp parallel
  {
    FloatImage row(out.width, 1, 4);
#pragma omp for schedule(static)
    for (int y = 0; y < out.height; ++y) {
      const uint8_t* in = pixels + static_cast<size_t>((y0 + y) * width + x0) * 4;
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

// Estimate rows a resized band may leave for the next beyond its row of
// tiles: the few its last target rows' Lanczos taps reach past it.
constexpr int64_t kKeptSlackRows = 64;

// The end of the target rows from `from` on (at most `limit`) that read
// only estimate rows before `finished`.
int64_t determinedRowsEnd(int64_t estimateHeight, int64_t targetHeight, int64_t from, int64_t limit,
                          int64_t finished) {
  if (finished >= estimateHeight) return limit;
  const auto readsUpTo = [&](int64_t y) {
    const auto window = LanczosResampler::window(estimateHeight, targetHeight, y, 1);
    return window.start + window.count;
  };
  int64_t low = from, high = limit;
  while (low < high) {
    const int64_t middle = low + (high - low) / 2;
    if (readsUpTo(middle) > finished)
      high = middle;
    else
      low = middle + 1;
  }
  return low;
}

}  // namespace

int64_t ResampleEngine::estimateBandBytesPerPixel(double scaleX, double scaleY, bool resized) {
  const double sx = std::max(scaleX, 0.0001), sy = std::max(scaleY, 0.0001);
  double bytes = 4 * 4 + 8 + 16.0 / std::min(sy, 1.0);
  if (resized)
    bytes += 16.0 * EstimateEngine::scale * EstimateEngine::scale / (sx * sy) +
             16.0 * EstimateEngine::scale / sy;
  return static_cast<int64_t>(std::ceil(bytes));
}

int64_t ResampleEngine::estimateBandRows(ResampleTarget target, int64_t bandBudget) const {
  const auto [sx, sy] = target.scale(width(), height());
  const bool resized = target.width != width() * EstimateEngine::scale ||
                       target.height != height() * EstimateEngine::scale;
  const int64_t perRow = target.width * estimateBandBytesPerPixel(sx, sy, resized);
  const int64_t budget = bandBudget > 0 ? bandBudget : kEstimateBandBudget;
  return std::min(target.height, std::max<int64_t>(1, budget / std::max<int64_t>(perRow, 1)));
}

void ResampleEngine::streamEstimate(ResampleTarget target, double strength,
                                    const OutputConverter& converter, const BandReceiver& onBand,
                                    const RenderProgress& progress,
                                    const std::atomic<bool>* cancel, int64_t bandBudget) const {
  const ResampleTarget sourceSize{width(), height()};
  const MosaicImage mosaic{sourceSize.width, sourceSize.height, exactMosaic(sourceSize)};
  const int64_t estimateWidth = mosaic.width * EstimateEngine::scale;
  const int64_t estimateHeight = mosaic.height * EstimateEngine::scale;
  const bool resized = estimateWidth != target.width || estimateHeight != target.height;
  strength = EstimateEngine::clampStrength(strength);
  const bool unblended = EstimateEngine::isUnblended(strength);
  const int64_t rowsPerBand = estimateBandRows(target, bandBudget);
  // Exact's pixels as exactMosaic renders them: 8-bit sRGB.
  OutputConverter srgb(codec::ColourSpace::forFrame({}, false), false, m_source.hasAlpha);
  if (!m_source.hasAlpha) srgb.assumeOpaque();
  codec::PixelBuffer band;
  band.allocate(static_cast<int>(target.width), static_cast<int>(rowsPerBand), converter.channels(),
                converter.format());

  // Target rows [y0, y1) from their estimate: blended, converted, handed on.
  const auto handOver = [&](const uint8_t* estimate, int64_t y0, int64_t y1) {
    if (cancel && cancel->load()) throw EngineError::cancelled();
    std::vector<uint8_t> blended;
    const uint8_t* pixels = estimate;
    if (!unblended) {
      const std::vector<uint8_t> exact = premultipliedMosaic(exactRows(target, y0, y1, srgb));
      blended.resize(exact.size());
      const size_t rowBytes = static_cast<size_t>(target.width) * 4;
#pragma omp parallel for schedule(static)
      for (int64_t y = 0; y < y1 - y0; ++y) {
        const size_t at = rowBytes * static_cast<size_t>(y);
        EstimateEngine::blendPixels(estimate + at, exact.data() + at, rowBytes, strength,
                                    blended.data() + at);
      }
      pixels = blended.data();
    }
    band.height = static_cast<int>(y1 - y0);
    band.data.resize(band.rowBytes() * static_cast<size_t>(band.height));
    convertMosaic(pixels, target.width, 0, 0, converter, band);
    onBand(band, y0);
  };

  // Estimate rows from keptTop on that target rows still to come read.
  std::vector<uint8_t> kept;
  int64_t keptTop = 0, next = 0;
  const size_t estimateRowBytes = static_cast<size_t>(estimateWidth) * 4;
  // Room for a row of tiles and the rows it leaves for the next: growing
  // by doubling would hold twice that.
  if (resized)
    kept.reserve(estimateRowBytes *
                 (EstimateEngine::gridStride * EstimateEngine::scale + kKeptSlackRows));
  const auto onRows = [&](const uint8_t* rgba, int64_t firstRow, int64_t count) {
    const int64_t finished = firstRow + count;
    if (!resized) {
      for (int64_t y0 = firstRow; y0 < finished; y0 += rowsPerBand)
        handOver(rgba + estimateRowBytes * static_cast<size_t>(y0 - firstRow), y0,
                 std::min(finished, y0 + rowsPerBand));
      next = finished;
      return;
    }
    kept.insert(kept.end(), rgba, rgba + estimateRowBytes * static_cast<size_t>(count));
    while (next < target.height) {
      const int64_t y1 = determinedRowsEnd(estimateHeight, target.height, next,
                                           std::min(target.height, next + rowsPerBand), finished);
      if (y1 == next) break;
      const auto rows =
          resizeRows(kept.data(), keptTop, estimateWidth, estimateHeight, target, next, y1);
      handOver(rows.data(), next, y1);
      next = y1;
      if (next == target.height) break;
      const int64_t needed = LanczosResampler::window(estimateHeight, target.height, next, 1).start;
      if (needed > keptTop) {
        const auto done = static_cast<ptrdiff_t>(estimateRowBytes * (needed - keptTop));
        kept.erase(kept.begin(), kept.begin() + done);
        keptTop = needed;
      }
    }
  };
  m_estimates->inferRows(mosaic, onRows, progress, cancel);
  if (next != target.height)
    throw EngineError::vImage("resample geometry", kResamplerInvalidParameter);
}

codec::PixelBuffer ResampleEngine::renderEstimate(ResampleTarget target, const RenderOutput& output,
                                                  const OutputConverter& converter,
                                                  const BandReceiver* onBand,
                                                  const RenderProgress& progress,
                                                  const std::atomic<bool>* cancel,
                                                  int64_t bandBudget) const {
  if (!m_estimates) throw EstimateError::modelMissing();
  m_estimates->model();  // a missing model fails before any rendering
  bool cached = false;
  {
    std::lock_guard lock(m_estimate->lock);
    cached = m_estimate->width == target.width && m_estimate->height == target.height;
  }
  codec::PixelBuffer result;
  if (cached) {
    // A preview ran the network at this size: its estimate blends again.
    const auto pixels = blendedEstimate(target, output.estimateStrength, progress, cancel);
    if (cancel && cancel->load()) throw EngineError::cancelled();
    result.allocate(static_cast<int>(target.width), static_cast<int>(target.height),
                    converter.channels(), converter.format());
    convertMosaic(pixels->data(), target.width, 0, 0, converter, result);
    if (!onBand) return result;
    (*onBand)(result, 0);
    return {};
  }
  if (onBand) {
    streamEstimate(target, output.estimateStrength, converter, *onBand, progress, cancel,
                   bandBudget);
    return {};
  }
  result.allocate(static_cast<int>(target.width), static_cast<int>(target.height),
                  converter.channels(), converter.format());
  streamEstimate(
      target, output.estimateStrength, converter,
      [&](const codec::PixelBuffer& rows, int64_t firstRow) {
        std::copy(rows.data.begin(), rows.data.end(), result.row(static_cast<int>(firstRow)));
      },
      progress, cancel, bandBudget);
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
  convertMosaic(pixels->data(), target.width, rect.x, rect.y, converter, tile);
  return tile;
}

}  // namespace tarnbloom
