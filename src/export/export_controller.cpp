#include "export/export_controller.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <future>
#include <set>

#include "encoding/naming_engine.h"
#include "engine/engine_error.h"
#include "engine/estimate_engine.h"
#include "engine/resample_engine.h"
#include "export/export_render.h"
#include "export/file_bookmark.h"
#include "export/receipt.h"
#include "support/files.h"
#include "support/locale_numbers.h"
#include "support/sha256.h"
#include "support/uuid.h"

namespace tarnbloom::exporting {

namespace fs = std::filesystem;
using encoding::ExportFormat;

namespace {

constexpr const char* kUnconfirmedReduction =
    "This source is 16-bit and the output format stores 8-bit channels. It was skipped because "
    "nobody could confirm the reduction; choose a format that keeps 16-bit.";
constexpr const char* kUnconfirmedDisclosure =
    "The 16-bit disclosure wasn’t confirmed, so this file was skipped.";

std::string errorText(const Error& error) {
  std::string text = error.description();
  if (const auto hint = error.recoverySuggestion(); !hint.empty()) text += " " + hint;
  return text;
}

// "name 2.png", "name 3.png", ... for an output whose reserved name was
// taken by something else meanwhile.
fs::path numberedAlternative(const fs::path& path,
                             const std::function<bool(const fs::path&)>& taken) {
  for (int n = 2; n < 100000; ++n) {
    fs::path candidate = path.parent_path() / (path.stem().string() + " " + std::to_string(n) +
                                               path.extension().string());
    if (!taken(candidate)) return candidate;
  }
  throw FileError(path, "name", EEXIST);
}

// An output that could not be written: the export's own sentence and the
// system's reason ("No space left on device.").
class WriteFailure : public Error {
 public:
  WriteFailure(fs::path output, int errnoValue)
      : m_output(std::move(output)), m_errno(errnoValue) {}
  std::string description() const override {
    return EngineError::encode(m_output).description() + " " + std::strerror(m_errno) + ".";
  }

 private:
  fs::path m_output;
  int m_errno;
};

// A size planned from a reading of the file that the decoder contradicts:
// its sides swapped (a rotated HEIF whose writer put the shown size where
// the stored one belongs). Writing it would squash the picture.
class PlanContradicted : public Error {
 public:
  PlanContradicted(fs::path source, int64_t width, int64_t height)
      : m_source(std::move(source)), m_width(width), m_height(height) {}
  std::string description() const override {
    return "“" + m_source.filename().string() + "” is " + groupedNumber(m_width) + " × " +
           groupedNumber(m_height) +
           " pixels upright, but its export was planned with the sides swapped, so it was not "
           "exported.";
  }

 private:
  fs::path m_source;
  int64_t m_width, m_height;
};

// Whether a planned output has the source's sides the other way round.
bool sidesSwapped(int64_t plannedWidth, int64_t plannedHeight, int64_t width, int64_t height) {
  if (width == height) return false;
  const int64_t slack = std::max(width, height);  // rounding of the planned sides
  const bool keeps = std::llabs(plannedWidth * height - plannedHeight * width) <= slack;
  const bool swaps = std::llabs(plannedWidth * width - plannedHeight * height) <= slack;
  return swaps && !keeps;
}

// Thrown between steps when a stop was asked for.
struct StopRequested {};
// Thrown when the job was halted while this item waited.
struct Halted {};
// Thrown when an earlier attempt already published this item's output (its
// bookkeeping was lost, as after a power cut): it is not exported again.
struct AlreadyPublished {
  fs::path output;
};

// An item's source being read, counted in the ledger while it lasts so that
// a source which takes the process down is not read for ever. Best effort:
// a ledger that cannot be written must not stop the export.
class ReadAttempt {
 public:
  ReadAttempt(const ExportOperationLedger& ledger, const Job& job, const JobItem& item) {
    if (job.oneRunOnly) return;
    try {
      ledger.beginRead(job.id, item.id);
      m_ledger = &ledger;
      m_itemID = item.id;
    } catch (const Error&) {
    }
  }
  ~ReadAttempt() {
    if (m_ledger) m_ledger->endRead(m_itemID);
  }
  ReadAttempt(const ReadAttempt&) = delete;
  ReadAttempt& operator=(const ReadAttempt&) = delete;

