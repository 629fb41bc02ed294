#include <gtest/gtest.h>

#include <cmath>
#include <random>

#include "encoding/jpeg_encoder.h"
#include "test_support.h"

namespace tarnbloom::encoding {
namespace {

using codec::PixelBuffer;

// Noise over a gradient: every quality step changes the file size.
PixelBuffer texturedImage(int width, int height, int channels = 3) {
  PixelBuffer image;
  image.allocate(width, height, channels, codec::SampleFormat::uint8);
  std::mt19937 random(7);
  for (int y = 0; y < height; ++y)
    for (int x = 0; x < width * channels; ++x)
      image.row(y)[x] = static_cast<uint8_t>((x / channels + y) / 2 % 200 + random() % 56);
  return image;
}

JPEGOptions options(int quality, std::optional<JPEGSubsampling> subsampling = {},
                    std::optional<int64_t> maxBytes = {}, int floor = 40) {
  return {quality, subsampling, maxBytes, floor};
}

TEST(JPEGEncoder, CeilingSearchEdges) {
  const PixelBuffer image = texturedImage(96, 64);
  const OutputMetadata none;
  const auto size95 = JPEGEncoder::encodeOnce(image, none, 95, {}).size();
  const auto size40 = JPEGEncoder::encodeOnce(image, none, 40, {}).size();
  ASSERT_GT(size95, size40);

  auto result = JPEGEncoder::encode(image, none, {});
  EXPECT_EQ(result.attempts, 1);
  EXPECT_EQ(result.report.qualityUsed, 95);
  EXPECT_FALSE(result.report.floorHit);

  // Exactly at the ceiling fits.
  result = JPEGEncoder::encode(image, none, {95, {}, static_cast<int64_t>(size95), 40});
  EXPECT_EQ(result.attempts, 1);
  EXPECT_EQ(result.report.qualityUsed, 95);

  result = JPEGEncoder::encode(image, none, {95, {}, static_cast<int64_t>(size40) - 1, 40});
  EXPECT_EQ(result.attempts, 2);
  EXPECT_EQ(result.report.qualityUsed, 40);
  EXPECT_TRUE(result.report.floorHit);
  EXPECT_GT(result.report.bytesActual, *result.report.maxBytes);
  EXPECT_EQ(result.report.bytesActual, static_cast<int64_t>(result.data.size()));

  result = JPEGEncoder::encode(image, none, {80, {}, 10, 100});
  EXPECT_EQ(result.attempts, 1);
  EXPECT_EQ(result.report.floor, 80);
  EXPECT_TRUE(result.report.floorHit);
}

// For ceilings between the floor's size and the requested quality's, the
// result fits, the next quality up does not, and the attempts stay within
// log2(Q - F) + 2.
TEST(JPEGEncoder, CeilingSearchFindsTheHighestFittingQuality) {
  const PixelBuffer image = texturedImage(96, 64);
  const OutputMetadata none;
  std::vector<size_t> sizes(101);
  for (int q = 30; q <= 95; ++q) sizes[q] = JPEGEncoder::encodeOnce(image, none, q, {}).size();
  for (const auto& [quality, floor] : std::vector<std::pair<int, int>>{{95, 40}, {90, 31}, {60, 55}}) {
    for (int target = floor + 1; target < quality; target += 7) {
      const int64_t ceiling = static_cast<int64_t>(sizes[target]);
      if (ceiling < static_cast<int64_t>(sizes[floor])) continue;
      const auto result = JPEGEncoder::encode(image, none, {quality, {}, ceiling, floor});
      const int used = result.report.qualityUsed;
      EXPECT_FALSE(result.report.floorHit);
      EXPECT_LE(result.report.bytesActual, ceiling) << quality << "/" << floor << " q" << used;
      EXPECT_GE(used, floor);
      EXPECT_LT(used, quality);
      EXPECT_GT(static_cast<int64_t>(sizes[used + 1]), ceiling) << "q" << used + 1 << " fits too";
      EXPECT_LE(result.attempts, static_cast<int>(std::ceil(std::log2(quality - floor))) + 2);
      EXPECT_EQ(result.data.size(), sizes[used]);
    }
  }
}

TEST(JPEGEncoder, ReadsBackSubsampling) {
  testing::TempDir dir;
  const PixelBuffer image = texturedImage(33, 17);
  const OutputMetadata none;
  EXPECT_EQ(JPEGEncoder::encode(image, none, options(90, JPEGSubsampling::s444)).report.subsamplingActual,
            JPEGSubsampling::s444);
  const auto s420 = JPEGEncoder::encode(image, none, options(90, JPEGSubsampling::s420));
  EXPECT_EQ(s420.report.subsamplingActual, JPEGSubsampling::s420);
  EXPECT_EQ(JPEGEncoder::encode(image, none, options(90)).report.subsamplingActual, JPEGSubsampling::s420);
  // One component: neither layout.
  EXPECT_EQ(JPEGEncoder::encode(texturedImage(8, 8, 1), none, options(90)).report.subsamplingActual,
            std::nullopt);

  // A progressive file (SOF2) reads like a baseline one.
  const auto baseline = JPEGEncoder::encode(image, none, options(90, JPEGSubsampling::s444)).data;
  testing::writeBytes(dir / "base.jpg", baseline);
  ASSERT_EQ(testing::runCommand("jpegtran -progressive -outfile '" + (dir / "prog.jpg").string() +
                                "' '" + (dir / "base.jpg").string() + "'"),
            0);
  const auto bytes = testing::readBytes(dir / "prog.jpg");
  const std::vector<uint8_t> progressive(reinterpret_cast<const uint8_t*>(bytes.data()),
                                         reinterpret_cast<const uint8_t*>(bytes.data()) + bytes.size());
  EXPECT_EQ(JPEGEncoder::actualSubsampling(progressive), JPEGSubsampling::s444);

  // Truncated inside the frame header, or not a JPEG at all.
  size_t sof = 2;
  while (sof + 1 < s420.data.size() && !(s420.data[sof] == 0xFF && s420.data[sof + 1] == 0xC0)) ++sof;
  EXPECT_EQ(JPEGEncoder::actualSubsampling(std::span(s420.data).first(sof + 8)), std::nullopt);
  EXPECT_EQ(JPEGEncoder::actualSubsampling(std::vector<uint8_t>{0x89, 'P', 'N', 'G'}), std::nullopt);
}

TEST(JPEGEncoder, FlattensAlphaOntoTheColour) {
  PixelBuffer image;
  image.allocate(16, 16, 4, codec::SampleFormat::uint8);
  for (size_t i = 0; i < image.data.size(); i += 4) {
    image.data[i] = 0;
    image.data[i + 1] = 0;
    image.data[i + 2] = 255;
    image.data[i + 3] = 0;  // fully transparent blue
  }
  const auto jpeg = JPEGEncoder::encodeOnce(image, {}, 95, JPEGSubsampling::s444, {255, 128, 0});
  testing::TempDir dir;
  testing::writeBytes(dir / "f.jpg", jpeg);
  std::string out;
  ASSERT_EQ(testing::runCommand("convert '" + (dir / "f.jpg").string() +
                                    "' -format '%[fx:int(255*p{8,8}.r)] %[fx:int(255*p{8,8}.g)] "
                                    "%[fx:int(255*p{8,8}.b)]' info:",
                                &out),
            0);
  int r = 0, g = 0, b = 0;
  ASSERT_EQ(std::sscanf(out.c_str(), "%d %d %d", &r, &g, &b), 3) << out;
  EXPECT_NEAR(r, 255, 2);
  EXPECT_NEAR(g, 128, 2);
  EXPECT_NEAR(b, 0, 2);
}

}  // namespace
}  // namespace tarnbloom::encoding

