#pragma once

#include <string>
#include <vector>

namespace tarnbloom::cli {

// `tarnbloom mcp`: serves the Model Context Protocol on standard input and
// output until the client closes standard input. Returns 0 then, 1 on a
// usage error.
int runMcp(const std::vector<std::string>& arguments);

}  // namespace tarnbloom::cli
