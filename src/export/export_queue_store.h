#pragma once

#include <cstdint>
#include <filesystem>
#include <map>
#include <optional>
#include <set>
#include <span>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "export/export_context.h"
#include "export/export_job.h"
#include "export/export_operation_ledger.h"
#include "export/export_options.h"
#include "export/export_queue_error.h"

namespace tarnbloom::exporting {

enum class ExportQueueItemState { pending, running, completed, failed, stopped };
std::string_view rawValue(ExportQueueItemState state);
std::optional<ExportQueueItemState> exportQueueItemStateFromRawValue(std::string_view text);

struct PersistedExportItem {
  std::string id;
  std::string inputBookmark;        // FileBookmark data
  std::string destinationBookmark;  // of the output folder
  std::string sourceName;
  ExportQueueItemState state = ExportQueueItemState::pending;
  std::optional<std::string> outputPath;
  std::optional<std::string> errorText;
  std::optional<int64_t> batchIndex;
  std::optional<std::string> assignedOutputPath;
  std::optional<std::string> operationID;
  std::optional<std::string> intendedOutputPath;
  std::optional<int64_t> plannedWidth;
  std::optional<int64_t> plannedHeight;
};

struct PersistedExportJob {
  std::string id;
  ExportOptionsSnapshot options{ExportOptions()};
  bool fromFinder = false;
  bool quitWhenDone = false;
  std::optional<std::string> folderTemplate;
  std::optional<std::string> folderSKU;
  std::optional<std::string> folderDate;
  // Assigned outputs replace files already at their paths.
  bool replaceExisting = false;
  // A person confirmed reducing 16-bit sources to 8-bit formats.
  bool confirmed16BitReduction = false;
  // Where receipts go; unset in files from before it was recorded.
  std::optional<bool> receiptsBesideExports;
  std::optional<std::string> created;  // ISO-8601
  // Kept beside the options so that a resumed batch is composed as the
  // interrupted one would have been; one read back wrong is never applied.
  std::optional<canvas::Canvas> canvas;
  std::optional<canvas::CanvasConfirmation> canvasConfirmation;
  bool canvasUnreadable = false;
  std::vector<PersistedExportItem> items;

  bool hasUnfinishedItems() const;
  // The description it was saved from. Throws
  // ExportQueueError::unreadableSettings.
  JobDescription description() const;
};

// What launch-time recovery found and did.
struct RecoveryReport {
  int completed = 0;   // items found published: not exported again
  int toRunAgain = 0;  // items whose export must be redone
  int recordsCleared = 0;
  std::vector<std::filesystem::path> removedFiles;
  // Receipts in place whose output never arrived: kept, and reported.
  std::vector<std::filesystem::path> mismatchedReceipts;
  // Why each item left out for taking the program down was left out.
  std::vector<std::string> leftOut;
  bool foundInterruptedWork() const { return completed + toRunAgain > 0; }
};

// The persisted export queue: every job and the state of each item, in
// "export-queue.json" in the state folder. The only writer of that file;
// a file it cannot read is never deleted or overwritten.
class ExportQueueStore {
 public:
  static constexpr int kSchemaVersion = 1;
  // Finished jobs kept for the history (and at most this many of their
  // items); older ones are dropped on save, since every change rewrites
  // the whole file.
  static constexpr size_t kFinishedJobsKept = 50;
  static constexpr size_t kFinishedItemsKept = 2000;
  // Reads of one source that end with the process dying before its item
  // fails instead of being read again.
  static constexpr int kFatalReadsBeforeLeftOut = 2;

  // Loads the queue file of `stateDirectory` (created when missing).
  explicit ExportQueueStore(std::filesystem::path stateDirectory,
                            ExportContext::Clock clock = ExportContext().clock);

