#pragma once

#include <iostream>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace tarnbloom::cli {

// A command line that cannot be used; the command prints it with its usage.
class UsageError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// Whether a command's arguments ask for its usage: --help or -h anywhere
// before a "--" that ends the options.
inline bool wantsHelp(const std::vector<std::string>& arguments) {
  for (const auto& argument : arguments) {
    if (argument == "--") return false;
    if (argument == "--help" || argument == "-h") return true;
  }
  return false;
}


// What every command that parses options does first: its usage for --help,
// a usage error printed with the usage. Returns the exit status (0 or 1)
// when the command has nothing more to do, else nothing.
template <typename Options, typename Parse>
std::optional<int> parseCommandLine(const std::string& command,
                                    const std::vector<std::string>& arguments,
                                    const std::string& usage, Parse parse, Options& options) {
  if (wantsHelp(arguments)) {
    std::cout << usage;
    return 0;
  }
  try {
    options = parse(arguments);
  } catch (const UsageError& error) {
    std::cerr << "tarnbloom " << command << ": " << error.what() << '\n' << usage;
    return 1;
  }
  return std::nullopt;
}

}  // namespace tarnbloom::cli
