#pragma once

#include <cstdint>
#include <span>
#include <vector>

#include "codec/pixel_buffer.h"

namespace tarnbloom::cli {

// Plain PNG and JPEG writers for `enlarge` until the full encoders with the
// colour and metadata policy take over. Both embed `iccProfile` when given;
// an empty profile means sRGB (PNG then carries an sRGB chunk).

// 8- or 16-bit, grey or RGB, with or without alpha.
std::vector<uint8_t> encodePng(const codec::PixelBuffer& image, std::span<const uint8_t> iccProfile);

// 8-bit grey or RGB (no alpha); quality 1...100. Throws EngineError
// (jpegEncode) on failure.
std::vector<uint8_t> encodeJpeg(const codec::PixelBuffer& image, int quality,
                                std::span<const uint8_t> iccProfile);

}  // namespace tarnbloom::cli
