#include "support/utf8.h"

#include <cstdint>

namespace tarnbloom {

bool isValidUtf8(std::string_view text) {
  size_t i = 0;
  while (i < text.size()) {
    const auto byte = static_cast<uint8_t>(text[i]);
    size_t length = 0;
    uint32_t code = 0, minimum = 0;
    if (byte < 0x80) {
      ++i;
      continue;
    } else if ((byte & 0xE0) == 0xC0) {
      length = 2, code = byte & 0x1F, minimum = 0x80;
    } else if ((byte & 0xF0) == 0xE0) {
      length = 3, code = byte & 0x0F, minimum = 0x800;
    } else if ((byte & 0xF8) == 0xF0) {
      length = 4, code = byte & 0x07, minimum = 0x10000;
    } else {
      return false;
    }
    if (i + length > text.size()) return false;
    for (size_t k = 1; k < length; ++k) {
      const auto next = static_cast<uint8_t>(text[i + k]);
      if ((next & 0xC0) != 0x80) return false;
      code = (code << 6) | (next & 0x3F);
    }
    if (code < minimum || code > 0x10FFFF || (code >= 0xD800 && code <= 0xDFFF)) return false;
    i += length;
  }
  return true;
}

}  // namespace tarnbloom
