#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "encoding/export_format.h"
#include "engine/resample_method.h"
#include "export/export_options.h"
#include "support/error.h"

namespace tarnbloom::exporting {

// Naming for a folder run.
struct FolderBatchNaming {
  std::filesystem::path output;
  std::string templ;
  std::string sku;
  std::optional<std::string> exportDate;
};

// What happens when an output's name is already taken: the next free
// numbered name ("photo 2.png"), leave the file out, or replace what is
// there (never the source itself).
enum class CollisionPolicy { number, skip, replace };

// One file of a plan: where it comes from, where it goes, and, when the
// plan could read the file, its reserved name and output size.
struct PlannedItem {
  std::filesystem::path url;
  std::filesystem::path destination;  // the output folder
  int64_t batchIndex = 1;             // for {index}
  std::optional<std::filesystem::path> assignedOutput = std::nullopt;
  std::optional<std::pair<int64_t, int64_t>> plannedSize = std::nullopt;
};

// Everything a route decides about a job apart from its files. The running
// job, the submission and the job saved in the queue file are all made
// from this one value.
struct JobDescription {
  ExportOptions options;
  bool fromFinder = false;
  bool quitWhenDone = false;
  std::optional<FolderBatchNaming> folderBatch;
  CollisionPolicy collision = CollisionPolicy::number;
  bool receiptsBesideExports = false;
  // A person confirmed reducing 16-bit sources to 8-bit formats.
  bool confirmed16BitReduction = false;
  // Files of the submission that were not made into items.
  int deferredCount = 0;

  bool replaceExisting() const { return collision == CollisionPolicy::replace; }
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

// Everything a route hands over to export some files.
struct Submission {
  JobDescription description;
  std::vector<PlannedItem> items;
  std::optional<AgentSubmission> agent;
  std::function<void(const struct JobOutcome&)> onFinished;
};

// How one item ended.
struct Result {
  enum class Kind { exported, failed, skipped, stopped };
  Kind kind = Kind::failed;
  std::filesystem::path source;
  std::optional<std::filesystem::path> output;
  std::optional<std::filesystem::path> receipt;
  // Why an exported file has no receipt: the export stands without one.
  std::optional<std::string> receiptError;
  std::string errorText;     // description, then the recovery suggestion
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

struct JobItem : PlannedItem {
  std::string id;
  std::optional<std::string> operationID;
  // Set when the stored item could not be found again: it fails at once.
  std::optional<std::string> unavailable;
};

struct Job {
  std::string id;
  JobDescription description;
  std::vector<JobItem> items;
  // Runs without the export queue: nothing is saved or retried.
  bool oneRunOnly = false;
  std::function<void(const JobOutcome&)> onFinished;
  std::optional<AgentSubmission> agent;

  const ExportOptions& options() const { return description.options; }
};

}  // namespace tarnbloom::exporting
