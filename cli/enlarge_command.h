#pragma once

#include <string>
#include <vector>

#include "agent/agent_request.h"
#include "export/export_options.h"

namespace tarnbloom::cli {

// `tarnbloom enlarge --size SIZE [OPTIONS] FILE|FOLDER...`, sent to the
// running instance as an automation request and followed to its end.
// Returns the protocol's exit status.
int runEnlarge(const std::vector<std::string>& arguments);
// `tarnbloom recipe run ID|NAME FILE|FOLDER...`: enlarge --recipe by another name.
int runRecipeRun(const std::vector<std::string>& arguments);

// Export settings a person chose elsewhere (the window, the file manager's
// Enlarge entries) written into a request, as the command line's flags are.
void describeOptions(const exporting::ExportOptions& options, agent::AgentRequest& request,
                     agent::AgentExportSettings& settings);

}  // namespace tarnbloom::cli
