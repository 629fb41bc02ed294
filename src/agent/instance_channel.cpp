#include "agent/instance_channel.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <span>
#include <system_error>
#include <vector>

#include "support/sha256.h"

extern char** environ;

namespace tarnbloom::agent {
namespace fs = std::filesystem;
using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

namespace {

constexpr size_t kLineLimit = kInstanceMessageLimit + 1;  // with its newline
constexpr size_t kReplyLimit = size_t{1} << 20;
constexpr size_t kSocketNameLength = 16 + 5;  // 16 hex digits and ".sock"
// A connection has this long to send its line, and again to take the reply.
constexpr auto kConnectionTime = 1s;
// Above this many open connections the rest wait in the kernel's backlog, so
// a crowd of silent clients costs descriptors, not the owner's life.
constexpr size_t kMaxConnections = 256;
constexpr auto kFirstBackoff = 5ms;
constexpr auto kLastBackoff = 100ms;
// An owner we started that still does not answer may have lost the claim to
// one that was just quitting; starting another costs nothing.
constexpr auto kRestartAfter = 2s;

using Kind = InstanceChannelError::Kind;

// Why `info` (from lstat) cannot hold our socket; empty when it can.
std::string unsafeReason(const struct stat& info) {
  if (S_ISLNK(info.st_mode)) return "it is a symbolic link";
  if (!S_ISDIR(info.st_mode)) return "it is not a folder";
  if (info.st_uid != ::geteuid()) return "it belongs to another user";
  if ((info.st_mode & 077) != 0) return "other users can open it";
  return {};
}

// False when the folder is missing; throws when something unsafe has its name.
bool checkFolder(const fs::path& folder) {
  struct stat info {};
  if (::lstat(folder.c_str(), &info) != 0) {
    if (errno == ENOENT) return false;
    throw FileError(folder, "open", errno);
  }
  if (std::string reason = unsafeReason(info); !reason.empty())
    throw InstanceChannelError(Kind::unsafeFolder, folder, reason);
  return true;
}

void makePrivateFolder(const fs::path& folder) {
  if (::mkdir(folder.c_str(), 0700) == 0) {
    // The umask may have taken bits the owner needs.
    if (::chmod(folder.c_str(), 0700) != 0) throw FileError(folder, "create", errno);
  } else if (errno != EEXIST) {
    throw FileError(folder, "create", errno);
  }
  // Someone may have made it first; /tmp is shared.
  checkFolder(folder);
}

sockaddr_un socketAddress(const fs::path& socket) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  const std::string& text = socket.native();
  if (text.size() >= sizeof address.sun_path)
    throw InstanceChannelError(Kind::socketPathTooLong, socket);
  std::memcpy(address.sun_path, text.c_str(), text.size() + 1);
  return address;
}

fs::path resolvedStateFolder(const fs::path& stateFolder) {
  std::error_code error;
  fs::path absolute = fs::absolute(stateFolder, error);
  if (error) absolute = stateFolder;
  fs::path resolved = fs::weakly_canonical(absolute, error);
  if (error) resolved = absolute.lexically_normal();
  // "/a/b/" and "/a/b" are one folder even while it does not exist yet.
  if (!resolved.has_filename() && resolved.has_relative_path()) resolved = resolved.parent_path();
  return resolved;
}

bool usableRuntimeParent(const char* value) {
  if (!value || value[0] != '/') return false;
  struct stat info {};
  if (::stat(value, &info) != 0 || !S_ISDIR(info.st_mode) || info.st_uid != ::geteuid())
    return false;
  if (::access(value, W_OK | X_OK) != 0) return false;
  const size_t length = std::strlen(value) + std::strlen("/tarnbloom/") + kSocketNameLength;
  return length < sizeof(sockaddr_un::sun_path);
}

int millisecondsUntil(Clock::time_point deadline) {
  if (deadline == Clock::time_point::max()) return -1;
  const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now());
  return static_cast<int>(std::clamp<int64_t>(left.count(), 0, 60'000));
}

// ---- the owner's connections (listener thread only) ----

struct Connection {
  FileDescriptor fd;
  std::string buffer;  // the line while reading, then the reply
  size_t written = 0;
  bool replying = false;
  bool done = false;
  Clock::time_point deadline;
};

bool fromThisUser(int fd) {
  ucred peer{};
  socklen_t size = sizeof peer;
  return ::getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &peer, &size) == 0 && peer.uid == ::geteuid();
}

void writeTo(Connection& connection) {
  while (connection.written < connection.buffer.size()) {
    const ssize_t sent = ::send(connection.fd.get(), connection.buffer.data() + connection.written,
                                connection.buffer.size() - connection.written, MSG_NOSIGNAL);
    if (sent < 0) {
      if (errno == EINTR) continue;
      if (errno != EAGAIN) connection.done = true;
      return;
    }
    connection.written += static_cast<size_t>(sent);
  }
  connection.done = true;
}

void readFrom(Connection& connection, const InstanceOwner::Handler& onMessage) {
  char chunk[kLineLimit];
  const ssize_t got = ::recv(connection.fd.get(), chunk, kLineLimit - connection.buffer.size(), 0);
  if (got < 0) {
    if (errno != EAGAIN && errno != EINTR) connection.done = true;
    return;
  }
  if (got == 0) {  // gone before its newline: half a message is no message
    connection.done = true;
    return;
  }
  connection.buffer.append(chunk, static_cast<size_t>(got));
  const size_t end = connection.buffer.find('\n');
  if (end == std::string::npos) {
    if (connection.buffer.size() >= kLineLimit) connection.done = true;
    return;
  }
  connection.buffer.resize(end);
  std::string reply;
  try {
    reply = onMessage(connection.buffer);
  } catch (...) {
    connection.done = true;
    return;
  }
  // One line back, whatever the handler made.
  reply.resize(std::min(reply.find('\n'), reply.size()));
  reply.push_back('\n');
  connection.buffer = std::move(reply);
  connection.replying = true;
  connection.deadline = Clock::now() + kConnectionTime;
  writeTo(connection);
}

void acceptFrom(int listener, std::vector<Connection>& connections,
                Clock::time_point& pausedUntil) {
  while (connections.size() < kMaxConnections) {
    FileDescriptor fd(::accept4(listener, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
    if (!fd) {
      if (errno == EINTR || errno == ECONNABORTED) continue;
      // Out of descriptors or memory: the backlog keeps them, try again soon
      // instead of spinning on a listener that stays readable.
      if (errno != EAGAIN) pausedUntil = Clock::now() + 100ms;
      return;
    }
    if (!fromThisUser(fd.get())) continue;
    Connection connection;
    connection.fd = std::move(fd);
    connection.deadline = Clock::now() + kConnectionTime;
    connections.push_back(std::move(connection));
  }
}

// ---- the caller's side ----

enum class Delivery {
  noOwner,     // nobody took the line; sending it again cannot repeat it
  answered,    // `reply` holds the owner's line
  unanswered,  // the owner may have acted on it, or is too busy to say
};

struct Attempt {
  Delivery delivery;
  std::string reply;
};

// False when the deadline passed first.
bool waitFor(int fd, short events, Clock::time_point deadline) {
  for (;;) {
    if (Clock::now() >= deadline) return false;
    pollfd entry{fd, events, 0};
    const int ready = ::poll(&entry, 1, millisecondsUntil(deadline));
    if (ready > 0) return true;  // errors too: the next call reports them
    if (ready < 0 && errno != EINTR) return false;
  }
}

void checkMessage(const std::string& message, const InstanceAddress& address) {
  if (message.size() > kInstanceMessageLimit || message.find('\n') != std::string::npos)
    throw InstanceChannelError(Kind::invalidMessage, address.socket);
}

// Nothing once connected; else why not.
std::optional<Delivery> connectTo(int fd, const InstanceAddress& address,
                                  Clock::time_point deadline) {
  const sockaddr_un where = socketAddress(address.socket);
  auto backoff = std::chrono::milliseconds(kFirstBackoff);
  while (::connect(fd, reinterpret_cast<const sockaddr*>(&where), sizeof where) != 0) {
    if (errno == ENOENT || errno == ECONNREFUSED) return Delivery::noOwner;
    if (errno == EINTR) continue;
    if (errno != EAGAIN) throw FileError(address.socket, "connect to", errno);
    // A full backlog: the owner is there, only busy.
    if (Clock::now() + backoff >= deadline) return Delivery::unanswered;
    std::this_thread::sleep_for(backoff);
    backoff = std::min<std::chrono::milliseconds>(backoff * 2, kLastBackoff);
  }
  return std::nullopt;
}

// Nothing once the whole line is out; else why not.
std::optional<Delivery> sendLine(int fd, const InstanceAddress& address, const std::string& line,
                                 Clock::time_point deadline) {
  size_t sent = 0;
  while (sent < line.size()) {
    const ssize_t count = ::send(fd, line.data() + sent, line.size() - sent, MSG_NOSIGNAL);
    if (count >= 0) {
      sent += static_cast<size_t>(count);
      continue;
    }
    if (errno == EINTR) continue;
    // It closed before our newline reached it, so it cannot have acted.
    if (errno == EPIPE || errno == ECONNRESET) return Delivery::noOwner;
    if (errno != EAGAIN) throw FileError(address.socket, "write to", errno);
    if (!waitFor(fd, POLLOUT, deadline)) return Delivery::unanswered;
  }
  return std::nullopt;
}

Attempt readReply(int fd, Clock::time_point deadline) {
  std::string reply;
  char chunk[4096];
  for (;;) {
    const ssize_t got = ::recv(fd, chunk, sizeof chunk, 0);
    if (got > 0) {
      reply.append(chunk, static_cast<size_t>(got));
      if (const size_t end = reply.find('\n'); end != std::string::npos) {
        reply.resize(end);
        return {Delivery::answered, std::move(reply)};
      }
      if (reply.size() > kReplyLimit) return {Delivery::unanswered, {}};
      continue;
    }
    if (got == 0) return {Delivery::unanswered, {}};
    if (errno == EINTR) continue;
    // A reset means the owner closed with our line still unread in its queue
    // (it quit with us in its backlog): it never saw the message.
    if (errno == ECONNRESET && reply.empty()) return {Delivery::noOwner, {}};
    if (errno != EAGAIN) return {Delivery::unanswered, {}};
    if (!waitFor(fd, POLLIN, deadline)) return {Delivery::unanswered, {}};
  }
}

Attempt attemptDelivery(const InstanceAddress& address, const std::string& message,
                        Clock::time_point deadline) {
  if (!checkFolder(address.folder)) return {Delivery::noOwner, {}};
  FileDescriptor fd(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  if (!fd) throw FileError(address.socket, "connect to", errno);
  if (auto failure = connectTo(fd.get(), address, deadline)) return {*failure, {}};
  if (auto failure = sendLine(fd.get(), address, message + '\n', deadline)) return {*failure, {}};
  return readReply(fd.get(), deadline);
}

// In the forked child: only async-signal-safe calls, since another thread of
// the parent may have held a lock (malloc's included) at the fork. Reports
// exec's errno through `report`; its closing on exec says the owner runs.
[[noreturn]] void detachAndRun(const char* const argv[], int report) {
  int failure = 0;
  if (::setsid() < 0) {
    failure = errno;
  } else if (const pid_t grandchild = ::fork(); grandchild < 0) {
    failure = errno;
  } else if (grandchild > 0) {
    // The caller reaps us at once; init adopts the owner, so no zombie
    // waits for a caller that lives on.
    ::_exit(0);
  } else {
    sigset_t none;
    ::sigemptyset(&none);
    ::sigprocmask(SIG_SETMASK, &none, nullptr);
    const int null = ::open("/dev/null", O_RDWR);
    if (null < 0) {
      failure = errno;
    } else {
      ::dup2(null, STDIN_FILENO);
      ::dup2(null, STDOUT_FILENO);
      ::dup2(null, STDERR_FILENO);
      if (null > STDERR_FILENO) ::close(null);
      // Pin no mount, and pass on no descriptor some library left inheritable.
      [[maybe_unused]] const int moved = ::chdir("/");
      ::close_range(STDERR_FILENO + 1, ~0U, CLOSE_RANGE_CLOEXEC);
      ::execve(argv[0], const_cast<char* const*>(argv), environ);
      failure = errno;
    }
  }
  [[maybe_unused]] const ssize_t reported = ::write(report, &failure, sizeof failure);
  ::_exit(127);
}

void startOwner(const fs::path& executable) {
  const std::string program = fs::absolute(executable).string();
  const char* const argv[] = {program.c_str(), "service", "--until-idle", nullptr};
  int ends[2];
  if (::pipe2(ends, O_CLOEXEC) != 0) throw FileError(executable, "run", errno);
  FileDescriptor reader(ends[0]);
  FileDescriptor writer(ends[1]);
  const pid_t child = ::fork();
  if (child < 0) throw FileError(executable, "run", errno);
  if (child == 0) detachAndRun(argv, writer.get());
  writer.close();
  int status = 0;
  while (::waitpid(child, &status, 0) < 0 && errno == EINTR) {
  }
  int failure = 0;
  ssize_t got = 0;
  while ((got = ::read(reader.get(), &failure, sizeof failure)) < 0 && errno == EINTR) {
  }
  if (got == sizeof failure) throw FileError(executable, "run", failure);
}

}  // namespace

// ---- errors ----

InstanceChannelError::InstanceChannelError(Kind kind, fs::path path, std::string reason)
    : m_kind(kind), m_path(std::move(path)), m_reason(std::move(reason)) {}

std::string InstanceChannelError::description() const {
  switch (m_kind) {
    case Kind::unsafeFolder:
      return "Tarnbloom won’t use the folder “" + m_path.string() +
             "” for its socket: " + m_reason + ".";
    case Kind::socketPathTooLong:
      return "The socket path “" + m_path.string() + "” is too long for this computer.";
    case Kind::invalidMessage:
      return "A message for the running Tarnbloom must be one line of at most " +
             std::to_string(kInstanceMessageLimit) + " bytes.";
  }
  return {};
}

std::string InstanceChannelError::recoverySuggestion() const {
  switch (m_kind) {
    case Kind::unsafeFolder:
      return "Have that folder removed, or set XDG_RUNTIME_DIR to a private folder of yours, "
             "then try again.";
    case Kind::socketPathTooLong:
      return "Set XDG_RUNTIME_DIR to a folder with a shorter path, then try again.";
    case Kind::invalidMessage:
      return {};
  }
  return {};
}

// ---- addresses ----

InstanceAddress InstanceAddress::forStateFolder(const fs::path& stateFolder) {
  return inFolder(runtimeFolder(), stateFolder);
}

InstanceAddress InstanceAddress::inFolder(const fs::path& folder, const fs::path& stateFolder) {
  const std::string key = resolvedStateFolder(stateFolder).native();
  const std::string name =
      sha256Hex(std::as_bytes(std::span(key.data(), key.size()))).substr(0, 16);
  return {folder, folder / (name + ".sock"), folder / (name + ".lock")};
}

fs::path runtimeFolder() {
  if (const char* runtime = std::getenv("XDG_RUNTIME_DIR"); usableRuntimeParent(runtime))
    return fs::path(runtime) / "tarnbloom";
  // Cron, containers and cluster tasks have no runtime folder. The name is
  // predictable, so claim() refuses it unless it is ours and private.
  return "/tmp/tarnbloom-" + std::to_string(::geteuid());
}

// ---- the owner ----

InstanceOwner::InstanceOwner(InstanceAddress address, Handler onMessage, FileDescriptor lock)
    : m_address(std::move(address)), m_onMessage(std::move(onMessage)), m_lock(std::move(lock)) {}

std::unique_ptr<InstanceOwner> InstanceOwner::claim(const InstanceAddress& address,
                                                    Handler onMessage) {
  socketAddress(address.socket);  // refuse an unusable path before making anything
  makePrivateFolder(address.folder);
  FileDescriptor lock(
      ::open(address.lock.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600));
  if (!lock) throw FileError(address.lock, "open", errno);
  while (::flock(lock.get(), LOCK_EX | LOCK_NB) != 0) {
    if (errno == EWOULDBLOCK) return nullptr;
    if (errno != EINTR) throw FileError(address.lock, "lock", errno);
  }
  std::unique_ptr<InstanceOwner> owner(
      new InstanceOwner(address, std::move(onMessage), std::move(lock)));
  owner->listen();
  owner->m_thread = std::thread([raw = owner.get()] { raw->serve(); });
  return owner;
}

void InstanceOwner::listen() {
  const sockaddr_un where = socketAddress(m_address.socket);
  const fs::path& socket = m_address.socket;
  // Only the lock holder gets here, so a socket at this name is a dead
  // owner's: nobody removes a live one.
  if (::unlink(socket.c_str()) != 0 && errno != ENOENT) throw FileError(socket, "remove", errno);
  m_listener = FileDescriptor(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  if (!m_listener) throw FileError(socket, "create", errno);
  if (::bind(m_listener.get(), reinterpret_cast<const sockaddr*>(&where), sizeof where) != 0)
    throw FileError(socket, "create", errno);
  m_bound = true;
  // bind() applies only the umask; nobody can connect before listen().
  if (::chmod(socket.c_str(), 0600) != 0) throw FileError(socket, "protect", errno);
  if (::listen(m_listener.get(), SOMAXCONN) != 0) throw FileError(socket, "listen on", errno);
  m_wake = FileDescriptor(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
  if (!m_wake) throw FileError(socket, "listen on", errno);
}

InstanceOwner::~InstanceOwner() {
  if (m_thread.joinable()) {
    const uint64_t one = 1;
    [[maybe_unused]] const ssize_t woken = ::write(m_wake.get(), &one, sizeof one);
    m_thread.join();
  }
  m_listener.close();
  // Before the lock goes: once it does, the name belongs to the next owner.
  if (m_bound) ::unlink(m_address.socket.c_str());
}

void InstanceOwner::serve() {
  std::vector<Connection> connections;
  std::vector<pollfd> polls;
  Clock::time_point acceptPausedUntil{};
  for (;;) {
    const bool accepting =
        connections.size() < kMaxConnections && Clock::now() >= acceptPausedUntil;
    Clock::time_point wakeAt = accepting ? Clock::time_point::max() : acceptPausedUntil;
    polls.clear();
    polls.push_back({m_wake.get(), POLLIN, 0});
    polls.push_back({accepting ? m_listener.get() : -1, POLLIN, 0});
    for (const Connection& connection : connections) {
      polls.push_back(
          {connection.fd.get(), connection.replying ? short{POLLOUT} : short{POLLIN}, 0});
      wakeAt = std::min(wakeAt, connection.deadline);
    }
    if (::poll(polls.data(), polls.size(), millisecondsUntil(wakeAt)) < 0) {
      if (errno != EINTR) std::this_thread::sleep_for(10ms);  // ENOMEM: wait for memory
      continue;
    }
    if (polls[0].revents != 0) return;
    // Time spent in handlers below does not count against the others.
    const auto polledAt = Clock::now();
    for (size_t i = 0; i < connections.size(); ++i) {
      Connection& connection = connections[i];
      if (polls[i + 2].revents != 0) {
        if (connection.replying)
          writeTo(connection);
        else
          readFrom(connection, m_onMessage);
      }
      if (polledAt >= connection.deadline) connection.done = true;
    }
    std::erase_if(connections, [](const Connection& connection) { return connection.done; });
    if ((polls[1].revents & POLLIN) != 0)
      acceptFrom(m_listener.get(), connections, acceptPausedUntil);
  }
}

// ---- callers ----

std::optional<std::string> sendToOwner(const InstanceAddress& address, const std::string& message,
                                       std::chrono::milliseconds timeout) {
  checkMessage(message, address);
  Attempt attempt = attemptDelivery(address, message, Clock::now() + timeout);
  if (attempt.delivery != Delivery::answered) return std::nullopt;
  return std::move(attempt.reply);
}

std::optional<std::string> deliverToOwner(const InstanceAddress& address,
                                          const std::string& message, const fs::path& executable,
                                          std::chrono::milliseconds timeout) {
  checkMessage(message, address);
  const auto deadline = Clock::now() + timeout;
  std::optional<Clock::time_point> startedAt;
  auto backoff = std::chrono::milliseconds(kFirstBackoff);
  for (;;) {
    Attempt attempt = attemptDelivery(address, message, deadline);
    if (attempt.delivery == Delivery::answered) return std::move(attempt.reply);
    if (attempt.delivery == Delivery::unanswered) return std::nullopt;
    const auto now = Clock::now();
    if (now >= deadline) return std::nullopt;
    if (!startedAt || now - *startedAt >= kRestartAfter) {
      startOwner(executable);
      startedAt = now;
      backoff = kFirstBackoff;
    }
    std::this_thread::sleep_for(std::min<Clock::duration>(backoff, deadline - Clock::now()));
    backoff = std::min<std::chrono::milliseconds>(backoff * 2, kLastBackoff);
  }
}

}  // namespace tarnbloom::agent
