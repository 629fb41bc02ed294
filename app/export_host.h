#pragma once

#include <filesystem>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include <QObject>
#include <QString>
#include <QStringList>

#include "agent/agent_host.h"
#include "engine/estimate_engine.h"
#include "export/export_controller.h"
#include "export/export_job.h"
#include "export/export_planner.h"
#include "export/state_folder_lock.h"
#include <QMetaType>

namespace tarnbloom::app {

class QtExecutor;

// What the export sheet asks for: everything about a job but its source.
struct ExportRequest {
  exporting::ExportOptions options;
  std::string nameTemplate;
  // None: beside the source.
  std::optional<std::filesystem::path> folder;
  exporting::CollisionPolicy collision = exporting::CollisionPolicy::number;
  bool receiptsBesideExports = false;
};

// One finished item as the progress strip shows it.
struct FinishedItem {
  exporting::Result::Kind kind = exporting::Result::Kind::failed;
  QString sourceName;
  QString output;   // empty unless exported
  QString receipt;  // empty when none was written
  QString text;     // the controller's message for anything but an export
};

// What launch-time recovery found, in the words the queue defines.
struct RecoveryFindings {
  bool interrupted = false;  // "Resume interrupted exports?"
  QStringList notes;         // load failures, left-out items, mismatched receipts
};

// The window's host of the export controller: the instance's AgentHost
// on Qt's loop, so that the window's exports, agent jobs and file-manager
// runs share one controller and one queue. It turns the controller's
// events into signals. The state folder's lock is taken off the GUI
// thread, since another process may hold it for a while.
class ExportHost : public QObject {
  Q_OBJECT

 public:
  // `estimates` is shared with the previews and outlives the host.
  explicit ExportHost(EstimateEngine* estimates, QObject* parent = nullptr);
  ~ExportHost() override;

  // Takes the state folder's lock; `ready` or `unavailable` follows.
  void start();
  bool isReady() const { return m_controller != nullptr; }
  // Why exports cannot start yet; empty when they can.
  QString blockedReason() const { return m_blocked; }
  const exporting::ExportContext& context() const { return m_context; }

  RecoveryFindings recover();
  // Runs what recovery left pending again, under the names it reserved.
  QStringList resumeInterrupted();
  // Leaves interrupted items "stopped": nothing runs now, and a later
  // retry still can.
  void discardInterrupted();

  // A message for the instance (a tarnbloom:// URL): handled now, or once
  // the host is ready.
  void receive(const std::string& message);
  agent::AgentHost* agentHost() { return m_agent.get(); }

  // Plans one source and submits it. Returns the refusal texts
  // ("photo.jpg: …") when nothing was submitted; empty on success.
  QStringList submit(const std::filesystem::path& source, const ExportRequest& request);
  // Submits a plan made elsewhere (a folder batch, one output of a recipe)
  // as one window job. Returns its refusals as submit() does, plus the
  // controller's refusal when nothing could be queued.
  QStringList submitPlan(exporting::ExportPlan plan);
  // Names the unfinished exports hold, for a planner working outside the
  // host; empty before the host is ready.
  std::set<std::filesystem::path> reservedOutputs() const;
  void stop();
  // Whether the window submitted this job (not an agent or a file manager).
  bool isWindowJob(const QString& jobID) const { return m_windowJobs.count(jobID.toStdString()) > 0; }
  bool busy() const { return m_controller && m_controller->busy(); }

 Q_SIGNALS:
  void ready();
  void blockedChanged(const QString& reason);
  void itemStarted(const QString& jobID, int index, int count, const QString& name);
  void itemProgress(const QString& jobID, double fraction);
  void itemFinished(const QString& jobID, const tarnbloom::app::FinishedItem& item);
  void jobFinished(const QString& jobID, const QStringList& notes);
  void stopRequested();
  void drained();
  // An agent job or file-manager run that asked to be announced ended.
  void announce(const tarnbloom::agent::AgentResult& result);

 private:
  void finishStart(std::shared_ptr<exporting::StateFolderLock> lock);
  void onEvent(const exporting::ExportEvent& event);
  QStringList jobNotes(const exporting::Job& job, const exporting::JobReport& report,
                       const exporting::JobOutcome& outcome) const;

  EstimateEngine* m_estimates;
  exporting::ExportContext m_context;
  QString m_blocked;
  std::unique_ptr<QtExecutor> m_executor;
  std::unique_ptr<agent::AgentHost> m_agent;
  exporting::ExportController* m_controller = nullptr;
  std::vector<std::string> m_waitingMessages;
  std::set<std::string> m_windowJobs;
};

}  // namespace tarnbloom::app
