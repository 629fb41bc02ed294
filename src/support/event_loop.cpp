#include "support/event_loop.h"

#include <algorithm>
#include <exception>
#include <future>

#include "support/executor.h"

namespace tarnbloom {

EventLoop::EventLoop() : m_thread(std::this_thread::get_id()) {}

void EventLoop::post(Task task) {
  {
    std::lock_guard lock(m_mutex);
    m_tasks.push_back(std::move(task));
  }
  m_wake.notify_one();
}

void EventLoop::postAt(Clock::time_point when, Task task) {
  {
    std::lock_guard lock(m_mutex);
    m_timers.push_back({when, std::move(task)});
  }
  m_wake.notify_one();
}

void EventLoop::invokeSync(const Task& task) {
  if (isLoopThread()) {
    task();
    return;
  }
  std::promise<void> done;
  post([&] {
    try {
      task();
      done.set_value();
    } catch (...) {
      done.set_exception(std::current_exception());
    }
  });
  done.get_future().get();
}

void EventLoop::run() {
  m_thread = std::this_thread::get_id();
  std::unique_lock lock(m_mutex);
  m_quit = false;
  while (runOne(lock, true)) {
  }
}

void EventLoop::runUntil(const std::function<bool()>& done) {
  m_thread = std::this_thread::get_id();
  std::unique_lock lock(m_mutex, std::defer_lock);
  // A quit() meanwhile is meant for the run() outside: it stays set for it.
  while (!done()) {
    lock.lock();
    runOne(lock, false);
    lock.unlock();
  }
}

bool EventLoop::runOne(std::unique_lock<std::mutex>& lock, bool honourQuit) {
  for (;;) {
    if (honourQuit && m_quit) return false;
    const auto now = Clock::now();
    auto due = std::find_if(m_timers.begin(), m_timers.end(),
                            [&](const Timer& t) { return t.when <= now; });
    Task task;
    if (due != m_timers.end()) {
      task = std::move(due->task);
      m_timers.erase(due);
    } else if (!m_tasks.empty()) {
      task = std::move(m_tasks.front());
      m_tasks.pop_front();
    }
    if (task) {
      lock.unlock();
      task();
      lock.lock();
      return true;
    }
    if (m_timers.empty()) {
      m_wake.wait(lock);
    } else {
      const auto next =
          std::min_element(m_timers.begin(), m_timers.end(), [](const Timer& a, const Timer& b) {
            return a.when < b.when;
          })->when;
      m_wake.wait_until(lock, next);
    }
  }
}

void EventLoop::quit() {
  {
    std::lock_guard lock(m_mutex);
    m_quit = true;
  }
  m_wake.notify_all();
}

SerialWorker::SerialWorker() {
  m_thread = std::thread([this] {
    std::unique_lock lock(m_mutex);
    for (;;) {
      m_wake.wait(lock, [&] { return m_stopping || !m_tasks.empty(); });
      if (m_tasks.empty()) return;
      auto task = std::move(m_tasks.front());
      m_tasks.pop_front();
      lock.unlock();
      task();
      lock.lock();
    }
  });
}

SerialWorker::~SerialWorker() {
  {
    std::lock_guard lock(m_mutex);
    m_stopping = true;
  }
  m_wake.notify_one();
  m_thread.join();
}

void SerialWorker::post(std::function<void()> task) {
  {
    std::lock_guard lock(m_mutex);
    m_tasks.push_back(std::move(task));
  }
  m_wake.notify_one();
}

LoopExecutor::LoopExecutor(EventLoop& loop, int lanes) : m_loop(loop) {
  for (int i = 0; i < lanes; ++i) m_lanes.push_back(std::make_unique<SerialWorker>());
}

LoopExecutor::~LoopExecutor() = default;

void LoopExecutor::run(int lane, Task task) {
  m_lanes.at(static_cast<size_t>(lane))->post(std::move(task));
}

}  // namespace tarnbloom
