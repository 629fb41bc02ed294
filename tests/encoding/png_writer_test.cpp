// The PNG writer filters and deflates bands of rows in parallel and joins
// them into one zlib stream: every layout must read back bit-exactly with
// libpng, pass pngcheck, and come out the same for any number of threads.

#include <gtest/gtest.h>
#include <omp.h>

#include <zlib.h>

#include <random>

#include "codec/decode.h"
#include "encoding/image_writer.h"
#include "test_support.h"

namespace tarnbloom::encoding {
namespace {

using codec::PixelBuffer;
using codec::SampleFormat;

// Noise, ramps and flat stretches, so that every filter wins somewhere.
PixelBuffer mixedImage(int width, int height, int channels, SampleFormat format) {
  PixelBuffer image;
  image.allocate(width, height, channels, format);
  std::mt19937 random(static_cast<unsigned>(width * 31 + height));
  for (int y = 0; y < height; ++y)
    for (size_t i = 0; i < image.rowBytes(); ++i) {
      const int x = static_cast<int>(i);
      const int region = (x / 97 + y / 53) % 3;
      image.row(y)[i] = static_cast<uint8_t>(region == 0   ? random()
                                             : region == 1 ? x + 3 * y
                                                           : 200);
    }
  return image;
}

// The IDAT chunks joined and inflated to their end, so the stream's own
// Adler-32 is checked (libpng stops once it has its rows). Returns the
// inflated size, or -1 when the stream is not one whole, valid zlib stream.
int64_t inflatedSize(const std::vector<uint8_t>& png) {
  std::vector<uint8_t> stream;
  for (size_t at = 8; at + 12 <= png.size();) {
    const size_t length = size_t{png[at]} << 24 | size_t{png[at + 1]} << 16 |
                          size_t{png[at + 2]} << 8 | png[at + 3];
    if (std::equal(png.begin() + at + 4, png.begin() + at + 8, "IDAT"))
      stream.insert(stream.end(), png.begin() + at + 8, png.begin() + at + 8 + length);
    at += 12 + length;
  }
  z_stream z{};
  inflateInit(&z);
  std::vector<uint8_t> out(1 << 20);
  z.next_in = stream.data();
  z.avail_in = static_cast<uInt>(stream.size());
  int64_t total = 0;
  int status = Z_OK;
  while (status == Z_OK) {
    z.next_out = out.data();
    z.avail_out = static_cast<uInt>(out.size());
    status = inflate(&z, Z_NO_FLUSH);
    total += static_cast<int64_t>(out.size() - z.avail_out);
  }
  const bool whole = status == Z_STREAM_END && z.avail_in == 0;
  inflateEnd(&z);
  return whole ? total : -1;
}

TEST(PngWriter, EveryLayoutReadsBackExactlyAndPassesPngcheck) {
  testing::TempDir dir;
  struct Layout {
    int width, height, channels;
    SampleFormat format;
  };
  // One pixel, one column, one row; and images of two and three bands.
  const Layout layouts[] = {{1, 1, 1, SampleFormat::uint8},     {1, 700, 3, SampleFormat::uint8},
                            {2000, 1, 4, SampleFormat::uint16}, {300, 200, 4, SampleFormat::uint8},
                            {777, 3000, 3, SampleFormat::uint8},
                            {513, 4100, 2, SampleFormat::uint16}};
  for (const Layout& l : layouts) {
    SCOPED_TRACE(std::to_string(l.width) + "x" + std::to_string(l.height) + "x" +
                 std::to_string(l.channels));
    const PixelBuffer image = mixedImage(l.width, l.height, l.channels, l.format);
    const auto bytes = encodePNG(image, {});
    const auto file = dir / "image.png";
    testing::writeBytes(file, std::span<const uint8_t>(bytes));
    std::string said;
    EXPECT_EQ(testing::runCommand("pngcheck '" + file.string() + "' 2>&1", &said), 0) << said;
    EXPECT_EQ(inflatedSize(bytes), static_cast<int64_t>(image.rowBytes() + 1) * l.height);
    const auto frame = codec::decodeFrame(std::as_bytes(std::span(bytes)));
    ASSERT_EQ(frame.pixels.width, l.width);
    ASSERT_EQ(frame.pixels.height, l.height);
    ASSERT_EQ(frame.pixels.channels, l.channels);
    ASSERT_EQ(frame.pixels.format, l.format);
    EXPECT_TRUE(frame.pixels.data == image.data);
  }
}

TEST(PngWriter, GivesTheSameBytesForAnyNumberOfThreads) {
  const PixelBuffer image = mixedImage(901, 5000, 3, SampleFormat::uint8);  // three bands
  const int threads = omp_get_max_threads();
  omp_set_num_threads(1);
  const auto alone = encodePNG(image, {});
  omp_set_num_threads(std::max(threads, 3));
  const auto together = encodePNG(image, {});
  omp_set_num_threads(threads);
  EXPECT_TRUE(alone == together);
}

}  // namespace
}  // namespace tarnbloom::encoding
