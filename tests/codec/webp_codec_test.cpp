#include <gtest/gtest.h>
#include <webp/encode.h>
#include <webp/mux.h>

#include <cstring>
#include <string>
#include <vector>

#include "codec/codec_error.h"
#include "codec/decode.h"
#include "codec/probe.h"
#include "test_support.h"

namespace tarnbloom::codec {
namespace {

using tarnbloom::testing::asBytes;

constexpr int kWidth = 40;
constexpr int kHeight = 30;

// RGBA with a transparent left third and a colour gradient.
std::vector<uint8_t> pattern(int channels) {
  std::vector<uint8_t> px(size_t{kWidth} * kHeight * channels);
  for (int y = 0; y < kHeight; ++y)
    for (int x = 0; x < kWidth; ++x) {
      uint8_t* p = &px[(size_t{kWidth} * y + x) * channels];
      p[0] = static_cast<uint8_t>(x * 6);
      p[1] = static_cast<uint8_t>(y * 8);
      p[2] = static_cast<uint8_t>(255 - x * 3);
      if (channels == 4) p[3] = x < kWidth / 3 ? 0 : static_cast<uint8_t>(128 + y);
    }
  return px;
}

std::vector<uint8_t> lossyRgb() {
  const auto px = pattern(3);
  uint8_t* data = nullptr;
  const size_t size = WebPEncodeRGB(px.data(), kWidth, kHeight, kWidth * 3, 90, &data);
  std::vector<uint8_t> out(data, data + size);
  WebPFree(data);
  return out;
}

// Lossless and exact: even fully transparent pixels keep their colour.
std::vector<uint8_t> losslessRgba() {
  auto px = pattern(4);
  WebPConfig config;
  WebPConfigInit(&config);
  config.lossless = 1;
  config.exact = 1;
  WebPPicture picture;
  WebPPictureInit(&picture);
  picture.use_argb = 1;
  picture.width = kWidth;
  picture.height = kHeight;
  WebPPictureImportRGBA(&picture, px.data(), kWidth * 4);
  WebPMemoryWriter writer;
  WebPMemoryWriterInit(&writer);
  picture.writer = WebPMemoryWrite;
  picture.custom_ptr = &writer;
  EXPECT_TRUE(WebPEncode(&config, &picture));
  WebPPictureFree(&picture);
  std::vector<uint8_t> out(writer.mem, writer.mem + writer.size);
  WebPMemoryWriterClear(&writer);
  return out;
}

// Adds metadata chunks (the file becomes an extended VP8X one).
std::vector<uint8_t> withChunks(
    const std::vector<uint8_t>& file,
    const std::vector<std::pair<std::string, std::vector<uint8_t>>>& chunks) {
  const WebPData in{file.data(), file.size()};
  WebPMux* mux = WebPMuxCreate(&in, 1);
  for (const auto& [fourcc, payload] : chunks) {
    const WebPData data{payload.data(), payload.size()};
    EXPECT_EQ(WebPMuxSetChunk(mux, fourcc.c_str(), &data, 1), WEBP_MUX_OK);
  }
  WebPData assembled;
  WebPDataInit(&assembled);
  EXPECT_EQ(WebPMuxAssemble(mux, &assembled), WEBP_MUX_OK);
  WebPMuxDelete(mux);
  std::vector<uint8_t> out(assembled.bytes, assembled.bytes + assembled.size);
  WebPDataClear(&assembled);
  return out;
}

std::vector<uint8_t> animation(int frames) {
  WebPAnimEncoderOptions options;
  WebPAnimEncoderOptionsInit(&options);
  WebPAnimEncoder* encoder = WebPAnimEncoderNew(kWidth, kHeight, &options);
  WebPConfig config;
  WebPConfigInit(&config);
  config.lossless = 1;
  auto px = pattern(4);
  for (int i = 0; i < frames; ++i) {
    px[size_t{4} * (kWidth * 20 + 20)] = static_cast<uint8_t>(i * 20);  // each frame differs
    WebPPicture picture;
    WebPPictureInit(&picture);
    picture.use_argb = 1;
    picture.width = kWidth;
    picture.height = kHeight;
    WebPPictureImportRGBA(&picture, px.data(), kWidth * 4);
    EXPECT_TRUE(WebPAnimEncoderAdd(encoder, &picture, i * 100, &config));
    WebPPictureFree(&picture);
  }
  WebPAnimEncoderAdd(encoder, nullptr, frames * 100, nullptr);
  WebPData data;
  WebPDataInit(&data);
  EXPECT_TRUE(WebPAnimEncoderAssemble(encoder, &data));
  WebPAnimEncoderDelete(encoder);
  std::vector<uint8_t> out(data.bytes, data.bytes + data.size);
  WebPDataClear(&data);
  return out;
}

// A big-endian TIFF-structured EXIF block with one orientation tag.
std::vector<uint8_t> exifWithOrientation(uint8_t orientation) {
  return {'M', 'M', 0, 42, 0, 0, 0,           8, 0, 1, 0x01, 0x12, 0,
          3,   0,   0, 0,  1, 0, orientation, 0, 0, 0, 0,    0,    0};
}

TEST(WebpStill, LossyAndLosslessDecodeAtTheirLayout) {
  const auto lossy = lossyRgb();
  const ContainerProbe probe = probeContainer(asBytes(lossy));
  EXPECT_EQ(probe.container, Container::webp);
  EXPECT_TRUE(probe.opened && probe.hasProperties);
  EXPECT_EQ(probe.frameCount, 1);
  EXPECT_EQ(probe.width, kWidth);
  EXPECT_EQ(probe.height, kHeight);
  EXPECT_EQ(probe.bitsPerSample, 8);
  const DecodedFrame rgb = decodeFrame(asBytes(lossy));
  EXPECT_EQ(rgb.pixels.channels, 3);
  EXPECT_EQ(rgb.pixels.width, kWidth);
  EXPECT_EQ(rgb.nativeBits, 8);
  EXPECT_EQ(rgb.container, Container::webp);
  // Lossy, so only roughly: the far right column is red-heavy, the left blue.
  EXPECT_GT(rgb.pixels.row(15)[(kWidth - 1) * 3], 180);
  EXPECT_GT(rgb.pixels.row(15)[2], 200);

  // Lossless with alpha keeps every sample, transparent ones included.
  const DecodedFrame rgba = decodeFrame(asBytes(losslessRgba()));
  ASSERT_EQ(rgba.pixels.channels, 4);
  const auto expected = pattern(4);
  EXPECT_TRUE(std::equal(expected.begin(), expected.end(), rgba.pixels.data.begin()));
  EXPECT_TRUE(rgba.iccProfile.empty() && rgba.exif.empty() && rgba.xmp.empty());
  EXPECT_EQ(rgba.orientation, 1u);
}

TEST(WebpMetadata, ChunksAreCarriedAndExifGivesOrientation) {
  std::vector<uint8_t> icc(300);
  for (size_t i = 0; i < icc.size(); ++i) icc[i] = static_cast<uint8_t>(i * 13);
  const auto exif = exifWithOrientation(6);
  const std::string xmp = "<x:xmpmeta xmlns:x=\"adobe:ns:meta/\"/>";
  const auto file = withChunks(
      losslessRgba(),
      {{"ICCP", icc}, {"EXIF", exif}, {"XMP ", std::vector<uint8_t>(xmp.begin(), xmp.end())}});
  tarnbloom::testing::TempDir seeds;  // kept for the fuzzer's corpus in CI
  tarnbloom::testing::writeBytes(seeds / "metadata.webp", std::span<const uint8_t>(file));
  tarnbloom::testing::writeBytes(seeds / "animated.webp", std::span<const uint8_t>(animation(3)));
  const ContainerProbe probe = probeContainer(asBytes(file));
  EXPECT_EQ(probe.orientation, 6u);
  EXPECT_EQ(probe.width, kWidth);  // as stored
  const DecodedFrame frame = decodeFrame(asBytes(file));
  EXPECT_EQ(frame.iccProfile, icc);
  EXPECT_EQ(frame.exif, exif);
  EXPECT_EQ(frame.xmp, xmp);
  EXPECT_EQ(frame.orientation, 6u);
  EXPECT_EQ(frame.pixels.channels, 4);
  EXPECT_EQ(frame.pixels.width, kWidth);

  // Some writers keep JPEG's "Exif\0\0" in front of the TIFF header.
  std::vector<uint8_t> prefixed = {'E', 'x', 'i', 'f', 0, 0};
  const auto exif8 = exifWithOrientation(8);
  prefixed.insert(prefixed.end(), exif8.begin(), exif8.end());
  const DecodedFrame jpegStyle = decodeFrame(asBytes(withChunks(lossyRgb(), {{"EXIF", prefixed}})));
  EXPECT_EQ(jpegStyle.exif, exif8);
  EXPECT_EQ(jpegStyle.orientation, 8u);
  EXPECT_EQ(jpegStyle.pixels.channels, 3);
}

TEST(WebpAnimation, ManyFramesAreRefusedAndOneFrameIsAStill) {
  const auto twelve = animation(12);
  const ContainerProbe probe = probeContainer(asBytes(twelve));
  EXPECT_TRUE(probe.opened);
  EXPECT_EQ(probe.frameCount, 12);
  try {
    decodeFrame(asBytes(twelve));
    ADD_FAILURE() << "decoded an animation";
  } catch (const CodecError& e) {
    EXPECT_EQ(e.kind(), CodecError::Kind::animatedWebP);
    EXPECT_EQ(e.count(), 12);
  }
  const auto one = animation(1);
  EXPECT_EQ(probeContainer(asBytes(one)).frameCount, 1);
  const DecodedFrame frame = decodeFrame(asBytes(one));
  ASSERT_EQ(frame.pixels.width, kWidth);
  ASSERT_EQ(frame.pixels.channels, 4);
  const auto expected = pattern(4);
  // Lossless frame: the opaque part survives exactly (libwebp may alter
  // the colour of fully transparent pixels).
  for (int x = kWidth / 3; x < kWidth; ++x)
    EXPECT_EQ(frame.pixels.row(10)[x * 4 + 1], expected[(kWidth * 10 + x) * 4 + 1]);
}

TEST(WebpDamage, BadFilesAreUnreadableAndProbeNeverThrows) {
  const auto good = withChunks(lossyRgb(), {{"EXIF", exifWithOrientation(3)}});
  std::vector<std::pair<std::string, std::vector<uint8_t>>> cases;
  cases.emplace_back("empty", std::vector<uint8_t>{});
  for (const size_t keep : {size_t{12}, size_t{30}, good.size() / 2, good.size() - 1})
    cases.emplace_back("truncated at " + std::to_string(keep),
                       std::vector<uint8_t>(good.begin(), good.begin() + keep));
  // A valid lossless header followed by noise instead of the bitstream.
  auto noise = losslessRgba();
  uint32_t state = 7;
  for (size_t i = 25; i < noise.size(); ++i)
    noise[i] = static_cast<uint8_t>((state = state * 1103515245 + 12345) >> 24);
  cases.emplace_back("noise after header", noise);
  // VP8X canvas claiming 16777216 × 16777216 over a 40 × 30 frame.
  auto huge = good;
  ASSERT_EQ(std::memcmp(huge.data() + 12, "VP8X", 4), 0);
  std::memset(huge.data() + 24, 0xff, 6);
  cases.emplace_back("gigantic canvas", huge);

  for (const auto& [name, bytes] : cases) {
    SCOPED_TRACE(name);
    const ContainerProbe probe = probeContainer(asBytes(bytes));
    EXPECT_FALSE(probe.opened && probe.hasProperties && probe.width > kWidth);
    try {
      decodeFrame(asBytes(bytes));
      ADD_FAILURE() << "decoded a damaged file";
    } catch (const CodecError& e) {
      EXPECT_EQ(e.kind(), CodecError::Kind::unreadable);
    }
  }
}

}  // namespace
}  // namespace tarnbloom::codec
