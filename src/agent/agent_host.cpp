#include "agent/agent_host.h"

#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <cstdlib>
#include <iostream>

#include "agent/agent_inbox.h"
#include "agent/agent_paths.h"
#include "agent/agent_url.h"
#include "agent/instance_channel.h"
#include "export/file_bookmark.h"
#include "support/event_loop.h"
#include "support/files.h"
#include "support/settings.h"

extern char** environ;

namespace tarnbloom::agent {

namespace fs = std::filesystem;

namespace {

std::atomic<bool> g_terminate{false};

void onTerminate(int) { g_terminate = true; }

std::vector<AgentResolverEnvironment::FinishedExport> finishedExports(
    const exporting::ExportQueueStore& queue) {
  std::vector<AgentResolverEnvironment::FinishedExport> finished;
  for (const auto& job : queue.jobs())
    for (const auto& item : job.items) {
      if (item.state != exporting::ExportQueueItemState::completed || !item.outputPath) continue;
      const auto source = exporting::FileBookmark::recordedPath(item.inputBookmark);
      if (!source || !entryExists(*item.outputPath)) continue;
      finished.push_back({*source, *item.outputPath, item.plannedWidth.value_or(0),
                          item.plannedHeight.value_or(0)});
    }
  return finished;
}

}  // namespace

AgentHost::AgentHost(Loop loop, fs::path stateFolder, Options options)
    : m_loop(std::move(loop)),
      m_stateFolder(std::move(stateFolder)),
      m_options(std::move(options)),
      m_estimates(EstimateEngine::configuredURL()),
      m_context(exporting::ExportContext::standard(&m_estimates)) {
  m_context.appVersion = m_options.app.version;
  m_context.appBuild = m_options.app.build;
  m_lock = m_options.lock ? m_options.lock
                          : std::make_shared<exporting::StateFolderLock>(m_context.stateFolder);
  m_queue = std::make_unique<exporting::ExportQueueStore>(m_context.stateFolder, m_context.clock);
  m_ledger = std::make_unique<exporting::ExportOperationLedger>(m_context.stateFolder / "Operations");
  m_controller = std::make_unique<exporting::ExportController>(m_loop.executor, *m_queue, *m_ledger,
                                                               m_context);
  // What a killed run left is settled before anything new is planned, so
  // that finished files are never exported again.
  m_recovery = m_queue->recoverInterruptedWork(*m_ledger);
  if (m_options.log)
    for (const auto& text : m_recovery.leftOut) m_options.log(text);

  AgentJobService::Configuration configuration;
  configuration.app = m_options.app;
  configuration.stateFolder = m_stateFolder;
  configuration.receiptsFolder = m_context.receiptsFolder;
  configuration.now = [] { return std::chrono::system_clock::now(); };
  configuration.backend = AgentExportBackend::live(*m_controller);
  configuration.makeResolverEnvironment = [this] {
    auto environment = AgentRequestResolver::Environment::live(m_stateFolder, m_options.app,
                                                               m_controller->reservedOutputs());
    environment.finishedExports = finishedExports(*m_queue);
    return environment;
  };
  configuration.startTimer = m_loop.startTimer;
  configuration.postFinished = [this](const AgentResult& result) { notifyUser(result); };
  configuration.log = m_options.log;
  m_jobs = std::make_unique<AgentJobService>(std::move(configuration));
  m_controller->subscribe([this](const exporting::ExportEvent& event) {
    m_jobs->apply(event);
    if (std::holds_alternative<exporting::events::Drained>(event)) scheduleIdleCheck();
  });
  m_jobs->reconcileInterrupted(*m_queue);
  const size_t removed = m_jobs->collectGarbage();
  if (removed > 0 && m_options.log)
    m_options.log("agent: removed " + std::to_string(removed) + " files older than a day");
  m_handler = std::make_unique<AgentURLHandler>(handlerDependencies());
  m_lastActivity = std::chrono::steady_clock::now();
  scheduleIdleCheck();
}

AgentHost::~AgentHost() {
  m_handler.reset();
  m_controller.reset();
}

AgentURLHandler::Dependencies AgentHost::handlerDependencies() {
  AgentURLHandler::Dependencies d;
  d.inboxDirectory = AgentPaths::inboxDirectory(m_stateFolder);
  d.effectiveUID = static_cast<uint32_t>(::geteuid());
  d.onboardingDone = [] {
    return Settings::loadDefault().boolean("onboarding.completed").value_or(false);
  };
  d.outboxExists = [this](const std::string& jobID) { return m_jobs->hasOutbox(jobID); };
  d.submit = [this](const AgentRequest& request, bool launchedForWork,
                    std::function<void(const AgentResult&)> completion) {
    m_jobs->submit(request, launchedForWork, std::move(completion));
  };
  d.cancel = [this](const std::string& jobID) { return m_jobs->cancel(jobID); };
  d.reject = [this](const std::string& jobID, const std::optional<AgentRequest>& request,
                    AgentErrorCode code, const std::string& message) {
    m_jobs->reject(jobID, request, code, message);
  };
  // The person hears of a job only when it asked (the job service's
  // postFinished); the handler's per-job hook is not a notification.
  d.quitIfIdle = [this] { scheduleIdleCheck(); };
  d.log = [this](const std::string& text) {
    if (m_options.log) m_options.log(text);
  };
  d.answerInfo = [this](const AgentRequest& request) { m_jobs->answerInfo(request); };
  d.now = [] { return std::chrono::system_clock::now(); };
  return d;
}

std::string AgentHost::receive(const std::string& message) {
  m_lastActivity = std::chrono::steady_clock::now();
  if (message == "ping") return "ok";
  m_handler->handleURL(message, m_options.untilIdle);
  scheduleIdleCheck();
  return "ok";
}

bool AgentHost::idle() const { return m_jobs->idle() && !m_controller->hasWork(); }

void AgentHost::handOver() {
  m_options.untilIdle = true;
  m_options.idleGrace = std::chrono::milliseconds(200);
  m_lastActivity = std::chrono::steady_clock::now() - m_options.idleGrace;
  scheduleIdleCheck();
}

void AgentHost::scheduleIdleCheck() {
  if (!m_options.untilIdle || m_idleCheckPending) return;
  m_idleCheckPending = true;
  m_loop.startTimer(m_options.idleGrace, [this] {
    m_idleCheckPending = false;
    if (!idle()) return;  // the next Drained schedules another check
    if (std::chrono::steady_clock::now() - m_lastActivity < m_options.idleGrace) {
      scheduleIdleCheck();
      return;
    }
    m_loop.quit();
  });
}

void AgentHost::notifyUser(const AgentResult& result) {
  if (m_options.notify) {
    m_options.notify(result);
    return;
  }
  std::string reveal;
  for (const auto& item : result.items)
    if (item.output) reveal = *item.output;
  sendDesktopNotification(notificationSummary(result), reveal);
}

void sendDesktopNotification(const std::string& body, const std::string& reveal) {
  // Desktop notifications need a session bus; a headless run has none.
  if (!std::getenv("DBUS_SESSION_BUS_ADDRESS")) return;
  // notify-send waits for the person's choice when the notification has an
  // action, so the wait runs in a background shell: this process only waits
  // for that shell to start it.
  static constexpr const char* kShowInFolder =
      "( choice=$(notify-send --app-name=Tarnbloom --icon=com.tarnbloom.app "
      "--action=show='Show in Folder' Tarnbloom \"$1\") && [ \"$choice\" = show ] && "
      "exec xdg-open \"$(dirname -- \"$2\")\" ) </dev/null >/dev/null 2>&1 &";
  static constexpr const char* kPlain =
      "notify-send --app-name=Tarnbloom --icon=com.tarnbloom.app Tarnbloom \"$1\"";
  const char* arguments[] = {"sh", "-c", reveal.empty() ? kPlain : kShowInFolder,
                             "tarnbloom-notify", body.c_str(), reveal.c_str(), nullptr};
  pid_t child = -1;
  if (::posix_spawn(&child, "/bin/sh", nullptr, nullptr, const_cast<char* const*>(arguments),
                    environ) != 0)
    return;
  int status = 0;
  while (::waitpid(child, &status, 0) < 0 && errno == EINTR) {
  }
}

std::string notificationSummary(const AgentResult& result) {
  const auto& counts = result.counts;
  std::string body = std::to_string(counts.completed) + " enlarged";
  if (counts.skipped > 0) body += ", " + std::to_string(counts.skipped) + " skipped";
  if (counts.failed > 0) body += ", " + std::to_string(counts.failed) + " failed";
  if (result.error) body += ". " + result.error->message;
  return body;
}

int runHeadlessService(const fs::path& stateFolder, bool untilIdle, AgentAppInfo app) {
  EventLoop loop;
  LoopExecutor executor(loop, exporting::ExportController::kLanes);
  std::unique_ptr<AgentHost> host;
  // Messages taken but not yet handled: an idle instance must not quit
  // with one of them in hand.
  std::atomic<int> pending{0};
  auto owner = InstanceOwner::claim(
      InstanceAddress::forStateFolder(stateFolder),
      [&loop, &host, &pending](const std::string& line) {
        // Photos to open need a window; the caller then asks us to leave.
        if (line.rfind("open ", 0) == 0 || line == "raise") return std::string(AgentHost::kNoWindowReply);
        ++pending;
        // The listener never waits for the loop, so that stopping it can
        // never wait on a loop that no longer runs.
        loop.post([&host, &pending, line] {
          if (line == AgentHost::kHandOverMessage)
            host->handOver();
          else
            host->receive(line);
          --pending;
        });
        return std::string("ok");
      });
  if (!owner) return 0;  // another instance owns the folder
  AgentHost::Options options;
  options.app = std::move(app);
  options.untilIdle = untilIdle;
  options.log = [](const std::string& text) { std::cerr << "tarnbloom service: " << text << '\n'; };
  AgentHost::Loop hostLoop{
      executor,
      [&loop](std::chrono::milliseconds delay, std::function<void()> task) {
        loop.postAt(EventLoop::Clock::now() + delay, std::move(task));
      },
      [&loop, &pending] {
        if (pending == 0) loop.quit();
      }};
  host = std::make_unique<AgentHost>(hostLoop, stateFolder, options);
  g_terminate = false;
  std::signal(SIGTERM, onTerminate);
  std::signal(SIGINT, onTerminate);
  // A signal handler cannot touch the controller: the loop looks.
  std::function<void()> watchSignals = [&] {
    if (g_terminate.exchange(false)) {
      host->controller().requestStop();
      loop.quit();
      return;
    }
    loop.postAt(EventLoop::Clock::now() + std::chrono::milliseconds(200), watchSignals);
  };
  watchSignals();
  loop.run();
  // No more messages; those already taken are handled, and work they
  // started is finished before the instance goes.
  owner.reset();
  loop.runUntil([&] { return pending == 0; });
  loop.runUntil([&] { return host->idle() || !host->controller().hasWork(); });
  host->controller().stopAndWait();
  host.reset();
  return 0;
}

}  // namespace tarnbloom::agent
