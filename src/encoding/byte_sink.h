#pragma once

#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "support/files.h"
#include "support/sha256.h"

namespace tarnbloom::encoding {

class FileSink;

// Where a writer puts the file it produces, in order, front to back.
// A sink that fails throws its own error; writers pass it on unchanged.
class ByteSink {
 public:
  virtual ~ByteSink() = default;
  virtual void write(std::span<const uint8_t> bytes) = 0;
  // The same for bytes the writer is done with: a sink that keeps bytes
  // may take them over instead of copying them.
  virtual void writeOwned(std::vector<uint8_t>&& bytes) { write(bytes); }
  // The file on disk behind this sink, for writers that patch what they
  // wrote earlier (TIFF); none for sinks that only append.
  virtual FileSink* file() { return nullptr; }
};

// Keeps the file in memory. Bytes go into blocks that never move once
// written, so a file of hundreds of megabytes is not copied again each
// time it outgrows its storage, and take() copies each block once.
class MemorySink final : public ByteSink {
 public:
  // `hashed`: keep the SHA-256 of the bytes as they arrive.
  explicit MemorySink(bool hashed = false)
      : m_hash(hashed ? std::optional<Sha256Stream>(std::in_place) : std::nullopt) {}
  void write(std::span<const uint8_t> bytes) override;
  void writeOwned(std::vector<uint8_t>&& bytes) override;

  uint64_t size() const { return m_size; }
  // The whole file; the sink is empty afterwards.
  std::vector<uint8_t> take();
  // Hex SHA-256 of what was written (hashed sinks only; else empty).
  std::string sha256();

 private:
  std::vector<std::vector<uint8_t>> m_blocks;
  uint64_t m_size = 0;
  std::optional<Sha256Stream> m_hash;
};

// The file on disk while it is made: an unnamed file in a folder, so that
// a crash or a failed export leaves nothing behind, given a name only once
// it is whole (linkAs). Bytes are hashed as they are appended; a writer
// that goes back to patch earlier bytes makes the hash read the finished
// file instead. Throws FileError naming the folder.
class FileSink final : public ByteSink {
 public:
  // None when the folder's file system cannot make unnamed files (or the
  // folder does not exist yet); the caller keeps the file in memory then.
  static std::unique_ptr<FileSink> openUnnamed(const std::filesystem::path& folder);
  ~FileSink() override;

  void write(std::span<const uint8_t> bytes) override;
  FileSink* file() override { return this; }

  // Writes at `offset`, growing the file as needed.
  void writeAt(uint64_t offset, std::span<const uint8_t> bytes);
  // Reads up to `into.size()` bytes at `offset`; returns how many.
  size_t readAt(uint64_t offset, std::span<uint8_t> into) const;
  uint64_t size() const { return m_size; }
  // Cuts the file to `size` bytes.
  void truncate(uint64_t size);
  // The first `count` bytes (fewer when the file is shorter).
  std::vector<uint8_t> head(size_t count) const;
  // Hex SHA-256 of the file as written.
  std::string sha256();
  // Syncs the file and gives it the name `path`, which must not exist yet
  // (on another file system, a synced copy). Throws FileError(path,
  // "write", errno); nothing is left at `path` then.
  void linkAs(const std::filesystem::path& path) const;

 private:
  FileSink(FileDescriptor fd, std::filesystem::path folder)
      : m_fd(std::move(fd)), m_folder(std::move(folder)) {}
  void copyAs(const std::filesystem::path& path) const;
  FileDescriptor m_fd;
  std::filesystem::path m_folder;
  uint64_t m_size = 0;
  Sha256Stream m_hash;
  // Bytes hashed so far, front to back; unset once earlier bytes changed.
  std::optional<uint64_t> m_hashed = 0;
  std::optional<std::string> m_digest;
};

}  // namespace tarnbloom::encoding
