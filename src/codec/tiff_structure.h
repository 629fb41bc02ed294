#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string_view>

namespace tarnbloom::codec {

// A bounds-checked reader of the first IFD of a TIFF-structured block (a TIFF
// file, or an EXIF blob). Used where opening a full TIFF library would be
// slow or wrong: EXIF orientation, and telling camera raw from plain TIFF.
class TiffStructure {
 public:
  // nullopt when the block has no valid TIFF header ("II*\0" or "MM\0*").
  static std::optional<TiffStructure> parse(std::span<const uint8_t> bytes);

  // The first value of a SHORT or LONG tag in IFD0.
  std::optional<uint32_t> integerTag(uint16_t tag) const;
  bool hasTag(uint16_t tag) const;
  // The text of an ASCII tag in IFD0 (without the terminating zero).
  std::optional<std::string_view> asciiTag(uint16_t tag) const;

 private:
  struct Entry {
    uint16_t type;
    uint32_t count;
    size_t valueOffset;  // where the value (or its pointer) sits
  };
  std::optional<Entry> find(uint16_t tag) const;
  uint16_t read16(size_t at) const;
  uint32_t read32(size_t at) const;

  std::span<const uint8_t> m_bytes;
  bool m_littleEndian = true;
  size_t m_ifd = 0;
  uint16_t m_entryCount = 0;
};

// EXIF orientation from a TIFF-structured EXIF blob; 1 when absent or not 1...8.
uint32_t exifOrientation(std::span<const uint8_t> exif);

// Drops an "Exif\0\0" prefix (JPEG APP1, some WebP and HEIF writers) if present.
std::span<const uint8_t> withoutExifPrefix(std::span<const uint8_t> exif);

}  // namespace tarnbloom::codec
