#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "canvas/canvas.h"
#include "codec/colour_space.h"
#include "codec/pixel_buffer.h"
#include "support/error.h"

namespace tarnbloom::canvas {

// Why a canvas step stopped an export. Every case stops that output before
// anything is written; nothing falls back to an uncropped or scaled result.
class CanvasError : public Error {
 public:
  enum class Case {
    tooLarge,
    cropOutOfBounds,
    cropSizeMismatch,
    previewOutOfDate,
    invalidMode,
    cropNotPreviewed,
    compositingFailed,
  };

  // The reasons previewOutOfDate gives, one per part of a preview context.
  static constexpr std::string_view kDifferentImage = "a different image is open now";
  static constexpr std::string_view kSizeChanged = "the output size changed";
  static constexpr std::string_view kCanvasChanged = "the canvas settings changed";
  static constexpr std::string_view kFormatChanged = "the output format changed";

  static CanvasError tooLarge(int64_t resampledWidth, int64_t resampledHeight, int64_t canvasWidth,
                              int64_t canvasHeight);
  static CanvasError cropOutOfBounds(const CropRect& rect, int64_t resampledWidth,
                                     int64_t resampledHeight);
  static CanvasError cropSizeMismatch(const CropRect& rect, int64_t canvasWidth,
                                      int64_t canvasHeight);
  static CanvasError previewOutOfDate(std::string_view reason);
  static CanvasError invalidMode(std::string mode);
  static CanvasError cropNotPreviewed();
  // `details`: what went wrong underneath; never part of the message.
  static CanvasError compositingFailed(std::string details = {});

  Case errorCase() const { return m_case; }
  // The reason of previewOutOfDate, or the mode text of invalidMode.
  const std::string& text() const { return m_text; }
  std::string description() const override;
  std::string recoverySuggestion() const override;
  std::string details() const override { return m_details; }

 private:
  explicit CanvasError(Case c) : m_case(c) {}
  Case m_case;
  std::string m_text;
  std::string m_details;
  // Sizes and positions, in the order the message names them.
  std::array<int64_t, 6> m_values{};
};

// The padding, in pixels, that centres an image on an exact canvas.
struct ExactPlacement {
  int64_t left = 0, top = 0, right = 0, bottom = 0;
  bool operator==(const ExactPlacement&) const = default;
};

// Where composed pixels go: their colour space, whether the output format
// can keep transparency, and the colour that stands in for transparency
// where it cannot (sRGB components, 0...1).
struct ComposeTarget {
  codec::ColourSpace colourSpace;
  bool keepsAlpha = true;
  std::array<double, 3> flattenSRGB = {1.0, 1.0, 1.0};
};

// Places a rendered image on its canvas. A canvas never scales the image,
// and a crop is cut only when the user confirmed that very crop on that very
// image, size, canvas and format.
class CanvasComposer {
 public:
  struct Applied {
    codec::PixelBuffer image;
    std::optional<Canvas> canvas;      // none when no canvas was applied
    std::optional<CropRect> cropRect;  // the rectangle cut out, for a crop
    ExactPlacement padding;            // zero unless an exact canvas padded
  };

  // Throws tooLarge when the image does not fit; an odd pixel of padding
  // goes to the right and the bottom.
  static ExactPlacement resolveExactPlacement(int64_t resampledWidth, int64_t resampledHeight,
                                              int64_t canvasWidth, int64_t canvasHeight);

  // Throws cropOutOfBounds (checked first) or cropSizeMismatch.
  static void validateCropRect(const CropRect& rect, int64_t resampledWidth,
                               int64_t resampledHeight, int64_t canvasWidth, int64_t canvasHeight);

  // A canvas-sized crop centred on the subject centre (pixels of the
  // resampled image), moved inside the image where it would stick out. A
  // crop larger than the image starts at 0 and fails the crop check. A
  // centre that is not a number counts as the image's centre.
  static CropRect suggestSubjectAwarePlacement(int64_t resampledWidth, int64_t resampledHeight,
                                               int64_t canvasWidth, int64_t canvasHeight,
                                               double subjectCentreX, double subjectCentreY);

  // Composes `image` (8- or 16-bit, 1 to 4 channels, in target.colourSpace)
  // onto `canvas`; no canvas passes it through unchanged. `context` is this
  // export's own preview context, which a crop's confirmation must match.
  // An exact canvas paints its padding with the fill: a colour is converted
  // from sRGB into the output space; transparency (also an absent fill)
  // stays transparent where the format keeps alpha, adding an alpha channel
  // when needed, and is the flatten colour where it does not. A crop cuts
  // the canvas's rectangle; suggested framing the rectangle its canvas
  // carries, else the one the confirmed subject centre gives. Throws
  // CanvasError; nothing is produced then.
  static Applied apply(const std::optional<Canvas>& canvas, codec::PixelBuffer image,
                       const std::optional<CanvasConfirmation>& confirmation,
                       const CanvasPreviewContext& context, const ComposeTarget& target);
};

// Whether a canvas step may run over a batch. An exact canvas follows from
// sizes alone; a crop or suggested framing is confirmed against one image's
// own pixels and is never reused for others.
struct BatchCanvasPolicy {
  struct Decision {
    bool allowed = true;
    std::string title;        // empty when allowed
    std::string explanation;  // empty when allowed
  };
  // Throws invalidMode for a mode outside the enumeration.
  static Decision decide(const std::optional<Canvas>& canvas);
};

}  // namespace tarnbloom::canvas
