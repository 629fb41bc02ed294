#include "cli/enlarge_command.h"

#include <cmath>
#include <iostream>
#include <nlohmann/json.hpp>
#include <optional>

#include "agent/agent_client.h"
#include "canvas/canvas_json.h"
#include "cli/exit_codes.h"
#include "cli/export_flags.h"
#include "cli/help_option.h"
#include "cli/job_follower.h"
#include "export/export_job.h"
#include "export/export_options.h"
#include "recipes/shard.h"
#include "support/files.h"
#include "support/state_paths.h"

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
    "  --shard K/N          plan the whole batch, export only shard K (from 0) of N: for\n"
    "                       array jobs on a cluster, each task with its own --state folder\n"
    "  --dry-run            print the plan (every output name and size); export nothing\n"
    "  --json               print the final result document instead of lines\n"
    "  --no-wait            print the job id and return; follow it with tarnbloom status\n"
    "  --notify             show a desktop notification when the job ends\n"
    "A FOLDER needs --out and is preflighted: files that cannot work are set aside with\n"
    "the reason. The running Tarnbloom instance exports (one is started when none runs);\n"
    "Ctrl-C stops the job.\n";

struct Options {
  ExportFlags flags;
  std::filesystem::path out;  // empty: beside each source
  exporting::CollisionPolicy ifExists = exporting::CollisionPolicy::number;
  bool receiptsBeside = false;
  bool recursive = false;
  bool allow8Bit = false;
  std::filesystem::path confirmation;  // --confirmation: a confirmed crop
  std::optional<std::string> recipe;   // --recipe ID|NAME
  bool dryRun = false;
  bool notify = false;
  std::optional<std::string> shard;  // --shard K/N
  FollowOptions follow;
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
    } else if (a == "--shard") {
      const std::string& text = next();
      try {
        recipes::parseShard(text);
      } catch (const recipes::ShardSpecError& error) {
        throw UsageError(error.description());
      }
      options.shard = text;
    } else if (a == "--dry-run") {
      options.dryRun = true;
    } else if (a == "--notify") {
      options.notify = true;
    } else if (a == "--json") {
      options.follow.json = true;
    } else if (a == "--no-wait") {
      options.follow.noWait = true;
    } else if (a.size() > 1 && a[0] == '-') {
      throw UsageError("Unknown option “" + a + "”.");
    } else {
      options.files.emplace_back(a);
    }
  }
  if (options.recipe && options.flags.touched)
    throw UsageError(
        "With --recipe the recipe says how files are exported: only --out, --if-exists, "
        "--receipts, --recursive, --allow-8bit, --shard and the job flags go with it.");
  if (!options.recipe && !options.flags.haveSize) throw UsageError("Choose a size with --size.");
  if (options.files.empty()) throw UsageError("Name at least one file or folder to enlarge.");
  options.flags.finish();
  if (!options.confirmation.empty() &&
      !(options.flags.canvas && options.flags.canvas->mode == canvas::CanvasMode::crop))
    throw UsageError("--confirmation confirms a crop: give it with --canvas and --crop.");
  return options;
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

agent::AgentSize agentSize(SizeMode mode, double value, double boxWidth, double boxHeight) {
  using agent::AgentSizeMode;
  agent::AgentSize size;
  switch (mode) {
    case SizeMode::x2:
      size.mode = AgentSizeMode::x2;
      break;
    case SizeMode::x4:
      size.mode = AgentSizeMode::x4;
      break;
    case SizeMode::x8:
      size.mode = AgentSizeMode::x8;
      break;
    case SizeMode::percent:
      size.mode = AgentSizeMode::percent;
      break;
    case SizeMode::longEdge:
      size.mode = AgentSizeMode::longEdge;
      break;
    case SizeMode::width:
      size.mode = AgentSizeMode::width;
      break;
    case SizeMode::height:
      size.mode = AgentSizeMode::height;
      break;
    case SizeMode::boundingBox:
      size.mode = AgentSizeMode::box;
      break;
  }
  if (size.mode == AgentSizeMode::box) {
    if (boxWidth != std::floor(boxWidth) || boxHeight != std::floor(boxHeight))
      throw UsageError("A box is measured in whole pixels: box:WIDTHxHEIGHT.");
    size.width = static_cast<int64_t>(boxWidth);
    size.height = static_cast<int64_t>(boxHeight);
  } else if (!quickFactor(mode)) {
    size.value = value;
  }
  return size;
}

void describePolicy(const encoding::ColourPolicy& policy, agent::AgentExportSettings& settings) {
  settings.profile = policy.profile;
  settings.icc = policy.icc;
  settings.exif = policy.exif;
  settings.xmp = policy.xmp;
  settings.gps = policy.gps;
  settings.flatten = policy.flatten;
}

