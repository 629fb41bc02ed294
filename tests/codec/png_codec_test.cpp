#include <gtest/gtest.h>
#include <lcms2.h>
#include <png.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <functional>

#include "decode_expectations.h"
#include "test_support.h"

namespace tarnbloom::codec {
namespace {

using namespace tarnbloom::testing;
using Extra = std::function<void(png_structp, png_infop)>;

void appendTo(png_structp png, png_bytep data, size_t length) {
  auto* out = static_cast<std::vector<uint8_t>*>(png_get_io_ptr(png));
  out->insert(out->end(), data, data + length);
}

// `raw` holds the rows exactly as PNG stores them (packed, big-endian).
std::vector<uint8_t> writePng(int width, int height, int depth, int colourType,
                              const std::vector<uint8_t>& raw, const Extra& beforeInfo = {},
                              const Extra& afterInfo = {}, bool interlace = false) {
  std::vector<uint8_t> out;
  png_structp png = png_create_write_struct(PNG_LIBPNG_VER_STRING, nullptr, nullptr, nullptr);
  png_infop info = png_create_info_struct(png);
  if (setjmp(png_jmpbuf(png))) std::abort();  // fixtures are valid by construction
  png_set_write_fn(png, &out, appendTo, nullptr);
  png_set_IHDR(png, info, width, height, depth, colourType,
               interlace ? PNG_INTERLACE_ADAM7 : PNG_INTERLACE_NONE, PNG_COMPRESSION_TYPE_DEFAULT,
               PNG_FILTER_TYPE_DEFAULT);
  if (beforeInfo) beforeInfo(png, info);
  png_write_info(png, info);
  if (afterInfo) afterInfo(png, info);
  const size_t rowBytes = raw.size() / height;
  std::vector<png_bytep> rows(height);
  for (int y = 0; y < height; ++y) rows[y] = const_cast<uint8_t*>(raw.data() + y * rowBytes);
  png_write_image(png, rows.data());
  png_write_end(png, info);
  png_destroy_write_struct(&png, &info);
  return out;
}

uint32_t chunkCrc(const uint8_t* data, size_t length) {
  uint32_t c = 0xffffffffu;
  for (size_t i = 0; i < length; ++i) {
    c ^= data[i];
    for (int k = 0; k < 8; ++k) c = c & 1 ? 0xedb88320u ^ (c >> 1) : c >> 1;
  }
  return c ^ 0xffffffffu;
}

struct LayoutCase {
  const char* name;
  int depth;
  int colourType;
  std::vector<uint8_t> raw;  // 4 x 1 pixels
  Extra extra;
  int channels;
  int nativeBits;
  std::vector<uint16_t> expected;  // the first samples of the decoded row
};

TEST(PngCodec, DecodesEveryLayoutToFullRangeSamples) {
  png_color palette[3] = {{255, 0, 0}, {0, 255, 0}, {0, 0, 255}};
  const Extra greyKey = [](png_structp png, png_infop info) {
    png_color_16 transparent{};
    transparent.gray = 9;
    png_set_tRNS(png, info, nullptr, 0, &transparent);
  };
  const Extra paletteWithHole = [&](png_structp png, png_infop info) {
    png_set_PLTE(png, info, palette, 3);
    png_byte alpha[2] = {255, 0};
    png_set_tRNS(png, info, alpha, 2, nullptr);
  };
  std::vector<uint8_t> rgba16(32, 0);
  for (uint8_t i = 0; i < 8; ++i) rgba16[i] = "\x12\x34\x00\x01\xab\xcd\x80\x00"[i];
  // clang-format off
  const LayoutCase cases[] = {
      {"1-bit grey spreads to 0 and 255", 1, PNG_COLOR_TYPE_GRAY, {0b1010'0000}, {}, 1, 1, {255, 0, 255, 0}},
      {"4-bit grey", 4, PNG_COLOR_TYPE_GRAY, {0xf5, 0x01}, {}, 1, 4, {255, 85, 0, 17}},
      {"16-bit grey keeps its value", 16, PNG_COLOR_TYPE_GRAY, {0x12, 0x34, 0, 0, 0xff, 0xff, 0, 1}, {}, 1, 16,
       {0x1234, 0, 0xffff, 1}},
      {"grey with a transparent value", 8, PNG_COLOR_TYPE_GRAY, {7, 9, 7, 9}, greyKey, 2, 8, {7, 255, 9, 0}},
      {"16-bit RGBA", 16, PNG_COLOR_TYPE_RGBA, rgba16, {}, 4, 16, {0x1234, 1, 0xabcd, 0x8000}},
      {"2-bit palette with a transparent entry", 2, PNG_COLOR_TYPE_PALETTE, {0b00'01'10'00}, paletteWithHole, 4, 8,
       {255, 0, 0, 255, 0, 255, 0, 0, 0, 0, 255, 255}},
  };
  // clang-format on
  for (const auto& c : cases) {
    for (bool interlace : {false, true}) {  // Adam7 reorders even a single row
      SCOPED_TRACE(std::string(c.name) + (interlace ? ", interlaced" : ""));
      const auto file = writePng(4, 1, c.depth, c.colourType, c.raw, c.extra, {}, interlace);
      const auto frame = decodeFrame(asBytes(file));
      EXPECT_EQ(frame.pixels.channels, c.channels);
      EXPECT_EQ(frame.nativeBits, c.nativeBits);
      EXPECT_EQ(frame.pixels.format, c.depth == 16 ? SampleFormat::uint16 : SampleFormat::uint8);
      for (size_t i = 0; i < c.expected.size(); ++i)
        EXPECT_EQ(sampleAt(frame.pixels, i), c.expected[i]);
      EXPECT_EQ(probeContainer(asBytes(file)).bitsPerSample, c.nativeBits);
    }
  }
}

TEST(PngCodec, CarriesProfileExifAndXmpUnchanged) {
  cmsHPROFILE srgb = cmsCreate_sRGBProfile();
  cmsUInt32Number size = 0;
  cmsSaveProfileToMem(srgb, nullptr, &size);
  std::vector<uint8_t> icc(size);
  cmsSaveProfileToMem(srgb, icc.data(), &size);
  cmsCloseProfile(srgb);
  // Big-endian EXIF whose IFD0 holds only Orientation = 6.
  const std::vector<uint8_t> exif = {'M', 'M', 0, 42, 0, 0, 0, 8, 0, 1, 1, 0x12, 0, 3,
                                     0,   0,   0, 1,  0, 6, 0, 0, 0, 0, 0, 0,    0, 0};
  const std::string xmp = "<x:xmpmeta xmlns:x=\"adobe:ns:meta/\"><rdf:RDF/></x:xmpmeta>";
  const auto file = writePng(5, 3, 8, PNG_COLOR_TYPE_RGB, std::vector<uint8_t>(45, 80),
                             [&](png_structp png, png_infop info) {
                               png_set_iCCP(png, info, "icc", 0, icc.data(),
                                            static_cast<png_uint_32>(icc.size()));
                               png_set_eXIf_1(png, info, static_cast<png_uint_32>(exif.size()),
                                              const_cast<uint8_t*>(exif.data()));
                               png_text text{};
                               text.compression = PNG_ITXT_COMPRESSION_zTXt;
                               text.key = const_cast<char*>("XML:com.adobe.xmp");
                               text.text = const_cast<char*>(xmp.c_str());
                               png_set_text(png, info, &text, 1);
                             });
  testing::expectMetadataCarried(file, icc, exif, xmp, 5);
}

TEST(PngCodec, RefusesAnimations) {
  const auto file = writePng(
      2, 2, 8, PNG_COLOR_TYPE_GRAY, std::vector<uint8_t>(4), {}, [](png_structp png, png_infop) {
        png_byte actl[8] = {0, 0, 0, 3, 0, 0, 0, 0};  // three frames, endless loop
        png_write_chunk(png, reinterpret_cast<png_const_bytep>("acTL"), actl, 8);
      });
  EXPECT_EQ(probeContainer(asBytes(file)).frameCount, 3);
  expectRefused(file, CodecError::Kind::multiFrame, 3);
}

TEST(PngCodec, RefusesDamagedInput) {
  std::vector<uint8_t> raw(40 * 30 * 3);
  for (size_t i = 0; i < raw.size(); ++i) raw[i] = static_cast<uint8_t>(i * 31 % 251);
  const auto good = writePng(40, 30, 8, PNG_COLOR_TYPE_RGB, raw);
  for (size_t keep : {size_t{20}, size_t{40}, good.size() / 2, good.size() - 13, good.size() - 1}) {
    SCOPED_TRACE(keep);
    expectRefused(std::vector<uint8_t>(good.begin(), good.begin() + keep));
  }
  for (size_t at : {good.size() / 2, good.size() - 13}) {  // inside the image data; its CRC
    auto flipped = good;
    flipped[at] ^= 0x10;
    expectRefused(flipped);
  }
  expectRefused({});
  const std::string text = "just some words, not a picture";
  expectRefused(std::vector<uint8_t>(text.begin(), text.end()));

  // 100000 x 100000, and 20000 x 20000 (within the pixel ceiling), declared
  // with a valid IHDR CRC over one pixel of image data: refused before a
  // frame of that size is allocated.
  for (const uint32_t claimed : {100000u, 20000u}) {
    auto huge = writePng(1, 1, 8, PNG_COLOR_TYPE_GRAY, {0});
    for (int at : {16, 20})
      for (int i = 0; i < 4; ++i) huge[at + i] = static_cast<uint8_t>(claimed >> (24 - 8 * i));
    const uint32_t crc = chunkCrc(&huge[12], 17);
    for (int i = 0; i < 4; ++i) huge[29 + i] = static_cast<uint8_t>(crc >> (24 - 8 * i));
    EXPECT_EQ(probeContainer(asBytes(huge)).width, claimed);
    expectRefused(huge);
  }
}

}  // namespace
}  // namespace tarnbloom::codec
