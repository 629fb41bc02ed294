#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <new>
#include <vector>

namespace tarnbloom {

// Float storage aligned for vector loads and left uninitialised on resize:
// every user writes each sample before reading it.
template <typename T>
struct AlignedUninitialised {
  using value_type = T;
  AlignedUninitialised() = default;
  template <typename U>
  AlignedUninitialised(const AlignedUninitialised<U>&) {}
  T* allocate(size_t n) {
    return static_cast<T*>(::operator new(n * sizeof(T), std::align_val_t{64}));
  }
  void deallocate(T* p, size_t) { ::operator delete(p, std::align_val_t{64}); }
  template <typename U>
  void construct(U* p) {
    ::new (static_cast<void*>(p)) U;
  }
  template <typename U, typename... Args>
  void construct(U* p, Args&&... args) {
    ::new (static_cast<void*>(p)) U(std::forward<Args>(args)...);
  }
  bool operator==(const AlignedUninitialised&) const { return true; }
};

// Interleaved float pixels: 4 channels (premultiplied linear RGBA) or 1
// (a plane). Rows are packed.
struct FloatImage {
  int64_t width = 0;
  int64_t height = 0;
  int channels = 4;
  std::vector<float, AlignedUninitialised<float>> data;

  FloatImage() = default;
  FloatImage(int64_t w, int64_t h, int c) : width(w), height(h), channels(c) {
    data.resize(static_cast<size_t>(w) * static_cast<size_t>(h) * static_cast<size_t>(c));
  }
  size_t rowFloats() const { return static_cast<size_t>(width) * channels; }
  float* row(int64_t y) { return data.data() + rowFloats() * static_cast<size_t>(y); }
  const float* row(int64_t y) const { return data.data() + rowFloats() * static_cast<size_t>(y); }
};

}  // namespace tarnbloom
