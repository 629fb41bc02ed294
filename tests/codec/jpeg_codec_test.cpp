#include <gtest/gtest.h>

// clang-format off
#include <cstdio>
#include <jpeglib.h>
// clang-format on

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <tuple>

#include "decode_expectations.h"
#include "test_support.h"

namespace tarnbloom::codec {
namespace {

using namespace tarnbloom::testing;
using Configure = std::function<void(j_compress_ptr)>;

// `configure` runs after the defaults are set, `markers` after the SOI.
std::vector<uint8_t> writeJpeg(int width, int height, int components, J_COLOR_SPACE space,
                               const std::vector<uint8_t>& pixels, const Configure& configure = {},
                               const Configure& markers = {}) {
  jpeg_compress_struct cinfo{};
  jpeg_error_mgr err{};
  cinfo.err = jpeg_std_error(&err);  // exits on error: fixtures are valid by construction
  jpeg_create_compress(&cinfo);
  unsigned char* buffer = nullptr;
  unsigned long size = 0;
  jpeg_mem_dest(&cinfo, &buffer, &size);
  cinfo.image_width = width;
  cinfo.image_height = height;
  cinfo.input_components = components;
  cinfo.in_color_space = space;
  jpeg_set_defaults(&cinfo);
  jpeg_set_quality(&cinfo, 95, TRUE);
  if (configure) configure(&cinfo);
  jpeg_start_compress(&cinfo, TRUE);
  if (markers) markers(&cinfo);
  while (cinfo.next_scanline < cinfo.image_height) {
    JSAMPROW row = const_cast<uint8_t*>(pixels.data() + cinfo.next_scanline * width * components);
    jpeg_write_scanlines(&cinfo, &row, 1);
  }
  jpeg_finish_compress(&cinfo);
  jpeg_destroy_compress(&cinfo);
  std::vector<uint8_t> out(buffer, buffer + size);
  std::free(buffer);
  return out;
}

std::vector<uint8_t> gradient(int width, int height, int components) {
  std::vector<uint8_t> pixels(size_t(width) * height * components);
  for (int y = 0; y < height; ++y)
    for (int x = 0; x < width; ++x)
      for (int c = 0; c < components; ++c)
        pixels[(size_t(y) * width + x) * components + c] =
            static_cast<uint8_t>(20 + 3 * x + 2 * y + 20 * c);
  return pixels;
}

// The offset of the frame header's precision byte.
size_t frameHeaderAt(const std::vector<uint8_t>& file) {
  for (size_t i = 2; i + 1 < file.size(); ++i)
    if (file[i] == 0xff &&
        (file[i + 1] == 0xc0 || file[i + 1] == 0xc2 || file[i + 1] == 0xc9 || file[i + 1] == 0xca))
      return i + 4;
  return 0;
}

TEST(JpegCodec, DecodesEveryCodingProcess) {
  struct Case {
    const char* name;
    int components;
    J_COLOR_SPACE space;
    Configure configure;
  };
  const Configure progressive = [](j_compress_ptr c) { jpeg_simple_progression(c); };
  const Configure arithmetic = [](j_compress_ptr c) { c->arith_code = TRUE; };
  const Configure both = [&](j_compress_ptr c) { progressive(c), arithmetic(c); };
  const Case cases[] = {{"baseline RGB", 3, JCS_RGB, {}},
                        {"progressive", 3, JCS_RGB, progressive},
                        {"arithmetic", 3, JCS_RGB, arithmetic},
                        {"progressive arithmetic", 3, JCS_RGB, both},
                        {"greyscale", 1, JCS_GRAYSCALE, {}}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    const auto source = gradient(33, 17, c.components);
    const auto file = writeJpeg(33, 17, c.components, c.space, source, c.configure);
    const auto frame = decodeFrame(asBytes(file));
    ASSERT_EQ(frame.pixels.width, 33);
    ASSERT_EQ(frame.pixels.height, 17);
    ASSERT_EQ(frame.pixels.channels, c.components);
    EXPECT_EQ(frame.nativeBits, 8);
    int worst = 0;
    for (size_t i = 0; i < source.size(); ++i)
      worst = std::max(worst, std::abs(source[i] - frame.pixels.data[i]));
    EXPECT_LE(worst, 8);
    const auto probe = probeContainer(asBytes(file));
    EXPECT_TRUE(probe.opened && probe.hasProperties && probe.frameCount == 1);
    EXPECT_EQ(std::tuple(probe.width, probe.height, probe.bitsPerSample), std::tuple(33, 17, 8));
  }
}

TEST(JpegCodec, ConvertsCmykWithAndWithoutAdobeInversion) {
  // Left half without ink, right half full black ink.
  auto inks = std::vector<uint8_t>(16 * 8 * 4, 0);
  for (int y = 0; y < 8; ++y)
    for (int x = 8; x < 16; ++x) inks[(y * 16 + x) * 4 + 3] = 255;
  for (bool adobe : {true, false}) {
    SCOPED_TRACE(adobe ? "Adobe" : "plain");
    auto stored = inks;
    if (adobe)
      for (auto& v : stored) v = static_cast<uint8_t>(255 - v);
    const auto file = writeJpeg(16, 8, 4, JCS_CMYK, stored, [adobe](j_compress_ptr c) {
      jpeg_set_colorspace(c, JCS_CMYK);
      c->write_Adobe_marker = adobe;
    });
    const auto frame = decodeFrame(asBytes(file));
    ASSERT_EQ(frame.pixels.channels, 3);
    EXPECT_TRUE(frame.convertedFromCmyk);
    EXPECT_TRUE(frame.iccProfile.empty());
    const uint8_t* row = frame.pixels.row(4);
    EXPECT_GE(row[3 * 1], 245);  // paper white
    EXPECT_LE(row[3 * 14], 10);  // black ink
  }
}

TEST(JpegCodec, CarriesProfileExifAndXmpUnchanged) {
  // Larger than one APP2 segment, so the chunks must be joined in order.
  std::vector<uint8_t> icc(70000);
  for (size_t i = 0; i < icc.size(); ++i) icc[i] = static_cast<uint8_t>(i * 13 + i / 256);
  const std::vector<uint8_t> exif = {'I', 'I', 42, 0, 8, 0, 0, 0, 1, 0, 0x12, 0x01, 3,
                                     0,   1,   0,  0, 0, 6, 0, 0, 0, 0, 0,    0,    0};
  const std::string xmp = "<x:xmpmeta xmlns:x=\"adobe:ns:meta/\"/>";
  const auto file = writeJpeg(40, 30, 3, JCS_RGB, gradient(40, 30, 3), {}, [&](j_compress_ptr c) {
    std::vector<uint8_t> app1 = {'E', 'x', 'i', 'f', 0, 0};
    app1.insert(app1.end(), exif.begin(), exif.end());
    jpeg_write_marker(c, JPEG_APP0 + 1, app1.data(), static_cast<unsigned>(app1.size()));
    std::string xmpApp1("http://ns.adobe.com/xap/1.0/\0", 29);
    xmpApp1 += xmp;
    jpeg_write_marker(c, JPEG_APP0 + 1, reinterpret_cast<const JOCTET*>(xmpApp1.data()),
                      static_cast<unsigned>(xmpApp1.size()));
    jpeg_write_icc_profile(c, icc.data(), static_cast<unsigned>(icc.size()));
  });
  testing::expectMetadataCarried(file, icc, exif, xmp, 40);
}

TEST(JpegCodec, ReportsTwelveBitPrecisionButCannotDecodeIt) {
  auto file = writeJpeg(8, 8, 1, JCS_GRAYSCALE, gradient(8, 8, 1));
  const size_t precision = frameHeaderAt(file);
  ASSERT_NE(precision, 0u);
  file[precision] = 12;
  EXPECT_EQ(probeContainer(asBytes(file)).bitsPerSample, 12);
  EXPECT_THROW(decodeFrame(asBytes(file)), CodecError);
}

TEST(JpegCodec, RefusesDamagedInput) {
  for (bool progressive : {false, true}) {
    SCOPED_TRACE(progressive ? "progressive" : "baseline");
    const auto good =
        writeJpeg(40, 48, 3, JCS_RGB, gradient(40, 48, 3), [progressive](j_compress_ptr c) {
          if (progressive) jpeg_simple_progression(c);
        });
    // Cut in the tables, in the middle of the entropy data, and just before EOI:
    // libjpeg would pad each with grey and only warn.
    for (size_t keep : {size_t{30}, good.size() / 2, good.size() - 40, good.size() - 2})
      expectRefused(std::vector<uint8_t>(good.begin(), good.begin() + keep));
  }
  expectRefused({});
  expectRefused({0xff, 0xd8, 0xff});
  const std::string text = "just some words, not a picture";
  expectRefused(std::vector<uint8_t>(text.begin(), text.end()));

  // 60000 x 60000 declared, a few bytes of data: refused before libjpeg
  // sizes its coefficient buffers.
  auto huge = writeJpeg(8, 8, 3, JCS_RGB, gradient(8, 8, 3),
                        [](j_compress_ptr c) { jpeg_simple_progression(c); });
  const size_t at = frameHeaderAt(huge);
  for (size_t i : {at + 1, at + 3}) huge[i] = 0xea, huge[i + 1] = 0x60;
  EXPECT_EQ(probeContainer(asBytes(huge)).width, 60000);
  expectRefused(huge);
}

}  // namespace
}  // namespace tarnbloom::codec
