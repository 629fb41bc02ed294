#include <gtest/gtest.h>
#include <tiffio.h>

#include <string>
#include <vector>

#include "codec/codec_error.h"
#include "codec/container.h"
#include "codec/decode.h"
#include "codec/decoder_pool.h"
#include "codec/probe.h"
#include "test_support.h"

namespace tarnbloom::codec {
namespace {

using tarnbloom::testing::asBytes;
using tarnbloom::testing::readBytes;
using tarnbloom::testing::TempDir;

constexpr int kWidth = 64;
constexpr int kHeight = 48;
constexpr uint16_t kLinearRaw =
    34892;  // DNG photometric interpretation; libtiff has no name for it

enum class Patch { dark, light, red };

// The scene: a dark grey left third, a light grey middle, a red right third.
Patch patchAt(int x) {
  return x < kWidth / 3 ? Patch::dark : x < 2 * kWidth / 3 ? Patch::light : Patch::red;
}

// Linear sensor value of colour `c` (0 R, 1 G, 2 B) for a patch, 12-bit.
uint16_t sensorValue(Patch patch, int c) {
  switch (patch) {
    case Patch::dark:
      return 300;
    case Patch::light:
      return 2400;
    case Patch::red:
      return c == 0 ? 3000 : 250;
  }
  return 0;
}

// A minimal camera DNG written with libtiff: 12-bit data in 16-bit samples,
// either a Bayer mosaic (RGGB) or already demosaiced linear RGB. Its colour
// matrix makes the camera's space linear sRGB, so grey stays grey.
std::vector<std::byte> makeDng(const TempDir& dir, bool mosaic, uint16_t orientation) {
  const auto path = dir / (mosaic ? "cfa.dng" : "linear.dng");
  TIFF* tif = TIFFOpen(path.c_str(), "w");
  const int samples = mosaic ? 1 : 3;
  TIFFSetField(tif, TIFFTAG_SUBFILETYPE, 0);
  TIFFSetField(tif, TIFFTAG_IMAGEWIDTH, kWidth);
  TIFFSetField(tif, TIFFTAG_IMAGELENGTH, kHeight);
  TIFFSetField(tif, TIFFTAG_BITSPERSAMPLE, 16);
  TIFFSetField(tif, TIFFTAG_SAMPLESPERPIXEL, samples);
  TIFFSetField(tif, TIFFTAG_COMPRESSION, COMPRESSION_NONE);
  TIFFSetField(tif, TIFFTAG_PHOTOMETRIC, mosaic ? PHOTOMETRIC_CFA : kLinearRaw);
  TIFFSetField(tif, TIFFTAG_PLANARCONFIG, PLANARCONFIG_CONTIG);
  TIFFSetField(tif, TIFFTAG_ROWSPERSTRIP, kHeight);
  TIFFSetField(tif, TIFFTAG_ORIENTATION, orientation);
  TIFFSetField(tif, TIFFTAG_MAKE, "Tarnbloom");
  TIFFSetField(tif, TIFFTAG_MODEL, "Testcam");
  const uint8_t version[4] = {1, 4, 0, 0};
  TIFFSetField(tif, TIFFTAG_DNGVERSION, version);
  TIFFSetField(tif, TIFFTAG_UNIQUECAMERAMODEL, "Tarnbloom Testcam");
  if (mosaic) {
    const uint16_t dim[2] = {2, 2};
    const uint8_t rggb[4] = {0, 1, 1, 2};
    TIFFSetField(tif, TIFFTAG_CFAREPEATPATTERNDIM, dim);
    TIFFSetField(tif, TIFFTAG_CFAPATTERN, 4, rggb);
  }
  // XYZ (D65) to linear sRGB.
  const float xyzToSrgb[9] = {3.2406f, -1.5372f, -0.4986f, -0.9689f, 1.8758f,
                              0.0415f, 0.0557f,  -0.2040f, 1.0570f};
  TIFFSetField(tif, TIFFTAG_COLORMATRIX1, 9, xyzToSrgb);
  TIFFSetField(tif, TIFFTAG_CALIBRATIONILLUMINANT1, 21);  // D65
  const float neutral[3] = {1, 1, 1};
  TIFFSetField(tif, TIFFTAG_ASSHOTNEUTRAL, 3, neutral);
  const uint32_t white = 4095;
  TIFFSetField(tif, TIFFTAG_WHITELEVEL, 1, &white);

  std::vector<uint16_t> row(size_t{kWidth} * samples);
  for (int y = 0; y < kHeight; ++y) {
    for (int x = 0; x < kWidth; ++x) {
      if (mosaic) {
        const int colour = (y % 2) * 2 + (x % 2);  // RGGB: 0 R, 1/2 G, 3 B
        row[x] = sensorValue(patchAt(x), colour == 0 ? 0 : colour == 3 ? 2 : 1);
      } else {
        for (int c = 0; c < 3; ++c) row[x * 3 + c] = sensorValue(patchAt(x), c);
      }
    }
    TIFFWriteScanline(tif, row.data(), y, 0);
  }
  TIFFClose(tif);
  return readBytes(path);
}

// Mean of one channel over a patch's inner columns (edges are demosaiced
// from both neighbours).
double patchMean(const PixelBuffer& px, int x0, int x1, int c) {
  double sum = 0;
  int n = 0;
  for (int y = 4; y < px.height - 4; ++y)
    for (int x = x0 + 3; x < x1 - 3; ++x, ++n)
      sum += reinterpret_cast<const uint16_t*>(px.row(y))[x * px.channels + c];
  return sum / n;
}

class RawDng : public ::testing::TestWithParam<bool> {};

TEST_P(RawDng, DevelopsToSixteenBitSrgbWithPlausibleColours) {
  TempDir dir;
  const auto file = makeDng(dir, GetParam(), ORIENTATION_TOPLEFT);
  EXPECT_EQ(sniffContainer(file), Container::raw);
  const ContainerProbe probe = probeContainer(file);
  EXPECT_EQ(probe.container, Container::raw);
  EXPECT_TRUE(probe.opened && probe.hasProperties);
  EXPECT_EQ(probe.frameCount, 1);
  EXPECT_EQ(probe.width, kWidth);
  EXPECT_EQ(probe.height, kHeight);
  EXPECT_EQ(probe.bitsPerSample, 16);

  const DecodedFrame frame = decodeFrame(file);
  // The helper develops it alike, LibRaw's threads and all, in its sandbox.
  EXPECT_TRUE(DecoderPool::shared().decode(SealedBytes::copyOf(file)).pixels.data ==
              frame.pixels.data);
  EXPECT_EQ(frame.container, Container::raw);
  EXPECT_EQ(frame.nativeBits, 16);
  EXPECT_TRUE(frame.iccProfile.empty());
  const PixelBuffer& px = frame.pixels;
  ASSERT_EQ(px.width, kWidth);
  ASSERT_EQ(px.height, kHeight);
  ASSERT_EQ(px.channels, 3);
  ASSERT_EQ(px.format, SampleFormat::uint16);

  const int third = kWidth / 3;
  double dark[3], light[3], red[3];
  for (int c = 0; c < 3; ++c) {
    dark[c] = patchMean(px, 0, third, c);
    light[c] = patchMean(px, third, 2 * third, c);
    red[c] = patchMean(px, 2 * third, kWidth, c);
  }
  // Brightness order holds, greys stay neutral, red stays red, and nothing
  // was byte-swapped (which would scramble the order).
  EXPECT_GT(light[1], dark[1] * 1.8);
  EXPECT_GT(dark[1], 1000);
  for (int c = 0; c < 3; ++c) {
    EXPECT_NEAR(dark[c] / dark[1], 1.0, 0.15) << "channel " << c;
    EXPECT_NEAR(light[c] / light[1], 1.0, 0.15) << "channel " << c;
  }
  EXPECT_GT(red[0], 2.5 * red[1]);
  EXPECT_GT(red[0], 2.5 * red[2]);
}

INSTANTIATE_TEST_SUITE_P(Raw, RawDng, ::testing::Bool(),
                         [](const auto& info) { return info.param ? "Mosaic" : "LinearRgb"; });

TEST(RawOrientation, StoredFrameWithOrientationBeside) {
  TempDir dir;
  for (const uint16_t orientation : {1, 3, 6, 8}) {
    SCOPED_TRACE(orientation);
    const auto file = makeDng(dir, true, orientation);
    const ContainerProbe probe = probeContainer(file);
    EXPECT_EQ(probe.orientation, orientation);
    EXPECT_EQ(probe.width, kWidth);  // as stored
    const DecodedFrame frame = decodeFrame(file);
    EXPECT_EQ(frame.orientation, orientation);
    EXPECT_EQ(frame.pixels.width, kWidth);
    EXPECT_EQ(frame.pixels.height, kHeight);
    // Not turned: the red patch is still on the stored right.
    const double left = patchMean(frame.pixels, 0, kWidth / 3, 0);
    const double right = patchMean(frame.pixels, 2 * kWidth / 3, kWidth, 0);
    const double rightGreen = patchMean(frame.pixels, 2 * kWidth / 3, kWidth, 1);
    EXPECT_GT(right, left);
    EXPECT_GT(right, 2.5 * rightGreen);
  }
}

TEST(RawDamage, BadFilesAreUnreadableAndProbeNeverThrows) {
  TempDir dir;
  const auto good = makeDng(dir, true, 1);
  std::vector<std::pair<std::string, std::vector<std::byte>>> cases;
  // Cut in the header, in the IFD, and inside the sensor data.
  for (const size_t keep : {size_t{16}, size_t{200}, good.size() / 2})
    cases.emplace_back("truncated at " + std::to_string(keep),
                       std::vector<std::byte>(good.begin(), good.begin() + keep));
  // Image width claiming 65535 × 65535 pixels behind a valid header.
  auto huge = good;
  const auto tiff = reinterpret_cast<uint8_t*>(huge.data());
  const uint32_t ifd = tiff[4] | tiff[5] << 8 | tiff[6] << 16 | uint32_t{tiff[7]} << 24;
  const uint16_t entries = tiff[ifd] | tiff[ifd + 1] << 8;
  for (uint32_t e = 0; e < entries; ++e) {
    uint8_t* entry = tiff + ifd + 2 + 12 * e;
    const uint16_t tag = entry[0] | entry[1] << 8;
    if (tag == TIFFTAG_IMAGEWIDTH || tag == TIFFTAG_IMAGELENGTH) entry[8] = entry[9] = 0xff;
  }
  cases.emplace_back("gigantic size", huge);

  for (const auto& [name, bytes] : cases) {
    SCOPED_TRACE(name);
    EXPECT_NO_THROW(probeContainer(bytes));
    try {
      const DecodedFrame frame = decodeFrame(bytes);
      // LibRaw fills a short read with black; it may not claim another size.
      EXPECT_EQ(frame.pixels.width, kWidth) << name;
      EXPECT_NE(name, "gigantic size");
    } catch (const CodecError& e) {
      EXPECT_EQ(e.kind(), CodecError::Kind::unreadable);
    }
  }
}

}  // namespace
}  // namespace tarnbloom::codec
