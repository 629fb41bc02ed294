#pragma once

#include <QImage>

#include "codec/pixel_buffer.h"

namespace tarnbloom::app {

// A decoded or rendered buffer as Qt draws it: 8 bits per channel, grey
// widened to RGB, straight alpha kept. 16-bit samples round to the nearest
// 8-bit value; the numbers are not colour-converted, so the original and a
// preview in the same colour space compare fairly.
QImage toQImage(const codec::PixelBuffer& buffer);

}  // namespace tarnbloom::app
