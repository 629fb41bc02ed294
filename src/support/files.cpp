#include "support/files.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "support/uuid.h"

namespace tarnbloom {
namespace {

void writeAll(int fd, const std::byte* data, size_t size, const std::filesystem::path& path) {
  while (size > 0) {
    const ssize_t written = ::write(fd, data, size);
    if (written < 0) {
      if (errno == EINTR) continue;
      throw FileError(path, "write", errno);
    }
    data += written;
    size -= static_cast<size_t>(written);
  }
}

}  // namespace

FileError::FileError(std::filesystem::path path, std::string action, int errnoValue)
    : m_path(std::move(path)), m_action(std::move(action)), m_errno(errnoValue) {}

std::string FileError::description() const {
  return "Couldn’t " + m_action + " “" + m_path.filename().string() +
         "”: " + std::strerror(m_errno) + ".";
}

bool entryExists(const std::filesystem::path& path) {
  struct stat info {};
  return !path.empty() && ::lstat(path.c_str(), &info) == 0;
}

bool removeFileIfPresent(const std::filesystem::path& path,
                         std::vector<std::filesystem::path>* removed) {
  if (path.empty() || ::unlink(path.c_str()) != 0) return false;
  if (removed) removed->push_back(path);
  return true;
}

std::pair<FileDescriptor, size_t> openRegularFile(const std::filesystem::path& path) {
  // O_NONBLOCK: opening a FIFO or a device named like a photo must not
  // wait for a writer that never comes; it is refused just below.
  FileDescriptor fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
  if (fd.get() < 0) throw FileError(path, "open", errno);
  struct stat info {};
  if (::fstat(fd.get(), &info) != 0) throw FileError(path, "read", errno);
  if (!S_ISREG(info.st_mode))
    throw FileError(path, "read", S_ISDIR(info.st_mode) ? EISDIR : EINVAL);
  return {std::move(fd), static_cast<size_t>(info.st_size)};
}

std::optional<std::vector<std::byte>> readToEnd(int fd, const std::filesystem::path& path,
                                                size_t maxBytes, size_t sizeHint) {
  constexpr size_t kChunk = size_t{64} << 10;
  // One byte of room past the limit tells a file that holds more.
  std::vector<std::byte> bytes(std::min(sizeHint, maxBytes) + 1);
  size_t filled = 0;
  for (;;) {
    if (filled == bytes.size()) {
      if (filled > maxBytes) return std::nullopt;
      bytes.resize(std::min(maxBytes + 1, filled + kChunk));
    }
    const ssize_t got = ::read(fd, bytes.data() + filled, bytes.size() - filled);
    if (got < 0) {
      if (errno == EINTR) continue;
      throw FileError(path, "read", errno);
    }
    if (got == 0) break;
    filled += static_cast<size_t>(got);
  }
  if (filled > maxBytes) return std::nullopt;
  bytes.resize(filled);
  return bytes;
}

std::vector<std::byte> readWholeFile(const std::filesystem::path& path, size_t maxBytes) {
  const auto [fd, size] = openRegularFile(path);
  if (size > maxBytes) throw FileError(path, "read", EFBIG);
  auto bytes = readToEnd(fd.get(), path, maxBytes, size);
  if (!bytes) throw FileError(path, "read", EFBIG);
  return std::move(*bytes);
}

MappedFile::MappedFile(const std::filesystem::path& path) : m_fd(openRegularFile(path).first) {
  struct stat info {};
  if (::fstat(m_fd.get(), &info) != 0) throw FileError(path, "read", errno);
  m_size = static_cast<size_t>(info.st_size);
  if (m_size == 0) return;
  m_data = ::mmap(nullptr, m_size, PROT_READ, MAP_PRIVATE, m_fd.get(), 0);
  if (m_data == MAP_FAILED) {
    m_data = nullptr;
    m_size = 0;
    throw FileError(path, "read", errno);
  }
}

MappedFile::~MappedFile() {
  if (m_data) ::munmap(m_data, m_size);
}

AtomicFileWriter::AtomicFileWriter(std::filesystem::path target, mode_t mode)
    : m_target(std::move(target)) {
  const auto folder = m_target.has_parent_path() ? m_target.parent_path() : ".";
  m_temporary = folder / ("." + m_target.filename().string() + "." + makeUuid() + ".tmp");
  m_fd = ::open(m_temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, mode);
  if (m_fd < 0) throw FileError(m_target, "write", errno);
}

AtomicFileWriter::~AtomicFileWriter() { cancel(); }

void AtomicFileWriter::write(std::span<const std::byte> bytes) {
  if (m_fd < 0) throw FileError(m_target, "write", EBADF);
  writeAll(m_fd, bytes.data(), bytes.size(), m_target);
}

void AtomicFileWriter::write(std::string_view text) {
  write(std::as_bytes(std::span(text.data(), text.size())));
}

void AtomicFileWriter::commit(Durability durability) {
  if (m_fd < 0) throw FileError(m_target, "write", EBADF);
  if (durability == Durability::durable && ::fsync(m_fd) != 0)
    throw FileError(m_target, "write", errno);
  const int fd = m_fd;
  m_fd = -1;
  if (::close(fd) != 0) {
    const int error = errno;
    ::unlink(m_temporary.c_str());
    throw FileError(m_target, "write", error);
  }
  if (::rename(m_temporary.c_str(), m_target.c_str()) != 0) {
    const int error = errno;
    ::unlink(m_temporary.c_str());
    throw FileError(m_target, "write", error);
  }
  m_temporary.clear();
  if (durability == Durability::durable)
    syncFolder(m_target.has_parent_path() ? m_target.parent_path() : ".");
}

bool AtomicFileWriter::commitWithoutReplacing() {
  if (m_fd >= 0) {
    if (::fsync(m_fd) != 0) throw FileError(m_target, "write", errno);
    const int fd = m_fd;
    m_fd = -1;
    if (::close(fd) != 0) throw FileError(m_target, "write", errno);
  }
  if (m_temporary.empty()) throw FileError(m_target, "write", EBADF);
  // renameat2 refuses to replace atomically; file systems without it get a
  // hard link, which also fails when the name is taken.
  if (::renameat2(AT_FDCWD, m_temporary.c_str(), AT_FDCWD, m_target.c_str(), RENAME_NOREPLACE) !=
      0) {
    if (errno == EEXIST) return false;
    if (errno != EINVAL && errno != ENOSYS) throw FileError(m_target, "write", errno);
    if (::link(m_temporary.c_str(), m_target.c_str()) != 0) {
      if (errno == EEXIST) return false;
      throw FileError(m_target, "write", errno);
    }
    ::unlink(m_temporary.c_str());
  }
  m_temporary.clear();
  syncFolder(m_target.has_parent_path() ? m_target.parent_path() : ".");
  return true;
}

void AtomicFileWriter::cancel() {
  if (m_fd >= 0) {
    ::close(m_fd);
    m_fd = -1;
  }
  if (!m_temporary.empty()) {
    ::unlink(m_temporary.c_str());
    m_temporary.clear();
  }
}

void writeNewFile(const std::filesystem::path& path, std::span<const std::byte> bytes) {
  FileDescriptor fd(::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644));
  if (fd.get() < 0) throw FileError(path, "write", errno);
  try {
    writeAll(fd.get(), bytes.data(), bytes.size(), path);
    if (::fsync(fd.get()) != 0) throw FileError(path, "write", errno);
    if (fd.close() != 0) throw FileError(path, "write", errno);
  } catch (...) {
    fd.close();
    ::unlink(path.c_str());
    throw;
  }
}

void writeFileAtomically(const std::filesystem::path& path, std::span<const std::byte> bytes,
                         Durability durability) {
  AtomicFileWriter writer(path);
  writer.write(bytes);
  writer.commit(durability);
}

void writeFileAtomically(const std::filesystem::path& path, std::string_view text,
                         Durability durability) {
  writeFileAtomically(path, std::as_bytes(std::span(text.data(), text.size())), durability);
}

void syncFolder(const std::filesystem::path& folder) {
  FileDescriptor fd(::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (fd.get() < 0) throw FileError(folder, "open", errno);
  // Some file systems refuse fsync on folders (EINVAL); the rename has
  // happened and there is nothing better to do there.
  if (::fsync(fd.get()) != 0 && errno != EINVAL && errno != EROFS)
    throw FileError(folder, "write", errno);
}

}  // namespace tarnbloom
