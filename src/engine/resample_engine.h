#pragma once

#include <atomic>
#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>

#include "codec/pixel_buffer.h"
#include "engine/float_image.h"
#include "engine/resample_method.h"
#include "engine/source_image.h"
#include "support/sealed_bytes.h"

namespace tarnbloom {

class EstimateEngine;
class LinearConverter;
class OutputConverter;

// How a render's result is to be stored.
struct RenderOutput {
  // Keep the source's colour space (grey stays grey); else sRGB.
  bool keepProfile = true;
  bool sixteenBit = false;
  // Composite onto this linear sRGB colour instead of keeping alpha.
  std::optional<std::array<float, 3>> flatten;
  // How much of the AI estimate an Enhance render keeps (0.1 ... 1.0).
  double estimateStrength = 0.5;
};

// Called with (done, total) bands; and polled between bands.
using RenderProgress = std::function<void(int64_t done, int64_t total)>;

// Receives one finished band of an export: output rows [firstRow,
// firstRow + rows.height), all of the output's width. The buffer is reused
// for the next band, so a receiver keeps what it needs before returning.
using BandReceiver = std::function<void(const codec::PixelBuffer& rows, int64_t firstRow)>;

// A rectangle of the output, in output pixels.
struct OutputRect {
  int64_t x = 0, y = 0, width = 0, height = 0;
};

// The imaging engine: one per loaded source. The source in linear light is
// built on first need (previews, Clarity, Enhance) and kept; Exact exports
// convert only the source rows each band reads, so they never hold the
// source in floats. Renders only read the engine, so previews and an export
// may run at once. The static entry points are free functions of
// their arguments and may run on any thread.
class ResampleEngine {
 public:
  static constexpr int kMargin = 6;
  static constexpr uint64_t maxOutputBytes = 1'600'000'000;

  // Prepares the conversion of the upright source to premultiplied
  // extended linear sRGB. Enhance renders run on `estimates`; without one they fail as a
  // missing model would.
  explicit ResampleEngine(SourceImage source, EstimateEngine* estimates = nullptr);

  const SourceImage& source() const { return m_source; }
  ~ResampleEngine();
  ResampleEngine(ResampleEngine&&) noexcept;

  // The upright source in the working format, converted on first use (from
  // any thread) and kept.
  const FloatImage& linear() const;
  // The upright source's size.
  int64_t width() const { return m_upright->width; }
  int64_t height() const { return m_upright->height; }
  // Noise level of the source's linear luminance, estimated on first use
  // (from any thread) and kept.
  float sourceNoiseSigma() const;

  ResampleTarget targetSize(double scale) const;

  // The full-size render of an export. Throws EngineError: tooLarge before
  // anything is rendered, cancelled when `cancel` is set between bands
  // (nothing is returned), vImage for resampler failures.
  codec::PixelBuffer exportImage(ResampleTarget target, ResampleMethod method,
                                 const RenderOutput& output, const RenderProgress& progress = {},
                                 const std::atomic<bool>* cancel = nullptr,
                                 int64_t bandBudgetOverride = 0) const;

  // The same render handed to `onBand` band by band, top to bottom, so the
  // whole output is never held: the pixels are those exportImage returns.
  // Enhance hands over bands as its network's rows of tiles finish them
  // (or, after a preview at this size, the whole picture as one band).
  // Throws as exportImage does, and whatever `onBand` throws (no further
  // band is rendered then).
  void exportBands(ResampleTarget target, ResampleMethod method, const RenderOutput& output,
                   const BandReceiver& onBand, const RenderProgress& progress = {},
                   const std::atomic<bool>* cancel = nullptr, int64_t bandBudgetOverride = 0) const;

  // Only `rect` of the output at `target` size, 8 bits, for the compare view:
  // the same pixels the export writes there. Enhance renders the estimate
  // at `estimateStrength` (running the network once per target size; a new
  // strength only blends again) or throws, never anything else. `progress`
  // and `cancel` reach the network's tiles: a cancelled run throws
  // EngineError cancelled and leaves nothing cached.
  codec::PixelBuffer previewTile(ResampleTarget target, OutputRect rect, ResampleMethod method,
                                 bool keepProfile, double estimateStrength = 0.5,
                                 const RenderProgress& progress = {},
                                 const std::atomic<bool>* cancel = nullptr) const;

  // Source rows of context each band renders above and below itself (and
  // columns beside a tile, for Clarity).
  static int margin(ResampleMethod method, double scale);
  static int64_t bandBudget(ResampleMethod method);
  static int64_t workingBytesPerPixel(ResampleMethod method, double scaleX, double scaleY,
                                      bool fractional);
  // An Enhance export's bands hold at most this many bytes, at this many
  // per target pixel (at `scaleX` × `scaleY` of the source; `resized`: the
  // target is not the network's ×4): its estimate, Exact's render, their
  // blend and the converted output (8 bits each, 16 for the output), the
  // float rows Exact resamples from, and for a resized estimate the float
  // copy of the estimate rows it reads and their horizontal pass.
  static constexpr int64_t kEstimateBandBudget = 64'000'000;
  static int64_t estimateBandBytesPerPixel(double scaleX, double scaleY, bool resized);

