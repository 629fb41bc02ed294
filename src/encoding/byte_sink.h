#pragma once

#include <cstdint>
#include <span>
#include <vector>

namespace tarnbloom::encoding {

// Where a writer puts the file it produces, in order, front to back.
// A sink that fails throws its own error; writers pass it on unchanged.
class ByteSink {
 public:
  virtual ~ByteSink() = default;
  virtual void write(std::span<const uint8_t> bytes) = 0;
  // The same for bytes the writer is done with: a sink that keeps bytes
  // may take them over instead of copying them.
  virtual void writeOwned(std::vector<uint8_t>&& bytes) { write(bytes); }
};

// Keeps the file in memory. Bytes go into blocks that never move once
// written, so a file of hundreds of megabytes is not copied again each
// time it outgrows its storage, and take() copies each block once.
class MemorySink final : public ByteSink {
 public:
  void write(std::span<const uint8_t> bytes) override;
  void writeOwned(std::vector<uint8_t>&& bytes) override;

  uint64_t size() const { return m_size; }
  // The whole file; the sink is empty afterwards.
  std::vector<uint8_t> take();

 private:
  std::vector<std::vector<uint8_t>> m_blocks;
  uint64_t m_size = 0;
};

}  // namespace tarnbloom::encoding
