#include "support/base64.h"

#include <cstdint>

namespace tarnbloom {

namespace {
constexpr char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

int valueOf(char c) {
  if (c >= 'A' && c <= 'Z') return c - 'A';
  if (c >= 'a' && c <= 'z') return c - 'a' + 26;
  if (c >= '0' && c <= '9') return c - '0' + 52;
  if (c == '+') return 62;
  if (c == '/') return 63;
  return -1;
}
}  // namespace

std::string base64Encode(std::string_view bytes) {
  std::string out;
  out.reserve((bytes.size() + 2) / 3 * 4);
  for (size_t i = 0; i < bytes.size(); i += 3) {
    const size_t n = std::min<size_t>(3, bytes.size() - i);
    uint32_t v = 0;
    for (size_t k = 0; k < 3; ++k) v = (v << 8) | (k < n ? static_cast<uint8_t>(bytes[i + k]) : 0);
    for (size_t k = 0; k < 4; ++k) out += k <= n ? kAlphabet[(v >> (18 - 6 * k)) & 63] : '=';
  }
  return out;
}

std::optional<std::string> base64Decode(std::string_view text) {
  if (text.size() % 4 != 0) return std::nullopt;
  std::string out;
  out.reserve(text.size() / 4 * 3);
  for (size_t i = 0; i < text.size(); i += 4) {
    const bool last = i + 4 == text.size();
    int padding = 0;
    uint32_t v = 0;
    for (size_t k = 0; k < 4; ++k) {
      const char c = text[i + k];
      if (c == '=' && last && k >= 2) {
        ++padding;
        v <<= 6;
        continue;
      }
      const int value = valueOf(c);
      if (value < 0 || padding > 0) return std::nullopt;
      v = (v << 6) | static_cast<uint32_t>(value);
    }
    for (int k = 0; k < 3 - padding; ++k) out += static_cast<char>((v >> (16 - 8 * k)) & 0xFF);
  }
  return out;
}

}  // namespace tarnbloom
