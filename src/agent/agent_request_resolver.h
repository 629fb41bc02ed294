#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <set>
#include <string>
#include <variant>
#include <vector>

#include "agent/agent_protocol.h"
#include "agent/agent_request.h"
#include "agent/agent_result.h"
#include "encoding/export_format.h"
#include "export/export_job.h"
#include "export/export_options.h"
#include "recipes/recipe_store.h"
#include "support/iso_time.h"

namespace tarnbloom::agent {

struct AgentResolverEnvironment;

// What an export request will do, decided before anything is written: every
// output's path, size, format and method, what happens where the name is
// taken, and the sources left out with the reason.
struct AgentResolvedPlan {
  struct Item {
    std::filesystem::path source;
    std::filesystem::path output;  // for "skip", the taken name
    int64_t width = 0;             // output pixels (the canvas's, on a canvas)
    int64_t height = 0;
    AgentFormat format = AgentFormat::png;  // never "same": the source's own is resolved
    AgentMethod method = AgentMethod::exact;
    bool aiDetail = false;
    AgentPlanAction action = AgentPlanAction::exportItem;
    // The item exactly as the export controller takes it; none for "skip".
    std::optional<exporting::PlannedItem> planned;
  };

  // One output definition: all of "enlarge", or one output of a recipe. Its
  // description and planned items make one exporting::Submission as they are.
  struct Unit {
    exporting::JobDescription description;
    // None: beside each source.
    std::optional<std::filesystem::path> outputFolder;
    std::string nameTemplate;
    std::vector<Item> items;

    const exporting::ExportOptions& options() const { return description.options; }
    // The items whose action writes a file.
    std::vector<Item> exportItems() const;
    std::vector<exporting::PlannedItem> plannedItems() const;
  };

  // A source that will not be exported. The same source left out by several
  // outputs of a recipe for the same reason is listed once.
  struct Exclusion {
    std::filesystem::path source;
    AgentErrorCode code = AgentErrorCode::unreadableSource;
    std::string message;
    // Not a photo at all (a note, a sidecar): set aside, not a failure.
    bool notAPhoto = false;

    bool operator==(const Exclusion&) const = default;
  };

  AgentCommand command = AgentCommand::enlarge;
  std::string jobID;
  bool dryRun = false;
  bool notify = false;
  AgentIfExists ifExists = AgentIfExists::number;
  std::optional<std::string> recipeName;
  std::vector<Unit> units;
  std::vector<Exclusion> exclusions;
  AgentResultRequest echo;

  // Every unit's items, in unit order.
  std::vector<Item> items() const;
  // The finished document of a dry run: state "completed", the plan, and
  // each exclusion as a "skipped" item carrying its error.
  AgentResult dryRunResult(const AgentResolverEnvironment& environment) const;
};

// Why a request cannot be planned: a code and a sentence of the catalogue,
// and, when nothing was left to export, the sources left out and why, so
// that the caller hears about each file and not only that none remained.
struct AgentResolveFailure : AgentErrorInfo {
  AgentResolveFailure(AgentErrorInfo info = {}) : AgentErrorInfo(std::move(info)) {}
  std::vector<AgentResolvedPlan::Exclusion> exclusions;
};

// An excluded source as a finished item: unreadable and missing sources
// fail the way a failed export would; the others (a note beside the photos,
// a target smaller than the source, a taken name with "skip") skip.
AgentItem exclusionItem(const AgentResolvedPlan::Exclusion& exclusion);

using AgentResolution = std::variant<AgentResolvedPlan, AgentResolveFailure>;

// Everything the resolver takes from outside apart from the file system it
// plans over (sources are read, folders walked and headers probed for real).
struct AgentResolverEnvironment {
  AgentAppInfo app;
  WallTime now;
  // The application's export settings, for use_app_settings.
  exporting::ExportOptions savedOptions;
  std::vector<recipes::RecipeStore::LibraryEntry> recipeEntries;
  // Output names other unfinished exports hold.
  std::set<std::filesystem::path> reservedOutputs;
  encoding::CanWrite canWriteFormat = encoding::isWritable;
  // What earlier jobs of this state folder finished and is still on disk: a
  // shard run again finds its photos done and skips them.
  struct FinishedExport {
    std::filesystem::path source;
    std::filesystem::path output;
    int64_t width = 0;
    int64_t height = 0;
  };
  std::vector<FinishedExport> finishedExports;

  // The running system's: the clock, the settings file, the recipe library
  // of `stateFolder` checked against the methods installed here.
  static AgentResolverEnvironment live(const std::filesystem::path& stateFolder, AgentAppInfo app,
                                       std::set<std::filesystem::path> reservedOutputs);
};

// Turns an "enlarge" or "recipe_run" request into a plan, or into the first
// rule it breaks. Reads the file system (kinds, folder walks, headers) and
// writes nothing.
class AgentRequestResolver {
 public:
  using Environment = AgentResolverEnvironment;

  static AgentResolution resolve(const AgentRequest& request, const Environment& environment);

  // The finished document of a request the resolver refused.
  static AgentResult rejectedResult(const AgentRequest& request, const AgentResolveFailure& failure,
                                    const Environment& environment);
  // The options a request starts from unless it asks for the application's.
  static exporting::ExportOptions factoryOptions();
  // The "recipe_list" answer: every library entry, and why it cannot run
  // without a person where it cannot.
  static std::vector<AgentRecipeInfo> recipeList(const Environment& environment);
};

}  // namespace tarnbloom::agent
