#pragma once

#include <string>

#include "support/error.h"

namespace tarnbloom::codec {

// What the codec layer found wrong with a file. The engine turns these into
// its own load errors, which name the file.
class CodecError : public Error {
 public:
  enum class Kind {
    unreadable,        // not an image, damaged, truncated, or too large
    gif,               // a GIF, refused whatever its frame count
    multiFrame,        // count() frames
    animatedWebP,      // count() frames
    unsupportedDepth,  // bits() per sample that cannot be normalised
  };

  static CodecError unreadable(std::string detail) { return {Kind::unreadable, 0, std::move(detail)}; }
  static CodecError gif() { return {Kind::gif, 0, "GIF"}; }
  static CodecError multiFrame(int count) { return {Kind::multiFrame, count, {}}; }
  static CodecError animatedWebP(int count) { return {Kind::animatedWebP, count, {}}; }
  static CodecError unsupportedDepth(int bits) { return {Kind::unsupportedDepth, bits, {}}; }
  // The same error rebuilt from its parts, as the decoder helper reports it.
  static CodecError of(Kind kind, int value, std::string detail) {
    return {kind, value, std::move(detail)};
  }

  Kind kind() const { return m_kind; }
  int count() const { return m_value; }
  int bits() const { return m_value; }
  // The library's own words, for logs and fuzzing; never shown as the message.
  const std::string& detail() const { return m_detail; }
  std::string description() const override;
  std::string details() const override { return m_detail; }

 private:
  CodecError(Kind kind, int value, std::string detail)
      : m_kind(kind), m_value(value), m_detail(std::move(detail)) {}
  Kind m_kind;
  int m_value;
  std::string m_detail;
};

}  // namespace tarnbloom::codec
