#include <cstring>

#include "engine/engine_error.h"
#include "engine/resample_engine.h"

namespace tarnbloom {
namespace {

// Where the displayed pixel (dx, dy) comes from in the stored bitmap:
// sx = xx·dx + xy·dy + x0, sy = yx·dx + yy·dy + y0.
struct SourceMap {
  int64_t xx, xy, x0, yx, yy, y0;
};

SourceMap sourceMap(uint32_t orientation, int64_t w, int64_t h) {
  switch (orientation) {
    case 1: return {1, 0, 0, 0, 1, 0};
    case 2: return {-1, 0, w - 1, 0, 1, 0};           // mirrored left-right
    case 3: return {-1, 0, w - 1, 0, -1, h - 1};      // turned 180°
    case 4: return {1, 0, 0, 0, -1, h - 1};           // mirrored top-bottom
    case 5: return {0, 1, 0, 1, 0, 0};                // transposed
    case 6: return {0, 1, 0, -1, 0, h - 1};           // needs 90° clockwise
    case 7: return {0, -1, w - 1, -1, 0, h - 1};      // transversed
    case 8: return {0, -1, w - 1, 1, 0, 0};           // needs 90° anticlockwise
  }
  throw EngineError::vImage("orientation", kResamplerInvalidParameter);
}

}  // namespace

codec::PixelBuffer ResampleEngine::applyOrientation(const codec::PixelBuffer& image,
                                                    uint32_t orientation) {
  const SourceMap map = sourceMap(orientation, image.width, image.height);
  const bool transposed = orientation >= 5;
  codec::PixelBuffer upright;
  upright.allocate(transposed ? image.height : image.width, transposed ? image.width : image.height,
                   image.channels, image.format);
  const size_t pixelBytes = image.channels * image.bytesPerSample();
  const size_t sourceRow = image.rowBytes();
  const int64_t step = (map.xx * static_cast<int64_t>(pixelBytes)) + map.yx * static_cast<int64_t>(sourceRow);

#pragma omp parallel for schedule(static)
  for (int dy = 0; dy < upright.height; ++dy) {
    const int64_t sx = map.xy * dy + map.x0;
    const int64_t sy = map.yy * dy + map.y0;
    const uint8_t* from = image.data.data() + sy * static_cast<int64_t>(sourceRow) + sx * static_cast<int64_t>(pixelBytes);
    uint8_t* to = upright.row(dy);
    if (step == static_cast<int64_t>(pixelBytes)) {
      std::memcpy(to, from, upright.rowBytes());
      continue;
    }
    for (int dx = 0; dx < upright.width; ++dx, from += step, to += pixelBytes)
      std::memcpy(to, from, pixelBytes);
  }
  return upright;
}

}  // namespace tarnbloom
