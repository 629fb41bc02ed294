#pragma once

#include <string>
#include <vector>

namespace tarnbloom::cli {

// `tarnbloom report DIR [--json|--csv] [--receipts DIR]...`: one table of
// every receipt under a destination tree, each output checked against its
// receipt. Returns 0 when everything checks out, 2 when something is
// missing, changed, repeated or unreadable, 1 when the report cannot be made.
int runReport(const std::vector<std::string>& arguments);

}  // namespace tarnbloom::cli
