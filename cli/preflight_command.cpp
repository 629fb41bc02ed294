#include "cli/preflight_command.h"

#include <algorithm>
#include <iostream>
#include <nlohmann/json.hpp>
#include <sstream>

#include "cli/exit_codes.h"
#include "cli/export_flags.h"
#include "cli/help_option.h"
#include "cli/recipe_command.h"
#include "recipes/folder_batch_preflight.h"
#include "recipes/folder_batch_walker.h"
#include "recipes/recipe_run_planner.h"
#include "recipes/shard.h"
#include "support/files.h"

namespace tarnbloom::cli {
namespace {

namespace fs = std::filesystem;

const std::string kUsage =
    std::string(
        "Usage: tarnbloom preflight FOLDER --out DEST [--recursive] --size SIZE [OPTIONS]\n"
        "       tarnbloom preflight FOLDER --out DEST [--recursive] --recipe ID|NAME\n"
        "       ... [--exclusions FILE] [--json] [--shard K/N]\n"
        "Says which files of FOLDER a batch into DEST would enlarge, under which names, and\n"
        "which it would set aside and why. Nothing is exported.\n") +
    kExportFlagsUsage +
    "  --allow-8bit         16-bit sources may be reduced to 8 bits\n"
    "  --exclusions FILE    save the files set aside as tab-separated text\n"
    "  --json               one JSON object instead of the lists\n"
    "  --shard K/N          plan the whole batch, report only shard K of N (0 <= K < N),\n"
    "                       as `enlarge --shard K/N` would export it\n"
    "Exit status: 0 every file passes, 2 some are set aside, 3 none passes, 1 usage error.\n";

struct Options {
  ExportFlags flags;
  std::optional<std::string> recipe;
  std::optional<recipes::ShardSpec> shard;
  fs::path folder, out, exclusions;
  bool recursive = false, json = false, allow8Bit = false;
};

recipes::ShardSpec parsedShard(const std::string& text) {
  try {
    return recipes::parseShard(text);
  } catch (const recipes::ShardSpecError& error) {
    throw UsageError(error.description());
  }
}

Options parseOptions(const std::vector<std::string>& arguments) {
  Options options;
  for (size_t i = 0; i < arguments.size(); ++i) {
    if (options.flags.parse(arguments, i)) continue;
    const std::string& a = arguments[i];
    auto next = [&]() -> const std::string& {
      if (i + 1 >= arguments.size()) throw UsageError(a + " needs a value.");
      return arguments[++i];
    };
    if (a == "--out")
      options.out = next();
    else if (a == "--exclusions")
      options.exclusions = next();
    else if (a == "--recursive")
      options.recursive = true;
    else if (a == "--json")
      options.json = true;
    else if (a == "--allow-8bit")
      options.allow8Bit = true;
    else if (a == "--recipe")
      options.recipe = next();
    else if (a == "--shard")
      options.shard = parsedShard(next());
    else if (a.size() > 1 && a[0] == '-')
      throw UsageError("Unknown option “" + a + "”.");
    else if (options.folder.empty())
      options.folder = a;
    else
      throw UsageError("Preflight one folder at a time.");
  }
  if (options.folder.empty()) throw UsageError("Name the folder to preflight.");
  if (options.out.empty()) throw UsageError("Choose where the batch would go with --out.");
  if (options.recipe && options.flags.touched)
    throw UsageError("With --recipe the recipe says how files are exported.");
  if (!options.recipe && !options.flags.haveSize) throw UsageError("Choose a size with --size.");
  options.flags.finish();
  return options;
}

nlohmann::ordered_json asJson(const Options& options,
                              const recipes::FolderBatchWalker::WalkResult& walk,
                              const recipes::PreflightReport& report) {
  nlohmann::ordered_json document;
  document["folder"] = fs::absolute(options.folder).string();
  document["destination"] = fs::absolute(options.out).string();
  auto& passed = document["passed"] = nlohmann::ordered_json::array();
  for (const auto& item : report.plan.items) {
    nlohmann::ordered_json entry = {{"file", item.url.string()}};
    entry["output"] = item.assignedOutput ? item.assignedOutput->string() : "";
    if (item.plannedSize) {
      entry["width"] = item.plannedSize->first;
      entry["height"] = item.plannedSize->second;
    }
    passed.push_back(std::move(entry));
  }
  auto& excluded = document["excluded"] = nlohmann::ordered_json::array();
  for (const auto& [file, exception] : report.excluded)
    excluded.push_back({{"file", file.string()},
                        {"code", rawValue(exception.code)},
                        {"cause", rawValue(exception.cause)},
                        {"group", groupLabel(exception.cause)},
                        {"explanation", exception.explanation}});
  auto& collisions = document["collisions"] = nlohmann::ordered_json::array();
  for (const auto& [file, note] : report.collisionNotes())
    collisions.push_back({{"file", file.string()}, {"note", note}});
  auto& problems = document["problems"] = nlohmann::ordered_json::array();
  for (const auto& problem : walk.problems)
    problems.push_back({{"folder", problem.folder.string()}, {"message", problem.message}});
  return document;
}

void printLists(const Options& options, const recipes::FolderBatchWalker::WalkResult& walk,
                const recipes::PreflightReport& report) {
  for (const auto& problem : walk.problems) std::cout << problem.message << '\n';
  for (const auto& folder : walk.excludedFolders)
    std::cout << folder.folder.filename().string() << ": " << folder.message << '\n';
  if (walk.files.empty()) {
    std::cout << "Nothing to preflight.\n" << recipes::emptyFolderText(options.recursive) << '\n';
    return;
  }
  std::cout << report.plan.items.size() << (report.plan.items.size() == 1 ? " file" : " files")
            << " in the batch:\n";
  for (const auto& item : report.plan.items) {
    std::cout << "  " << item.url.filename().string();
    if (item.assignedOutput) std::cout << " → " << item.assignedOutput->filename().string();
    if (const auto& canvas = report.plan.description.options.canvas)
      std::cout << " (" << canvas->width << " × " << canvas->height << ")";
    else if (item.plannedSize)
      std::cout << " (" << item.plannedSize->first << " × " << item.plannedSize->second << ")";
    std::cout << '\n';
  }
  const auto notes = report.collisionNotes();
  if (!notes.empty()) {
    std::cout << "Possible name collision\n";
    for (const auto& [file, note] : notes)
      std::cout << "  " << file.filename().string() << ": " << note << '\n';
  }
  for (const auto& refusal : report.skipped)
    std::cout << refusal.source.filename().string() << ": " << refusal.text << '\n';
  if (report.excluded.empty()) {
    std::cout << "Every file passed preflight.\n";
    return;
  }
  std::cout << report.excluded.size() << (report.excluded.size() == 1 ? " file" : " files")
            << " set aside:\n";
  for (const auto& group : recipes::exclusionGroups(report)) {
    std::cout << group.label << '\n';
    for (const auto& [file, explanation] : group.files)
      std::cout << "  " << file.filename().string() << ": " << explanation << '\n';
  }
}

}  // namespace

int runPreflight(const std::vector<std::string>& arguments) {
  Options options;
  if (const auto done = parseCommandLine("preflight", arguments, kUsage, parseOptions, options))
    return *done;
  if (const auto rejection =
          recipes::FolderBatchWalker::destinationRejection(options.folder, options.out)) {
    std::cerr << "tarnbloom preflight: " << *rejection << '\n';
    return kExitUsage;
  }
  const auto walk =
      recipes::FolderBatchWalker::walkDetailed(options.folder, options.recursive, {options.out});
  // One report per output: a recipe's outputs each have their own size,
  // format and names.
  std::vector<std::pair<std::string, recipes::PreflightReport>> reports;
  try {
    if (options.recipe) {
      recipes::RecipeRunSettings settings;
      settings.destinationOverride = fs::absolute(options.out);
      settings.confirmed16BitReduction = options.allow8Bit;
      settings.refuseUnreadable = [](const fs::path&) { return true; };
      const auto recipe = findRecipe(*options.recipe);
      for (auto& unit : recipes::RecipeRunPlanner::plan(recipe, walk.files, settings))
        reports.emplace_back(unit.summary, recipes::PreflightReport::of(std::move(unit.plan)));
    } else {
      exporting::JobDescription description;
      description.options = options.flags.exportOptions();
      description.confirmed16BitReduction = options.allow8Bit;
      reports.emplace_back("", recipes::preflightFiles(walk.files, description,
                                                       options.flags.templateOrDefault(),
                                                       options.out));
    }
  } catch (const Error& error) {
    std::cerr << "tarnbloom preflight: " << error.description() << '\n';
    return kExitUsage;
  }

  // A shard is cut from the plan of the whole batch, so its names and
  // numbers are the ones the unsharded run would use.
  size_t shardFiles = walk.files.size();
  if (options.shard) {
    const auto keyOf = [&](const fs::path& source) {
      return recipes::stableShardKey(source, options.folder);
    };
    shardFiles = static_cast<size_t>(
        std::count_if(walk.files.begin(), walk.files.end(), [&](const fs::path& file) {
          return recipes::shardOf(keyOf(file), options.shard->count) == options.shard->index;
        }));
    for (auto& [summary, report] : reports) recipes::keepShard(report, *options.shard, keyOf);
  }

  if (options.json) {
    for (const auto& [summary, report] : reports) {
      auto document = asJson(options, walk, report);
      if (!summary.empty()) document["output"] = summary;
      if (options.shard)
        document["shard"] = {{"index", options.shard->index},
                             {"count", options.shard->count},
                             {"files", shardFiles},
                             {"batch_files", walk.files.size()}};
      std::cout << document.dump() << '\n';
    }
  } else {
    if (options.shard)
      std::cout << "Shard " << options.shard->index << "/" << options.shard->count << " holds "
                << shardFiles << " of the batch’s " << walk.files.size()
                << (walk.files.size() == 1 ? " file" : " files") << ".\n";
    for (const auto& [summary, report] : reports) {
      if (reports.size() > 1) std::cout << "Output: " << summary << '\n';
      printLists(options, walk, report);
    }
  }
  size_t passing = 0, excluded = 0;
  // A file set aside by several outputs for the same reason is listed once.
  std::vector<std::string> lines;
  for (const auto& [summary, report] : reports) {
    passing += report.plan.items.size();
    excluded += report.excluded.size();
    std::istringstream text(report.exclusionsExport());
    for (std::string line; std::getline(text, line);)
      if (std::find(lines.begin(), lines.end(), line) == lines.end()) lines.push_back(line);
  }
  if (lines.size() > 1) std::sort(lines.begin() + 1, lines.end());  // by path, header first
  std::string exclusions;
  for (const auto& line : lines) exclusions += line + '\n';
  if (!options.exclusions.empty()) {
    try {
      writeFileAtomically(options.exclusions, exclusions);
    } catch (const Error& error) {
      std::cerr << "tarnbloom preflight: " << error.description() << '\n';
      return kExitFailure;
    }
  }
  // A shard may hold no file of a small batch; that is no failure.
  if (options.shard && shardFiles == 0) return kExitSuccess;
  if (passing == 0) return kExitFailure;
  return excluded == 0 ? kExitSuccess : kExitPartial;
}
}  // namespace tarnbloom::cli
