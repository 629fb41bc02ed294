#pragma once

#include <filesystem>
#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "export/export_job.h"
#include "export/export_options.h"
#include "recipes/folder_batch_walker.h"

namespace tarnbloom::recipes {

// Plans the files a folder walk found into `destination`, as a batch of
// `description` named by `nameTemplate`, with `reserved` names counted as
// taken. Throws BatchCanvasRefusal for a canvas one batch may not reuse,
// and the planner's errors (a template it cannot use).
PreflightReport preflightFiles(const std::vector<std::filesystem::path>& files,
                               const exporting::JobDescription& description,
                               const std::string& nameTemplate,
                               const std::filesystem::path& destination,
                               std::set<std::filesystem::path> reserved = {});

// The files set aside for one cause, as a list shows them.
struct ExclusionGroup {
  exporting::PreflightCause cause;
  std::string label;                                                 // the cause's group label
  std::vector<std::pair<std::filesystem::path, std::string>> files;  // with their explanations
};
// The exclusions grouped by cause, the groups in the labels' order and the
// files in path order within each.
std::vector<ExclusionGroup> exclusionGroups(const PreflightReport& report);

// What a walk that found no file says, by its mode.
std::string_view emptyFolderText(bool recurse);

// Everything one folder batch asks for before it is planned.
struct FolderBatchRequest {
  std::filesystem::path input;
  std::filesystem::path destination;
  bool recurse = false;
  exporting::JobDescription description;
  std::string nameTemplate;
  std::set<std::filesystem::path> reserved;
};

// A folder batch's walk and plan. `refusal` says why nothing could be
// planned (the destination, a canvas, the template); `report` is then
// empty.
struct FolderPreflight {
  FolderBatchWalker::WalkResult walk;
  PreflightReport report;
  std::string refusal;
};
// Walks and plans; reads headers, writes nothing, and reports our errors
// in `refusal` instead of throwing them, so it can run on any thread.
FolderPreflight preflightFolder(const FolderBatchRequest& request);

// "Enhance (AI), strength 0.50 · 4× · PNG · profile kept · GPS removed":
// how every file of a batch is exported, in one line.
std::string optionsSummary(const exporting::ExportOptions& options);

}  // namespace tarnbloom::recipes
