#include "agent/agent_request_resolver.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <map>

#include "canvas/canvas_composer.h"
#include "encoding/naming_engine.h"
#include "engine/estimate_engine.h"
#include "export/export_planner.h"
#include "recipes/folder_batch_walker.h"
#include "recipes/recipe_run_planner.h"
#include "recipes/shard.h"
#include "support/files.h"
#include "support/settings.h"
#include "support/state_paths.h"

namespace tarnbloom::agent {

namespace fs = std::filesystem;
using Item = AgentResolvedPlan::Item;
using Unit = AgentResolvedPlan::Unit;
using Exclusion = AgentResolvedPlan::Exclusion;

namespace {

[[noreturn]] void refuse(AgentErrorInfo info) { throw AgentProtocolError(std::move(info)); }

// Nothing left to export: a refusal that carries the sources left out.
struct NothingToExport {
  AgentResolveFailure failure;
};

// Sentences of this step that only the resolver says.

AgentErrorInfo kindMismatch(std::string_view path, AgentSourceKind real, AgentSourceKind declared) {
  return {AgentErrorCode::invalidArgument,
          "A source " + std::string(path) + " is a " + std::string(rawValue(real)) +
              ", but the request says " + std::string(rawValue(declared))};
}

AgentErrorInfo outputFolderMissing(std::string_view path) {
  return {AgentErrorCode::invalidArgument,
          "The output folder " + std::string(path) + " does not exist."};
}

// A path the system will not look through (a link loop, a folder we may
// not enter): the system's own reason.
AgentErrorInfo pathUnusable(AgentErrorCode code, std::string_view path, int errnoValue) {
  return {code, "Couldn’t read " + std::string(path) + ": " + std::strerror(errnoValue) + "."};
}

AgentErrorInfo recipeInvalid(std::string message) {
  return {AgentErrorCode::recipeInvalid, std::move(message)};
}

constexpr std::string_view kRecipeCannotRunHere = "This recipe cannot be used on this computer.";

// Whether `path` is a folder or something else, following links; none when
// nothing is there.
std::optional<AgentSourceKind> kindOf(const std::string& path, AgentErrorCode unreadableCode) {
  struct stat info {};
  if (::stat(path.c_str(), &info) == 0)
    return S_ISDIR(info.st_mode) ? AgentSourceKind::folder : AgentSourceKind::file;
  if (errno == ENOENT || errno == ENOTDIR) return std::nullopt;
  refuse(pathUnusable(unreadableCode, path, errno));
}

// Links resolved and "." and ".." gone, so two spellings of one file are
// one file. A file keeps its own name (the name its outputs are named
// from); only its folder is resolved.
fs::path resolvedFolder(const fs::path& folder) {
  std::error_code error;
  fs::path canonical = fs::canonical(folder, error);
  return error ? folder.lexically_normal() : canonical;
}

fs::path resolvedFile(const fs::path& file) {
  const fs::path normal = file.lexically_normal();
  return resolvedFolder(normal.parent_path()) / normal.filename();
}

fs::path identity(const fs::path& file) {
  std::error_code error;
  fs::path canonical = fs::weakly_canonical(file, error);
  return error ? file : canonical;
}

exporting::CollisionPolicy collisionPolicy(AgentIfExists ifExists) {
  switch (ifExists) {
    case AgentIfExists::number:
      return exporting::CollisionPolicy::number;
    case AgentIfExists::skip:
      return exporting::CollisionPolicy::skip;
    case AgentIfExists::overwrite:
      return exporting::CollisionPolicy::replace;
  }
  return exporting::CollisionPolicy::number;
}

// The code of a source the planner left out.
AgentErrorCode exclusionCode(const exporting::PlanRefusal& refusal) {
  using Cause = exporting::PreflightCause;
  if (refusal.preflight) {
    const Cause cause = refusal.preflight->cause;
    return cause == Cause::notAnImage || cause == Cause::unreadable ||
                   cause == Cause::folderUnreadable
               ? AgentErrorCode::unreadableSource
               : AgentErrorCode::invalidArgument;
  }
  std::error_code error;
  if (!entryExists(refusal.source)) return AgentErrorCode::sourceMissing;
  if (!fs::is_regular_file(refusal.source, error)) return AgentErrorCode::unreadableSource;
  return AgentErrorCode::invalidArgument;  // a canvas it cannot fit, a name it cannot make
}

// Why a library entry cannot run without a person, or none.
std::optional<std::string> unattendedRefusal(const recipes::RecipeStore::LibraryEntry& entry,
                                             const encoding::CanWrite& canWrite) {
  const auto& draft = entry.draft;
  if (!draft) return std::string(kRecipeCannotRunHere);
  const auto& outputs = draft->outputs;
  const auto any = [&](auto predicate) {
    return std::any_of(outputs.begin(), outputs.end(), predicate);
  };
  if (any([&](const auto& output) { return !canWrite(output.format); }))
    return std::string(kRecipeCannotRunHere);
  const std::string named = "“" + draft->name;
  if (outputs.empty()) return named + "” has no outputs.";
  if (any([](const auto& output) { return output.namingTemplate.find('/') != std::string::npos; }))
    return named + "” has a file name template containing “/”.";
  if (any([](const auto& output) {
        return output.destination && !fs::path(*output.destination).is_absolute();
      }))
    return named + "” has a destination folder that is not an absolute path.";
  if (any([](const auto& output) {
        return !canvas::BatchCanvasPolicy::decide(output.canvas).allowed;
      }))
    return named +
           "” has a crop step that must be confirmed per image, so it cannot run from the "
           "command line.";
  return std::nullopt;
}

// One resolution: the request, what the sources turned out to be, and the
// plan as it grows.
class Resolution {
 public:
  Resolution(const AgentRequest& request, const AgentResolverEnvironment& environment)
      : m_request(request), m_environment(environment) {
    m_plan.command = request.command;
    m_plan.jobID = request.job;
    m_plan.dryRun = request.dryRun.value_or(false);
    m_plan.notify = request.notify.value_or(false);
    m_plan.ifExists = request.ifExists.value_or(AgentIfExists::number);
    m_plan.echo = AgentResultRequest::echoing(request);
  }

