// Rendering: the source in linear light, enlarged band by band.

#include <algorithm>
#include <cmath>

#include "engine/clarity_pass.h"
#include "engine/colour_conversion.h"
#include "engine/engine_error.h"
#include "engine/lanczos_resampler.h"
#include "engine/resample_engine.h"

namespace tarnbloom {

ResampleEngine::ResampleEngine(SourceImage source, EstimateEngine* estimates)
    : m_source(std::move(source)), m_estimates(estimates) {
  if (!m_source.bitmap) throw EngineError::vImage("resample geometry", kResamplerInvalidParameter);
  m_upright = m_source.orientation == 1
                  ? m_source.bitmap
                  : std::make_shared<const codec::PixelBuffer>(
                        applyOrientation(*m_source.bitmap, m_source.orientation));
  m_toLinear = std::make_unique<LinearConverter>(*m_upright, m_source.colorSpace);
}

ResampleEngine::~ResampleEngine() = default;
ResampleEngine::ResampleEngine(ResampleEngine&&) noexcept = default;

const FloatImage& ResampleEngine::linear() const {
  std::call_once(m_linear->once, [this] { m_linear->image = m_toLinear->rows(0, height()); });
  return m_linear->image;
}

ResampleTarget ResampleEngine::targetSize(double scale) const {
  return {std::max<int64_t>(1, std::llround(scale * static_cast<double>(width()))),
          std::max<int64_t>(1, std::llround(scale * static_cast<double>(height())))};
}

int ResampleEngine::margin(ResampleMethod method, double scale) {
  return method == ResampleMethod::clarity ? std::max(kMargin, ClarityParams::margin(scale))
                                           : kMargin;
}

float ResampleEngine::sourceNoiseSigma() const {
  std::call_once(m_noise->once, [this] { m_noise->sigma = ClarityPass::estimateNoise(linear()); });
  return m_noise->sigma;
}

int64_t ResampleEngine::bandBudget(ResampleMethod method) {
  return method == ResampleMethod::clarity ? 288'000'000 : 256'000'000;
}

int64_t ResampleEngine::workingBytesPerPixel(ResampleMethod method, double scaleX, double scaleY,
                                             bool fractional) {
  const double s = std::max(scaleY, 0.0001);
  int64_t bytes = fractional ? static_cast<int64_t>(std::ceil(16.0 / s)) + 16 : 16;
  if (method == ResampleMethod::clarity)
    bytes += 24 + static_cast<int64_t>(std::ceil(44.0 / std::max(scaleX * scaleY, 0.0001)));
  return bytes;
}

struct ResampleEngine::BandScratch {
  FloatImage band;
  ClarityPass::Workspace clarity;
};

void ResampleEngine::renderRows(ResampleTarget target, int64_t x0, int64_t width, int64_t y0,
                                int64_t y1, ResampleMethod method, const OutputConverter& converter,
                                codec::PixelBuffer& out, int64_t outRowOffset, BandScratch& scratch,
                                bool whole) const {
  if (method == ResampleMethod::exact) {
    // Nothing here looks beyond an output row's own taps, so no context rows
    // are needed, and each row is converted while it is still in cache
    // instead of going through a float band in memory. Without the whole
    // source in floats, only the source rows the band reads are converted.
    const int64_t sourceWidth = m_upright->width, sourceHeight = m_upright->height;
    FloatImage rows;
    int64_t firstRow = 0;
    if (!whole) {
      const auto span = LanczosResampler::window(sourceHeight, target.height, y0, y1 - y0);
      rows = m_toLinear->rows(span.start, span.count);
      firstRow = span.start;
    }
    const LanczosResampler::BandResampler band(whole ? linear() : rows, 0, firstRow, sourceWidth,
                                               sourceHeight, target.width, target.height, x0, y0,
                                               width, y1 - y0);
#pragma omp parallel
    {
      FloatImage row(width, 1, 4);
#pragma omp for schedule(dynamic, 8)
      for (int64_t y = y0; y < y1; ++y) {
        band.row(y - y0, row.data.data());
        converter.convertRow(row.data.data(), width, out.row(static_cast<int>(y - outRowOffset)));
      }
    }
    return;
  }

  const FloatImage& source = linear();
  const auto [sx, sy] = target.scale(source.width, source.height);
  const int m = margin(method, std::max(sx, sy));
  // The margin counts source rows; Clarity's rounds of back-projection reach
  // that far on either axis, so a tile gets context columns as well.
  const bool clarity = method == ResampleMethod::clarity;
  const int64_t rows = static_cast<int64_t>(std::ceil(m * std::max(sy, 1.0)));
  const int64_t columns = clarity ? static_cast<int64_t>(std::ceil(m * std::max(sx, 1.0))) : 0;
  const int64_t top = std::max<int64_t>(0, y0 - rows);
  const int64_t bottom = std::min<int64_t>(target.height, y1 + rows);
  const int64_t left = std::max<int64_t>(0, x0 - columns);
  const int64_t right = std::min<int64_t>(target.width, x0 + width + columns);
  // Each band reuses the memory of the one before when it fits.
  FloatImage& band = scratch.band;
  try {
    const size_t floats = static_cast<size_t>(right - left) * static_cast<size_t>(bottom - top) * 4;
    if (band.data.capacity() < floats) band = FloatImage();
    band.data.resize(floats);
    band.width = right - left, band.height = bottom - top, band.channels = 4;
  } catch (const std::bad_alloc&) {
    throw EngineError::vImage("resample scratch", kResamplerMemoryAllocationError);
  }
  LanczosResampler::resampleRGBA(source, 0, 0, source.width, source.height, target.width,
                                 target.height, left, top, band);
  const ClarityPass::Plane* luminance = nullptr;
  if (clarity) {
    const BandFrame frame{
        0, 0, left, top, source.width, source.height, target.width, target.height};
    luminance = &ClarityPass::sharpenLuminance(band, frame, source, sourceNoiseSigma(),
                                               BandMapping::global, scratch.clarity);
  }
  // The context is cropped off here: only [x0, x0 + width) × [y0, y1) is
  // stored, and only those rows take Clarity's colour.
#pragma omp parallel for schedule(static)
  for (int64_t y = y0; y < y1; ++y) {
    float* row = band.row(y - top) + (x0 - left) * 4;
    if (clarity)
      ClarityPass::carryColourRow(row, luminance->row(y - top) + (x0 - left), width,
                                  m_source.hasAlpha);
    converter.convertRow(row, width, out.row(static_cast<int>(y - outRowOffset)));
  }
}

codec::PixelBuffer ResampleEngine::exportImage(ResampleTarget target, ResampleMethod method,
                                               const RenderOutput& output,
                                               const RenderProgress& progress,
                                               const std::atomic<bool>* cancel,
                                               int64_t bandBudgetOverride) const {
  return renderExport(target, method, output, nullptr, progress, cancel, bandBudgetOverride);
}

void ResampleEngine::exportBands(ResampleTarget target, ResampleMethod method,
                                 const RenderOutput& output, const BandReceiver& onBand,
                                 const RenderProgress& progress, const std::atomic<bool>* cancel,
                                 int64_t bandBudgetOverride) const {
  renderExport(target, method, output, &onBand, progress, cancel, bandBudgetOverride);
}

codec::PixelBuffer ResampleEngine::renderExport(ResampleTarget target, ResampleMethod method,
                                                const RenderOutput& output,
                                                const BandReceiver* onBand,
                                                const RenderProgress& progress,
                                                const std::atomic<bool>* cancel,
                                                int64_t bandBudgetOverride) const {
  // The ceiling holds for streamed renders too: it bounds what one export
  // may produce, whether or not its pixels are ever held whole.
  const uint64_t bytesPerPixel = output.sixteenBit ? 8 : 4;
  uint64_t pixels = 0, bytes = 0;
  if (target.width < 1 || target.height < 1 ||
      __builtin_mul_overflow(static_cast<uint64_t>(target.width),
                             static_cast<uint64_t>(target.height), &pixels) ||
      __builtin_mul_overflow(pixels, bytesPerPixel, &bytes) || bytes > maxOutputBytes)
    throw EngineError::tooLarge(target.width, target.height, bytes ? bytes : UINT64_MAX);

  // Keeping the profile keeps a grey source grey; sRGB output is RGB.
  const codec::ColourSpace space =
      output.keepProfile ? m_source.colorSpace : codec::ColourSpace::forFrame({}, false);
  OutputConverter converter(space, output.sixteenBit, m_source.hasAlpha && !output.flatten);
  if (output.flatten) converter.setFlatten(*output.flatten);
  if (!m_source.hasAlpha) converter.assumeOpaque();

  if (method == ResampleMethod::estimate)
    return renderEstimate(target, output, converter, onBand, progress, cancel, bandBudgetOverride);

  const auto [sx, sy] = target.scale(width(), height());
  const bool fractional = !target.integralFactor(width(), height()).has_value();
  const int64_t budget = bandBudgetOverride > 0 ? bandBudgetOverride : bandBudget(method);
  const int64_t perRow = target.width * workingBytesPerPixel(method, sx, sy, fractional);
  const int64_t rowsPerBand =
      std::min(target.height, std::max<int64_t>(1, budget / std::max<int64_t>(perRow, 1)));
  const int64_t bands = (target.height + rowsPerBand - 1) / rowsPerBand;

  // Whole: every band goes to its place in the output. Streamed: each band
  // goes into one buffer of a band's rows, reused down the image.
  codec::PixelBuffer result;
  try {
    result.allocate(static_cast<int>(target.width),
                    static_cast<int>(onBand ? rowsPerBand : target.height), converter.channels(),
                    converter.format());
  } catch (const std::exception&) {
    throw EngineError::tooLarge(target.width, target.height, bytes);
  }

  BandScratch scratch;
  for (int64_t b = 0; b < bands; ++b) {
    if (cancel && cancel->load()) throw EngineError::cancelled();
    const int64_t y0 = b * rowsPerBand;
    const int64_t y1 = std::min(target.height, y0 + rowsPerBand);
    renderRows(target, 0, target.width, y0, y1, method, converter, result, onBand ? y0 : 0, scratch,
               false);
    if (onBand) {
      // The last band may be shorter; the buffer keeps its storage.
      result.height = static_cast<int>(y1 - y0);
      result.data.resize(result.rowBytes() * static_cast<size_t>(result.height));
      (*onBand)(result, y0);
    }
    if (progress) progress(b + 1, bands);
  }
  if (cancel && cancel->load()) throw EngineError::cancelled();
  if (onBand) return {};
  return result;
}

codec::PixelBuffer ResampleEngine::exactRows(ResampleTarget target, int64_t y0, int64_t y1,
                                             const OutputConverter& converter) const {
  codec::PixelBuffer rows;
  rows.allocate(static_cast<int>(target.width), static_cast<int>(y1 - y0), converter.channels(),
                converter.format());
  BandScratch scratch;
  renderRows(target, 0, target.width, y0, y1, ResampleMethod::exact, converter, rows, y0, scratch,
             false);
  return rows;
}

codec::PixelBuffer ResampleEngine::previewTile(ResampleTarget target, OutputRect rect,
                                               ResampleMethod method, bool keepProfile,
                                               double estimateStrength,
                                               const RenderProgress& progress,
                                               const std::atomic<bool>* cancel) const {
  if (rect.width < 1 || rect.height < 1 || rect.x < 0 || rect.y < 0 ||
      rect.x + rect.width > target.width || rect.y + rect.height > target.height)
    throw EngineError::vImage("resample geometry", kResamplerInvalidParameter);
  codec::ColourSpace space =
      keepProfile ? m_source.colorSpace : codec::ColourSpace::forFrame({}, false);
  OutputConverter converter(space, false, m_source.hasAlpha);
  if (!m_source.hasAlpha) converter.assumeOpaque();
  if (method == ResampleMethod::estimate)
    return estimateTile(target, rect, converter, estimateStrength, progress, cancel);
  codec::PixelBuffer tile;
  tile.allocate(static_cast<int>(rect.width), static_cast<int>(rect.height), converter.channels(),
                converter.format());
  BandScratch scratch;
  // Tiles of one picture read the same rows again and again: they keep the
  // whole source in floats.
  renderRows(target, rect.x, rect.width, rect.y, rect.y + rect.height, method, converter, tile,
             rect.y, scratch, true);
  return tile;
}

}  // namespace tarnbloom
