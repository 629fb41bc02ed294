#pragma once

#include <chrono>
#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

namespace tarnbloom {

// The core's "main thread": tasks posted from any thread run one at a time
// on the thread that calls run(). Bookkeeping that must never race (the
// export queue file, callbacks to the user interface) runs here.
class EventLoop {
 public:
  using Task = std::function<void()>;
  using Clock = std::chrono::steady_clock;

  EventLoop();

  void post(Task task);
  // Runs `task` at `when` or later, on the loop.
  void postAt(Clock::time_point when, Task task);
  // Runs `task` on the loop and waits for it; on the loop's own thread it
  // runs at once. An exception `task` throws is rethrown to the caller.
  void invokeSync(const Task& task);

  // Runs tasks until quit() is called.
  void run();
  // Runs tasks on the calling thread (the loop's own, possibly inside a
  // task) until `done()` holds; checked before waiting and after each task.
  void runUntil(const std::function<bool()>& done);
  void quit();
  bool isLoopThread() const { return std::this_thread::get_id() == m_thread; }

 private:
  // Runs one due task, waiting for one when none is due; false when
  // quit() was called and `honourQuit`.
  bool runOne(std::unique_lock<std::mutex>& lock, bool honourQuit);
  struct Timer {
    Clock::time_point when;
    Task task;
  };
  std::mutex m_mutex;
  std::condition_variable m_wake;
  std::deque<Task> m_tasks;
  std::vector<Timer> m_timers;
  bool m_quit = false;
  std::thread::id m_thread;
};

// One long-lived thread that runs posted tasks in order. Keeping the same
// thread matters: OpenMP keeps a team of threads per calling thread, so a
// fresh thread per task would build a new team for every render.
class SerialWorker {
 public:
  SerialWorker();
  // Runs the tasks already posted, then joins.
  ~SerialWorker();
  SerialWorker(const SerialWorker&) = delete;
  SerialWorker& operator=(const SerialWorker&) = delete;

  void post(std::function<void()> task);

 private:
  std::mutex m_mutex;
  std::condition_variable m_wake;
  std::deque<std::function<void()>> m_tasks;
  bool m_stopping = false;
  std::thread m_thread;
};

}  // namespace tarnbloom
