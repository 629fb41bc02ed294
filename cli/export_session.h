#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "export/export_controller.h"
#include "export/export_operation_ledger.h"
#include "export/export_queue_store.h"
#include "support/event_loop.h"

namespace tarnbloom::cli {

// One command's use of the export pipeline: the state folder held for this
// process alone, the queue, the ledger and the controller, with progress
// and summaries on the terminal and Ctrl-C stopping after the current step.
class ExportSession {
 public:
  // Waits while another process holds the state folder; throws FileError.
  ExportSession();
  ~ExportSession();

  exporting::ExportQueueStore& queue() { return *m_queue; }
  exporting::ExportOperationLedger& ledger() { return m_ledger; }
  exporting::ExportController& controller() { return *m_controller; }
  EventLoop& loop() { return m_loop; }

  // Prints what the queue file could not be loaded for.
  void reportLoadFailure() const;
  // Settles what an interrupted run left behind; prints what it found
  // unless `quiet`.
  exporting::RecoveryReport recover(bool quiet);

  // Runs until every job started so far has ended; returns the exit code.
  int run();
  // Counts a job that will be started before run().
  void expectJob() { ++m_expectedJobs; }
  // Files refused before a job was made (already exists with skip, ...).
  void countSkippedBeforeRun(int count) { m_skippedBeforeRun += count; }
  void countFailedBeforeRun(int count) { m_failedBeforeRun += count; }
  // The outputs go beside their sources; the summary says so.
  void saveBesideOriginals() { m_besideOriginals = true; }

 private:
  void onJobFinished(const exporting::Job& job, const exporting::JobReport& report,
                     const exporting::JobOutcome& outcome);

  int m_lockFD = -1;
  bool m_besideOriginals = false;
  int m_skippedBeforeRun = 0;
  EventLoop m_loop;
  std::unique_ptr<exporting::ExportQueueStore> m_queue;
  exporting::ExportOperationLedger m_ledger;
  std::unique_ptr<exporting::ExportController> m_controller;
  int m_expectedJobs = 0;
  int m_finishedJobs = 0;
  exporting::JobOutcome m_outcome;
  int m_failedBeforeRun = 0;
  bool m_stopped = false;
  bool m_halted = false;
  std::vector<std::string> m_receiptFolders;
  bool m_ranWithoutQueue = false;
  struct ProgressLine;
  std::unique_ptr<ProgressLine> m_progress;
};

}  // namespace tarnbloom::cli
