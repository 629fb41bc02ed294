#include "recipes/folder_batch_preflight.h"

#include <cmath>
#include <cstdio>
#include <map>

#include "canvas/canvas_composer.h"
#include "encoding/export_format.h"
#include "engine/resample_method.h"
#include "export/export_planner.h"
#include "recipes/recipe_run_planner.h"
#include "support/error.h"

namespace tarnbloom::recipes {

namespace fs = std::filesystem;

PreflightReport preflightFiles(const std::vector<fs::path>& files,
                               const exporting::JobDescription& description,
                               const std::string& nameTemplate, const fs::path& destination,
                               std::set<fs::path> reserved) {
  // A confirmed crop was confirmed on one photo's pixels; a batch may not
  // apply it to others.
  const auto decision = canvas::BatchCanvasPolicy::decide(description.options.canvas);
  if (!decision.allowed) throw BatchCanvasRefusal(decision.title, decision.explanation);
  exporting::ExportPlanner planner(description, nameTemplate,
                                   exporting::DestinationRule{destination});
  planner.reserve(std::move(reserved));
  return FolderBatchWalker::runPreflight(files, std::move(planner));
}

std::vector<ExclusionGroup> exclusionGroups(const PreflightReport& report) {
  // The causes' order is the labels' order; `excluded` is in path order.
  std::map<exporting::PreflightCause, ExclusionGroup> byCause;
  for (const auto& [file, exception] : report.excluded) {
    auto [group, added] = byCause.try_emplace(exception.cause);
    if (added) {
      group->second.cause = exception.cause;
      group->second.label = std::string(groupLabel(exception.cause));
    }
    group->second.files.emplace_back(file, exception.explanation);
  }
  std::vector<ExclusionGroup> groups;
  for (auto& [cause, group] : byCause) groups.push_back(std::move(group));
  return groups;
}

std::string_view emptyFolderText(bool recurse) {
  return recurse ? "No files found in this folder or its subfolders"
                 : "No files found directly inside this folder";
}

FolderPreflight preflightFolder(const FolderBatchRequest& request) {
  FolderPreflight result;
  if (const auto rejection =
          FolderBatchWalker::destinationRejection(request.input, request.destination)) {
    result.refusal = *rejection;
    return result;
  }
  result.walk =
      FolderBatchWalker::walkDetailed(request.input, request.recurse, {request.destination});
  if (result.walk.files.empty()) return result;
  try {
    result.report = preflightFiles(result.walk.files, request.description, request.nameTemplate,
                                   request.destination, request.reserved);
  } catch (const Error& error) {
    result.refusal = error.description();
  }
  return result;
}

namespace {

std::string formatSummary(const exporting::ExportOptions& options) {
  if (options.formatFollowsSource) return "Same format as each source";
  std::string text(encoding::title(options.format));
  if (options.format == encoding::ExportFormat::jpeg) {
    text += " " + std::to_string(options.jpeg.quality);
  } else if (options.format == encoding::ExportFormat::webp) {
    text += options.webp.lossless ? std::string(" lossless")
                                  : " " + std::to_string(std::lround(options.webp.lossyQuality));
  }
  return text;
}

// The metadata a batch changes; what it keeps goes unsaid.
std::string policySummary(const encoding::ColourPolicy& policy) {
  using encoding::MetadataToggle;
  std::string text =
      policy.profile == encoding::ProfilePolicy::srgb ? "converted to sRGB" : "colour profile kept";
  std::vector<std::string> removed;
  if (policy.icc == MetadataToggle::strip) removed.emplace_back("ICC");
  if (policy.exif == MetadataToggle::strip) removed.emplace_back("EXIF");
  if (policy.xmp == MetadataToggle::strip) removed.emplace_back("XMP");
  if (policy.gps == MetadataToggle::strip) removed.emplace_back("GPS");
  if (removed.empty()) return text + " · all metadata kept";
  std::string list;
  for (const auto& name : removed) list += (list.empty() ? "" : ", ") + name;
  return text + " · " + list + " removed";
}

}  // namespace

std::string optionsSummary(const exporting::ExportOptions& options) {
  std::string text(title(options.method));
  if (options.method == ResampleMethod::estimate) {
    char strength[32];
    std::snprintf(strength, sizeof strength, ", strength %.2f", options.estimateStrength);
    text += strength;
  }
  text += " · " + options.sizeLabel() + " · " + formatSummary(options) + " · " +
          policySummary(options.colourPolicy);
  if (options.canvas) text += " · on a canvas";
  return text;
}

}  // namespace tarnbloom::recipes