  const std::filesystem::path& stateDirectory() const { return m_directory; }
  std::filesystem::path fileURL() const { return m_directory / "export-queue.json"; }
  const std::optional<ExportQueueLoadFailure>& loadFailure() const { return m_loadFailure; }
  const std::optional<std::filesystem::path>& quarantinedAt() const { return m_quarantinedAt; }
  bool quarantineFailed() const { return m_quarantineFailed; }
  // False while a file this version could not read must be kept as it is:
  // new jobs then live in memory only.
  bool persists() const { return m_persists; }

  const std::vector<PersistedExportJob>& jobs() const { return m_jobs; }

  // A new job of `items`, all "pending". Throws ExportQueueError
  // (saveFailed, permissionLost); nothing is kept then.
  const PersistedExportJob& enqueue(const JobDescription& description,
                                    std::span<const PlannedItem> items);
  void mark(const std::string& jobID, const std::string& itemID, ExportQueueItemState state,
            std::optional<std::string> output = std::nullopt,
            std::optional<std::string> error = std::nullopt);
  // The same in memory only; the next save or commit() writes it.
  void markUnsaved(const std::string& jobID, const std::string& itemID, ExportQueueItemState state,
                   std::optional<std::string> output = std::nullopt);
  // Reserves the output path (and the ledger record) before any file is
  // written; the item is "running" from here.
  void recordIntendedOutput(const std::string& jobID, const std::string& itemID,
                            const std::string& path, int64_t width, int64_t height,
                            const std::string& operationID);
  // Throws ExportQueueError::saveFailed.
  void commit();

  std::vector<const PersistedExportJob*> pendingJobs() const;
  // Output paths unfinished items have reserved, but for `exceptItem`'s.
  std::set<std::filesystem::path> reservedOutputs(const std::string& exceptItem = {}) const;
  const PersistedExportJob* job(const std::string& id) const;
  // The item and its job, or nulls.
  std::pair<const PersistedExportJob*, const PersistedExportItem*> item(
      const std::string& id) const;
  std::vector<const PersistedExportItem*> retryableItems(const PersistedExportJob& job) const;
  // The jobs holding any of `itemIDs`, oldest first.
  std::vector<std::string> jobsHolding(const std::vector<std::string>& itemIDs) const;
  // Moves the failed or stopped items of `jobID` named in `itemIDs` into a
  // new job with the same settings, "pending", their reserved names kept;
  // a job left empty goes. Saves. Returns the new job, or null when none
  // of them could be retried. Throws ExportQueueError::saveFailed (and
  // then nothing moved).
  const PersistedExportJob* detachForRetry(const std::string& jobID,
                                           const std::vector<std::string>& itemIDs);
  // A failed or stopped item back to "pending"; false for other states.
  bool retry(const std::string& itemID);
  void reselect(const std::string& jobID, const std::string& itemID,
                const std::optional<std::filesystem::path>& input,
                const std::optional<std::filesystem::path>& destination);
  void pruneDeclinedJob(const std::string& id);

  // Throws ExportQueueError::permissionLost naming `name`. Stale data is
  // refreshed in the store when `job`/`item` are given.
  std::filesystem::path resolvedURL(const std::string& bookmark, const std::string& name) const;

  // Settles what a crash or quit left behind: receipt publications, ledger
  // records (published items become "completed", others run again),
  // staging files, items left "running", and reads the process did not
  // survive (an item read twice that way fails). Saves the queue.
  RecoveryReport recoverInterruptedWork(const ExportOperationLedger& ledger);

 private:
  void load();
  void save();
  PersistedExportItem* mutableItem(const std::string& jobID, const std::string& itemID);

  std::filesystem::path m_directory;
  ExportContext::Clock m_clock;
  std::vector<PersistedExportJob> m_jobs;
  // JSON text as last saved, by item id and by "job " + job id.
  std::unordered_map<std::string, std::string> m_encoded;
  std::optional<ExportQueueLoadFailure> m_loadFailure;
  std::optional<std::filesystem::path> m_quarantinedAt;
  bool m_quarantineFailed = false;
  bool m_persists = true;
};

}  // namespace tarnbloom::exporting
