#pragma once

#include <chrono>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>

#include "agent/agent_request.h"
#include "agent/agent_result.h"

namespace tarnbloom::agent {

// The caller's side of the automation route, shared by the command-line
// tool and the MCP server: write a request into the inbox, deliver its URL
// to the running instance (starting a headless one when none runs), and
// follow the result document until it ends.
class AgentClient {
 public:
  // `stateFolder`: the instance's state folder (the inbox is under it).
  // `executable`: the program started as `executable service
  // --until-idle` when no instance runs (this program by default).
  explicit AgentClient(std::filesystem::path stateFolder, std::filesystem::path executable = {});

  // Writes the request atomically (0600) into the inbox and delivers
  // tarnbloom://agent?job=ID. Throws AgentProtocolError: appNotFound when
  // no instance could be reached or started, internal when the inbox
  // cannot be written (the system's reason as the message).
  void submit(const AgentRequest& request);
  // Only writes the request into the inbox, for someone to deliver later.
  // Throws AgentProtocolError (internal).
  void write(const AgentRequest& request) const;

  // Delivers tarnbloom://agent-cancel?job=ID. Throws like submit.
  void cancel(const std::string& jobID);
  // Hands any URL to the instance, starting one when none runs. Throws
  // AgentProtocolError (appNotFound) when none answers.
  void deliver(const std::string& url) const;

  // The job's result document as it is now; nothing when there is none
  // yet. A document that cannot be read is taken as not there yet (it is
  // only ever replaced whole).
  std::optional<AgentResult> current(const std::string& jobID) const;

  struct Follow {
    // Called with each new version of the document, running or final.
    std::function<void(const AgentResult&)> onUpdate;
    // Polled while waiting; when it returns true, follow() returns nothing.
    std::function<bool()> stop;
    // None: wait as long as the job runs.
    std::optional<std::chrono::milliseconds> timeout;
  };
  // Waits for the result to reach a final state and returns it. Changes
  // are seen as they happen (inotify on the outbox), never by fixed sleeps.
  // A "running" document whose updated_at is older than
  // AgentProtocol::staleAfter returns as a failed result with error
  // appQuit; a timeout returns a result with error `timeout` (state
  // "running" is then replaced by "failed"). Returns nothing only when
  // `stop` asked for it.
  std::optional<AgentResult> follow(const std::string& jobID, const Follow& follow) const;

  // The exit status for a followed result: its own, or that of the
  // caller's verdict (timeout 6, an abandoned job 5).
  static int exitStatus(const AgentResult& result);

  const std::filesystem::path& stateFolder() const { return m_stateFolder; }

 private:
  std::filesystem::path m_stateFolder;
  std::filesystem::path m_executable;
};

}  // namespace tarnbloom::agent
