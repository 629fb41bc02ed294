#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <vector>

#include "codec/pixel_buffer.h"
#include "encoding/byte_sink.h"

namespace tarnbloom::encoding {

// The shape of the picture a streaming writer is opened for.
struct RowLayout {
  int width = 0;
  int height = 0;
  int channels = 0;  // 1 grey, 2 grey+alpha, 3 RGB, 4 RGBA
  codec::SampleFormat format = codec::SampleFormat::uint8;

  // `rows`' width, channels and format with `height` rows in all.
  static RowLayout of(const codec::PixelBuffer& rows, int height) {
    return {rows.width, height, rows.channels, rows.format};
  }
  bool hasAlpha() const { return channels == 2 || channels == 4; }
  bool isGrey() const { return channels <= 2; }
  size_t bytesPerSample() const {
    return format == codec::SampleFormat::uint8 ? 1 : format == codec::SampleFormat::uint16 ? 2 : 4;
  }
  size_t rowBytes() const { return static_cast<size_t>(width) * channels * bytesPerSample(); }
  // Whether `rows` can be rows of this picture.
  bool matches(const codec::PixelBuffer& rows) const {
    return rows.width == width && rows.channels == channels && rows.format == format;
  }
};

// Writes a picture whose rows arrive in order, a band at a time, to a
// ByteSink, so that the whole picture is never held. The file is the same
// byte for byte however the rows are split into bands. After a throw the
// writer is spent: every later call throws too, and the sink holds no
// finished file.
class RowWriter {
 public:
  virtual ~RowWriter() = default;
  // The next `rows.height` rows, top to bottom.
  virtual void writeRows(const codec::PixelBuffer& rows) = 0;
  // Ends the file; throws when rows are still missing.
  virtual void finish() = 0;
};

// The whole file of a picture held whole, through the streaming writer
// `open` makes: one code path for both, so their bytes cannot differ.
inline std::vector<uint8_t> writeWhole(
    const codec::PixelBuffer& image,
    const std::function<std::unique_ptr<RowWriter>(const RowLayout&, ByteSink&)>& open) {
  MemorySink sink;
  const auto writer = open(RowLayout::of(image, image.height), sink);
  writer->writeRows(image);
  writer->finish();
  return sink.take();
}

}  // namespace tarnbloom::encoding
