// The streaming writers take a picture a band of rows at a time. However the
// rows are cut, the file must be the one the whole-image encoder writes, and
// the real libraries must read it back with its pixels and metadata.

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <random>
#include <system_error>

#include "codec/decode.h"
#include "encoding/byte_sink.h"
#include "encoding/image_writer.h"
#include "encoding/jpeg_encoder.h"
#include "fixtures.h"
#include "support/error.h"
#include "support/files.h"
#include "support/sha256.h"
#include "test_support.h"

namespace tarnbloom::encoding {
namespace {

using codec::PixelBuffer;
using codec::SampleFormat;

PixelBuffer noisyImage(int width, int height, int channels, SampleFormat format) {
  PixelBuffer image;
  image.allocate(width, height, channels, format);
  std::mt19937 random(static_cast<unsigned>(width + 7 * height + channels));
  for (int y = 0; y < height; ++y)
    for (size_t i = 0; i < image.rowBytes(); ++i)
      // Smooth ramps with grain, and flat stretches where a filter idles.
      image.row(y)[i] =
          static_cast<uint8_t>((i / 211 + y / 37) % 3 == 0 ? 90 : (i / 3 + y) / 4 + random() % 24);
  return image;
}

// Rows [first, first + count) as a band of their own.
PixelBuffer band(const PixelBuffer& image, int first, int count) {
  PixelBuffer rows;
  rows.allocate(image.width, count, image.channels, image.format);
  std::copy(image.row(first), image.row(first + count), rows.row(0));
  return rows;
}

std::unique_ptr<RowWriter> open(ExportFormat format, const RowLayout& layout,
                                const OutputMetadata& metadata, ByteSink& sink) {
  if (format == ExportFormat::png) return openPNG(layout, metadata, sink);
  if (format == ExportFormat::tiff) return openTIFF(layout, metadata, sink);
  return JPEGEncoder::openRows(layout, metadata, 90, JPEGSubsampling::s420, sink);
}

std::vector<uint8_t> whole(ExportFormat format, const PixelBuffer& image,
                           const OutputMetadata& metadata) {
  if (format == ExportFormat::png) return encodePNG(image, metadata);
  if (format == ExportFormat::tiff) return encodeTIFF(image, metadata);
  return JPEGEncoder::encodeOnce(image, metadata, 90, JPEGSubsampling::s420);
}

// The image in bands of the given heights, repeated until it is all written.
std::vector<uint8_t> streamed(ExportFormat format, const PixelBuffer& image,
                              const OutputMetadata& metadata, const std::vector<int>& heights) {
  MemorySink sink;
  const auto writer = open(format, RowLayout::of(image, image.height), metadata, sink);
  for (int y = 0, i = 0; y < image.height; ++i) {
    const int count = std::min(heights[i % heights.size()], image.height - y);
    writer->writeRows(band(image, y, count));
    y += count;
  }
  writer->finish();
  return sink.take();
}

TEST(RowWriter, WritesTheWholeImageFileHoweverTheRowsAreCut) {
  testing::TempDir dir;
  OutputMetadata metadata;
  // IFD0 with a camera make and orientation 1. TIFF keeps its own
  // orientation tag, so the make is what its EXIF merge adds.
  metadata.exif = {'I', 'I', 42, 0, 8, 0, 0,    0,    2,   0,   0x0F, 0x01, 2,   0, 8, 0,
                   0,   0,   38, 0, 0, 0, 0x12, 0x01, 3,   0,   1,    0,    0,   0, 1, 0,
                   0,   0,   0,  0, 0, 0, 'T',  'e',  's', 't', 'C',  'a',  'm', 0};
  // Larger than one JPEG marker holds: it goes out as extended XMP.
  metadata.xmp =
      "<x:xmpmeta xmlns:x=\"adobe:ns:meta/\"><rdf:RDF "
      "xmlns:rdf=\"http://www.w3.org/1999/02/22-rdf-syntax-ns#\"><rdf:Description "
      "rdf:about=\"\" xmlns:dc=\"http://purl.org/dc/elements/1.1/\" dc:format=\"" +
      std::string(70000, 'x') + "\"/></rdf:RDF></x:xmpmeta>";
  struct Layout {
    int width, height, channels;
    SampleFormat format;
  };
  // PNG deflates pieces of 4 MiB of rows: 174 rows of the first, 698 of the
  // second, so bands begin and end inside, across and on those pieces.
  const Layout layouts[] = {{3000, 400, 4, SampleFormat::uint16},
                            {2000, 700, 3, SampleFormat::uint8},
                            {513, 300, 2, SampleFormat::uint16},
                            {37, 5, 1, SampleFormat::uint8}};
  std::mt19937 random(3);
  std::vector<int> irregular;
  for (int i = 0; i < 40; ++i) irregular.push_back(1 + static_cast<int>(random() % 400));
  for (const ExportFormat format : {ExportFormat::png, ExportFormat::tiff, ExportFormat::jpeg})
    for (const Layout& l : layouts) {
      SCOPED_TRACE(std::string(rawValue(format)) + " " + std::to_string(l.width) + "x" +
                   std::to_string(l.height) + "x" + std::to_string(l.channels));
      const PixelBuffer image = noisyImage(l.width, l.height, l.channels, l.format);
      metadata.icc = l.channels <= 2 ? greyGamma22Profile() : sRGBProfile();
      const auto expected = whole(format, image, metadata);
      EXPECT_TRUE(streamed(format, image, metadata, {1}) == expected) << "one row at a time";
      EXPECT_TRUE(streamed(format, image, metadata, irregular) == expected) << "irregular bands";
      // Bands that end exactly where PNG's pieces do, then one that does not.
      const int piece = static_cast<int>((size_t{4} << 20) / (image.rowBytes() + 1));
      EXPECT_TRUE(streamed(format, image, metadata, {piece, 2 * piece, piece + 1}) == expected)
          << "bands on piece boundaries";

      const auto frame = codec::decodeFrame(std::as_bytes(std::span(expected)));
      ASSERT_EQ(frame.pixels.width, l.width);
      ASSERT_EQ(frame.pixels.height, l.height);
      EXPECT_EQ(frame.iccProfile, metadata.icc);
      if (format == ExportFormat::tiff) {
        testing::writeBytes(dir / "out.tif", std::span<const uint8_t>(expected));
        std::string make;
        testing::runCommand("exiftool -s3 -IFD0:Make '" + (dir / "out.tif").string() + "'", &make);
        EXPECT_EQ(make, "TestCam\n");
      } else {
        EXPECT_FALSE(frame.exif.empty());
      }
      // JPEG readers find the long packet through its extension markers.
      EXPECT_NE(frame.xmp.find(format == ExportFormat::jpeg ? "HasExtendedXMP" : "xxxxxxxxxx\"/>"),
                std::string::npos);
      if (format != ExportFormat::jpeg) {
        EXPECT_TRUE(frame.pixels.data == image.data);
      }
    }
}

// A sink that fails the way a full disk does, after `room` bytes.
class FullSink final : public ByteSink {
 public:
  explicit FullSink(size_t room) : m_room(room) {}
  void write(std::span<const uint8_t> bytes) override {
    if (bytes.size() > m_room) throw std::system_error(ENOSPC, std::generic_category());
    m_room -= bytes.size();
  }

