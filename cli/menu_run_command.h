#pragma once

#include <string>
#include <vector>

namespace tarnbloom::cli {

// `tarnbloom menu-run --entry ENTRY -- PATH...`: what an entry of the file
// manager's Tarnbloom menu runs. The selected paths and the entry go to the
// running instance as an automation request; the entry's settings are read
// here from the user's own settings, never from the menu. Returns the exit
// status.
int runMenuRun(const std::vector<std::string>& arguments);

}  // namespace tarnbloom::cli
