// The command-line tool: `tarnbloom COMMAND ...`.

#include <clocale>
#include <cstring>
#include <iostream>
#include <string>
#include <vector>

#include "cli/exit_codes.h"
#include "cli/info_command.h"

namespace {

constexpr const char* kUsage =
    "Usage: tarnbloom COMMAND [OPTIONS] FILE...\n"
    "\n"
    "Commands:\n"
    "  info [--json] FILE...   describe each file and say whether it can be enlarged\n"
    "\n"
    "Exit status: 0 success, 1 usage error, 3 a file was refused.\n";

}  // namespace

int main(int argc, char** argv) {
  std::setlocale(LC_ALL, "");
  std::vector<std::string> arguments(argv + 1, argv + argc);
  if (arguments.empty()) {
    std::cerr << kUsage;
    return tarnbloom::cli::kExitUsage;
  }
  const std::string command = arguments.front();
  arguments.erase(arguments.begin());
  if (command == "--help" || command == "-h" || command == "help") {
    std::cout << kUsage;
    return tarnbloom::cli::kExitSuccess;
  }
  if (command == "--version") {
    std::cout << "tarnbloom " << TARNBLOOM_VERSION << '\n';
    return tarnbloom::cli::kExitSuccess;
  }
  if (command == "info") return tarnbloom::cli::runInfo(arguments);
  std::cerr << "tarnbloom: unknown command “" << command << "”.\n" << kUsage;
  return tarnbloom::cli::kExitUsage;
}
