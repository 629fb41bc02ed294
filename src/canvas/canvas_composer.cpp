#include "canvas/canvas_composer.h"

#include <lcms2.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>
#include <new>
#include <type_traits>
#include <vector>

#include "engine/dimension_resolver.h"
#include "support/c_handle.h"
#include "support/locale_numbers.h"

namespace tarnbloom::canvas {
namespace {

using codec::ColourSpace;
using codec::PixelBuffer;
using codec::SampleFormat;
using Profile = CHandle<void, cmsCloseProfile>;
using Transform = CHandle<void, cmsDeleteTransform>;
using ToneCurve = CHandle<cmsToneCurve, cmsFreeToneCurve>;

constexpr std::string_view kNothingExported = ", so nothing was exported.";
constexpr std::string_view kCheckCropAgain =
    "Open Canvas again, check the region against this image and size, then confirm.";
constexpr std::string_view kConfirmCrop = "Open the crop preview, confirm the region, then export.";

std::string sizeText(int64_t width, int64_t height) {
  return groupedNumber(width) + "×" + groupedNumber(height);
}

// ---- Colour ---------------------------------------------------------------

// The profile of the rendered pixels. Untagged pixels are what the renderer
// writes for them: sRGB, or grey with gamma 2.2.
Profile outputProfile(const ColourSpace& space) {
  const bool grey = space.model == ColourSpace::Model::grey;
  Profile profile;
  if (!space.iccProfile.empty()) {
    profile.reset(cmsOpenProfileFromMem(space.iccProfile.data(),
                                        static_cast<cmsUInt32Number>(space.iccProfile.size())));
    // A profile of the wrong model would give the fill a meaningless colour.
    if (profile && cmsGetColorSpace(profile.get()) != (grey ? cmsSigGrayData : cmsSigRgbData))
      profile.reset();
  } else if (grey) {
    ToneCurve gamma(cmsBuildGamma(nullptr, 2.2));
    if (gamma) profile.reset(cmsCreateGrayProfile(cmsD50_xyY(), gamma.get()));
  } else {
    profile.reset(cmsCreate_sRGBProfile());
  }
  if (!profile) throw CanvasError::compositingFailed("the output colour profile could not be read");
  return profile;
}

// An sRGB colour in the output space: one grey value or three components,
// 0...1. Colours outside the space's gamut are clipped to its edge.
std::vector<double> colourInSpace(const std::array<double, 3>& srgb, const ColourSpace& space) {
  const bool grey = space.model == ColourSpace::Model::grey;
  Profile from(cmsCreate_sRGBProfile());
  Profile to = outputProfile(space);
  if (!from) throw CanvasError::compositingFailed("sRGB is unavailable");
  Transform transform(cmsCreateTransform(from.get(), TYPE_RGB_DBL, to.get(),
                                         grey ? TYPE_GRAY_DBL : TYPE_RGB_DBL,
                                         INTENT_RELATIVE_COLORIMETRIC, cmsFLAGS_NOCACHE));
  if (!transform) throw CanvasError::compositingFailed("the fill colour could not be converted");
  std::array<double, 3> out{};
  cmsDoTransform(transform.get(), srgb.data(), out.data(), 1);
  std::vector<double> components(out.begin(), out.begin() + (grey ? 1 : 3));
  for (double& v : components) {
    if (!std::isfinite(v))
      throw CanvasError::compositingFailed("the fill colour could not be converted");
    v = std::clamp(v, 0.0, 1.0);
  }
  return components;
}

std::optional<std::array<double, 3>> parseHexColour(std::string_view text) {
  if (text.size() != 7 || text[0] != '#') return std::nullopt;
  auto digit = [](char c) -> int {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
  };
  std::array<double, 3> rgb{};
  for (int i = 0; i < 3; ++i) {
    const int hi = digit(text[1 + 2 * i]), lo = digit(text[2 + 2 * i]);
    if (hi < 0 || lo < 0) return std::nullopt;
    rgb[i] = (hi * 16 + lo) / 255.0;
  }
  return rgb;
}

// ---- Pixels ---------------------------------------------------------------

void checkImage(const PixelBuffer& image, const ColourSpace& space) {
  if (image.width < 1 || image.height < 1 || image.channels < 1 || image.channels > 4)
    throw CanvasError::compositingFailed("the rendered image has no pixels");
  if (image.format == SampleFormat::float32)
    throw CanvasError::compositingFailed("floating-point pixels cannot be composed");
  if (image.data.size() != image.rowBytes() * static_cast<size_t>(image.height))
    throw CanvasError::compositingFailed("the rendered image's pixels are incomplete");
  if (image.isGrey() != (space.model == ColourSpace::Model::grey))
    throw CanvasError::compositingFailed("the pixels do not match the output colour space");
}

// Refuses a canvas the output could never hold before any memory is taken:
// the same ceilings every rendered output is held to.
PixelBuffer allocateCanvas(int64_t width, int64_t height, int channels, SampleFormat format) {
  const int64_t ceiling = format == SampleFormat::uint16 ? DimensionResolver::kPixelCeiling16Bit
                                                         : DimensionResolver::kPixelCeiling;
  int64_t pixels = 0;
  if (width < 1 || height < 1 || width > codec::kMaxSourceSide || height > codec::kMaxSourceSide ||
      __builtin_mul_overflow(width, height, &pixels) || pixels > ceiling ||
      pixels > codec::kMaxSourcePixels)
    throw CanvasError::compositingFailed("a canvas of " + sizeText(width, height) +
                                         " pixels is larger than an output may be");
  PixelBuffer buffer;
  try {
    buffer.allocate(static_cast<int>(width), static_cast<int>(height), channels, format);
  } catch (const std::bad_alloc&) {
    throw CanvasError::compositingFailed("not enough memory for a canvas of " +
                                         sizeText(width, height) + " pixels");
  }
  return buffer;
}

// What the padding is painted with: colour samples (0...1) and whether
// the padding is transparent.
struct Paint {
  std::vector<double> colour;
  bool transparent = false;
};

Paint resolvePaint(const std::optional<CanvasFill>& fill, const ComposeTarget& target) {
  const bool grey = target.colourSpace.model == ColourSpace::Model::grey;
  const bool colourFill = fill && fill->kind == CanvasFill::Kind::colour;
  if (fill && !colourFill && fill->kind != CanvasFill::Kind::transparent)
    throw CanvasError::compositingFailed("the canvas fill is neither a colour nor transparent");
  if (!colourFill && target.keepsAlpha) return {std::vector<double>(grey ? 1 : 3, 0.0), true};

  std::array<double, 3> srgb = target.flattenSRGB;
  if (colourFill) {
    const auto parsed = parseHexColour(fill->value);
    if (!parsed)
      throw CanvasError::compositingFailed("the fill colour “" + fill->value + "” is not #RRGGBB");
    srgb = *parsed;
  }
  for (const double v : srgb)
    if (!(v >= 0.0 && v <= 1.0))
      throw CanvasError::compositingFailed("the flatten colour is outside 0...1");
  return {colourInSpace(srgb, target.colourSpace), false};
}

template <typename T>
std::vector<uint8_t> pixelPattern(const Paint& paint, int channels) {
  constexpr double kMax = std::is_same_v<T, uint8_t> ? 255.0 : 65535.0;
  std::vector<T> samples(static_cast<size_t>(channels));
  const int colourChannels = channels == 2 || channels == 4 ? channels - 1 : channels;
  for (int c = 0; c < colourChannels; ++c)
    samples[c] = static_cast<T>(std::lround(paint.colour[c] * kMax));
  if (colourChannels != channels) samples.back() = paint.transparent ? T{0} : static_cast<T>(kMax);
  std::vector<uint8_t> bytes(samples.size() * sizeof(T));
  std::memcpy(bytes.data(), samples.data(), bytes.size());
  return bytes;
}

// Copies one image row into a row with one more channel, fully opaque.
template <typename T>
void copyRowAddingAlpha(const uint8_t* in, uint8_t* out, int width, int channels) {
  constexpr T kOpaque = std::numeric_limits<T>::max();
  const T* src = reinterpret_cast<const T*>(in);
  T* dst = reinterpret_cast<T*>(out);
  for (int x = 0; x < width; ++x) {
    for (int c = 0; c < channels; ++c) *dst++ = *src++;
    *dst++ = kOpaque;
  }
}

PixelBuffer padImage(const PixelBuffer& image, const ExactPlacement& padding, int64_t canvasWidth,
                     int64_t canvasHeight, const Paint& paint) {
  const bool addAlpha = paint.transparent && !image.hasAlpha();
  const int channels = image.channels + (addAlpha ? 1 : 0);
  PixelBuffer canvas = allocateCanvas(canvasWidth, canvasHeight, channels, image.format);

  const bool wide = image.format == SampleFormat::uint16;
  const std::vector<uint8_t> pixel =
      wide ? pixelPattern<uint16_t>(paint, channels) : pixelPattern<uint8_t>(paint, channels);
  // One whole row of fill; every stretch of padding is a slice of it.
  std::vector<uint8_t> fillRow(canvas.rowBytes());
  for (size_t offset = 0; offset < fillRow.size(); offset += pixel.size())
    std::memcpy(fillRow.data() + offset, pixel.data(), pixel.size());

  const size_t pixelBytes = pixel.size();
  const size_t leftBytes = static_cast<size_t>(padding.left) * pixelBytes;
  const size_t imageBytes = static_cast<size_t>(image.width) * pixelBytes;
  const size_t rightBytes = static_cast<size_t>(padding.right) * pixelBytes;
  for (int y = 0; y < canvas.height; ++y) {
    uint8_t* out = canvas.row(y);
    const int64_t imageY = y - padding.top;
    if (imageY < 0 || imageY >= image.height) {
      std::memcpy(out, fillRow.data(), fillRow.size());
      continue;
    }
    std::memcpy(out, fillRow.data(), leftBytes);
    const uint8_t* in = image.row(static_cast<int>(imageY));
    if (!addAlpha)
      std::memcpy(out + leftBytes, in, imageBytes);
    else if (wide)
      copyRowAddingAlpha<uint16_t>(in, out + leftBytes, image.width, image.channels);
    else
      copyRowAddingAlpha<uint8_t>(in, out + leftBytes, image.width, image.channels);
    std::memcpy(out + leftBytes + imageBytes, fillRow.data(), rightBytes);
  }
  return canvas;
}

PixelBuffer cutOut(const PixelBuffer& image, const CropRect& rect) {
  PixelBuffer crop = allocateCanvas(rect.w, rect.h, image.channels, image.format);
  const size_t pixelBytes = static_cast<size_t>(image.channels) * image.bytesPerSample();
  const size_t offset = static_cast<size_t>(rect.x) * pixelBytes;
  for (int y = 0; y < crop.height; ++y)
    std::memcpy(crop.row(y), image.row(static_cast<int>(rect.y) + y) + offset, crop.rowBytes());
  return crop;
}

// ---- Confirmation ---------------------------------------------------------

// The confirmed context must match this export's context, and both must
// describe what is really being composed. The first part that differs
// names the reason.
void checkConfirmation(const std::optional<CanvasConfirmation>& confirmation,
                       const CanvasPreviewContext& context, const Canvas& canvas,
                       const PixelBuffer& image) {
  if (!confirmation) throw CanvasError::cropNotPreviewed();
  const CanvasPreviewContext& confirmed = confirmation->context;
  // An unknown identity proves nothing about which file was shown.
  if (confirmed.sourceIdentity.empty() || confirmed.sourceIdentity != context.sourceIdentity)
    throw CanvasError::previewOutOfDate(CanvasError::kDifferentImage);
  if (confirmed.resampledWidth != context.resampledWidth ||
      confirmed.resampledHeight != context.resampledHeight ||
      confirmed.resampledWidth != image.width || confirmed.resampledHeight != image.height)
    throw CanvasError::previewOutOfDate(CanvasError::kSizeChanged);
  if (confirmed.canvas != context.canvas || confirmed.canvas != canvas)
    throw CanvasError::previewOutOfDate(CanvasError::kCanvasChanged);
  if (confirmed.formatToken != context.formatToken)
    throw CanvasError::previewOutOfDate(CanvasError::kFormatChanged);
}

// The rectangle the user confirmed. Suggested framing may carry a rectangle
// the user adjusted; otherwise it is the one its subject centre gives.
CropRect confirmedRect(const Canvas& canvas, const CanvasConfirmation& confirmation,
                       const PixelBuffer& image) {
  if (canvas.cropRect) return *canvas.cropRect;
  if (canvas.mode == CanvasMode::crop || !confirmation.subjectCentre)
    throw CanvasError::cropNotPreviewed();
  const auto centre = *confirmation.subjectCentre;
  if (!std::isfinite(centre.x) || !std::isfinite(centre.y))
    throw CanvasError::compositingFailed("the confirmed subject centre is not a number");
  return CanvasComposer::suggestSubjectAwarePlacement(image.width, image.height, canvas.width,
                                                      canvas.height, centre.x, centre.y);
}

}  // namespace

// ---- CanvasError ----------------------------------------------------------

CanvasError CanvasError::tooLarge(int64_t resampledWidth, int64_t resampledHeight,
                                  int64_t canvasWidth, int64_t canvasHeight) {
  CanvasError e(Case::tooLarge);
  e.m_values = {resampledWidth, resampledHeight, canvasWidth, canvasHeight};
  return e;
}

CanvasError CanvasError::cropOutOfBounds(const CropRect& rect, int64_t resampledWidth,
                                         int64_t resampledHeight) {
  CanvasError e(Case::cropOutOfBounds);
  e.m_values = {rect.w, rect.h, rect.x, rect.y, resampledWidth, resampledHeight};
  return e;
}

CanvasError CanvasError::cropSizeMismatch(const CropRect& rect, int64_t canvasWidth,
                                          int64_t canvasHeight) {
  CanvasError e(Case::cropSizeMismatch);
  e.m_values = {rect.w, rect.h, canvasWidth, canvasHeight};
  return e;
}

CanvasError CanvasError::previewOutOfDate(std::string_view reason) {
  CanvasError e(Case::previewOutOfDate);
  e.m_text = reason;
  return e;
}

CanvasError CanvasError::invalidMode(std::string mode) {
  CanvasError e(Case::invalidMode);
  e.m_text = std::move(mode);
  return e;
}

CanvasError CanvasError::cropNotPreviewed() { return CanvasError(Case::cropNotPreviewed); }

CanvasError CanvasError::compositingFailed(std::string details) {
  CanvasError e(Case::compositingFailed);
  e.m_details = std::move(details);
  return e;
}

std::string CanvasError::description() const {
  const auto& v = m_values;
  switch (m_case) {
    case Case::tooLarge:
      return "CANVAS-TOO-LARGE — the resampled image (" + sizeText(v[0], v[1]) +
             ") doesn’t fit inside the exact canvas (" + sizeText(v[2], v[3]) + ")" +
             std::string(kNothingExported);
    case Case::cropOutOfBounds:
      // Positions stay ungrouped: a separator would run into the comma
      // between x and y.
      return "The crop (" + sizeText(v[0], v[1]) + " at " + std::to_string(v[2]) + "," +
             std::to_string(v[3]) + ") is outside the resampled image’s bounds (" +
             sizeText(v[4], v[5]) + ")" + std::string(kNothingExported);
    case Case::cropSizeMismatch:
      return "The crop (" + sizeText(v[0], v[1]) + ") doesn’t match the canvas size (" +
             sizeText(v[2], v[3]) + ")" + std::string(kNothingExported);
    case Case::previewOutOfDate:
      return "The confirmed crop preview no longer matches this export — " + m_text +
             ". Tarnbloom never exports a crop it hasn’t shown you.";
    case Case::invalidMode:
      return "“" + m_text + "” isn’t a canvas mode Tarnbloom understands.";
    case Case::cropNotPreviewed:
      return "This crop hasn’t been shown and confirmed yet. Tarnbloom never exports an implicit "
             "crop.";
    case Case::compositingFailed:
      return "Tarnbloom couldn’t compose the canvas for this export.";
  }
  return "Tarnbloom couldn’t compose the canvas for this export.";
}

std::string CanvasError::recoverySuggestion() const {
  switch (m_case) {
    case Case::tooLarge:
      return "Choose a larger exact canvas, or switch to Crop, or shrink the target size.";
    case Case::cropOutOfBounds:
    case Case::cropSizeMismatch:
      return std::string(kCheckCropAgain);
    case Case::previewOutOfDate:
    case Case::cropNotPreviewed:
      return std::string(kConfirmCrop);
    case Case::invalidMode:
    case Case::compositingFailed:
      break;
  }
  return {};
}

// ---- CanvasComposer -------------------------------------------------------

ExactPlacement CanvasComposer::resolveExactPlacement(int64_t resampledWidth,
                                                     int64_t resampledHeight, int64_t canvasWidth,
                                                     int64_t canvasHeight) {
  int64_t dx = 0, dy = 0;
  if (__builtin_sub_overflow(canvasWidth, resampledWidth, &dx) ||
      __builtin_sub_overflow(canvasHeight, resampledHeight, &dy) || dx < 0 || dy < 0)
    throw CanvasError::tooLarge(resampledWidth, resampledHeight, canvasWidth, canvasHeight);
  // The odd pixel goes right and down, so the same sizes always place alike.
  const int64_t left = dx / 2, top = dy / 2;
  return {left, top, dx - left, dy - top};
}

void CanvasComposer::validateCropRect(const CropRect& rect, int64_t resampledWidth,
                                      int64_t resampledHeight, int64_t canvasWidth,
                                      int64_t canvasHeight) {
  int64_t right = 0, bottom = 0;
  const bool inside = rect.w >= 1 && rect.h >= 1 && rect.x >= 0 && rect.y >= 0 &&
                      !__builtin_add_overflow(rect.x, rect.w, &right) &&
                      !__builtin_add_overflow(rect.y, rect.h, &bottom) && right <= resampledWidth &&
                      bottom <= resampledHeight;
  if (!inside) throw CanvasError::cropOutOfBounds(rect, resampledWidth, resampledHeight);
  // A crop is never scaled to the canvas, so it must be the canvas.
  if (rect.w != canvasWidth || rect.h != canvasHeight)
    throw CanvasError::cropSizeMismatch(rect, canvasWidth, canvasHeight);
}

CropRect CanvasComposer::suggestSubjectAwarePlacement(int64_t resampledWidth,
                                                      int64_t resampledHeight, int64_t canvasWidth,
                                                      int64_t canvasHeight, double subjectCentreX,
                                                      double subjectCentreY) {
  auto start = [](int64_t extent, int64_t size, double centre) -> int64_t {
    int64_t room = 0;
    if (__builtin_sub_overflow(extent, size, &room) || room < 0) room = 0;
    if (!std::isfinite(centre)) centre = static_cast<double>(extent) / 2.0;
    const double first = std::floor(centre - static_cast<double>(size) / 2.0 + 0.5);
    // Compared as doubles before converting, so no value can overflow.
    if (!(first > 0.0)) return 0;
    if (first >= static_cast<double>(room)) return room;
    return static_cast<int64_t>(first);
  };
  return {start(resampledWidth, canvasWidth, subjectCentreX),
          start(resampledHeight, canvasHeight, subjectCentreY), canvasWidth, canvasHeight};
}

CanvasComposer::Applied CanvasComposer::apply(const std::optional<Canvas>& canvas,
                                              codec::PixelBuffer image,
                                              const std::optional<CanvasConfirmation>& confirmation,
                                              const CanvasPreviewContext& context,
                                              const ComposeTarget& target) {
  if (!canvas) return {std::move(image), std::nullopt, std::nullopt, {}};
  checkImage(image, target.colourSpace);

  switch (canvas->mode) {
    case CanvasMode::exact: {
      const ExactPlacement padding =
          resolveExactPlacement(image.width, image.height, canvas->width, canvas->height);
      // The fill is checked even when nothing is painted with it.
      const Paint paint = resolvePaint(canvas->fill, target);
      if (padding == ExactPlacement{}) return {std::move(image), canvas, std::nullopt, padding};
      return {padImage(image, padding, canvas->width, canvas->height, paint), canvas, std::nullopt,
              padding};
    }
    case CanvasMode::crop:
    case CanvasMode::subjectAware: {
      checkConfirmation(confirmation, context, *canvas, image);
      const CropRect rect = confirmedRect(*canvas, *confirmation, image);
      validateCropRect(rect, image.width, image.height, canvas->width, canvas->height);
      return {cutOut(image, rect), canvas, rect, {}};
    }
  }
  throw CanvasError::invalidMode(std::to_string(static_cast<int>(canvas->mode)));
}

// ---- BatchCanvasPolicy ----------------------------------------------------

BatchCanvasPolicy::Decision BatchCanvasPolicy::decide(const std::optional<Canvas>& canvas) {
  if (!canvas) return {};
  std::string label;
  switch (canvas->mode) {
    case CanvasMode::exact:
      return {};
    case CanvasMode::crop:
      label = "Crop";
      break;
    case CanvasMode::subjectAware:
      label = "Suggested framing";
      break;
    default:
      throw CanvasError::invalidMode(std::to_string(static_cast<int>(canvas->mode)));
  }
  return {false, "“" + label + "” can’t run on a batch",
          label +
              " is confirmed against one image’s own pixels, and Tarnbloom never reuses that "
              "confirmation for other images — that would be an implicit crop. Export this batch "
              "without the canvas step, or open the images one at a time and confirm each crop."};
}

}  // namespace tarnbloom::canvas
