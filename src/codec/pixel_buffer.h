#pragma once

#include <cstddef>
#include <cstdint>
#include <utility>

namespace tarnbloom::codec {

// The bytes of a frame. New bytes are left uninitialised: a decoder
// overwrites every one, and zero-filling a 24-megapixel frame first costs a
// noticeable share of a load. Large buffers are mappings of their own that
// ask for huge pages: faulting in 72 MB page by page costs a quarter of a
// 24-megapixel JPEG decode. A buffer may also adopt a mapping made
// elsewhere (pixels received from the decoder helper).
class SampleBytes {
 public:
  SampleBytes() = default;
  explicit SampleBytes(size_t size) { resize(size); }
  SampleBytes(const SampleBytes& other);
  SampleBytes& operator=(const SampleBytes& other);
  SampleBytes(SampleBytes&& other) noexcept { swap(other); }
  SampleBytes& operator=(SampleBytes&& other) noexcept {
    SampleBytes(std::move(other)).swap(*this);
    return *this;
  }
  ~SampleBytes() { release(); }

  // Takes over `length` bytes mapped at `data` (unmapped when it goes).
  static SampleBytes adoptMapping(uint8_t* data, size_t length);

  uint8_t* data() { return m_data; }
  const uint8_t* data() const { return m_data; }
  size_t size() const { return m_size; }
  bool empty() const { return m_size == 0; }
  uint8_t* begin() { return m_data; }
  uint8_t* end() { return m_data + m_size; }
  const uint8_t* begin() const { return m_data; }
  const uint8_t* end() const { return m_data + m_size; }
  uint8_t& operator[](size_t i) { return m_data[i]; }
  const uint8_t& operator[](size_t i) const { return m_data[i]; }

  // Keeps the first min(size, new size) bytes; the rest are uninitialised.
  void resize(size_t size);
  void clear() { release(); }
  void swap(SampleBytes& other) noexcept;
  bool operator==(const SampleBytes& other) const;

 private:
  void release();
  uint8_t* m_data = nullptr;
  size_t m_size = 0;
  size_t m_capacity = 0;
  // Set for mapped storage: the mapping's length.
  size_t m_mappedLength = 0;
};

enum class SampleFormat { uint8, uint16, float32 };

// One decoded frame, interleaved, rows packed without padding, stored as the
// file stores it (orientation not applied). Samples use the whole range of
// their type: an 8-bit buffer holds 0...255 whatever the file's own depth
// (1-bit black is 0, white 255), a 16-bit buffer 0...65535 (a 10-bit 1023
// becomes 65535), a float buffer nominally 0...1. Alpha is always straight
// (unassociated) and always last.
struct PixelBuffer {
  int width = 0;
  int height = 0;
  int channels = 0;  // 1 grey, 2 grey+alpha, 3 RGB, 4 RGBA
  SampleFormat format = SampleFormat::uint8;
  SampleBytes data;

  bool hasAlpha() const { return channels == 2 || channels == 4; }
  bool isGrey() const { return channels <= 2; }
  size_t bytesPerSample() const {
    return format == SampleFormat::uint8 ? 1 : format == SampleFormat::uint16 ? 2 : 4;
  }
  size_t rowBytes() const { return static_cast<size_t>(width) * channels * bytesPerSample(); }
  uint8_t* row(int y) { return data.data() + rowBytes() * static_cast<size_t>(y); }
  const uint8_t* row(int y) const { return data.data() + rowBytes() * static_cast<size_t>(y); }

  // Allocates (contents undefined) after checkDimensions(); throws
  // CodecError when too large.
  void allocate(int width, int height, int channels, SampleFormat format);
};



// The largest frame we decode. Checked against declared header sizes before
// any allocation, so a hostile header cannot make us allocate gigabytes; no
// enlargement of a larger frame could stay under the output ceilings anyway.
inline constexpr int64_t kMaxSourcePixels = 400'000'000;
inline constexpr int64_t kMaxSourceSide = 1'000'000;

// Throws CodecError (unreadable) when width × height is zero or too large.
void checkDimensions(int64_t width, int64_t height);

}  // namespace tarnbloom::codec
