#pragma once

#include <cstdint>
#include <span>

#include "codec/pixel_buffer.h"

namespace tarnbloom::codec {

// Converts interleaved CMYK rows (8 or 16 bits, ink amounts: 0 = no ink) to
// RGB in sRGB through the file's CMYK profile, or through a plain
// complement formula when it has none or the profile is unusable. `out` is
// allocated here as RGB of the same sample format. Adobe-style inverted CMYK
// must be un-inverted by the caller.
void convertCmykToSrgb(const PixelBuffer& cmyk, std::span<const uint8_t> iccProfile,
                       PixelBuffer& out);

}  // namespace tarnbloom::codec
