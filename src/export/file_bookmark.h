#pragma once

#include <filesystem>
#include <optional>
#include <string>

namespace tarnbloom::exporting {

// A remembered file or folder: its absolute path and identity (device,
// inode, size, modification time), stored as base64 text in the queue
// file. A file renamed within its folder is found again by its identity.
class FileBookmark {
 public:
  // Throws FileError when the file cannot be examined.
  static std::string create(const std::filesystem::path& path);
  // The current place of the bookmarked file; none when it is gone or the
  // data cannot be read. `stale` is set when the place changed, so the
  // caller can store fresh data.
  static std::optional<std::filesystem::path> resolve(const std::string& data,
                                                      bool* stale = nullptr);
  // The path recorded in the data, whether or not it still exists.
  static std::optional<std::filesystem::path> recordedPath(const std::string& data);
};

}  // namespace tarnbloom::exporting
