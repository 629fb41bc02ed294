#pragma once

#include <filesystem>
#include <string>
#include <string_view>

namespace tarnbloom::agent {

// Where the automation route keeps its files, under the state folder
// (support/state_paths.h):
//   Agent/inbox/ID.json   requests other programs write
//   Agent/outbox/ID.json  result documents the application writes
//   Agent/state/ID.json   links from agent jobs to export-queue jobs
// Nothing is created here (AgentFileStore::ensureDirectory does that).
//
// Files are named with the job id exactly as the caller spelt it, so the
// caller finds its result under the name it chose. The file functions
// throw AgentProtocolError (invalid_argument) for text that is not a job
// id, so that no name from outside can reach another folder.
namespace AgentPaths {

inline constexpr std::string_view agentFolderName = "Agent";

std::filesystem::path agentDirectory(const std::filesystem::path& stateFolder);
std::filesystem::path inboxDirectory(const std::filesystem::path& stateFolder);
std::filesystem::path outboxDirectory(const std::filesystem::path& stateFolder);
std::filesystem::path stateDirectory(const std::filesystem::path& stateFolder);

// The job id + ".json" in `directory`.
std::filesystem::path jobFile(const std::filesystem::path& directory, std::string_view jobID);
// The same in the inbox, outbox and state folders.
std::filesystem::path inboxFile(std::string_view jobID, const std::filesystem::path& stateFolder);
std::filesystem::path outboxFile(std::string_view jobID, const std::filesystem::path& stateFolder);
std::filesystem::path stateFile(std::string_view jobID, const std::filesystem::path& stateFolder);

// The one spelling of a job id under which jobs are compared (ids are
// UUIDs, whose case carries no meaning): upper case.
std::string jobKey(std::string_view jobID);

}  // namespace AgentPaths

}  // namespace tarnbloom::agent
