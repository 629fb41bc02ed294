#include "agent/agent_job_service.h"

#include <algorithm>
#include <system_error>
#include <unordered_map>

#include "agent/agent_file_store.h"
#include "agent/agent_paths.h"
#include "agent/agent_url_handler.h"
#include "export/receipt.h"
#include "support/files.h"

namespace tarnbloom::agent {

namespace fs = std::filesystem;
using exporting::Result;

namespace {

bool finished(AgentItemState state) {
  return state != AgentItemState::pending && state != AgentItemState::running;
}

constexpr std::chrono::milliseconds kHeartbeat{2000};
// Progress within an item is written at most this often.
constexpr std::chrono::milliseconds kProgressInterval{250};

}  // namespace

AgentResultState finalState(const AgentCounts& counts, bool cancelled) {
  if (cancelled) return AgentResultState::cancelled;
  if (counts.failed == 0) return AgentResultState::completed;
  if (counts.completed == 0) return AgentResultState::failed;
  return AgentResultState::partial;
}

AgentExportBackend AgentExportBackend::live(exporting::ExportController& controller) {
  return {
      [&controller](exporting::Submission submission) {
        return controller.submit(std::move(submission));
      },
      [&controller](const std::string& queueJobID) { return controller.cancelJob(queueJobID); }};
}

struct AgentJobService::Tracked {
  AgentResolvedPlan plan;
  AgentResult result;
  AgentJobLink link;
  // Per unit: the export-queue job, and each controller item's row.
  std::vector<std::optional<std::string>> queueJobs;
  std::vector<std::vector<size_t>> unitRows;
  size_t unitsOpen = 0;
  bool cancelRequested = false;
  bool quitWhenDone = false;
  bool notify = false;
  std::function<void(const AgentResult&)> completion;
  uint64_t timerGeneration = 0;
  std::chrono::steady_clock::time_point lastProgressWrite{};
};

AgentJobService::AgentJobService(Configuration configuration)
    : m_config(std::move(configuration)) {}

AgentJobService::~AgentJobService() = default;

AgentResult AgentJobService::baseResult(const std::string& jobID,
                                        const std::optional<AgentRequest>& request) const {
  AgentResult result;
  result.job = jobID;
  result.app = m_config.app;
  result.startedAt = result.updatedAt = m_config.now();
  if (request) result.request = AgentResultRequest::echoing(*request);
  return result;
}

void AgentJobService::writeResult(const AgentResult& result, bool durable) {
  const fs::path file = AgentPaths::outboxFile(result.job, m_config.stateFolder);
  try {
    AgentFileStore::ensureDirectory(file.parent_path());
    AgentFileStore::writeAtomically(encodeResult(result), file,
                                    durable ? Durability::durable : Durability::ordered);
  } catch (const std::exception& error) {
    if (m_config.log)
      m_config.log(std::string(durable ? "agent: final write failed: " : "agent: write failed: ") +
                   error.what());
  }
}

void AgentJobService::writeLink(const std::string& jobID, const AgentJobLink& link) {
  const fs::path file = AgentPaths::stateFile(jobID, m_config.stateFolder);
  try {
    AgentFileStore::ensureDirectory(file.parent_path());
    AgentFileStore::writeAtomically(link.encode(), file, Durability::durable);
  } catch (const std::exception& error) {
    if (m_config.log) m_config.log(std::string("agent: job link write failed: ") + error.what());
  }
}

bool AgentJobService::hasOutbox(const std::string& jobID) const {
  return entryExists(AgentPaths::outboxFile(jobID, m_config.stateFolder));
}

std::optional<AgentResult> AgentJobService::status(const std::string& jobID) const {
  const auto found = m_jobs.find(AgentPaths::jobKey(jobID));
  if (found != m_jobs.end()) return found->second->result;
  try {
    const auto bytes = readWholeFile(AgentPaths::outboxFile(jobID, m_config.stateFolder),
                                     AgentProtocol::maxResultBytes);
    return decodeResult(bytes);
  } catch (const std::exception&) {
    return std::nullopt;
  }
}

void AgentJobService::reject(const std::string& jobID, const std::optional<AgentRequest>& request,
                             AgentErrorCode code, const std::string& message) {
  const AgentResult result = makeRejectedResult(jobID, request, AgentErrorInfo{code, message},
                                                m_config.app, m_config.now());
  writeResult(result, true);
  if (m_config.postFinished) m_config.postFinished(result);
}

void AgentJobService::answerInfo(const AgentRequest& request) {
  AgentResult result = baseResult(request.job, request);
  result.state = AgentResultState::completed;
  result.finishedAt = result.updatedAt;
  if (request.command == AgentCommand::recipeList)
    result.recipes = AgentRequestResolver::recipeList(m_config.makeResolverEnvironment());
  writeResult(result, true);
}

void AgentJobService::submit(const AgentRequest& request, bool quitWhenDone,
                             std::function<void(const AgentResult&)> completion) {
  if (request.command == AgentCommand::cancel) {
    AgentResult result = baseResult(request.job, request);
    result.finishedAt = result.updatedAt;
    if (request.targetJob && cancel(*request.targetJob)) {
      result.state = AgentResultState::completed;
    } else {
      result.state = AgentResultState::rejected;
      result.error = AgentErrorInfo::unknownJob();
    }
    writeResult(result, true);
    if (completion) completion(result);
    return;
  }
  const auto environment = m_config.makeResolverEnvironment();
  AgentResolution resolution = AgentRequestResolver::resolve(request, environment);
  if (const auto* failure = std::get_if<AgentResolveFailure>(&resolution)) {
    AgentResult result = AgentRequestResolver::rejectedResult(request, *failure, environment);
    writeResult(result, true);
    if (m_config.postFinished) m_config.postFinished(result);
    if (completion) completion(result);
    return;
  }
  AgentResolvedPlan plan = std::get<AgentResolvedPlan>(std::move(resolution));
  if (plan.dryRun) {
    const AgentResult result = plan.dryRunResult(environment);
    writeResult(result, true);
    if (completion) completion(result);
    return;
  }
  if (m_jobs.count(AgentPaths::jobKey(request.job))) {
    reject(request.job, request, AgentErrorInfo::jobAlreadyRunning().code,
           AgentErrorInfo::jobAlreadyRunning().message);
    return;
  }
  start(request, std::move(plan), quitWhenDone, std::move(completion));
}

void AgentJobService::start(const AgentRequest& request, AgentResolvedPlan plan, bool quitWhenDone,
                            std::function<void(const AgentResult&)> completion) {
  const std::string key = AgentPaths::jobKey(request.job);
  auto tracked = std::make_unique<Tracked>();
  Tracked& job = *tracked;
  job.result = baseResult(request.job, request);
  job.quitWhenDone = quitWhenDone;
  job.notify = plan.notify;
  job.completion = std::move(completion);
  job.unitRows.resize(plan.units.size());
  job.queueJobs.resize(plan.units.size());
  for (size_t u = 0; u < plan.units.size(); ++u) {
    for (const auto& item : plan.units[u].items) {
      AgentItem row;
      row.source = item.source.string();
      row.output = item.output.string();
      row.width = item.width;
      row.height = item.height;
      row.format = item.format;
      row.method = item.method;
      row.aiDetail = item.aiDetail;
      if (item.action == AgentPlanAction::skip) {
        row.state = AgentItemState::skipped;
        row.error = AgentErrorInfo::generic(AgentErrorCode::outputExists);
      } else {
        job.unitRows[u].push_back(job.result.items.size());
      }
      job.link.items.push_back({row.source, item.output.string(),
                                item.action == AgentPlanAction::overwrite, std::nullopt});
      job.result.items.push_back(std::move(row));
    }
  }
  for (const auto& exclusion : plan.exclusions)
    job.result.items.push_back(exclusionItem(exclusion));
  job.plan = std::move(plan);
  job.result.counts = countItems(job.result.items);
  m_jobs[key] = std::move(tracked);
  writeResult(job.result, false);
  writeLink(job.result.job, job.link);
  heartbeat(key, job.timerGeneration);
  submitUnits(key);
  finishIfDone(key);
}

void AgentJobService::submitUnits(const std::string& key) {
  Tracked& job = *m_jobs.at(key);
  for (size_t u = 0; u < job.plan.units.size(); ++u) {
    const auto& rows = job.unitRows[u];
    if (rows.empty()) continue;
    exporting::Submission submission;
    submission.description = job.plan.units[u].description;
    for (const auto& item : job.plan.units[u].items)
      if (item.action != AgentPlanAction::skip && item.planned)
        submission.items.push_back(*item.planned);
    exporting::AgentSubmission agent;
    agent.replaceExisting = submission.description.replaceExisting();
    agent.onQueued = [this, key, u](const std::string& queueJobID,
                                    const std::vector<std::string>& itemIDs) {
      Tracked& queued = *m_jobs.at(key);
      queued.queueJobs[u] = queueJobID;
      m_queueJobs[queueJobID] = {key, u};
      queued.link.queueJobs.push_back(queueJobID);
      const auto& rows = queued.unitRows[u];
      for (size_t i = 0; i < rows.size() && i < itemIDs.size(); ++i)
        queued.link.items[rows[i]].queueItem = itemIDs[i];
      writeLink(queued.result.job, queued.link);
    };
    submission.agent = std::move(agent);
    ++job.unitsOpen;
    try {
      m_config.backend.submit(std::move(submission));
    } catch (const std::exception& error) {
      // The controller refused the whole unit: every row of it fails.
      --job.unitsOpen;
      for (size_t row : rows) {
        AgentItem& item = job.result.items[row];
        item.state = AgentItemState::failed;
        item.error = AgentErrorInfo::exportFailed();
        item.notes = {error.what()};
      }
    }
  }
  refresh(job);
}

void AgentJobService::heartbeat(const std::string& key, uint64_t generation) {
  const auto found = m_jobs.find(key);
  if (found == m_jobs.end() || found->second->timerGeneration != generation) return;
  refresh(*found->second);
  if (m_config.startTimer)
    m_config.startTimer(kHeartbeat, [this, key, generation] { heartbeat(key, generation); });
}

void AgentJobService::refresh(Tracked& tracked) {
  tracked.result.updatedAt = m_config.now();
  tracked.result.counts = countItems(tracked.result.items);
  writeResult(tracked.result, false);
}

std::pair<AgentJobService::Tracked*, AgentItem*> AgentJobService::rowOf(const exporting::Job& job,
                                                                        size_t index) {
  const auto found = m_queueJobs.find(job.id);
  if (found == m_queueJobs.end()) return {nullptr, nullptr};
  const auto tracked = m_jobs.find(found->second.first);
  if (tracked == m_jobs.end()) return {nullptr, nullptr};
  const auto& rows = tracked->second->unitRows[found->second.second];
  if (index >= rows.size()) return {nullptr, nullptr};
  return {tracked->second.get(), &tracked->second->result.items[rows[index]]};
}

void AgentJobService::onItemStarted(const exporting::Job& job, size_t index) {
  auto [tracked, row] = rowOf(job, index);
  if (!row) return;
  row->state = AgentItemState::running;
  row->progress = 0.0;
  refresh(*tracked);
}

void AgentJobService::onItemProgress(const exporting::Job& job, size_t index, double fraction) {
  auto [tracked, row] = rowOf(job, index);
  if (!row) return;
  row->progress = fraction;
  const auto now = std::chrono::steady_clock::now();
  if (now - tracked->lastProgressWrite < kProgressInterval) return;
  tracked->lastProgressWrite = now;
  refresh(*tracked);
}

void AgentJobService::onItemFinished(const exporting::Job& job, size_t index,
                                     const Result& result) {
  auto [tracked, row] = rowOf(job, index);
  if (!row) return;
  row->progress.reset();
  row->notes.clear();
  switch (result.kind) {
    case Result::Kind::exported:
      row->state = AgentItemState::completed;
      row->output = result.output ? std::optional(result.output->string()) : row->output;
      row->width = result.width;
      row->height = result.height;
      if (result.format) row->format = toAgentFormat(*result.format);
      row->method = toAgentMethod(result.method);
      row->aiDetail = result.method == ResampleMethod::estimate;
      if (result.receipt) row->receipt = result.receipt->string();
      row->error.reset();
      if (result.floorHit)
        row->notes.push_back("Reached the minimum JPEG quality (Q" +
                             std::to_string(result.jpegQuality.value_or(0)) +
                             ") without meeting the target file size.");
      else if (result.jpegQuality && job.options().jpeg.maxBytes)
        row->notes.push_back("JPEG quality " + std::to_string(*result.jpegQuality) + ".");
      for (const auto& advisory : result.advisories) row->notes.push_back(advisory);
      if (result.receiptError) row->notes.push_back(*result.receiptError);
      break;
    case Result::Kind::skipped:
      row->state = AgentItemState::skipped;
      row->output.reset();
      row->error = AgentErrorInfo{
          AgentErrorCode::unsupportedFormat,
          "This source is 16-bit and the output format stores 8-bit channels. It was skipped "
          "because nobody could confirm the reduction; choose a format that keeps 16-bit."};
      break;
    case Result::Kind::stopped:
      row->state = AgentItemState::cancelled;
      row->output.reset();
      row->error = AgentErrorInfo::jobCancelled();
      break;
    case Result::Kind::failed:
      row->state = AgentItemState::failed;
      row->output.reset();
      row->error = AgentErrorInfo::exportFailed();
      if (!result.errorText.empty()) row->notes.push_back(result.errorText);
      if (!result.errorDetails.empty()) row->notes.push_back(result.errorDetails);
      break;
  }
  refresh(*tracked);
}

void AgentJobService::onJobFinished(const exporting::Job& job, const exporting::JobReport& report) {
  const auto found = m_queueJobs.find(job.id);
  if (found == m_queueJobs.end()) return;
  const auto [key, unit] = found->second;
  m_queueJobs.erase(found);
  const auto tracked = m_jobs.find(key);
  if (tracked == m_jobs.end()) return;
  Tracked& agentJob = *tracked->second;
  // Rows the controller never reached: a cancel, or a halt that keeps them
  // for a later resume.
  for (size_t row : agentJob.unitRows[unit]) {
    AgentItem& item = agentJob.result.items[row];
    if (finished(item.state)) continue;
    item.progress.reset();
    if (agentJob.cancelRequested) {
      item.state = AgentItemState::cancelled;
      item.error = AgentErrorInfo::jobCancelled();
    } else {
      item.state = AgentItemState::failed;
      item.error = AgentErrorInfo::itemNotExported();
      if (report.halt) item.notes = {*report.halt};
    }
  }
  --agentJob.unitsOpen;
  refresh(agentJob);
  finishIfDone(key);
}

void AgentJobService::apply(const exporting::ExportEvent& event) {
  namespace ev = exporting::events;
  if (const auto* started = std::get_if<ev::ItemStarted>(&event))
    onItemStarted(*started->job, started->index);
  else if (const auto* progress = std::get_if<ev::ItemProgress>(&event))
    onItemProgress(*progress->job, progress->index, progress->fraction);
  else if (const auto* ended = std::get_if<ev::ItemFinished>(&event))
    onItemFinished(*ended->job, ended->index, *ended->result);
  else if (const auto* done = std::get_if<ev::JobFinished>(&event))
    onJobFinished(*done->job, *done->report);
}

bool AgentJobService::cancel(const std::string& jobID) {
  const auto found = m_jobs.find(AgentPaths::jobKey(jobID));
  if (found == m_jobs.end()) return false;
  Tracked& job = *found->second;
  if (job.cancelRequested) return true;
  job.cancelRequested = true;
  job.link.cancelRequested = true;
  writeLink(job.result.job, job.link);
  for (const auto& queueJob : job.queueJobs)
    if (queueJob) m_config.backend.cancel(*queueJob);
  return true;
}

void AgentJobService::finishIfDone(const std::string& key) {
  const auto found = m_jobs.find(key);
  if (found == m_jobs.end()) return;
  Tracked& job = *found->second;
  if (job.unitsOpen > 0) return;
  for (const auto& item : job.result.items)
    if (!finished(item.state)) return;
  AgentResult result = std::move(job.result);
  result.counts = countItems(result.items);
  result.state = finalState(result.counts, job.cancelRequested);
  result.finishedAt = result.updatedAt = m_config.now();
  if (job.cancelRequested) result.error = AgentErrorInfo::jobCancelled();
  auto completion = std::move(job.completion);
  const bool notify = job.notify;
  m_jobs.erase(found);
  writeResult(result, true);
  if (notify && m_config.postFinished) m_config.postFinished(result);
  if (completion) completion(result);
}

AgentResult AgentJobService::reconcile(
    AgentResult result, const AgentJobLink& link,
    const std::function<const exporting::PersistedExportItem*(const std::string&)>& queueItem,
    WallTime now, const std::function<bool(const fs::path&)>& fileExists,
    const std::function<std::optional<fs::path>(const fs::path&)>& receiptPath, bool forceCancel) {
  using exporting::ExportQueueItemState;
  for (size_t i = 0; i < result.items.size(); ++i) {
    AgentItem& item = result.items[i];
    if (finished(item.state)) continue;
    item.progress.reset();
    // Without its link entry an item cannot be found in the queue: it did
    // not finish as far as anyone can tell.
    const AgentJobLink::Entry* entry = i < link.items.size() ? &link.items[i] : nullptr;
    const exporting::PersistedExportItem* stored =
        entry && entry->queueItem ? queueItem(*entry->queueItem) : nullptr;
    const fs::path output = stored && stored->outputPath ? fs::path(*stored->outputPath)
                            : entry                      ? fs::path(entry->plannedOutput)
                                                         : fs::path();
    if (stored && stored->state == ExportQueueItemState::completed && !output.empty() &&
        fileExists(output)) {
      item.state = AgentItemState::completed;
      item.output = output.string();
      if (const auto receipt = receiptPath(output)) item.receipt = receipt->string();
      item.error.reset();
    } else if (stored && stored->state == ExportQueueItemState::failed) {
      item.state = AgentItemState::failed;
      item.output.reset();
      item.error = AgentErrorInfo::exportFailed();
      if (stored->errorText) item.notes = {*stored->errorText};
    } else if (forceCancel) {
      item.state = AgentItemState::cancelled;
      item.output.reset();
      item.error = AgentErrorInfo::jobCancelled();
    } else {
      item.state = AgentItemState::failed;
      item.output.reset();
      item.error = AgentErrorInfo::appQuitBeforeItemFinished();
    }
  }
  result.counts = countItems(result.items);
  result.state = finalState(result.counts, forceCancel);
  if (forceCancel) result.error = AgentErrorInfo::jobCancelled();
  result.finishedAt = result.updatedAt = now;
  return result;
}

void AgentJobService::reconcileInterrupted(const exporting::ExportQueueStore& queue) {
  const fs::path outbox = AgentPaths::outboxDirectory(m_config.stateFolder);
  std::error_code error;
  const exporting::ReceiptLocation receipts{m_config.receiptsFolder};
  std::unordered_map<std::string, const exporting::PersistedExportItem*> queueItems;
  for (const auto& entry : fs::directory_iterator(outbox, error)) {
    const fs::path file = entry.path();
    if (file.extension() != ".json" || !entry.is_regular_file(error)) continue;
    const std::string jobID = file.stem().string();
    if (!AgentProtocol::isValidJobID(jobID) || m_jobs.count(AgentPaths::jobKey(jobID))) continue;
    try {
      AgentResult result = decodeResult(readWholeFile(file, AgentProtocol::maxResultBytes));
      if (result.state != AgentResultState::running) continue;
      AgentJobLink link;
      try {
        link = AgentJobLink::decode(readWholeFile(
            AgentPaths::stateFile(jobID, m_config.stateFolder), AgentProtocol::maxResultBytes));
      } catch (const std::exception& damaged) {
        // Without a link nothing can be said about its items but that they
        // did not finish here.
        if (m_config.log) m_config.log("agent: job link of " + jobID + ": " + damaged.what());
      }
      // Built once, and only when some job needs it: a queue of a big
      // batch holds thousands of items.
      if (queueItems.empty())
        for (const auto& job : queue.jobs())
          for (const auto& item : job.items) queueItems.emplace(item.id, &item);
      const auto findItem = [&queueItems](const std::string& id) {
        const auto found = queueItems.find(id);
        return found == queueItems.end() ? nullptr : found->second;
      };
      result = reconcile(
          std::move(result), link, findItem, m_config.now(),
          [](const fs::path& path) { return entryExists(path); },
          [&receipts](const fs::path& output) { return receipts.existingURL(output); },
          link.cancelRequested);
      writeResult(result, true);
      if (m_config.log) m_config.log("agent: finished interrupted job " + jobID);
    } catch (const std::exception& failure) {
      if (m_config.log)
        m_config.log("agent: could not reconcile job " + jobID + ": " + failure.what());
    }
  }
}

size_t AgentJobService::collectGarbage() {
  size_t removed = 0;
  const auto cutoff = fs::file_time_type::clock::now() - std::chrono::hours(24);
  for (const fs::path& folder : {AgentPaths::inboxDirectory(m_config.stateFolder),
                                 AgentPaths::outboxDirectory(m_config.stateFolder),
                                 AgentPaths::stateDirectory(m_config.stateFolder)}) {
    std::error_code error;
    for (const auto& entry : fs::directory_iterator(folder, error)) {
      std::error_code entryError;
      if (!entry.is_regular_file(entryError) || entry.is_symlink(entryError)) continue;
      const auto modified = entry.last_write_time(entryError);
      if (entryError || modified >= cutoff) continue;
      if (m_jobs.count(AgentPaths::jobKey(entry.path().stem().string()))) continue;
      if (fs::remove(entry.path(), entryError)) ++removed;
    }
  }
  return removed;
}

}  // namespace tarnbloom::agent
