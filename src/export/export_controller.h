#pragma once

#include <atomic>
#include <cstdint>
#include <deque>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <set>
#include <span>
#include <string>
#include <variant>
#include <vector>

#include "export/export_context.h"
#include "export/export_job.h"
#include "export/export_operation_ledger.h"
#include "export/export_queue_store.h"
#include "export/export_render.h"
#include "support/executor.h"

namespace tarnbloom::exporting {

// What the controller tells its host, in order, on the owner's thread. The
// pointers are valid during the call only. Each maps onto one progress
// event of the automation protocol and one Qt signal.
namespace events {
struct JobQueued {
  const Job* job;
};
struct ItemStarted {
  const Job* job;
  size_t index;
};
// Fraction of the item's render, 0...1.
struct ItemProgress {
  const Job* job;
  size_t index;
  double fraction;
};
struct ItemFinished {
  const Job* job;
  size_t index;
  const Result* result;
};
struct StopRequested {};  // "Stopping after the current step…"
struct JobFinished {
  const Job* job;
  const JobReport* report;
  JobOutcome outcome;
};
// Nothing more will run until something new is submitted: the queue is
// empty, or held after a stop or a halt.
struct Drained {};
}  // namespace events

using ExportEvent =
    std::variant<events::JobQueued, events::ItemStarted, events::ItemProgress, events::ItemFinished,
                 events::StopRequested, events::JobFinished, events::Drained>;

// Platform operations an export goes through; tests replace them to
// provoke faults they cannot otherwise cause.
struct ExportDependencies {
  // Creates the staging file as the whole encoded file, synced, or throws
  // FileError.
  std::function<void(const std::filesystem::path&, const EncodedExport&)> writeStaged;
  ExportInterruptionHooks hooks;
};

// Where one item is in its life; it only moves forward.
enum class ItemPhase {
  waiting,     // not started
  reading,     // its source loaded and sized (render lane)
  rendering,   // rendered and encoded in memory (render lane) while its
               // name is reserved (owner)
  publishing,  // staging file, receipt, the pair moved into place (publish lane)
  settled,     // its ending recorded in the queue file and reported (owner)
};

// How an item's run ended, before it is settled.
enum class ItemEnding {
  exported,          // published, its record "published"
  alreadyPublished,  // an earlier attempt's file stands under its reserved name
  failed,
  skipped,      // an unconfirmed 16-bit reduction
  stopped,      // a stop between steps
  heldByHalt,   // the job halted before this item wrote anything
  unrecorded,   // published, but its record could not be advanced: halts
  interrupted,  // a simulated crash: no bookkeeping at all
};

// The single owner of running exports: a first-in, first-out queue of
// jobs, one item at a time through a render lane and a publish lane (item
// k renders while k - 1 is written), every queue-file change on the
// owner's thread. Every route that exports ends here.
class ExportController {
 public:
  static constexpr int kRenderLane = 0;
  static constexpr int kPublishLane = 1;
  static constexpr int kLanes = 2;

  ExportController(Executor& executor, ExportQueueStore& queue, ExportOperationLedger& ledger,
                   ExportContext context, ExportDependencies dependencies = {});
  // Stops a running job after its current step and waits for it.
  ~ExportController();
  ExportController(const ExportController&) = delete;
  ExportController& operator=(const ExportController&) = delete;

  // Every event, in order, to each subscriber. Call on the owner's thread.
  void subscribe(std::function<void(const ExportEvent&)> listener);

  // Records the job in the queue file and starts it when idle. When the
  // queue cannot be saved, `storageFailurePolicy` decides whether the job
  // runs once without it; otherwise the error is thrown (and given to
  // agent.onRejected). Returns the job id.
  std::string submit(Submission submission);
  // Runs the unfinished items of a stored job again (after recovery).
  // Throws ExportQueueError::unreadableSettings.
  std::string resume(const PersistedExportJob& job);
  // Runs failed or stopped items again, as a new job per job they came
  // from, with their stored options and reserved names; items in other
  // states are left alone. Returns the last new job's id, empty when
  // nothing was retried. Throws ExportQueueError.
  std::string retry(const std::vector<std::string>& itemIDs);

  // Stops after the current step: the remaining items are marked stopped
  // and jobs waiting behind it are held until something new is submitted.
  void requestStop();
  // The same, then runs the owner's tasks until the job has ended.
  void stopAndWait();
  // Cancels one job: a waiting one ends at once with every item stopped, a
  // running one stops after its current step. Unlike requestStop, jobs
  // behind it go on. False when no such job is waiting or running.
  bool cancelJob(const std::string& jobID);
  bool busy() const { return m_active != nullptr; }
  // Whether anything is running or about to: a Drained event will follow.
  bool hasWork() const { return busy() || (!m_waiting.empty() && !m_held); }
  bool idle() const { return !busy(); }
  const Job* activeJob() const { return m_active.get(); }

  // Output paths other unfinished exports hold, for planners.
  std::set<std::filesystem::path> reservedOutputs() const { return m_queue.reservedOutputs(); }
  const ExportContext& context() const { return m_context; }

  // Given the save error and the number of files; true runs the job
  // without the queue. Unset: never.
  std::function<bool(const ExportQueueError&, size_t fileCount)> storageFailurePolicy;

  // The publish lane's part of marking an item done: the record
  // "published" (then the interruption hook). The owner then marks the
  // queue "completed" and clears the record. Throws when the record cannot
  // be advanced.
  void recordCompletion(ExportOperationRecord& record);

 private:
  struct ItemRun;
  using Run = std::shared_ptr<ItemRun>;

  void enqueueJob(std::unique_ptr<Job> job);
  void emit(const ExportEvent& event);
  // Runs `task` on the owner's thread unless the controller is gone by then.
  void onOwner(std::function<void()> task);

  // Owner: the scheduler, called after every change.
  void pump();
  void advance();
  void startItem(size_t index);
  void reserveOutput(ItemRun& run);
  void rendered(const Run& run);
  void settle(ItemRun& run);
  void finishJob();

  // Render lane.
  void readAndRender(const Run& run);
  // Publish lane.
  void publish(ItemRun& run);

  bool stopBetweenSteps(ItemRun& run) const;
  // Saves a queue change; a failure halts the job with its reason.
  void changeQueue(const std::function<void()>& change);
  void halt(std::string text);
  void clearSavedCompletions();

  Executor& m_executor;
  ExportQueueStore& m_queue;
  ExportOperationLedger& m_ledger;
  ExportContext m_context;
  ExportDependencies m_dependencies;
  std::vector<std::function<void(const ExportEvent&)>> m_listeners;
  std::shared_ptr<bool> m_alive = std::make_shared<bool>(true);

  std::deque<std::unique_ptr<Job>> m_waiting;
  bool m_held = false;  // after a stop or a halt
  std::unique_ptr<Job> m_active;
  // The active job's progress (owner).
  JobReport m_report;
  size_t m_next = 0;     // the next item to start
  size_t m_settled = 0;  // items settled
  bool m_renderLaneBusy = false;
  int m_publishing = 0;
  std::optional<std::string> m_haltText;
  bool m_interrupted = false;  // a simulated crash: nothing more is recorded
  // Read by the lanes between steps.
  std::atomic<bool> m_stop{false};
  // The stop was a cancel of the active job alone: nothing is held after it.
  bool m_cancelOnly = false;
  std::atomic<bool> m_halted{false};
  // Completed in the queue's memory, not yet saved; their records stay
  // until a save.
  std::vector<std::string> m_unsavedCompletions;
};

}  // namespace tarnbloom::exporting
