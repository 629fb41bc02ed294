#include "engine/dimension_resolver.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <cstdlib>

#include "support/locale_numbers.h"

namespace tarnbloom {

DimensionError DimensionError::belowSource(std::string label, int64_t sourceWidth, int64_t sourceHeight) {
  DimensionError e(Case::belowSource);
  e.m_text = std::move(label);
  e.m_a = sourceWidth;
  e.m_b = sourceHeight;
  return e;
}

DimensionError DimensionError::invalidValue(std::string message) {
  DimensionError e(Case::invalidValue);
  e.m_text = std::move(message);
  return e;
}

DimensionError DimensionError::exceedsPixelLimit(int64_t width, int64_t height, int64_t limit) {
  DimensionError e(Case::exceedsPixelLimit);
  e.m_a = width;
  e.m_b = height;
  e.m_c = limit;
  return e;
}

std::string DimensionError::description() const {
  switch (m_case) {
    case Case::belowSource:
      return "SIZE-DOWNSCALE — " + m_text + " is smaller than the source (" + groupedNumber(m_a) +
             " × " + groupedNumber(m_b) + ").";
    case Case::invalidValue: return m_text;
    case Case::exceedsPixelLimit:
      return "SIZE-EXCEED — " + groupedNumber(m_a) + " × " + groupedNumber(m_b) + " exceeds the " +
             groupedNumber(m_c) + "-pixel limit for this output.";
  }
  return m_text;
}

std::string DimensionError::recoverySuggestion() const {
  switch (m_case) {
    case Case::belowSource:
      return "Tarnbloom enlarges; it does not resample down. Choose a size at or above the source, "
             "or use a photo editor to shrink it.";
    case Case::invalidValue: return {};
    case Case::exceedsPixelLimit:
      return "Choose a smaller target size, or an 8-bit output format, to stay under the "
             "pixel-count limit.";
  }
  return {};
}

namespace DimensionResolver {
namespace {

std::string plainInteger(double value) {
  char text[64];
  std::snprintf(text, sizeof text, "%.0f", value);
  return text;
}

// The shortest decimal text that reads back as the same double.
std::string shortestDecimal(double value) {
  char text[64];
  const auto result = std::to_chars(text, text + sizeof text, value);
  return std::string(text, result.ptr);
}

double integerPixels(double value, const std::string& label) {
  if (!std::isfinite(value) || value <= 0 || value != std::floor(value))
    throw DimensionError::invalidValue(label + " must be a whole number of pixels greater than zero.");
  if (value > static_cast<double>(kMaxSide))
    throw DimensionError::invalidValue(label + " must be no greater than " + groupedNumber(kMaxSide) + " px.");
  return value;
}

ResolvedSize withinCeiling(ResolvedSize size, int bitDepth, const std::optional<std::string>& format,
                           bool explicit8Bit) {
  const int64_t limit = pixelCeiling(bitDepth, format, explicit8Bit);
  int64_t pixels = 0;
  if (__builtin_mul_overflow(size.width, size.height, &pixels) || pixels > limit)
    throw DimensionError::exceedsPixelLimit(size.width, size.height, limit);
  return size;
}

}  // namespace

int64_t roundHalfAway(double value) {
  if (!std::isfinite(value) || value > static_cast<double>(kMaxSide))
    throw DimensionError::invalidValue("Resolved dimension must be a finite value no greater than " +
                                       groupedNumber(kMaxSide) + " px.");
  return std::max<int64_t>(1, static_cast<int64_t>(std::floor(value + 0.5)));
}

int64_t pixelCeiling(int bitDepth, const std::optional<std::string>& outputFormat, bool explicit8Bit) {
  std::string format = outputFormat.value_or("");
  std::transform(format.begin(), format.end(), format.begin(), [](unsigned char c) { return std::tolower(c); });
  const bool sixteenBitFormat =
      format == "png" || format == "tiff" || format == "tif" || format == "avif" || format == "heic";
  return bitDepth == 16 && sixteenBitFormat && !explicit8Bit ? kPixelCeiling16Bit : kPixelCeiling;
}

ResolvedSize resolve(int64_t sourceWidth, int64_t sourceHeight, SizeMode mode, double value,
                     double boxWidth, double boxHeight, int bitDepth,
                     const std::optional<std::string>& outputFormat, bool explicit8Bit) {
  const double w = static_cast<double>(sourceWidth);
  const double h = static_cast<double>(sourceHeight);
  ResolvedSize size;
  switch (mode) {
    case SizeMode::x2:
    case SizeMode::x4:
    case SizeMode::x8: {
      const double f = *quickFactor(mode);
      size = {roundHalfAway(f * w), roundHalfAway(f * h), f, false};
      break;
    }
    case SizeMode::longEdge: {
      const double v = integerPixels(value, "Long edge");
      const double longest = std::max(w, h);
      if (longest > v) throw DimensionError::belowSource(plainInteger(v) + " px", sourceWidth, sourceHeight);
      const double s = v / longest;
      if (h <= w)
        size = {static_cast<int64_t>(v), roundHalfAway(s * h), s, s == 1.0};
      else
        size = {roundHalfAway(s * w), static_cast<int64_t>(v), s, s == 1.0};
      break;
    }
    case SizeMode::width: {
      const double v = integerPixels(value, "Width");
      if (v < w) throw DimensionError::belowSource(plainInteger(v) + " px wide", sourceWidth, sourceHeight);
      const double s = v / w;
      size = {static_cast<int64_t>(v), roundHalfAway(s * h), s, s == 1.0};
      break;
    }
    case SizeMode::height: {
      const double v = integerPixels(value, "Height");
      if (v < h) throw DimensionError::belowSource(plainInteger(v) + " px tall", sourceWidth, sourceHeight);
      const double s = v / h;
      size = {roundHalfAway(s * w), static_cast<int64_t>(v), s, s == 1.0};
      break;
    }
    case SizeMode::boundingBox: {
      const double bw = integerPixels(boxWidth, "Bounding-box width");
      const double bh = integerPixels(boxHeight, "Bounding-box height");
      const double sw = bw / w, sh = bh / h;
      const double s = sh < sw ? sh : sw;
      if (s < 1)
        throw DimensionError::belowSource(plainInteger(bw) + " × " + plainInteger(bh), sourceWidth,
                                          sourceHeight);
      size = {roundHalfAway(s * w), roundHalfAway(s * h), s, s == 1.0};
      break;
    }
    case SizeMode::percent: {
      if (!std::isfinite(value) || value <= 0)
        throw DimensionError::invalidValue("Percent must be a finite number greater than zero.");
      const double s = value / 100;
      if (s < 1)
        throw DimensionError::belowSource(plainInteger(std::round(value)) + "%", sourceWidth, sourceHeight);
      size = {roundHalfAway(s * w), roundHalfAway(s * h), s, s == 1.0};
      break;
    }
    default:
      std::fprintf(stderr, "quickFactor modes handled above\n");
      std::abort();
  }
  return withinCeiling(size, bitDepth, outputFormat, explicit8Bit);
}

ResolvedSize resolveScaleFactor(int64_t sourceWidth, int64_t sourceHeight, double factor, int bitDepth,
                                const std::optional<std::string>& outputFormat, bool explicit8Bit) {
  if (!std::isfinite(factor) || factor <= 0)
    throw DimensionError::invalidValue("Scale factor must be a finite number greater than zero.");
  if (factor < 1.0)
    throw DimensionError::belowSource(shortestDecimal(factor) + "×", sourceWidth, sourceHeight);
  const ResolvedSize size{roundHalfAway(factor * static_cast<double>(sourceWidth)),
                          roundHalfAway(factor * static_cast<double>(sourceHeight)), factor, factor == 1.0};
  return withinCeiling(size, bitDepth, outputFormat, explicit8Bit);
}

}  // namespace DimensionResolver
}  // namespace tarnbloom
