#include "agent/instance_channel.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <functional>
#include <optional>
#include <thread>
#include <vector>

#include "test_support.h"

extern char** environ;

namespace tarnbloom::agent {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using testing::TempDir;
using Kind = InstanceChannelError::Kind;

const fs::path kFakeOwner = TARNBLOOM_FAKE_OWNER;

// An environment variable for one scope; owners started meanwhile inherit it.
class ScopedEnv {
 public:
  ScopedEnv(const char* name, const std::optional<std::string>& value) : m_name(name) {
    if (const char* old = std::getenv(name)) m_old = old;
    set(value);
  }
  ~ScopedEnv() { set(m_old); }

 private:
  void set(const std::optional<std::string>& value) {
    value ? ::setenv(m_name, value->c_str(), 1) : ::unsetenv(m_name);
  }
  const char* m_name;
  std::optional<std::string> m_old;
};

InstanceOwner::Handler echo(std::string prefix = "ok ") {
  return [prefix](const std::string& line) { return prefix + line; };
}

template <typename E, typename Call>
std::optional<E> failureOf(Call&& call) {
  try {
    call();
  } catch (const E& error) {
    return error;
  }
  return std::nullopt;
}

mode_t modeOf(const fs::path& path) {
  struct stat info {};
  EXPECT_EQ(::lstat(path.c_str(), &info), 0) << path;
  return info.st_mode & 07777;
}

// A plain socket connected to the address, or only bound to its name.
FileDescriptor rawSocket(const InstanceAddress& address, bool connect) {
  FileDescriptor fd(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  sockaddr_un where{};
  where.sun_family = AF_UNIX;
  std::strcpy(where.sun_path, address.socket.c_str());
  const auto* raw = reinterpret_cast<sockaddr*>(&where);
  EXPECT_EQ(connect ? ::connect(fd.get(), raw, sizeof where) : ::bind(fd.get(), raw, sizeof where),
            0);
  return fd;
}

// True when the owner hung up on `fd` within five seconds.
bool droppedByOwner(int fd) {
  pollfd entry{fd, POLLIN, 0};
  char byte;
  return ::poll(&entry, 1, 5000) == 1 && ::recv(fd, &byte, 1, 0) <= 0;
}

template <typename Predicate>
bool eventually(Predicate predicate) {
  const auto deadline = std::chrono::steady_clock::now() + 10s;
  for (auto pause = 5ms; !predicate();
       pause = std::min<std::chrono::milliseconds>(pause * 2, 100ms)) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(pause);
  }
  return true;
}

size_t openDescriptors() {
  return static_cast<size_t>(std::distance(fs::directory_iterator("/proc/self/fd"), {}));
}

TEST(InstanceChannel, OneOwnerPerStateFolderAnswersItsOwnMessages) {
  TempDir dir;
  const fs::path runtime = dir / "run";
  fs::create_directories(dir / "a");
  fs::create_directory_symlink(dir / "a", dir / "a-link");
  const auto a = InstanceAddress::inFolder(runtime, dir / "a");
  const auto b = InstanceAddress::inFolder(runtime, dir / "b");
  // Every spelling of one folder meets the same owner.
  EXPECT_EQ(InstanceAddress::inFolder(runtime, dir / "a-link").socket, a.socket);
  EXPECT_EQ(InstanceAddress::inFolder(runtime, dir / "x" / ".." / "a" / "").socket, a.socket);
  EXPECT_NE(b.socket, a.socket);

  EXPECT_EQ(sendToOwner(a, "m", 1s), std::nullopt);  // no folder yet
  auto ownerA = InstanceOwner::claim(a, echo("A "));
  ASSERT_NE(ownerA, nullptr);
  EXPECT_EQ(modeOf(runtime), 0700u);
  EXPECT_EQ(modeOf(a.socket), 0600u);
  EXPECT_EQ(sendToOwner(a, "tarnbloom://agent?job=1", 5s), "A tarnbloom://agent?job=1");

  // A second claim loses and leaves the live socket alone.
  EXPECT_EQ(InstanceOwner::claim(a, echo()), nullptr);
  auto ownerB = InstanceOwner::claim(b, echo("B "));
  ASSERT_NE(ownerB, nullptr);
  EXPECT_EQ(sendToOwner(a, "m", 5s), "A m");
  EXPECT_EQ(sendToOwner(b, "m", 5s), "B m");

  ownerA.reset();
  EXPECT_FALSE(entryExists(a.socket));
  EXPECT_EQ(sendToOwner(a, "m", 1s), std::nullopt);
  EXPECT_EQ(sendToOwner(b, "m", 5s), "B m");
  auto again = InstanceOwner::claim(a, echo());
  ASSERT_NE(again, nullptr);
  EXPECT_EQ(sendToOwner(a, "m", 5s), "ok m");
}

TEST(InstanceChannel, NextClaimReplacesADeadOwner) {
  TempDir dir;
  {
    // A crash leaves a socket nobody listens on and a lock nobody holds.
    const auto address = InstanceAddress::inFolder(dir / "run", dir / "state");
    ASSERT_EQ(::mkdir(address.folder.c_str(), 0700), 0);
    testing::writeText(address.lock, "");
    rawSocket(address, false);
    EXPECT_EQ(sendToOwner(address, "m", 1s), std::nullopt);
    auto owner = InstanceOwner::claim(address, echo());
    ASSERT_NE(owner, nullptr);
    EXPECT_EQ(sendToOwner(address, "m", 5s), "ok m");
  }
  // An owner killed outright.
  fs::create_directories(dir / "xdg");
  ScopedEnv runtime("XDG_RUNTIME_DIR", (dir / "xdg").string());
  ScopedEnv home("TARNBLOOM_HOME", (dir / "killed").string());
  ScopedEnv idle("FAKE_OWNER_IDLE_MS", "60000");
  const auto address = InstanceAddress::forStateFolder(dir / "killed");
  const std::string program = kFakeOwner.string();
  const char* argv[] = {program.c_str(), "service", "--until-idle", nullptr};
  pid_t pid = -1;
  ASSERT_EQ(::posix_spawn(&pid, argv[0], nullptr, nullptr, const_cast<char**>(argv), environ), 0);
  EXPECT_TRUE(eventually([&] { return sendToOwner(address, "up?", 1s).has_value(); }));
  EXPECT_EQ(InstanceOwner::claim(address, echo()), nullptr);
  ::kill(pid, SIGKILL);
  ::waitpid(pid, nullptr, 0);

  EXPECT_EQ(sendToOwner(address, "m", 1s), std::nullopt);
  auto owner = InstanceOwner::claim(address, echo("new "));
  ASSERT_NE(owner, nullptr);
  EXPECT_EQ(sendToOwner(address, "m", 5s), "new m");
}

TEST(InstanceChannel, RefusesARuntimeFolderOthersCouldControl) {
  TempDir dir;
  ::mkdir((dir / "private").c_str(), 0700);
  std::vector<std::pair<std::string, std::function<void(const fs::path&)>>> cases = {
      {"link", [&](const fs::path& p) { fs::create_directory_symlink(dir / "private", p); }},
      {"open",
       [](const fs::path& p) {
         ::mkdir(p.c_str(), 0700);
         ::chmod(p.c_str(), 0750);
       }},
      {"file", [](const fs::path& p) { testing::writeText(p, ""); }},
  };
  if (::geteuid() == 0)  // only root can give a folder away
    cases.emplace_back("foreign", [](const fs::path& p) {
      ::mkdir(p.c_str(), 0700);
      EXPECT_EQ(::chown(p.c_str(), 65534, 65534), 0);
    });
  for (const auto& [name, make] : cases) {
    SCOPED_TRACE(name);
    make(dir / name);
    const auto address = InstanceAddress::inFolder(dir / name, dir / "state");
    const auto refusal =
        failureOf<InstanceChannelError>([&] { InstanceOwner::claim(address, echo()); });
    ASSERT_TRUE(refusal);
    EXPECT_EQ(refusal->kind(), Kind::unsafeFolder);
    EXPECT_NE(refusal->description().find((dir / name).string()), std::string::npos);
    // A caller must not talk to whoever listens there either.
    EXPECT_TRUE(failureOf<InstanceChannelError>([&] { sendToOwner(address, "m", 1s); }));
  }
  EXPECT_TRUE(fs::is_empty(dir / "private"));  // nothing went through the link

  const auto deep = InstanceAddress::inFolder(dir / std::string(120, 'd'), dir / "state");
  const auto tooLong = failureOf<InstanceChannelError>([&] { InstanceOwner::claim(deep, echo()); });
  EXPECT_TRUE(tooLong && tooLong->kind() == Kind::socketPathTooLong);

  // An unusable XDG_RUNTIME_DIR falls back to the per-user folder in /tmp.
  const fs::path fallback = "/tmp/tarnbloom-" + std::to_string(::geteuid());
  ::mkdir((dir / std::string(100, 'x')).c_str(), 0700);
  for (const auto& [value, expected] : std::vector<std::pair<std::optional<std::string>, fs::path>>{
           {dir.path().string(), dir / "tarnbloom"},
           {std::nullopt, fallback},
           {"relative", fallback},
           {(dir / "missing").string(), fallback},
           {(dir / std::string(100, 'x')).string(), fallback},  // no room for a socket name
       }) {
    ScopedEnv runtime("XDG_RUNTIME_DIR", value);
    EXPECT_EQ(runtimeFolder(), expected) << value.value_or("(unset)");
  }
}

TEST(InstanceChannel, ListenerOutlastsSilentOversizedAndFailingClients) {
  TempDir dir;
  const auto address = InstanceAddress::inFolder(dir / "run", dir / "state");
  std::vector<std::string> seen;
  auto owner = InstanceOwner::claim(address, [&](const std::string& line) {
    seen.push_back(line);
    if (line == "throw") throw std::runtime_error("handler failed");
    return "ok " + line;
  });
  ASSERT_NE(owner, nullptr);

  FileDescriptor silent = rawSocket(address, true);
  EXPECT_EQ(sendToOwner(address, "while one waits", 5s), "ok while one waits");

  FileDescriptor oversized = rawSocket(address, true);
  const std::string flood(kInstanceMessageLimit + 100, 'x');
  ::send(oversized.get(), flood.data(), flood.size(), MSG_NOSIGNAL);
  EXPECT_TRUE(droppedByOwner(oversized.get()));
  ::send(rawSocket(address, true).get(), "half", 4, MSG_NOSIGNAL);  // gone before its newline

  EXPECT_EQ(sendToOwner(address, "throw", 5s), std::nullopt);
  const std::string longest(kInstanceMessageLimit, 'y');
  EXPECT_EQ(sendToOwner(address, longest, 5s), "ok " + longest);
  for (const std::string& bad : {std::string("a\nb"), longest + "y"})
    EXPECT_TRUE(failureOf<InstanceChannelError>([&] { sendToOwner(address, bad, 1s); }));

  EXPECT_TRUE(droppedByOwner(silent.get()));
  EXPECT_EQ(sendToOwner(address, "last", 5s), "ok last");
  // Only whole lines reach the handler.
  EXPECT_EQ(seen, (std::vector<std::string>{"while one waits", "throw", longest, "last"}));
}

TEST(InstanceChannel, AnswersEveryMessageOfABurstAndLeaksNoDescriptor) {
  TempDir dir;
  const auto address = InstanceAddress::inFolder(dir / "run", dir / "state");
  const size_t before = openDescriptors();
  {
    auto owner = InstanceOwner::claim(address, echo());
    ASSERT_NE(owner, nullptr);
    std::atomic<int> answered = 0;
    std::vector<std::thread> senders;
    for (int t = 0; t < 8; ++t)
      senders.emplace_back([&, t] {
        for (int i = 0; i < 250; ++i) {
          const std::string message = std::to_string(t) + "-" + std::to_string(i);
          if (sendToOwner(address, message, 30s) == "ok " + message) ++answered;
        }
      });
    for (auto& sender : senders) sender.join();
    EXPECT_EQ(answered, 2000);
  }
  EXPECT_EQ(openDescriptors(), before);
  EXPECT_FALSE(entryExists(address.socket));
}

TEST(InstanceChannel, DeliveryStartsOneOwnerWhenNoneRuns) {
  TempDir dir;
  fs::create_directories(dir / "state");
  ScopedEnv runtime("XDG_RUNTIME_DIR", dir.path().string());
  ScopedEnv home("TARNBLOOM_HOME", (dir / "state").string());
  ScopedEnv idle("FAKE_OWNER_IDLE_MS", "3000");
  const auto address = InstanceAddress::forStateFolder(dir / "state");
  const auto owners = [&] { return testing::readText(dir / "state" / "owners.log"); };

  // A descriptor this process forgot to mark close-on-exec.
  testing::writeText(dir / "marker", "");
  FileDescriptor inheritable(::open((dir / "marker").c_str(), O_RDONLY));

  std::optional<std::string> replies[2];
  std::thread other([&] { replies[1] = deliverToOwner(address, "from 1", kFakeOwner, 20s); });
  replies[0] = deliverToOwner(address, "from 0", kFakeOwner, 20s);
  other.join();
  EXPECT_EQ(replies[0], "ok from 0");
  EXPECT_EQ(replies[1], "ok from 1");
  EXPECT_EQ(deliverToOwner(address, "again", kFakeOwner, 20s), "ok again");
  const std::string first = owners();
  ASSERT_EQ(std::count(first.begin(), first.end(), '\n'), 1);

  // The owner runs detached, with nothing of ours but its environment.
  const std::string pid = first.substr(0, first.size() - 1);
  for (const auto& entry : fs::directory_iterator("/proc/" + pid + "/fd")) {
    const fs::path target = fs::read_symlink(entry.path());
    EXPECT_NE(target, dir / "marker");
    if (std::stoi(entry.path().filename().string()) <= 2) {
      EXPECT_EQ(target, "/dev/null");
    }
  }

  EXPECT_EQ(sendToOwner(address, "quit", 5s), "bye");
  EXPECT_TRUE(eventually([&] { return InstanceOwner::claim(address, echo()) != nullptr; }));
  // A new owner answers (the one that lost the first race may have claimed late).
  EXPECT_EQ(deliverToOwner(address, "after quit", kFakeOwner, 20s), "ok after quit");
  EXPECT_GT(owners().size(), first.size());
  EXPECT_EQ(sendToOwner(address, "quit", 5s), "bye");

  const auto missing = failureOf<FileError>([&] {
    deliverToOwner(InstanceAddress::forStateFolder(dir / "other"), "m", dir / "missing", 20s);
  });
  EXPECT_TRUE(missing && missing->errnoValue() == ENOENT);
}

}  // namespace
}  // namespace tarnbloom::agent
