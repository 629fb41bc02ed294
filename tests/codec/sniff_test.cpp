#include <gtest/gtest.h>

#include <string>

#include "codec/container.h"
#include "codec/tiff_structure.h"

namespace tarnbloom::codec {
namespace {

using namespace std::literals;

std::vector<uint8_t> bytesOf(std::string_view text) { return {text.begin(), text.end()}; }

Container sniff(const std::vector<uint8_t>& bytes) { return sniffContainer(std::as_bytes(std::span(bytes))); }

// A little-endian TIFF header with an IFD0 of the given entries (tag, type,
// count, inline value), followed by `tail` bytes that out-of-line values use.
std::vector<uint8_t> tiffWith(const std::vector<std::array<uint32_t, 4>>& entries,
                              std::string_view tail = {}) {
  std::vector<uint8_t> b = {'I', 'I', 42, 0, 8, 0, 0, 0};
  auto put16 = [&](uint32_t v) { b.push_back(v & 255); b.push_back((v >> 8) & 255); };
  auto put32 = [&](uint32_t v) { put16(v & 0xffff); put16(v >> 16); };
  put16(static_cast<uint32_t>(entries.size()));
  for (const auto& e : entries) {
    put16(e[0]);
    put16(e[1]);
    put32(e[2]);
    put32(e[3]);
  }
  put32(0);
  b.insert(b.end(), tail.begin(), tail.end());
  return b;
}

std::vector<uint8_t> ftyp(std::string_view major, std::vector<std::string_view> compatible) {
  std::vector<uint8_t> b = {0, 0, 0, static_cast<uint8_t>(16 + 4 * compatible.size())};
  auto add = [&](std::string_view s) { b.insert(b.end(), s.begin(), s.end()); };
  add("ftyp");
  add(major);
  add(std::string_view("\0\0\0\0", 4));
  for (auto c : compatible) add(c);
  add(std::string_view("\0\0\0\x08meta", 8));
  return b;
}

TEST(Sniff, TellsContainersFromTheirBytes) {
  EXPECT_EQ(sniff(bytesOf("\x89PNG\r\n\x1a\n....")), Container::png);
  EXPECT_EQ(sniff(bytesOf("\xff\xd8\xff\xe0....")), Container::jpeg);
  EXPECT_EQ(sniff(bytesOf("GIF89a....")), Container::gif);
  EXPECT_EQ(sniff(bytesOf("GIF87a....")), Container::gif);
  EXPECT_EQ(sniff(bytesOf("RIFF\x10\0\0\0WEBPVP8 "sv)), Container::webp);
  EXPECT_EQ(sniff(bytesOf("RIFF\x10\0\0\0WAVEfmt "sv)), Container::unknown);
  EXPECT_EQ(sniff(ftyp("heic", {"mif1", "heic"})), Container::heic);
  EXPECT_EQ(sniff(ftyp("mif1", {"mif1", "avif"})), Container::avif);
  EXPECT_EQ(sniff(ftyp("avis", {"avis", "msf1"})), Container::avif);
  EXPECT_EQ(sniff(ftyp("crx ", {"crx "})), Container::raw);
  EXPECT_EQ(sniff(ftyp("isom", {"mp41"})), Container::unknown) << "a video is not an image";
  EXPECT_EQ(sniff(bytesOf("FUJIFILMCCD-RAW 0201")), Container::raw);
  EXPECT_EQ(sniff(bytesOf("IIRO\x08\0\0\0"sv)), Container::raw);
  for (const auto& junk : {bytesOf(""), bytesOf("\x89PN"), bytesOf("hello, world"), bytesOf("\xff\xd8")})
    EXPECT_EQ(sniff(junk), Container::unknown);
}

TEST(Sniff, TellsCameraRawFromPlainTiff) {
  // Plain: a scanner's RGB TIFF.
  EXPECT_EQ(sniff(tiffWith({{256, 3, 1, 100}, {257, 3, 1, 80}, {271, 2, 6, 0}}, "EPSON\0")), Container::tiff);
  // DNG: DNGVersion in IFD0.
  EXPECT_EQ(sniff(tiffWith({{254, 4, 1, 1}, {50706, 1, 4, 0x00000401}})), Container::raw);
  // NEF-like: a camera maker's preview IFD0 with the sensor data in a sub-IFD.
  const uint32_t makeOffset = 8 + 2 + 3 * 12 + 4;
  EXPECT_EQ(sniff(tiffWith({{254, 4, 1, 1}, {271, 2, 18, makeOffset}, {330, 4, 1, 900}},
                           std::string_view("NIKON CORPORATION\0", 18))),
            Container::raw);
  // A camera maker's name alone, on a full-resolution plain TIFF, is a TIFF.
  EXPECT_EQ(sniff(tiffWith({{254, 4, 1, 0}, {271, 2, 18, 8 + 2 + 2 * 12 + 4}},
                           std::string_view("NIKON CORPORATION\0", 18))),
            Container::tiff);
  // CR2 marks itself after the header.
  auto cr2 = tiffWith({{256, 3, 1, 100}});
  cr2[8] = 'C';
  cr2[9] = 'R';
  cr2[4] = 16;  // IFD0 moved past the marker
  cr2.insert(cr2.begin() + 10, 6, 0);
  EXPECT_EQ(sniff(cr2), Container::raw);
}

TEST(ExifOrientation, ReadsBothByteOrdersAndRejectsNonsense) {
  // Little-endian, orientation 6.
  const std::vector<uint8_t> le = {'I', 'I', 42, 0, 8, 0, 0, 0, 1, 0, 0x12, 0x01, 3, 0, 1, 0, 0, 0, 6, 0, 0, 0};
  EXPECT_EQ(exifOrientation(le), 6u);
  // Big-endian with the JPEG "Exif\0\0" prefix, orientation 8.
  std::vector<uint8_t> be = {'E', 'x', 'i', 'f', 0, 0, 'M', 'M', 0, 42, 0, 0, 0, 8, 0, 1, 0x01, 0x12, 0, 3, 0, 0, 0, 1, 0, 8, 0, 0};
  EXPECT_EQ(exifOrientation(be), 8u);

  auto outOfRange = le;
  outOfRange[18] = 9;
  EXPECT_EQ(exifOrientation(outOfRange), 1u);
  // The entry count claims more entries than the block holds: read only what is there.
  auto overclaim = le;
  overclaim[8] = 0xff;
  EXPECT_EQ(exifOrientation(overclaim), 6u);
  for (size_t cut = 0; cut < le.size(); ++cut)
    EXPECT_LE(exifOrientation(std::span(le).first(cut)), 8u);
  // An IFD offset pointing past the end.
  auto wild = le;
  wild[4] = 0xf0;
  EXPECT_EQ(exifOrientation(wild), 1u);
}

}  // namespace
}  // namespace tarnbloom::codec
