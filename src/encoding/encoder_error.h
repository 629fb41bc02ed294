#pragma once

#include <string>

#include "support/error.h"

namespace tarnbloom::encoding {

// A failure inside one of the encoders. Nothing is written when one is
// thrown: encoders produce bytes, and only whole files are published.
class EncoderError : public Error {
 public:
  enum class Case {
    encoderFailed,           // libwebp's error code
    metadataMuxFailed,       // the WebP mux error code
    configurationRejected,
    pixelsUnreadable,
    writerFailed,            // PNG, TIFF, HEIC or AVIF, by format title
  };
  static EncoderError encoderFailed(int code) { return {Case::encoderFailed, code, {}}; }
  static EncoderError metadataMuxFailed(int code) { return {Case::metadataMuxFailed, code, {}}; }
  static EncoderError configurationRejected() { return {Case::configurationRejected, 0, {}}; }
  static EncoderError pixelsUnreadable() { return {Case::pixelsUnreadable, 0, {}}; }
  static EncoderError writerFailed(std::string formatTitle, std::string detail = {}) {
    return {Case::writerFailed, 0, std::move(formatTitle), std::move(detail)};
  }

  Case errorCase() const { return m_case; }
  int code() const { return m_code; }
  // The library's own words, for logs; never part of the message.
  const std::string& detail() const { return m_detail; }
  std::string description() const override;

 private:
  EncoderError(Case c, int code, std::string format, std::string detail = {})
      : m_case(c), m_code(code), m_format(std::move(format)), m_detail(std::move(detail)) {}
  Case m_case;
  int m_code;
  std::string m_format;
  std::string m_detail;
};

}  // namespace tarnbloom::encoding
