#pragma once

#include <string>
#include <vector>

namespace tarnbloom::cli {

// `tarnbloom preflight FOLDER --out DEST [...]`: what a folder batch would
// run and what it would set aside, exporting nothing. Returns the exit
// status: 0 every file passes, 2 some are excluded, 3 none passes, 1 a
// usage error or a refused destination.
int runPreflight(const std::vector<std::string>& arguments);

}  // namespace tarnbloom::cli