  AgentResolvedPlan enlarge() {
    collectSources();
    exporting::JobDescription description = resolveOptions();
    const std::string nameTemplate = resolveTemplate();
    if (m_request.settings) applySettings(*m_request.settings, description);
    refuseBatchCanvas(description.options);
    refuseUnwritableSourceFormats(description.options);
    description.collision = collisionPolicy(m_plan.ifExists);

    exporting::DestinationRule destination;
    destination.folder = m_out;
    exporting::ExportPlanner planner(planningDescription(description), nameTemplate, destination);
    planner.reserve(takenNames());
    planner.refuseUnreadable(true);
    addUnit(description, nameTemplate, m_out, sharded(planner.plan(m_files)));
    return finish();
  }

  AgentResolvedPlan recipeRun() {
    validateRecipeRunRequest(m_request);
    const recipes::RecipeDraft recipe = findRecipe(*m_request.recipe);
    m_plan.recipeName = recipe.name;
    collectSources();

    recipes::RecipeRunSettings settings;
    settings.destinationOverride = m_out;
    settings.collision = planningCollision();
    if (const auto& extra = m_request.settings) {
      settings.receiptsBesideExports = extra->receipts == AgentReceipts::beside;
      settings.confirmed16BitReduction = extra->allow8Bit.value_or(false);
    }
    settings.reserved = takenNames();
    settings.refuseUnreadable = [](const fs::path&) { return true; };
    // A recipe with a per-image crop never gets here, so the planner's
    // refusal of one over a batch cannot arise.
    for (auto& unit : recipes::RecipeRunPlanner::plan(recipe, m_files, settings)) {
      exporting::JobDescription description = unit.plan.description;
      description.collision = collisionPolicy(m_plan.ifExists);
      const auto& output = recipe.outputs[unit.outputIndex];
      const auto folder = recipes::RecipeRunPlanner::destinationOf(output, settings).folder;
      addUnit(description, output.namingTemplate, folder, sharded(std::move(unit.plan)));
    }
    return finish();
  }

