#include "codec/pixel_buffer.h"

#include <sys/mman.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <new>

#include "codec/codec_error.h"

namespace tarnbloom::codec {

namespace {

// From this size on a buffer is a mapping of its own (see SampleBytes).
constexpr size_t kMappedFrom = size_t{1} << 20;

}  // namespace

SampleBytes::SampleBytes(const SampleBytes& other) {
  resize(other.m_size);
  if (m_size) std::memcpy(m_data, other.m_data, m_size);
}

SampleBytes& SampleBytes::operator=(const SampleBytes& other) {
  if (this != &other) SampleBytes(other).swap(*this);
  return *this;
}

SampleBytes SampleBytes::adoptMapping(uint8_t* data, size_t length) {
  SampleBytes bytes;
  bytes.m_data = data;
  bytes.m_size = bytes.m_capacity = bytes.m_mappedLength = length;
  return bytes;
}

void SampleBytes::resize(size_t size) {
  if (size <= m_capacity) {
    m_size = size;
    return;
  }
  if (m_mappedLength || size >= kMappedFrom) {
    // Mappings are fixed in size: the bytes move into new storage.
    SampleBytes grown;
    if (size >= kMappedFrom) {
      void* map = ::mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
      if (map == MAP_FAILED) throw std::bad_alloc();
      ::madvise(map, size, MADV_HUGEPAGE);
      grown = adoptMapping(static_cast<uint8_t*>(map), size);
    } else {
      grown.resize(size);
    }
    if (m_size) std::memcpy(grown.m_data, m_data, m_size);
    swap(grown);
    return;
  }
  auto* grown = static_cast<uint8_t*>(std::realloc(m_data, size));
  if (!grown) throw std::bad_alloc();
  m_data = grown;
  m_size = m_capacity = size;
}

void SampleBytes::swap(SampleBytes& other) noexcept {
  std::swap(m_data, other.m_data);
  std::swap(m_size, other.m_size);
  std::swap(m_capacity, other.m_capacity);
  std::swap(m_mappedLength, other.m_mappedLength);
}

bool SampleBytes::operator==(const SampleBytes& other) const {
  return m_size == other.m_size && (m_size == 0 || std::memcmp(m_data, other.m_data, m_size) == 0);
}

void SampleBytes::release() {
  if (m_mappedLength)
    ::munmap(m_data, m_mappedLength);
  else
    std::free(m_data);
  m_data = nullptr;
  m_size = m_capacity = m_mappedLength = 0;
}

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
