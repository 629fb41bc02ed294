#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "codec/container.h"
#include "codec/pixel_buffer.h"

namespace tarnbloom::codec {

// Frame 0 of a still image with what the encoders carry to the output.
struct DecodedFrame {
  Container container = Container::unknown;
  int frameCount = 1;
  PixelBuffer pixels;
  int nativeBits = 8;    // the file's own bits per sample (1, 8, 10, 12, 16, 32, ...)
  bool isFloat = false;  // the file's samples are floating point
  uint32_t orientation = 1;
  // The ICC profile the pixels are in; empty when the file declares none
  // (then sRGB, or grey gamma 2.2, is assumed). CMYK files are converted to
  // RGB on decode and carry the profile of that RGB.
  std::vector<uint8_t> iccProfile;
  std::vector<uint8_t> exif;  // TIFF-structured EXIF ("II*\0"...), no "Exif\0\0" prefix
  std::string xmp;            // the XMP packet as text
  bool convertedFromCmyk = false;
};

// Decodes frame 0 at its native depth. Throws CodecError: gif for any GIF,
// multiFrame or animatedWebP when there is more than one frame, unreadable
// for anything damaged, truncated or oversized.
DecodedFrame decodeFrame(std::span<const std::byte> bytes);

}  // namespace tarnbloom::codec
