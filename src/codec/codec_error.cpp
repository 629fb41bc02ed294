#include "codec/codec_error.h"

namespace tarnbloom::codec {

std::string CodecError::description() const {
  switch (m_kind) {
    case Kind::unreadable: return "The file couldn’t be read as an image.";
    case Kind::gif: return "GIF images aren’t supported.";
    case Kind::multiFrame: return "The file contains " + std::to_string(m_value) + " frames.";
    case Kind::animatedWebP:
      return "The file is an animated WebP with " + std::to_string(m_value) + " frames.";
    case Kind::unsupportedDepth:
      return "The file uses " + std::to_string(m_value) + "-bit samples.";
  }
  return "The file couldn’t be read as an image.";
}

}  // namespace tarnbloom::codec
