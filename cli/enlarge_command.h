#pragma once

#include <string>
#include <vector>

namespace tarnbloom::cli {

// `tarnbloom enlarge --method exact --size SIZE --out DIR [--format png|jpeg]
// [--quality N] FILE...`. Returns the exit status.
int runEnlarge(const std::vector<std::string>& arguments);

}  // namespace tarnbloom::cli
