#include "cli/mcp_command.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <iostream>

#include "agent/agent_client.h"
#include "agent/mcp_server.h"
#include "cli/exit_codes.h"
#include "cli/help_option.h"
#include "support/state_paths.h"

namespace tarnbloom::cli {
namespace {

constexpr const char* kUsage =
    "Usage: tarnbloom mcp\n"
    "\n"
    "Serves AI agents over the Model Context Protocol: JSON-RPC messages, one per line,\n"
    "on standard input and output. An agent's host starts it; people need not.\n"
    "Tools: enlarge, recipe_run, recipe_list, status, cancel, doctor. Each call is an\n"
    "ordinary automation request, queued and receipted like any other export.\n"
    "Logs go to standard error. It ends when standard input closes; jobs that are\n"
    "still running go on in the background.\n";

// The protocol owns standard output. Anything else in the process that
// prints (a library, a stray diagnostic) lands on standard error instead,
// where it cannot break a message.
int takeStandardOutput() {
  const int protocol = ::fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 3);
  if (protocol < 0) return -1;
  if (::dup2(STDERR_FILENO, STDOUT_FILENO) < 0) {
    ::close(protocol);
    return -1;
  }
  return protocol;
}

}  // namespace

int runMcp(const std::vector<std::string>& arguments) {
  if (wantsHelp(arguments)) {
    std::cout << kUsage;
    return kExitSuccess;
  }
  if (!arguments.empty()) {
    std::cerr << "tarnbloom mcp: unexpected argument “" << arguments.front() << "”.\n" << kUsage;
    return kExitUsage;
  }
  std::cout.flush();
  const int protocol = takeStandardOutput();
  if (protocol < 0) {
    std::cerr << "tarnbloom mcp: " << std::strerror(errno) << '\n';
    return kExitFailure;
  }
  agent::AgentClient client(stateFolder());
  agent::serveMcp(STDIN_FILENO, protocol, client, TARNBLOOM_VERSION);
  ::close(protocol);
  return kExitSuccess;
}

}  // namespace tarnbloom::cli
