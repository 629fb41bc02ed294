#pragma once

#include <filesystem>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "export/export_planner.h"
#include "export/preflight.h"

namespace tarnbloom::recipes {

// A folder the walk could not use, with what to do about it.
struct FolderProblem {
  std::filesystem::path folder;
  std::string message;
};

// What a folder batch will run and what it sets aside, decided from
// headers before anything is queued.
struct PreflightReport {
  // The batch, ready to submit (its items are the files that passed, in
  // walk order, with their names and sizes fixed).
  exporting::ExportPlan plan;
  std::map<std::filesystem::path, exporting::PreflightException> excluded;
  // Files left out because their name exists and the batch skips those.
  std::vector<exporting::PlanRefusal> skipped;

  // The report of a plan made with unreadable sources refused.
  static PreflightReport of(exporting::ExportPlan plan);

  std::vector<std::filesystem::path> passed() const;
  // "Possible name collision — a numbered copy will be used (…)" per file.
  std::vector<std::pair<std::filesystem::path, std::string>> collisionNotes() const;
  // The saved exclusions: a header line, then one tab-separated line per
  // excluded file in path order; every line ends with a line feed.
  std::string exclusionsExport() const;
};

// File-manager order: digit runs compare as numbers, so "photo 2" comes
// before "photo 10".
bool naturalLess(const std::filesystem::path& a, const std::filesystem::path& b);

// Walks an input folder for a batch that writes into `destinations`, never
// reading its own output, and classifies every file it finds.
class FolderBatchWalker {
 public:
  struct WalkResult {
    std::vector<std::filesystem::path> files;  // regular files, in file-manager order
    std::vector<FolderProblem> problems;
    // Folders inside a destination, left out of their own batch.
    std::vector<FolderProblem> excludedFolders;
  };

  static WalkResult walkDetailed(const std::filesystem::path& input, bool recurse,
                                 const std::vector<std::filesystem::path>& destinations);
  // Why `destination` cannot take a batch of `input`, or none.
  static std::optional<std::string> destinationRejection(const std::filesystem::path& input,
                                                         const std::filesystem::path& destination);
  // Whether `url` is one of `destinations` or lies inside one. A relative
  // destination stands for that folder inside every folder.
  static bool isExcluded(const std::filesystem::path& url,
                         const std::vector<std::filesystem::path>& destinations);
  // Plans `files` with `planner`, refusing every file that cannot work:
  // the refusals become the exclusions.
  static PreflightReport runPreflight(const std::vector<std::filesystem::path>& files,
                                      exporting::ExportPlanner planner);
};

}  // namespace tarnbloom::recipes
