#include "export/preflight.h"

#include <cmath>
#include <limits>

#include "encoding/webp_encoder.h"
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
  if (exceedsMemoryAdmission(probe.width, probe.height, size.width, size.height, options.method,
                             format)) {
    result.exception =
        exception(Class::overCodecLimit, Cause::memoryLimit,
                  "Enlarging " + sizeText(probe.width, probe.height) + " to " +
                      sizeText(size.width, size.height) +
                      " needs more memory than this batch allows. Choose a smaller enlargement — a "
                      "different output format will not help.");
    return result;
  }
  result.size = size;
  return result;
}

int64_t estimatedPeakWorkingBytes(int64_t sourceWidth, int64_t sourceHeight, int64_t outputWidth,
                                  int64_t outputHeight, ResampleMethod method,
                                  encoding::ExportFormat format) {
  if (sourceWidth < 1 || sourceHeight < 1 || outputWidth < 1 || outputHeight < 1) return 0;
  const double scaleX = static_cast<double>(outputWidth) / static_cast<double>(sourceWidth);
  const double scaleY = static_cast<double>(outputHeight) / static_cast<double>(sourceHeight);
  const bool fractional = scaleY != std::floor(scaleY) || scaleX != std::floor(scaleX);
  int64_t perPixel = ResampleEngine::workingBytesPerPixel(method, scaleX, scaleY, fractional);
  if (format == encoding::ExportFormat::webp)
    perPixel += encoding::WebPEncoder::encoderScratchBytesPerPixel;
  int64_t bytes = 0;
  if (__builtin_mul_overflow(perPixel, outputWidth, &bytes) ||
      __builtin_mul_overflow(bytes, outputHeight, &bytes))
    return std::numeric_limits<int64_t>::max();
  return bytes;
}

bool exceedsMemoryAdmission(int64_t sourceWidth, int64_t sourceHeight, int64_t outputWidth,
                            int64_t outputHeight, ResampleMethod method,
                            encoding::ExportFormat format) {
  return estimatedPeakWorkingBytes(sourceWidth, sourceHeight, outputWidth, outputHeight, method,
                                   format) > kMemoryAdmissionBytes;
}

}  // namespace tarnbloom::exporting
