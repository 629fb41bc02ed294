#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <variant>

#include "agent/agent_protocol.h"
#include "agent/agent_request.h"
#include "support/error.h"

namespace tarnbloom::agent {

// Why a request file was not taken. description() is the sentence for the
// caller; details() says exactly what was found, for the log.
class AgentInboxFailure : public Error {
 public:
  enum class Kind {
    notFound,
    notRegularFile,
    wrongOwner,
    tooLarge,
    unreadable,
    invalid,
    jobMismatch
  };

  explicit AgentInboxFailure(Kind kind, std::string details = {},
                             std::optional<AgentErrorInfo> decoderError = std::nullopt)
      : m_kind(kind), m_details(std::move(details)), m_decoderError(std::move(decoderError)) {}

  Kind kind() const { return m_kind; }
  std::string description() const override { return std::string(message(m_kind)); }
  std::string details() const override { return m_details; }

  // The error object a rejection carries: invalid_argument with the
  // sentence above, except for a request in another protocol, which is
  // told so (version_mismatch) rather than called invalid.
  AgentErrorInfo errorInfo() const;

  static std::string_view message(Kind kind);

 private:
  Kind m_kind;
  std::string m_details;
  std::optional<AgentErrorInfo> m_decoderError;
};

using AgentInboxLoad = std::variant<AgentRequest, AgentInboxFailure>;

namespace AgentInbox {

// Reads the request for `jobID` from `inboxDirectory` as untrusted input:
// the file is opened without following a link or waiting on a FIFO, and
// every check (a regular file, owned by `effectiveUID`, at most
// AgentProtocol::maxRequestBytes, also while reading) is made on the open
// descriptor, so the file cannot be swapped between check and read. Then
// the document is read strictly (decodeRequest) and its job must be
// `jobID`, in any case. A `jobID` that is not a job id finds no file.
AgentInboxLoad load(std::string_view jobID, const std::filesystem::path& inboxDirectory,
                    uint32_t effectiveUID);

}  // namespace AgentInbox

}  // namespace tarnbloom::agent
