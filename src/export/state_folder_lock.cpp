#include "export/state_folder_lock.h"

#include <fcntl.h>
#include <sys/file.h>

#include <cerrno>
#include <system_error>

#include "support/error.h"

namespace tarnbloom::exporting {

StateFolderLock::StateFolderLock(const std::filesystem::path& stateFolder,
                                 const std::function<void()>& onWait) {
  std::error_code error;
  std::filesystem::create_directories(stateFolder, error);
  const auto lock = stateFolder / "export-queue.lock";
  m_fd = FileDescriptor(::open(lock.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644));
  if (!m_fd) throw FileError(lock, "open", errno);
  if (::flock(m_fd.get(), LOCK_EX | LOCK_NB) == 0) return;
  if (onWait) onWait();
  while (::flock(m_fd.get(), LOCK_EX) != 0)
    if (errno != EINTR) throw FileError(lock, "lock", errno);
}

}  // namespace tarnbloom::exporting
