#include "engine/size_mode.h"

namespace tarnbloom {

std::string_view rawValue(SizeMode mode) {
  switch (mode) {
    case SizeMode::x2: return "x2";
    case SizeMode::x4: return "x4";
    case SizeMode::x8: return "x8";
    case SizeMode::longEdge: return "longEdge";
    case SizeMode::width: return "width";
    case SizeMode::height: return "height";
    case SizeMode::boundingBox: return "boundingBox";
    case SizeMode::percent: return "percent";
  }
  return "x2";
}

std::optional<SizeMode> sizeModeFromRawValue(std::string_view raw) {
  for (SizeMode mode : kAllSizeModes)
    if (rawValue(mode) == raw) return mode;
  return std::nullopt;
}

std::optional<SizeMode> sizeModeFromQuickScale(int scale) {
  switch (scale) {
    case 2: return SizeMode::x2;
    case 4: return SizeMode::x4;
    case 8: return SizeMode::x8;
  }
  return std::nullopt;
}

std::string_view title(SizeMode mode) {
  switch (mode) {
    case SizeMode::x2: return "2×";
    case SizeMode::x4: return "4×";
    case SizeMode::x8: return "8×";
    case SizeMode::longEdge: return "Longest side";
    case SizeMode::width: return "Exact width";
    case SizeMode::height: return "Exact height";
    case SizeMode::boundingBox: return "Fit within";
    case SizeMode::percent: return "Enlarge by %";
  }
  return {};
}

std::string_view unit(SizeMode mode) { return mode == SizeMode::percent ? "%" : "px"; }

std::string_view explanation(SizeMode mode) {
  switch (mode) {
    case SizeMode::x2:
    case SizeMode::x4:
    case SizeMode::x8: return "Multiplies the photo's size; both sides grow by the same factor.";
    case SizeMode::longEdge: return "Makes the longest side this many pixels; the other side follows.";
    case SizeMode::width: return "Makes the photo exactly this wide; the height follows.";
    case SizeMode::height: return "Makes the photo exactly this tall; the width follows.";
    case SizeMode::boundingBox: return "Largest size that fits inside this width × height, no cropping.";
    case SizeMode::percent: return "400 % = 4×; both sides grow by the same factor.";
  }
  return {};
}

std::optional<double> quickFactor(SizeMode mode) {
  switch (mode) {
    case SizeMode::x2: return 2.0;
    case SizeMode::x4: return 4.0;
    case SizeMode::x8: return 8.0;
    default: return std::nullopt;
  }
}

bool takesSingleValue(SizeMode mode) {
  return mode == SizeMode::longEdge || mode == SizeMode::width || mode == SizeMode::height ||
         mode == SizeMode::percent;
}

bool takesBoundingBox(SizeMode mode) { return mode == SizeMode::boundingBox; }

}  // namespace tarnbloom