 private:
  const ExportOperationLedger* m_ledger = nullptr;
  std::string m_itemID;
};

// Runs one stage of an item. An exception ends the item: a simulated crash
// marks it interrupted, a stop or halt stopped, anything else failed with
// its message. True when the stage ran through.
template <typename Run, typename Stage>
bool runStage(Run& run, Stage&& stage) {
  try {
    stage();
    return true;
  } catch (const ExportInterrupted&) {
    run.interrupted = true;
  } catch (const Halted&) {
    run.result.kind = Result::Kind::stopped;
  } catch (const StopRequested&) {
    run.result.kind = Result::Kind::stopped;
  } catch (const Error& error) {
    run.result.kind = Result::Kind::failed;
    run.result.errorText = errorText(error);
    run.result.errorDetails = error.details();
  } catch (const std::exception& error) {
    run.result.kind = Result::Kind::failed;
    run.result.errorText = std::string("The export failed. ") + error.what();
  }
  return false;
}

}  // namespace

JobOutcome& JobOutcome::operator+=(const JobOutcome& other) {
  exported += other.exported;
  failed += other.failed;
  skippedInRun += other.skippedInRun;
  deferred += other.deferred;
  usedEnhance = usedEnhance || other.usedEnhance;
  return *this;
}

JobOutcome JobOutcome::of(const JobReport& report) {
  JobOutcome outcome;
  for (const auto& result : report.results) {
    switch (result.kind) {
      case Result::Kind::exported:
        ++outcome.exported;
        outcome.usedEnhance = outcome.usedEnhance || result.method == ResampleMethod::estimate;
        break;
      case Result::Kind::failed:
        ++outcome.failed;
        break;
      case Result::Kind::skipped:
        ++outcome.skippedInRun;
        break;
      case Result::Kind::stopped:
        break;
    }
  }
  outcome.deferred = report.deferred;
  return outcome;
}

// One item on its way through the two stages: rendered on the worker,
// then written, published and recorded on the publisher.
struct ExportController::ItemRun {
  size_t index = 0;
  std::optional<ExportOperationRecord> record;
  bool published = false;
  Result result;
  // Why the render stage ended the item early (failed, skipped, stopped).
  bool ended = false;
  bool interrupted = false;
  bool alreadyPublished = false;
  // Filled by the render stage for the publisher.
  SourceImage facts;
  int64_t sourceWidth = 0, sourceHeight = 0;
  ExportFormat format = ExportFormat::png;
  ResolvedSize size;
  fs::path output, receiptPath;
  EncodedExport encoded;
  std::map<std::string, double> timings;
};

ExportController::ExportController(EventLoop& loop, ExportQueueStore& queue,
                                   ExportOperationLedger& ledger, ExportDependencies dependencies)
    : m_loop(loop), m_queue(queue), m_ledger(ledger), m_dependencies(std::move(dependencies)) {
  // A staging file is created new, written whole and synced, so a file
  // under its name after a crash is never mistaken for a result.
  if (!m_dependencies.writeStaged)
    m_dependencies.writeStaged = [](const fs::path& path, std::span<const uint8_t> bytes) {
      writeNewFile(path, std::as_bytes(bytes));
    };
}

ExportController::~ExportController() = default;

std::string ExportController::submit(Submission submission) {
  auto job = std::make_unique<Job>();
  job->options = submission.options;
  job->fromFinder = submission.fromFinder;
  job->quitWhenDone = submission.quitWhenDone;
  job->folderBatch = submission.folderBatch;
  job->deferredCount = submission.deferredCount;
  job->onFinished = std::move(submission.onFinished);
  job->agent = std::move(submission.agent);
  job->confirmed16BitReduction = submission.confirmed16BitReduction;
  job->receiptsBesideExports = submission.receiptsBesideExports;

  const auto destinationOf = [&](size_t i) {
    return submission.destinations.size() == 1 ? submission.destinations[0]
                                               : submission.destinations.at(i);
  };
  QueueSubmission queued;
  queued.urls = submission.urls;
  for (size_t i = 0; i < submission.urls.size(); ++i)
    queued.destinations.push_back(destinationOf(i));
  queued.options = submission.options;
  queued.fromFinder = submission.fromFinder;
  queued.quitWhenDone = submission.quitWhenDone;
  if (submission.folderBatch) {
    queued.folderTemplate = submission.folderBatch->templ;
    queued.folderSKU = submission.folderBatch->sku;
    queued.folderDate = submission.folderBatch->exportDate;
  }
  queued.assignedOutputs = submission.assignedOutputs;
  queued.plannedSizes = submission.plannedSizes;
  queued.replaceExisting = job->replaceExisting();
  queued.receiptsBesideExports = submission.receiptsBesideExports;
  queued.confirmed16BitReduction = submission.confirmed16BitReduction;

  std::vector<std::string> itemIDs;
  try {
    const PersistedExportJob& persisted = m_queue.enqueue(queued);
    job->id = persisted.id;
    for (const auto& item : persisted.items) itemIDs.push_back(item.id);
    job->oneRunOnly = !m_queue.persists();
  } catch (const ExportQueueError& error) {
    const bool runAnyway = error.errorCase() == ExportQueueError::Case::saveFailed &&
                           storageFailurePolicy &&
                           storageFailurePolicy(error, submission.urls.size());
    if (!runAnyway) {
      if (job->agent && job->agent->onRejected) job->agent->onRejected(error);
      throw;
    }
    job->id = makeUuid();
    job->oneRunOnly = true;
    for (size_t i = 0; i < submission.urls.size(); ++i) itemIDs.push_back(makeUuid());
  }
  for (size_t i = 0; i < submission.urls.size(); ++i) {
    JobItem item;
    item.id = itemIDs[i];
    item.url = fs::absolute(submission.urls[i]).lexically_normal();
    item.destination = fs::absolute(destinationOf(i)).lexically_normal();
    item.batchIndex = static_cast<int64_t>(i) + 1;
    if (i < submission.assignedOutputs.size()) item.assignedOutput = submission.assignedOutputs[i];
    if (i < submission.plannedSizes.size()) item.plannedSize = submission.plannedSizes[i];
    job->items.push_back(std::move(item));
  }
  if (job->agent && job->agent->onQueued) job->agent->onQueued(job->id, itemIDs);
  const std::string id = job->id;
  enqueueJob(std::move(job));
  return id;
}

std::string ExportController::resume(const PersistedExportJob& persisted) {
  auto job = std::make_unique<Job>();
  job->id = persisted.id;
  job->options = persisted.options.options();  // throws unreadableSettings
  job->fromFinder = persisted.fromFinder;
  job->receiptsBesideExports = persisted.receiptsBesideExports.value_or(false);
  job->confirmed16BitReduction = persisted.confirmed16BitReduction;
  if (persisted.replaceExisting) {
    job->agent = AgentSubmission{};
    job->agent->replaceExisting = true;
  }
  if (persisted.folderTemplate)
    job->folderBatch = FolderBatchNaming{
        {}, *persisted.folderTemplate, persisted.folderSKU.value_or(""), persisted.folderDate};
  for (const auto& stored : persisted.items) {
    if (stored.state != ExportQueueItemState::pending &&
        stored.state != ExportQueueItemState::running)
      continue;
    JobItem item;
    item.id = stored.id;
    item.batchIndex = stored.batchIndex.value_or(1);
    try {
      item.url = m_queue.resolvedURL(stored.inputBookmark, stored.sourceName);
      const auto folder = FileBookmark::recordedPath(stored.destinationBookmark);
      item.destination =
          FileBookmark::resolve(stored.destinationBookmark).value_or(folder.value_or(""));
    } catch (const ExportQueueError& error) {
      item.url = FileBookmark::recordedPath(stored.inputBookmark).value_or(stored.sourceName);
      item.unavailable = error.description();
    }
    // An earlier attempt's reserved name is kept, so a resumed export
    // lands where the interrupted one would have.
    if (stored.assignedOutputPath)
      item.assignedOutput = fs::path(*stored.assignedOutputPath);
    else if (stored.intendedOutputPath)
      item.assignedOutput = fs::path(*stored.intendedOutputPath);
    if (stored.plannedWidth && stored.plannedHeight)
      item.plannedSize = std::pair{*stored.plannedWidth, *stored.plannedHeight};
    job->items.push_back(std::move(item));
  }
  const std::string id = job->id;
  enqueueJob(std::move(job));
  return id;
}

std::string ExportController::retry(const std::vector<std::string>& itemIDs) {
  // The items go back to "pending" in their own jobs, so a retried item
  // can never be retried twice or left behind as a failure.
  std::vector<std::string> jobIDs;
  for (const auto& itemID : itemIDs) {
    const auto [job, item] = m_queue.item(itemID);
    if (!job || !m_queue.retry(itemID)) continue;
    if (std::find(jobIDs.begin(), jobIDs.end(), job->id) == jobIDs.end()) jobIDs.push_back(job->id);
  }
  std::string last;
  for (const auto& jobID : jobIDs)
    if (const auto* job = m_queue.job(jobID)) last = resume(*job);
  return last;
}

void ExportController::requestStop() {
  if (!busy() || m_stop.exchange(true)) return;
  if (m_observer.status) m_observer.status("Stopping after the current step…");
}

void ExportController::enqueueJob(std::unique_ptr<Job> job) {
  m_waiting.push_back(std::move(job));
  if (idle()) m_loop.post([this] { pump(); });
}

void ExportController::pump() {
  if (busy() || m_waiting.empty() || m_interrupted) return;
  m_active = std::move(m_waiting.front());
  m_waiting.pop_front();
  m_report = JobReport{};
  m_report.deferred = m_active->deferredCount;
  m_stop = false;
  m_halted = false;
  m_published = 0;
  const Job* job = m_active.get();
  m_worker.post([this, job] { runJob(*job); });
}

void ExportController::markOnLoop(const Job& job, const JobItem& item, ExportQueueItemState state,
                                  std::optional<std::string> output,
                                  std::optional<std::string> error) {
  if (job.oneRunOnly) return;
  m_loop.invokeSync([&] {
    m_queue.mark(job.id, item.id, state, std::move(output), std::move(error));
    clearSavedCompletions();
  });
}

void ExportController::clearSavedCompletions() {
  for (const auto& operationID : m_unsavedCompletions) m_ledger.clear(operationID);
  m_unsavedCompletions.clear();
}

void ExportController::runJob(const Job& job) {
  // The worker renders item k while the publisher writes and records item
  // k - 1; it never runs further ahead than that, so at most one finished
  // render waits in memory.
  size_t started = 0;
  for (; started < job.items.size(); ++started) {
    {
      std::unique_lock lock(m_pipelineMutex);
      m_pipelineWake.wait(lock, [&] { return m_published + 1 >= started; });
    }
    if (m_stop || m_halted || m_interruptedFlag) break;
    auto run = std::make_shared<ItemRun>();
    run->index = started;
    renderStage(job, job.items[started], *run);
    m_publisher.post([this, &job, run] { publishStage(job, job.items[run->index], *run); });
  }
  {
    std::unique_lock lock(m_pipelineMutex);
    m_pipelineWake.wait(lock, [&] { return m_published >= started; });
  }
  const bool interrupted = m_interruptedFlag;
  m_loop.post([this, started, interrupted] {
    if (interrupted) {
      // A simulated crash: no more bookkeeping of any kind.
      m_interrupted = true;
      m_active.reset();
      return;
    }
    finishJob(started);
  });
}

void ExportController::renderStage(const Job& job, const JobItem& item, ItemRun& run) {
  m_loop.post([this, &job, index = run.index] {
    if (m_observer.itemStarted) m_observer.itemStarted(job, index, job.items.size());
  });
  try {
    if (!runStage(run, [&] { runRender(job, item, run); })) run.ended = true;
  } catch (const AlreadyPublished& done) {
    run.ended = true;
    run.alreadyPublished = true;
    run.result.kind = Result::Kind::exported;
    run.result.output = done.output;
    run.result.receipt = ReceiptLocation::existingURL(done.output);
    run.result.width = run.size.width;
    run.result.height = run.size.height;
    run.result.format = run.format;
  }
}

void ExportController::publishStage(const Job& job, const JobItem& item, ItemRun& run) {
  if (m_interruptedFlag) {
    finishPublishing();
    return;
  }
  std::optional<std::string> halt;
  if (!run.ended && !run.interrupted) {
    const bool ranThrough = runStage(run, [&] {
      if (m_halted) throw Halted{};
      runPublish(job, item, run);
    });
    // Failing after the file was published leaves it standing unrecorded.
    if (!ranThrough && run.published && !run.interrupted) {
      halt = run.result.errorText;
      run.result.kind = Result::Kind::exported;
    }
  }
  if (run.interrupted) {
    m_interruptedFlag = true;
    finishPublishing();
    return;
  }
  Result& result = run.result;
  result.source = item.url;
  result.method = job.options.method;
  // An export that did not get as far as publishing leaves nothing behind;
  // one the halt kept from starting stays pending for the next run.
  const bool haltedBefore = result.kind == Result::Kind::stopped && m_halted;
  if (run.alreadyPublished) {
    try {
      markOnLoop(job, item, ExportQueueItemState::completed, result.output->string());
    } catch (const Error&) {
      // The file stands; the next launch finds it again.
    }
    m_loop.post([this, &job, result = std::move(result)] {
      if (m_observer.itemFinished) m_observer.itemFinished(job, result);
      m_report.results.push_back(result);
    });
    finishPublishing();
    return;
  }
  if (run.record && !run.published) m_ledger.discard(*run.record);
  if (haltedBefore && run.record) {
    try {
      markOnLoop(job, item, ExportQueueItemState::pending);
    } catch (const Error&) {
    }
  }
  if (!run.published && !haltedBefore) {
    try {
      if (result.kind == Result::Kind::stopped)
        markOnLoop(job, item, ExportQueueItemState::stopped);
      else
        markOnLoop(job, item, ExportQueueItemState::failed, std::nullopt, result.errorText);
    } catch (const Error&) {
      // The item has already failed; its text says why.
    }
  }
  // 10. The queue learns of the published file. It is saved with the next
  // change the queue makes anyway, and the record goes only after that: a
  // crash in between finds the record "published" and counts the file done.
  if (run.published && !halt) {
    const std::string operationID = run.record->operationID;
    m_loop.invokeSync([&] {
      if (!job.oneRunOnly)
        m_queue.markUnsaved(job.id, item.id, ExportQueueItemState::completed,
                            result.output->string());
      m_unsavedCompletions.push_back(operationID);
    });
  }
  if (halt) {
    const std::string name = result.output.value_or(result.source).filename().string();
    {
      std::lock_guard lock(m_pipelineMutex);
      m_haltText = "“" + name + "” was exported, but Tarnbloom could not finish recording it. " +
                   *halt +
                   " The file is on disk and will not be exported again; the remaining "
                   "files are paused until this is fixed.";
    }
    m_halted = true;
  }
  m_loop.post([this, &job, result = std::move(result)] {
    if (m_observer.itemFinished) m_observer.itemFinished(job, result);
    m_report.results.push_back(result);
  });
  finishPublishing();
}

void ExportController::finishPublishing() {
  {
    std::lock_guard lock(m_pipelineMutex);
    ++m_published;
  }
  m_pipelineWake.notify_all();
}

void ExportController::finishJob(size_t started) {
  Job& job = *m_active;
  // The last completions are saved now; should that fail, their records
  // stay "published" and the next launch counts them done.
  if (!m_unsavedCompletions.empty()) {
    try {
      if (!job.oneRunOnly) m_queue.commit();
      clearSavedCompletions();
    } catch (const Error& error) {
      std::lock_guard lock(m_pipelineMutex);
      m_haltText = "The export queue could not be saved: " + errorText(error);
      m_halted = true;
    }
  }
  // Items never started: a stop marks them stopped, a halt leaves them
  // pending for the next run.
  for (size_t i = started; i < job.items.size(); ++i) {
    m_report.declined.push_back(job.items[i].url);
    if (m_stop && !m_halted && !job.oneRunOnly) {
      try {
        m_queue.mark(job.id, job.items[i].id, ExportQueueItemState::stopped);
      } catch (const Error&) {
      }
    }
  }
  m_report.stopped = m_stop;
  if (m_halted) {
    std::lock_guard lock(m_pipelineMutex);
    m_report.halt = m_haltText;
  }
  const JobOutcome outcome = JobOutcome::of(m_report);
  std::unique_ptr<Job> finished = std::move(m_active);
  if (finished->agent && finished->agent->onReport) finished->agent->onReport(m_report);
  if (m_observer.jobFinished) m_observer.jobFinished(*finished, m_report, outcome);
  if (finished->onFinished) finished->onFinished(outcome);
  if (!m_report.halt) m_loop.post([this] { pump(); });
}

fs::path ExportController::chooseOutput(const Job& job, const JobItem& item,
                                        const SourceImage& facts, int64_t width, int64_t height,
                                        ExportFormat format) {
  // Paths reserved by other unfinished items count as taken, so two items
  // of a queue never aim at one name.
  std::set<fs::path> reserved;
  for (const auto& other : m_queue.jobs())
    for (const auto& stored : other.items) {
      if (stored.id == item.id || (stored.state != ExportQueueItemState::pending &&
                                   stored.state != ExportQueueItemState::running))
        continue;
      if (stored.assignedOutputPath) reserved.insert(*stored.assignedOutputPath);
      if (stored.intendedOutputPath) reserved.insert(*stored.intendedOutputPath);
    }
  for (const auto& other : job.items)
    if (other.id != item.id && other.assignedOutput) reserved.insert(*other.assignedOutput);
  const auto taken = [&](const fs::path& path) {
    return reserved.contains(path) || entryExists(path) ||
           ResampleEngine::isSourceDestination(path, facts.url);
  };

  if (item.assignedOutput) {
    const fs::path& assigned = *item.assignedOutput;
    std::error_code error;
    fs::create_directories(assigned.parent_path(), error);
    if (ResampleEngine::isSourceDestination(assigned, facts.url))
      throw SourceProtectionError(SourceProtectionError::Case::destinationIsSource);
    if (!entryExists(assigned) || job.replaceExisting()) return assigned;
    return numberedAlternative(assigned, taken);
  }
  encoding::NamingFacts naming;
  naming.sourcePath = item.url;
  naming.outputWidth = width;
  naming.outputHeight = height;
  naming.method = std::string(rawValue(job.options.method));
  naming.formatToken = std::string(encoding::rawValue(format));
  naming.index = item.batchIndex;
  naming.scaleFactor = static_cast<double>(width) / std::max(1, facts.orientedWidth());
  std::string templ = encoding::NamingEngine::defaultTemplate();
  fs::path folder = item.destination;
  if (job.folderBatch) {
    templ = job.folderBatch->templ;
    if (!job.folderBatch->sku.empty()) naming.sku = job.folderBatch->sku;
    if (!job.folderBatch->output.empty()) folder = job.folderBatch->output;
  }
  return encoding::NamingEngine::resolveOutputPath(folder, templ, naming, true, taken);
}

// Between steps: the item in hand ends here when a stop was asked for.
void ExportController::throwIfStopped() const {
  if (m_stop) throw StopRequested{};
}

void ExportController::runRender(const Job& job, const JobItem& item, ItemRun& run) {
  Result& result = run.result;
  if (item.unavailable) {
    result.kind = Result::Kind::failed;
    result.errorText = *item.unavailable;
    run.ended = true;
    return;
  }
  // 1. The item is running from here. The queue file learns it with the
  // next change it saves anyway (the reserved name, step 5): a crash before
  // that leaves nothing to settle, and the read itself is counted below.
  if (!job.oneRunOnly)
    m_loop.post([this, &job, &item] {
      m_queue.markUnsaved(job.id, item.id, ExportQueueItemState::running);
    });

  // 2. Load.
  const auto loadStart = std::chrono::steady_clock::now();
  SourceImage source = [&] {
    const ReadAttempt attempt(m_ledger, job, item);
    return ResampleEngine::load(item.url);
  }();
  run.timings["load"] =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - loadStart).count();
  run.format = job.options.resolvedFormat(item.url);
  if (source.bitsPerComponent == 16 && !encoding::supports16Bit(run.format) &&
      !job.confirmed16BitReduction) {
    result.kind = Result::Kind::skipped;
    // A person who started the job could have confirmed and did not; a
    // request from another program or the file manager had nobody to ask.
    result.errorText =
        job.agent || job.fromFinder ? kUnconfirmedReduction : kUnconfirmedDisclosure;
    run.ended = true;
    return;
  }
  if (source.bitsPerComponent == 16 && run.format == ExportFormat::webp)
    result.advisories.push_back("16-bit source reduced to 8-bit for WebP.");
  throwIfStopped();

