#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <utility>
#include <vector>

namespace tarnbloom::codec {

// Leaves new elements uninitialised: a decoder overwrites every byte, and
// zero-filling a 24-megapixel frame first costs a noticeable share of a load.
template <typename T>
struct UninitialisedAllocator : std::allocator<T> {
  template <typename U>
  struct rebind {
    using other = UninitialisedAllocator<U>;
  };
  using std::allocator<T>::allocator;
  template <typename U, typename... Args>
  void construct(U* p, Args&&... args) {
    if constexpr (sizeof...(Args) == 0)
      ::new (static_cast<void*>(p)) U;
    else
      ::new (static_cast<void*>(p)) U(std::forward<Args>(args)...);
  }
};

using SampleBytes = std::vector<uint8_t, UninitialisedAllocator<uint8_t>>;

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