 private:
  // Sources, in request order with each folder's files in file-manager
  // order, each file once however often it was named or reached.
  void collectSources() {
    if (m_request.sources.empty()) refuse(AgentErrorInfo::sourcesRequired());
    bool anyFolder = false;
    for (const AgentSource& source : m_request.sources) {
      requireAbsolute(source.path, "source");
      const auto kind = kindOf(source.path, AgentErrorCode::unreadableSource);
      if (!kind) refuse(AgentErrorInfo::sourceMissing(source.path));
      if (*kind != source.kind) refuse(kindMismatch(source.path, *kind, source.kind));
      anyFolder = anyFolder || *kind == AgentSourceKind::folder;
    }
    if (anyFolder && !m_request.out) refuse(AgentErrorInfo::outRequiredForFolder());
    if (m_request.out) m_out = resolveOutputFolder(*m_request.out);
    if (m_request.settings && m_request.settings->shard) {
      try {
        m_shard = recipes::parseShard(*m_request.settings->shard);
      } catch (const recipes::ShardSpecError& error) {
        refuse({AgentErrorCode::invalidArgument, error.description()});
      }
    }

    std::set<fs::path> seen;
    const auto add = [&](const fs::path& file) {
      if (seen.insert(identity(file)).second) m_files.push_back(file);
    };
    for (const AgentSource& source : m_request.sources) {
      if (source.kind == AgentSourceKind::file) {
        add(resolvedFile(source.path));
        continue;
      }
      const fs::path folder = resolvedFolder(source.path);
      if (const auto rejection = recipes::FolderBatchWalker::destinationRejection(folder, *m_out))
        refuse({AgentErrorCode::invalidArgument, *rejection});
      // The walk never enters the output folder, so a re-run never reads
      // its own output.
      const auto walk = recipes::FolderBatchWalker::walkDetailed(
          folder, m_request.recursive.value_or(false), {*m_out});
      for (const auto& problem : walk.problems)
        exclude({problem.folder, AgentErrorCode::unreadableSource, problem.message});
      for (const auto& file : walk.files) {
        add(file);
        m_walked.emplace(file, folder);
      }
    }
    m_anyFolder = anyFolder;
  }

  fs::path resolveOutputFolder(const std::string& out) {
    requireAbsolute(out, "out");
    const auto kind = kindOf(out, AgentErrorCode::invalidArgument);
    if (!kind) refuse(outputFolderMissing(out));
    if (*kind != AgentSourceKind::folder) refuse(AgentErrorInfo::outputFolderIsFile(out));
    return resolvedFolder(out);
  }

  // The options over the base, one key at a time.
  exporting::JobDescription resolveOptions() const {
    exporting::JobDescription description;
    exporting::ExportOptions& options = description.options;
    options = m_request.useAppSettings.value_or(false) ? m_environment.savedOptions
                                                       : AgentRequestResolver::factoryOptions();
    if (m_request.size) applySize(*m_request.size, options);
    if (m_request.method) options.method = toResampleMethod(*m_request.method);
    if (m_request.strength) {
      validateStrength(*m_request.strength, options.method);
      // 0.0 asks for the weakest blend the estimate makes.
      options.estimateStrength = std::clamp(*m_request.strength, 0.1, 1.0);
    }
    if (m_request.format) {
      const auto format = toExportFormat(*m_request.format);
      options.formatFollowsSource = !format;
      if (format) options.format = *format;
    }
    if (!options.formatFollowsSource && !m_environment.canWriteFormat(options.format))
      refuse(AgentErrorInfo::cannotWriteFormat(options.format));
    if (m_request.quality) applyQuality(*m_request.quality, options);
    return description;
  }

  static void applyQuality(int64_t quality, exporting::ExportOptions& options) {
    validateQuality(quality,
                    options.formatFollowsSource ? std::nullopt : std::optional(options.format));
    if (options.format == encoding::ExportFormat::jpeg) {
      options.jpeg.quality = static_cast<int>(quality);
    } else {
      // A quality is a lossy setting, whatever the saved options said.
      options.webp.lossless = false;
      options.webp.lossyQuality = static_cast<float>(quality);
    }
  }

  std::string resolveTemplate() const {
    if (!m_request.name) return encoding::NamingEngine::defaultTemplate();
    validateNameTemplate(*m_request.name);
    try {
      encoding::NamingEngine::validateTemplate(*m_request.name);
    } catch (const encoding::NamingError& error) {
      refuse({AgentErrorCode::invalidArgument, error.description()});
    }
    return *m_request.name;
  }

  // A crop is confirmed on one image's own pixels, never reused for others.
  void refuseBatchCanvas(const exporting::ExportOptions& options) const {
    if (m_files.size() <= 1 && !m_anyFolder) return;
    const auto decision = canvas::BatchCanvasPolicy::decide(options.canvas);
    if (!decision.allowed)
      refuse({AgentErrorCode::invalidArgument, decision.title + ". " + decision.explanation});
  }

