#include "app/pixel_image.h"

#include <algorithm>
#include <cstring>

namespace tarnbloom::app {

namespace {

uint8_t sample8(const codec::PixelBuffer& buffer, const uint8_t* row, int index) {
  switch (buffer.format) {
    case codec::SampleFormat::uint8:
      return row[index];
    case codec::SampleFormat::uint16: {
      uint16_t v;
      std::memcpy(&v, row + index * 2, 2);
      return static_cast<uint8_t>((v * 255u + 32767u) / 65535u);
    }
    case codec::SampleFormat::float32: {
      float v;
      std::memcpy(&v, row + index * 4, 4);
      return static_cast<uint8_t>(std::clamp(v, 0.0f, 1.0f) * 255.0f + 0.5f);
    }
  }
  return 0;
}

}  // namespace

QImage toQImage(const codec::PixelBuffer& buffer) {
  if (buffer.width <= 0 || buffer.height <= 0 || buffer.channels < 1 || buffer.channels > 4)
    return {};
  // The 8-bit layouts Qt reads directly are copied row by row.
  if (buffer.format == codec::SampleFormat::uint8 && (buffer.channels == 3 || buffer.channels == 4 ||
                                                      buffer.channels == 1)) {
    const QImage::Format format = buffer.channels == 4   ? QImage::Format_RGBA8888
                                  : buffer.channels == 3 ? QImage::Format_RGB888
                                                         : QImage::Format_Grayscale8;
    QImage image(buffer.width, buffer.height, format);
    if (image.isNull()) return {};
    for (int y = 0; y < buffer.height; ++y)
      std::memcpy(image.scanLine(y), buffer.row(y), buffer.rowBytes());
    return image;
  }
  QImage image(buffer.width, buffer.height, QImage::Format_RGBA8888);
  if (image.isNull()) return {};
  const int c = buffer.channels;
  for (int y = 0; y < buffer.height; ++y) {
    const uint8_t* row = buffer.row(y);
    uint8_t* out = image.scanLine(y);
    for (int x = 0; x < buffer.width; ++x) {
      const int i = x * c;
      const uint8_t r = sample8(buffer, row, i);
      const uint8_t g = c >= 3 ? sample8(buffer, row, i + 1) : r;
      const uint8_t b = c >= 3 ? sample8(buffer, row, i + 2) : r;
      const uint8_t a = (c == 2 || c == 4) ? sample8(buffer, row, i + c - 1) : 255;
      out[x * 4] = r;
      out[x * 4 + 1] = g;
      out[x * 4 + 2] = b;
      out[x * 4 + 3] = a;
    }
  }
  return image;
}

}  // namespace tarnbloom::app
