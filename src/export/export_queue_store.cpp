#include "export/export_queue_store.h"

#include <fcntl.h>
#include <stdio.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <nlohmann/json.hpp>
#include <set>

#include "canvas/canvas_json.h"
#include "export/file_bookmark.h"
#include "export/receipt.h"
#include "support/files.h"
#include "support/iso_time.h"
#include "support/uuid.h"

namespace tarnbloom::exporting {

namespace fs = std::filesystem;
using json = nlohmann::json;
using ordered_json = nlohmann::ordered_json;

namespace {

constexpr std::string_view kStateNames[] = {"pending", "running", "completed", "failed", "stopped"};

template <typename T>
void putOptional(ordered_json& object, const char* key, const std::optional<T>& value) {
  if (value) object[key] = *value;
}

ordered_json encodeItem(const PersistedExportItem& item) {
  ordered_json object = {
      {"id", item.id},
      {"inputBookmark", item.inputBookmark},
      {"destinationBookmark", item.destinationBookmark},
      {"sourceName", item.sourceName},
      {"state", rawValue(item.state)},
  };
  putOptional(object, "outputPath", item.outputPath);
  putOptional(object, "errorText", item.errorText);
  putOptional(object, "batchIndex", item.batchIndex);
  putOptional(object, "assignedOutputPath", item.assignedOutputPath);
  putOptional(object, "operationID", item.operationID);
  putOptional(object, "intendedOutputPath", item.intendedOutputPath);
  putOptional(object, "plannedWidth", item.plannedWidth);
  putOptional(object, "plannedHeight", item.plannedHeight);
  return object;
}

ordered_json encodeJob(const PersistedExportJob& job) {
  ordered_json object = {
      {"id", job.id},
      {"options", job.options.json()},
      {"fromFinder", job.fromFinder},
      {"quitWhenDone", job.quitWhenDone},
  };
  putOptional(object, "folderTemplate", job.folderTemplate);
  putOptional(object, "folderSKU", job.folderSKU);
  putOptional(object, "folderDate", job.folderDate);
  if (job.replaceExisting) object["replaceExisting"] = true;
  if (job.confirmed16BitReduction) object["confirmed16BitReduction"] = true;
  putOptional(object, "receiptsBesideExports", job.receiptsBesideExports);
  putOptional(object, "created", job.created);
  if (job.canvas) object["canvas"] = canvas::canvasJson(*job.canvas);
  if (job.canvasConfirmation)
    object["canvasConfirmation"] = canvas::confirmationJson(*job.canvasConfirmation);
  return object;
}

// Readers that throw ExportQueueError::decoding naming the key.
template <typename T>
T required(const json& object, const char* key) {
  const auto found = object.find(key);
  if (found == object.end())
    throw ExportQueueError::decoding(std::string("“") + key + "” is missing");
  try {
    return found->get<T>();
  } catch (const json::exception&) {
    throw ExportQueueError::decoding(std::string("“") + key + "” has the wrong type");
  }
}

template <typename T>
std::optional<T> optional(const json& object, const char* key) {
  const auto found = object.find(key);
  if (found == object.end() || found->is_null()) return std::nullopt;
  return required<T>(object, key);
}

PersistedExportItem decodeItem(const json& object) {
  if (!object.is_object()) throw ExportQueueError::decoding("an item is not an object");
  PersistedExportItem item;
  item.id = required<std::string>(object, "id");
  item.inputBookmark = required<std::string>(object, "inputBookmark");
  item.destinationBookmark = required<std::string>(object, "destinationBookmark");
  item.sourceName = required<std::string>(object, "sourceName");
  const auto state = exportQueueItemStateFromRawValue(required<std::string>(object, "state"));
  if (!state) throw ExportQueueError::decoding("an item has an unknown state");
  item.state = *state;
  item.outputPath = optional<std::string>(object, "outputPath");
  item.errorText = optional<std::string>(object, "errorText");
  item.batchIndex = optional<int64_t>(object, "batchIndex");
  item.assignedOutputPath = optional<std::string>(object, "assignedOutputPath");
  item.operationID = optional<std::string>(object, "operationID");
  item.intendedOutputPath = optional<std::string>(object, "intendedOutputPath");
  item.plannedWidth = optional<int64_t>(object, "plannedWidth");
  item.plannedHeight = optional<int64_t>(object, "plannedHeight");
  return item;
}

PersistedExportJob decodeJob(const json& object) {
  if (!object.is_object()) throw ExportQueueError::decoding("a job is not an object");
  PersistedExportJob job;
  job.id = required<std::string>(object, "id");
  const auto options = object.find("options");
  if (options == object.end()) throw ExportQueueError::decoding("“options” is missing");
  job.options = ExportOptionsSnapshot::fromJson(*options);
  job.fromFinder = required<bool>(object, "fromFinder");
  job.quitWhenDone = required<bool>(object, "quitWhenDone");
  job.folderTemplate = optional<std::string>(object, "folderTemplate");
  job.folderSKU = optional<std::string>(object, "folderSKU");
  job.folderDate = optional<std::string>(object, "folderDate");
  job.replaceExisting = optional<bool>(object, "replaceExisting").value_or(false);
  job.confirmed16BitReduction = optional<bool>(object, "confirmed16BitReduction").value_or(false);
  job.receiptsBesideExports = optional<bool>(object, "receiptsBesideExports");
  job.created = optional<std::string>(object, "created");
  if (const auto canvas = object.find("canvas"); canvas != object.end() && !canvas->is_null()) {
    job.canvas = canvas::canvasFromJson(*canvas);
    job.canvasUnreadable = !job.canvas;
  }
  if (const auto confirmation = object.find("canvasConfirmation");
      confirmation != object.end() && !confirmation->is_null()) {
    job.canvasConfirmation = canvas::confirmationFromJson(*confirmation);
    job.canvasUnreadable = job.canvasUnreadable || !job.canvasConfirmation;
  }
  const auto items = object.find("items");
  if (items == object.end() || !items->is_array())
    throw ExportQueueError::decoding("“items” is missing");
  for (const auto& item : *items) job.items.push_back(decodeItem(item));
  return job;
}

bool isUnfinished(ExportQueueItemState state) {
  return state == ExportQueueItemState::pending || state == ExportQueueItemState::running;
}

// Temporary files of atomic writes a crash interrupted (".name.UUID.tmp").
// Only this process writes the state folder while it holds the queue, so
// any such file is dead.
void removeDeadTemporaries(const fs::path& folder, std::vector<fs::path>& removed) {
  std::error_code error;
  for (fs::directory_iterator it(folder, error), end; !error && it != end; it.increment(error)) {
    const std::string name = it->path().filename().string();
    if (name.starts_with(".") && name.ends_with(".tmp") && it->is_regular_file(error))
      removeFileIfPresent(it->path(), &removed);
  }
}

}  // namespace

std::string_view rawValue(ExportQueueItemState state) {
  return kStateNames[static_cast<int>(state)];
}

std::optional<ExportQueueItemState> exportQueueItemStateFromRawValue(std::string_view text) {
  for (int i = 0; i < 5; ++i)
    if (kStateNames[i] == text) return static_cast<ExportQueueItemState>(i);
  return std::nullopt;
}

bool PersistedExportJob::hasUnfinishedItems() const {
  return std::any_of(items.begin(), items.end(),
                     [](const auto& i) { return isUnfinished(i.state); });
}

JobDescription PersistedExportJob::description() const {
  JobDescription description;
  description.options = options.options();  // throws unreadableSettings
  if (canvasUnreadable) throw ExportQueueError::unreadableSettings();
  description.options.canvas = canvas;
  description.options.canvasConfirmation = canvasConfirmation;
  description.fromFinder = fromFinder;
  description.quitWhenDone = quitWhenDone;
  if (folderTemplate)
    description.folderBatch =
        FolderBatchNaming{{}, *folderTemplate, folderSKU.value_or(""), folderDate};
  description.collision = replaceExisting ? CollisionPolicy::replace : CollisionPolicy::number;
  description.receiptsBesideExports = receiptsBesideExports.value_or(false);
  description.confirmed16BitReduction = confirmed16BitReduction;
  return description;
}

ExportQueueStore::ExportQueueStore(fs::path stateDirectory, ExportContext::Clock clock)
    : m_directory(std::move(stateDirectory)), m_clock(std::move(clock)) {
  load();
}

void ExportQueueStore::load() {
  const fs::path file = fileURL();
  if (!entryExists(file)) return;
  std::string text;
  try {
    const auto bytes = readWholeFile(file, size_t{1} << 30);
    text.assign(reinterpret_cast<const char*>(bytes.data()), bytes.size());
  } catch (const FileError& e) {
    m_loadFailure = ExportQueueLoadFailure::unreadable(e.description());
    m_persists = false;
    return;
  }
  const json document = json::parse(text, nullptr, false);
  // The version is read on its own first, so a newer file is recognised
  // even when the rest of it means nothing to this version.
  if (document.is_object()) {
    const auto version = document.find("schemaVersion");
    if (version != document.end() && version->is_number_integer() && version->get<int64_t>() >= 2) {
      m_loadFailure = ExportQueueLoadFailure::newer(version->get<int64_t>());
      m_persists = false;
      return;
    }
  }
  try {
    if (!document.is_object()) throw ExportQueueError::decoding("not a JSON object");
    if (required<int64_t>(document, "schemaVersion") != kSchemaVersion)
      throw ExportQueueError::decoding("unknown format");
    const auto jobs = document.find("jobs");
    if (jobs == document.end() || !jobs->is_array())
      throw ExportQueueError::decoding("“jobs” is missing");
    std::vector<PersistedExportJob> loaded;
    for (const auto& job : *jobs) loaded.push_back(decodeJob(job));
    m_jobs = std::move(loaded);
  } catch (const ExportQueueError&) {
    m_loadFailure = ExportQueueLoadFailure::damaged();
    const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(
                             std::chrono::system_clock::now().time_since_epoch())
                             .count();
    const fs::path aside =
        m_directory / (file.stem().string() + ".corrupt-" + std::to_string(seconds) + ".json");
    // Never over an earlier copy: that would lose the first damaged file.
    if (::renameat2(AT_FDCWD, file.c_str(), AT_FDCWD, aside.c_str(), RENAME_NOREPLACE) == 0) {
      m_quarantinedAt = aside;
    } else {
      m_quarantineFailed = true;
      m_persists = false;
    }
  }
}

void ExportQueueStore::save() {
  if (!m_persists) return;
  // Keep the newest finished jobs only, so the file (rewritten on every
  // change) does not grow with every export ever made.
  size_t finishedJobs = 0, finishedItems = 0;
  std::set<std::string> dropped;
  for (auto it = m_jobs.rbegin(); it != m_jobs.rend(); ++it) {
    if (it->hasUnfinishedItems()) continue;
    if (++finishedJobs > kFinishedJobsKept ||
        (finishedItems += it->items.size()) > kFinishedItemsKept)
      dropped.insert(it->id);
  }
  if (!dropped.empty())
    std::erase_if(m_jobs, [&](const PersistedExportJob& job) { return dropped.contains(job.id); });
  // Jobs and items keep their text from the last save until they change,
  // so a save of a long job costs a copy, not an encoding of every item.
  std::string text = "{\n\"schemaVersion\": " + std::to_string(kSchemaVersion) + ",\n\"jobs\": [";
  std::unordered_map<std::string, std::string> encoded;
  const auto textOf = [&](const std::string& key, const auto& encode) -> const std::string& {
    std::string& slot = encoded[key];
    if (const auto cached = m_encoded.find(key); cached != m_encoded.end())
      slot = std::move(cached->second);
    else
      slot = encode();
    return slot;
  };
  try {
    for (size_t i = 0; i < m_jobs.size(); ++i) {
      const PersistedExportJob& job = m_jobs[i];
      std::string header = textOf("job " + job.id, [&] { return encodeJob(job).dump(); });
      header.pop_back();  // the closing brace: the items follow
      text += (i ? ",\n" : "\n") + header + ",\"items\":[";
      for (size_t k = 0; k < job.items.size(); ++k)
        text += (k ? ",\n" : "\n") +
                textOf(job.items[k].id, [&] { return encodeItem(job.items[k]).dump(); });
      text += "]}";
    }
  } catch (const nlohmann::json::exception&) {
    throw ExportQueueError::saveFailed("a file name in it is not valid UTF-8.");
  }
  text += "\n]\n}\n";
  m_encoded = std::move(encoded);
  try {
    std::error_code error;
    fs::create_directories(m_directory, error);
    // Atomic but not synced: a crash of this process never leaves a torn
    // file, and the ledger, not this file, decides what was published.
    writeFileAtomically(fileURL(), text, Durability::ordered);
  } catch (const Error& e) {
    throw ExportQueueError::saveFailed(e.description());
  }
}

void ExportQueueStore::commit() { save(); }

const PersistedExportJob& ExportQueueStore::enqueue(const JobDescription& description,
                                                    std::span<const PlannedItem> items) {
  PersistedExportJob job;
  job.id = makeUuid();
  job.options = ExportOptionsSnapshot(description.options);
  job.fromFinder = description.fromFinder;
  job.quitWhenDone = description.quitWhenDone;
  if (const auto& batch = description.folderBatch) {
    job.folderTemplate = batch->templ;
    job.folderSKU = batch->sku;
    job.folderDate = batch->exportDate;
  }
  job.replaceExisting = description.replaceExisting();
  job.confirmed16BitReduction = description.confirmed16BitReduction;
  job.receiptsBesideExports = description.receiptsBesideExports;
  job.created = formatIso8601(m_clock());
  job.canvas = description.options.canvas;
  job.canvasConfirmation = description.options.canvasConfirmation;
  for (const PlannedItem& planned : items) {
    PersistedExportItem item;
    item.id = makeUuid();
    item.sourceName = planned.url.filename().string();
    try {
      item.inputBookmark = FileBookmark::create(planned.url);
      item.destinationBookmark = FileBookmark::create(planned.destination);
    } catch (const FileError&) {
      throw ExportQueueError::permissionLost(item.sourceName);
    }
    item.batchIndex = planned.batchIndex;
    if (planned.assignedOutput) item.assignedOutputPath = planned.assignedOutput->string();
    if (planned.plannedSize) {
      item.plannedWidth = planned.plannedSize->first;
      item.plannedHeight = planned.plannedSize->second;
    }
    job.items.push_back(std::move(item));
  }
  m_jobs.push_back(std::move(job));
  try {
    save();
  } catch (...) {
    m_jobs.pop_back();
    throw;
  }
  return m_jobs.back();
}

PersistedExportItem* ExportQueueStore::mutableItem(const std::string& jobID,
                                                   const std::string& itemID) {
  for (auto& job : m_jobs)
    if (job.id == jobID)
      for (auto& item : job.items)
        if (item.id == itemID) {
          m_encoded.erase(itemID);
          return &item;
        }
  return nullptr;
}

void ExportQueueStore::mark(const std::string& jobID, const std::string& itemID,
                            ExportQueueItemState state, std::optional<std::string> output,
                            std::optional<std::string> error) {
  PersistedExportItem* item = mutableItem(jobID, itemID);
  if (!item) return;
  item->state = state;
  item->outputPath = std::move(output);
  item->errorText = std::move(error);
  if (!isUnfinished(state)) item->operationID.reset();
  save();
}

void ExportQueueStore::markUnsaved(const std::string& jobID, const std::string& itemID,
                                   ExportQueueItemState state, std::optional<std::string> output) {
  PersistedExportItem* item = mutableItem(jobID, itemID);
  if (!item) return;
  item->state = state;
  item->outputPath = std::move(output);
  item->errorText.reset();
  if (!isUnfinished(state)) item->operationID.reset();
}

void ExportQueueStore::recordIntendedOutput(const std::string& jobID, const std::string& itemID,
                                            const std::string& path, int64_t width, int64_t height,
                                            const std::string& operationID) {
  PersistedExportItem* item = mutableItem(jobID, itemID);
  if (!item) return;
  item->state = ExportQueueItemState::running;
  item->intendedOutputPath = path;
  item->plannedWidth = width;
  item->plannedHeight = height;
  item->operationID = operationID;
  save();
}

std::vector<const PersistedExportJob*> ExportQueueStore::pendingJobs() const {
  std::vector<const PersistedExportJob*> pending;
  for (const auto& job : m_jobs)
    if (job.hasUnfinishedItems()) pending.push_back(&job);
  return pending;
}

std::set<fs::path> ExportQueueStore::reservedOutputs(const std::string& exceptItem) const {
  std::set<fs::path> reserved;
  for (const auto& job : m_jobs)
    for (const auto& item : job.items) {
      if (item.id == exceptItem || !isUnfinished(item.state)) continue;
      if (item.assignedOutputPath) reserved.insert(*item.assignedOutputPath);
      if (item.intendedOutputPath) reserved.insert(*item.intendedOutputPath);
    }
  return reserved;
}

const PersistedExportJob* ExportQueueStore::job(const std::string& id) const {
  for (const auto& job : m_jobs)
    if (job.id == id) return &job;
  return nullptr;
}

std::pair<const PersistedExportJob*, const PersistedExportItem*> ExportQueueStore::item(
    const std::string& id) const {
  for (const auto& job : m_jobs)
    for (const auto& item : job.items)
      if (item.id == id) return {&job, &item};
  return {nullptr, nullptr};
}

std::vector<const PersistedExportItem*> ExportQueueStore::retryableItems(
    const PersistedExportJob& job) const {
  std::vector<const PersistedExportItem*> items;
  for (const auto& item : job.items)
    if (item.state == ExportQueueItemState::failed || item.state == ExportQueueItemState::stopped)
      items.push_back(&item);
  return items;
}

bool ExportQueueStore::retry(const std::string& itemID) {
  for (auto& job : m_jobs)
    for (auto& item : job.items)
      if (item.id == itemID && (item.state == ExportQueueItemState::failed ||
                                item.state == ExportQueueItemState::stopped)) {
        m_encoded.erase(item.id);
        item.state = ExportQueueItemState::pending;
        item.errorText.reset();
        save();
        return true;
      }
  return false;
}

std::vector<std::string> ExportQueueStore::jobsHolding(
    const std::vector<std::string>& itemIDs) const {
  const std::set<std::string> wanted(itemIDs.begin(), itemIDs.end());
  std::vector<std::string> jobs;
  for (const auto& job : m_jobs)
    if (std::any_of(job.items.begin(), job.items.end(),
                    [&](const auto& item) { return wanted.contains(item.id); }))
      jobs.push_back(job.id);
  return jobs;
}

const PersistedExportJob* ExportQueueStore::detachForRetry(
    const std::string& jobID, const std::vector<std::string>& itemIDs) {
  const auto source =
      std::find_if(m_jobs.begin(), m_jobs.end(), [&](const auto& job) { return job.id == jobID; });
  if (source == m_jobs.end()) return nullptr;
  const std::set<std::string> wanted(itemIDs.begin(), itemIDs.end());
  const auto retryable = [&](const PersistedExportItem& item) {
    return wanted.contains(item.id) && (item.state == ExportQueueItemState::failed ||
                                        item.state == ExportQueueItemState::stopped);
  };
  PersistedExportJob retried = *source;
  retried.id = makeUuid();
  retried.created = formatIso8601(m_clock());
  retried.items.clear();
  for (const auto& item : source->items) {
    if (!retryable(item)) continue;
    PersistedExportItem copy = item;
    copy.id = makeUuid();
    copy.state = ExportQueueItemState::pending;
    copy.outputPath.reset();
    copy.errorText.reset();
    copy.operationID.reset();
    retried.items.push_back(std::move(copy));
  }
  if (retried.items.empty()) return nullptr;
  const std::vector<PersistedExportJob> before = m_jobs;
  const auto encodedBefore = m_encoded;
  std::erase_if(source->items, retryable);
  m_encoded.erase("job " + jobID);
  if (source->items.empty()) m_jobs.erase(source);
  m_jobs.push_back(std::move(retried));
  try {
    save();
  } catch (...) {
    m_jobs = before;
    m_encoded = encodedBefore;
    throw;
  }
  return &m_jobs.back();
}

void ExportQueueStore::reselect(const std::string& jobID, const std::string& itemID,
                                const std::optional<fs::path>& input,
                                const std::optional<fs::path>& destination) {
  PersistedExportItem* item = mutableItem(jobID, itemID);
  if (!item) return;
  try {
    if (input) item->inputBookmark = FileBookmark::create(*input);
    if (destination) item->destinationBookmark = FileBookmark::create(*destination);
  } catch (const FileError&) {
    throw ExportQueueError::permissionLost(item->sourceName);
  }
  save();
}

void ExportQueueStore::pruneDeclinedJob(const std::string& id) {
  std::erase_if(m_jobs, [&](const PersistedExportJob& job) { return job.id == id; });
  save();
}

fs::path ExportQueueStore::resolvedURL(const std::string& bookmark, const std::string& name) const {
  const auto url = FileBookmark::resolve(bookmark);
  if (!url) throw ExportQueueError::permissionLost(name);
  return *url;
}

RecoveryReport ExportQueueStore::recoverInterruptedWork(const ExportOperationLedger& ledger) {
  RecoveryReport report;
  for (const auto& folder : {m_directory, ledger.folder(), m_directory / "ReceiptPublications"})
    removeDeadTemporaries(folder, report.removedFiles);
  for (auto& path : ledger.removeEmptyRecords()) report.removedFiles.push_back(std::move(path));
  // Receipt publications first: they decide whether a receipt at an
  // output's place describes it, before the ledger looks at the outputs.
  auto receipts = ReceiptPairPublication::recoverInterrupted(m_directory);
  for (auto& path : receipts.removed) report.removedFiles.push_back(std::move(path));
  report.mismatchedReceipts = std::move(receipts.mismatchedReceipts);

  for (const auto& record : ledger.all()) {
    PersistedExportItem* item = mutableItem(record.jobID, record.itemID);
    const auto verdict = ledger.reconciliation(record);
    if (!item) {
      // Its job is gone from the queue: nothing will ever run it again.
      if (verdict == ExportReconciliation::notPublished) {
        removeFileIfPresent(record.stagedPath, &report.removedFiles);
        if (!record.stagedReceiptPath.empty())
          removeFileIfPresent(record.stagedReceiptPath, &report.removedFiles);
      }
      ledger.clear(record.operationID);
      ++report.recordsCleared;
      continue;
    }
    switch (verdict) {
      case ExportReconciliation::published:
        item->state = ExportQueueItemState::completed;
        item->outputPath = record.intendedOutputPath;
        item->errorText.reset();
        item->operationID.reset();
        ++report.completed;
        break;
      case ExportReconciliation::notPublished:
        removeFileIfPresent(record.stagedPath, &report.removedFiles);
        if (!record.stagedReceiptPath.empty())
          removeFileIfPresent(record.stagedReceiptPath, &report.removedFiles);
        // The reserved name stays with the item for its next run.
        item->state = ExportQueueItemState::pending;
        item->operationID.reset();
        ++report.toRunAgain;
        break;
      case ExportReconciliation::alreadyCommitted:
        break;
    }
    // The queue must know the outcome before the record goes.
    save();
    ledger.clear(record.operationID);
    ++report.recordsCleared;
  }
  // A source that took the program down while it was read does not get
  // read for ever: the second time, its item fails and the rest go on.
  for (const auto& read : ledger.interruptedReads()) {
    PersistedExportItem* item = mutableItem(read.jobID, read.itemID);
    if (item && isUnfinished(item->state) && read.attempts < kFatalReadsBeforeLeftOut) continue;
    if (item && isUnfinished(item->state)) {
      item->state = ExportQueueItemState::failed;
      item->operationID.reset();
      item->errorText = "“" + item->sourceName +
                        "” stopped the program twice while it was being read; it was left out.";
      report.leftOut.push_back(*item->errorText);
      save();
    }
    ledger.endRead(read.itemID);
  }
  for (auto& job : m_jobs)
    for (auto& item : job.items)
      if (item.state == ExportQueueItemState::running) {
        m_encoded.erase(item.id);
        item.state = ExportQueueItemState::pending;
        item.operationID.reset();
        ++report.toRunAgain;
      }
  save();
  return report;
}

}  // namespace tarnbloom::exporting
