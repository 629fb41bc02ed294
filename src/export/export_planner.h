#pragma once

#include <filesystem>
#include <functional>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "encoding/export_format.h"
#include "export/export_job.h"
#include "export/preflight.h"

namespace tarnbloom::exporting {

// Where a plan puts its outputs: one folder for all, a folder inside each
// source's own folder (`subfolder`, a relative path), or beside each source.
struct DestinationRule {
  std::optional<std::filesystem::path> folder = std::nullopt;
  std::optional<std::filesystem::path> subfolder = std::nullopt;
  std::filesystem::path folderFor(const std::filesystem::path& source) const {
    if (folder) return *folder;
    return subfolder ? (source.parent_path() / *subfolder).lexically_normal()
                     : source.parent_path();
  }
};

// A file the plan leaves out, and why.
struct PlanRefusal {
  enum class Kind { failed, skipped };
  std::filesystem::path source;
  Kind kind = Kind::failed;
  // What the user is told after the file's name.
  std::string text;
  // How a preflight list files it; none for files that are not there.
  std::optional<PreflightException> preflight = std::nullopt;
};

// A file whose first-choice name was taken: it stays in the plan under a
// numbered name.
struct PlanCollision {
  std::filesystem::path source;
  std::filesystem::path wanted;    // the name the template gave
  std::filesystem::path assigned;  // the numbered one it gets
};

struct ExportPlan {
  JobDescription description;
  std::vector<PlannedItem> items;
  std::vector<PlanRefusal> refusals;
  std::vector<PlanCollision> collisions;
};

// The facts an output is named from once its source is known.
struct OutputNaming {
  std::filesystem::path source;
  std::filesystem::path folder;
  int64_t width = 0, height = 0;
  int64_t sourceWidth = 0;
  encoding::ExportFormat format = encoding::ExportFormat::png;
  int64_t batchIndex = 1;
};

// Decides every export's output: its size and its name, from the sources'
// headers, before any pixel is touched and without writing anything (the
// output folder is made when the export runs). Every route plans here (the
// command line, recipes, folder preflight, automation, the window); the
// controller only asks it again for an item that could not be planned, or
// whose reserved name was taken meanwhile.
class ExportPlanner {
 public:
  using Taken = std::function<bool(const std::filesystem::path&)>;

  ExportPlanner(JobDescription description, std::string nameTemplate, DestinationRule destination);

  // Names other unfinished exports hold; they count as taken.
  void reserve(std::set<std::filesystem::path> paths) { m_reserved = std::move(paths); }
  // Preflight: a source whose header cannot be read, or that is no still
  // image, is refused too. Otherwise it goes in unplanned and its export
  // says why it fails, with what the decoder found.
  void refuseUnreadable(bool refuse) {
    m_refuseUnreadable = [refuse](const std::filesystem::path&) { return refuse; };
  }
  // The same for the sources `which` names (files a folder walk found).
  void refuseUnreadable(std::function<bool(const std::filesystem::path&)> which) {
    m_refuseUnreadable = std::move(which);
  }

  // One planned item or one refusal per source, in order.
  ExportPlan plan(const std::vector<std::filesystem::path>& sources) const;

  // The output of an item the plan could not name: the folder batch's
  // template, else the default one, numbered past what `taken` says.
  static std::filesystem::path outputFor(const JobDescription& description,
                                         const OutputNaming& naming, const Taken& taken);
  // A reserved name when it is still free (or may be replaced), else the
  // next free numbered one. Never the source itself.
  static std::filesystem::path reclaim(const std::filesystem::path& reserved,
                                       const std::filesystem::path& source, bool replace,
                                       const Taken& taken);

 private:
  static std::filesystem::path numbered(const std::filesystem::path& folder, std::string_view templ,
                                        const JobDescription& description,
                                        const OutputNaming& naming, const Taken& taken,
                                        bool createFolder);

  JobDescription m_description;
  std::string m_template;
  DestinationRule m_destination;
  std::set<std::filesystem::path> m_reserved;
  std::function<bool(const std::filesystem::path&)> m_refuseUnreadable;
};

}  // namespace tarnbloom::exporting
