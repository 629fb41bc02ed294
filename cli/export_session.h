#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "engine/estimate_engine.h"
#include "export/export_controller.h"
#include "export/export_operation_ledger.h"
#include "export/export_queue_store.h"
#include "export/state_folder_lock.h"
#include "support/event_loop.h"
#include "support/executor.h"

namespace tarnbloom::cli {

// One command's use of the export pipeline: the host of the controller.
// It holds the state folder for this process alone and owns the event loop,
// the lanes, the Enhance engine, the queue, the ledger and the controller;
// progress and summaries go to the terminal, and Ctrl-C stops after the
// current step.
class ExportSession {
 public:
  // Waits while another process holds the state folder; throws FileError.
  ExportSession();
  ~ExportSession();

  exporting::ExportQueueStore& queue() { return *m_queue; }
  exporting::ExportController& controller() { return *m_controller; }

  // Prints what the queue file could not be loaded for.
  void reportLoadFailure() const;
  // Settles what an interrupted run left behind; prints what it found
  // unless `quiet`.
  exporting::RecoveryReport recover(bool quiet);

  // Runs what was submitted until the controller drains; returns the exit
  // code.
  int run();
  // Files refused before a job was made (already exists with skip, ...).
  void countSkippedBeforeRun(int count) { m_skippedBeforeRun += count; }
  void countFailedBeforeRun(int count) { m_failedBeforeRun += count; }
  // The outputs go beside their sources; the summary says so.
  void saveBesideOriginals() { m_besideOriginals = true; }

 private:
  void onEvent(const exporting::ExportEvent& event);
  void onItemFinished(const exporting::Job& job, const exporting::Result& result);
  void onJobFinished(const exporting::Job& job, const exporting::JobReport& report,
                     const exporting::JobOutcome& outcome);

  std::unique_ptr<exporting::StateFolderLock> m_lock;
  bool m_besideOriginals = false;
  int m_skippedBeforeRun = 0;
  int m_failedBeforeRun = 0;
  EventLoop m_loop;
  LoopExecutor m_executor{m_loop, exporting::ExportController::kLanes};
  EstimateEngine m_estimates{EstimateEngine::configuredURL()};
  exporting::ExportContext m_context;
  std::unique_ptr<exporting::ExportQueueStore> m_queue;
  std::unique_ptr<exporting::ExportOperationLedger> m_ledger;
  std::unique_ptr<exporting::ExportController> m_controller;
  exporting::JobOutcome m_outcome;
  bool m_stopped = false;
  bool m_halted = false;
  bool m_ranWithoutQueue = false;
  struct ProgressLine;
  std::unique_ptr<ProgressLine> m_progress;
};

}  // namespace tarnbloom::cli
