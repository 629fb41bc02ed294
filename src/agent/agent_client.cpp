#include "agent/agent_client.h"

#include <poll.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <cerrno>
#include <climits>

#include "agent/agent_file_store.h"
#include "agent/agent_paths.h"
#include "agent/agent_url.h"
#include "agent/instance_channel.h"
#include "support/files.h"

namespace tarnbloom::agent {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

namespace {

// Long enough for a cold start of the instance (its decoder helpers, the
// queue's recovery), short enough that a broken installation is reported.
constexpr std::chrono::milliseconds kDeliveryTimeout{20'000};
// Silence after which the follower asks whether the instance still lives.
constexpr std::chrono::milliseconds kLivenessCheck{6'000};

fs::path currentExecutable() {
  std::error_code error;
  fs::path self = fs::read_symlink("/proc/self/exe", error);
  return error ? fs::path("tarnbloom") : self;
}

// The caller's own verdict on a job it stopped waiting for.
AgentResult givenUp(AgentResult result, AgentErrorInfo error, WallTime now) {
  result.state = AgentResultState::failed;
  result.error = std::move(error);
  result.finishedAt = now;
  return result;
}

}  // namespace

AgentClient::AgentClient(fs::path stateFolder, fs::path executable)
    : m_stateFolder(std::move(stateFolder)),
      m_executable(executable.empty() ? currentExecutable() : std::move(executable)) {}

void AgentClient::deliver(const std::string& url) const {
  const auto address = InstanceAddress::forStateFolder(m_stateFolder);
  std::optional<std::string> reply;
  try {
    reply = deliverToOwner(address, url, m_executable, kDeliveryTimeout);
  } catch (const Error& error) {
    throw AgentProtocolError(AgentErrorInfo::generic(AgentErrorCode::appNotFound),
                             error.description());
  }
  if (!reply)
    throw AgentProtocolError(
        AgentErrorInfo::generic(AgentErrorCode::appNotFound),
        "No Tarnbloom instance answered at " + address.socket.string() + ".");
}

void AgentClient::submit(const AgentRequest& request) {
  write(request);
  deliver(AgentURL::runURL(AgentURL::kScheme, request.job));
}

void AgentClient::write(const AgentRequest& request) const {
  try {
    const fs::path file = AgentPaths::inboxFile(request.job, m_stateFolder);
    AgentFileStore::ensureDirectory(file.parent_path());
    AgentFileStore::writeAtomically(encodeRequest(request), file, Durability::ordered);
  } catch (const AgentProtocolError&) {
    throw;
  } catch (const Error& error) {
    throw AgentProtocolError(AgentErrorInfo{AgentErrorCode::internal, error.description()});
  }
}

void AgentClient::cancel(const std::string& jobID) {
  deliver(AgentURL::cancelURL(AgentURL::kScheme, jobID));
}

std::optional<AgentResult> AgentClient::current(const std::string& jobID) const {
  try {
    return decodeResult(readWholeFile(AgentPaths::outboxFile(jobID, m_stateFolder),
                                      AgentProtocol::maxResultBytes));
  } catch (const std::exception&) {
    return std::nullopt;
  }
}

int AgentClient::exitStatus(const AgentResult& result) {
  if (result.error && (result.error->code == AgentErrorCode::timeout ||
                       result.error->code == AgentErrorCode::appQuit))
    return rawValue(exitCode(result.error->code));
  const auto code = exitCode(result);
  return code ? rawValue(*code) : rawValue(AgentExitCode::failure);
}

std::optional<AgentResult> AgentClient::follow(const std::string& jobID,
                                               const Follow& follow) const {
  const fs::path outbox = AgentPaths::outboxDirectory(m_stateFolder);
  const std::string name = AgentPaths::outboxFile(jobID, m_stateFolder).filename().string();
  AgentFileStore::ensureDirectory(outbox);
  FileDescriptor watch(::inotify_init1(IN_NONBLOCK | IN_CLOEXEC));
  if (!watch) throw FileError(outbox, "watch", errno);
  // Documents arrive by rename; a watch that cannot be added leaves the
  // liveness checks below to notice progress, every few seconds.
  ::inotify_add_watch(watch.get(), outbox.c_str(), IN_MOVED_TO | IN_CLOSE_WRITE);

  const auto started = Clock::now();
  auto lastChange = started;
  auto lastRead = started;
  bool changed = true;
  std::optional<AgentResult> last;
  for (;;) {
    // Our file changed, or a second passed (a watch may miss a change made
    // before it was added).
    if (changed || Clock::now() - lastRead > std::chrono::seconds(1)) {
      lastRead = Clock::now();
      if (auto now = current(jobID); now && (!last || !(*now == *last))) {
        last = now;
        lastChange = Clock::now();
        if (follow.onUpdate) follow.onUpdate(*now);
        if (now->state != AgentResultState::running) return now;
      }
    }
    if (follow.stop && follow.stop()) return std::nullopt;
    const WallTime wallNow = std::chrono::system_clock::now();
    if (last && wallNow - last->updatedAt > AgentProtocol::staleAfter)
      return givenUp(*last, AgentErrorInfo::generic(AgentErrorCode::appQuit), wallNow);
    if (follow.timeout && Clock::now() - started > *follow.timeout) {
      AgentResult base = last.value_or(AgentResult{});
      base.job = jobID;
      return givenUp(std::move(base), AgentErrorInfo::generic(AgentErrorCode::timeout), wallNow);
    }
    if (Clock::now() - lastChange > kLivenessCheck) {
      // An instance killed mid-job writes nothing more: waking a new one
      // lets it finish the document from what was really published.
      lastChange = Clock::now();
      deliver(AgentURL::runURL(AgentURL::kScheme, jobID));
    }
    changed = false;
    pollfd fd{watch.get(), POLLIN, 0};
    if (::poll(&fd, 1, 200) <= 0) continue;
    alignas(inotify_event) char buffer[4096];
    for (ssize_t n; (n = ::read(watch.get(), buffer, sizeof buffer)) > 0;) {
      for (char* p = buffer; p < buffer + n;) {
        const auto* event = reinterpret_cast<const inotify_event*>(p);
        if (event->len > 0 && name == event->name) changed = true;
        p += sizeof(inotify_event) + event->len;
      }
    }
  }
}

}  // namespace tarnbloom::agent