namespace tarnbloom::encoding {
namespace {

// Photoshop's document history alone can pass the 64 KB a JPEG marker
// holds; such XMP must still arrive whole, as extended XMP.
TEST(JPEGEncoder, CarriesXmpLargerThanOneMarker) {
  std::string ancestors;
  for (int i = 0; i < 4000; ++i) ancestors += "<rdf:li>xmp.did:" + std::to_string(1000000 + i * 7919) + "</rdf:li>";
  OutputMetadata metadata;
  metadata.xmp =
      "<?xpacket begin=\"\xEF\xBB\xBF\" id=\"W5M0MpCehiHzreSzNTczkc9d\"?><x:xmpmeta xmlns:x=\"adobe:ns:meta/\">"
      "<rdf:RDF xmlns:rdf=\"http://www.w3.org/1999/02/22-rdf-syntax-ns#\"><rdf:Description rdf:about=\"\" "
      "xmlns:dc=\"http://purl.org/dc/elements/1.1/\" xmlns:photoshop=\"http://ns.adobe.com/photoshop/1.0/\" "
      "photoshop:City=\"Lisbon\"><photoshop:DocumentAncestors><rdf:Bag>" + ancestors +
      "</rdf:Bag></photoshop:DocumentAncestors></rdf:Description>"
      "<rdf:Description rdf:about=\"\" xmlns:photoshop=\"http://ns.adobe.com/photoshop/1.0/\" "
      "photoshop:Headline=\"the last words\"/></rdf:RDF></x:xmpmeta><?xpacket end=\"w\"?>";
  ASSERT_GT(metadata.xmp->size(), 100000u);

  testing::TempDir dir;
  testing::writeBytes(dir / "history.jpg", JPEGEncoder::encode(texturedImage(64, 48), metadata, {}).data);
  std::string out;
  ASSERT_EQ(testing::runCommand("exiftool -s3 -XMP:City -XMP:Headline '" + (dir / "history.jpg").string() + "'", &out), 0);
  EXPECT_EQ(out, "Lisbon\nthe last words\n") << "what comes after 100 KB of history must arrive too";
}

}  // namespace
}  // namespace tarnbloom::encoding