  // "same" keeps each source's format, so it needs each of them writable.
  void refuseUnwritableSourceFormats(const exporting::ExportOptions& options) const {
    if (!options.formatFollowsSource) return;
    for (const fs::path& file : m_files) {
      const auto own = encoding::matchingFormat(file, [](encoding::ExportFormat) { return true; });
      if (!m_environment.canWriteFormat(own)) refuse(AgentErrorInfo::cannotWriteFormat(own));
    }
  }

  const recipes::RecipeDraft& findRecipe(const std::string& key) const {
    using Case = recipes::RecipeLookupError::Case;
    const recipes::RecipeStore::LibraryEntry* entry = nullptr;
    try {
      const auto found = recipes::RecipeStore::find(m_environment.recipeEntries, key);
      for (const auto& candidate : m_environment.recipeEntries)
        if (candidate.url == found.url) entry = &candidate;
    } catch (const recipes::RecipeLookupError& error) {
      if (error.errorCase() == Case::ambiguous) refuse(AgentErrorInfo::recipeNameAmbiguous(key));
      if (error.errorCase() == Case::notFound) refuse(AgentErrorInfo::recipeNotFound(key));
      refuse(recipeInvalid(std::string(kRecipeCannotRunHere)));
    }
    if (const auto why = unattendedRefusal(*entry, m_environment.canWriteFormat))
      refuse(recipeInvalid(*why));
    return *entry->draft;
  }

  // Names no output may take: other exports' and every source itself, in
  // the spelling planned and with its links resolved.
  std::set<fs::path> takenNames() const {
    std::set<fs::path> taken = m_environment.reservedOutputs;
    for (const fs::path& file : m_files) {
      taken.insert(file);
      taken.insert(identity(file));
    }
    return taken;
  }

  // "skip" is planned as "number", so that every item gets its size and
  // the name it would take; the items whose wanted name is taken by
  // anything but an earlier item are the skipped ones (addUnit).
  exporting::CollisionPolicy planningCollision() const {
    return m_plan.ifExists == AgentIfExists::skip ? exporting::CollisionPolicy::number
                                                  : collisionPolicy(m_plan.ifExists);
  }

  exporting::JobDescription planningDescription(exporting::JobDescription description) const {
    description.collision = planningCollision();
    return description;
  }

  // The batch is planned whole, so that names and numbers are those of an
  // unsharded run; then only this shard's part of it is kept.
  exporting::ExportPlan sharded(exporting::ExportPlan plan) {
    m_batchHasItems = m_batchHasItems || !plan.items.empty();
    if (!m_shard) return plan;
    recipes::keepShard(plan, *m_shard, [this](const fs::path& source) {
      const auto found = m_walked.find(source);
      return recipes::stableShardKey(
          source, found == m_walked.end() ? std::nullopt : std::optional(found->second));
    });
    return plan;
  }

  void addUnit(exporting::JobDescription description, std::string nameTemplate,
               std::optional<fs::path> folder, exporting::ExportPlan plan) {
    Unit unit;
    unit.description = std::move(description);
    unit.outputFolder = std::move(folder);
    unit.nameTemplate = std::move(nameTemplate);
    std::map<fs::path, fs::path> wanted;
    for (const auto& collision : plan.collisions) wanted[collision.source] = collision.wanted;
    std::set<fs::path> earlier;  // names this unit's written items hold
    for (auto& planned : plan.items) {
      if (!planned.assignedOutput || !planned.plannedSize) {
        exclude({planned.url, AgentErrorCode::unreadableSource,
                 AgentErrorInfo::generic(AgentErrorCode::unreadableSource).message});
        continue;
      }
      Item item = itemFor(unit.options(), planned);
      if (const auto done = finishedBefore(item)) {
        item.action = AgentPlanAction::skip;
        item.output = *done;
      } else if (const auto found = wanted.find(planned.url); found != wanted.end()) {
        const bool skip =
            m_plan.ifExists == AgentIfExists::skip && !earlier.contains(found->second);
        item.action = skip ? AgentPlanAction::skip : AgentPlanAction::number;
        if (skip) item.output = found->second;
      } else if (m_plan.ifExists == AgentIfExists::overwrite && entryExists(item.output)) {
        item.action = AgentPlanAction::overwrite;
      }
      if (item.action != AgentPlanAction::skip) {
        earlier.insert(item.output);
        item.planned = std::move(planned);
      }
      unit.items.push_back(std::move(item));
    }
    for (const auto& refusal : plan.refusals)
      exclude({refusal.source, exclusionCode(refusal), refusal.text,
               m_walked.contains(refusal.source) && refusal.preflight &&
                   refusal.preflight->cause == exporting::PreflightCause::notAnImage});
    m_plan.units.push_back(std::move(unit));
  }

