#pragma once

#include <cstddef>
#include <filesystem>
#include <span>
#include <string_view>

#include "support/files.h"

namespace tarnbloom::agent {

// The application's own files in the agent folders. Other programs poll
// these, so each write replaces a whole document or nothing, and only the
// user can read them. Failures throw FileError with the system's reason.
namespace AgentFileStore {

// Creates `path` and any missing folders above it, each 0700. An existing
// `path` must be a real folder: a file there fails with ENOTDIR, and a
// symbolic link with ELOOP, since a link could point the agent's files
// somewhere another user controls.
void ensureDirectory(const std::filesystem::path& path);

// Replaces `path` through a temporary file beside it (the target's name, a
// fresh UUID, ".tmp"), created 0600. `durable` syncs the file and the
// folder, for final documents; a running job's heartbeat rewrites, which a
// crash makes stale anyway, use `ordered`.
void writeAtomically(std::span<const std::byte> bytes, const std::filesystem::path& path,
                     Durability durability = Durability::durable);
void writeAtomically(std::string_view text, const std::filesystem::path& path,
                     Durability durability = Durability::durable);

}  // namespace AgentFileStore

}  // namespace tarnbloom::agent
