#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <thread>
#include <vector>

#include "encoding/export_format.h"
#include "engine/resample_method.h"
#include "export/export_operation_ledger.h"
#include "export/export_options.h"
#include "export/export_queue_store.h"
#include "support/event_loop.h"

namespace tarnbloom::exporting {

// Naming for a folder run.
struct FolderBatchNaming {
  std::filesystem::path output;
  std::string templ;
  std::string sku;
  std::optional<std::string> exportDate;
};

struct JobReport;

// Callbacks of an automation submission.
struct AgentSubmission {
  // Assigned outputs replace files already at those paths.
  bool replaceExisting = false;
  std::function<void(const std::string& jobID, const std::vector<std::string>& itemIDs)> onQueued;
  std::function<void(const JobReport&)> onReport;
  std::function<void(const Error&)> onRejected;
};

// How one item ended.
struct Result {
  enum class Kind { exported, failed, skipped, stopped };
  Kind kind = Kind::failed;
  std::filesystem::path source;
  std::optional<std::filesystem::path> output;
  std::optional<std::filesystem::path> receipt;
  std::string errorText;  // description, then the recovery suggestion
  std::string errorDetails;  // what lay underneath, when known
  bool floorHit = false;
  std::vector<std::string> advisories;
  int64_t width = 0, height = 0;
  std::optional<encoding::ExportFormat> format;
  ResampleMethod method = ResampleMethod::exact;
  std::optional<int> jpegQuality;  // the quality a JPEG was written at
  // Seconds per compute stage ("load", "linearise", "render", "encode").
  std::map<std::string, double> timings;
};

struct JobReport {
  std::vector<Result> results;
  bool stopped = false;
  std::optional<std::string> halt;
  std::vector<std::filesystem::path> declined;  // not run after a stop or halt
  int deferred = 0;
};

struct JobOutcome {
  int exported = 0;
  int failed = 0;
  int skippedInRun = 0;
  int deferred = 0;
  bool usedEnhance = false;
  bool operator==(const JobOutcome&) const = default;
  JobOutcome& operator+=(const JobOutcome& other);
  static JobOutcome of(const JobReport& report);
};

struct JobItem {
  std::string id;
  std::filesystem::path url;
  std::filesystem::path destination;
  int64_t batchIndex = 1;
  std::optional<std::filesystem::path> assignedOutput;
  std::optional<std::string> operationID;
  std::optional<std::pair<int64_t, int64_t>> plannedSize;
  // Set when the stored item could not be found again: it fails at once.
  std::optional<std::string> unavailable;
};

struct Job {
  std::string id;
  std::vector<JobItem> items;
  ExportOptions options;
  bool fromFinder = false;
  bool quitWhenDone = false;
  std::optional<FolderBatchNaming> folderBatch;
  // Runs without the export queue: nothing is saved or retried.
  bool oneRunOnly = false;
  int deferredCount = 0;
  std::function<void(const JobOutcome&)> onFinished;
  std::optional<AgentSubmission> agent;
  // A person confirmed reducing 16-bit sources to 8-bit formats.
  bool confirmed16BitReduction = false;
  bool receiptsBesideExports = false;
  bool replaceExisting() const { return agent && agent->replaceExisting; }
};

// Everything a route hands over to export some files.
struct Submission {
  std::vector<std::filesystem::path> urls;
  // The output folder of each file (one for all when it has one entry).
  std::vector<std::filesystem::path> destinations;
  ExportOptions options;
  bool fromFinder = false;
  bool quitWhenDone = false;
  std::optional<FolderBatchNaming> folderBatch;
  std::vector<std::optional<std::filesystem::path>> assignedOutputs;
  std::vector<std::optional<std::pair<int64_t, int64_t>>> plannedSizes;
  std::optional<AgentSubmission> agent;
  std::function<void(const JobOutcome&)> onFinished;
  bool receiptsBesideExports = false;
  bool confirmed16BitReduction = false;
  int deferredCount = 0;
};

// What the progress window is told, always on the event loop.
struct ExportObserver {
  std::function<void(const Job&, size_t index, size_t total)> itemStarted;
  // Fraction of the current item's render, 0...1.
  std::function<void(double fraction)> itemProgress;
  std::function<void(const Job&, const Result&)> itemFinished;
  std::function<void(const std::string& status)> status;
  std::function<void(const Job&, const JobReport&, const JobOutcome&)> jobFinished;
};

// Platform operations an export goes through; tests replace them to
// provoke faults they cannot otherwise cause.
struct ExportDependencies {
  // Writes a whole staging file, synced, or throws FileError.
  std::function<void(const std::filesystem::path&, std::span<const uint8_t>)> writeStaged;
  ExportInterruptionHooks hooks;
  std::string appVersion = "0";
  std::string appBuild = "0";
};

// The single owner of running exports: a first-in, first-out queue of
// jobs, one item at a time on a worker thread, bookkeeping on the event
// loop. Every route that exports ends here.
class ExportController {
 public:
  ExportController(EventLoop& loop, ExportQueueStore& queue, ExportOperationLedger& ledger,
                   ExportDependencies dependencies = {});
  ~ExportController();
  ExportController(const ExportController&) = delete;
  ExportController& operator=(const ExportController&) = delete;

