#pragma once

#include <string>
#include <vector>

namespace tarnbloom::cli {

// `tarnbloom queue`: lists the saved export queue; `queue resume` finishes
// interrupted exports, `queue retry` runs failed ones again. Returns the
// exit status.
int runQueue(const std::vector<std::string>& arguments);

}  // namespace tarnbloom::cli
