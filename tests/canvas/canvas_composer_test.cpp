#include "canvas/canvas_composer.h"

#include <gtest/gtest.h>
#include <lcms2.h>

#include <cerrno>
#include <cmath>
#include <cstring>
#include <functional>
#include <limits>
#include <set>

#include "fixtures.h"
#include "support/files.h"
#include "support/locale_numbers.h"
#include "test_support.h"

namespace tarnbloom::canvas {
namespace {

using codec::ColourSpace;
using codec::PixelBuffer;
using Case = CanvasError::Case;
using C = CanvasComposer;

constexpr int64_t kMax = std::numeric_limits<int64_t>::max();
const std::string kThousand = groupedNumber(1000);

// The error `work` throws; a test failure when it throws none.
CanvasError errorOf(const std::function<void()>& work) {
  try {
    work();
  } catch (const CanvasError& error) {
    return error;
  }
  ADD_FAILURE() << "no CanvasError was thrown";
  return CanvasError::compositingFailed("none thrown");
}

// Every sample differs from its neighbours, so a pixel out of place shows.
template <typename T>
PixelBuffer numbered(int width, int height, int channels) {
  PixelBuffer image;
  image.allocate(width, height, channels,
                 sizeof(T) == 1 ? codec::SampleFormat::uint8 : codec::SampleFormat::uint16);
  auto* samples = reinterpret_cast<T*>(image.data.data());
  for (size_t i = 0; i < image.data.size() / sizeof(T); ++i) samples[i] = T(i * 7 + 3);
  return image;
}

template <typename T>
int at(const PixelBuffer& image, int64_t x, int64_t y, int c) {
  T value;
  std::memcpy(&value, image.row(int(y)) + (x * image.channels + c) * sizeof(T), sizeof(T));
  return value;
}

// `out` must hold `in` at (left, top), opaque where it gained an alpha
// channel, and `fill` (± tolerance) everywhere else.
template <typename T>
void expectPadded(const PixelBuffer& out, const PixelBuffer& in, const ExactPlacement& p,
                  const std::vector<int>& fill, int tolerance = 0) {
  ASSERT_EQ(out.width, in.width + p.left + p.right);
  ASSERT_EQ(out.height, in.height + p.top + p.bottom);
  ASSERT_EQ(out.channels, int(fill.size()));
  for (int64_t y = 0; y < out.height; ++y)
    for (int64_t x = 0; x < out.width; ++x)
      for (int c = 0; c < out.channels; ++c) {
        const int got = at<T>(out, x, y, c);
        if (x < p.left || x >= p.left + in.width || y < p.top || y >= p.top + in.height)
          ASSERT_NEAR(got, fill[c], tolerance) << x << "," << y << " channel " << c;
        else
          ASSERT_EQ(got, c < in.channels ? at<T>(in, x - p.left, y - p.top, c)
                                         : std::numeric_limits<T>::max())
              << x << "," << y << " channel " << c;
      }
}

ComposeTarget target(bool keepsAlpha, bool grey = false) {
  ComposeTarget t;
  t.colourSpace.model = grey ? ColourSpace::Model::grey : ColourSpace::Model::rgb;
  t.keepsAlpha = keepsAlpha;
  return t;
}

Canvas exact(int64_t w, int64_t h, std::optional<CanvasFill> fill) {
  return {CanvasMode::exact, w, h, std::move(fill), std::nullopt};
}

CanvasFill colour(std::string hex) { return {CanvasFill::Kind::colour, std::move(hex)}; }

PixelBuffer compose(const Canvas& canvas, const PixelBuffer& image, const ComposeTarget& t) {
  return C::apply(canvas, image, std::nullopt, {}, t).image;
}

TEST(ExactPlacement, PutsTheOddPixelRightAndBottomAndNeverShrinks) {
  EXPECT_EQ(C::resolveExactPlacement(1000, 800, 1001, 800), (ExactPlacement{0, 0, 1, 0}));
  EXPECT_EQ(C::resolveExactPlacement(1000, 800, 1003, 805), (ExactPlacement{1, 2, 2, 3}));
  EXPECT_EQ(C::resolveExactPlacement(7, 5, 7, 5), ExactPlacement{});

  const auto error = errorOf([] { C::resolveExactPlacement(1000, 800, 999, 800); });
  EXPECT_EQ(error.description(), "CANVAS-TOO-LARGE — the resampled image (" + kThousand +
                                     "×800) doesn’t fit inside the exact canvas (999×800), so "
                                     "nothing was exported.");
  EXPECT_EQ(error.recoverySuggestion(),
            "Choose a larger exact canvas, or switch to Crop, or shrink the target size.");
  // The lowest canvas width minus 1 wraps round to a huge one.
  EXPECT_EQ(errorOf([] { C::resolveExactPlacement(1, 1, -kMax - 1, 1); }).errorCase(),
            Case::tooLarge);
}

TEST(CropCheck, ChecksBoundsFirstThenTheCanvasSizeAndNeverWraps) {
  auto check = [](CropRect rect, int64_t cw, int64_t ch) {
    return errorOf([&] { C::validateCropRect(rect, 1000, 800, cw, ch); });
  };
  EXPECT_NO_THROW(C::validateCropRect({200, 0, 800, 800}, 1000, 800, 800, 800));
  const auto outside = check({201, 0, 800, 800}, 800, 800);
  EXPECT_EQ(outside.description(),
            "The crop (800×800 at 201,0) is outside the resampled image’s bounds (" + kThousand +
                "×800), so nothing was exported.");
  EXPECT_EQ(outside.recoverySuggestion(),
            "Open Canvas again, check the region against this image and size, then confirm.");
  const auto mismatch = check({200, 0, 800, 800}, 800, 600);
  EXPECT_EQ(mismatch.description(),
            "The crop (800×800) doesn’t match the canvas size (800×600), so nothing was exported.");
  EXPECT_EQ(mismatch.recoverySuggestion(), outside.recoverySuggestion());

  // The last two would wrap round to pass a plain x + w ≤ width test.
  const CropRect outOfBounds[] = {
      {0, 0, 0, 800}, {-1, 0, 800, 800}, {kMax - 10, 0, 800, 800}, {0, kMax - 10, 800, 800}};
  for (const CropRect r : outOfBounds)
    EXPECT_EQ(check(r, r.w, r.h).errorCase(), Case::cropOutOfBounds) << r.x << "," << r.y;
  EXPECT_EQ(check({900, 0, 800, 800}, 10, 10).errorCase(), Case::cropOutOfBounds) << "both wrong";
}

TEST(SubjectAwarePlacement, CentresOnTheSubjectAndStaysInsideTheImage) {
  auto suggest = [](double cx, double cy) {
    return C::suggestSubjectAwarePlacement(1000, 800, 400, 400, cx, cy);
  };
  EXPECT_EQ(suggest(500, 400), (CropRect{300, 200, 400, 400}));
  EXPECT_EQ(suggest(10, 790), (CropRect{0, 400, 400, 400}));
  EXPECT_EQ(suggest(990, -50), (CropRect{600, 0, 400, 400}));
  EXPECT_EQ(suggest(NAN, INFINITY), (CropRect{300, 200, 400, 400}));
}

TEST(ComposeExact, PadsWithTheFillAndKeepsEveryImagePixel) {
  const ExactPlacement p{1, 1, 2, 2};
  const PixelBuffer rgb = numbered<uint8_t>(5, 4, 3);
  const auto applied = C::apply(exact(8, 7, colour("#FF0000")), rgb, {}, {}, target(true));
  EXPECT_EQ(applied.padding, p);
  EXPECT_EQ(applied.canvas, exact(8, 7, colour("#FF0000")));
  expectPadded<uint8_t>(applied.image, rgb, p, {255, 0, 0});

  // Transparent (or no) fill adds the alpha channel the padding needs.
  expectPadded<uint8_t>(compose(exact(8, 7, {}), rgb, target(true)), rgb, p, {0, 0, 0, 0});
  // Without alpha in the format, transparency is the flatten colour.
  ComposeTarget jpeg = target(false);
  jpeg.flattenSRGB = {1.0, 0.5, 0.0};
  expectPadded<uint8_t>(compose(exact(8, 7, CanvasFill{}), rgb, jpeg), rgb, p, {255, 128, 0}, 1);
  // 16-bit RGBA keeps its own alpha; colour padding is opaque.
  const PixelBuffer rgba16 = numbered<uint16_t>(5, 4, 4);
  expectPadded<uint16_t>(compose(exact(8, 7, colour("#00ff00")), rgba16, target(true)), rgba16, p,
                         {0, 65535, 0, 65535}, 2);

  // Nothing to pad, or no canvas: the very pixels come back, no alpha added.
  EXPECT_TRUE(compose(exact(5, 4, CanvasFill{}), rgb, target(true)).data == rgb.data);
  EXPECT_TRUE(C::apply(std::nullopt, rgb, {}, {}, target(true)).image.data == rgb.data);
  // A fill that is not a colour is refused even where it would paint nothing.
  for (const char* bad : {"#12345", "#12345G"})
    EXPECT_EQ(errorOf([&] { compose(exact(5, 4, colour(bad)), rgb, target(true)); }).errorCase(),
              Case::compositingFailed);
}

std::vector<uint8_t> adobeRGBLikeProfile() {
  const cmsCIExyY d65 = {0.3127, 0.3290, 1.0};
  const cmsCIExyYTRIPLE primaries = {{0.64, 0.33, 1.0}, {0.21, 0.71, 1.0}, {0.15, 0.06, 1.0}};
  cmsToneCurve* gamma = cmsBuildGamma(nullptr, 2.2);
  cmsToneCurve* curves[3] = {gamma, gamma, gamma};
  cmsHPROFILE profile = cmsCreateRGBProfile(&d65, &primaries, curves);
  cmsUInt32Number size = 0;
  cmsSaveProfileToMem(profile, nullptr, &size);
  std::vector<uint8_t> bytes(size);
  cmsSaveProfileToMem(profile, bytes.data(), &size);
  cmsCloseProfile(profile);
  cmsFreeToneCurve(gamma);
  return bytes;
}

TEST(ComposeExact, PaintsTheFillColourAsItLooksInTheOutputSpace) {
  const ExactPlacement p{0, 0, 1, 1};
  // sRGB red is (0.859, 0, 0) in Adobe RGB; copied as is it would be more
  // saturated than the user chose.
  ComposeTarget wide = target(false);
  wide.colourSpace = ColourSpace::forFrame(adobeRGBLikeProfile(), false);
  const PixelBuffer rgb = numbered<uint8_t>(3, 2, 3);
  expectPadded<uint8_t>(compose(exact(4, 3, colour("#FF0000")), rgb, wide), rgb, p, {219, 0, 0}, 2);
  // Grey gets the colour's lightness: red's luminance 0.2225 (D50) through
  // gamma 2.2 is 0.505, neither the red channel nor an average.
  const PixelBuffer grey16 = numbered<uint16_t>(3, 2, 1);
  expectPadded<uint16_t>(compose(exact(4, 3, colour("#FF0000")), grey16, target(true, true)),
                         grey16, p, {33096}, 300);
}

// Two files of the same pixel size, told apart only by their bytes.
struct TwoFiles {
  testing::TempDir dir;
  PixelBuffer image = numbered<uint8_t>(20, 10, 3);
  std::string a, b;
  TwoFiles() {
    std::vector<uint16_t> samples(image.data.begin(), image.data.end());
    testing::writePng(dir / "a.png", 20, 10, 3, 8, samples);
    samples[0] ^= 1;
    testing::writePng(dir / "b.png", 20, 10, 3, 8, samples);
    a = CanvasSourceIdentity::of(dir / "a.png");
    b = CanvasSourceIdentity::of(dir / "b.png");
  }
  CanvasPreviewContext context(const Canvas& c) const { return {a, 20, 10, c, "png"}; }
};

TEST(ComposeCrop, CutsOnlyACropConfirmedOnThisVeryFileSizeCanvasAndFormat) {
  const TwoFiles f;
  ASSERT_NE(f.a, f.b);
  const Canvas canvas{CanvasMode::crop, 6, 4, std::nullopt, CropRect{3, 2, 6, 4}};
  const CanvasPreviewContext now = f.context(canvas);
  auto apply = [&](const Canvas& c, std::optional<CanvasPreviewContext> confirmed,
                   const CanvasPreviewContext& context) {
    std::optional<CanvasConfirmation> confirmation;
    if (confirmed) confirmation = CanvasConfirmation{*confirmed, {}};
    return C::apply(c, f.image, confirmation, context, target(true));
  };

  const auto unconfirmed = errorOf([&] { apply(canvas, {}, now); });
  EXPECT_EQ(unconfirmed.description(),
            "This crop hasn’t been shown and confirmed yet. Tarnbloom never exports an implicit "
            "crop.");
  EXPECT_EQ(unconfirmed.recoverySuggestion(),
            "Open the crop preview, confirm the region, then export.");

  using Change = std::function<void(CanvasPreviewContext&)>;
  const std::vector<std::pair<Change, std::string_view>> changes = {
      {[&](CanvasPreviewContext& c) { c.sourceIdentity = f.b; }, CanvasError::kDifferentImage},
      {[](CanvasPreviewContext& c) { c.resampledWidth = 21; }, CanvasError::kSizeChanged},
      {[](CanvasPreviewContext& c) { c.canvas.cropRect->x = 4; }, CanvasError::kCanvasChanged},
      {[](CanvasPreviewContext& c) { c.formatToken = "jpeg"; }, CanvasError::kFormatChanged}};
  for (const auto& [change, reason] : changes) {
    CanvasPreviewContext confirmed = now;
    change(confirmed);
    const auto error = errorOf([&] { apply(canvas, confirmed, now); });
    EXPECT_EQ(error.description(), "The confirmed crop preview no longer matches this export — " +
                                       std::string(reason) +
                                       ". Tarnbloom never exports a crop it hasn’t shown you.");
    EXPECT_EQ(error.recoverySuggestion(), unconfirmed.recoverySuggestion());
    EXPECT_EQ(errorOf([&] { apply(canvas, now, confirmed); }).text(), reason) << "either way";
    // The export's context agreeing with a stale confirmation is no excuse
    // when the pixels or the canvas applied say otherwise.
    if (reason == CanvasError::kSizeChanged || reason == CanvasError::kCanvasChanged) {
      EXPECT_EQ(errorOf([&] { apply(canvas, confirmed, confirmed); }).text(), reason);
    }
  }
  // An identity nobody computed matches nothing, not even itself.
  CanvasPreviewContext unknown = now;
  unknown.sourceIdentity.clear();
  EXPECT_EQ(errorOf([&] { apply(canvas, unknown, unknown); }).text(), CanvasError::kDifferentImage);

  const auto applied = apply(canvas, now, now);
  EXPECT_EQ(applied.cropRect, canvas.cropRect);
  ASSERT_EQ(applied.image.width, 6);
  ASSERT_EQ(applied.image.height, 4);
  for (int y = 0; y < 4; ++y)
    EXPECT_EQ(0, std::memcmp(applied.image.row(y), f.image.row(y + 2) + 3 * 3, 6 * 3)) << y;
  // A confirmed rectangle is still checked against the image.
  Canvas outside = canvas;
  outside.cropRect->x = 15;
  EXPECT_EQ(errorOf([&] { apply(outside, f.context(outside), f.context(outside)); }).errorCase(),
            Case::cropOutOfBounds);
}

TEST(ComposeCrop, SuggestedFramingCutsAroundTheConfirmedSubject) {
  const TwoFiles f;
  Canvas framing{CanvasMode::subjectAware, 6, 4, std::nullopt, std::nullopt};
  auto cropOf = [&](std::optional<CanvasConfirmation::Point> centre) {
    const CanvasPreviewContext context = f.context(framing);
    return C::apply(framing, f.image, CanvasConfirmation{context, centre}, context, target(true))
        .cropRect;
  };
  EXPECT_EQ(cropOf(CanvasConfirmation::Point{17.0, 1.0}), (CropRect{14, 0, 6, 4}));
  EXPECT_EQ(errorOf([&] { cropOf(std::nullopt); }).errorCase(), Case::cropNotPreviewed);
  // A framing the user adjusted carries the rectangle that was shown.
  framing.cropRect = CropRect{2, 3, 6, 4};
  EXPECT_EQ(cropOf(CanvasConfirmation::Point{17.0, 1.0}), framing.cropRect);
}

TEST(CanvasSourceIdentity, PassesOnWhyAFileCannotBeRead) {
  const testing::TempDir dir;
  for (const auto& [name, expected] : {std::pair{"missing.png", ENOENT}, {"", EISDIR}}) {
    try {
      CanvasSourceIdentity::of(dir / name);
      ADD_FAILURE() << name;
    } catch (const FileError& error) {
      EXPECT_EQ(error.errnoValue(), expected) << name;
    }
  }
}

TEST(CanvasPreviewContext, FingerprintChangesWithEveryPart) {
  const CanvasPreviewContext base{
      "ab", 20, 10, {CanvasMode::crop, 6, 4, std::nullopt, CropRect{1, 2, 6, 4}}, "png"};
  std::vector<CanvasPreviewContext> variants(9, base);
  variants[1].sourceIdentity = "ac";
  variants[2].resampledHeight = 11;
  variants[3].canvas.mode = CanvasMode::subjectAware;
  variants[4].canvas.fill = CanvasFill{};
  variants[5].canvas.fill = colour("#000001");
  variants[6].canvas.cropRect = CropRect{2, 1, 6, 4};
  variants[7].formatToken = "jpeg";
  // Digits moved from one number to the next must not spell the same.
  variants[8].resampledWidth = 201;
  variants[8].resampledHeight = 0;
  std::set<std::string> fingerprints;
  for (const auto& v : variants) fingerprints.insert(v.fingerprint());
  EXPECT_EQ(fingerprints.size(), variants.size());

  for (const auto mode : {CanvasMode::exact, CanvasMode::crop, CanvasMode::subjectAware})
    EXPECT_EQ(canvasModeFromRawValue(rawValue(mode)), mode);
  EXPECT_EQ(rawValue(CanvasMode::subjectAware), "subject_aware");
  EXPECT_FALSE(canvasModeFromRawValue("subjectAware"));
}

TEST(BatchCanvasPolicy, RefusesCropsConfirmedOnOneImage) {
  EXPECT_TRUE(BatchCanvasPolicy::decide(std::nullopt).allowed);
  EXPECT_TRUE(BatchCanvasPolicy::decide(exact(100, 100, std::nullopt)).allowed);
  const auto crop = BatchCanvasPolicy::decide(Canvas{CanvasMode::crop, 6, 4, {}, CropRect{}});
  EXPECT_FALSE(crop.allowed);
  EXPECT_EQ(crop.title, "“Crop” can’t run on a batch");
  EXPECT_EQ(crop.explanation,
            "Crop is confirmed against one image’s own pixels, and Tarnbloom never reuses that "
            "confirmation for other images — that would be an implicit crop. Export this batch "
            "without the canvas step, or open the images one at a time and confirm each crop.");
  const auto framing = BatchCanvasPolicy::decide(Canvas{CanvasMode::subjectAware, 6, 4, {}, {}});
  EXPECT_EQ(framing.title, "“Suggested framing” can’t run on a batch");
}

}  // namespace
}  // namespace tarnbloom::canvas
