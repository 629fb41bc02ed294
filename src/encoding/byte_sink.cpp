#include "encoding/byte_sink.h"

#include <algorithm>

namespace tarnbloom::encoding {
namespace {

// A new block holds about a quarter of what is written so far, within
// these bounds: few blocks for a large file, little slack for a small one.
constexpr size_t kSmallestBlock = size_t{64} << 10;
constexpr size_t kLargestBlock = size_t{64} << 20;

}  // namespace

void MemorySink::write(std::span<const uint8_t> bytes) {
  if (bytes.empty()) return;
  if (m_blocks.empty() || m_blocks.back().capacity() - m_blocks.back().size() < bytes.size()) {
    const size_t grown = std::clamp(static_cast<size_t>(m_size / 4), kSmallestBlock, kLargestBlock);
    std::vector<uint8_t> block;
    block.reserve(std::max(grown, bytes.size()));
    m_blocks.push_back(std::move(block));
  }
  m_blocks.back().insert(m_blocks.back().end(), bytes.begin(), bytes.end());
  m_size += bytes.size();
}

void MemorySink::writeOwned(std::vector<uint8_t>&& bytes) {
  if (bytes.empty()) return;
  m_size += bytes.size();
  m_blocks.push_back(std::move(bytes));
}

std::vector<uint8_t> MemorySink::take() {
  std::vector<uint8_t> whole;
  if (m_blocks.size() == 1) {
    whole = std::move(m_blocks.front());
  } else if (!m_blocks.empty()) {
    // Each block is released once copied, so the file is held about once,
    // not twice, while it is joined.
    // Reserving touches no page, so only what is copied becomes resident.
    whole.reserve(m_size);
    for (auto& block : m_blocks) {
      whole.insert(whole.end(), block.begin(), block.end());
      std::vector<uint8_t>().swap(block);
    }
  }
  m_blocks.clear();
  m_size = 0;
  return whole;
}

}  // namespace tarnbloom::encoding
