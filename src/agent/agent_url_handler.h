#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <string_view>

#include "agent/agent_protocol.h"
#include "agent/agent_request.h"
#include "agent/agent_result.h"
#include "agent/agent_url.h"
#include "support/iso_time.h"

namespace tarnbloom::agent {

// The commands answered at once with a finished document instead of
// running as a job: "recipe_list", "status" and "doctor".
namespace AgentInfoCommands {
bool handles(AgentCommand command);
}

// The error a request gets before the user has run Tarnbloom once.
AgentErrorInfo onboardingIncompleteError();

// A "rejected" result document: the error, the request's command and
// settings when the request could be read, the answering application, and
// `now` as start, finish and update time. No items.
AgentResult makeRejectedResult(const std::string& jobID, const std::optional<AgentRequest>& request,
                               const AgentErrorInfo& error, const AgentAppInfo& app, WallTime now);

// What happens when another program opens an agent URL. It decides only
// whether a request may run, and hands it on; the job service behind the
// dependencies runs it and writes its documents. Runs on the owner's
// thread and never throws: a failure is logged, and told to the caller
// whenever the caller can be told.
class AgentURLHandler {
 public:
  struct Dependencies {
    std::filesystem::path inboxDirectory;
    uint32_t effectiveUID = 0;
    std::function<bool()> onboardingDone;
    // Whether the outbox holds a document for the job, running or final.
    std::function<bool(const std::string& jobID)> outboxExists;
    // Runs "enlarge", "recipe_run" and "cancel" requests; `completion`
    // gets the final document. `launchedForWork`: quit once idle after.
    std::function<void(const AgentRequest& request, bool launchedForWork,
                       std::function<void(const AgentResult&)> completion)>
        submit;
    // False when no such job runs.
    std::function<bool(const std::string& jobID)> cancel;
    // Writes a "rejected" document (makeRejectedResult) into the outbox.
    std::function<void(const std::string& jobID, const std::optional<AgentRequest>& request,
                       AgentErrorCode code, const std::string& message)>
        reject;
    // Each submitted job's final document, once it ends. Optional.
    std::function<void(const AgentResult&)> notify;
    // Quits when no job runs; called after a URL that launched the
    // application has been dealt with without starting a job. Optional.
    std::function<void()> quitIfIdle;
    std::function<void(const std::string& text)> log;
    // Writes the finished document of "recipe_list", "status", "doctor".
    // Optional: without it those commands are refused as internal errors.
    std::function<void(const AgentRequest& request)> answerInfo;
    // The clock the request's age is judged by.
    std::function<WallTime()> now;
  };

  explicit AgentURLHandler(Dependencies dependencies);

  // `launchedForWork`: the URL is what started the application.
  void handle(const AgentURL::Route& route, bool launchedForWork);
  // Parses `url` (scheme AgentURL::kScheme) and handles its route; a URL
  // that names no route is only logged.
  void handleURL(std::string_view url, bool launchedForWork);

 private:
  void run(const std::string& jobID, bool launchedForWork);
  void cancel(const std::string& jobID, bool launchedForWork);
  // False when the request was refused (and the refusal reported).
  bool admit(const std::string& jobID, const AgentRequest& request);
  void rejectJob(const std::string& jobID, const std::optional<AgentRequest>& request,
                 const AgentErrorInfo& error, const std::string& details = {});
  void submitJob(const std::string& jobID, const AgentRequest& request, bool launchedForWork);
  void finishWithoutJob(bool launchedForWork);
  void log(const std::string& text) const;

  Dependencies m_deps;
  // Jobs handed to submit that have no outbox document yet, by
  // AgentPaths::jobKey; shared with their completions, which may outlive
  // the handler.
  std::shared_ptr<std::set<std::string>> m_submitted = std::make_shared<std::set<std::string>>();
};

}  // namespace tarnbloom::agent
