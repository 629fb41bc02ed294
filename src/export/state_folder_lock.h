#pragma once

#include <filesystem>
#include <functional>

#include "support/files.h"

namespace tarnbloom::exporting {

// One process at a time owns a state folder's export queue and ledger:
// the command-line tool for a command that exports in process, or the
// running instance for as long as it lives.
class StateFolderLock {
 public:
  // Takes the lock, waiting while another process holds it; `onWait` is
  // called once before waiting. Throws FileError.
  explicit StateFolderLock(const std::filesystem::path& stateFolder,
                           const std::function<void()>& onWait = {});

 private:
  FileDescriptor m_fd;
};

}  // namespace tarnbloom::exporting
