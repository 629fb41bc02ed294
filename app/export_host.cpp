#include "app/export_host.h"

#include <QFutureWatcher>
#include <QTimer>
#include <QtConcurrent/QtConcurrentRun>

#include "app/qt_executor.h"
#include "export/export_planner.h"
#include "support/files.h"

namespace tarnbloom::app {

namespace fs = std::filesystem;
using namespace exporting;

namespace {

QString qs(const std::string& text) { return QString::fromStdString(text); }

}  // namespace

ExportHost::ExportHost(EstimateEngine* estimates, QObject* parent)
    : QObject(parent), m_estimates(estimates), m_context(ExportContext::standard(estimates)) {
  m_context.appVersion = TARNBLOOM_VERSION;
  m_context.appBuild = TARNBLOOM_VERSION;
  m_blocked = QStringLiteral("Waiting for another Tarnbloom export to finish…");
}

ExportHost::~ExportHost() {
  // The controller stops a running job after its step and waits; the
  // lanes are joined after it, so nothing lands in a half-gone host.
  m_controller = nullptr;
  m_agent.reset();
  m_executor.reset();
}

namespace {

// What taking the lock gave: the lock, or why not.
struct LockAttempt {
  std::shared_ptr<StateFolderLock> lock;
  std::string error;
};

}  // namespace

void ExportHost::start() {
  const fs::path folder = m_context.stateFolder;
  // Another process (a command-line export, the service) may hold the
  // folder; waiting for it must not freeze the window.
  auto* watcher = new QFutureWatcher<LockAttempt>(this);
  connect(watcher, &QFutureWatcherBase::finished, this, [this, watcher] {
    watcher->deleteLater();
    LockAttempt attempt = watcher->result();
    if (!attempt.lock) {
      m_blocked = qs(attempt.error);
      Q_EMIT blockedChanged(m_blocked);
      return;
    }
    finishStart(std::move(attempt.lock));
  });
  watcher->setFuture(QtConcurrent::run([folder] {
    LockAttempt attempt;
    try {
      attempt.lock = std::make_shared<StateFolderLock>(folder);
    } catch (const Error& error) {
      attempt.error = error.description();
    }
    return attempt;
  }));
}

void ExportHost::finishStart(std::shared_ptr<StateFolderLock> lock) {
  m_executor = std::make_unique<QtExecutor>(this, ExportController::kLanes);
  agent::AgentHost::Loop loop{
      *m_executor,
      [this](std::chrono::milliseconds delay, std::function<void()> task) {
        QTimer::singleShot(delay, this, std::move(task));
      },
      // The window decides when the program ends, not an idle instance.
      [] {}};
  agent::AgentHost::Options options;
  options.app = {TARNBLOOM_VERSION, TARNBLOOM_VERSION, "com.tarnbloom.app"};
  options.lock = std::move(lock);
  options.notify = [this](const agent::AgentResult& result) { Q_EMIT announce(result); };
  options.log = [](const std::string& text) { qInfo("%s", text.c_str()); };
  try {
    m_agent = std::make_unique<agent::AgentHost>(loop, m_context.stateFolder, std::move(options));
  } catch (const Error& error) {
    m_blocked = qs(error.description());
    Q_EMIT blockedChanged(m_blocked);
    return;
  }
  m_controller = &m_agent->controller();
  m_controller->subscribe([this](const ExportEvent& event) { onEvent(event); });
  m_blocked.clear();
  Q_EMIT blockedChanged(m_blocked);
  Q_EMIT ready();
  for (const std::string& message : std::exchange(m_waitingMessages, {})) m_agent->receive(message);
}

void ExportHost::receive(const std::string& message) {
  if (m_agent)
    m_agent->receive(message);
  else
    m_waitingMessages.push_back(message);
}

RecoveryFindings ExportHost::recover() {
  RecoveryFindings findings;
  if (!m_agent) return findings;
  ExportQueueStore& queue = m_agent->queue();
  if (const auto& failure = queue.loadFailure()) {
    QString note = qs(failure->description() + ' ' + failure->recoverySuggestion());
    if (queue.quarantinedAt())
      note += qs(" It is now “" + queue.quarantinedAt()->string() + "”.");
    if (queue.quarantineFailed())
      note += QStringLiteral(
          " The original file could not be moved aside, so it was left exactly where it is.");
    findings.notes << note;
  }
  // The host settled the previous run's work before it took any job.
  const RecoveryReport& report = m_agent->recovery();
  for (const auto& text : report.leftOut) findings.notes << qs(text);
  for (const auto& receipt : report.mismatchedReceipts)
    findings.notes << qs(
        "Pending or mismatched receipt: these settings do not describe the current output "
        "bytes. Retry the interrupted export.\n\n" +
        receipt.string());
  findings.interrupted = !queue.pendingJobs().empty();
  return findings;
}

QStringList ExportHost::resumeInterrupted() {
  QStringList problems;
  if (!m_controller) return problems;
  ExportQueueStore& queue = m_agent->queue();
  std::vector<std::string> ids;
  for (const auto* job : queue.pendingJobs()) ids.push_back(job->id);
  for (const auto& id : ids) {
    try {
      m_controller->resume(*queue.job(id));
    } catch (const Error& error) {
      problems << qs("Job " + id + ": " + error.description());
    }
  }
  return problems;
}

void ExportHost::discardInterrupted() {
  if (!m_agent) return;
  ExportQueueStore& queue = m_agent->queue();
  std::vector<std::pair<std::string, std::string>> items;
  for (const auto* job : queue.pendingJobs())
    for (const auto& item : job->items)
      if (item.state == ExportQueueItemState::pending || item.state == ExportQueueItemState::running)
        items.emplace_back(job->id, item.id);
  try {
    for (const auto& [job, item] : items) queue.mark(job, item, ExportQueueItemState::stopped);
  } catch (const Error&) {
    // The queue keeps them pending then; the next launch asks again.
  }
}

QStringList ExportHost::submit(const fs::path& source, const ExportRequest& request) {
  if (!m_controller) return {m_blocked};
  JobDescription description;
  description.options = request.options;
  description.collision = request.collision;
  description.receiptsBesideExports = request.receiptsBesideExports;
  DestinationRule destination;
  destination.folder = request.folder;
  ExportPlan plan;
  try {
    ExportPlanner planner(description, request.nameTemplate, destination);
    planner.reserve(m_controller->reservedOutputs());
    plan = planner.plan({source});
  } catch (const Error& error) {
    return {qs(error.description())};
  }
  return submitPlan(std::move(plan));
}

QStringList ExportHost::submitPlan(ExportPlan plan) {
  if (!m_controller) return {m_blocked};
  QStringList refusals;
  for (const auto& refusal : plan.refusals)
    refusals << qs(refusal.source.filename().string() + ": " + refusal.text);
  if (plan.items.empty()) return refusals;
  try {
    m_windowJobs.insert(m_controller->submit({plan.description, std::move(plan.items), {}, {}}));
  } catch (const Error& error) {
    refusals << qs(error.description());
  }
  return refusals;
}

std::set<fs::path> ExportHost::reservedOutputs() const {
  if (!m_controller) return {};
  return m_controller->reservedOutputs();
}

void ExportHost::stop() {
  if (m_controller) m_controller->requestStop();
}

void ExportHost::onEvent(const ExportEvent& event) {
  if (const auto* started = std::get_if<events::ItemStarted>(&event)) {
    const auto& job = *started->job;
    Q_EMIT itemStarted(qs(job.id), static_cast<int>(started->index),
                     static_cast<int>(job.items.size()),
                     qs(job.items[started->index].url.filename().string()));
  } else if (const auto* progress = std::get_if<events::ItemProgress>(&event)) {
    Q_EMIT itemProgress(qs(progress->job->id), progress->fraction);
  } else if (const auto* finished = std::get_if<events::ItemFinished>(&event)) {
    const Result& result = *finished->result;
    FinishedItem item;
    item.kind = result.kind;
    item.sourceName = qs(result.source.filename().string());
    if (result.output) item.output = qs(result.output->string());
    if (result.receipt) item.receipt = qs(result.receipt->string());
    switch (result.kind) {
      case Result::Kind::exported:
        if (result.receiptError)
          item.text = qs("A job receipt could not be saved: " + *result.receiptError);
        break;
      case Result::Kind::failed:
        item.text = qs(result.errorText);
        break;
      case Result::Kind::skipped:
        item.text = qs("Skipped. " + result.errorText);
        break;
      case Result::Kind::stopped:
        item.text = QStringLiteral("Stopped before it was exported.");
        break;
    }
    Q_EMIT itemFinished(qs(finished->job->id), item);
  } else if (std::holds_alternative<events::StopRequested>(event)) {
    Q_EMIT stopRequested();
  } else if (const auto* ended = std::get_if<events::JobFinished>(&event)) {
    Q_EMIT jobFinished(qs(ended->job->id), jobNotes(*ended->job, *ended->report, ended->outcome));
  } else if (std::holds_alternative<events::Drained>(event)) {
    Q_EMIT drained();
  }
}

QStringList ExportHost::jobNotes(const Job& job, const JobReport& report,
                                 const JobOutcome& outcome) const {
  QStringList notes;
  if (report.halt) notes << qs(*report.halt);
  for (const auto& result : report.results)
    if (result.floorHit)
      notes << qs("Reached the minimum JPEG quality (Q" +
                  std::to_string(result.jpegQuality.value_or(0)) +
                  ") without meeting the target file size.");
  if (outcome.exported > 0) {
    if (job.description.receiptsBesideExports)
      notes << (outcome.exported == 1
                    ? QStringLiteral("A job receipt (source, settings and AI disclosure) was "
                                     "saved alongside it.")
                    : QStringLiteral("A job receipt (source, settings and AI disclosure) was "
                                     "saved alongside each export."));
    else
      notes << (outcome.exported == 1
                    ? QStringLiteral("A job receipt (source, settings and AI disclosure) was "
                                     "saved in ")
                    : QStringLiteral("Job receipts (source, settings and AI disclosure) were "
                                     "saved in ")) +
                   qs(m_context.receiptsFolder.string()) + ".";
  }
  if (outcome.usedEnhance) notes << QStringLiteral("Contains AI-estimated detail.");
  return notes;
}

}  // namespace tarnbloom::app
