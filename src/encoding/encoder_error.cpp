#include "encoding/encoder_error.h"

namespace tarnbloom::encoding {

std::string EncoderError::description() const {
  switch (m_case) {
    case Case::encoderFailed:
      return "The WebP encoder failed (code " + std::to_string(m_code) + ").";
    case Case::metadataMuxFailed:
      return "The WebP metadata mux failed (code " + std::to_string(m_code) + ").";
    case Case::configurationRejected:
      return "The WebP encoder rejected its configuration.";
    case Case::pixelsUnreadable:
      return "The WebP encoder could not read the rendered pixels.";
    case Case::writerFailed:
      return "The " + m_format + " encoder failed. Nothing was written.";
  }
  return "The encoder failed.";
}

}  // namespace tarnbloom::encoding
