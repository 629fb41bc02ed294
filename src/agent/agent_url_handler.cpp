#include "agent/agent_url_handler.h"

#include <variant>

#include "agent/agent_inbox.h"
#include "agent/agent_paths.h"

namespace tarnbloom::agent {

bool AgentInfoCommands::handles(AgentCommand command) {
  return command == AgentCommand::recipeList || command == AgentCommand::status ||
         command == AgentCommand::doctor;
}

AgentErrorInfo onboardingIncompleteError() {
  return {AgentErrorCode::onboardingIncomplete, "Open Tarnbloom once to finish setup."};
}

AgentResult makeRejectedResult(const std::string& jobID, const std::optional<AgentRequest>& request,
                               const AgentErrorInfo& error, const AgentAppInfo& app, WallTime now) {
  AgentResult result;
  result.job = jobID;
  result.state = AgentResultState::rejected;
  result.app = app;
  result.startedAt = now;
  result.finishedAt = now;
  result.updatedAt = now;
  if (request) {
    result.request = AgentResultRequest::echoing(*request);
    result.dryRun = request->dryRun;
  }
  result.error = error;
  return result;
}

AgentURLHandler::AgentURLHandler(Dependencies dependencies) : m_deps(std::move(dependencies)) {}

void AgentURLHandler::handleURL(std::string_view url, bool launchedForWork) {
  const auto route = AgentURL::parse(url, AgentURL::kScheme);
  if (!route) {
    // The text itself is not logged: it came from anywhere and may be
    // long or hold anything.
    log("ignored an agent URL with a missing or invalid job id");
    finishWithoutJob(launchedForWork);
    return;
  }
  handle(*route, launchedForWork);
}

void AgentURLHandler::handle(const AgentURL::Route& route, bool launchedForWork) {
  // Opening a URL is the boundary: whatever a dependency throws (a full
  // disk while rejecting, say) ends here in the log, not in the caller.
  try {
    if (route.kind == AgentURL::Route::Kind::run)
      run(route.jobID, launchedForWork);
    else
      cancel(route.jobID, launchedForWork);
  } catch (const Error& error) {
    const std::string details = error.details();
    log("agent job " + route.jobID + " failed: " + error.description() +
        (details.empty() ? "" : " (" + details + ")"));
    finishWithoutJob(launchedForWork);
  } catch (const std::exception& error) {
    log("agent job " + route.jobID + " failed: " + error.what());
    finishWithoutJob(launchedForWork);
  }
}

void AgentURLHandler::run(const std::string& jobID, bool launchedForWork) {
  if (m_deps.outboxExists(jobID)) {
    log("job " + jobID + " already has an outbox document; ignoring the repeat");
    finishWithoutJob(launchedForWork);
    return;
  }
  // Handed over but not yet written: a repeat in that window would start
  // the job a second time.
  if (m_submitted->contains(AgentPaths::jobKey(jobID))) {
    log("job " + jobID + " is already running; ignoring the repeat");
    finishWithoutJob(launchedForWork);
    return;
  }
  if (!m_deps.onboardingDone()) {
    rejectJob(jobID, std::nullopt, onboardingIncompleteError());
    finishWithoutJob(launchedForWork);
    return;
  }

  AgentInboxLoad loaded = AgentInbox::load(jobID, m_deps.inboxDirectory, m_deps.effectiveUID);
  if (const auto* failure = std::get_if<AgentInboxFailure>(&loaded)) {
    // Without a request file there is nobody waiting to be told.
    if (failure->kind() == AgentInboxFailure::Kind::notFound)
      log("no inbox file for job " + jobID);
    else
      rejectJob(jobID, std::nullopt, failure->errorInfo(), failure->details());
    finishWithoutJob(launchedForWork);
    return;
  }
  AgentRequest request = std::move(std::get<AgentRequest>(loaded));
  // The ids are equal but for case; every document of the job is named as
  // the URL spells it, which is where the caller looks.
  request.job = jobID;

  if (!admit(jobID, request)) {
    finishWithoutJob(launchedForWork);
    return;
  }
  if (AgentInfoCommands::handles(request.command)) {
    if (m_deps.answerInfo)
      m_deps.answerInfo(request);
    else
      rejectJob(jobID, request, AgentErrorInfo::generic(AgentErrorCode::internal),
                "no information service");
    finishWithoutJob(launchedForWork);
    return;
  }
  submitJob(jobID, request, launchedForWork);
}

bool AgentURLHandler::admit(const std::string& jobID, const AgentRequest& request) {
  try {
    validateRequestHeader(request, m_deps.now());
  } catch (const AgentProtocolError& error) {
    rejectJob(jobID, request, error.info(), error.details());
    return false;
  }
  return true;
}

void AgentURLHandler::submitJob(const std::string& jobID, const AgentRequest& request,
                                bool launchedForWork) {
  const std::string key = AgentPaths::jobKey(jobID);
  m_submitted->insert(key);
  auto completion = [submitted = m_submitted, key,
                     notify = m_deps.notify](const AgentResult& result) {
    submitted->erase(key);
    if (notify) notify(result);
  };
  try {
    m_deps.submit(request, launchedForWork, std::move(completion));
  } catch (...) {
    m_submitted->erase(key);
    throw;
  }
  // Once the job has its document, that document turns repeats away.
  if (m_deps.outboxExists(jobID)) m_submitted->erase(key);
}

void AgentURLHandler::cancel(const std::string& jobID, bool launchedForWork) {
  if (!m_deps.cancel(jobID)) log("cancel for unknown job " + jobID);
  finishWithoutJob(launchedForWork);
}

void AgentURLHandler::rejectJob(const std::string& jobID,
                                const std::optional<AgentRequest>& request,
                                const AgentErrorInfo& error, const std::string& details) {
  log("job " + jobID + " rejected: " + error.message +
      (details.empty() ? "" : " (" + details + ")"));
  m_deps.reject(jobID, request, error.code, error.message);
}

void AgentURLHandler::finishWithoutJob(bool launchedForWork) {
  if (launchedForWork && m_deps.quitIfIdle) m_deps.quitIfIdle();
}

void AgentURLHandler::log(const std::string& text) const {
  if (m_deps.log) m_deps.log(text);
}

}  // namespace tarnbloom::agent