  // 3. Size and claims.
  run.facts = source;
  run.facts.bitmap.reset();
  run.sourceWidth = source.orientedWidth();
  run.sourceHeight = source.orientedHeight();
  if (item.plannedSize) {
    if (sidesSwapped(item.plannedSize->first, item.plannedSize->second, run.sourceWidth,
                     run.sourceHeight))
      throw PlanContradicted(item.url, run.sourceWidth, run.sourceHeight);
    run.size.width = item.plannedSize->first;
    run.size.height = item.plannedSize->second;
    run.size.scaleFactor =
        static_cast<double>(run.size.width) / std::max<int64_t>(1, run.sourceWidth);
  } else {
    run.size = job.options.resolvedSize(run.sourceWidth, run.sourceHeight, source.bitsPerComponent,
                                        run.format);
  }
  const ClaimResolution claims =
      ClaimLaw::resolve(job.options.method, false, source.bitsPerComponent, run.format);

  // 4 and 5. The output's name, reserved in the ledger and the queue file
  // on the loop while the render runs here; nothing is written to the
  // destination before that is done.
  ExportOperationRecord record;
  record.operationID = ExportOperationLedger::makeOperationID();
  record.jobID = job.id;
  record.itemID = item.id;
  record.sourcePath = item.url.string();
  record.plannedAt =
      std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count();
  std::promise<void> reserved;
  std::future<void> reservation = reserved.get_future();
  m_loop.post([&] {
    try {
      if (m_halted) throw Halted{};
      if (item.assignedOutput && entryExists(*item.assignedOutput) &&
          Receipt::describesPublishedItem(*item.assignedOutput, item.id))
        throw AlreadyPublished{*item.assignedOutput};
      run.output = chooseOutput(job, item, run.facts, run.size.width, run.size.height, run.format);
      run.receiptPath = ReceiptLocation::url(run.output, job.receiptsBesideExports);
      record.intendedOutputPath = run.output.string();
      record.stagedPath = ExportOperationLedger::stagedURL(run.output, record.operationID).string();
      record.stagedReceiptPath =
          (run.receiptPath.parent_path() / (".tarnbloom-" + record.operationID + ".receipt.tmp"))
              .string();
      m_ledger.write(record);
      run.record = record;
      if (!job.oneRunOnly)
        m_queue.recordIntendedOutput(job.id, item.id, run.output.string(), run.size.width,
                                     run.size.height, record.operationID);
      clearSavedCompletions();
      reserved.set_value();
    } catch (...) {
      reserved.set_exception(std::current_exception());
    }
  });
  // The task above refers to this frame: it must be done before the frame
  // goes, however the render ends.
  struct AwaitReservation {
    std::future<void>& future;
    ~AwaitReservation() {
      if (future.valid()) future.wait();
    }
  } awaitReservation{reservation};

