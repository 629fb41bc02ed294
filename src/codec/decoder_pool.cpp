#include "codec/decoder_pool.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>

#include "codec/codec_error.h"
#include "codec/decode_protocol.h"

extern char** environ;

namespace tarnbloom::codec {

namespace fs = std::filesystem;

namespace {

// A helper serves this many files, then a fresh one takes over, so what a
// decoder leaks or leaves behind never builds up.
constexpr int kRequestsPerHelper = 200;
// Idle helpers kept: the export worker and one preview at a time.
constexpr size_t kIdleKept = 2;

std::string seconds(std::chrono::milliseconds time) {
  const auto count = time.count();
  return count % 1000 == 0 ? std::to_string(count / 1000) + " s"
                           : std::to_string(count) + " ms";
}

// The replies of a helper that could have been taken over by its file.
CodecError nonsense() {
  return CodecError::unreadable("The decoder sent a reply that could not be understood.");
}

// Maps a sealed memory file of at least `size` bytes privately: the
// helper can no longer change it, and writes here stay here.
SampleBytes adoptPixels(int fd, size_t size) {
  struct stat info {};
  const int seals = ::fcntl(fd, F_GET_SEALS);
  const int needed = F_SEAL_SHRINK | F_SEAL_WRITE;
  if (::fstat(fd, &info) != 0 || seals < 0 || (seals & needed) != needed ||
      static_cast<uint64_t>(info.st_size) < size)
    throw nonsense();
  void* map = ::mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE, fd, 0);
  if (map == MAP_FAILED) throw CodecError::unreadable(std::strerror(errno));
  return SampleBytes::adoptMapping(static_cast<uint8_t*>(map), size);
}

}  // namespace

struct DecoderPool::Helper {
  pid_t pid = -1;
  FileDescriptor socket;
  int requests = 0;
};

DecoderLimits DecoderLimits::standard() {
  DecoderLimits limits;
  const long pages = ::sysconf(_SC_PHYS_PAGES);
  const long pageSize = ::sysconf(_SC_PAGESIZE);
  if (pages > 0 && pageSize > 0)
    limits.memoryBytes = std::max<uint64_t>(uint64_t{1} << 30,
                                            static_cast<uint64_t>(pages) * pageSize / 4 * 3);
  return limits;
}

DecoderPool::DecoderPool(fs::path helper, DecoderLimits limits)
    : m_helper(std::move(helper)), m_limits(limits), m_readFromHelpers(limits.readHelperMemory) {}

DecoderPool::~DecoderPool() {
  std::vector<std::unique_ptr<Helper>> idle;
  {
    std::lock_guard lock(m_mutex);
    idle.swap(m_idle);
  }
  for (auto& helper : idle) retire(*helper);
}

DecoderPool& DecoderPool::shared() {
  static DecoderPool* pool = new DecoderPool(defaultHelper(), DecoderLimits::standard());
  return *pool;
}

fs::path DecoderPool::defaultHelper() {
  if (const char* named = std::getenv("TARNBLOOM_DECODE_HELPER"); named && *named) return named;
  std::error_code error;
  const fs::path programs = fs::read_symlink("/proc/self/exe", error).parent_path();
  const fs::path beside = programs / "tarnbloom-decode";
  if (fs::exists(beside, error)) return beside;
  // An installed layout keeps the helper out of PATH: PREFIX/lib/tarnbloom.
  const fs::path installed = programs.parent_path() / "lib" / "tarnbloom" / "tarnbloom-decode";
  if (fs::exists(installed, error)) return installed;
#ifdef TARNBLOOM_DECODE_HELPER_BUILT
  if (fs::exists(TARNBLOOM_DECODE_HELPER_BUILT, error)) return TARNBLOOM_DECODE_HELPER_BUILT;
#endif
  return beside;
}

