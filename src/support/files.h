#pragma once

#include <unistd.h>

#include <cstddef>
#include <filesystem>
#include <optional>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "support/error.h"

namespace tarnbloom {

// A file-system failure with the path and the system's reason.
class FileError : public Error {
 public:
  FileError(std::filesystem::path path, std::string action, int errnoValue);
  std::string description() const override;
  const std::filesystem::path& path() const { return m_path; }
  int errnoValue() const { return m_errno; }

 private:
  std::filesystem::path m_path;
  std::string m_action;
  int m_errno;
};

// An open file descriptor, closed when it goes.
class FileDescriptor {
 public:
  FileDescriptor() = default;
  explicit FileDescriptor(int fd) : m_fd(fd) {}
  ~FileDescriptor() {
    if (m_fd >= 0) ::close(m_fd);
  }
  FileDescriptor(const FileDescriptor&) = delete;
  FileDescriptor& operator=(const FileDescriptor&) = delete;
  FileDescriptor(FileDescriptor&& other) noexcept : m_fd(other.release()) {}
  FileDescriptor& operator=(FileDescriptor&& other) noexcept {
    if (this != &other) {
      close();
      m_fd = other.release();
    }
    return *this;
  }
  int get() const { return m_fd; }
  explicit operator bool() const { return m_fd >= 0; }
  // The caller owns the descriptor now.
  int release() {
    const int fd = m_fd;
    m_fd = -1;
    return fd;
  }
  // Closes now, so that a failing close (NFS reports write errors there)
  // is seen; returns close()'s result.
  int close() {
    const int fd = m_fd;
    m_fd = -1;
    return fd >= 0 ? ::close(fd) : 0;
  }

 private:
  int m_fd = -1;
};

// Whether anything has this name, a dangling symbolic link included, so
// that a taken name is never treated as free.
bool entryExists(const std::filesystem::path& path);

// Removes a file; true when there was one. Adds the path to `removed` when given.
bool removeFileIfPresent(const std::filesystem::path& path,
                         std::vector<std::filesystem::path>* removed = nullptr);

// Opens a regular file for reading and gives its size; throws FileError
// (EISDIR for a folder, EINVAL for a FIFO, a device or a socket).
std::pair<FileDescriptor, size_t> openRegularFile(const std::filesystem::path& path);

// Reads an open descriptor to its end, in chunks of at most 64 KiB past
// `sizeHint`. Nothing when it holds more than `maxBytes` (a file may grow
// after fstat; a device may never end), so each caller says so in its own
// words. Throws FileError(path, "read", errno).
std::optional<std::vector<std::byte>> readToEnd(int fd, const std::filesystem::path& path,
                                                size_t maxBytes, size_t sizeHint = 0);

// Reads a whole regular file. Refuses more than maxBytes (ENOSPC-free guard
// against a device or a file that grows without end).
std::vector<std::byte> readWholeFile(const std::filesystem::path& path,
                                     size_t maxBytes = size_t{4} << 30);

// A read-only view of a whole file without reading it: pages come in only as
// they are touched, so a header probe of a 50 MB raw file reads kilobytes.
class MappedFile {
 public:
  explicit MappedFile(const std::filesystem::path& path);  // throws FileError
  ~MappedFile();
  MappedFile(const MappedFile&) = delete;
  MappedFile& operator=(const MappedFile&) = delete;
  std::span<const std::byte> bytes() const {
    return {static_cast<const std::byte*>(m_data), m_size};
  }
  // Open for as long as the view: the decoder helper reads headers of
  // library formats through it.
  int fd() const { return m_fd.get(); }

 private:
  FileDescriptor m_fd;
  void* m_data = nullptr;
  size_t m_size = 0;
};

// How far a commit goes: `durable` syncs the file and its folder so the
// new content survives a power cut; `ordered` only renames, which is
// atomic for every other process and survives a crash of this one.
enum class Durability { durable, ordered };

// Writes a file so that readers see either the old content or the new, never
// a mixture: a temporary file in the same folder, fsync, rename over the
// target, fsync of the folder. Destroying the writer without commit() removes
// the temporary file.
class AtomicFileWriter {
 public:
  // `mode` (before the umask) is the published file's: the temporary file is
  // created with it, so private content is never readable by others.
  explicit AtomicFileWriter(std::filesystem::path target, mode_t mode = 0644);
  ~AtomicFileWriter();
  AtomicFileWriter(const AtomicFileWriter&) = delete;
  AtomicFileWriter& operator=(const AtomicFileWriter&) = delete;

  void write(std::span<const std::byte> bytes);
  void write(std::string_view text);
  void commit(Durability durability);
  void commit() { commit(Durability::durable); }
  // Publishes only if nothing exists at the target yet; false (and the
  // temporary file kept for another try) when something does.
  bool commitWithoutReplacing();
  // Moves the publication to another name before committing.
  void retarget(std::filesystem::path target) { m_target = std::move(target); }
  void cancel();

  const std::filesystem::path& temporaryPath() const { return m_temporary; }

 private:
  std::filesystem::path m_target;
  std::filesystem::path m_temporary;
  int m_fd = -1;
};

// Creates `path`, which must not exist yet, writes all of `bytes` and syncs
// it. On any failure the file is removed and FileError thrown, so a file
// under this name is always whole.
void writeNewFile(const std::filesystem::path& path, std::span<const std::byte> bytes);

void writeFileAtomically(const std::filesystem::path& path, std::span<const std::byte> bytes,
                         Durability durability = Durability::durable);
void writeFileAtomically(const std::filesystem::path& path, std::string_view text,
                         Durability durability = Durability::durable);

// fsync of a folder, so that a rename or a new entry in it survives a crash.
void syncFolder(const std::filesystem::path& folder);

}  // namespace tarnbloom