  // 6 and 7 (first half). Render and encode in memory.
  const auto progress = [this](int64_t done, int64_t total) {
    if (m_observer.itemProgress && total > 0) {
      const double fraction = static_cast<double>(done) / static_cast<double>(total);
      m_loop.post([this, fraction] {
        if (m_observer.itemProgress) m_observer.itemProgress(fraction);
      });
    }
  };
  run.encoded =
      renderAndEncode(std::move(source), job.options, run.size, run.format, claims.codes, progress);
  for (const auto& [stage, seconds] : run.encoded.timings) run.timings[stage] = seconds;
  reservation.get();
}

void ExportController::runPublish(const Job& job, const JobItem& item, ItemRun& run) {
  ExportOperationRecord& record = *run.record;
  const fs::path& output = run.output;
  throwIfStopped();
  // 7 (second half). The staging file beside the destination.
  try {
    m_dependencies.writeStaged(record.stagedPath, run.encoded.bytes);
  } catch (const FileError& error) {
    throw WriteFailure(output, error.errnoValue());
  }
  throwIfStopped();

  // 8. The receipt, then the record says "publishing".
  ReceiptInputs inputs;
  inputs.sourcePath = item.url;
  inputs.sourceSHA256 = run.facts.sourceHash.value_or("");
  inputs.sourceWidth = run.sourceWidth;
  inputs.sourceHeight = run.sourceHeight;
  inputs.sourceBitDepth = run.facts.bitsPerComponent;
  inputs.outputPath = output;
  inputs.outputSHA256 = sha256Hex(std::as_bytes(std::span(run.encoded.bytes)));
  inputs.outputWidth = run.size.width;
  inputs.outputHeight = run.size.height;
  inputs.format = run.format;
  inputs.options = job.options;
  inputs.jpegReport = run.encoded.jpegReport;
  inputs.webpOptions = run.encoded.webpOptions;
  inputs.heifQuality = run.encoded.heifQuality;
  inputs.metadataDropped = run.encoded.metadataDropped;
  inputs.timings = run.timings;
  inputs.jobID = job.id;
  inputs.itemID = item.id;
  inputs.operationID = record.operationID;
  if (job.options.method == ResampleMethod::estimate) {
    auto& engine = EstimateEngine::shared();
    inputs.estimate = EstimateProvenance{
        EstimateEngine::modelName,    EstimateEngine::modelVersion,
        engine.artifactDigest(),      EstimateEngine::tilingText(),
        EstimateEngine::computeUnits, EstimateEngine::clampStrength(job.options.estimateStrength),
        engine.precisionText()};
  }
  const auto document = Receipt::build(m_dependencies.appVersion, m_dependencies.appBuild,
                                       std::chrono::system_clock::now(), inputs);
  // The source must still be what was rendered, and never the destination.
  ResampleEngine::validateDestination(output, run.facts);
  ReceiptLocation::ensureParentExists(run.receiptPath);
  auto publication = ReceiptPairPublication::prepare(
      record.operationID, record.stagedPath, output, document, run.receiptPath,
      record.stagedReceiptPath, m_queue.stateDirectory(), run.encoded.bytes.size());
  m_ledger.advance(record, OperationStage::publishing);
  throwIfStopped();

  // 9. Output and receipt together, or neither.
  try {
    publication.publish(job.replaceExisting());
  } catch (const FileError& error) {
    throw WriteFailure(output, error.errnoValue());
  }
  run.published = true;
  run.encoded.bytes = {};

  Result& result = run.result;
  result.kind = Result::Kind::exported;
  result.output = output;
  result.receipt = run.receiptPath;
  result.width = run.size.width;
  result.height = run.size.height;
  result.format = run.format;
  result.timings = run.timings;
  if (run.encoded.jpegReport) {
    result.floorHit = run.encoded.jpegReport->floorHit;
    result.jpegQuality = run.encoded.jpegReport->qualityUsed;
  }
  // 10 (first half); the publisher then tells the queue.
  recordCompletion(record);
}

void ExportController::recordCompletion(ExportOperationRecord& record) {
  if (record.stage < OperationStage::published) m_ledger.advance(record, OperationStage::published);
  if (m_dependencies.hooks.afterPublished) m_dependencies.hooks.afterPublished();
}

}  // namespace tarnbloom::exporting
