#include <gtest/gtest.h>
#include <lcms2.h>
#include <libheif/heif.h>

#include <cstring>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "codec/codec_error.h"
#include "codec/decode.h"
#include "codec/probe.h"
#include "support/c_handle.h"
#include "test_support.h"

namespace tarnbloom::codec {
namespace {

using tarnbloom::testing::asBytes;

struct HeifFixture {
  heif_compression_format format = heif_compression_HEVC;
  int width = 64;
  int height = 48;
  int bits = 8;
  bool alpha = false;
  heif_orientation orientation = heif_orientation_normal;
  bool clapCrop = false;  // odd sizes cropped with 'clap' rather than a grid
  std::vector<uint8_t> exif;
  std::string xmp;
  std::vector<uint8_t> icc;
  int nclxPrimaries = 0;  // colr 'nclx' with the sRGB transfer curve; 0 for none
};

// A gradient with a saturated red square in the stored top-left corner, so
// a wrong orientation or channel order shows. Values span the full range of
// the file's depth.
uint32_t sampleAt(const HeifFixture& s, int x, int y, int c) {
  const uint32_t max = (1u << s.bits) - 1;
  if (c == 3) return x < s.width / 2 ? max : max / 3;  // alpha: two flat halves
  if (x < 16 && y < 16) return c == 0 ? max : 0;
  const uint32_t level = max * (x + y) / (s.width + s.height);
  return c == 1 ? max - level : level;
}

template <typename T, auto Fn>
using Owned = std::unique_ptr<T, tarnbloom::CDeleter<Fn>>;

heif_error appendTo(heif_context*, const void* data, size_t size, void* userdata) {
  auto* out = static_cast<std::vector<uint8_t>*>(userdata);
  try {
    out->insert(out->end(), static_cast<const uint8_t*>(data),
                static_cast<const uint8_t*>(data) + size);
  } catch (...) {
    return {heif_error_Encoding_error, heif_suberror_Unspecified, "out of memory"};
  }
  return {heif_error_Ok, heif_suberror_Unspecified, "ok"};
}

// Encodes `s` with libheif's own encoders; nullopt when this build has no
// encoder for the format or it refuses the depth.
std::optional<std::vector<uint8_t>> encodeHeif(const HeifFixture& s) {
  Owned<heif_context, heif_context_free> ctx(heif_context_alloc());
  heif_encoder* rawEncoder = nullptr;
  if (heif_context_get_encoder_for_format(ctx.get(), s.format, &rawEncoder).code != heif_error_Ok)
    return std::nullopt;
  Owned<heif_encoder, heif_encoder_release> encoder(rawEncoder);
  heif_encoder_set_lossy_quality(encoder.get(), 90);
  // libheif picks AV1 profile 2 for deep input, which libaom accepts only
  // with 4:2:2 below 12 bits (it aborts otherwise).
  if (s.format == heif_compression_AV1) heif_encoder_set_parameter(encoder.get(), "chroma", "422");

  const bool deep = s.bits > 8;
  const heif_chroma chroma =
      deep ? (s.alpha ? heif_chroma_interleaved_RRGGBBAA_LE : heif_chroma_interleaved_RRGGBB_LE)
           : (s.alpha ? heif_chroma_interleaved_RGBA : heif_chroma_interleaved_RGB);
  heif_image* rawImage = nullptr;
  heif_image_create(s.width, s.height, heif_colorspace_RGB, chroma, &rawImage);
  Owned<heif_image, heif_image_release> image(rawImage);
  heif_image_add_plane(image.get(), heif_channel_interleaved, s.width, s.height, s.bits);
  int stride = 0;
  uint8_t* plane = heif_image_get_plane(image.get(), heif_channel_interleaved, &stride);
  const int channels = s.alpha ? 4 : 3;
  for (int y = 0; y < s.height; ++y)
    for (int x = 0; x < s.width; ++x)
      for (int c = 0; c < channels; ++c) {
        const uint32_t v = sampleAt(s, x, y, c);
        if (deep) {
          uint8_t* p = plane + y * stride + 2 * (x * channels + c);
          p[0] = v & 0xff;
          p[1] = v >> 8;
        } else {
          plane[y * stride + x * channels + c] = static_cast<uint8_t>(v);
        }
      }
  if (!s.icc.empty())
    heif_image_set_raw_color_profile(image.get(), "prof", s.icc.data(), s.icc.size());

  Owned<heif_encoding_options, heif_encoding_options_free> options(heif_encoding_options_alloc());
  Owned<heif_color_profile_nclx, heif_nclx_color_profile_free> nclx(
      heif_nclx_color_profile_alloc());
  if (s.nclxPrimaries) {
    heif_nclx_color_profile_set_color_primaries(nclx.get(), static_cast<uint16_t>(s.nclxPrimaries));
    heif_nclx_color_profile_set_transfer_characteristics(
        nclx.get(), heif_transfer_characteristic_IEC_61966_2_1);
    heif_nclx_color_profile_set_matrix_coefficients(nclx.get(),
                                                    heif_matrix_coefficients_ITU_R_BT_601_6);
    nclx->full_range_flag = 1;
    heif_image_set_nclx_color_profile(image.get(), nclx.get());
    options->output_nclx_profile = nclx.get();
  }
  options->image_orientation = s.orientation;
  options->macOS_compatibility_workaround = s.clapCrop ? 0 : 1;
  heif_image_handle* rawHandle = nullptr;
  if (heif_context_encode_image(ctx.get(), image.get(), encoder.get(), options.get(), &rawHandle)
          .code != heif_error_Ok)
    return std::nullopt;
  Owned<heif_image_handle, heif_image_handle_release> handle(rawHandle);
  if (!s.exif.empty())
    heif_context_add_exif_metadata(ctx.get(), handle.get(), s.exif.data(),
                                   static_cast<int>(s.exif.size()));
  if (!s.xmp.empty())
    heif_context_add_XMP_metadata(ctx.get(), handle.get(), s.xmp.data(),
                                  static_cast<int>(s.xmp.size()));
  std::vector<uint8_t> out;
  heif_writer writer{1, appendTo};
  if (heif_context_write(ctx.get(), &writer, &out).code != heif_error_Ok) return std::nullopt;
  return out;
}

// libheif's own upright rendering, 8-bit RGB(A), for comparison.
PixelBuffer libheifUpright(const std::vector<uint8_t>& file, bool alpha) {
  Owned<heif_context, heif_context_free> ctx(heif_context_alloc());
  heif_context_read_from_memory_without_copy(ctx.get(), file.data(), file.size(), nullptr);
  heif_image_handle* rawHandle = nullptr;
  heif_context_get_primary_image_handle(ctx.get(), &rawHandle);
  Owned<heif_image_handle, heif_image_handle_release> handle(rawHandle);
  heif_image* rawImage = nullptr;
  heif_decode_image(handle.get(), &rawImage, heif_colorspace_RGB,
                    alpha ? heif_chroma_interleaved_RGBA : heif_chroma_interleaved_RGB, nullptr);
  Owned<heif_image, heif_image_release> image(rawImage);
  PixelBuffer out;
  out.allocate(heif_image_get_width(image.get(), heif_channel_interleaved),
               heif_image_get_height(image.get(), heif_channel_interleaved), alpha ? 4 : 3,
               SampleFormat::uint8);
  int stride = 0;
  const uint8_t* plane =
      heif_image_get_plane_readonly(image.get(), heif_channel_interleaved, &stride);
  for (int y = 0; y < out.height; ++y) std::memcpy(out.row(y), plane + y * stride, out.rowBytes());
  return out;
}

// Our stored pixels turned upright the way a viewer applies EXIF orientation.
PixelBuffer upright(const PixelBuffer& stored, uint32_t orientation) {
  const bool swap = orientation >= 5;
  PixelBuffer out;
  out.allocate(swap ? stored.height : stored.width, swap ? stored.width : stored.height,
               stored.channels, stored.format);
  const int w = stored.width, h = stored.height;
  const size_t px = stored.channels * stored.bytesPerSample();
  for (int y = 0; y < h; ++y)
    for (int x = 0; x < w; ++x) {
      const int u[] = {x, w - 1 - x, w - 1 - x, x, y, h - 1 - y, h - 1 - y, y};
      const int v[] = {y, y, h - 1 - y, h - 1 - y, x, x, w - 1 - x, w - 1 - x};
      std::memcpy(out.row(v[orientation - 1]) + u[orientation - 1] * px, stored.row(y) + x * px,
                  px);
    }
  return out;
}

int maxDifference(const PixelBuffer& a, const PixelBuffer& b) {
  int worst = 0;
  for (size_t i = 0; i < a.data.size(); ++i)
    worst = std::max(worst, std::abs(a.data[i] - b.data[i]));
  return worst;
}

const char* formatName(heif_compression_format f) {
  return f == heif_compression_AV1 ? "AVIF" : "HEIC";
}

// --- depth, alpha and values ----------------------------------------------

struct DepthCase {
  heif_compression_format format;
  int bits;
  bool alpha;
};

class HeifDepth : public ::testing::TestWithParam<DepthCase> {};

TEST_P(HeifDepth, DecodesAtNativeDepthScaledToFullRange) {
  const DepthCase param = GetParam();
  HeifFixture fixture;
  fixture.format = param.format;
  fixture.bits = param.bits;
  fixture.alpha = param.alpha;
  const auto file = encodeHeif(fixture);
  if (!file)
    GTEST_SKIP() << "no " << formatName(param.format) << " encoder for " << param.bits << " bits";
  tarnbloom::testing::TempDir seeds;  // kept for the fuzzer's corpus in CI
  tarnbloom::testing::writeBytes(seeds / "fixture.heif", std::span<const uint8_t>(*file));

  const ContainerProbe probe = probeContainer(asBytes(*file));
  EXPECT_EQ(probe.container,
            param.format == heif_compression_AV1 ? Container::avif : Container::heic);
  EXPECT_TRUE(probe.opened);
  EXPECT_TRUE(probe.hasProperties);
  EXPECT_EQ(probe.frameCount, 1);
  EXPECT_EQ(probe.width, 64);
  EXPECT_EQ(probe.height, 48);
  EXPECT_EQ(probe.bitsPerSample, param.bits);

  const DecodedFrame frame = decodeFrame(asBytes(*file));
  EXPECT_EQ(frame.nativeBits, param.bits);
  EXPECT_EQ(frame.orientation, 1u);
  ASSERT_EQ(frame.pixels.width, 64);
  ASSERT_EQ(frame.pixels.height, 48);
  ASSERT_EQ(frame.pixels.channels, param.alpha ? 4 : 3);
  ASSERT_EQ(frame.pixels.format, param.bits > 8 ? SampleFormat::uint16 : SampleFormat::uint8);

  // Every sample is near what was encoded, scaled to the buffer's range; an
  // unscaled 10-bit value would sit at 1/64 of it.
  const double bufferMax = param.bits > 8 ? 65535.0 : 255.0;
  const double fileMax = (1 << param.bits) - 1;
  double worst = 0;
  for (int y = 0; y < 48; ++y)
    for (int x = 0; x < 64; ++x)
      for (int c = 0; c < frame.pixels.channels; ++c) {
        const size_t i = (size_t{64} * y + x) * frame.pixels.channels + c;
        const double got = param.bits > 8
                               ? reinterpret_cast<const uint16_t*>(frame.pixels.data.data())[i]
                               : frame.pixels.data[i];
        worst = std::max(worst, std::abs(got / bufferMax - sampleAt(fixture, x, y, c) / fileMax));
      }
  EXPECT_LT(worst, 0.12) << "lossy coding error beyond tolerance";
}

constexpr auto kHevc = heif_compression_HEVC;
constexpr auto kAv1 = heif_compression_AV1;
INSTANTIATE_TEST_SUITE_P(Heif, HeifDepth,
                         ::testing::Values(DepthCase{kHevc, 8, false}, DepthCase{kHevc, 10, true},
                                           DepthCase{kHevc, 12, false}, DepthCase{kAv1, 8, true},
                                           DepthCase{kAv1, 10, false}, DepthCase{kAv1, 12, false}),
                         [](const auto& info) {
                           return std::string(formatName(info.param.format)) +
                                  std::to_string(info.param.bits) +
                                  (info.param.alpha ? "Alpha" : "");
                         });

// --- orientation ---------------------------------------------------------

// libheif's encoder writes the shown size into 'ispe'; phones, cameras and
// libavif write the coded size, as the format says. The same file as they
// would write it: every 'ispe' turned back.
std::vector<uint8_t> withCodedIspe(std::vector<uint8_t> file) {
  for (size_t i = 4; i + 16 <= file.size(); ++i)
    if (std::memcmp(&file[i], "ispe", 4) == 0)
      std::swap_ranges(file.begin() + i + 8, file.begin() + i + 12, file.begin() + i + 12);
  return file;
}

struct OrientationCase {
  int exif;
  bool cropped = false;
  // AVIF with alpha: libheif 1.15 turns the alpha item by its own 'irot'
  // even when told to ignore transformations.
  bool avifWithAlpha = false;
};

TEST(HeifOrientation, KeepsStoredPixelsAndReportsWhatViewersApply) {
  // All eight orientations, two with a 'clap' crop of an odd size, and
  // AVIF with alpha turned and mirrored.
  std::vector<OrientationCase> cases;
  for (int exif = 1; exif <= 8; ++exif) cases.push_back({exif});
  cases.push_back({6, true});
  cases.push_back({7, true});
  for (int exif : {2, 5, 6, 8}) cases.push_back({exif, false, true});
  cases.push_back({6, true, true});
  for (const OrientationCase& c : cases) {
    SCOPED_TRACE(std::to_string(c.exif) + (c.cropped ? " cropped" : "") +
                 (c.avifWithAlpha ? " AVIF with alpha" : ""));
    HeifFixture fixture;
    fixture.orientation = static_cast<heif_orientation>(c.exif);
    fixture.clapCrop = c.cropped;
    if (c.cropped) fixture.width = 63, fixture.height = 47;  // the coded picture is padded
    if (c.avifWithAlpha) fixture.format = heif_compression_AV1, fixture.alpha = true;
    auto file = encodeHeif(fixture);
    if (!file) GTEST_SKIP() << "no " << formatName(fixture.format) << " encoder";
    const auto clap = std::search(file->begin(), file->end(), std::begin("clap"), std::end("clap") - 1);
    if (clap == file->end() && c.exif >= 5) file = withCodedIspe(*file);

    const ContainerProbe probe = probeContainer(asBytes(*file));
    EXPECT_EQ(probe.orientation, static_cast<uint32_t>(c.exif));
    EXPECT_EQ(probe.width, fixture.width);  // stored, not as shown
    EXPECT_EQ(probe.height, fixture.height);
    const DecodedFrame frame = decodeFrame(asBytes(*file));
    EXPECT_EQ(frame.orientation, static_cast<uint32_t>(c.exif));
    ASSERT_EQ(frame.pixels.width, fixture.width);
    ASSERT_EQ(frame.pixels.height, fixture.height);
    // The marker is still in the stored top-left corner...
    const int channels = frame.pixels.channels;
    EXPECT_GT(frame.pixels.row(4)[channels * 4], 200);
    EXPECT_LT(frame.pixels.row(4)[channels * 4 + 1], 60);
    // ...and turning the pixels by the reported orientation gives what
    // libheif itself shows, alpha included (chroma is resampled
    // differently once turned).
    const PixelBuffer shown = upright(frame.pixels, frame.orientation);
    const PixelBuffer reference = libheifUpright(*file, fixture.alpha);
    ASSERT_EQ(shown.width, reference.width);
    ASSERT_EQ(shown.height, reference.height);
    EXPECT_LT(maxDifference(shown, reference), 48);
  }
}

// --- metadata --------------------------------------------------------------

TEST(HeifMetadata, CarriesProfileExifAndXmpUnchanged) {
  HeifFixture fixture;
  // A TIFF-structured EXIF block with orientation 6: HEIF orientation comes
  // from the item properties, never from EXIF.
  fixture.exif = {'M', 'M', 0, 42, 0, 0, 0, 8, 0, 1, 0x01, 0x12, 0,
               3,   0,   0, 0,  1, 0, 6, 0, 0, 0, 0,    0,    0};
  fixture.xmp = "<x:xmpmeta xmlns:x=\"adobe:ns:meta/\"><rdf:RDF/></x:xmpmeta>";
  fixture.icc.assign(560, 0);
  for (size_t i = 0; i < fixture.icc.size(); ++i) fixture.icc[i] = static_cast<uint8_t>(i * 7);
  const auto file = encodeHeif(fixture);
  if (!file) GTEST_SKIP() << "no HEVC encoder";
  const DecodedFrame frame = decodeFrame(asBytes(*file));
  EXPECT_EQ(frame.exif, fixture.exif);
  EXPECT_EQ(frame.xmp, fixture.xmp);
  EXPECT_EQ(frame.iccProfile, fixture.icc);
  EXPECT_EQ(frame.orientation, 1u);
}

TEST(HeifColour, NclxBecomesAProfileUnlessItIsSrgb) {
  // libheif's AV1 path writes a 'colr' nclx box; its HEVC path only puts
  // the description in the bitstream, where this libheif cannot read it.
  HeifFixture fixture;
  fixture.format = heif_compression_AV1;
  fixture.nclxPrimaries = heif_color_primaries_ITU_R_BT_709_5;
  const auto srgb = encodeHeif(fixture);
  if (!srgb) GTEST_SKIP() << "no AV1 encoder";
  EXPECT_TRUE(decodeFrame(asBytes(*srgb)).iccProfile.empty());

  fixture.nclxPrimaries = heif_color_primaries_SMPTE_EG_432_1;  // Display P3
  const auto p3 = encodeHeif(fixture);
  const auto icc = decodeFrame(asBytes(*p3)).iccProfile;
  ASSERT_FALSE(icc.empty());
  // sRGB's red lies inside P3: about (234, 51, 35) there. Swapped or wrong
  // primaries, or a wrong curve, move it far.
  Owned<void, cmsCloseProfile> ours(
      cmsOpenProfileFromMem(icc.data(), static_cast<cmsUInt32Number>(icc.size())));
  ASSERT_TRUE(ours);
  Owned<void, cmsCloseProfile> srgbProfile(cmsCreate_sRGBProfile());
  Owned<void, cmsDeleteTransform> toP3(cmsCreateTransform(
      srgbProfile.get(), TYPE_RGB_8, ours.get(), TYPE_RGB_8, INTENT_RELATIVE_COLORIMETRIC, 0));
  ASSERT_TRUE(toP3);
  const uint8_t red[3] = {255, 0, 0};
  uint8_t inP3[3] = {};
  cmsDoTransform(toP3.get(), red, inP3, 1);
  EXPECT_NEAR(inP3[0], 234, 3);
  EXPECT_NEAR(inP3[1], 51, 4);
  EXPECT_NEAR(inP3[2], 35, 4);
}

// --- sequences and damage ---------------------------------------------------

void appendBox(std::vector<uint8_t>& out, const char* type, const std::vector<uint8_t>& body) {
  const uint32_t size = static_cast<uint32_t>(body.size() + 8);
  const uint8_t header[8] = {uint8_t(size >> 24), uint8_t(size >> 16), uint8_t(size >> 8),
                             uint8_t(size),       uint8_t(type[0]),    uint8_t(type[1]),
                             uint8_t(type[2]),    uint8_t(type[3])};
  out.insert(out.end(), header, header + 8);
  out.insert(out.end(), body.begin(), body.end());
}

std::vector<uint8_t> box(const char* type, const std::vector<uint8_t>& body) {
  std::vector<uint8_t> out;
  appendBox(out, type, body);
  return out;
}

TEST(HeifSequence, AnimatedAvifIsCountedAndRefused) {
  HeifFixture fixture;
  fixture.format = heif_compression_AV1;
  auto file = encodeHeif(fixture);
  if (!file) GTEST_SKIP() << "no AV1 encoder";
  // Turn the still file into what an animated AVIF looks like: the sequence
  // brand, and a track whose sample table lists 12 pictures.
  std::memcpy(file->data() + 8, "avis", 4);
  const std::vector<uint8_t> stsz = {0, 0, 0, 0, /*size*/ 0, 0, 0, 0, /*count*/ 0, 0, 0, 12};
  const auto moov =
      box("moov", box("trak", box("mdia", box("minf", box("stbl", box("stsz", stsz))))));
  std::vector<uint8_t> animated = *file;
  animated.insert(animated.end(), moov.begin(), moov.end());
  EXPECT_EQ(probeContainer(asBytes(animated)).frameCount, 12);
  try {
    decodeFrame(asBytes(animated));
    ADD_FAILURE() << "decoded an animation";
  } catch (const CodecError& e) {
    EXPECT_EQ(e.kind(), CodecError::Kind::multiFrame);
    EXPECT_EQ(e.count(), 12);
  }
  // A sequence whose sample table is cut off still counts as several frames.
  std::vector<uint8_t> uncounted = *file;
  const auto stub = box("moov", box("trak", {}));
  uncounted.insert(uncounted.end(), stub.begin(), stub.end());
  EXPECT_EQ(probeContainer(asBytes(uncounted)).frameCount, 2);
}

TEST(HeifDamage, BadFilesAreUnreadableAndProbeNeverThrows) {
  HeifFixture fixture;
  const auto file = encodeHeif(fixture);
  if (!file) GTEST_SKIP() << "no HEVC encoder";
  std::vector<std::pair<std::string, std::vector<uint8_t>>> cases;
  // Truncated inside the box structure, and inside the coded picture.
  for (const size_t keep : {size_t{24}, size_t{200}, file->size() / 2, file->size() - 40})
    cases.emplace_back("truncated at " + std::to_string(keep),
                       std::vector<uint8_t>(file->begin(), file->begin() + keep));
  // Valid boxes, coded picture replaced by noise (the picture sits at the end).
  auto noise = *file;
  uint32_t state = 12345;
  for (size_t i = noise.size() - 200; i < noise.size(); ++i)
    noise[i] = (state = state * 1103515245 + 12345) >> 24;
  cases.emplace_back("noise in picture", noise);
  // An 'ispe' claiming 1,000,000 × 1,000,000 pixels.
  auto huge = *file;
  for (size_t i = 0; i + 20 <= huge.size(); ++i)
    if (std::memcmp(huge.data() + i, "ispe", 4) == 0) {
      const uint8_t big[8] = {0x00, 0x0f, 0x42, 0x40, 0x00, 0x0f, 0x42, 0x40};
      std::memcpy(huge.data() + i + 8, big, 8);
    }
  cases.emplace_back("gigantic ispe", huge);

  for (const auto& [name, bytes] : cases) {
    SCOPED_TRACE(name);
    EXPECT_NO_THROW(probeContainer(asBytes(bytes)));
    try {
      const DecodedFrame frame = decodeFrame(asBytes(bytes));
      // Noise in the coded picture may still decode; it must keep its size.
      EXPECT_EQ(name, "noise in picture");
      EXPECT_EQ(frame.pixels.width, 64);
    } catch (const CodecError& e) {
      EXPECT_EQ(e.kind(), CodecError::Kind::unreadable);
    }
  }
}

}  // namespace
}  // namespace tarnbloom::codec
