#include "cli/enlarge_command.h"

#include <algorithm>
#include <iostream>
#include <nlohmann/json.hpp>
#include <optional>
#include <set>

#include "canvas/canvas_composer.h"
#include "canvas/canvas_json.h"
#include "cli/exit_codes.h"
#include "cli/export_flags.h"
#include "cli/export_session.h"
#include "cli/help_option.h"
#include "cli/recipe_command.h"
#include "encoding/colour_policy.h"
#include "encoding/export_format.h"
#include "encoding/naming_engine.h"
#include "export/export_options.h"
#include "export/export_planner.h"
#include "recipes/folder_batch_walker.h"
#include "recipes/recipe_run_planner.h"
#include "support/files.h"

namespace tarnbloom::cli {
namespace {

namespace fs = std::filesystem;

const std::string kUsage =
    std::string(
        "Usage: tarnbloom enlarge --size SIZE [OPTIONS] FILE|FOLDER...\n"
        "       tarnbloom enlarge --recipe ID|NAME [--out DIR] FILE|FOLDER...\n") +
    kExportFlagsUsage +
    "  --out DIR            output folder (default: beside each source)\n"
    "  --if-exists number|skip|overwrite   when the name is taken (default number: \"name 2\")\n"
    "  --receipts beside|store   receipt next to each export, or in the receipts folder (default "
    "store)\n"
    "  --recursive          also enlarge the files in folders inside FOLDER\n"
    "  --allow-8bit         confirm that 16-bit sources may be reduced to 8 bits for JPEG and\n"
    "                       WebP (without it such files are skipped)\n"
    "  --confirmation FILE  the crop confirmation `tarnbloom canvas preview` saved\n"
    "  --recipe ID|NAME     export every output of a saved recipe for every file (--out\n"
    "                       then overrides each output's destination)\n"
    "A FOLDER is preflighted: files that cannot work are set aside with the reason.\n";

struct Options {
  ExportFlags flags;
  std::filesystem::path out;  // empty: beside each source
  exporting::CollisionPolicy ifExists = exporting::CollisionPolicy::number;
  bool receiptsBeside = false;
  bool recursive = false;
  bool allow8Bit = false;
  std::filesystem::path confirmation;  // --confirmation: a confirmed crop
  std::optional<std::string> recipe;   // --recipe ID|NAME
  std::vector<std::filesystem::path> files;
};

Options parseOptions(const std::vector<std::string>& arguments) {
  Options options;
  for (size_t i = 0; i < arguments.size(); ++i) {
    if (options.flags.parse(arguments, i)) continue;
    const std::string& a = arguments[i];
    auto next = [&]() -> const std::string& {
      if (i + 1 >= arguments.size()) throw UsageError(a + " needs a value.");
      return arguments[++i];
    };
    if (a == "--out") {
      options.out = next();
    } else if (a == "--if-exists") {
      const std::string& v = next();
      if (v == "number")
        options.ifExists = exporting::CollisionPolicy::number;
      else if (v == "skip")
        options.ifExists = exporting::CollisionPolicy::skip;
      else if (v == "overwrite")
        options.ifExists = exporting::CollisionPolicy::replace;
      else
        throw UsageError("--if-exists takes number, skip or overwrite, not “" + v + "”.");
    } else if (a == "--receipts") {
      const std::string& v = next();
      if (v != "beside" && v != "store")
        throw UsageError("--receipts takes beside or store, not “" + v + "”.");
      options.receiptsBeside = v == "beside";
    } else if (a == "--recursive") {
      options.recursive = true;
    } else if (a == "--allow-8bit") {
      options.allow8Bit = true;
    } else if (a == "--confirmation") {
      options.confirmation = next();
    } else if (a == "--recipe") {
      options.recipe = next();
    } else if (a.size() > 1 && a[0] == '-') {
      throw UsageError("Unknown option “" + a + "”.");
    } else {
      options.files.emplace_back(a);
    }
  }
  if (options.recipe && options.flags.touched)
    throw UsageError(
        "With --recipe the recipe says how files are exported: only --out, --if-exists, "
        "--receipts, --recursive and --allow-8bit go with it.");
  if (!options.recipe && !options.flags.haveSize) throw UsageError("Choose a size with --size.");
  if (options.files.empty()) throw UsageError("Name at least one file or folder to enlarge.");
  options.flags.finish();
  if (!options.confirmation.empty() &&
      !(options.flags.canvas && options.flags.canvas->mode == canvas::CanvasMode::crop))
    throw UsageError("--confirmation confirms a crop: give it with --canvas and --crop.");
  return options;
}

// The files to enlarge: each file argument as given, and what the folder
// walk finds in each folder argument (inside its folders too with
// --recursive, never inside the output folder), in file-manager order.
// Folder problems are printed; a refused destination is a usage error.
struct Inputs {
  std::vector<fs::path> files;
  std::set<fs::path> walked;  // found in folders: preflight refuses what cannot work
};

Inputs expandInputs(const Options& options, const std::optional<recipes::RecipeDraft>& recipe) {
  Inputs inputs;
  std::vector<fs::path> destinations;
  if (!options.out.empty()) destinations.push_back(fs::absolute(options.out));
  // A recipe's own destinations are never walked either.
  if (recipe && options.out.empty())
    for (const auto& output : recipe->outputs)
      if (output.destination) destinations.emplace_back(*output.destination);
  for (const auto& argument : options.files) {
    std::error_code error;
    if (!fs::is_directory(argument, error)) {
      inputs.files.push_back(argument);
      continue;
    }
    if (!options.out.empty())
      if (const auto rejection =
              recipes::FolderBatchWalker::destinationRejection(argument, options.out))
        throw UsageError(*rejection);
    const auto walk =
        recipes::FolderBatchWalker::walkDetailed(argument, options.recursive, destinations);
    for (const auto& problem : walk.problems) std::cerr << problem.message << '\n';
    const std::vector<fs::path>& found = walk.files;
    if (found.empty() && walk.problems.empty()) {
      bool hasFolders = false;
      for (fs::directory_iterator it(argument, error), end; !error && it != end;
           it.increment(error))
        hasFolders = hasFolders || it->is_directory(error);
      std::cerr << "“" << argument.string() << "” holds no files"
                << (hasFolders && !options.recursive
                        ? " (add --recursive to look inside its folders)"
                        : "")
                << ".\n";
    }
    for (const auto& file : found) inputs.walked.insert(fs::absolute(file).lexically_normal());
    inputs.files.insert(inputs.files.end(), found.begin(), found.end());
  }
  return inputs;
}

// A confirmation file as `tarnbloom canvas preview` writes it; anything
// else is refused, never taken for a confirmation.
canvas::CanvasConfirmation readConfirmation(const fs::path& file) {
  const std::string name = "“" + file.filename().string() + "”";
  std::vector<std::byte> bytes;
  try {
    bytes = readWholeFile(file, size_t{1} << 20);
  } catch (const Error& error) {
    throw UsageError(error.description());
  }
  const auto json = nlohmann::json::parse(
      reinterpret_cast<const char*>(bytes.data()),
      reinterpret_cast<const char*>(bytes.data() + bytes.size()), nullptr, false);
  const auto confirmation = canvas::confirmationFromJson(json);
  if (!confirmation)
    throw UsageError(name +
                     " is not a crop confirmation Tarnbloom can read. Preview the crop "
                     "again with “tarnbloom canvas preview”.");
  return *confirmation;
}

}  // namespace

int runEnlarge(const std::vector<std::string>& arguments) {
  Options options;
  if (const auto done = parseCommandLine("enlarge", arguments, kUsage, parseOptions, options))
    return *done;
  if (!options.out.empty()) {
    std::error_code error;
    fs::create_directories(options.out, error);
    if (!fs::is_directory(options.out)) {
      std::cerr << "tarnbloom enlarge: the output folder “" << options.out.string()
                << "” doesn’t exist and couldn’t be created.\n";
      return kExitUsage;
    }
  }
  std::optional<recipes::RecipeDraft> recipe;
  if (options.recipe) {
    try {
      recipe = findRecipe(*options.recipe);
    } catch (const Error& error) {
      std::cerr << "tarnbloom enlarge: " << error.description() << '\n';
      return kExitUsage;
    }
  }
  Inputs inputs;
  try {
    inputs = expandInputs(options, recipe);
  } catch (const UsageError& error) {
    std::cerr << "tarnbloom enlarge: " << error.what() << '\n';
    return kExitUsage;
  }
  if (inputs.files.empty()) {
    std::cerr << "tarnbloom enlarge: nothing to enlarge.\n";
    return kExitUsage;
  }
  exporting::ExportOptions exportOptions = options.flags.exportOptions();
  // A crop is confirmed on one image's own pixels, never reused for others.
  if (inputs.files.size() > 1 || !inputs.walked.empty()) {
    const auto decision = canvas::BatchCanvasPolicy::decide(exportOptions.canvas);
    if (!decision.allowed) {
      std::cerr << "tarnbloom enlarge: " << decision.title << "\n" << decision.explanation << '\n';
      return kExitUsage;
    }
  }
  if (!options.confirmation.empty()) {
    try {
      exportOptions.canvasConfirmation = readConfirmation(options.confirmation);
    } catch (const UsageError& error) {
      std::cerr << "tarnbloom enlarge: " << error.what() << '\n';
      return kExitUsage;
    }
  }

  std::unique_ptr<ExportSession> session;
  try {
    session = std::make_unique<ExportSession>();
  } catch (const Error& error) {
    std::cerr << "tarnbloom enlarge: " << error.description() << '\n';
    return kExitFailure;
  }
  session->reportLoadFailure();
  session->recover(false);

  // The plan: each file's size and output name fixed before the run, so
  // names stay stable if the run is interrupted and resumed. A recipe plans
  // one job per output.
  const auto walked = [&](const fs::path& file) { return inputs.walked.contains(file); };
  std::vector<std::pair<std::string, exporting::ExportPlan>> units;
  if (recipe) {
    recipes::RecipeRunSettings settings;
    if (!options.out.empty()) settings.destinationOverride = fs::absolute(options.out);
    settings.collision = options.ifExists;
    settings.receiptsBesideExports = options.receiptsBeside;
    settings.confirmed16BitReduction = options.allow8Bit;
    settings.reserved = session->controller().reservedOutputs();
    settings.refuseUnreadable = walked;
    try {
      for (auto& unit : recipes::RecipeRunPlanner::plan(*recipe, inputs.files, settings))
        units.emplace_back(recipe->outputs.size() > 1 ? unit.summary + ": " : "",
                           std::move(unit.plan));
    } catch (const recipes::BatchCanvasRefusal& refusal) {
      std::cerr << "tarnbloom enlarge: " << refusal.title() << '\n'
                << refusal.description() << '\n';
      return kExitUsage;
    }
  } else {
    exporting::JobDescription description;
    description.options = exportOptions;
    description.receiptsBesideExports = options.receiptsBeside;
    description.confirmed16BitReduction = options.allow8Bit;
    description.collision = options.ifExists;
    exporting::DestinationRule destination;
    if (!options.out.empty()) destination.folder = options.out;
    exporting::ExportPlanner planner(description, options.flags.templateOrDefault(), destination);
    planner.reserve(session->controller().reservedOutputs());
    planner.refuseUnreadable(walked);
    units.emplace_back("", planner.plan(inputs.files));
  }

  int skipped = 0, failed = 0;
  bool besideOriginals = false;
  for (auto& [label, plan] : units) {
    if (plan.description.options.jpeg.maxBytes)
      for (const auto& item : plan.items)
        if (const auto format = plan.description.options.resolvedFormat(item.url);
            format != encoding::ExportFormat::jpeg)
          std::cerr << item.url.filename().string() << ": --max-kb applies to JPEG only; "
                    << encoding::title(format) << " is written without a ceiling.\n";
    for (const auto& refusal : plan.refusals) {
      std::cout << label << refusal.source.filename().string() << ": " << refusal.text << '\n';
      // A folder's other files (notes, sidecars) are set aside, not failures.
      const bool notAPhoto =
          refusal.preflight && refusal.preflight->cause == exporting::PreflightCause::notAnImage;
      ++(refusal.kind == exporting::PlanRefusal::Kind::skipped || notAPhoto ? skipped : failed);
    }
    for (const auto& item : plan.items)
      besideOriginals = besideOriginals || item.destination == item.url.parent_path();
    if (plan.items.empty()) continue;
    try {
      session->controller().submit({plan.description, std::move(plan.items), {}, {}});
    } catch (const Error& error) {
      std::cerr << "tarnbloom enlarge: " << error.description() << '\n';
      return kExitFailure;
    }
  }
  if (besideOriginals) session->saveBesideOriginals();
  session->countSkippedBeforeRun(skipped);
  session->countFailedBeforeRun(failed);
  return session->run();
}

}  // namespace tarnbloom::cli
