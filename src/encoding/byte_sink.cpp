#include "encoding/byte_sink.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <string>

#include "support/files.h"

namespace tarnbloom::encoding {
namespace {

// A new block holds about a quarter of what is written so far, within
// these bounds: few blocks for a large file, little slack for a small one.
constexpr size_t kSmallestBlock = size_t{64} << 10;
constexpr size_t kLargestBlock = size_t{64} << 20;

std::span<const std::byte> asBytes(std::span<const uint8_t> bytes) { return std::as_bytes(bytes); }

}  // namespace

void MemorySink::write(std::span<const uint8_t> bytes) {
  if (bytes.empty()) return;
  if (m_hash) m_hash->update(asBytes(bytes));
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
  if (m_hash) m_hash->update(asBytes(bytes));
  m_size += bytes.size();
  m_blocks.push_back(std::move(bytes));
}

std::string MemorySink::sha256() { return m_hash ? m_hash->hex() : std::string(); }

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

std::unique_ptr<FileSink> FileSink::openUnnamed(const std::filesystem::path& folder) {
  FileDescriptor fd(::open(folder.c_str(), O_TMPFILE | O_RDWR | O_CLOEXEC, 0644));
  if (!fd) return nullptr;
  return std::unique_ptr<FileSink>(new FileSink(std::move(fd), folder));
}

FileSink::~FileSink() = default;

void FileSink::write(std::span<const uint8_t> bytes) { writeAt(m_size, bytes); }

void FileSink::writeAt(uint64_t offset, std::span<const uint8_t> bytes) {
  if (m_hashed) {
    if (offset == *m_hashed) {
      m_hash.update(asBytes(bytes));
      *m_hashed += bytes.size();
    } else if (offset < *m_hashed) {
      m_hashed.reset();
    }
  }
  size_t done = 0;
  while (done < bytes.size()) {
    const ssize_t n = ::pwrite(m_fd.get(), bytes.data() + done, bytes.size() - done,
                               static_cast<off_t>(offset + done));
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) throw FileError(m_folder, "write", n < 0 ? errno : EIO);
    done += static_cast<size_t>(n);
  }
  m_size = std::max(m_size, offset + bytes.size());
  m_digest.reset();
}

size_t FileSink::readAt(uint64_t offset, std::span<uint8_t> into) const {
  size_t done = 0;
  while (done < into.size()) {
    const ssize_t n = ::pread(m_fd.get(), into.data() + done, into.size() - done,
                              static_cast<off_t>(offset + done));
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) throw FileError(m_folder, "read", errno);
    if (n == 0) break;
    done += static_cast<size_t>(n);
  }
  return done;
}

void FileSink::truncate(uint64_t size) {
  if (::ftruncate(m_fd.get(), static_cast<off_t>(size)) != 0)
    throw FileError(m_folder, "write", errno);
  if (size < m_size && m_hashed && *m_hashed > size) m_hashed.reset();
  m_size = size;
  m_digest.reset();
}

std::vector<uint8_t> FileSink::head(size_t count) const {
  std::vector<uint8_t> bytes(static_cast<size_t>(std::min<uint64_t>(count, m_size)));
  bytes.resize(readAt(0, bytes));
  return bytes;
}

std::string FileSink::sha256() {
  if (m_digest) return *m_digest;
  // Bytes written past the hashed run (a gap left to fill) count as patched.
  if (!m_hashed || *m_hashed != m_size) {
    // A writer went back over its bytes: only the finished file says what
    // they are.
    Sha256Stream hash;
    std::vector<uint8_t> buffer(size_t{4} << 20);
    for (uint64_t at = 0; at < m_size;) {
      const size_t got = readAt(at, buffer);
      if (got == 0) throw FileError(m_folder, "read", EIO);
      hash.update(asBytes(std::span(buffer.data(), got)));
      at += got;
    }
    m_hash = std::move(hash);
  }
  m_digest = m_hash.hex();
  m_hashed.reset();  // the stream is spent; later writes re-read the file
  return *m_digest;
}

void FileSink::linkAs(const std::filesystem::path& path) const {
  if (::fsync(m_fd.get()) != 0) throw FileError(path, "write", errno);
  // An unnamed file gets its name through its descriptor's entry in /proc.
  const std::string self = "/proc/self/fd/" + std::to_string(m_fd.get());
  if (::linkat(AT_FDCWD, self.c_str(), AT_FDCWD, path.c_str(), AT_SYMLINK_FOLLOW) == 0) return;
  // Another file system than the one it was made on (or no /proc): the
  // bytes are copied into a new file instead.
  if (errno != EXDEV && errno != ENOENT) throw FileError(path, "write", errno);
  copyAs(path);
}

void FileSink::copyAs(const std::filesystem::path& path) const {
  const FileDescriptor copy(::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644));
  if (!copy) throw FileError(path, "write", errno);
  // Whatever stops the copy, nothing half-written is left under the name.
  try {
    std::vector<uint8_t> buffer(size_t{4} << 20);
    for (uint64_t at = 0; at < m_size;) {
      const size_t got = readAt(at, buffer);
      if (got == 0) throw FileError(m_folder, "read", EIO);
      for (size_t done = 0; done < got;) {
        const ssize_t n = ::write(copy.get(), buffer.data() + done, got - done);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) throw FileError(path, "write", n < 0 ? errno : EIO);
        done += static_cast<size_t>(n);
      }
      at += got;
    }
    if (::fsync(copy.get()) != 0) throw FileError(path, "write", errno);
  } catch (...) {
    ::unlink(path.c_str());
    throw;
  }
}

}  // namespace tarnbloom::encoding
