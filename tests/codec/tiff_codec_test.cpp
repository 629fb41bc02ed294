#include <gtest/gtest.h>
#include <tiffio.h>

#include <algorithm>
#include <cstring>
#include <functional>

#include "decode_expectations.h"
#include "test_support.h"

namespace tarnbloom::codec {
namespace {

using namespace tarnbloom::testing;

struct Page {
  uint32_t width = 4;
  uint32_t height = 2;
  uint16_t samples = 1;
  uint16_t bits = 8;
  uint16_t photometric = PHOTOMETRIC_MINISBLACK;
  std::vector<uint8_t> data;  // strips as stored: packed rows, plane after plane when separate
  std::function<void(TIFF*)> tags = {};
  uint32_t tile = 0;  // square tile side; 0 for one strip per plane
};

std::vector<uint8_t> writeTiff(const std::vector<Page>& pages) {
  testing::TempDir dir;
  const auto path = dir / "fixture.tif";
  TIFF* tiff = TIFFOpen(path.c_str(), "w");
  for (const auto& page : pages) {
    TIFFSetField(tiff, TIFFTAG_IMAGEWIDTH, page.width);
    TIFFSetField(tiff, TIFFTAG_IMAGELENGTH, page.height);
    TIFFSetField(tiff, TIFFTAG_SAMPLESPERPIXEL, page.samples);
    TIFFSetField(tiff, TIFFTAG_BITSPERSAMPLE, page.bits);
    TIFFSetField(tiff, TIFFTAG_PHOTOMETRIC, page.photometric);
    TIFFSetField(tiff, TIFFTAG_PLANARCONFIG, PLANARCONFIG_CONTIG);
    if (page.tags) page.tags(tiff);
    uint16_t planar = PLANARCONFIG_CONTIG;
    TIFFGetField(tiff, TIFFTAG_PLANARCONFIG, &planar);
    const int planes = planar == PLANARCONFIG_SEPARATE ? page.samples : 1;
    const size_t rowBytes = (size_t{page.width} * (page.samples / planes) * page.bits + 7) / 8;
    if (page.tile) {
      TIFFSetField(tiff, TIFFTAG_TILEWIDTH, page.tile);
      TIFFSetField(tiff, TIFFTAG_TILELENGTH, page.tile);
      const size_t tileRow = page.tile * rowBytes / page.width;  // whole-byte samples only
      std::vector<uint8_t> tile(tileRow * page.tile);
      for (uint32_t y = 0; y < page.height; y += page.tile)
        for (uint32_t x = 0; x < page.width; x += page.tile) {
          std::fill(tile.begin(), tile.end(), 0);
          for (uint32_t r = 0; r < page.tile && y + r < page.height; ++r)
            std::memcpy(&tile[r * tileRow],
                        &page.data[(y + r) * rowBytes + x * tileRow / page.tile],
                        std::min<size_t>(tileRow, rowBytes - x * tileRow / page.tile));
          TIFFWriteTile(tiff, tile.data(), x, y, 0, 0);
        }
    } else {
      uint32_t rowsPerStrip = 0;
      if (!TIFFGetField(tiff, TIFFTAG_ROWSPERSTRIP, &rowsPerStrip))
        TIFFSetField(tiff, TIFFTAG_ROWSPERSTRIP, page.height);
      // Short data gives a short strip: how the oversized fixture stays small.
      const size_t bytes = std::min(rowBytes * page.height, page.data.size() / planes);
      for (int p = 0; p < planes; ++p)
        TIFFWriteEncodedStrip(tiff, p, const_cast<uint8_t*>(&page.data[p * bytes]),
                              static_cast<tmsize_t>(bytes));
    }
    TIFFWriteDirectory(tiff);
  }
  TIFFClose(tiff);
  const auto bytes = testing::readBytes(path);
  const auto* first = reinterpret_cast<const uint8_t*>(bytes.data());
  return {first, first + bytes.size()};
}

struct LayoutCase {
  const char* name;
  Page page;
  int channels;
  SampleFormat format;
  int nativeBits;
  std::vector<double> expected;  // the first samples of the decoded frame
  double tolerance = 0;
};

TEST(TiffCodec, DecodesEveryLayoutToFullRangeSamples) {
  using Tags = std::function<void(TIFF*)>;
  auto tag = [](uint32_t t, int v) -> Tags {
    return [t, v](TIFF* tiff) { TIFFSetField(tiff, t, v); };
  };
  auto extra = [](uint16_t type) -> Tags {
    return [type](TIFF* tiff) { TIFFSetField(tiff, TIFFTAG_EXTRASAMPLES, 1, &type); };
  };
  const Tags jpeg = [](TIFF* t) {
    TIFFSetField(t, TIFFTAG_COMPRESSION, COMPRESSION_JPEG);
    TIFFSetField(t, TIFFTAG_JPEGCOLORMODE, JPEGCOLORMODE_RGB);
  };
  static uint16_t red[16], green[16], blue[16];
  red[1] = 0xffff, green[2] = 0xffff, blue[2] = 0x8080;
  const Tags colourMap = [](TIFF* t) { TIFFSetField(t, TIFFTAG_COLORMAP, red, green, blue); };
  const Tags noSubsampling = [](TIFF* t) { TIFFSetField(t, TIFFTAG_YCBCRSUBSAMPLING, 1, 1); };
  std::vector<uint8_t> ramp(20 * 18 * 3);
  for (size_t i = 0; i < ramp.size(); ++i) ramp[i] = static_cast<uint8_t>(i % 253);
  const std::vector<uint8_t> ramp24(ramp.begin(), ramp.begin() + 24);
  std::vector<uint8_t> ink(32, 0);  // no ink, then full black, alternating
  for (size_t i = 7; i < ink.size(); i += 8) ink[i] = 255;
  std::vector<uint8_t> orange(16 * 16 * 3);
  for (size_t i = 0; i < orange.size(); i += 3)
    orange[i] = 200, orange[i + 1] = 120, orange[i + 2] = 40;
  const auto u8 = SampleFormat::uint8;
  const auto u16 = SampleFormat::uint16;
  const auto f32 = SampleFormat::float32;
  const uint16_t rgb = PHOTOMETRIC_RGB;

  // clang-format off
  const LayoutCase cases[] = {
      {"1-bit min-is-black", {.bits = 1, .data = {0b1010'0000, 0}}, 1, u8, 1, {255, 0, 255, 0}},
      {"1-bit min-is-white", {.bits = 1, .photometric = PHOTOMETRIC_MINISWHITE, .data = {0b1010'0000, 0}}, 1, u8, 1,
       {0, 255, 0, 255}},
      {"16-bit grey keeps its value", {.bits = 16, .data = raw<uint16_t>({0x1234, 0, 0xffff, 7, 0, 0, 0, 0})}, 1, u16,
       16, {0x1234, 0, 0xffff, 7}},
      {"32-bit integers scale to 16", {.bits = 32, .data = raw<uint32_t>({0xffffffff, 0x80000000, 0, 0, 0, 0, 0, 0})},
       1, u16, 32, {65535, 32768, 0}},
      {"32-bit float", {.bits = 32, .data = raw<float>({0.25f, 1.5f, 0, 0, 0, 0, 0, 0}),
                        .tags = tag(TIFFTAG_SAMPLEFORMAT, SAMPLEFORMAT_IEEEFP)}, 1, f32, 32, {0.25, 1.5}},
      {"RGB, LZW", {.samples = 3, .photometric = rgb, .data = ramp24, .tags = tag(TIFFTAG_COMPRESSION, COMPRESSION_LZW)},
       3, u8, 8, {0, 1, 2, 3, 4, 5}},
      {"RGBA, straight alpha", {.samples = 4, .photometric = rgb, .data = std::vector<uint8_t>(32, 100),
                                .tags = extra(EXTRASAMPLE_UNASSALPHA)}, 4, u8, 8, {100, 100, 100, 100}},
      {"RGBA, premultiplied alpha", {.width = 1, .height = 1, .samples = 4, .photometric = rgb,
                                     .data = {100, 50, 0, 128}, .tags = extra(EXTRASAMPLE_ASSOCALPHA)},
       4, u8, 8, {199, 100, 0, 128}, 1},
      {"16-bit RGB in separate planes", {.width = 2, .height = 1, .samples = 3, .bits = 16, .photometric = rgb,
                                         .data = raw<uint16_t>({1, 2, 300, 400, 50000, 60000}),
                                         .tags = tag(TIFFTAG_PLANARCONFIG, PLANARCONFIG_SEPARATE)},
       3, u16, 16, {1, 300, 50000, 2, 400, 60000}},
      {"4-bit palette", {.bits = 4, .photometric = PHOTOMETRIC_PALETTE, .data = {0x12, 0, 0, 0}, .tags = colourMap},
       3, u8, 8, {255, 0, 0, 0, 255, 128}},
      {"CMYK", {.samples = 4, .photometric = PHOTOMETRIC_SEPARATED, .data = ink}, 3, u8, 8, {255, 255, 255, 0, 0, 0}},
      {"tiles with ragged edges", {.width = 20, .height = 18, .samples = 3, .photometric = rgb, .data = ramp,
                                   .tile = 16}, 3, u8, 8, {0, 1, 2, 3}},
      {"JPEG-compressed YCbCr", {.width = 16, .height = 16, .samples = 3, .photometric = PHOTOMETRIC_YCBCR,
                                 .data = orange, .tags = jpeg}, 3, u8, 8, {200, 120, 40}, 4},
      {"uncompressed YCbCr through the RGBA renderer, rows not flipped",
       {.width = 2, .height = 2, .samples = 3, .photometric = PHOTOMETRIC_YCBCR,
        .data = {128, 128, 128, 128, 128, 128, 20, 128, 128, 20, 128, 128}, .tags = noSubsampling},
       3, u8, 8, {128, 128, 128, 128, 128, 128, 20, 20, 20}, 2},
  };
  // clang-format on
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    const auto file = writeTiff({c.page});
    const auto frame = decodeFrame(asBytes(file));
    ASSERT_EQ(frame.pixels.width, static_cast<int>(c.page.width));
    EXPECT_EQ(frame.pixels.channels, c.channels);
    EXPECT_EQ(frame.pixels.format, c.format);
    EXPECT_EQ(frame.nativeBits, c.nativeBits);
    EXPECT_EQ(frame.isFloat, c.format == f32);
    for (size_t i = 0; i < c.expected.size(); ++i)
      EXPECT_NEAR(sampleAt(frame.pixels, i), c.expected[i], c.tolerance) << i;
    if (c.page.tile) {  // every tile lands in its place
      EXPECT_TRUE(std::equal(ramp.begin(), ramp.end(), frame.pixels.data.begin()));
    }
    EXPECT_EQ(probeContainer(asBytes(file)).isFloat, c.format == f32);
  }
}

TEST(TiffCodec, CarriesProfileXmpAndOrientation) {
  std::vector<uint8_t> icc(3000);  // libtiff carries the profile without reading it
  for (size_t i = 0; i < icc.size(); ++i) icc[i] = static_cast<uint8_t>(i * 29);
  const std::string xmp = "<x:xmpmeta xmlns:x=\"adobe:ns:meta/\"/>";
  const auto file = writeTiff(
      {{.width = 6,
        .height = 2,
        .samples = 3,
        .photometric = PHOTOMETRIC_RGB,
        .data = std::vector<uint8_t>(36, 9),
        .tags = [&](TIFF* t) {
          TIFFSetField(t, TIFFTAG_ICCPROFILE, static_cast<uint32_t>(icc.size()), icc.data());
          TIFFSetField(t, TIFFTAG_XMLPACKET, static_cast<uint32_t>(xmp.size()), xmp.data());
          TIFFSetField(t, TIFFTAG_ORIENTATION, ORIENTATION_RIGHTTOP);
        }}});
  const auto frame = decodeFrame(asBytes(file));
  EXPECT_EQ(frame.iccProfile, icc);
  EXPECT_EQ(frame.xmp, xmp);
  EXPECT_EQ(frame.orientation, 6u);
  const auto probe = probeContainer(asBytes(file));
  EXPECT_EQ(probe.orientation, 6u);
  EXPECT_EQ(probe.width, 6);  // stored size: orientation is not applied
  EXPECT_EQ(probe.bitsPerSample, 8);
}

TEST(TiffCodec, CountsPagesButNotPreviews) {
  const Page page{.data = std::vector<uint8_t>(8, 50)};
  const auto twoPages = writeTiff({page, page});
  EXPECT_EQ(probeContainer(asBytes(twoPages)).frameCount, 2);
  expectRefused(twoPages, CodecError::Kind::multiFrame, 2);
  Page preview{.width = 2, .height = 1, .data = {1, 2}};
  preview.tags = [](TIFF* t) { TIFFSetField(t, TIFFTAG_SUBFILETYPE, FILETYPE_REDUCEDIMAGE); };
  const auto withPreview = writeTiff({page, preview});
  EXPECT_EQ(probeContainer(asBytes(withPreview)).frameCount, 1);
  const auto frame = decodeFrame(asBytes(withPreview));
  EXPECT_EQ(frame.pixels.width, 4);
  EXPECT_EQ(frame.pixels.data[0], 50);
}

TEST(TiffCodec, RefusesDamagedInput) {
  std::vector<uint8_t> noise(64 * 32);
  for (size_t i = 0; i < noise.size(); ++i) noise[i] = static_cast<uint8_t>(i * 7919 >> 3);
  for (uint16_t compression : {COMPRESSION_NONE, COMPRESSION_ADOBE_DEFLATE}) {
    SCOPED_TRACE(compression);
    // libtiff writes the pixel data first and the directory last.
    const auto good =
        writeTiff({{.width = 64, .height = 32, .data = noise, .tags = [compression](TIFF* t) {
                      TIFFSetField(t, TIFFTAG_COMPRESSION, compression);
                    }}});
    for (size_t keep : {size_t{6}, size_t{100}, good.size() / 2, good.size() - 20})
      expectRefused(std::vector<uint8_t>(good.begin(), good.begin() + keep));
    // The strip loses its second half but the directory survives (this
    // fixture has no values stored outside the directory, so only the
    // header's pointer to it moves).
    uint32_t directory;
    std::memcpy(&directory, &good[4], 4);
    const uint32_t kept = 8 + (directory - 8) / 2;
    std::vector<uint8_t> cut(good.begin(), good.begin() + kept);
    cut.insert(cut.end(), good.begin() + directory, good.end());
    std::memcpy(&cut[4], &kept, 4);
    expectRefused(cut);
  }
  expectRefused({});
  expectRefused({'I', 'I', 42, 0, 0xff, 0xff, 0xff, 0x7f});  // IFD far past the end
  const std::string text = "just some words, not a picture";
  expectRefused(std::vector<uint8_t>(text.begin(), text.end()));

  // 100000 x 100000 declared over a few bytes of data: refused before allocating.
  const auto huge = writeTiff(
      {{.width = 100000, .height = 100000, .data = std::vector<uint8_t>(16), .tags = [](TIFF* t) {
          TIFFSetField(t, TIFFTAG_ROWSPERSTRIP, 1);
          TIFFSetField(t, TIFFTAG_COMPRESSION, COMPRESSION_ADOBE_DEFLATE);
        }}});
  EXPECT_EQ(probeContainer(asBytes(huge)).width, 100000);
  expectRefused(huge);
}

}  // namespace
}  // namespace tarnbloom::codec
