#include "agent/agent_inbox.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <vector>

#include "agent/agent_paths.h"
#include "support/files.h"

namespace tarnbloom::agent {
namespace {

using Kind = AgentInboxFailure::Kind;

// A foreign job text goes into the log; a valid id is 36 characters.
constexpr size_t kMaxQuotedJob = 64;

std::string systemReason(int error) { return std::strerror(error); }

std::string fileTypeName(mode_t mode) {
  if (S_ISDIR(mode)) return "a folder";
  if (S_ISFIFO(mode)) return "a FIFO";
  if (S_ISSOCK(mode)) return "a socket";
  if (S_ISCHR(mode) || S_ISBLK(mode)) return "a device";
  return "not a regular file";
}

bool equalJobIDs(std::string_view a, std::string_view b) {
  return AgentPaths::jobKey(a) == AgentPaths::jobKey(b);
}

}  // namespace

std::string_view AgentInboxFailure::message(Kind kind) {
  switch (kind) {
    case Kind::notFound:
      return "No request file was found for this job.";
    case Kind::notRegularFile:
      return "The request file is not a regular file.";
    case Kind::wrongOwner:
      return "The request file is not owned by the current user.";
    case Kind::tooLarge:
      return "The request file is larger than 1 MB.";
    case Kind::unreadable:
      return "The request file could not be read.";
    case Kind::invalid:
      return "The request file is not a valid agent request.";
    case Kind::jobMismatch:
      return "The request file is for a different job.";
  }
  return "The request file could not be read.";
}

AgentErrorInfo AgentInboxFailure::errorInfo() const {
  if (m_decoderError && m_decoderError->code == AgentErrorCode::versionMismatch)
    return *m_decoderError;
  return {AgentErrorCode::invalidArgument, std::string(message(m_kind))};
}

AgentInboxLoad AgentInbox::load(std::string_view jobID, const std::filesystem::path& inboxDirectory,
                                uint32_t effectiveUID) {
  // Only a job id can name a file: nothing from outside reaches another
  // folder, and nothing is written for a URL that carried none.
  if (!AgentProtocol::isValidJobID(jobID)) return AgentInboxFailure(Kind::notFound, "not a job id");
  const std::filesystem::path file = AgentPaths::jobFile(inboxDirectory, jobID);

  // O_NOFOLLOW: a link could make us read a file the caller may not read
  // itself. O_NONBLOCK: a FIFO opens at once instead of waiting for a
  // writer, and is refused below.
  FileDescriptor fd(::open(file.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
  if (!fd) {
    const int error = errno;
    if (error == ELOOP) return AgentInboxFailure(Kind::notRegularFile, "a symbolic link");
    if (error == ENOENT) return AgentInboxFailure(Kind::notFound, file.string());
    return AgentInboxFailure(Kind::unreadable, systemReason(error));
  }

  struct stat info {};
  if (::fstat(fd.get(), &info) != 0)
    return AgentInboxFailure(Kind::unreadable, systemReason(errno));
  if (!S_ISREG(info.st_mode))
    return AgentInboxFailure(Kind::notRegularFile, fileTypeName(info.st_mode));
  if (info.st_uid != effectiveUID)
    return AgentInboxFailure(Kind::wrongOwner, "owned by user " + std::to_string(info.st_uid));
  if (info.st_size < 0 || static_cast<uint64_t>(info.st_size) > AgentProtocol::maxRequestBytes)
    return AgentInboxFailure(Kind::tooLarge, std::to_string(info.st_size) + " bytes");

  std::optional<std::vector<std::byte>> read;
  try {
    // The file may have grown since fstat: reading stops one byte past the
    // limit.
    read = readToEnd(fd.get(), file, AgentProtocol::maxRequestBytes,
                     static_cast<size_t>(info.st_size));
  } catch (const FileError& error) {
    return AgentInboxFailure(Kind::unreadable, systemReason(error.errnoValue()));
  }
  if (!read)
    return AgentInboxFailure(Kind::tooLarge,
                             "more than " + std::to_string(AgentProtocol::maxRequestBytes) + " bytes");
  const auto& bytes = *read;

  AgentRequest request;
  try {
    request = decodeRequest(bytes);
  } catch (const AgentProtocolError& error) {
    const std::string details = error.details().empty() ? error.description() : error.details();
    return AgentInboxFailure(Kind::invalid, details, error.info());
  }
  if (!equalJobIDs(request.job, jobID))
    return AgentInboxFailure(Kind::jobMismatch,
                             "the file is for job " + request.job.substr(0, kMaxQuotedJob));
  return request;
}

}  // namespace tarnbloom::agent
