#include "agent/agent_file_store.h"

#include <sys/stat.h>

#include <cerrno>

namespace tarnbloom::agent::AgentFileStore {
namespace {

constexpr mode_t kFolderMode = 0700;
constexpr mode_t kFileMode = 0600;

// Fails unless `info` is a real folder (a link is refused only for the
// folder asked for; the folders above it are the user's to arrange).
void requireFolder(const std::filesystem::path& folder, const struct stat& info) {
  if (S_ISLNK(info.st_mode)) throw FileError(folder, "create", ELOOP);
  if (!S_ISDIR(info.st_mode)) throw FileError(folder, "create", ENOTDIR);
}

bool statFolder(const std::filesystem::path& folder, bool isTarget, struct stat& info) {
  const int status = isTarget ? ::lstat(folder.c_str(), &info) : ::stat(folder.c_str(), &info);
  if (status == 0) return true;
  if (errno != ENOENT) throw FileError(folder, "create", errno);
  return false;
}

void makeFolder(const std::filesystem::path& folder, bool isTarget) {
  struct stat info {};
  if (statFolder(folder, isTarget, info)) return requireFolder(folder, info);
  const std::filesystem::path parent = folder.parent_path();
  if (!parent.empty() && parent != folder) makeFolder(parent, false);
  if (::mkdir(folder.c_str(), kFolderMode) == 0) return;
  const int error = errno;
  if (error != EEXIST) throw FileError(folder, "create", error);
  // Someone else made it in between: it must still be a folder.
  if (!statFolder(folder, isTarget, info)) throw FileError(folder, "create", ENOENT);
  requireFolder(folder, info);
}

}  // namespace

void ensureDirectory(const std::filesystem::path& path) {
  std::filesystem::path folder = path.lexically_normal();
  // "a/b/" names "a/b".
  if (folder.filename().empty() && folder.has_relative_path()) folder = folder.parent_path();
  if (folder.empty()) throw FileError(path, "create", ENOENT);
  makeFolder(folder, true);
}

void writeAtomically(std::span<const std::byte> bytes, const std::filesystem::path& path,
                     Durability durability) {
  AtomicFileWriter writer(path, kFileMode);
  writer.write(bytes);
  writer.commit(durability);
}

void writeAtomically(std::string_view text, const std::filesystem::path& path,
                     Durability durability) {
  writeAtomically(std::as_bytes(std::span(text.data(), text.size())), path, durability);
}

}  // namespace tarnbloom::agent::AgentFileStore
