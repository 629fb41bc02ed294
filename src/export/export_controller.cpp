#include "export/export_controller.h"

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <cstring>

#include "engine/engine_error.h"
#include "engine/estimate_engine.h"
#include "engine/resample_engine.h"
#include "export/export_planner.h"
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

double secondsSince(std::chrono::steady_clock::time_point start) {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
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

// One item on its way: read and rendered on the render lane, its name
// reserved on the owner meanwhile, then written, published and recorded on
// the publish lane, and settled on the owner. Each field is written by one
// side at a time; the hand-overs go through the executor's queues.
struct ExportController::ItemRun {
  const Job* job = nullptr;
  size_t index = 0;
  ItemPhase phase = ItemPhase::waiting;
  std::optional<ItemEnding> ending;
  Result result;
  // Render lane, before the reservation.
  SourceImage facts;
  int64_t sourceWidth = 0, sourceHeight = 0;
  ExportFormat format = ExportFormat::png;
  ResolvedSize size;
  std::vector<std::string> claims;
  // Owner: the reservation, and how it ended the item if it did (kept
  // apart from `ending`, which the render lane may be setting meanwhile).
  std::optional<ExportOperationRecord> record;
  fs::path output, receiptPath;
  std::optional<ItemEnding> reservationEnding;
  std::string reservationError, reservationDetails;
  // Render lane, after the reservation.
  EncodedExport encoded;
  std::map<std::string, double> timings;
  // Publish lane.
  bool published = false;

  const JobItem& item() const { return job->items[index]; }
  void end(ItemEnding how) {
    if (!ending) ending = how;
  }
  void fail(const Error& error) {
    end(ItemEnding::failed);
    result.errorText = errorText(error);
    result.errorDetails = error.details();
  }
};

ExportController::ExportController(Executor& executor, ExportQueueStore& queue,
                                   ExportOperationLedger& ledger, ExportContext context,
                                   ExportDependencies dependencies)
    : m_executor(executor),
      m_queue(queue),
      m_ledger(ledger),
      m_context(std::move(context)),
      m_dependencies(std::move(dependencies)) {
  // A staging file is created new, written whole and synced, so a file
  // under its name after a crash is never mistaken for a result.
  if (!m_dependencies.writeStaged)
    m_dependencies.writeStaged = [](const fs::path& path, const EncodedExport& encoded) {
      encoded.stage(path);
    };
}

ExportController::~ExportController() {
  if (busy()) stopAndWait();
  *m_alive = false;
}

void ExportController::subscribe(std::function<void(const ExportEvent&)> listener) {
  m_listeners.push_back(std::move(listener));
}

void ExportController::emit(const ExportEvent& event) {
  for (const auto& listener : m_listeners) listener(event);
}

void ExportController::onOwner(std::function<void()> task) {
  m_executor.post([alive = std::weak_ptr<bool>(m_alive), task = std::move(task)] {
    if (const auto living = alive.lock(); living && *living) task();
  });
}

std::string ExportController::submit(Submission submission) {
  auto job = std::make_unique<Job>();
  job->description = std::move(submission.description);
  job->agent = std::move(submission.agent);
  job->onFinished = std::move(submission.onFinished);
  if (job->agent && job->agent->replaceExisting)
    job->description.collision = CollisionPolicy::replace;

  // Plans write nothing; the folders their outputs go to are made now, so
  // the queue can record them. A folder that cannot be made refuses the
  // job with the system's reason.
  std::set<fs::path> folders;
  for (const auto& item : submission.items) folders.insert(item.destination);
  for (const auto& folder : folders) {
    std::error_code error;
    fs::create_directories(folder, error);
    if (error) {
      const FileError failure(folder, "create the folder", error.value());
      if (job->agent && job->agent->onRejected) job->agent->onRejected(failure);
      throw failure;
    }
  }

  std::vector<std::string> itemIDs;
  try {
    const PersistedExportJob& persisted = m_queue.enqueue(job->description, submission.items);
    job->id = persisted.id;
    for (const auto& item : persisted.items) itemIDs.push_back(item.id);
    job->oneRunOnly = !m_queue.persists();
  } catch (const ExportQueueError& error) {
    const bool runAnyway = error.errorCase() == ExportQueueError::Case::saveFailed &&
                           storageFailurePolicy &&
                           storageFailurePolicy(error, submission.items.size());
    if (!runAnyway) {
      if (job->agent && job->agent->onRejected) job->agent->onRejected(error);
      throw;
    }
    job->id = makeUuid();
    job->oneRunOnly = true;
    for (size_t i = 0; i < submission.items.size(); ++i) itemIDs.push_back(makeUuid());
  }
  for (size_t i = 0; i < submission.items.size(); ++i) {
    JobItem item;
    static_cast<PlannedItem&>(item) = std::move(submission.items[i]);
    item.id = itemIDs[i];
    item.url = fs::absolute(item.url).lexically_normal();
    item.destination = fs::absolute(item.destination).lexically_normal();
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
  job->description = persisted.description();
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
  std::string last;
  for (const auto& jobID : m_queue.jobsHolding(itemIDs)) {
    // Checked before anything moves: a job this version cannot read keeps
    // its items where they are.
    (void)m_queue.job(jobID)->description();
    const auto* retried = m_queue.detachForRetry(jobID, itemIDs);
    if (retried) last = resume(*retried);
  }
  return last;
}

void ExportController::requestStop() {
  if (!busy()) {
    if (!m_waiting.empty() && !m_held) {
      m_held = true;
      onOwner([this] { emit(events::Drained{}); });
    }
    return;
  }
  m_held = true;
  m_cancelOnly = false;
  if (m_stop.exchange(true)) return;
  emit(events::StopRequested{});
}

bool ExportController::cancelJob(const std::string& jobID) {
  if (m_active && m_active->id == jobID) {
    if (!m_stop.exchange(true)) m_cancelOnly = true;
    return true;
  }
  const auto waiting = std::find_if(m_waiting.begin(), m_waiting.end(),
                                    [&](const auto& job) { return job->id == jobID; });
  if (waiting == m_waiting.end()) return false;
  const std::unique_ptr<Job> job = std::move(*waiting);
  m_waiting.erase(waiting);
  JobReport report;
  report.stopped = true;
  report.deferred = job->description.deferredCount;
  for (const auto& item : job->items) {
    report.declined.push_back(item.url);
    if (!job->oneRunOnly)
      m_queue.markUnsaved(job->id, item.id, ExportQueueItemState::stopped);
  }
  if (!job->oneRunOnly) {
    // Should the save fail, the items stay pending in the file and the
    // report says why; a later resume may run them.
    try {
      m_queue.commit();
    } catch (const ExportQueueError& error) {
      report.halt = "Couldn’t update this export. " + errorText(error);
    }
  }
  const JobOutcome outcome = JobOutcome::of(report);
  if (job->agent && job->agent->onReport) job->agent->onReport(report);
  emit(events::JobFinished{job.get(), &report, outcome});
  if (job->onFinished) job->onFinished(outcome);
  if (!hasWork()) emit(events::Drained{});
  return true;
}

void ExportController::stopAndWait() {
  requestStop();
  m_executor.waitUntil([this] { return idle(); });
}

void ExportController::enqueueJob(std::unique_ptr<Job> job) {
  m_held = false;
  const Job* queued = job.get();
  m_waiting.push_back(std::move(job));
  emit(events::JobQueued{queued});
  if (idle()) onOwner([this] { pump(); });
}

void ExportController::pump() {
  if (busy() || m_held || m_interrupted) return;
  if (m_waiting.empty()) return;
  m_active = std::move(m_waiting.front());
  m_waiting.pop_front();
  m_report = JobReport{};
  m_report.deferred = m_active->description.deferredCount;
  m_next = m_settled = 0;
  m_renderLaneBusy = false;
  m_publishing = 0;
  m_haltText.reset();
  m_stop = false;
  m_cancelOnly = false;
  m_halted = false;
  advance();
}

void ExportController::advance() {
  const Job& job = *m_active;
  const bool inFlight = m_renderLaneBusy || m_publishing > 0 || m_settled < m_next;
  if (m_interrupted) {
    // A simulated crash: the job just ends, as the process would have.
    if (!inFlight) {
      m_active.reset();
      emit(events::Drained{});
    }
    return;
  }
  const bool goOn = !m_stop && !m_halted && m_next < job.items.size();
  // Item k starts once item k - 2 is settled: one render may wait for the
  // publisher, never more.
  if (goOn && !m_renderLaneBusy && m_settled + 1 >= m_next) {
    startItem(m_next++);
    return;
  }
  if (!goOn && !inFlight) finishJob();
}

void ExportController::startItem(size_t index) {
  const Job& job = *m_active;
  auto run = std::make_shared<ItemRun>();
  run->job = &job;
  run->index = index;
  emit(events::ItemStarted{&job, index});
  const JobItem& item = job.items[index];
  if (item.unavailable) {
    run->end(ItemEnding::failed);
    run->result.errorText = *item.unavailable;
    settle(*run);
    advance();
    return;
  }
  // The item is running from here. The queue file learns it with the next
  // change it saves anyway (its reserved name): a crash before that leaves
  // nothing to settle, and the read itself is counted in the ledger.
  if (!job.oneRunOnly) m_queue.markUnsaved(job.id, item.id, ExportQueueItemState::running);
  m_renderLaneBusy = true;
  run->phase = ItemPhase::reading;
  m_executor.run(kRenderLane, [this, run] {
    readAndRender(run);
    onOwner([this, run] { rendered(run); });
  });
}

bool ExportController::stopBetweenSteps(ItemRun& run) const {
  if (m_stop) run.end(ItemEnding::stopped);
  return m_stop;
}

void ExportController::readAndRender(const Run& shared) {
  ItemRun& run = *shared;
  const Job& job = *run.job;
  const JobItem& item = run.item();
  Result& result = run.result;
  try {
    const auto loadStart = std::chrono::steady_clock::now();
    SourceImage source = [&] {
      const ReadAttempt attempt(m_ledger, job, item);
      return ResampleEngine::load(item.url);
    }();
    run.timings["load"] = secondsSince(loadStart);
    run.format = job.options().resolvedFormat(item.url);
    if (source.bitsPerComponent == 16 && !encoding::supports16Bit(run.format) &&
        !job.description.confirmed16BitReduction) {
      run.end(ItemEnding::skipped);
      // A person who started the job could have confirmed and did not; a
      // request from another program or the file manager had nobody to ask.
      result.errorText =
          job.agent || job.description.fromFinder ? kUnconfirmedReduction : kUnconfirmedDisclosure;
      return;
    }
    if (source.bitsPerComponent == 16 && run.format == ExportFormat::webp)
      result.advisories.push_back("16-bit source reduced to 8-bit for WebP.");
    if (stopBetweenSteps(run)) return;

    // Size and claims.
    run.facts = source;
    run.facts.bitmap.reset();
    run.sourceWidth = source.orientedWidth();
    run.sourceHeight = source.orientedHeight();
    if (item.plannedSize) {
      const auto [width, height] = *item.plannedSize;
      if (sidesSwapped(width, height, run.sourceWidth, run.sourceHeight))
        throw PlanContradicted(item.url, run.sourceWidth, run.sourceHeight);
      run.size.width = width;
      run.size.height = height;
      run.size.scaleFactor = static_cast<double>(width) / std::max<int64_t>(1, run.sourceWidth);
    } else {
      run.size = job.options().resolvedSize(run.sourceWidth, run.sourceHeight,
                                            source.bitsPerComponent, run.format);
    }
    // The plan admitted what the header said; the decoded source has the
    // last word (an item planned without a header, a depth the header hid).
    if (const auto refusal = memoryRefusal(run.sourceWidth, run.sourceHeight, run.size,
                                           job.options(), run.format, source.bitsPerComponent)) {
      run.end(ItemEnding::failed);
      result.errorText = refusal->explanation;
      return;
    }
    run.claims =
        ClaimLaw::resolve(job.options().method, false, source.bitsPerComponent, run.format).codes;

    // The name is reserved on the owner while the render runs here; nothing
    // reaches the destination before the reservation is on disk.
    run.phase = ItemPhase::rendering;
    onOwner([this, shared] { reserveOutput(*shared); });
    const auto progress = [this, job = run.job, index = run.index](int64_t done, int64_t total) {
      if (total <= 0) return;
      const double fraction = static_cast<double>(done) / static_cast<double>(total);
      onOwner([this, job, index, fraction] {
        if (m_active.get() == job) emit(events::ItemProgress{job, index, fraction});
      });
    };
    // A file written as it renders goes straight to the destination's file
    // system, unnamed until it is staged, instead of being held in memory.
    const fs::path folder =
        item.assignedOutput ? item.assignedOutput->parent_path() : item.destination;
    run.encoded = renderAndEncode(std::move(source), job.options(), run.size, run.format,
                                  run.claims, m_context.estimates, progress, nullptr, folder);
    for (const auto& [stage, seconds] : run.encoded.timings) run.timings[stage] = seconds;
  } catch (const Error& error) {
    run.fail(error);
  } catch (const std::exception& error) {
    run.end(ItemEnding::failed);
    result.errorText = std::string("The export failed. ") + error.what();
  }
}

void ExportController::reserveOutput(ItemRun& run) {
  const Job& job = *run.job;
  const JobItem& item = run.item();
  const auto end = [&](ItemEnding how) {
    if (!run.reservationEnding) run.reservationEnding = how;
  };
  if (m_halted) return end(ItemEnding::heldByHalt);
  const ReceiptLocation receipts{m_context.receiptsFolder};
  // An earlier attempt whose bookkeeping was lost (a power cut) may have
  // published this very item already: it is not exported twice.
  if (item.assignedOutput && entryExists(*item.assignedOutput) &&
      Receipt::describesPublishedItem(*item.assignedOutput, item.id, receipts)) {
    run.output = *item.assignedOutput;
    run.receiptPath = receipts.existingURL(run.output).value_or(fs::path());
    return end(ItemEnding::alreadyPublished);
  }
  try {
    // Names other unfinished items hold count as taken, so two exports of
    // a queue never aim at one name.
    std::set<fs::path> reserved = m_queue.reservedOutputs(item.id);
    for (const auto& other : job.items)
      if (other.id != item.id && other.assignedOutput) reserved.insert(*other.assignedOutput);
    const auto taken = [&](const fs::path& path) {
      return reserved.contains(path) || entryExists(path);
    };
    if (item.assignedOutput) {
      run.output = ExportPlanner::reclaim(*item.assignedOutput, item.url,
                                          job.description.replaceExisting(), taken);
    } else {
      const OutputNaming naming{item.url,        item.destination, run.size.width, run.size.height,
                                run.sourceWidth, run.format,       item.batchIndex};
      run.output = ExportPlanner::outputFor(job.description, naming, taken);
    }
    run.receiptPath = receipts.url(run.output, job.description.receiptsBesideExports);
    ExportOperationRecord record;
    record.operationID = ExportOperationLedger::makeOperationID();
    record.jobID = job.id;
    record.itemID = item.id;
    record.sourcePath = item.url.string();
    record.plannedAt = std::chrono::duration<double>(m_context.clock().time_since_epoch()).count();
    record.intendedOutputPath = run.output.string();
    record.stagedPath = ExportOperationLedger::stagedURL(run.output, record.operationID).string();
    record.stagedReceiptPath =
        (run.receiptPath.parent_path() / (".tarnbloom-" + record.operationID + ".receipt.tmp"))
            .string();
    m_ledger.write(record);
    run.record = record;
  } catch (const Error& error) {
    run.reservationError = errorText(error);
    run.reservationDetails = error.details();
    return end(ItemEnding::failed);
  }
  if (job.oneRunOnly) return;
  changeQueue([&] {
    m_queue.recordIntendedOutput(job.id, item.id, run.output.string(), run.size.width,
                                 run.size.height, run.record->operationID);
  });
  if (m_halted) end(ItemEnding::heldByHalt);
}

void ExportController::rendered(const Run& run) {
  m_renderLaneBusy = false;
  // What the reservation decided outweighs how the render went.
  if (run->reservationEnding) {
    run->ending = run->reservationEnding;
    run->result.errorText = run->reservationError;
    run->result.errorDetails = run->reservationDetails;
  }
  if (!run->ending) stopBetweenSteps(*run);
  if (run->ending) {
    settle(*run);
  } else {
    run->phase = ItemPhase::publishing;
    ++m_publishing;
    m_executor.run(kPublishLane, [this, run] {
      publish(*run);
      onOwner([this, run] {
        --m_publishing;
        settle(*run);
        advance();
      });
    });
  }
  advance();
}

void ExportController::publish(ItemRun& run) {
  const Job& job = *run.job;
  const JobItem& item = run.item();
  ExportOperationRecord& record = *run.record;
  const fs::path& output = run.output;
  try {
    if (m_halted) return run.end(ItemEnding::heldByHalt);
    if (stopBetweenSteps(run)) return;
    // The staging file beside the destination.
    try {
      m_dependencies.writeStaged(record.stagedPath, run.encoded);
    } catch (const FileError& error) {
      throw WriteFailure(output, error.errnoValue());
    }
    if (stopBetweenSteps(run)) return;

    // The receipt, then the record says "publishing".
    ReceiptInputs inputs;
    inputs.sourcePath = item.url;
    inputs.sourceSHA256 = run.facts.sourceHash.value_or("");
    inputs.sourceWidth = run.sourceWidth;
    inputs.sourceHeight = run.sourceHeight;
    inputs.sourceBitDepth = run.facts.bitsPerComponent;
    inputs.outputPath = output;
    // Taken over the bytes as the writer produced them, not read back.
    inputs.outputSHA256 = run.encoded.sha256;
    inputs.outputWidth = run.encoded.width;
    inputs.outputHeight = run.encoded.height;
    inputs.canvas = run.encoded.canvas;
    inputs.padding = run.encoded.padding;
    inputs.crop = run.encoded.cropRect;
    inputs.resampledWidth = run.size.width;
    inputs.resampledHeight = run.size.height;
    inputs.format = run.format;
    inputs.options = job.options();
    inputs.jpegReport = run.encoded.jpegReport;
    inputs.webpOptions = run.encoded.webpOptions;
    inputs.heifQuality = run.encoded.heifQuality;
    inputs.metadataDropped = run.encoded.metadataDropped;
    inputs.timings = run.timings;
    inputs.jobID = job.id;
    inputs.itemID = item.id;
    inputs.operationID = record.operationID;
    if (job.options().method == ResampleMethod::estimate && m_context.estimates) {
      EstimateEngine& engine = *m_context.estimates;
      inputs.estimate =
          EstimateProvenance{EstimateEngine::modelName,
                             EstimateEngine::modelVersion,
                             engine.artifactDigest(),
                             EstimateEngine::tilingText(),
                             EstimateEngine::computeUnits,
                             EstimateEngine::clampStrength(job.options().estimateStrength),
                             engine.precisionText()};
    }
    const auto document =
        Receipt::build(m_context.appVersion, m_context.appBuild, m_context.clock(), inputs);
    // The source must still be what was rendered, and never the destination.
    ResampleEngine::validateDestination(output, run.facts);
    // A receipt that cannot be written at all (its folder unusable) does
    // not cost the user the export: the file is published alone and the
    // summary says why it has no receipt.
    std::optional<ReceiptPairPublication> publication;
    try {
      ReceiptLocation::ensureParentExists(run.receiptPath);
      publication = ReceiptPairPublication::prepare(
          record.operationID, record.stagedPath, output, document, run.receiptPath,
          record.stagedReceiptPath, m_queue.stateDirectory(), run.encoded.size);
    } catch (const FileError& error) {
      const bool receiptSide = error.path() == run.receiptPath.parent_path() ||
                               error.path() == fs::path(record.stagedReceiptPath);
      if (!receiptSide) throw;
      run.result.receiptError = errorText(error);
    }
    m_ledger.advance(record, OperationStage::publishing);
    if (stopBetweenSteps(run)) return;

    // Output and receipt together, or neither.
    try {
      if (publication)
        publication->publish(job.description.replaceExisting());
      else
        ReceiptPairPublication::publishOutputAlone(record.stagedPath, output,
                                                   job.description.replaceExisting());
    } catch (const FileError& error) {
      throw WriteFailure(output, error.errnoValue());
    }
    run.published = true;
    run.encoded.bytes = {};
    run.encoded.file.reset();

    Result& result = run.result;
    result.output = output;
    if (publication) result.receipt = run.receiptPath;
    result.width = run.encoded.width;
    result.height = run.encoded.height;
    result.format = run.format;
    result.timings = run.timings;
    if (run.encoded.jpegReport) {
      result.floorHit = run.encoded.jpegReport->floorHit;
      result.jpegQuality = run.encoded.jpegReport->qualityUsed;
    }
    recordCompletion(record);
    run.end(ItemEnding::exported);
  } catch (const ExportInterrupted&) {
    run.end(ItemEnding::interrupted);
  } catch (const Error& error) {
    // Failing after the file was published leaves it standing unrecorded.
    run.fail(error);
    if (run.published) run.ending = ItemEnding::unrecorded;
  } catch (const std::exception& error) {
    run.end(run.published ? ItemEnding::unrecorded : ItemEnding::failed);
    run.result.errorText = std::string("The export failed. ") + error.what();
  }
}

void ExportController::recordCompletion(ExportOperationRecord& record) {
  if (record.stage < OperationStage::published) m_ledger.advance(record, OperationStage::published);
  if (m_dependencies.hooks.afterPublished) m_dependencies.hooks.afterPublished();
}

void ExportController::settle(ItemRun& run) {
  const Job& job = *run.job;
  const JobItem& item = run.item();
  Result& result = run.result;
  result.source = item.url;
  result.method = job.options().method;
  run.phase = ItemPhase::settled;
  ++m_settled;
  const auto mark = [&](ExportQueueItemState state, std::optional<std::string> output = {},
                        std::optional<std::string> error = {}) {
    if (job.oneRunOnly) return;
    changeQueue([&] { m_queue.mark(job.id, item.id, state, output, error); });
  };
  // An export that did not get as far as publishing leaves nothing behind.
  if (run.record && !run.published && run.ending != ItemEnding::interrupted)
    m_ledger.discard(*run.record);
  switch (*run.ending) {
    case ItemEnding::interrupted:
      // A simulated crash: no more bookkeeping of any kind.
      m_interrupted = true;
      return;
    case ItemEnding::exported:
      result.kind = Result::Kind::exported;
      // The queue learns of the file with its next save, and the record
      // goes only after that: a crash in between finds the record
      // "published" and counts the file done.
      if (!job.oneRunOnly)
        m_queue.markUnsaved(job.id, item.id, ExportQueueItemState::completed,
                            result.output->string());
      m_unsavedCompletions.push_back(run.record->operationID);
      break;
    case ItemEnding::alreadyPublished:
      result.kind = Result::Kind::exported;
      result.output = run.output;
      if (!run.receiptPath.empty()) result.receipt = run.receiptPath;
      result.width = run.size.width;
      result.height = run.size.height;
      result.format = run.format;
      mark(ExportQueueItemState::completed, result.output->string());
      break;
    case ItemEnding::failed:
    case ItemEnding::skipped:
      result.kind =
          *run.ending == ItemEnding::failed ? Result::Kind::failed : Result::Kind::skipped;
      mark(ExportQueueItemState::failed, std::nullopt, result.errorText);
      break;
    case ItemEnding::stopped:
      result.kind = Result::Kind::stopped;
      mark(ExportQueueItemState::stopped);
      break;
    case ItemEnding::heldByHalt:
      // It stays for the next run, as if it had not started.
      result.kind = Result::Kind::stopped;
      mark(ExportQueueItemState::pending);
      break;
    case ItemEnding::unrecorded: {
      result.kind = Result::Kind::exported;
      const std::string name = result.output.value_or(result.source).filename().string();
      halt("“" + name + "” was exported, but Tarnbloom could not finish recording it. " +
           result.errorText +
           " The file is on disk and will not be exported again; the remaining files are paused "
           "until this is fixed.");
      result.errorText.clear();
      break;
    }
  }
  emit(events::ItemFinished{&job, run.index, &result});
  m_report.results.push_back(std::move(result));
}

void ExportController::changeQueue(const std::function<void()>& change) {
  try {
    change();
    clearSavedCompletions();
  } catch (const ExportQueueError& error) {
    halt("Couldn’t update this export. " + errorText(error));
  }
}

void ExportController::halt(std::string text) {
  if (!m_haltText) m_haltText = std::move(text);
  m_halted = true;
}

void ExportController::clearSavedCompletions() {
  for (const auto& operationID : m_unsavedCompletions) m_ledger.clear(operationID);
  m_unsavedCompletions.clear();
}

void ExportController::finishJob() {
  Job& job = *m_active;
  // The last completions are saved now; should that fail, their records
  // stay "published" and the next launch counts them done.
  if (!m_unsavedCompletions.empty()) {
    if (job.oneRunOnly)
      clearSavedCompletions();
    else
      changeQueue([&] { m_queue.commit(); });
  }
  // Items never started: a stop marks them stopped, a halt leaves them
  // pending for the next run.
  for (size_t i = m_next; i < job.items.size(); ++i) {
    m_report.declined.push_back(job.items[i].url);
    if (m_stop && !m_halted && !job.oneRunOnly)
      m_queue.markUnsaved(job.id, job.items[i].id, ExportQueueItemState::stopped);
  }
  if (m_stop && !m_halted && !job.oneRunOnly && m_next < job.items.size())
    changeQueue([&] { m_queue.commit(); });
  m_report.stopped = m_stop;
  m_report.halt = m_haltText;
  if (m_halted) m_held = true;
  if (m_cancelOnly && !m_halted) m_held = false;
  const JobOutcome outcome = JobOutcome::of(m_report);
  const std::unique_ptr<Job> finished = std::move(m_active);
  const JobReport report = std::move(m_report);
  if (finished->agent && finished->agent->onReport) finished->agent->onReport(report);
  emit(events::JobFinished{finished.get(), &report, outcome});
  if (finished->onFinished) finished->onFinished(outcome);
  if (m_held || m_waiting.empty())
    emit(events::Drained{});
  else
    onOwner([this] { pump(); });
}

}  // namespace tarnbloom::exporting