  static Item itemFor(const exporting::ExportOptions& options,
                      const exporting::PlannedItem& planned) {
    Item item;
    item.source = planned.url;
    item.output = *planned.assignedOutput;
    // On a canvas the output is the canvas.
    item.width = options.canvas ? options.canvas->width : planned.plannedSize->first;
    item.height = options.canvas ? options.canvas->height : planned.plannedSize->second;
    item.format = toAgentFormat(options.resolvedFormat(planned.url));
    item.method = toAgentMethod(options.method);
    item.aiDetail = options.method == ResampleMethod::estimate;
    return item;
  }

  // A shard run again (its task requeued after a kill) finds the photos it
  // finished in this state folder, at this size and format in this folder,
  // and skips them rather than exporting them again under numbered names.
  std::optional<fs::path> finishedBefore(const Item& item) const {
    if (!m_shard) return std::nullopt;
    for (const auto& done : m_environment.finishedExports)
      if (done.source == item.source && done.output.parent_path() == item.output.parent_path() &&
          done.output.extension() == item.output.extension() && done.width == item.width &&
          done.height == item.height)
        return done.output;
    return std::nullopt;
  }

  void exclude(Exclusion exclusion) {
    if (std::find(m_plan.exclusions.begin(), m_plan.exclusions.end(), exclusion) ==
        m_plan.exclusions.end())
      m_plan.exclusions.push_back(std::move(exclusion));
  }

  AgentResolvedPlan finish() {
    const bool nothing = std::all_of(m_plan.units.begin(), m_plan.units.end(),
                                     [](const Unit& unit) { return unit.items.empty(); });
    // A shard that holds nothing of a batch that does is done, not wrong.
    if (nothing && !(m_shard && m_batchHasItems)) {
      AgentResolveFailure failure(AgentErrorInfo::noImagesFound());
      failure.exclusions = std::move(m_plan.exclusions);
      throw NothingToExport(std::move(failure));
    }
    if (m_request.strength) m_plan.echo.strength = std::clamp(*m_request.strength, 0.1, 1.0);
    return std::move(m_plan);
  }

