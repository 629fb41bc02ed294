#include "recipes/folder_batch_walker.h"

#include <algorithm>
#include <cstring>

namespace tarnbloom::recipes {

namespace fs = std::filesystem;

namespace {

// Links resolved and the path made standard, so two spellings of one folder
// compare equal; a folder not made yet keeps the part that does not exist.
fs::path standardised(const fs::path& path) {
  std::error_code error;
  const fs::path canonical = fs::weakly_canonical(fs::absolute(path), error);
  return error ? fs::absolute(path).lexically_normal() : canonical;
}

bool isInside(const fs::path& path, const fs::path& folder) {
  const auto [end, _] = std::mismatch(folder.begin(), folder.end(), path.begin(), path.end());
  return end == folder.end();
}

std::string named(const fs::path& folder) {
  const fs::path name =
      folder.filename().empty() ? folder.parent_path().filename() : folder.filename();
  return "“" + name.string() + "”";
}

FolderProblem unreadableFolder(const fs::path& folder, const std::error_code& error) {
  std::string message = "Cannot read " + named(folder) + ". Choose it again or check access.";
  if (error) message += " (" + error.message() + ")";
  return {folder, message};
}

}  // namespace

bool naturalLess(const fs::path& a, const fs::path& b) {
  const std::string x = a.string(), y = b.string();
  size_t i = 0, j = 0;
  while (i < x.size() && j < y.size()) {
    if (std::isdigit(static_cast<unsigned char>(x[i])) &&
        std::isdigit(static_cast<unsigned char>(y[j]))) {
      size_t i2 = i, j2 = j;
      while (i2 < x.size() && x[i2] == '0') ++i2;
      while (j2 < y.size() && y[j2] == '0') ++j2;
      size_t i3 = i2, j3 = j2;
      while (i3 < x.size() && std::isdigit(static_cast<unsigned char>(x[i3]))) ++i3;
      while (j3 < y.size() && std::isdigit(static_cast<unsigned char>(y[j3]))) ++j3;
      if (i3 - i2 != j3 - j2) return i3 - i2 < j3 - j2;
      if (const int c = x.compare(i2, i3 - i2, y, j2, j3 - j2); c != 0) return c < 0;
      i = i3, j = j3;
      continue;
    }
    if (x[i] != y[j]) return static_cast<unsigned char>(x[i]) < static_cast<unsigned char>(y[j]);
    ++i, ++j;
  }
  return x.size() - i < y.size() - j || (x.size() - i == y.size() - j && x < y);
}

std::optional<std::string> FolderBatchWalker::destinationRejection(const fs::path& input,
                                                                   const fs::path& destination) {
  const fs::path in = standardised(input), out = standardised(destination);
  if (in == out)
    return named(out) +
           " is the folder you are enlarging. Enlarged copies must go somewhere else, or a re-run "
           "would read its own output. Choose or create a different folder — an “Enlarged” "
           "subfolder is fine.";
  if (isInside(in, out))
    return named(out) +
           " contains the folder you are enlarging, so every photo in it would be excluded from "
           "the batch. Choose a destination that is not above your input folder.";
  return std::nullopt;
}

bool FolderBatchWalker::isExcluded(const fs::path& url, const std::vector<fs::path>& destinations) {
  const fs::path path = standardised(url);
  return std::any_of(destinations.begin(), destinations.end(), [&](const fs::path& destination) {
    if (destination.is_absolute()) return isInside(path, standardised(destination));
    // A relative destination is a folder inside every source's folder (a
    // recipe's "Enlarged"): anything under a folder of that name is output.
    for (fs::path folder = path; folder.has_relative_path() && folder != folder.parent_path();
         folder = folder.parent_path())
      if (folder.filename() == destination.filename() &&
          (folder.parent_path() / destination).lexically_normal() == folder)
        return true;
    return false;
  });
}

FolderBatchWalker::WalkResult FolderBatchWalker::walkDetailed(
    const fs::path& input, bool recurse, const std::vector<fs::path>& destinations) {
  WalkResult result;
  std::error_code error;
  const fs::file_status status = fs::status(input, error);
  if (!fs::exists(status)) {
    result.problems.push_back(
        {input, named(input) + " is no longer there. Choose the folder again."});
    return result;
  }
  if (!fs::is_directory(status)) {
    result.problems.push_back({input, named(input) + " is not a folder."});
    return result;
  }
  const auto consider = [&](const fs::directory_entry& entry) {
    std::error_code e;
    if (!entry.is_regular_file(e)) return;
    if (isExcluded(entry.path(), destinations)) return;
    result.files.push_back(entry.path());
  };
  if (recurse) {
    fs::recursive_directory_iterator it(input, error), end;
    if (error) result.problems.push_back(unreadableFolder(input, error));
    while (!error && it != end) {
      const fs::directory_entry& entry = *it;
      const bool hidden = entry.path().filename().string().starts_with(".");
      std::error_code e;
      if (entry.is_directory(e)) {
        if (hidden) {
          it.disable_recursion_pending();
        } else if (isExcluded(entry.path(), destinations)) {
          it.disable_recursion_pending();
          result.excludedFolders.push_back(
              {entry.path(),
               "This folder is inside the destination, so it is excluded from its own batch."});
        } else if (const auto probe = fs::directory_iterator(entry.path(), e); e) {
          // Listed here, so the walk says which folder it could not enter.
          it.disable_recursion_pending();
          result.problems.push_back(unreadableFolder(entry.path(), e));
        }
      } else if (!hidden) {
        consider(entry);
      }
      it.increment(error);
      if (error) {
        result.problems.push_back(unreadableFolder(input, error));
        break;
      }
    }
  } else {
    // Hidden files directly in the folder are listed too: only the walk
    // into subfolders leaves them out.
    fs::directory_iterator it(input, error), end;
    if (error) result.problems.push_back(unreadableFolder(input, error));
    for (; !error && it != end; it.increment(error)) consider(*it);
  }
  std::sort(result.files.begin(), result.files.end(), naturalLess);
  return result;
}

PreflightReport FolderBatchWalker::runPreflight(const std::vector<fs::path>& files,
                                                exporting::ExportPlanner planner) {
  planner.refuseUnreadable(true);
  return PreflightReport::of(planner.plan(files));
}

PreflightReport PreflightReport::of(exporting::ExportPlan plan) {
  PreflightReport report;
  report.plan = std::move(plan);
  for (auto& refusal : report.plan.refusals) {
    if (refusal.kind == exporting::PlanRefusal::Kind::skipped) {
      report.skipped.push_back(refusal);
    } else {
      // A file gone since the walk found it: it cannot be read now.
      report.excluded[refusal.source] = refusal.preflight.value_or(
          exporting::PreflightException{exporting::PreflightExceptionClass::unreadable,
                                        exporting::PreflightCause::unreadable, refusal.text});
    }
  }
  return report;
}

std::vector<fs::path> PreflightReport::passed() const {
  std::vector<fs::path> files;
  for (const auto& item : plan.items) files.push_back(item.url);
  return files;
}

std::vector<std::pair<fs::path, std::string>> PreflightReport::collisionNotes() const {
  std::vector<std::pair<fs::path, std::string>> notes;
  for (const auto& collision : plan.collisions)
    notes.emplace_back(collision.source,
                       "Possible name collision — a numbered copy will be used (" +
                           collision.assigned.filename().string() + ")");
  return notes;
}

std::string PreflightReport::exclusionsExport() const {
  std::string text = "file\tcode\tcause\texplanation\n";
  for (const auto& [file, exception] : excluded)
    text += file.string() + "\t" + std::string(rawValue(exception.code)) + "\t" +
            std::string(rawValue(exception.cause)) + "\t" + exception.explanation + "\n";
  return text;
}

}  // namespace tarnbloom::recipes
