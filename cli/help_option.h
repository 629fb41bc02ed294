#pragma once

#include <string>
#include <vector>

namespace tarnbloom::cli {

// Whether a command's arguments ask for its usage: --help or -h anywhere
// before a "--" that ends the options.
inline bool wantsHelp(const std::vector<std::string>& arguments) {
  for (const auto& argument : arguments) {
    if (argument == "--") return false;
    if (argument == "--help" || argument == "-h") return true;
  }
  return false;
}

}  // namespace tarnbloom::cli
