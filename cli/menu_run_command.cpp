#include "cli/menu_run_command.h"

#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <iostream>

#include "agent/agent_client.h"
#include "agent/agent_host.h"
#include "agent/agent_url.h"
#include "cli/enlarge_command.h"
#include "cli/exit_codes.h"
#include "cli/help_option.h"
#include "cli/job_follower.h"
#include "cli/recipe_command.h"
#include "finder/finder_identity.h"
#include "finder/finder_menu_store.h"
#include "support/settings.h"
#include "support/state_paths.h"

extern char** environ;

namespace tarnbloom::cli {

namespace fs = std::filesystem;
using finder::FinderIdentity;
using finder::FinderMenuStore;

namespace {

constexpr const char* kUsage =
    "Usage: tarnbloom menu-run --entry ENTRY [--] FILE|FOLDER...\n"
    "  ENTRY: enlarge-2 | enlarge-4 | enlarge-8 | recipe:ID\n"
    "What the file manager's Tarnbloom menu runs: the entry's settings, as chosen in\n"
    "Tarnbloom, on the selected photos and folders, with a notification at the end.\n"
    "The first use of an entry asks in the Tarnbloom window before anything runs.\n"
    "Photos are saved beside themselves; folders to the entry's folder destination,\n"
    "else each to a folder named \"NAME (Enlarged)\" beside it.\n";

struct Options {
  std::optional<FinderIdentity> entry;
  std::vector<fs::path> paths;
};

Options parseOptions(const std::vector<std::string>& arguments) {
  Options options;
  bool pathsOnly = false;
  for (size_t i = 0; i < arguments.size(); ++i) {
    const std::string& argument = arguments[i];
    if (!pathsOnly && argument == "--") {
      pathsOnly = true;
    } else if (!pathsOnly && argument == "--entry") {
      if (++i == arguments.size()) throw UsageError("--entry needs a value.");
      try {
        options.entry = FinderIdentity::fromCommandLineText(arguments[i]);
      } catch (const Error& error) {
        throw UsageError(error.description());
      }
    } else if (!pathsOnly && argument.rfind("--", 0) == 0) {
      throw UsageError("Unknown option “" + argument + "”.");
    } else {
      options.paths.emplace_back(argument);
    }
  }
  if (!options.entry) throw UsageError("Name the menu entry with --entry.");
  if (options.paths.empty()) throw UsageError("Name the photos or folders to enlarge.");
  return options;
}

// Where a folder run writes when the entry has no folder of its own: a
// folder beside the selected one, so a second run never reads the first
// run's exports as photos.
fs::path besideFolder(const fs::path& folder) {
  const fs::path absolute = fs::absolute(folder).lexically_normal();
  const fs::path named = absolute.has_filename() ? absolute : absolute.parent_path();
  return named.parent_path() / (named.filename().string() + " (Enlarged)");
}

agent::AgentRequest requestFor(const FinderIdentity& entry, const FinderMenuStore& store) {
  agent::AgentRequest request = newRequest(entry.isEnlarge() ? agent::AgentCommand::enlarge
                                                             : agent::AgentCommand::recipeRun);
  request.notify = true;
  agent::AgentExportSettings settings;
  if (entry.isEnlarge())
    describeOptions(store.enlargeOptions(entry.scale()), request, settings);
  else
    request.recipe = entry.recipeID();
  request.settings = settings;
  return request;
}

// The jobs of one menu choice: the photos, saved beside themselves, and
// the folders, saved to the entry's folder destination (all of them) or
// each beside itself. A selected item that is gone by now (moved or
// deleted since the menu opened) goes to `missing`: one vanished item
// must not refuse the rest of the selection.
std::vector<agent::AgentRequest> buildRequests(const Options& options, const FinderMenuStore& store,
                                               std::vector<fs::path>& missing) {
  const FinderIdentity& entry = *options.entry;
  std::vector<agent::AgentRequest> requests;
  agent::AgentRequest photos = requestFor(entry, store);
  std::optional<agent::AgentRequest> together;
  const auto destination = store.folderDestination(entry);
  for (const auto& path : options.paths) {
    std::error_code error;
    const std::string absolute = fs::absolute(path).lexically_normal().string();
    // Only "no such file" counts as gone; any other error (a folder we may
    // not read) is the instance's to report with its own reason.
    if (fs::symlink_status(path, error).type() == fs::file_type::not_found) {
      missing.push_back(absolute);
      continue;
    }
    if (!fs::is_directory(path, error)) {
      photos.sources.push_back({absolute, agent::AgentSourceKind::file});
      continue;
    }
    agent::AgentRequest* folders = nullptr;
    if (destination) {
      if (!together) together = requestFor(entry, store), together->out = destination->string();
      folders = &*together;
    } else {
      folders = &requests.emplace_back(requestFor(entry, store));
      folders->out = besideFolder(path).string();
    }
    folders->sources.push_back({absolute, agent::AgentSourceKind::folder});
    if (store.includeSubfolders(entry)) folders->recursive = true;
  }
  if (together) requests.insert(requests.begin(), std::move(*together));
  if (!photos.sources.empty()) requests.insert(requests.begin(), std::move(photos));
  return requests;
}

// "“Shoot” is no longer there, so it was left out." or, for several,
// "3 selected items are no longer there, so they were left out."
std::string missingMessage(const std::vector<fs::path>& missing) {
  if (missing.size() == 1)
    return "“" + missing.front().filename().string() + "” is no longer there, so it was left out.";
  return std::to_string(missing.size()) +
         " selected items are no longer there, so they were left out.";
}

// The desktop application: beside this program once installed, in the
// build tree's app folder during development, else on the PATH.
fs::path applicationPath() {
  const fs::path self = fs::read_symlink("/proc/self/exe");
  for (const fs::path& candidate :
       {self.parent_path() / "tarnbloom-app", self.parent_path().parent_path() / "app" / "tarnbloom-app"})
    if (::access(candidate.c_str(), X_OK) == 0) return candidate;
  return "tarnbloom-app";
}

// The first use of an entry: the request waits in the inbox while the
// window shows what it will do; only the window's "Enlarge" delivers it.
int askInWindow(const agent::AgentRequest& request, const FinderIdentity& entry) {
  agent::AgentClient client(stateFolder());
  try {
    client.write(request);
  } catch (const agent::AgentProtocolError& error) {
    std::cerr << "tarnbloom menu-run: " << error.info().message << '\n';
    return kExitFailure;
  }
  const std::string link = agent::AgentURL::menuConfirmURL(request.job, entry.commandLineText());
  const std::string app = applicationPath().string();
  const char* arguments[] = {app.c_str(), link.c_str(), nullptr};
  posix_spawnattr_t attributes;
  posix_spawnattr_init(&attributes);
  posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSID);
  pid_t child = -1;
  const int failed = ::posix_spawnp(&child, app.c_str(), nullptr, &attributes,
                                    const_cast<char* const*>(arguments), environ);
  posix_spawnattr_destroy(&attributes);
  if (failed != 0) {
    std::cerr << "tarnbloom menu-run: this entry's first use is confirmed in the Tarnbloom window, "
                 "which could not be started: "
              << std::strerror(failed) << ".\n";
    return kExitFailure;
  }
  // A second launch hands the link to a running window and ends at once;
  // a first one is the window, and outlives this command.
  int status = 0;
  ::waitpid(child, &status, WNOHANG);
  std::cout << "Confirm the settings in the Tarnbloom window.\n";
  return kExitSuccess;
}

int run(const Options& options) {
  auto settings = Settings::loadDefault();
  FinderMenuStore store(settings, recipeLibrary());
  const FinderIdentity& entry = *options.entry;
  if (!entry.isEnlarge()) {
    const auto entries = recipeLibrary().entries(availableMethods());
    const bool found = std::any_of(entries.begin(), entries.end(), [&](const auto& e) {
      return e.draft && e.draft->id == entry.recipeID();
    });
    if (!found) {
      const std::string message(FinderMenuStore::kRemovedRecipeMessage);
      agent::sendDesktopNotification(message);
      std::cerr << "tarnbloom menu-run: " << message << '\n';
      return kExitFailure;
    }
  }
  std::vector<fs::path> missing;
  const auto requests = buildRequests(options, store, missing);
  int status = missing.empty() ? kExitSuccess : kExitPartial;
  if (!missing.empty()) {
    const std::string message = missingMessage(missing);
    agent::sendDesktopNotification(message);
    std::cerr << "tarnbloom menu-run: " << message << '\n';
    if (requests.empty()) return kExitFailure;
  }
  for (const agent::AgentRequest& request : requests) {
    if (!store.isAcknowledged(entry)) {
      status = std::max(status, askInWindow(request, entry));
      continue;
    }
    // The instance checks the output folder; making it is the caller's part.
    if (request.out) fs::create_directories(*request.out);
    agent::AgentClient client(stateFolder());
    FollowOptions follow;
    follow.noWait = true;
    status = std::max(status, runAgentJob(client, request, follow));
  }
  return status;
}

}  // namespace

int runMenuRun(const std::vector<std::string>& arguments) {
  Options options;
  if (const auto done = parseCommandLine("menu-run", arguments, kUsage, parseOptions, options))
    return *done;
  try {
    return run(options);
  } catch (const Error& error) {
    std::cerr << "tarnbloom menu-run: " << error.description() << '\n';
    return kExitFailure;
  } catch (const fs::filesystem_error& error) {
    std::cerr << "tarnbloom menu-run: " << error.what() << '\n';
    return kExitFailure;
  }
}

}  // namespace tarnbloom::cli
