#pragma once

#include <cstddef>
#include <filesystem>
#include <span>

#include "support/files.h"

namespace tarnbloom {

// Bytes in a sealed memory file: nobody, this process included, can change
// or resize them any more. A process given the descriptor therefore sees
// exactly the bytes this one hashed, and a hostile one cannot write back
// through it.
class SealedBytes {
 public:
  SealedBytes() = default;
  ~SealedBytes();
  SealedBytes(SealedBytes&& other) noexcept;
  SealedBytes& operator=(SealedBytes&& other) noexcept;

  // Reads a whole regular file (at most maxBytes); throws FileError with
  // the system's reason.
  static SealedBytes readFile(const std::filesystem::path& path,
                              size_t maxBytes = size_t{4} << 30);
  // Throws FileError (for `name`) when no memory file can be made.
  static SealedBytes copyOf(std::span<const std::byte> bytes,
                            const std::filesystem::path& name = "memory");

  std::span<const std::byte> bytes() const {
    return {static_cast<const std::byte*>(m_data), m_size};
  }
  int fd() const { return m_fd.get(); }

 private:
  // Seals what was written through `writable` and maps it read-only.
  void seal(void* writable, const std::filesystem::path& name);
  FileDescriptor m_fd;
  void* m_data = nullptr;
  size_t m_size = 0;
};

}  // namespace tarnbloom
