#include "export/file_bookmark.h"

#include <sys/stat.h>

#include <cerrno>
#include <nlohmann/json.hpp>

#include "support/base64.h"
#include "support/files.h"

namespace tarnbloom::exporting {

namespace fs = std::filesystem;

namespace {

struct Identity {
  std::string path;
  uint64_t device = 0, inode = 0;
};

std::optional<Identity> decode(const std::string& data) {
  const auto text = base64Decode(data);
  if (!text) return std::nullopt;
  const auto json = nlohmann::json::parse(*text, nullptr, false);
  if (!json.is_object()) return std::nullopt;
  const auto path = json.find("path");
  const auto device = json.find("device");
  const auto inode = json.find("inode");
  if (path == json.end() || !path->is_string() || device == json.end() ||
      !device->is_number_unsigned() || inode == json.end() || !inode->is_number_unsigned())
    return std::nullopt;
  return Identity{path->get<std::string>(), device->get<uint64_t>(), inode->get<uint64_t>()};
}

bool sameFile(const struct stat& info, const Identity& identity) {
  return info.st_dev == identity.device && info.st_ino == identity.inode;
}

}  // namespace

std::string FileBookmark::create(const fs::path& path) {
  const fs::path absolute = fs::absolute(path).lexically_normal();
  struct stat info {};
  if (::stat(absolute.c_str(), &info) != 0) throw FileError(absolute, "read", errno);
  const nlohmann::json json = {
      {"path", absolute.string()},
      {"device", static_cast<uint64_t>(info.st_dev)},
      {"inode", static_cast<uint64_t>(info.st_ino)},
      {"size", static_cast<int64_t>(info.st_size)},
      {"modified", static_cast<int64_t>(info.st_mtim.tv_sec)},
  };
  try {
    return base64Encode(json.dump());
  } catch (const nlohmann::json::exception&) {
    throw FileError(absolute, "remember", EILSEQ);  // a name that is not UTF-8
  }
}

std::optional<fs::path> FileBookmark::resolve(const std::string& data, bool* stale) {
  if (stale) *stale = false;
  const auto identity = decode(data);
  if (!identity) return std::nullopt;
  struct stat info {};
  // A file replaced in place (an editor's atomic save) is still the file
  // the user chose.
  if (::stat(identity->path.c_str(), &info) == 0) return fs::path(identity->path);
  const fs::path recorded(identity->path);
  std::error_code error;
  for (fs::directory_iterator it(recorded.parent_path(), error), end; !error && it != end;
       it.increment(error)) {
    if (::stat(it->path().c_str(), &info) == 0 && sameFile(info, *identity)) {
      if (stale) *stale = true;
      return it->path();
    }
  }
  return std::nullopt;
}

std::optional<fs::path> FileBookmark::recordedPath(const std::string& data) {
  const auto identity = decode(data);
  if (!identity) return std::nullopt;
  return fs::path(identity->path);
}

}  // namespace tarnbloom::exporting