// How the look of the exports is written into a request: the protocol's
// keys where they say the same as the flags, our settings for the rest.
void describeExports(const Options& options, agent::AgentRequest& request,
                     agent::AgentExportSettings& settings) {
  const ExportFlags& flags = options.flags;
  request.size = agentSize(flags.sizeMode, flags.sizeValue, flags.boxWidth, flags.boxHeight);
  request.method = agent::toAgentMethod(flags.method);
  if (flags.method == ResampleMethod::estimate) request.strength = flags.strength;
  request.format = flags.format ? agent::toAgentFormat(*flags.format) : agent::AgentFormat::same;
  request.name = flags.nameTemplate;
  // --quality is every lossy format's; without it JPEG keeps the command
  // line's own default rather than the protocol's.
  settings.jpegQuality = flags.quality.value_or(exporting::ExportOptions{}.jpeg.quality);
  if (flags.quality) settings.webpQuality = settings.heifQuality = *flags.quality;
  if (flags.maxBytes) settings.maxKB = *flags.maxBytes / 1000;
  describePolicy(flags.policy, settings);
  settings.canvas = flags.exportOptions().canvas;
  if (!options.confirmation.empty())
    settings.canvasConfirmation = readConfirmation(options.confirmation);
}

// The command line as a request to the running instance. Paths are made
// absolute here, since the instance runs elsewhere.
agent::AgentRequest buildRequest(const Options& options) {
  agent::AgentRequest request =
      newRequest(options.recipe ? agent::AgentCommand::recipeRun : agent::AgentCommand::enlarge);
  for (const auto& file : options.files) {
    std::error_code error;
    request.sources.push_back({fs::absolute(file).lexically_normal().string(),
                               fs::is_directory(file, error) ? agent::AgentSourceKind::folder
                                                             : agent::AgentSourceKind::file});
  }
  if (!options.out.empty()) request.out = fs::absolute(options.out).lexically_normal().string();
  if (options.recursive) request.recursive = true;
  request.ifExists =
      options.ifExists == exporting::CollisionPolicy::skip      ? agent::AgentIfExists::skip
      : options.ifExists == exporting::CollisionPolicy::replace ? agent::AgentIfExists::overwrite
                                                                : agent::AgentIfExists::number;
  if (options.dryRun) request.dryRun = true;
  if (options.notify) request.notify = true;
  agent::AgentExportSettings settings;
  settings.receipts =
      options.receiptsBeside ? agent::AgentReceipts::beside : agent::AgentReceipts::store;
  if (options.allow8Bit) settings.allow8Bit = true;
  settings.shard = options.shard;
  if (options.recipe)
    request.recipe = *options.recipe;
  else
    describeExports(options, request, settings);
  request.settings = settings;
  return request;
}

int runRequest(const Options& options, const std::string& command) {
  // The instance checks the output folder; making it is the caller's part,
  // as it always was.
  if (!options.out.empty() && !options.dryRun) {
    std::error_code error;
    fs::create_directories(options.out, error);
    if (!fs::is_directory(options.out)) {
      std::cerr << "tarnbloom " << command << ": the output folder “" << options.out.string()
                << "” doesn’t exist and couldn’t be created"
                << (error ? ": " + error.message() : std::string()) << ".\n";
      return kExitUsage;
    }
  }
  agent::AgentRequest request;
  try {
    request = buildRequest(options);
  } catch (const UsageError& error) {
    std::cerr << "tarnbloom " << command << ": " << error.what() << '\n';
    return kExitUsage;
  }
  if (options.flags.maxBytes && options.flags.format &&
      *options.flags.format != encoding::ExportFormat::jpeg)
    std::cerr << "--max-kb applies to JPEG only; " << encoding::title(*options.flags.format)
              << " is written without a ceiling.\n";
  agent::AgentClient client(stateFolder());
  return runAgentJob(client, request, options.follow);
}

}  // namespace

void describeOptions(const exporting::ExportOptions& options, agent::AgentRequest& request,
                     agent::AgentExportSettings& settings) {
  request.size = agentSize(options.sizeMode, options.sizeValue, options.boxWidth, options.boxHeight);
  request.method = agent::toAgentMethod(options.method);
  if (options.method == ResampleMethod::estimate) request.strength = options.estimateStrength;
  request.format = options.formatFollowsSource ? agent::AgentFormat::same
                                              : agent::toAgentFormat(options.format);
  settings.jpegQuality = options.jpeg.quality;
  settings.webpQuality = std::lround(options.webp.lossyQuality);
  if (options.heifQuality) settings.heifQuality = *options.heifQuality;
  if (options.jpeg.maxBytes) settings.maxKB = *options.jpeg.maxBytes / 1000;
  describePolicy(options.colourPolicy, settings);
}

int runEnlarge(const std::vector<std::string>& arguments) {
  Options options;
  if (const auto done = parseCommandLine("enlarge", arguments, kUsage, parseOptions, options))
    return *done;
  return runRequest(options, "enlarge");
}

int runRecipeRun(const std::vector<std::string>& arguments) {
  const std::string usage =
      "Usage: tarnbloom recipe run ID|NAME [--out DIR] [OPTIONS] FILE|FOLDER...\n"
      "  the same as tarnbloom enlarge --recipe ID|NAME; see tarnbloom enlarge --help\n";
  Options options;
  const auto parse = [](const std::vector<std::string>& given) {
    if (given.empty()) throw UsageError("Name the recipe to run.");
    std::vector<std::string> rest = {"--recipe", given[0]};
    rest.insert(rest.end(), given.begin() + 1, given.end());
    return parseOptions(rest);
  };
  if (const auto done = parseCommandLine("recipe run", arguments, usage, parse, options))
    return *done;
  return runRequest(options, "recipe run");
}

}  // namespace tarnbloom::cli
