#pragma once

#include <optional>
#include <span>
#include <string>
#include <vector>

namespace tarnbloom::agent {

// What ties an agent job to the export-queue jobs that carry it, kept in
// the agent's "state" folder so that an instance started after a crash can
// tell what became of each planned output.
struct AgentJobLink {
  struct Entry {
    std::string source;
    std::string plannedOutput;
    bool overwrite = false;  // the plan's action was "overwrite"
    // The export-queue item, once queued.
    std::optional<std::string> queueItem;

    bool operator==(const Entry&) const = default;
  };
  std::vector<std::string> queueJobs;
  std::vector<Entry> items;
  bool cancelRequested = false;

  bool operator==(const AgentJobLink&) const = default;

  std::string encode() const;
  // Strict; throws AgentProtocolError (internal) for a damaged link.
  static AgentJobLink decode(std::span<const std::byte> bytes);
};

}  // namespace tarnbloom::agent