 private:
  size_t m_room;
};

TEST(RowWriter, RefusesRowsThatDoNotFitAndPassesSinkFailuresOn) {
  const PixelBuffer image = noisyImage(300, 200, 3, SampleFormat::uint8);
  const RowLayout layout = RowLayout::of(image, image.height);
  for (const ExportFormat format : {ExportFormat::png, ExportFormat::tiff, ExportFormat::jpeg}) {
    SCOPED_TRACE(rawValue(format));
    MemorySink sink;
    EXPECT_THROW(open(format, {300, 200, 3, SampleFormat::float32}, {}, sink), Error);

    // Rows of another width, and more rows than the image has.
    auto writer = open(format, layout, {}, sink);
    EXPECT_THROW(writer->writeRows(noisyImage(299, 10, 3, SampleFormat::uint8)), Error);
    EXPECT_THROW(writer->writeRows(band(image, 0, 10)), Error) << "a failed writer is spent";
    writer = open(format, layout, {}, sink);
    writer->writeRows(band(image, 0, 150));
    EXPECT_THROW(writer->writeRows(image), Error);
    // Rows still missing.
    writer = open(format, layout, {}, sink);
    writer->writeRows(band(image, 0, 150));
    EXPECT_THROW(writer->finish(), Error);

    // The disk's own error comes out, not an encoder's; through libjpeg too.
    FullSink full(1000);
    try {
      writer = open(format, layout, {}, full);
      writer->writeRows(image);
      writer->finish();
      FAIL() << "a full disk went unnoticed";
    } catch (const std::system_error& error) {
      EXPECT_EQ(error.code().value(), ENOSPC);
    }
  }
}

// A file written to disk as it is made must be the file made in memory,
// TIFF's patched header and EXIF rewrite included, and its hash, taken as
// the bytes went out, the hash of what lands under its name.
TEST(FileSink, HoldsTheSameFileAsMemoryAndHashesItAsWritten) {
  testing::TempDir dir;
  const PixelBuffer image = noisyImage(700, 260, 3, SampleFormat::uint8);
  OutputMetadata metadata;
  metadata.exif = testing::exifWithOrientation(1);
  for (const ExportFormat format : {ExportFormat::png, ExportFormat::tiff, ExportFormat::jpeg})
    for (const bool exif : {false, true}) {
      SCOPED_TRACE(std::string(rawValue(format)) + (exif ? " with EXIF" : ""));
      const OutputMetadata& used = exif ? metadata : OutputMetadata{};
      MemorySink memory(true);
      const auto disk = FileSink::openUnnamed(dir.path());
      ASSERT_TRUE(disk) << "the test folder's file system makes unnamed files";
      for (ByteSink* sink : {static_cast<ByteSink*>(&memory), static_cast<ByteSink*>(disk.get())}) {
        const auto writer = open(format, RowLayout::of(image, image.height), used, *sink);
        writer->writeRows(band(image, 0, 97));
        writer->writeRows(band(image, 97, image.height - 97));
        writer->finish();
      }
      const std::string memoryHash = memory.sha256();
      const std::vector<uint8_t> bytes = memory.take();
      EXPECT_EQ(memoryHash, sha256Hex(std::as_bytes(std::span(bytes))));
      EXPECT_EQ(disk->size(), bytes.size());
      EXPECT_EQ(disk->sha256(), memoryHash);

      const auto named = dir.path() / ("out." + std::string(rawValue(format)) + (exif ? "e" : ""));
      disk->linkAs(named);
      const auto onDisk = testing::readBytes(named);
      EXPECT_TRUE(std::equal(onDisk.begin(), onDisk.end(),
                             reinterpret_cast<const std::byte*>(bytes.data()),
                             reinterpret_cast<const std::byte*>(bytes.data() + bytes.size())));
      // On another file system the file is copied under its name.
      struct stat here {
      }, there{};
      if (::stat(dir.path().c_str(), &here) == 0 && ::stat("/dev/shm", &there) == 0 &&
          here.st_dev != there.st_dev) {
        const std::filesystem::path elsewhere =
            "/dev/shm/tarnbloom-sink-" + std::to_string(::getpid()) + named.filename().string();
        disk->linkAs(elsewhere);
        const auto copied = testing::readBytes(elsewhere);
        std::filesystem::remove(elsewhere);
        EXPECT_TRUE(copied == onDisk);
      }
      // A name is given once: an existing file is never replaced.
      try {
        disk->linkAs(named);
        FAIL() << "an existing file was replaced";
      } catch (const FileError& error) {
        EXPECT_EQ(error.errnoValue(), EEXIST);
      }
    }
  EXPECT_FALSE(FileSink::openUnnamed(dir.path() / "missing")) << "no folder, no file on disk";
}

}  // namespace
}  // namespace tarnbloom::encoding
