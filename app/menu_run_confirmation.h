#pragma once

#include <optional>
#include <string>

#include "agent/agent_url.h"

class QWidget;

namespace tarnbloom::app {

// The first use of a file-manager menu entry: shows what the waiting
// request will do with the entry's settings and asks before anything runs.
// Returns the URL to deliver when the person agreed (the entry is then
// acknowledged, so it never asks again); nothing when they cancelled (the
// request is taken out of the inbox) or when nothing is waiting.
std::optional<std::string> confirmMenuRun(QWidget* parent,
                                          const agent::AgentURL::MenuConfirmation& confirmation);

}  // namespace tarnbloom::app
