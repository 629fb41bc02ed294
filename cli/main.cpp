// The command-line tool: `tarnbloom COMMAND ...`.

#include <clocale>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <cstdlib>
#include <iostream>
#include <string>
#include <vector>

#include "cli/agent_commands.h"
#include "cli/canvas_command.h"
#include "cli/enlarge_command.h"
#include "cli/exit_codes.h"
#include "cli/help_option.h"
#include "cli/info_command.h"
#include "cli/job_follower.h"
#include "cli/mcp_command.h"
#include "cli/menu_command.h"
#include "cli/menu_run_command.h"
#include "cli/preflight_command.h"
#include "cli/queue_command.h"
#include "cli/recipe_command.h"
#include "cli/report_command.h"

namespace {

constexpr const char* kUsage =
    "Usage: tarnbloom COMMAND [OPTIONS] FILE...\n"
    "\n"
    "Commands:\n"
    "  enlarge --size SIZE [OPTIONS] FILE|FOLDER...\n"
    "                          enlarge each file through the export queue, with a receipt each\n"
    "                          --method exact|clarity|enhance  --out DIR  --name TEMPLATE\n"
    "                          --if-exists number|skip|overwrite  --receipts beside|store  "
    "--recursive\n"
    "                          SIZE: x2 | x4 | x8 | percent:N | long-edge:N | width:N | height:N | "
    "box:WxH\n"
    "                          --format same|png|jpeg|tiff|webp|avif|heic  --quality N  --max-kb "
    "N\n"
    "                          --profile keep|srgb  --icc|--exif|--xmp|--gps keep|strip\n"
    "                          --flatten white|black|#RRGGBB  --strength S (enhance)  "
    "--allow-8bit\n"
    "                          --canvas WxH  --fill transparent|#RRGGBB  --crop X,Y --confirmation "
    "FILE\n"
    "  preflight FOLDER --out DEST --size SIZE [OPTIONS] [--exclusions FILE] [--json]\n"
    "                          say what a folder batch would enlarge and set aside, exporting "
    "nothing\n"
    "  report DIR [--json|--csv] [--receipts FOLDER]...\n"
    "                          check every output under DIR against its receipt, in one table\n"
    "  canvas preview FILE --size SIZE --canvas WxH --crop X,Y --out PREVIEW.png\n"
    "                          write a crop preview and the confirmation an export of it needs\n"
    "  recipe list|show|import|export|delete|save ...\n"
    "                          the saved recipes; run one with enlarge --recipe ID|NAME\n"
    "  menu list|add|remove|move|publish|integrations ...\n"
    "                          the file manager's Tarnbloom menu: Enlarge and chosen recipes\n"
    "  menu-run --entry ENTRY -- FILE|FOLDER...\n"
    "                          what a file manager's menu entry runs\n"
    "  queue [resume|retry]    list the export queue, finish interrupted exports, retry failed "
    "ones\n"
    "  info [--json] FILE...   describe each file and say whether it can be enlarged\n"
    "  mcp                     serve AI agents over the Model Context Protocol on standard\n"
    "                          input and output\n"
    "  status JOB [--json]     the state of an automation job\n"
    "  cancel JOB              cancel an automation job\n"
    "  doctor [--json]         check that the running instance answers\n"
    "  service [--until-idle]  run the instance that owns the export queue\n"
    "  url URL                 hand a tarnbloom:// URL to the running instance\n"
    "\n"
    "Every command takes --state DIR: keep the queue, receipts and recipes in DIR (as\n"
    "TARNBLOOM_HOME does), for example one folder per task of a cluster array job.\n"
    "\n"
    "Exit status: 0 success, 1 usage error, 2 some files failed, 3 every file failed or was "
    "refused,\n"
    "130 stopped by Ctrl-C (after the current step; finished files stay).\n";

}  // namespace

int main(int argc, char** argv) {
  std::setlocale(LC_ALL, "");
  // A reader that goes away (`tarnbloom enlarge ... | head -1`) must not
  // stop an export half-way: writes to it then fail quietly, and the job
  // runs to its end.
  std::signal(SIGPIPE, SIG_IGN);
  std::vector<std::string> arguments(argv + 1, argv + argc);
  // --state DIR, anywhere before "--": the state folder (queue, receipts,
  // recipes, the running instance) is DIR, as TARNBLOOM_HOME would say. A
  // cluster task keeps its own, and the instance it starts inherits it.
  for (size_t i = 0; i < arguments.size() && arguments[i] != "--"; ++i) {
    if (arguments[i] != "--state") continue;
    if (i + 1 >= arguments.size()) {
      std::cerr << "tarnbloom: --state needs a folder.\n";
      return tarnbloom::cli::kExitUsage;
    }
    std::error_code error;
    const auto folder = std::filesystem::absolute(arguments[i + 1], error);
    ::setenv("TARNBLOOM_HOME", folder.c_str(), 1);
    const auto at = arguments.begin() + static_cast<long>(i);
    arguments.erase(at, at + 2);
    --i;
  }
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
  // Other programs start these two; every other command is a person's
  // run of Tarnbloom, which completes its first-run setup.
  if (command == "service") return tarnbloom::cli::runService(arguments);
  if (command == "url") return tarnbloom::cli::runURL(arguments);
  // Reading a command's usage (the manual page is built that way) is not
  // a run.
  if (!tarnbloom::cli::wantsHelp(arguments)) tarnbloom::cli::completeOnboarding();
  if (command == "status") return tarnbloom::cli::runStatus(arguments);
  if (command == "cancel") return tarnbloom::cli::runCancel(arguments);
  if (command == "doctor") return tarnbloom::cli::runDoctor(arguments);
  if (command == "info") return tarnbloom::cli::runInfo(arguments);
  if (command == "enlarge") return tarnbloom::cli::runEnlarge(arguments);
  if (command == "queue") return tarnbloom::cli::runQueue(arguments);
  if (command == "preflight") return tarnbloom::cli::runPreflight(arguments);
  if (command == "report") return tarnbloom::cli::runReport(arguments);
  if (command == "canvas") return tarnbloom::cli::runCanvas(arguments);
  if (command == "recipe") return tarnbloom::cli::runRecipe(arguments);
  if (command == "menu") return tarnbloom::cli::runMenu(arguments);
  if (command == "menu-run") return tarnbloom::cli::runMenuRun(arguments);
  if (command == "mcp") return tarnbloom::cli::runMcp(arguments);
  std::cerr << "tarnbloom: unknown command “" << command << "”.\n" << kUsage;
  return tarnbloom::cli::kExitUsage;
}
