#include <algorithm>
#include <array>
#include <cstring>
#include <string_view>

#include "codec/container.h"
#include "codec/tiff_structure.h"

namespace tarnbloom::codec {
namespace {

bool startsWith(std::span<const uint8_t> bytes, std::string_view magic, size_t at = 0) {
  return bytes.size() >= at + magic.size() && std::memcmp(bytes.data() + at, magic.data(), magic.size()) == 0;
}

// Makers whose cameras write TIFF-structured raw files (NEF, ARW, PEF, SRW,
// 3FR, IIQ, ERF, KDC, MOS, ...). A plain TIFF carries these only when a
// camera wrote it, and then it also has the raw layout checked below.
constexpr std::array<std::string_view, 14> kRawMakers = {
    "NIKON", "SONY", "PENTAX", "RICOH", "SAMSUNG", "Hasselblad", "Phase One", "Leaf",
    "Mamiya", "Kodak", "EASTMAN KODAK", "SEIKO EPSON", "Leica", "Canon"};

bool isTiffRaw(std::span<const uint8_t> bytes) {
  if (startsWith(bytes, "CR", 8)) return true;  // Canon CR2 marks its header
  const auto tiff = TiffStructure::parse(bytes);
  if (!tiff) return false;
  if (tiff->hasTag(50706)) return true;  // DNGVersion
  const auto make = tiff->asciiTag(271);
  if (!make) return false;
  const bool cameraMaker = std::any_of(kRawMakers.begin(), kRawMakers.end(), [&](auto maker) {
    return make->substr(0, maker.size()) == maker;
  });
  if (!cameraMaker) return false;
  // Raw layouts: IFD0 is a reduced-resolution preview with the sensor data in
  // a sub-IFD (NEF, PEF, ...), or Sony's private SR2/DNG-private tags (ARW).
  const auto subfileType = tiff->integerTag(254);
  return tiff->hasTag(330) || (subfileType && (*subfileType & 1)) || tiff->hasTag(0x7200) ||
         tiff->hasTag(0xC634);
}

Container isoMediaContainer(std::span<const uint8_t> bytes) {
  // A "ftyp" box first: major brand at 8, compatible brands from 16 to its end.
  uint32_t boxSize = uint32_t{bytes[0]} << 24 | uint32_t{bytes[1]} << 16 | uint32_t{bytes[2]} << 8 | bytes[3];
  // The major brand must be there before anything is read of it.
  if (boxSize < 16 || boxSize > 4096 || bytes.size() < 16) return Container::unknown;
  const size_t end = std::min<size_t>(boxSize, bytes.size());
  auto brand = [&](size_t at) { return std::string_view(reinterpret_cast<const char*>(bytes.data() + at), 4); };
  bool heif = false;
  bool avif = false;
  for (size_t at = 8; at + 4 <= end; at += 4) {
    if (at == 12) continue;  // minor version
    const auto b = brand(at);
    if (b == "crx ") return Container::raw;  // Canon CR3
    if (b == "avif" || b == "avis") avif = true;
    if (b == "heic" || b == "heix" || b == "hevc" || b == "hevx" || b == "heim" || b == "heis" ||
        b == "hevm" || b == "hevs" || b == "mif1" || b == "msf1" || b == "miaf")
      heif = true;
  }
  const auto major = brand(8);
  if (major == "avif" || major == "avis") return Container::avif;
  if (major == "heic" || major == "heix" || major == "hevc" || major == "hevx") return Container::heic;
  if (avif) return Container::avif;
  if (heif) return Container::heic;
  return Container::unknown;
}

}  // namespace

std::string_view containerName(Container container) {
  switch (container) {
    case Container::png: return "png";
    case Container::jpeg: return "jpeg";
    case Container::tiff: return "tiff";
    case Container::webp: return "webp";
    case Container::heic: return "heic";
    case Container::avif: return "avif";
    case Container::gif: return "gif";
    case Container::raw: return "raw";
    case Container::unknown: break;
  }
  return "unknown";
}

Container sniffContainer(std::span<const std::byte> data) {
  const std::span<const uint8_t> bytes(reinterpret_cast<const uint8_t*>(data.data()), data.size());
  if (startsWith(bytes, "\x89PNG\r\n\x1a\n")) return Container::png;
  if (startsWith(bytes, "\xff\xd8\xff")) return Container::jpeg;
  if (startsWith(bytes, "GIF87a") || startsWith(bytes, "GIF89a")) return Container::gif;
  if (startsWith(bytes, "RIFF") && startsWith(bytes, "WEBP", 8)) return Container::webp;
  if (startsWith(bytes, std::string_view("II*\0", 4)) || startsWith(bytes, std::string_view("MM\0*", 4)))
    return isTiffRaw(bytes) ? Container::raw : Container::tiff;
  if (startsWith(bytes, std::string_view("II+\0", 4)) || startsWith(bytes, std::string_view("MM\0+", 4)))
    return Container::tiff;  // BigTIFF
  if (startsWith(bytes, "IIRO") || startsWith(bytes, "IIRS") || startsWith(bytes, "MMOR") ||
      startsWith(bytes, std::string_view("IIU\0", 4)) || startsWith(bytes, "FUJIFILMCCD-RAW") ||
      startsWith(bytes, std::string_view("\0MRM", 4)) || startsWith(bytes, "FOVb") ||
      startsWith(bytes, "HEAPCCDR", 6))
    return Container::raw;  // ORF, RW2, RAF, MRW, X3F, CRW
  if (startsWith(bytes, "ftyp", 4)) return isoMediaContainer(bytes);
  return Container::unknown;
}

}  // namespace tarnbloom::codec
