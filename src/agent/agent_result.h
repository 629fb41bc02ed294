#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "agent/agent_protocol.h"
#include "agent/agent_request.h"
#include "support/iso_time.h"

namespace tarnbloom::agent {

// The application that answers.
struct AgentAppInfo {
  std::string version;   // the marketing version
  std::string build;     // the build number
  std::string bundleID;  // written as bundle_id

  bool operator==(const AgentAppInfo&) const = default;
};

// The command and settings a job used, as results echo them.
struct AgentResultRequest {
  AgentCommand command = AgentCommand::enlarge;
  std::optional<AgentSize> size;
  std::optional<AgentMethod> method;
  std::optional<double> strength;
  std::optional<AgentFormat> format;
  std::optional<std::string> recipe;

  bool operator==(const AgentResultRequest&) const = default;

  // The request's own command and settings, as far as it gave them.
  static AgentResultRequest echoing(const AgentRequest& request);
};

// One planned output and what became of it.
struct AgentItem {
  std::string source;
  AgentItemState state = AgentItemState::pending;
  // Written as null until there is a file.
  std::optional<std::string> output;
  std::optional<int64_t> width;
  std::optional<int64_t> height;
  AgentFormat format = AgentFormat::png;  // the format actually written
  AgentMethod method = AgentMethod::exact;
  bool aiDetail = false;  // the output carries Enhance-estimated detail
  std::optional<std::string> receipt;
  // Written as null when the item has none.
  std::optional<AgentErrorInfo> error;
  // Additions of ours that readers of protocol 1 may ignore: how far a
  // running item's render is (0...1), and what the export had to say
  // beyond its state (the JPEG quality used, advisories, a failure's
  // reason), for people reading along.
  std::optional<double> progress;
  std::vector<std::string> notes;

  bool operator==(const AgentItem&) const = default;
};

struct AgentCounts {
  int64_t completed = 0;
  int64_t skipped = 0;
  int64_t failed = 0;
  int64_t cancelled = 0;

  bool operator==(const AgentCounts&) const = default;
};

struct AgentPlanItem {
  std::string source;
  std::string output;  // the path that would be written
  int64_t width = 0;
  int64_t height = 0;
  AgentFormat format = AgentFormat::png;
  AgentMethod method = AgentMethod::exact;
  bool aiDetail = false;
  AgentPlanAction action = AgentPlanAction::exportItem;

  bool operator==(const AgentPlanItem&) const = default;
};

// What a dry run would do. The tallies are derived from the items, so a
// plan cannot disagree with itself.
struct AgentPlan {
  std::vector<AgentPlanItem> items;

  bool operator==(const AgentPlan&) const = default;

  // Items whose action writes a file: "export", "number", "overwrite".
  int64_t willExport() const;
  // Items whose action is "skip".
  int64_t willSkip() const;
};

struct AgentRecipeInfo {
  std::string id;
  std::string name;
  bool usable = true;                 // the recipe can run without a person
  std::optional<std::string> reason;  // why not, when not usable

  bool operator==(const AgentRecipeInfo&) const = default;
};

// The document the application keeps in the outbox for each job.
struct AgentResult {
  std::string job;
  AgentResultState state = AgentResultState::running;
  AgentAppInfo app;
  WallTime startedAt;
  std::optional<WallTime> finishedAt;  // null while running
  WallTime updatedAt;
  // Null only when the request itself could not be read, so that there is
  // nothing to echo.
  std::optional<AgentResultRequest> request;
  std::optional<bool> dryRun;
  std::vector<AgentItem> items;
  AgentCounts counts;
  std::optional<AgentErrorInfo> error;
  std::optional<AgentPlan> plan;
  std::optional<std::vector<AgentRecipeInfo>> recipes;

  bool operator==(const AgentResult&) const = default;
};

// The result document, keys in protocol order, indented, ending in a
// newline. Throws AgentProtocolError (internal) for text that is not UTF-8.
std::string encodeResult(const AgentResult& result);

// Reads a result as the command-line caller does. Keys this version does
// not know are skipped, since a newer application of the same protocol may
// add some; everything this version knows must be of its type. Throws
// AgentProtocolError: versionMismatch for another schema, internal for
// anything else, with the fault as the message (a bad timestamp reads "Not
// an ISO-8601 UTC timestamp: " and the text).
AgentResult decodeResult(std::span<const std::byte> bytes);

// The tallies of the items' outcomes.
AgentCounts countItems(const std::vector<AgentItem>& items);

// The exit status a finished result gives the command-line caller; nothing
// while the job runs, so that the caller keeps waiting. A rejection gives
// the exit code of its error (usage without one).
std::optional<AgentExitCode> exitCode(const AgentResult& result);

// One event of a job's progress, written one JSON object per line. Keys an
// event does not have are absent.
struct AgentProgressEvent {
  AgentProgressEventName event = AgentProgressEventName::jobStarted;
  std::string job;
  WallTime ts;
  std::optional<int64_t> total;  // number of items, on "job_started"
  std::optional<int64_t> index;  // the item's place from 0, on item events
  std::optional<std::string> source;
  std::optional<std::string> output;  // on "item_completed"
  std::optional<double> fraction;     // 0–1, on "item_progress"
  std::optional<AgentErrorInfo> error;
  std::optional<AgentResultState> state;  // on "job_finished"

  bool operator==(const AgentProgressEvent&) const = default;
};

// One line of compact JSON with its newline. Throws AgentProtocolError
// (internal) for text that is not UTF-8.
std::string encodeProgressEvent(const AgentProgressEvent& event);
// Reads one event (surrounding white space, the newline included, is fine).
// Throws AgentProtocolError as decodeResult does.
AgentProgressEvent decodeProgressEvent(std::span<const std::byte> bytes);

}  // namespace tarnbloom::agent