std::unique_ptr<DecoderPool::Helper> DecoderPool::start() {
  int pair[2];
  if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair) != 0)
    throw CodecError::unreadable(std::string("The decoder could not be started: ") +
                                 std::strerror(errno));
  auto helper = std::make_unique<Helper>();
  helper->socket = FileDescriptor(pair[0]);
  // Above the helper's channel number, so that moving it there is a real
  // dup2, which clears close-on-exec.
  FileDescriptor theirs(::fcntl(pair[1], F_DUPFD_CLOEXEC, protocol::kHelperChannel + 1));
  ::close(pair[1]);
  if (!theirs)
    throw CodecError::unreadable(std::string("The decoder could not be started: ") +
                                 std::strerror(errno));

  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
  posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
  if (!std::getenv("TARNBLOOM_DECODE_STDERR"))
    posix_spawn_file_actions_addopen(&actions, 2, "/dev/null", O_WRONLY, 0);
  posix_spawn_file_actions_adddup2(&actions, theirs.get(), protocol::kHelperChannel);
  // Nothing else of ours goes with it, whoever opened it without
  // close-on-exec.
  posix_spawn_file_actions_addclosefrom_np(&actions, protocol::kHelperChannel + 1);

  // Default signal handling, nothing blocked, and a process group of its
  // own, so Ctrl-C at the terminal stops our export between steps instead
  // of killing the decode in hand.
  posix_spawnattr_t attributes;
  posix_spawnattr_init(&attributes);
  sigset_t none, all;
  sigemptyset(&none);
  sigfillset(&all);
  posix_spawnattr_setsigmask(&attributes, &none);
  posix_spawnattr_setsigdefault(&attributes, &all);
  posix_spawnattr_setpgroup(&attributes, 0);
  posix_spawnattr_setflags(&attributes,
                           POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETPGROUP);

  const std::string memory = std::to_string(m_limits.memoryBytes);
  const std::string cpu = std::to_string(m_limits.cpuSeconds);
  const std::string program = m_helper.string();
  char* argv[] = {const_cast<char*>(program.c_str()), const_cast<char*>("--memory"),
                  const_cast<char*>(memory.c_str()),  const_cast<char*>("--cpu"),
                  const_cast<char*>(cpu.c_str()),     nullptr};
  const int failed =
      ::posix_spawn(&helper->pid, program.c_str(), &actions, &attributes, argv, environ);
  posix_spawn_file_actions_destroy(&actions);
  posix_spawnattr_destroy(&attributes);
  if (failed)
    throw CodecError::unreadable("The decoder " + program + " could not be started: " +
                                 std::strerror(failed));
  std::lock_guard lock(m_mutex);
  ++m_statistics.started;
  return helper;
}

std::unique_ptr<DecoderPool::Helper> DecoderPool::acquire() {
  {
    std::lock_guard lock(m_mutex);
    if (!m_idle.empty()) {
      auto helper = std::move(m_idle.back());
      m_idle.pop_back();
      return helper;
    }
  }
  return start();
}

void DecoderPool::release(std::unique_ptr<Helper> helper) {
  if (helper->requests < kRequestsPerHelper) {
    std::lock_guard lock(m_mutex);
    if (m_idle.size() < kIdleKept) {
      m_idle.push_back(std::move(helper));
      return;
    }
  }
  retire(*helper);
}

void DecoderPool::retire(Helper& helper) {
  // An idle helper would end by itself once its socket closes; one that a
  // file took over might not, and nothing of an idle one can be lost.
  helper.socket.close();
  ::kill(helper.pid, SIGKILL);
  while (::waitpid(helper.pid, nullptr, 0) < 0 && errno == EINTR) {
  }
}

std::string DecoderPool::bury(std::unique_ptr<Helper> helper, bool timedOut,
                              std::chrono::milliseconds timeout) {
  // Killed whatever it was doing: a helper that stopped answering may
  // still be running. One that died already keeps its own cause.
  ::kill(helper->pid, SIGKILL);
  int status = 0;
  pid_t reaped;
  do reaped = ::waitpid(helper->pid, &status, 0);
  while (reaped < 0 && errno == EINTR);
  {
    std::lock_guard lock(m_mutex);
    ++m_statistics.buried;
  }
  // A spare starts now, so the next file finds one ready.
  try {
    release(start());
  } catch (const CodecError&) {
    // The next request says why.
  }
  if (timedOut) return "The decoder took longer than " + seconds(timeout) + " and was stopped.";
  if (reaped == helper->pid && WIFSIGNALED(status)) {
    const int signal = WTERMSIG(status);
    if (signal == SIGXCPU)
      return "The decoder used more than " + std::to_string(m_limits.cpuSeconds) +
             " s of processor time and was stopped.";
    return "The decoder stopped with signal " + std::to_string(signal) + " (" +
           ::strsignal(signal) + ").";
  }
  if (reaped == helper->pid && WIFEXITED(status))
    return "The decoder ended with status " + std::to_string(WEXITSTATUS(status)) + ".";
  return "The decoder stopped.";
}

std::unique_ptr<DecoderPool::Helper> DecoderPool::handOver(protocol::Kind kind, int fd) {
  const int fds[] = {fd};
  // Idle helpers that died meanwhile (the system stopped them) never saw
  // this file: the next one gets it. Each idle one is tried at most once,
  // then a fresh one, whose failure is reported.
  for (size_t attempt = 0;; ++attempt) {
    const bool last = attempt > kIdleKept;
    auto helper = last ? start() : acquire();
    try {
      protocol::send(helper->socket.get(), kind, {}, fds);
      return helper;
    } catch (const protocol::ChannelClosed&) {
      std::string cause = bury(std::move(helper), false, {});
      if (last) throw CodecError::unreadable(std::move(cause));
    }
  }
}

