#include "agent/agent_paths.h"

#include "agent/agent_protocol.h"

namespace tarnbloom::agent::AgentPaths {

std::filesystem::path agentDirectory(const std::filesystem::path& stateFolder) {
  return stateFolder / agentFolderName;
}

std::filesystem::path inboxDirectory(const std::filesystem::path& stateFolder) {
  return agentDirectory(stateFolder) / "inbox";
}

std::filesystem::path outboxDirectory(const std::filesystem::path& stateFolder) {
  return agentDirectory(stateFolder) / "outbox";
}

std::filesystem::path stateDirectory(const std::filesystem::path& stateFolder) {
  return agentDirectory(stateFolder) / "state";
}

std::filesystem::path jobFile(const std::filesystem::path& directory, std::string_view jobID) {
  // A job id is hexadecimal digits and dashes, so it can never be "..", hold
  // a "/" or start with the dot that marks our temporary files.
  if (!AgentProtocol::isValidJobID(jobID))
    throw AgentProtocolError(AgentErrorInfo::jobIDNotUUID(), std::string(jobID));
  return directory / (std::string(jobID) + ".json");
}

std::filesystem::path inboxFile(std::string_view jobID, const std::filesystem::path& stateFolder) {
  return jobFile(inboxDirectory(stateFolder), jobID);
}

std::filesystem::path outboxFile(std::string_view jobID, const std::filesystem::path& stateFolder) {
  return jobFile(outboxDirectory(stateFolder), jobID);
}

std::filesystem::path stateFile(std::string_view jobID, const std::filesystem::path& stateFolder) {
  return jobFile(stateDirectory(stateFolder), jobID);
}

std::string jobKey(std::string_view jobID) {
  std::string key(jobID);
  for (char& c : key)
    if (c >= 'a' && c <= 'z') c = char(c - 'a' + 'A');
  return key;
}

}  // namespace tarnbloom::agent::AgentPaths
