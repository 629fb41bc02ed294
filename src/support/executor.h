#pragma once

#include <functional>
#include <memory>
#include <vector>

#include "support/event_loop.h"

namespace tarnbloom {

// Where a long-lived core object (the export controller) runs its work:
// bookkeeping on the owner's thread, heavy work on worker lanes. The
// command line and the headless service bind it to an EventLoop, the
// desktop application to Qt's loop, tests to a queue they pump by hand.
class Executor {
 public:
  using Task = std::function<void()>;
  virtual ~Executor() = default;

  // Runs `task` later on the owner's thread, in posting order. Any thread.
  virtual void post(Task task) = 0;
  // Runs `task` on worker lane `lane`: each lane runs its tasks in order,
  // on one long-lived thread (OpenMP keeps a team per calling thread).
  virtual void run(int lane, Task task) = 0;
  // On the owner's thread: runs owner tasks until `done()` holds.
  virtual void waitUntil(const std::function<bool()>& done) = 0;
};

// The owner is an EventLoop; each lane is a SerialWorker.
class LoopExecutor final : public Executor {
 public:
  LoopExecutor(EventLoop& loop, int lanes);
  // Finishes the tasks already given to the lanes, then joins them.
  ~LoopExecutor() override;

  void post(Task task) override { m_loop.post(std::move(task)); }
  void run(int lane, Task task) override;
  void waitUntil(const std::function<bool()>& done) override { m_loop.runUntil(done); }

 private:
  EventLoop& m_loop;
  std::vector<std::unique_ptr<SerialWorker>> m_lanes;
};

}  // namespace tarnbloom
