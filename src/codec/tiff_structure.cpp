#include "codec/tiff_structure.h"

#include <cstring>
#include <string_view>

namespace tarnbloom::codec {

std::optional<TiffStructure> TiffStructure::parse(std::span<const uint8_t> bytes) {
  if (bytes.size() < 8) return std::nullopt;
  TiffStructure tiff;
  tiff.m_bytes = bytes;
  if (bytes[0] == 'I' && bytes[1] == 'I')
    tiff.m_littleEndian = true;
  else if (bytes[0] == 'M' && bytes[1] == 'M')
    tiff.m_littleEndian = false;
  else
    return std::nullopt;
  if (tiff.read16(2) != 42) return std::nullopt;
  tiff.m_ifd = tiff.read32(4);
  if (tiff.m_ifd < 8 || tiff.m_ifd > bytes.size() - 2) return std::nullopt;
  tiff.m_entryCount = tiff.read16(tiff.m_ifd);
  // Keep only the entries that really lie inside the block.
  const size_t room = (bytes.size() - tiff.m_ifd - 2) / 12;
  if (tiff.m_entryCount > room) tiff.m_entryCount = static_cast<uint16_t>(room);
  return tiff;
}

uint16_t TiffStructure::read16(size_t at) const {
  const uint8_t* p = m_bytes.data() + at;
  return m_littleEndian ? static_cast<uint16_t>(p[0] | p[1] << 8)
                        : static_cast<uint16_t>(p[0] << 8 | p[1]);
}

uint32_t TiffStructure::read32(size_t at) const {
  const uint8_t* p = m_bytes.data() + at;
  return m_littleEndian ? (uint32_t{p[0]} | uint32_t{p[1]} << 8 | uint32_t{p[2]} << 16 |
                           uint32_t{p[3]} << 24)
                        : (uint32_t{p[0]} << 24 | uint32_t{p[1]} << 16 | uint32_t{p[2]} << 8 |
                           uint32_t{p[3]});
}

std::optional<TiffStructure::Entry> TiffStructure::find(uint16_t tag) const {
  for (uint16_t i = 0; i < m_entryCount; ++i) {
    const size_t at = m_ifd + 2 + size_t{i} * 12;
    if (read16(at) == tag) return Entry{read16(at + 2), read32(at + 4), at + 8};
  }
  return std::nullopt;
}

bool TiffStructure::hasTag(uint16_t tag) const { return find(tag).has_value(); }

std::optional<uint32_t> TiffStructure::integerTag(uint16_t tag) const {
  const auto entry = find(tag);
  if (!entry || entry->count < 1) return std::nullopt;
  if (entry->type == 3) return read16(entry->valueOffset);  // SHORT, inline
  if (entry->type == 4) {                                   // LONG
    if (entry->count == 1) return read32(entry->valueOffset);
    const size_t at = read32(entry->valueOffset);
    if (at > m_bytes.size() - 4 || m_bytes.size() < 4) return std::nullopt;
    return read32(at);
  }
  return std::nullopt;
}

std::optional<std::string_view> TiffStructure::asciiTag(uint16_t tag) const {
  const auto entry = find(tag);
  if (!entry || entry->type != 2 || entry->count == 0) return std::nullopt;
  size_t at = entry->valueOffset;
  if (entry->count > 4) at = read32(entry->valueOffset);
  if (at > m_bytes.size() || entry->count > m_bytes.size() - at) return std::nullopt;
  std::string_view text(reinterpret_cast<const char*>(m_bytes.data() + at), entry->count);
  if (const auto zero = text.find('\0'); zero != std::string_view::npos) text = text.substr(0, zero);
  return text;
}

uint32_t exifOrientation(std::span<const uint8_t> exif) {
  const auto tiff = TiffStructure::parse(withoutExifPrefix(exif));
  if (!tiff) return 1;
  const auto value = tiff->integerTag(0x0112);
  return value && *value >= 1 && *value <= 8 ? *value : 1;
}

std::span<const uint8_t> withoutExifPrefix(std::span<const uint8_t> exif) {
  if (exif.size() >= 6 && std::memcmp(exif.data(), "Exif\0\0", 6) == 0) return exif.subspan(6);
  return exif;
}

}  // namespace tarnbloom::codec