  // Records the job in the queue file and starts it when idle. When the
  // queue cannot be saved, `storageFailurePolicy` decides whether the job
  // runs once without it; otherwise the error is thrown (and given to
  // agent.onRejected). Returns the job id. Call on the loop.
  std::string submit(Submission submission);
  // Runs the unfinished items of a stored job again (after recovery).
  std::string resume(const PersistedExportJob& job);
  // Runs failed or stopped items again with their stored options; items
  // in other states are left alone. Returns the id of the last job started,
  // empty when nothing was retried. Throws ExportQueueError.
  std::string retry(const std::vector<std::string>& itemIDs);

  // Stops after the current step; the remaining items are marked stopped.
  void requestStop();
  bool busy() const { return m_active != nullptr; }
  bool idle() const { return !busy(); }
  const Job* activeJob() const { return m_active.get(); }

  void setObserver(ExportObserver observer) { m_observer = std::move(observer); }
  // Given the save error and the number of files; true runs the job
  // without the queue. Unset: never.
  std::function<bool(const ExportQueueError&, size_t fileCount)> storageFailurePolicy;

  // The worker's part of marking an item done: the record "published"
  // (then the interruption hook). The loop then marks the queue
  // "completed" and clears the record. Throws when the record cannot be
  // advanced.
  void recordCompletion(ExportOperationRecord& record);

 private:
  struct ItemRun;
  void enqueueJob(std::unique_ptr<Job> job);
  void pump();
  // On the worker: every item of the job through both stages.
  void runJob(const Job& job);
  void renderStage(const Job& job, const JobItem& item, ItemRun& run);
  void runRender(const Job& job, const JobItem& item, ItemRun& run);
  // On the publisher: the staging file, the pair, and the bookkeeping.
  void publishStage(const Job& job, const JobItem& item, ItemRun& run);
  void runPublish(const Job& job, const JobItem& item, ItemRun& run);
  void finishPublishing();
  void throwIfStopped() const;
  // After the queue file was saved: the records of the completions it now
  // holds go.
  void clearSavedCompletions();
  void finishJob(size_t started);
  std::filesystem::path chooseOutput(const Job& job, const JobItem& item, const SourceImage& facts,
                                     int64_t width, int64_t height, encoding::ExportFormat format);
  void markOnLoop(const Job& job, const JobItem& item, ExportQueueItemState state,
                  std::optional<std::string> output = std::nullopt,
                  std::optional<std::string> error = std::nullopt);

  EventLoop& m_loop;
  ExportQueueStore& m_queue;
  ExportOperationLedger& m_ledger;
  ExportDependencies m_dependencies;
  ExportObserver m_observer;

  std::deque<std::unique_ptr<Job>> m_waiting;
  std::unique_ptr<Job> m_active;
  JobReport m_report;  // on the loop
  std::atomic<bool> m_stop{false};
  // Set by the publisher when an exported file could not be recorded; the
  // items after it give up before they write anything.
  std::atomic<bool> m_halted{false};
  std::string m_haltText;  // under m_pipelineMutex
  // Set when an interruption hook simulated a crash.
  std::atomic<bool> m_interruptedFlag{false};
  bool m_interrupted = false;  // on the loop
  // Completed in the queue's memory, not yet saved; their records stay
  // until a save (on the loop).
  std::vector<std::string> m_unsavedCompletions;
  std::mutex m_pipelineMutex;
  std::condition_variable m_pipelineWake;
  size_t m_published = 0;  // items the publisher is done with, this job
  // Declared last: destroyed first, so no task outlives the members above.
  SerialWorker m_publisher;
  SerialWorker m_worker;
};

}  // namespace tarnbloom::exporting
