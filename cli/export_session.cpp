#include "cli/export_session.h"

#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <iostream>

#include "cli/exit_codes.h"
#include "engine/render_progress_model.h"
#include "export/receipt.h"
#include "support/files.h"

namespace tarnbloom::cli {

namespace fs = std::filesystem;
using namespace exporting;

namespace {

std::atomic<bool> g_interrupted{false};

void onInterrupt(int) {
  g_interrupted = true;
  // A second Ctrl-C ends the process at once; the ledger settles that too.
  std::signal(SIGINT, SIG_DFL);
}

std::string plural(int n, const char* one, const char* many) {
  return std::to_string(n) + " " + (n == 1 ? one : many);
}

}  // namespace

// The job's progress: one bar with ETA on a terminal, a plain line per
// file otherwise.
struct ExportSession::ProgressLine {
  bool terminal = ::isatty(STDERR_FILENO) != 0;
  RenderClock clock = monotonicRenderClock();
  RenderProgressModel model;
  std::string label;
  size_t index = 0, total = 1;
  bool drawn = false;

  void start(const Job& job, size_t i, size_t n) {
    if (i == 0) model.begin(clock(), true);
    index = i;
    total = n;
    label = "[" + std::to_string(i + 1) + "/" + std::to_string(n) + "] " +
            job.items[i].url.filename().string();
    if (!terminal) std::fprintf(stderr, "%s\n", label.c_str());
    update(0);
  }

  void update(double fraction) {
    const double now = clock();
    model.update(static_cast<double>(index) + fraction, static_cast<double>(total), now);
    if (!terminal) return;
    const int width = 24;
    const int filled = static_cast<int>(model.fraction * width);
    std::fprintf(stderr, "\r%s [%s%s] %s\033[K", label.c_str(), std::string(filled, '#').c_str(),
                 std::string(width - filled, '.').c_str(),
                 RenderProgressModel::progressLine(model.fraction, model.eta(now)).c_str());
    std::fflush(stderr);
    drawn = true;
  }

