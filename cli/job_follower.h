#pragma once

#include <string>

#include "agent/agent_client.h"
#include "agent/agent_request.h"

namespace tarnbloom::cli {

// How a command that starts an agent job waits for it.
struct FollowOptions {
  bool json = false;    // print the final result document instead of lines
  bool noWait = false;  // print the job id and return at once
};

// Sends `request` to the running instance (starting one when none runs),
// shows its progress and outcome as `tarnbloom enlarge` always has, and
// returns the protocol's exit code. Ctrl-C cancels the job and returns 130
// once the instance has stopped it.
int runAgentJob(agent::AgentClient& client, const agent::AgentRequest& request,
                const FollowOptions& options);

// The instance information that every command needs.
agent::AgentAppInfo appInfo();
// The caller-side request header: a fresh job id, now.
agent::AgentRequest newRequest(agent::AgentCommand command);
// Marks the first run: a person ran Tarnbloom, so requests other programs
// deliver by URL are accepted from now on.
void completeOnboarding();

}  // namespace tarnbloom::cli
