#include "support/sealed_bytes.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <utility>

namespace tarnbloom {

namespace {

// A memory file of `size` bytes mapped for writing; throws FileError.
std::pair<FileDescriptor, void*> createWritable(size_t size, const std::filesystem::path& name) {
  FileDescriptor fd(::memfd_create("tarnbloom-source", MFD_CLOEXEC | MFD_ALLOW_SEALING));
  if (!fd) throw FileError(name, "read", errno);
  if (::ftruncate(fd.get(), static_cast<off_t>(size)) != 0) throw FileError(name, "read", errno);
  if (size == 0) return {std::move(fd), nullptr};
  void* map = ::mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, fd.get(), 0);
  if (map == MAP_FAILED) throw FileError(name, "read", errno);
  return {std::move(fd), map};
}

}  // namespace

SealedBytes::~SealedBytes() {
  if (m_data) ::munmap(m_data, m_size);
}

SealedBytes::SealedBytes(SealedBytes&& other) noexcept
    : m_fd(std::move(other.m_fd)),
      m_data(std::exchange(other.m_data, nullptr)),
      m_size(std::exchange(other.m_size, 0)) {}

SealedBytes& SealedBytes::operator=(SealedBytes&& other) noexcept {
  if (this != &other) {
    if (m_data) ::munmap(m_data, m_size);
    m_fd = std::move(other.m_fd);
    m_data = std::exchange(other.m_data, nullptr);
    m_size = std::exchange(other.m_size, 0);
  }
  return *this;
}

SealedBytes SealedBytes::readFile(const std::filesystem::path& path, size_t maxBytes) {
  const auto [file, size] = openRegularFile(path);
  if (size > maxBytes) throw FileError(path, "read", EFBIG);
  SealedBytes sealed;
  auto [fd, map] = createWritable(size, path);
  sealed.m_fd = std::move(fd);
  sealed.m_size = size;
  size_t filled = 0;
  try {
    while (filled < size) {
      const ssize_t got = ::read(file.get(), static_cast<char*>(map) + filled, size - filled);
      if (got < 0) {
        if (errno == EINTR) continue;
        throw FileError(path, "read", errno);
      }
      if (got == 0) break;  // the file shrank since fstat
      filled += static_cast<size_t>(got);
    }
  } catch (...) {
    if (map) ::munmap(map, size);
    throw;
  }
  if (filled < size) {
    ::munmap(map, size);
    map = nullptr;
    if (::ftruncate(sealed.m_fd.get(), static_cast<off_t>(filled)) != 0)
      throw FileError(path, "read", errno);
    sealed.m_size = filled;
    if (filled) {
      map = ::mmap(nullptr, filled, PROT_READ | PROT_WRITE, MAP_SHARED, sealed.m_fd.get(), 0);
      if (map == MAP_FAILED) throw FileError(path, "read", errno);
    }
  }
  sealed.seal(map, path);
  return sealed;
}

SealedBytes SealedBytes::copyOf(std::span<const std::byte> bytes,
                                const std::filesystem::path& name) {
  SealedBytes sealed;
  auto [fd, map] = createWritable(bytes.size(), name);
  sealed.m_fd = std::move(fd);
  sealed.m_size = bytes.size();
  if (map) std::memcpy(map, bytes.data(), bytes.size());
  sealed.seal(map, name);
  return sealed;
}

void SealedBytes::seal(void* writable, const std::filesystem::path& name) {
  // A write seal is refused while a writable shared mapping exists.
  if (writable) ::munmap(writable, m_size);
  if (::fcntl(m_fd.get(), F_ADD_SEALS, F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_WRITE | F_SEAL_SEAL) !=
      0)
    throw FileError(name, "read", errno);
  if (m_size == 0) return;
  void* map = ::mmap(nullptr, m_size, PROT_READ, MAP_SHARED, m_fd.get(), 0);
  if (map == MAP_FAILED) throw FileError(name, "read", errno);
  m_data = map;
}

}  // namespace tarnbloom
