#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

namespace tarnbloom::canvas {

// How an enlarged image is placed on a canvas of an exact pixel size.
enum class CanvasMode { exact, crop, subjectAware };

// "exact", "crop", "subject_aware": the form recipes and agent documents use.
std::string_view rawValue(CanvasMode mode);
// nullopt for any other text (matching is exact: "Crop" is not a mode).
std::optional<CanvasMode> canvasModeFromRawValue(std::string_view text);

// What shows where the image does not cover the canvas.
struct CanvasFill {
  enum class Kind { transparent, colour };
  Kind kind = Kind::transparent;
  std::string value;  // "#RRGGBB" for a colour; empty for transparent
  bool operator==(const CanvasFill&) const = default;
};

// A crop's origin and size, in pixels of the resampled image.
struct CropRect {
  int64_t x = 0, y = 0, w = 0, h = 0;
  bool operator==(const CropRect&) const = default;
};

// A canvas as recipes and export options carry it: its mode, its size in
// pixels, an optional fill and, for a crop, the confirmed rectangle.
struct Canvas {
  CanvasMode mode = CanvasMode::exact;
  int64_t width = 0, height = 0;
  std::optional<CanvasFill> fill;
  std::optional<CropRect> cropRect;
  bool operator==(const Canvas&) const = default;
};

// What a crop confirmation is bound to: the very file (its bytes' SHA-256),
// the resampled size, the canvas and the output format. Two contexts
// match only when all of them are equal.
struct CanvasPreviewContext {
  std::string sourceIdentity;  // lower-case hex SHA-256 of the source file
  int64_t resampledWidth = 0, resampledHeight = 0;
  Canvas canvas;
  std::string formatToken;  // "png", "jpeg", ...
  // A text that changes whenever one of the parts above changes.
  std::string fingerprint() const;
  bool operator==(const CanvasPreviewContext&) const = default;
};

// The user's confirmation of a crop (or of suggested framing) as previewed.
struct CanvasConfirmation {
  CanvasPreviewContext context;
  struct Point {
    double x = 0, y = 0;
    bool operator==(const Point&) const = default;
  };
  std::optional<Point> subjectCentre;
  bool operator==(const CanvasConfirmation&) const = default;
};

// The identity a crop confirmation is bound to: the lower-case hex SHA-256
// of the file's bytes, so another file of the same pixel size never passes
// for the one the crop was confirmed on.
struct CanvasSourceIdentity {
  // Throws FileError when the file cannot be read.
  static std::string of(const std::filesystem::path& path);
};

}  // namespace tarnbloom::canvas
