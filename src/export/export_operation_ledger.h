#pragma once

#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace tarnbloom::exporting {

// How far one export got. Advanced before and after each irreversible step.
enum class OperationStage { planned, publishing, published, committed };
std::string_view rawValue(OperationStage stage);
std::optional<OperationStage> operationStageFromRawValue(std::string_view text);

// One export in progress, kept as one small JSON file.
struct ExportOperationRecord {
  std::string operationID;  // "op-" + lower-case UUID
  std::string jobID;
  std::string itemID;
  std::string sourcePath;
  std::string intendedOutputPath;
  std::string stagedPath;
  // The receipt's staging file and final place; empty before they are known.
  std::string stagedReceiptPath;
  OperationStage stage = OperationStage::planned;
  double plannedAt = 0;  // seconds since 1970
};

// Reads of one item's source that the process did not survive: started
// and never ended. Counted across launches, so a file that takes the
// program down every time it is read is left out instead of being read
// again for ever.
struct InterruptedRead {
  std::string jobID;
  std::string itemID;
  int attempts = 0;
};

enum class ExportReconciliation { alreadyCommitted, published, notPublished };

struct ExportReconciler {
  static ExportReconciliation reconcile(OperationStage stage, bool stagedExists, bool outputExists);
};

// A simulated crash, raised only by an interruption hook.
struct ExportInterrupted {};

// Lets a test stop an export right after its record says "published" and
// before the queue file learns of it, exactly as a crash there would.
struct ExportInterruptionHooks {
  std::function<void()> afterPublished;
};

class ExportOperationLedger {
 public:
  // Records live in `folder` ("Operations" in the state folder), created
  // on first write.
  explicit ExportOperationLedger(std::filesystem::path folder);

  static std::string makeOperationID();
  // ".tarnbloom-<operationID>.tmp" beside the output.
  static std::filesystem::path stagedURL(const std::filesystem::path& output,
                                         std::string_view operationID);

  // Replaces the record's file atomically; throws FileError.
  void write(const ExportOperationRecord& record) const;
  // Throws FileError when the record is missing or cannot be written.
  void advance(const std::string& operationID, OperationStage stage) const;
  // The same for a record the caller holds: its file is rewritten in place
  // with one write of the same length (records are padded for this), which
  // a crash cannot tear, instead of being read back and replaced.
  void advance(ExportOperationRecord& record, OperationStage stage) const;
  std::optional<ExportOperationRecord> record(const std::string& operationID) const;
  // Every readable record; unreadable files are skipped.
  std::vector<ExportOperationRecord> all() const;
  bool clear(const std::string& operationID) const;
  // Removes the record and its staging files.
  void discard(const ExportOperationRecord& record) const;
  ExportReconciliation reconciliation(const ExportOperationRecord& record) const;
  // Record files left empty by a crash between their creation and their
  // one write, when nothing had been staged yet; returns the paths removed.
  std::vector<std::filesystem::path> removeEmptyRecords() const;
  // Staging files named by records no longer in play (stage at least
  // "published"); returns the paths removed.
  std::vector<std::filesystem::path> removeOrphanedStages() const;

  // Before an item's source is read: one more attempt, on disk before
  // the read starts ("<itemID>.reading"; written for this process to die
  // over, not for a power cut, so not synced). Throws FileError.
  void beginRead(const std::string& jobID, const std::string& itemID) const;
  // After the read ended, however it ended: the count goes.
  void endRead(const std::string& itemID) const;
  std::vector<InterruptedRead> interruptedReads() const;

  const std::filesystem::path& folder() const { return m_folder; }

 private:
  std::filesystem::path fileFor(const std::string& operationID) const;
  std::filesystem::path readFileFor(const std::string& itemID) const;
  std::optional<InterruptedRead> interruptedRead(const std::filesystem::path& file) const;
  std::filesystem::path m_folder;
};

}  // namespace tarnbloom::exporting
