#pragma once

#include <chrono>
#include <filesystem>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "agent/agent_job_link.h"
#include "agent/agent_request.h"
#include "agent/agent_request_resolver.h"
#include "agent/agent_result.h"
#include "export/export_controller.h"
#include "export/export_job.h"
#include "export/export_queue_store.h"
#include "support/iso_time.h"

namespace tarnbloom::agent {

// The job service's way into the export controller.
struct AgentExportBackend {
  // Queues a submission; returns the export-queue job id. Throws what the
  // controller throws when it refuses it.
  std::function<std::string(exporting::Submission)> submit;
  // Cancels an export-queue job; false when it is not waiting or running.
  std::function<bool(const std::string& queueJobID)> cancel;

  static AgentExportBackend live(exporting::ExportController& controller);
};

// Runs accepted agent jobs through the export controller, keeps each job's
// result document in the outbox current, and links agent jobs to queue
// jobs so that an instance started after a crash can tell what happened.
// Everything runs on the owner's thread.
class AgentJobService {
 public:
  struct Configuration {
    AgentAppInfo app;
    std::filesystem::path stateFolder;
    std::filesystem::path receiptsFolder;  // the export context's
    std::function<WallTime()> now;
    AgentExportBackend backend;
    std::function<AgentRequestResolver::Environment()> makeResolverEnvironment;
    // Runs `task` once on the owner's thread after `delay`.
    std::function<void(std::chrono::milliseconds delay, std::function<void()> task)> startTimer;
    // A job reached its final document (the user notification, if asked).
    std::function<void(const AgentResult&)> postFinished;
    std::function<void(const std::string&)> log;
  };

  explicit AgentJobService(Configuration configuration);
  ~AgentJobService();

  // "enlarge", "recipe_run" and "cancel". `completion` gets the final
  // document.
  void submit(const AgentRequest& request, bool quitWhenDone,
              std::function<void(const AgentResult&)> completion);
  // False when no such job is running here.
  bool cancel(const std::string& jobID);
  std::optional<AgentResult> status(const std::string& jobID) const;
  bool hasOutbox(const std::string& jobID) const;
  void reject(const std::string& jobID, const std::optional<AgentRequest>& request,
              AgentErrorCode code, const std::string& message);
  // "recipe_list", "status", "doctor": a finished document at once.
  void answerInfo(const AgentRequest& request);
  // Removes inbox, outbox and state files older than a day, except those
  // of running jobs; returns how many went.
  size_t collectGarbage();
  // The controller's events, as its host forwards them.
  void apply(const exporting::ExportEvent& event);
  // Finishes the documents of jobs a previous instance left "running",
  // from their links and the recovered export queue.
  void reconcileInterrupted(const exporting::ExportQueueStore& queue);
  bool idle() const { return m_jobs.empty(); }

  // Rebuilds an interrupted job's result from its link and the queue.
  // `queueItem` finds a stored item by id; `receiptPath` an output's
  // receipt. With `forceCancel`, unfinished items end cancelled.
  static AgentResult reconcile(
      AgentResult result, const AgentJobLink& link,
      const std::function<const exporting::PersistedExportItem*(const std::string&)>& queueItem,
      WallTime now, const std::function<bool(const std::filesystem::path&)>& fileExists,
      const std::function<std::optional<std::filesystem::path>(const std::filesystem::path&)>&
          receiptPath,
      bool forceCancel);

 private:
  struct Tracked;

  void start(const AgentRequest& request, AgentResolvedPlan plan, bool quitWhenDone,
             std::function<void(const AgentResult&)> completion);
  void submitUnits(const std::string& key);
  void heartbeat(const std::string& key, uint64_t generation);
  void onItemStarted(const exporting::Job& job, size_t index);
  void onItemProgress(const exporting::Job& job, size_t index, double fraction);
  void onItemFinished(const exporting::Job& job, size_t index, const exporting::Result& result);
  void onJobFinished(const exporting::Job& job, const exporting::JobReport& report);
  // The tracked job and the row of a controller item, when it is ours.
  std::pair<Tracked*, AgentItem*> rowOf(const exporting::Job& job, size_t index);
  void refresh(Tracked& tracked);
  void finishIfDone(const std::string& key);
  void writeResult(const AgentResult& result, bool durable);
  void writeLink(const std::string& jobID, const AgentJobLink& link);
  AgentResult baseResult(const std::string& jobID,
                         const std::optional<AgentRequest>& request) const;

  Configuration m_config;
  std::map<std::string, std::unique_ptr<Tracked>> m_jobs;  // by AgentPaths::jobKey
  // Export-queue job id → (agent job key, unit).
  std::map<std::string, std::pair<std::string, size_t>> m_queueJobs;
};

// The final state of a job whose items have all ended.
AgentResultState finalState(const AgentCounts& counts, bool cancelled);

}  // namespace tarnbloom::agent
