#pragma once

#include <string>
#include <vector>

namespace tarnbloom::cli {

// `tarnbloom info [--json] FILE...`: probes and loads each file and reports
// what it found. Returns the exit status: 0 when every file loads, 3 when any
// is refused, 1 on a usage error.
int runInfo(const std::vector<std::string>& arguments);

}  // namespace tarnbloom::cli
