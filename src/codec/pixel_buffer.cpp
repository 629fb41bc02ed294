#include "codec/pixel_buffer.h"

#include "codec/codec_error.h"

namespace tarnbloom::codec {

void checkDimensions(int64_t width, int64_t height) {
  if (width < 1 || height < 1) throw CodecError::unreadable("empty frame");
  if (width > kMaxSourceSide || height > kMaxSourceSide || width * height > kMaxSourcePixels)
    throw CodecError::unreadable("frame too large");
}

void PixelBuffer::allocate(int w, int h, int c, SampleFormat f) {
  checkDimensions(w, h);
  width = w;
  height = h;
  channels = c;
  format = f;
  data.clear();
  data.resize(rowBytes() * static_cast<size_t>(h));
}

}  // namespace tarnbloom::codec
