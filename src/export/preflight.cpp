#include "export/preflight.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <thread>

#include "encoding/webp_encoder.h"
#include "engine/estimate_engine.h"
#include "engine/resample_engine.h"
#include "support/locale_numbers.h"

namespace tarnbloom::exporting {

namespace {

std::string sizeText(int64_t width, int64_t height) {
  return groupedNumber(width) + " × " + groupedNumber(height);
}

PreflightException exception(PreflightExceptionClass code, PreflightCause cause,
                             std::string explanation) {
  return {code, cause, std::move(explanation)};
}

// The least a target may ask for: the source's side that the size mode
// measures.
int64_t smallestAllowed(const ExportOptions& options, int64_t width, int64_t height) {
  switch (options.sizeMode) {
    case SizeMode::width:
      return width;
    case SizeMode::height:
      return height;
    default:
      return std::max(width, height);
  }
}

}  // namespace

std::string_view rawValue(PreflightExceptionClass code) {
  switch (code) {
    case PreflightExceptionClass::unsupportedFormat:
      return "UNSUPPORTED_FORMAT";
    case PreflightExceptionClass::smallerThanTarget:
      return "SMALLER_THAN_TARGET";
    case PreflightExceptionClass::overCodecLimit:
      return "OVER_CODEC_LIMIT";
    case PreflightExceptionClass::unreadable:
      return "UNREADABLE";
    case PreflightExceptionClass::nameCollision:
      return "NAME_COLLISION";
  }
  return "UNREADABLE";
}

std::string_view rawValue(PreflightCause cause) {
  switch (cause) {
    case PreflightCause::notAnImage:
      return "notAnImage";
    case PreflightCause::unreadable:
      return "unreadable";
    case PreflightCause::targetSmallerThanSource:
      return "targetSmallerThanSource";
    case PreflightCause::codecLimit:
      return "codecLimit";
    case PreflightCause::memoryLimit:
      return "memoryLimit";
    case PreflightCause::dimensionLimit:
      return "dimensionLimit";
    case PreflightCause::folderUnreadable:
      return "folderUnreadable";
  }
  return "unreadable";
}

std::string_view groupLabel(PreflightCause cause) {
  switch (cause) {
    case PreflightCause::notAnImage:
      return "Not a supported image";
    case PreflightCause::unreadable:
      return "Could not be read";
    case PreflightCause::targetSmallerThanSource:
      return "Target smaller than the source";
    case PreflightCause::codecLimit:
      return "Over the format's size limit";
    case PreflightCause::memoryLimit:
      return "Too large for this batch";
    case PreflightCause::dimensionLimit:
      return "Over the pixel limit";
    case PreflightCause::folderUnreadable:
      return "Folder could not be read";
  }
  return "Could not be read";
}

SourceClassification classifySource(const SourceProbe& probe, bool accessible,
                                    const ExportOptions& options, encoding::ExportFormat format,
                                    bool explicit8Bit) {
  using Class = PreflightExceptionClass;
  using Cause = PreflightCause;
  SourceClassification result;
  const bool damaged = !probe.readable && (!probe.notAnImage || probe.knownContainer);
  if (!accessible || damaged) {
    result.exception =
        exception(Class::unreadable, Cause::unreadable,
                  "This image could not be read. It may be damaged, or Tarnbloom may "
                  "not have access to it — choose the folder again.");
    return result;
  }
  if (probe.notAnImage || probe.unsupportedType) {
    result.exception = exception(Class::unsupportedFormat, Cause::notAnImage,
                                 "Not a supported image. Tarnbloom enlarges photos — PNG, JPEG, "
                                 "TIFF, HEIC and WebP.");
    return result;
  }
  if (!probe.supportedFormat) {
    result.exception = exception(Class::unsupportedFormat, Cause::notAnImage,
                                 "Not a supported image. Animated, multi-frame and floating-point "
                                 "sources are not enlarged.");
    return result;
  }
  ResolvedSize size;
  try {
    size =
        options.resolvedSize(probe.width, probe.height, explicit8Bit ? 8 : probe.bitDepth, format);
  } catch (const DimensionError& error) {
    switch (error.errorCase()) {
      case DimensionError::Case::belowSource:
        result.exception =
            exception(Class::smallerThanTarget, Cause::targetSmallerThanSource,
                      "Target " + error.label() + " is smaller than this " +
                          sizeText(probe.width, probe.height) + " source. Choose at least " +
                          groupedNumber(smallestAllowed(options, probe.width, probe.height)) +
                          " px, or downscale it in your other tool — Tarnbloom only enlarges.");
        break;
      case DimensionError::Case::exceedsPixelLimit:
        result.exception = exception(
            Class::overCodecLimit, Cause::dimensionLimit,
            sizeText(error.width(), error.height()) + " is over the " +
                groupedNumber(error.limit()) +
                "-pixel limit for this output. Choose a smaller target size, or an 8-bit output "
                "format.");
        break;
      case DimensionError::Case::invalidValue:
        result.exception = exception(
            Class::unreadable, Cause::unreadable,
            "This image reports a size Tarnbloom cannot use (" + error.description() + ")");
        break;
    }
    return result;
  } catch (const Error& error) {
    result.exception =
        exception(Class::unreadable, Cause::unreadable,
                  "This image could not be prepared for export (" + error.description() + ")");
    return result;
  }
  if (format == encoding::ExportFormat::webp &&
      std::max(size.width, size.height) > encoding::WebPEncoder::maximumDimension) {
    result.exception = exception(
        Class::overCodecLimit, Cause::codecLimit,
        sizeText(size.width, size.height) + " is over WebP’s " +
            std::to_string(encoding::WebPEncoder::maximumDimension) +
            "-pixel limit for one side. Choose a smaller target, or export PNG, JPEG or TIFF "
            "instead.");
    return result;
  }
  if (auto refusal =
          memoryRefusal(probe.width, probe.height, size, options, format, probe.bitDepth)) {
    result.exception = std::move(refusal);
    return result;
  }
  result.size = size;
  return result;
}

std::optional<PreflightException> memoryRefusal(int64_t sourceWidth, int64_t sourceHeight,
                                                const ResolvedSize& size,
                                                const ExportOptions& options,
                                                encoding::ExportFormat format, int sourceBitDepth) {
  if (!exceedsMemoryAdmission(sourceWidth, sourceHeight, size.width, size.height, options.method,
                              format, ExportMemoryShape::of(options, sourceBitDepth)))
    return std::nullopt;
  return exception(PreflightExceptionClass::overCodecLimit, PreflightCause::memoryLimit,
                   "Enlarging " + sizeText(sourceWidth, sourceHeight) + " to " +
                       sizeText(size.width, size.height) +
                       " needs more memory than this batch allows. Choose a smaller enlargement — "
                       "a different output format will not help.");
}

ExportMemoryShape ExportMemoryShape::of(const ExportOptions& options, int sourceBitDepth) {
  ExportMemoryShape shape;
  shape.sourceBitDepth = sourceBitDepth;
  shape.jpegSizeCeiling = options.jpeg.maxBytes.has_value();
  if (options.canvas) shape.canvas = std::pair{options.canvas->width, options.canvas->height};
  shape.threads = static_cast<int>(std::max(1u, std::thread::hardware_concurrency()));
  return shape;
}

namespace {

// Bytes in doubles: the sums below may pass any integer type before they
// are compared with the ceiling.
struct PeakModel {
  double source = 0, output = 0, scaleX = 1, scaleY = 1;
  double outputWidth = 0, outputHeight = 0, sourceWidth = 0, sourceHeight = 0;
  double outputSampleBytes = 3, sourceSampleBytes = 3;
};

// The constants below were measured with bench/memory_admission_bench.sh
// (peak RSS of real exports of photos; see the table it prints).
// The program, its libraries and the decoder helper's reply: the peak of
// an export of a few pixels.
constexpr double kBaseBytes = 18.0 * (1 << 20);
// The Enhance network's weights and the layers of a tile, which its
// allocator keeps for the next tile.
constexpr double kNetworkBytes = 96e6;
// Clarity's float band and planes per pixel of a band with its context.
constexpr double kClarityBytesPerBandPixel = 34;
// PNG cuts its image data into pieces of this many filtered bytes and
// deflates two per thread at a time: each finished piece keeps room for
// its deflated bytes until the group is written, the pieces still running
// hold their filtered rows, and one piece's rows carry over between bands.
constexpr double kPNGPieceBytes = 4 << 20;

double pngScratch(int threads) { return (3.0 * std::max(1, threads) + 1) * kPNGPieceBytes; }
// What stays of them while the next band renders: the carried piece, and
// about three and a half pieces in each worker thread's own heap (a trim
// gives back only the freed pages inside a heap, not its top).
double pngKept(int threads) { return (1 + 3.5 * (std::max(1, threads) - 1)) * kPNGPieceBytes; }

// What an encoder holds besides the picture it is given. Formats that take
// the whole picture make their own converted copies of it (HEIC and AVIF:
// YCbCr planes, the encoder's padded frames and analysis, per pixel) and
// a fixed set of buffers (thread pools, lookahead); the file they build is
// held too. The row writers hold only the file when they write to memory.
struct EncoderCost {
  double fixed = 0, perPixel = 0;
};

EncoderCost wholeEncoderCost(encoding::ExportFormat format, bool jpegCeiling, int threads) {
  switch (format) {
    case encoding::ExportFormat::webp:
      return {0, 7.5};
    case encoding::ExportFormat::heic:
      return {23e6, 18.4};
    case encoding::ExportFormat::avif:
      return {11e6, 21.4};
    case encoding::ExportFormat::png:
      return {pngScratch(threads), 1};
    case encoding::ExportFormat::jpeg:
      // The file: a fraction of a byte per pixel for an enlarged photo. A
      // byte ceiling keeps the best file so far besides the one being
      // tried and the one joined from its blocks.
      return {0, jpegCeiling ? 0.6 : 0.3};
    default:
      return {0, 1};
  }
}

// An Exact or Clarity band: the output rows it converts into, and the
// float buffers the render of those rows holds.
struct Band {
  double rows = 0, converted = 0, working = 0;
};

Band band(const PeakModel& m, ResampleMethod method, bool fractional) {
  const double perPixel = static_cast<double>(
      ResampleEngine::workingBytesPerPixel(method, m.scaleX, m.scaleY, fractional));
  const double budget = static_cast<double>(ResampleEngine::bandBudget(method));
  Band b;
  b.rows = std::min(m.outputHeight, std::max(1.0, std::floor(budget / (m.outputWidth * perPixel))));
  b.converted = b.rows * m.outputWidth * m.outputSampleBytes;
  if (method == ResampleMethod::clarity) {
    // Clarity renders its context rows (the margin, in source rows) with
    // the band.
    const double scale = std::max(m.scaleX, m.scaleY);
    const double context = ResampleEngine::margin(method, scale) * std::max(m.scaleY, 1.0);
    b.working =
        std::min(m.outputHeight, b.rows + 2 * context) * m.outputWidth * kClarityBytesPerBandPixel;
  } else {
    // The horizontal pass keeps the band's source rows at the output's
    // width, and the source rows it reads in floats at the source's width.
    const double sourceRows = std::min(m.sourceHeight, b.rows / m.scaleY + 6);
    b.working = sourceRows * 16 * (m.outputWidth + m.sourceWidth);
  }
  return b;
}

bool streamsToDisk(encoding::ExportFormat format, const ExportMemoryShape& shape) {
  using encoding::ExportFormat;
  if (shape.canvas) return false;
  return format == ExportFormat::png || format == ExportFormat::tiff ||
         (format == ExportFormat::jpeg && !shape.jpegSizeCeiling);
}

// A picture held whole: the picture itself, the canvas composed from it
// beside it, and the encoder working from the composed picture alone.
struct WholePicture {
  double picture = 0, compose = 0, encode = 0;
};
WholePicture wholePicture(const PeakModel& m, const ExportMemoryShape& shape,
                          const EncoderCost& encoder) {
  WholePicture w;
  w.picture = m.output * m.outputSampleBytes;
  double composed = w.picture;
  if (shape.canvas) {
    composed = static_cast<double>(shape.canvas->first) *
               static_cast<double>(shape.canvas->second) * m.outputSampleBytes;
    w.compose = w.picture + composed;
  }
  w.encode = composed + encoder.fixed + composed / m.outputSampleBytes * encoder.perPixel;
  return w;
}

// An Enhance export runs the network a row of tiles at a time: float sums
// for the estimate rows one row of tiles covers, the 8-bit rows it
// finishes, and at another size than ×4 the estimate rows later bands still
// read (about one row of tiles more). Each band of the output holds at most
// the engine's band budget, and no more rows than one row of tiles
// finishes. The source waits as its bitmap and as the network's 8-bit
// input; the network's weights and layers stay with the engine throughout.
// A picture held whole (canvas, JPEG ceiling, whole-picture formats) adds
// itself to the render and then goes to the encoder alone.
double enhancePeak(const PeakModel& m, encoding::ExportFormat format,
                   const ExportMemoryShape& shape, const EncoderCost& encoder) {
  const double scale = EstimateEngine::scale;
  const double estimateWidth = m.sourceWidth * scale;
  const bool resized =
      m.outputWidth != estimateWidth || m.outputHeight != m.sourceHeight * scale;
  const double tileRows = static_cast<double>(EstimateEngine::tileSize) * scale;
  const double finishedRows = static_cast<double>(EstimateEngine::gridStride) * scale;
  const double network =
      estimateWidth * (tileRows * 16 + finishedRows * 4 * (resized ? 2 : 1));
  const double perPixel =
      static_cast<double>(ResampleEngine::estimateBandBytesPerPixel(m.scaleX, m.scaleY, resized));
  const double budgetRows = std::max(
      1.0, std::floor(static_cast<double>(ResampleEngine::kEstimateBandBudget) /
                      (m.outputWidth * perPixel)));
  const double bandRows = std::min(
      {m.outputHeight, budgetRows, std::ceil(finishedRows * m.scaleY / scale) + 1});
  const double band = bandRows * m.outputWidth * perPixel;
  // A resized band's float copies change size from band to band, and the
  // heaps keep some of what they freed (measured: up to about two slacks);
  // a picture held whole is never trimmed between bands, which adds one.
  const bool whole = !streamsToDisk(format, shape);
  const double heaps =
      static_cast<double>(kBandHeapSlackBytes) * ((resized ? 2 : 0) + (whole ? 1 : 0));
  const double fixed = kBaseBytes + kNetworkBytes;
  const double working = m.source * (m.sourceSampleBytes + 4) + network + band + heaps;
  if (!whole) {
    const double encode =
        format == encoding::ExportFormat::png ? pngScratch(shape.threads) : 0;
    return fixed + working + encode;
  }
  const WholePicture w = wholePicture(m, shape, encoder);
  return fixed + std::max({working + w.picture, w.compose, w.encode});
}

double peakBytes(const PeakModel& m, ResampleMethod method, encoding::ExportFormat format,
                 const ExportMemoryShape& shape, bool fractional) {
  const double sourceBitmap = m.source * m.sourceSampleBytes;
  const double linearSource = method == ResampleMethod::exact ? 0 : m.source * 16;
  const EncoderCost encoder = wholeEncoderCost(format, shape.jpegSizeCeiling, shape.threads);
  if (method == ResampleMethod::estimate) return enhancePeak(m, format, shape, encoder);
  const Band b = band(m, method, fractional);
  if (streamsToDisk(format, shape)) {
    // The band's float buffers are given back before the encoder takes the
    // band (export_render trims between the two), so the render and the
    // encoder do not add up; JPEG's and TIFF's own rows are too few to matter.
    // Between bands the heaps may keep some freed memory (export_render
    // gives it back past kBandHeapSlackBytes).
    const bool png = format == encoding::ExportFormat::png;
    const bool bands = b.rows < m.outputHeight;
    const double render = b.working + (png && bands ? pngKept(shape.threads) : 0);
    const double encode = png ? pngScratch(shape.threads) : 0;
    const double kept = bands ? static_cast<double>(kBandHeapSlackBytes) : 0;
    return kBaseBytes + sourceBitmap + linearSource + b.converted + std::max(render, encode) + kept;
  }
  // Held whole: the render converts into the picture band by band; once the
  // source is gone a canvas is composed from it, and the encoder then
  // works from the composed picture alone.
  const WholePicture w = wholePicture(m, shape, encoder);
  const double render = sourceBitmap + linearSource + b.working + w.picture;
  return kBaseBytes + std::max({render, w.compose, w.encode});
}

}  // namespace

int64_t estimatedPeakWorkingBytes(int64_t sourceWidth, int64_t sourceHeight, int64_t outputWidth,
                                  int64_t outputHeight, ResampleMethod method,
                                  encoding::ExportFormat format, const ExportMemoryShape& shape) {
  if (sourceWidth < 1 || sourceHeight < 1 || outputWidth < 1 || outputHeight < 1) return 0;
  PeakModel m;
  m.sourceWidth = static_cast<double>(sourceWidth);
  m.sourceHeight = static_cast<double>(sourceHeight);
  m.outputWidth = static_cast<double>(outputWidth);
  m.outputHeight = static_cast<double>(outputHeight);
  m.source = m.sourceWidth * m.sourceHeight;
  m.output = m.outputWidth * m.outputHeight;
  m.scaleX = m.outputWidth / m.sourceWidth;
  m.scaleY = m.outputHeight / m.sourceHeight;
  const bool wide = shape.sourceBitDepth > 8;
  m.sourceSampleBytes = wide ? 6 : 3;
  m.outputSampleBytes = wide && encoding::supports16Bit(format) ? 6 : 3;
  const bool fractional = m.scaleY != std::floor(m.scaleY) || m.scaleX != std::floor(m.scaleX);
  const double bytes = peakBytes(m, method, format, shape, fractional);
  if (!(bytes < static_cast<double>(std::numeric_limits<int64_t>::max())))
    return std::numeric_limits<int64_t>::max();
  return static_cast<int64_t>(std::ceil(bytes));
}

bool exceedsMemoryAdmission(int64_t sourceWidth, int64_t sourceHeight, int64_t outputWidth,
                            int64_t outputHeight, ResampleMethod method,
                            encoding::ExportFormat format, const ExportMemoryShape& shape) {
  return estimatedPeakWorkingBytes(sourceWidth, sourceHeight, outputWidth, outputHeight, method,
                                   format, shape) > kMemoryAdmissionBytes;
}

}  // namespace tarnbloom::exporting
