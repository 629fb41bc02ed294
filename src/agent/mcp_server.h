#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>

#include "agent/agent_client.h"
#include "agent/agent_request.h"
#include "agent/agent_result.h"
#include "support/error.h"
#include "support/iso_time.h"

// `tarnbloom mcp`: the automation route offered to AI agents as Model
// Context Protocol tools over standard input and output (JSON-RPC 2.0, one
// message per line). Every tool call becomes an ordinary request that
// AgentClient delivers to the running instance, so an agent's export is
// queued, receipted and resumable like any other.
namespace tarnbloom::agent {

namespace Mcp {

// The revision we speak; a client asking for one of `supportedVersions`
// gets that one, any other client this one.
inline constexpr std::string_view latestVersion = "2025-06-18";
inline constexpr std::string_view supportedVersions[] = {"2025-06-18", "2025-03-26", "2024-11-05"};
// Real messages are a few kilobytes; a longer line is refused unread.
inline constexpr size_t maxMessageBytes = size_t{4} << 20;
// Arguments nest three levels; anything deeper is not a message of ours.
inline constexpr int maxNestingDepth = 32;
// Each running call holds a thread; a client that floods us gets refusals.
inline constexpr size_t maxRunningCalls = 32;

}  // namespace Mcp

// A JSON-RPC error answer: the standard code and a sentence for the client.
class McpError : public Error {
 public:
  enum class Code : int {
    parseError = -32700,
    invalidRequest = -32600,
    methodNotFound = -32601,
    invalidParams = -32602,
    internalError = -32603,
  };

  McpError(Code code, std::string message) : m_code(code), m_message(std::move(message)) {}

  Code code() const { return m_code; }
  std::string description() const override { return m_message; }

 private:
  Code m_code;
  std::string m_message;
};

// What a tool call asks for: the request to deliver and whether the call
// waits for the job to end (false: it answers once the job is accepted, and
// the caller follows it with the status tool).
struct McpToolCall {
  AgentRequest request;
  bool wait = true;
};

// One notifications/progress step: items that have ended, of all items.
struct McpProgress {
  int64_t progress = 0;
  int64_t total = 0;
  std::string message;  // "3 of 12 photos"

  bool operator==(const McpProgress&) const = default;
};

// The tools as tools/list lists them: name, title, description, input and
// output schema, annotations.
const nlohmann::ordered_json& mcpToolList();

// The protocol revision to answer an initialize request with, given the
// client's `protocolVersion` value (of any JSON type).
std::string mcpNegotiateVersion(const nlohmann::json& requested);

// The first way `value` breaks `schema`, as a sentence naming the argument
// ("size.mode must be one of …"), or nothing. Knows the keywords our tool
// schemas use; a schema with any other keyword fails every value, so a
// rule can never be published without being enforced.
std::optional<std::string> mcpSchemaViolation(const nlohmann::ordered_json& schema,
                                              const nlohmann::json& value);

// A tools/call's name and arguments as a request with the job id `jobID`
// created at `now`. Throws McpError (invalidParams) for an unknown tool and
// for arguments that fail the tool's input schema or would not make a
// readable request. Rules on values that depend on each other (strength
// only with enhance, quality only for jpeg and webp, a folder needs out)
// are the instance's, which answers with the protocol's own messages.
McpToolCall mcpToolCall(std::string_view tool, const nlohmann::json& arguments, std::string jobID,
                        WallTime now);

// A tools/call result for a result document: the document as
// `structuredContent` and as JSON text, preceded, when `isError`, by a
// text whose first line says why.
nlohmann::ordered_json mcpToolResult(const AgentResult& result, bool isError);
// A tools/call result with no document: the call failed before the
// instance answered (no instance could be started, the inbox could not be
// written).
nlohmann::ordered_json mcpToolFailure(const std::string& message);
// Whether a document is a failure the caller must hear about: rejected,
// failed, partial or cancelled. Running and completed are not.
bool mcpJobFailed(const AgentResult& result);
// One line saying why a job did not complete.
std::string mcpFailureSummary(const AgentResult& result);
// The progress a document shows; nothing for jobs without items.
std::optional<McpProgress> mcpProgress(const AgentResult& result);

// One client's session. Requests are answered on the reading thread, except
// tools/call, which runs on a thread of its own so that ping and
// notifications/cancelled are handled while a job runs.
class McpServer {
 public:
  // `send` gets each outgoing message as one line of JSON without its
  // newline; calls to it never overlap. `version` is the tool's own.
  McpServer(AgentClient& client, std::string version, std::function<void(const std::string&)> send);
  ~McpServer();
  McpServer(const McpServer&) = delete;
  McpServer& operator=(const McpServer&) = delete;

  // One line from the client (without its newline).
  void receive(std::string_view line);
  // A line longer than Mcp::maxMessageBytes was skipped.
  void receiveOversized();
  // The client has gone: running calls stop following their jobs and end
  // without an answer (the jobs keep running in the instance). Waits for
  // their threads.
  void close();

 private:
  struct Call;

  void dispatch(const nlohmann::json& message);
  void handleRequest(const nlohmann::json& id, const std::string& method,
                     const nlohmann::json& params);
  void handleNotification(const std::string& method, const nlohmann::json& params);
  nlohmann::ordered_json initializeResult(const nlohmann::json& params) const;
  void startToolCall(const nlohmann::json& id, const nlohmann::json& params);
  void runCall(Call& call);
  std::optional<nlohmann::ordered_json> performCall(Call& call);
  nlohmann::ordered_json finalToolResult(const Call& call, const AgentResult& result);
  // A call that failed before the instance answered; the details go to the log.
  nlohmann::ordered_json failure(const Error& error);
  void reportProgress(Call& call, const AgentResult& result);
  void cancelJob(const Call& call);
  bool stopping(const Call& call) const;
  void reapFinishedCalls();

  void sendResult(const nlohmann::json& id, const nlohmann::ordered_json& result);
  void sendError(const nlohmann::json& id, McpError::Code code, const std::string& message);
  void sendMessage(const nlohmann::ordered_json& message);
  void log(const std::string& text);

  AgentClient& m_client;
  std::string m_version;
  std::function<void(const std::string&)> m_send;
  std::mutex m_sendMutex;
  std::mutex m_callsMutex;
  // Running calls by their request id's JSON text, so 1 and "1" differ.
  std::map<std::string, std::unique_ptr<Call>> m_calls;
  std::atomic<bool> m_closing{false};
};

// Serves one client reading `inputFd` and writing `outputFd` until the
// input ends, then closes the session.
void serveMcp(int inputFd, int outputFd, AgentClient& client, const std::string& version);

}  // namespace tarnbloom::agent