  const AgentRequest& m_request;
  const AgentResolverEnvironment& m_environment;
  std::optional<fs::path> m_out;
  std::vector<fs::path> m_files;
  // Files a folder walk found, with the folder: the notes and sidecars
  // among them are set aside, where a file named on its own that is no
  // photo fails; and their shard key is their place in that folder.
  std::map<fs::path, fs::path> m_walked;
  std::optional<recipes::ShardSpec> m_shard;
  bool m_batchHasItems = false;  // before sharding
  bool m_anyFolder = false;
  AgentResolvedPlan m_plan;
};

AgentResult finishedResult(const std::string& job, const AgentResolverEnvironment& environment) {
  AgentResult result;
  result.job = job;
  result.app = environment.app;
  result.startedAt = result.updatedAt = environment.now;
  result.finishedAt = environment.now;
  return result;
}

}  // namespace

std::vector<Item> Unit::exportItems() const {
  std::vector<Item> written;
  std::copy_if(items.begin(), items.end(), std::back_inserter(written),
               [](const Item& item) { return item.action != AgentPlanAction::skip; });
  return written;
}

std::vector<exporting::PlannedItem> Unit::plannedItems() const {
  std::vector<exporting::PlannedItem> planned;
  for (const Item& item : items)
    if (item.planned) planned.push_back(*item.planned);
  return planned;
}

std::vector<Item> AgentResolvedPlan::items() const {
  std::vector<Item> all;
  for (const Unit& unit : units) all.insert(all.end(), unit.items.begin(), unit.items.end());
  return all;
}

AgentResult AgentResolvedPlan::dryRunResult(const AgentResolverEnvironment& environment) const {
  AgentResult result = finishedResult(jobID, environment);
  result.state = AgentResultState::completed;
  result.request = echo;
  result.dryRun = true;
  AgentPlan plan;
  for (const Item& item : items())
    plan.items.push_back({item.source.string(), item.output.string(), item.width, item.height,
                          item.format, item.method, item.aiDetail, item.action});
  result.plan = std::move(plan);
  // Nothing ran, so a source left out is reported as skipped, with why.
  const exporting::ExportOptions* options = units.empty() ? nullptr : &units.front().options();
  for (const Exclusion& exclusion : exclusions) {
    AgentItem item;
    item.source = exclusion.source.string();
    item.state = AgentItemState::skipped;
    if (options) {
      item.format = toAgentFormat(options->resolvedFormat(exclusion.source));
      item.method = toAgentMethod(options->method);
      item.aiDetail = options->method == ResampleMethod::estimate;
    }
    item.error = AgentErrorInfo{exclusion.code, exclusion.message};
    result.items.push_back(std::move(item));
  }
  result.counts.skipped = static_cast<int64_t>(exclusions.size());
  return result;
}

AgentResolverEnvironment AgentResolverEnvironment::live(const fs::path& stateFolder,
                                                        AgentAppInfo app,
                                                        std::set<fs::path> reservedOutputs) {
  AgentResolverEnvironment environment;
  environment.app = std::move(app);
  environment.now = std::chrono::system_clock::now();
  environment.savedOptions = exporting::ExportOptions::saved(Settings::load(settingsFilePath()));
  environment.recipeEntries =
      recipes::RecipeStore(stateFolder / "Recipes").entries(recipes::installedMethods());
  environment.reservedOutputs = std::move(reservedOutputs);
  return environment;
}

AgentResolution AgentRequestResolver::resolve(const AgentRequest& request,
                                              const Environment& environment) {
  try {
    validateRequestHeader(request, environment.now);
    Resolution resolution(request, environment);
    switch (request.command) {
      case AgentCommand::enlarge:
        return resolution.enlarge();
      case AgentCommand::recipeRun:
        return resolution.recipeRun();
      default:
        // Information commands and cancel are answered without a plan.
        return AgentErrorInfo::generic(AgentErrorCode::internal);
    }
  } catch (const NothingToExport& nothing) {
    return nothing.failure;
  } catch (const AgentProtocolError& error) {
    return error.info();
  } catch (const Error& error) {
    // Something underneath failed (the file system, most likely): its own
    // words, not a guess at a request fault.
    return AgentErrorInfo{AgentErrorCode::internal, error.description()};
  }
}

AgentResult AgentRequestResolver::rejectedResult(const AgentRequest& request,
                                                 const AgentResolveFailure& failure,
                                                 const Environment& environment) {
  AgentResult result = finishedResult(request.job, environment);
  result.state = AgentResultState::rejected;
  result.request = AgentResultRequest::echoing(request);
  result.dryRun = request.dryRun;
  result.error = static_cast<const AgentErrorInfo&>(failure);
  for (const auto& exclusion : failure.exclusions) result.items.push_back(exclusionItem(exclusion));
  result.counts = countItems(result.items);
  return result;
}

AgentItem exclusionItem(const AgentResolvedPlan::Exclusion& exclusion) {
  AgentItem item;
  item.source = exclusion.source.string();
  const bool failed = !exclusion.notAPhoto && (exclusion.code == AgentErrorCode::unreadableSource ||
                                               exclusion.code == AgentErrorCode::sourceMissing);
  item.state = failed ? AgentItemState::failed : AgentItemState::skipped;
  item.error = AgentErrorInfo{exclusion.code, exclusion.message};
  return item;
}

exporting::ExportOptions AgentRequestResolver::factoryOptions() {
  exporting::ExportOptions options;
  options.jpeg.quality = 85;
  return options;
}

std::vector<AgentRecipeInfo> AgentRequestResolver::recipeList(const Environment& environment) {
  std::vector<AgentRecipeInfo> list;
  for (const auto& entry : environment.recipeEntries) {
    const auto refusal = unattendedRefusal(entry, environment.canWriteFormat);
    list.push_back({entry.id(), entry.name, !refusal, refusal});
  }
  return list;
}

}  // namespace tarnbloom::agent
