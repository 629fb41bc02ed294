#pragma once

#include <string>
#include <vector>

namespace tarnbloom::cli {

// `tarnbloom enlarge --size SIZE [OPTIONS] FILE|FOLDER...`, sent to the
// running instance as an automation request and followed to its end.
// Returns the protocol's exit status.
int runEnlarge(const std::vector<std::string>& arguments);
// `tarnbloom recipe run ID|NAME FILE|FOLDER...`: enlarge --recipe by another name.
int runRecipeRun(const std::vector<std::string>& arguments);

}  // namespace tarnbloom::cli