  void clear() {
    if (drawn) std::fprintf(stderr, "\r\033[K");
    drawn = false;
  }
};

ExportSession::ExportSession() : m_context(ExportContext::standard(&m_estimates)) {
  m_context.appVersion = TARNBLOOM_VERSION;
  m_context.appBuild = TARNBLOOM_VERSION;
  const fs::path& folder = m_context.stateFolder;
  m_lock = std::make_unique<StateFolderLock>(
      folder, [] { std::cerr << "Waiting for another Tarnbloom export to finish…\n"; });
  m_queue = std::make_unique<ExportQueueStore>(folder, m_context.clock);
  m_ledger = std::make_unique<ExportOperationLedger>(folder / "Operations");
  m_controller = std::make_unique<ExportController>(m_executor, *m_queue, *m_ledger, m_context);
  m_controller->storageFailurePolicy = [this](const ExportQueueError& error, size_t) {
    std::cerr << "Tarnbloom couldn’t save the export queue. " << error.description() << "\n"
              << "The export can still run right now, but nothing will be saved: the Export Queue "
                 "will stay empty, there is no Retry, and quitting or a crash loses whatever has "
                 "not finished.\nCheck that Tarnbloom can write to its data folder and that the "
                 "disk is not full.\n";
    m_ranWithoutQueue = true;
    return true;
  };
  m_progress = std::make_unique<ProgressLine>();
  m_controller->subscribe([this](const ExportEvent& event) { onEvent(event); });
}

void ExportSession::onEvent(const ExportEvent& event) {
  if (const auto* started = std::get_if<events::ItemStarted>(&event)) {
    m_progress->start(*started->job, started->index, started->job->items.size());
  } else if (const auto* progress = std::get_if<events::ItemProgress>(&event)) {
    m_progress->update(progress->fraction);
  } else if (std::holds_alternative<events::StopRequested>(event)) {
    m_progress->clear();
    std::cerr << "Stopping after the current step…\n";
  } else if (const auto* finished = std::get_if<events::ItemFinished>(&event)) {
    onItemFinished(*finished->job, *finished->result);
  } else if (const auto* ended = std::get_if<events::JobFinished>(&event)) {
    onJobFinished(*ended->job, *ended->report, ended->outcome);
  } else if (std::holds_alternative<events::Drained>(event)) {
    m_loop.quit();
  }
}

void ExportSession::onItemFinished(const Job& job, const Result& result) {
  m_progress->clear();
  const std::string name = result.source.filename().string();
  switch (result.kind) {
    case Result::Kind::exported: {
      std::cout << name << " → " << result.output->string() << " (" << result.width << " × "
                << result.height << ")";
      if (result.floorHit)
        std::cout << " — reached the minimum JPEG quality (Q" << result.jpegQuality.value_or(0)
                  << ") without meeting the target file size";
      else if (result.jpegQuality && job.options().jpeg.maxBytes)
        std::cout << " — JPEG quality " << *result.jpegQuality;
      std::cout << '\n';
      for (const auto& advisory : result.advisories) std::cout << "  " << advisory << '\n';
      // Where the time went, for benchmarks and the curious.
      if (std::getenv("TARNBLOOM_TIMINGS")) {
        std::cerr << "timings:";
        for (const char* stage : {"load", "linearise", "render", "encode"})
          if (const auto found = result.timings.find(stage); found != result.timings.end())
            std::cerr << "  " << stage << ' ' << std::to_string(found->second).substr(0, 5) << " s";
        std::cerr << '\n';
      }
      break;
    }
    case Result::Kind::failed:
      std::cout << name << ": " << result.errorText << '\n';
      if (!result.errorDetails.empty()) std::cout << "  " << result.errorDetails << '\n';
      break;
    case Result::Kind::skipped:
      std::cout << name << ": skipped. " << result.errorText << '\n';
      break;
    case Result::Kind::stopped:
      std::cout << name << ": stopped before it was exported.\n";
      break;
  }
  std::cout.flush();
}

ExportSession::~ExportSession() {
  m_controller.reset();
}

void ExportSession::reportLoadFailure() const {
  const auto& failure = m_queue->loadFailure();
  if (!failure) return;
  std::cerr << failure->description() << ' ' << failure->recoverySuggestion();
  if (m_queue->quarantinedAt())
    std::cerr << " It is now “" << m_queue->quarantinedAt()->string() << "”.";
  if (m_queue->quarantineFailed())
    std::cerr << " The original file could not be moved aside, so it was left exactly where it is.";
  std::cerr << '\n';
}

RecoveryReport ExportSession::recover(bool quiet) {
  RecoveryReport report = m_queue->recoverInterruptedWork(*m_ledger);
  for (const auto& text : report.leftOut) std::cout << text << '\n';
  for (const auto& receipt : report.mismatchedReceipts)
    std::cout << "Pending or mismatched receipt: these settings do not describe the current output "
                 "bytes. Retry the interrupted export.\n\n"
              << receipt.string() << '\n';
  if (!quiet && report.foundInterruptedWork())
    std::cerr << "Tarnbloom found unfinished exports from a previous launch. Completed files will "
                 "not be exported again. Run “tarnbloom queue resume” to finish them.\n";
  return report;
}

void ExportSession::onJobFinished(const Job& job, const JobReport& report,
                                  const JobOutcome& outcome) {
  m_outcome += outcome;
  m_stopped = m_stopped || report.stopped;
  if (report.halt) {
    m_halted = true;
    std::cout << *report.halt << '\n';
  }
  if (report.stopped && !report.declined.empty()) {
    std::cout << "Stopped before the remaining files:";
    for (const auto& file : report.declined) std::cout << ' ' << file.filename().string();
    std::cout << '\n';
  }
  int floorHits = 0;
  for (const auto& result : report.results) floorHits += result.floorHit ? 1 : 0;
  if (floorHits == 1)
    std::cout << "1 file reached the minimum JPEG quality without meeting its target file size.\n";
  if (floorHits == 1 && report.results.size() == 1)
    std::cout << "\nReached the minimum JPEG quality (Q"
              << report.results[0].jpegQuality.value_or(0)
              << ") without meeting the target file size.\n";
  else if (floorHits > 1)
    std::cout
        << floorHits
        << " files reached the minimum JPEG quality without meeting their target file size.\n";
  const auto unsaved = std::find_if(report.results.begin(), report.results.end(),
                                    [](const Result& result) { return result.receiptError; });
  if (unsaved != report.results.end())
    std::cout << "\nA job receipt could not be saved: " << *unsaved->receiptError << '\n';
  else if (outcome.exported > 0) {
    if (job.description.receiptsBesideExports)
      std::cout
          << (outcome.exported == 1
                  ? "A job receipt (source, settings and AI disclosure) was saved alongside it.\n"
                  : "A job receipt (source, settings and AI disclosure) was saved alongside each "
                    "export.\n");
    else
      std::cout << (outcome.exported == 1
                        ? "A job receipt (source, settings and AI disclosure) was saved in "
                        : "Job receipts (source, settings and AI disclosure) were saved in ")
                << m_context.receiptsFolder.string() << ".\n";
  }
  if (outcome.usedEnhance) std::cout << "Contains AI-estimated detail.\n";
  if (job.oneRunOnly && m_ranWithoutQueue)
    std::cout << "This ran without the export queue, as you chose: nothing was saved, and there is "
                 "no Retry for it.\n";
}

int ExportSession::run() {
  // A stop or a halt holds the jobs after it: they stay queued for resume.
  if (m_controller->hasWork()) {
    g_interrupted = false;
    auto previous = std::signal(SIGINT, onInterrupt);
    // Polls for Ctrl-C; a signal handler cannot touch the controller.
    std::function<void()> poll = [&] {
      if (g_interrupted.exchange(false)) m_controller->requestStop();
      m_loop.postAt(EventLoop::Clock::now() + std::chrono::milliseconds(100), poll);
    };
    poll();
    m_loop.run();
    std::signal(SIGINT, previous);
  }
  const int failed = m_outcome.failed + m_failedBeforeRun;
  if (m_outcome.exported == 0)
    std::cout << "No files exported.\n";
  else
    std::cout << "Exported " << plural(m_outcome.exported, "file", "files") << ".\n";
  if (failed > 0) std::cout << failed << " failed. See receipt.\n";
  if (const int skipped = m_outcome.skippedInRun + m_skippedBeforeRun; skipped > 0)
    std::cout << skipped << " skipped. See receipt.\n";
  if (m_outcome.exported > 0 && m_besideOriginals) std::cout << "Saved next to the original.\n";
  if (m_stopped) return kExitCancelled;
  // Files the export itself skipped (a 16-bit source nobody confirmed for
  // an 8-bit format) were wanted: with nothing exported the run failed.
  // Names the user said to skip were not.
  if (m_outcome.exported == 0 && (failed > 0 || m_outcome.skippedInRun > 0)) return kExitFailure;
  if (failed == 0 && !m_halted) return kExitSuccess;
  return m_outcome.exported == 0 ? kExitFailure : kExitPartial;
}

}  // namespace tarnbloom::cli
