// A stand-in for `tarnbloom service --until-idle`: claims the address of
// $TARNBLOOM_HOME, answers "ok <line>" ("bye" to "quit", then exits), and
// exits after FAKE_OWNER_IDLE_MS (default 2000) without a message. Each
// successful claim appends this process's id to <state folder>/owners.log,
// so tests can count owners.
#include <fcntl.h>
#include <unistd.h>

#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>

#include "agent/instance_channel.h"
#include "support/state_paths.h"

namespace {

using Clock = std::chrono::steady_clock;

struct Activity {
  std::mutex mutex;
  std::condition_variable changed;
  Clock::time_point last = Clock::now();
  bool quit = false;
};

void recordClaim() {
  const std::string line = std::to_string(::getpid()) + "\n";
  const auto log = tarnbloom::stateFolder() / "owners.log";
  const int fd = ::open(log.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
  if (fd < 0) return;
  [[maybe_unused]] const ssize_t written = ::write(fd, line.data(), line.size());
  ::close(fd);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3 || std::strcmp(argv[1], "service") != 0 ||
      std::strcmp(argv[2], "--until-idle") != 0)
    return 2;
  const char* idleText = std::getenv("FAKE_OWNER_IDLE_MS");
  const auto idle = std::chrono::milliseconds(idleText ? std::atoi(idleText) : 2000);

  Activity activity;
  auto owner = tarnbloom::agent::InstanceOwner::claim(
      tarnbloom::agent::InstanceAddress::forStateFolder(tarnbloom::stateFolder()),
      [&](const std::string& line) {
        std::lock_guard lock(activity.mutex);
        activity.last = Clock::now();
        activity.quit = activity.quit || line == "quit";
        activity.changed.notify_all();
        return line == "quit" ? std::string("bye") : "ok " + line;
      });
  if (!owner) return 0;  // another owner answers
  recordClaim();

  std::unique_lock lock(activity.mutex);
  while (!activity.quit && Clock::now() < activity.last + idle)
    activity.changed.wait_until(lock, activity.last + idle);
  lock.unlock();
  // The listener sends "bye" before it next looks for the stop signal.
  owner.reset();
  return 0;
}
