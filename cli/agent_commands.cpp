#include "cli/agent_commands.h"

#include <iostream>

#include "agent/agent_client.h"
#include "agent/agent_host.h"
#include "agent/agent_paths.h"
#include "agent/agent_url.h"
#include "agent/instance_channel.h"
#include "cli/exit_codes.h"
#include "cli/help_option.h"
#include "cli/job_follower.h"
#include "engine/estimate_engine.h"
#include "support/settings.h"
#include "support/state_paths.h"

namespace tarnbloom::cli {

namespace fs = std::filesystem;
using namespace agent;

namespace {

constexpr const char* kServiceUsage =
    "Usage: tarnbloom service [--until-idle]\n"
    "  Runs the instance that owns the export queue and answers automation requests\n"
    "  (tarnbloom:// URLs, the command-line tool, MCP). --until-idle quits once nothing\n"
    "  is left to do; the command-line tool starts it that way when none runs.\n";
constexpr const char* kURLUsage =
    "Usage: tarnbloom url 'tarnbloom://agent?job=ID'\n"
    "  Hands a URL to the running instance, starting one when none runs. This is what\n"
    "  xdg-open runs for tarnbloom:// URLs.\n";
constexpr const char* kStatusUsage = "Usage: tarnbloom status JOB [--json]\n";
constexpr const char* kCancelUsage = "Usage: tarnbloom cancel JOB\n";
constexpr const char* kDoctorUsage =
    "Usage: tarnbloom doctor [--json]\n"
    "  Checks that the instance answers and says where its files are.\n";

// The one job id an argument list names, and whether --json was given.
bool jobArguments(const std::vector<std::string>& arguments, std::string& job, bool& json) {
  for (const auto& argument : arguments) {
    if (argument == "--json")
      json = true;
    else if (job.empty() && AgentProtocol::isValidJobID(argument))
      job = argument;
    else
      return false;
  }
  return !job.empty();
}

void printStatus(const AgentResult& result) {
  std::cout << result.job << ": " << rawValue(result.state) << " (" << result.counts.completed
            << " completed, " << result.counts.skipped << " skipped, " << result.counts.failed
            << " failed, " << result.counts.cancelled << " cancelled of " << result.items.size()
            << ")\n";
  if (result.error) std::cout << result.error->message << '\n';
}

}  // namespace

int runService(const std::vector<std::string>& arguments) {
  if (wantsHelp(arguments)) {
    std::cout << kServiceUsage;
    return kExitSuccess;
  }
  bool untilIdle = false;
  for (const auto& argument : arguments) {
    if (argument != "--until-idle") {
      std::cerr << "tarnbloom service: unknown option “" << argument << "”.\n" << kServiceUsage;
      return kExitUsage;
    }
    untilIdle = true;
  }
  try {
    return runHeadlessService(stateFolder(), untilIdle, appInfo());
  } catch (const Error& error) {
    std::cerr << "tarnbloom service: " << error.description() << '\n';
    return kExitFailure;
  }
}

int runURL(const std::vector<std::string>& arguments) {
  if (wantsHelp(arguments)) {
    std::cout << kURLUsage;
    return kExitSuccess;
  }
  if (arguments.size() != 1) {
    std::cerr << kURLUsage;
    return kExitUsage;
  }
  // A URL that names no job is ignored by the instance too; saying so here
  // spares starting one for nothing.
  if (!AgentURL::parse(arguments[0])) {
    std::cerr << "tarnbloom url: ignored an agent URL with a missing or invalid job id\n";
    return kExitUsage;
  }
  try {
    AgentClient(stateFolder()).deliver(arguments[0]);
  } catch (const AgentProtocolError& error) {
    std::cerr << "tarnbloom url: " << error.description() << ' ' << error.details() << '\n';
    return rawValue(exitCode(error.code()));
  }
  return kExitSuccess;
}

int runStatus(const std::vector<std::string>& arguments) {
  if (wantsHelp(arguments)) {
    std::cout << kStatusUsage;
    return kExitSuccess;
  }
  std::string job;
  bool json = false;
  if (!jobArguments(arguments, job, json)) {
    std::cerr << "tarnbloom status: name one job id.\n" << kStatusUsage;
    return kExitUsage;
  }
  const auto result = AgentClient(stateFolder()).current(job);
  if (!result) {
    std::cerr << "tarnbloom status: " << AgentErrorInfo::unknownJob().message << '\n';
    return kExitUsage;
  }
  if (json)
    std::cout << encodeResult(*result);
  else
    printStatus(*result);
  const auto code = exitCode(*result);
  return code ? rawValue(*code) : kExitSuccess;
}

int runCancel(const std::vector<std::string>& arguments) {
  if (wantsHelp(arguments)) {
    std::cout << kCancelUsage;
    return kExitSuccess;
  }
  std::string job;
  bool json = false;
  if (!jobArguments(arguments, job, json) || json) {
    std::cerr << "tarnbloom cancel: name one job id.\n" << kCancelUsage;
    return kExitUsage;
  }
  AgentClient client(stateFolder());
  AgentRequest request = newRequest(AgentCommand::cancel);
  request.targetJob = job;
  return runAgentJob(client, request, {true, false}) == kExitSuccess ? kExitSuccess : kExitUsage;
}

int runDoctor(const std::vector<std::string>& arguments) {
  if (wantsHelp(arguments)) {
    std::cout << kDoctorUsage;
    return kExitSuccess;
  }
  bool json = false;
  for (const auto& argument : arguments) {
    if (argument != "--json") {
      std::cerr << "tarnbloom doctor: unknown option “" << argument << "”.\n" << kDoctorUsage;
      return kExitUsage;
    }
    json = true;
  }
  AgentClient client(stateFolder());
  const AgentRequest request = newRequest(AgentCommand::doctor);
  if (json) return runAgentJob(client, request, {true, false});
  try {
    client.submit(request);
  } catch (const AgentProtocolError& error) {
    std::cout << "Instance: " << error.description() << ' ' << error.details() << '\n';
    return rawValue(exitCode(error.code()));
  }
  const auto result = client.follow(request.job, {});
  const bool answered = result && result->state == AgentResultState::completed;
  const auto model = EstimateEngine::configuredURL();
  std::cout << "Tarnbloom " << TARNBLOOM_VERSION << '\n'
            << "Instance:      " << (answered ? "answers" : "did not answer") << " ("
            << InstanceAddress::forStateFolder(stateFolder()).socket.string() << ")\n"
            << "State folder:  " << stateFolder().string() << '\n'
            << "Agent inbox:   " << AgentPaths::inboxDirectory(stateFolder()).string() << '\n'
            << "Agent outbox:  " << AgentPaths::outboxDirectory(stateFolder()).string() << '\n'
            << "Settings:      " << settingsFilePath().string() << '\n'
            << "Enhance model: "
            << (model && fs::exists(*model) ? model->string() : std::string("not installed"))
            << '\n';
  return answered ? kExitSuccess : rawValue(AgentExitCode::appUnavailable);
}

}  // namespace tarnbloom::cli
