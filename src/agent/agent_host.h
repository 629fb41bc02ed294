#pragma once

#include <chrono>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>

#include "agent/agent_job_service.h"
#include "agent/agent_result.h"
#include "agent/agent_url_handler.h"
#include "engine/estimate_engine.h"
#include "export/export_context.h"
#include "export/export_controller.h"
#include "export/export_operation_ledger.h"
#include "export/export_queue_store.h"
#include "export/state_folder_lock.h"
#include "support/executor.h"

namespace tarnbloom::agent {

// What the instance that owns a state folder runs: the export controller,
// the agent job service and the URL handler, on the owner's loop. The
// headless service hosts it on an EventLoop; the desktop application will
// host it on Qt's.
class AgentHost {
 public:
  struct Loop {
    Executor& executor;
    // Runs `task` once on the owner's thread after `delay`.
    std::function<void(std::chrono::milliseconds, std::function<void()>)> startTimer;
    // Ends the owner's loop (a headless instance started for work, idle).
    std::function<void()> quit;
  };
  struct Options {
    AgentAppInfo app;
    // Started by a caller that wanted work done: quit once idle.
    bool untilIdle = false;
    // How long an idle instance started for work waits for more.
    std::chrono::milliseconds idleGrace{3000};
    std::function<void(const std::string&)> log;
    // The state folder's lock when the host took it already (the desktop
    // application takes it off its window's thread); else the constructor
    // takes it, waiting.
    std::shared_ptr<exporting::StateFolderLock> lock;
    // Shows a finished job that asked to be announced; by default
    // `notify-send`, when there is a session bus.
    std::function<void(const AgentResult&)> notify;
  };

  // What the owner answers when asked to open photos it has no window for,
  // and the message that asks a headless owner to leave to a window.
  static constexpr const char* kNoWindowReply = "no-window";
  static constexpr const char* kHandOverMessage = "handover";

  // Takes the state folder (waiting while a command that exports in
  // process holds it), recovers what a previous run left, and finishes the
  // documents of agent jobs it interrupted. Throws FileError.
  AgentHost(Loop loop, std::filesystem::path stateFolder, Options options);
  ~AgentHost();
  AgentHost(const AgentHost&) = delete;
  AgentHost& operator=(const AgentHost&) = delete;

  // A message from another process, on the owner's thread: a
  // tarnbloom:// URL, or "ping". Returns the reply line.
  std::string receive(const std::string& message);

  bool idle() const;
  // A desktop window wants to own the instance: finish what runs, then
  // quit, as an instance started for work does.
  void handOver();
  exporting::ExportController& controller() { return *m_controller; }
  exporting::ExportQueueStore& queue() { return *m_queue; }
  exporting::ExportOperationLedger& ledger() { return *m_ledger; }
  // What settling the previous run's work found, for a window to report.
  const exporting::RecoveryReport& recovery() const { return m_recovery; }
  const exporting::ExportContext& context() const { return m_context; }
  AgentJobService& jobs() { return *m_jobs; }

 private:
  AgentURLHandler::Dependencies handlerDependencies();
  // Schedules a check that quits an instance started for work once it has
  // had nothing to do for the grace period.
  void scheduleIdleCheck();
  void notifyUser(const AgentResult& result);

  Loop m_loop;
  std::filesystem::path m_stateFolder;
  Options m_options;
  EstimateEngine m_estimates;
  exporting::ExportContext m_context;
  std::shared_ptr<exporting::StateFolderLock> m_lock;
  std::unique_ptr<exporting::ExportQueueStore> m_queue;
  std::unique_ptr<exporting::ExportOperationLedger> m_ledger;
  std::unique_ptr<exporting::ExportController> m_controller;
  std::unique_ptr<AgentJobService> m_jobs;
  std::unique_ptr<AgentURLHandler> m_handler;
  exporting::RecoveryReport m_recovery;
  std::chrono::steady_clock::time_point m_lastActivity;
  bool m_idleCheckPending = false;
};

// "12 enlarged, 1 skipped": what a finished job's notification says.
std::string notificationSummary(const AgentResult& result);
// Shows `body` through `notify-send` when there is a session bus; nothing
// otherwise (a headless run). With `reveal` (an exported file) the
// notification offers "Show in Folder", which opens that file's folder; the
// answer is awaited by a detached process, so a service that quits when
// idle does not take the action with it.
void sendDesktopNotification(const std::string& body, const std::string& reveal = {});

// `tarnbloom service`: claims the instance of the state folder and serves
// until SIGTERM/SIGINT, or, with `untilIdle`, until idle. Returns 0, or 0
// at once when another instance already owns the folder. Throws Error.
int runHeadlessService(const std::filesystem::path& stateFolder, bool untilIdle,
                       AgentAppInfo app);

}  // namespace tarnbloom::agent