DecodedFrame DecoderPool::decode(const SealedBytes& bytes, const std::function<void()>& meanwhile) {
  auto helper = handOver(protocol::Kind::decodeRequest, bytes.fd());
  protocol::Message reply;
  try {
    const auto deadline = std::chrono::steady_clock::now() + m_limits.decodeTime;
    if (meanwhile) meanwhile();
    reply = protocol::receive(helper->socket.get(), deadline);
  } catch (const protocol::ChannelClosed& closed) {
    const bool timedOut = closed.reason == protocol::ChannelClosed::Reason::timedOut;
    throw CodecError::unreadable(bury(std::move(helper), timedOut, m_limits.decodeTime));
  }
  ++helper->requests;
  try {
    if (reply.kind == protocol::Kind::refusal) {
      CodecError refusal = protocol::decodeRefusal(reply.payload);
      release(std::move(helper));
      throw refusal;
    }
    if (reply.kind != protocol::Kind::frameReply) throw nonsense();
    DecodedFrame frame;
    const uint64_t address = protocol::decodeFrameFacts(reply.payload, frame);
    const size_t size = frame.pixels.rowBytes() * static_cast<size_t>(frame.pixels.height);
    frame.pixels.data = takePixels(*helper, address, size);
    release(std::move(helper));
    return frame;
  } catch (const CodecError&) {
    if (helper) bury(std::move(helper), false, {});
    throw;
  } catch (const protocol::ChannelClosed& closed) {
    const bool timedOut = closed.reason == protocol::ChannelClosed::Reason::timedOut;
    throw CodecError::unreadable(bury(std::move(helper), timedOut, m_limits.decodeTime));
  }
}

SampleBytes DecoderPool::takePixels(Helper& helper, uint64_t address, size_t size) {
  // One copy straight out of the helper into memory of our own; the
  // helper's memory is not ours to keep mapped.
  if (m_readFromHelpers) {
    SampleBytes pixels(size);
    iovec local{pixels.data(), size};
    iovec remote{reinterpret_cast<void*>(address), size};
    const ssize_t copied = ::process_vm_readv(helper.pid, &local, 1, &remote, 1, 0);
    if (copied == static_cast<ssize_t>(size)) {
      protocol::send(helper.socket.get(), protocol::Kind::pixelsTaken, {});
      return pixels;
    }
    // A system that forbids reading other processes (a strict ptrace
    // policy, a container) says so with EPERM or ENOSYS; anything else is
    // an address the helper made up.
    if (copied >= 0 || (errno != EPERM && errno != ENOSYS)) throw nonsense();
    m_readFromHelpers = false;
  }
  protocol::send(helper.socket.get(), protocol::Kind::pixelsWanted, {});
  const auto reply = protocol::receive(helper.socket.get(),
                                       std::chrono::steady_clock::now() + m_limits.decodeTime);
  if (reply.kind == protocol::Kind::refusal) throw protocol::decodeRefusal(reply.payload);
  if (reply.kind != protocol::Kind::pixelsReply || reply.fds.size() != 1) throw nonsense();
  return adoptPixels(reply.fds[0].get(), size);
}

ContainerProbe DecoderPool::probe(int fd, Container sniffed) {
  // What a probe says of a container whose reader died on it: an image
  // file that cannot be read, not a foreign file.
  ContainerProbe unreadable;
  unreadable.container = sniffed;
  unreadable.opened = true;
  unreadable.frameCount = 1;
  std::unique_ptr<Helper> helper;
  try {
    helper = handOver(protocol::Kind::probeRequest, fd);
  } catch (const CodecError&) {
    return unreadable;
  }
  try {
    const auto reply = protocol::receive(helper->socket.get(),
                                         std::chrono::steady_clock::now() + m_limits.probeTime);
    ++helper->requests;
    if (reply.kind != protocol::Kind::probeReply) throw nonsense();
    const ContainerProbe probe = protocol::decodeProbe(reply.payload);
    release(std::move(helper));
    return probe;
  } catch (const protocol::ChannelClosed& closed) {
    bury(std::move(helper), closed.reason == protocol::ChannelClosed::Reason::timedOut,
         m_limits.probeTime);
  } catch (const CodecError&) {
    bury(std::move(helper), false, {});
  }
  return unreadable;
}

DecoderPool::Statistics DecoderPool::statistics() const {
  std::lock_guard lock(m_mutex);
  return m_statistics;
}

std::vector<pid_t> DecoderPool::idleHelpers() const {
  std::lock_guard lock(m_mutex);
  std::vector<pid_t> pids;
  for (const auto& helper : m_idle) pids.push_back(helper->pid);
  return pids;
}

ContainerProbe probeIsolated(std::span<const std::byte> bytes, int fd) {
  const Container container = sniffContainer(bytes);
  switch (container) {
    case Container::png:
    case Container::jpeg:
    case Container::gif:
    case Container::unknown: return probeContainer(bytes);
    case Container::tiff:
    case Container::webp:
    case Container::heic:
    case Container::avif:
    case Container::raw: break;
  }
  if (fd >= 0) return DecoderPool::shared().probe(fd, container);
  try {
    return DecoderPool::shared().probe(SealedBytes::copyOf(bytes).fd(), container);
  } catch (const Error&) {
    return probeContainer(std::span<const std::byte>{});
  }
}

}  // namespace tarnbloom::codec