  // Reads the file once, hashes those bytes and decodes frame 0 from them.
  // Throws EngineError: unreadable, unsupportedFormat (GIF), multiFrame,
  // animatedWebP, unsupportedDepth; FileError when the file cannot be
  // read at all (no permission, an I/O error).
  static SourceImage load(const std::filesystem::path& url);
  // The same for bytes already read and sealed; `url` names them.
  static SourceImage load(const std::filesystem::path& url, const SealedBytes& bytes);

  // The single depth rule shared by probe and load: 8 or 16, or none.
  static std::optional<int> normalizedDepth(int nativeDepth, bool isFloat);

  // Throws SourceProtectionError when `destination` is the source itself, or
  // when the source's bytes no longer hash to what was loaded.
  static void validateDestination(const std::filesystem::path& destination,
                                  const SourceImage& source);

  // Whether two paths name the same file (same inode when both exist, else
  // the same normalised absolute path).
  static bool isSourceDestination(const std::filesystem::path& destination,
                                  const std::filesystem::path& source);

  // Draws a bitmap upright for EXIF orientation 1...8; throws EngineError
  // (vImage, "orientation") for any other value.
  static codec::PixelBuffer applyOrientation(const codec::PixelBuffer& image, uint32_t orientation);

 private:
  // The Enhance render: the ×4 estimate of the source, resized to the
  // target and blended with the Exact render, then converted like any other;
  // whole, or band by band to `onBand` (nothing returned then). Streamed
  // unless a preview left the estimate at this size in the cache.
  codec::PixelBuffer renderEstimate(ResampleTarget target, const RenderOutput& output,
                                    const OutputConverter& converter, const BandReceiver* onBand,
                                    const RenderProgress& progress, const std::atomic<bool>* cancel,
                                    int64_t bandBudget) const;
  // The Enhance render handed to `onBand` as each row of the network's tiles
  // finishes the target rows it decides; neither the estimate nor Exact's
  // render is held whole. The pixels are those of the cached path.
  void streamEstimate(ResampleTarget target, double strength, const OutputConverter& converter,
                      const BandReceiver& onBand, const RenderProgress& progress,
                      const std::atomic<bool>* cancel, int64_t bandBudget) const;
  // Target rows per band of streamEstimate: as many as `bandBudget` bytes
  // hold (kEstimateBandBudget when not positive).
  int64_t estimateBandRows(ResampleTarget target, int64_t bandBudget) const;
  // Target rows [y0, y1) of the Exact render through `converter`.
  codec::PixelBuffer exactRows(ResampleTarget target, int64_t y0, int64_t y1,
                               const OutputConverter& converter) const;
  // `rect` of the Enhance render at `target`, from the cached estimate.
  codec::PixelBuffer estimateTile(ResampleTarget target, OutputRect rect,
                                  const OutputConverter& converter, double strength,
                                  const RenderProgress& progress,
                                  const std::atomic<bool>* cancel) const;
  // The Exact render at `target` as 8-bit premultiplied sRGB RGBA.
  std::vector<uint8_t> exactMosaic(ResampleTarget target) const;
  // The estimate at `target` blended with Exact at `strength`, as 8-bit
  // premultiplied sRGB RGBA, from the cache when it holds that size.
  std::shared_ptr<const std::vector<uint8_t>> blendedEstimate(
      ResampleTarget target, double strength, const RenderProgress& progress,
      const std::atomic<bool>* cancel) const;
  // The band loop of exportImage (`onBand` null: the whole output is
  // returned) and exportBands (each band goes to `onBand`; nothing returned).
  codec::PixelBuffer renderExport(ResampleTarget target, ResampleMethod method,
                                  const RenderOutput& output, const BandReceiver* onBand,
                                  const RenderProgress& progress, const std::atomic<bool>* cancel,
                                  int64_t bandBudgetOverride) const;
  // Renders output columns [x0, x0+width) of rows [y0, y1) with margin rows
  // of context into floats, and converts them into `out`, output row y
  // going to out row y - outRowOffset. `scratch` carries buffers from one
  // band of a render to the next.
  // `whole`: read the source from linear() rather than converting the rows
  // the band reads (Exact only; the pixels are the same either way).
  struct BandScratch;
  void renderRows(ResampleTarget target, int64_t x0, int64_t width, int64_t y0, int64_t y1,
                  ResampleMethod method, const OutputConverter& converter, codec::PixelBuffer& out,
                  int64_t outRowOffset, BandScratch& scratch, bool whole) const;

  struct LinearCache {
    std::once_flag once;
    FloatImage image;
  };
  struct NoiseEstimate {
    std::once_flag once;
    float sigma = 0;
  };
  // The Enhance estimate at one target size, the Exact render it blends
  // with, and the last blend: a preview that changes only the strength, or
  // the export after a preview, does not run the network again.
  struct EstimateCache {
    std::mutex lock;
    int64_t width = 0, height = 0;
    std::vector<uint8_t> estimate, exact;
    double strength = -1;
    std::shared_ptr<const std::vector<uint8_t>> blended;
  };

  SourceImage m_source;
  EstimateEngine* m_estimates = nullptr;
  // The upright bitmap: the source's own when it needs no turning.
  std::shared_ptr<const codec::PixelBuffer> m_upright;
  std::unique_ptr<LinearConverter> m_toLinear;
  std::unique_ptr<LinearCache> m_linear = std::make_unique<LinearCache>();
  std::unique_ptr<NoiseEstimate> m_noise = std::make_unique<NoiseEstimate>();
  std::unique_ptr<EstimateCache> m_estimate = std::make_unique<EstimateCache>();
};

}  // namespace tarnbloom
