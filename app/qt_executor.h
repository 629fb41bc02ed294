#pragma once

#include <memory>
#include <vector>

#include <QPointer>
#include <QObject>

#include "support/event_loop.h"
#include "support/executor.h"

namespace tarnbloom::app {

// Binds the export controller to Qt's event loop: owner tasks run on the
// thread of `owner` (the GUI thread) through queued calls, lanes are
// long-lived threads so OpenMP keeps its teams between renders.
class QtExecutor final : public Executor {
 public:
  QtExecutor(QObject* owner, int lanes);
  // Finishes the tasks already given to the lanes, then joins them.
  ~QtExecutor() override;

  void post(Task task) override;
  void run(int lane, Task task) override;
  // Runs Qt's events (user input stays queued) until `done()` holds.
  void waitUntil(const std::function<bool()>& done) override;

 private:
  QPointer<QObject> m_owner;
  std::vector<std::unique_ptr<SerialWorker>> m_lanes;
};

}  // namespace tarnbloom::app
