#include "export/export_planner.h"

#include <fcntl.h>

#include "canvas/canvas_composer.h"
#include "encoding/naming_engine.h"
#include "encoding/webp_encoder.h"
#include "engine/engine_error.h"
#include "engine/resample_engine.h"
#include "engine/source_probe.h"
#include "support/files.h"
#include "support/utf8.h"

namespace tarnbloom::exporting {

namespace fs = std::filesystem;

namespace {

encoding::NamingFacts namingFacts(const JobDescription& description, const OutputNaming& naming) {
  encoding::NamingFacts facts;
  facts.sourcePath = naming.source;
  facts.outputWidth = naming.width;
  facts.outputHeight = naming.height;
  facts.method = std::string(rawValue(description.options.method));
  facts.formatToken = std::string(encoding::rawValue(naming.format));
  facts.index = naming.batchIndex;
  facts.scaleFactor = static_cast<double>(naming.width) / std::max<int64_t>(1, naming.sourceWidth);
  if (description.folderBatch && !description.folderBatch->sku.empty())
    facts.sku = description.folderBatch->sku;
  return facts;
}

// Why a source cannot be exported before it is even read; none when it may.
std::optional<std::string> unusableSource(const fs::path& file, const fs::path& folder) {
  std::error_code error;
  if (!fs::exists(file, error)) return "“" + file.string() + "” doesn’t exist.";
  if (!fs::is_regular_file(file, error))
    return "“" + file.string() + "” is not a regular file, so it was not read.";
  if (!isValidUtf8(file.string()) || !isValidUtf8(folder.string()))
    return "its path is not valid UTF-8, which the export queue and receipts can’t record. "
           "Rename it, then try again. Nothing was written.";
  return std::nullopt;
}

// Whether the file can be opened for reading at all: a probe of a file we
// may not read says nothing about what it holds.
bool isReadable(const fs::path& file) {
  const FileDescriptor fd(::open(file.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
  return fd.get() >= 0;
}

}  // namespace

ExportPlanner::ExportPlanner(JobDescription description, std::string nameTemplate,
                             DestinationRule destination)
    : m_description(std::move(description)),
      m_template(std::move(nameTemplate)),
      m_destination(std::move(destination)) {
  if (m_destination.folder) m_destination.folder = fs::absolute(*m_destination.folder);
}

ExportPlan ExportPlanner::plan(const std::vector<fs::path>& sources) const {
  ExportPlan plan;
  plan.description = m_description;
  std::set<fs::path> planned;
  const auto taken = [&](const fs::path& path) {
    return planned.contains(path) || m_reserved.contains(path) || entryExists(path);
  };
  const ExportOptions& options = m_description.options;
  // {index} numbers the sources that are photos at all, so it has no gaps
  // for a folder's notes and sidecars and numbers a photo alike in every
  // output of a recipe.
  int64_t rows = 0;
  for (size_t i = 0; i < sources.size(); ++i) {
    PlannedItem item;
    item.url = fs::absolute(sources[i]).lexically_normal();
    item.destination = m_destination.folderFor(item.url);
    const auto refuse = [&](PlanRefusal::Kind kind, std::string text) {
      plan.refusals.push_back({item.url, kind, std::move(text)});
    };
    if (auto why = unusableSource(item.url, item.destination)) {
      refuse(PlanRefusal::Kind::failed, std::move(*why));
      continue;
    }
    const SourceProbe probe = SourceProbe::probe(item.url);
    OutputNaming naming;
    naming.source = item.url;
    naming.folder = item.destination;
    naming.format = options.resolvedFormat(item.url);
    naming.sourceWidth = probe.width;
    const SourceClassification classified = classifySource(
        probe, isReadable(item.url), options, naming.format, m_description.confirmed16BitReduction);
    const bool headerOnly =
        classified.exception &&
        (classified.exception->code == PreflightExceptionClass::unreadable ||
         classified.exception->code == PreflightExceptionClass::unsupportedFormat);
    const bool refused = headerOnly && m_refuseUnreadable && m_refuseUnreadable(item.url);
    if (!refused) item.batchIndex = naming.batchIndex = ++rows;
    if (classified.exception) {
      if (headerOnly && !refused) {
        plan.items.push_back(std::move(item));
      } else {
        refuse(PlanRefusal::Kind::failed, classified.exception->explanation);
        plan.refusals.back().preflight = classified.exception;
      }
      continue;
    }
    naming.width = classified.size->width;
    naming.height = classified.size->height;
    // On a canvas the output is the canvas: names and limits follow it, and
    // an image that cannot fit an exact canvas is refused here.
    if (const auto& canvas = options.canvas) {
      try {
        if (canvas->mode == canvas::CanvasMode::exact)
          canvas::CanvasComposer::resolveExactPlacement(naming.width, naming.height, canvas->width,
                                                        canvas->height);
      } catch (const canvas::CanvasError& error) {
        refuse(PlanRefusal::Kind::failed, error.description() + " " + error.recoverySuggestion());
        continue;
      }
      if (naming.format == encoding::ExportFormat::webp &&
          std::max(canvas->width, canvas->height) > encoding::WebPEncoder::maximumDimension) {
        refuse(PlanRefusal::Kind::failed,
               EngineError::webPDimensionExceeded(encoding::WebPEncoder::maximumDimension,
                                                  canvas->width, canvas->height)
                   .description());
        continue;
      }
      naming.width = canvas->width;
      naming.height = canvas->height;
    }
    try {
      const fs::path first = encoding::NamingEngine::firstCandidatePath(
          naming.folder, m_template, namingFacts(m_description, naming));
      const bool free = !taken(first) && !ResampleEngine::isSourceDestination(first, item.url);
      if (m_description.collision == CollisionPolicy::skip && !free && !planned.contains(first)) {
        refuse(PlanRefusal::Kind::skipped,
               "skipped. “" + first.filename().string() + "” already exists.");
        continue;
      }
      // Replacing is for files on disk, never for a name this plan or
      // another unfinished export already holds.
      const bool replaces = m_description.collision == CollisionPolicy::replace &&
                            !planned.contains(first) && !m_reserved.contains(first) &&
                            !ResampleEngine::isSourceDestination(first, item.url);
      item.assignedOutput =
          replaces ? first
                   : numbered(naming.folder, m_template, m_description, naming, taken, false);
      if (*item.assignedOutput != first)
        plan.collisions.push_back({item.url, first, *item.assignedOutput});
    } catch (const Error& error) {
      refuse(PlanRefusal::Kind::failed, error.description());
      continue;
    }
    planned.insert(*item.assignedOutput);
    item.plannedSize = std::pair{classified.size->width, classified.size->height};
    plan.items.push_back(std::move(item));
  }
  return plan;
}

fs::path ExportPlanner::numbered(const fs::path& folder, std::string_view templ,
                                 const JobDescription& description, const OutputNaming& naming,
                                 const Taken& taken, bool createFolder) {
  return encoding::NamingEngine::resolveOutputPath(folder, templ, namingFacts(description, naming),
                                                   createFolder, taken);
}

fs::path ExportPlanner::outputFor(const JobDescription& description, const OutputNaming& naming,
                                  const Taken& taken) {
  std::string templ = encoding::NamingEngine::defaultTemplate();
  fs::path folder = naming.folder;
  if (description.folderBatch) {
    templ = description.folderBatch->templ;
    if (!description.folderBatch->output.empty()) folder = description.folderBatch->output;
  }
  return numbered(folder, templ, description, naming, taken, true);
}

fs::path ExportPlanner::reclaim(const fs::path& reserved, const fs::path& source, bool replace,
                                const Taken& taken) {
  std::error_code error;
  fs::create_directories(reserved.parent_path(), error);
  if (ResampleEngine::isSourceDestination(reserved, source))
    throw SourceProtectionError(SourceProtectionError::Case::destinationIsSource);
  if (replace || !taken(reserved)) return reserved;
  return encoding::NamingEngine::freePathFrom(reserved, source, taken);
}

}  // namespace tarnbloom::exporting
