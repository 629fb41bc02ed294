#include "cli/menu_command.h"

#include <algorithm>
#include <charconv>
#include <cstdlib>
#include <iostream>

#include "cli/exit_codes.h"
#include "cli/help_option.h"
#include "cli/recipe_command.h"
#include "finder/file_manager_integrations.h"
#include "finder/finder_menu_publisher.h"
#include "finder/finder_menu_store.h"
#include "support/files.h"
#include "support/settings.h"

namespace tarnbloom::cli {

namespace fs = std::filesystem;
using finder::FinderMenuStore;

namespace {

const std::string kUsage =
    "Usage: tarnbloom menu list\n"
    "       tarnbloom menu add ID|NAME       show a recipe in the file manager's Tarnbloom menu\n"
    "       tarnbloom menu remove ID|NAME\n"
    "       tarnbloom menu move ID|NAME OFFSET\n"
    "                                       move it OFFSET places down (up when negative)\n"
    "       tarnbloom menu publish           write the menu file and the file manager menus\n"
    "       tarnbloom menu integrations [--remove]\n"
    "                                       install (or remove) the Tarnbloom submenu of\n"
    "                                       Dolphin, Nemo, Thunar and Nautilus\n"
    "The menu always starts with Enlarge 2x, 4x and 8x; the recipes follow in order.\n"
    "Changes are published at once.\n";

void printError(const Error& error) {
  std::cerr << "tarnbloom menu: " << error.description();
  if (const auto hint = error.recoverySuggestion(); !hint.empty()) std::cerr << ' ' << hint;
  if (const auto details = error.details(); !details.empty()) std::cerr << " (" << details << ")";
  std::cerr << '\n';
}

fs::path executablePath() { return fs::read_symlink("/proc/self/exe"); }

void printReport(const finder::IntegrationReport& report) {
  for (const auto& path : report.written) std::cout << "Wrote " << path.string() << '\n';
  for (const auto& path : report.removed) std::cout << "Removed " << path.string() << '\n';
  for (const auto& problem : report.problems) std::cerr << "tarnbloom menu: " << problem << '\n';
}

// Publishes the menu file, then the integrations in `scope`.
int publish(const FinderMenuStore& store, finder::IntegrationScope scope) {
  const auto menu = store.publish();
  if (scope == finder::IntegrationScope::refreshOnly && !finder::refreshesDesktopMenus())
    return kExitSuccess;
  const auto report = finder::writeIntegrations(
      menu, executablePath(), finder::IntegrationFolders::fromEnvironment(), scope);
  printReport(report);
  return report.problems.empty() ? kExitSuccess : kExitFailure;
}

// The id a command names: an id in the menu as it stands (its recipe may be
// gone), else the recipe of that id or name.
std::string menuID(const FinderMenuStore& store, const std::string& key) {
  if (store.isInMenu(key)) return key;
  return findRecipe(key).id;
}

int list(const FinderMenuStore& store) {
  std::cout << "Enlarge 2×\nEnlarge 4×\nEnlarge 8×\n";
  const auto entries = recipeLibrary().entries(availableMethods());
  const auto ids = store.orderedRecipeIDs();
  if (ids.empty()) std::cout << "(no recipes: add one with tarnbloom menu add ID|NAME)\n";
  for (size_t i = 0; i < ids.size(); ++i) {
    std::cout << i + 1 << ". ";
    const auto usable = std::find_if(entries.begin(), entries.end(), [&](const auto& entry) {
      return entry.draft && entry.draft->id == ids[i];
    });
    const auto broken = std::find_if(entries.begin(), entries.end(), [&](const auto& entry) {
      return !entry.draft && entry.url.stem() == ids[i];
    });
    if (usable != entries.end())
      std::cout << usable->name << "  (" << ids[i] << ")  " << finder::menuSummary(*usable->draft)
                << '\n';
    else if (broken != entries.end())
      std::cout << broken->name << "  (" << ids[i]
                << ")  can’t be used: " << broken->refusal.value_or("") << '\n';
    else
      std::cout << ids[i] << "  removed from the library; left out of the menu\n";
  }
  return kExitSuccess;
}

int offsetFrom(const std::string& text) {
  int offset = 0;
  const char* begin = text.data() + (text.starts_with('+') ? 1 : 0);
  const char* end = text.data() + text.size();
  const auto [stop, error] = std::from_chars(begin, end, offset);
  if (error != std::errc() || stop != end || begin == end)
    throw UsageError("OFFSET is a whole number of places, such as 1 or -2, not “" + text + "”.");
  return offset;
}

int change(FinderMenuStore& store, const std::vector<std::string>& arguments) {
  const std::string& verb = arguments[0];
  const std::string& key = arguments[1];
  if (verb == "add") {
    const auto recipe = findRecipe(key);
    if (store.isInMenu(recipe.id)) {
      std::cout << "“" << recipe.name << "” is already in the file manager menu.\n";
      return kExitSuccess;
    }
    if (const auto refusal = store.addRefusal(recipe.id)) {
      std::cerr << "tarnbloom menu: " << *refusal << '\n';
      return kExitFailure;
    }
    store.add(recipe.id);
    std::cout << "Added “" << recipe.name << "” to the file manager menu.\n";
  } else if (verb == "remove") {
    const auto id = menuID(store, key);
    if (!store.isInMenu(id)) {
      std::cerr << "tarnbloom menu: “" << key << "” is not in the file manager menu.\n";
      return kExitFailure;
    }
    store.remove(id);
    std::cout << "Removed " << id << " from the file manager menu.\n";
  } else {
    const int offset = offsetFrom(arguments[2]);
    const auto id = menuID(store, key);
    if (!store.isInMenu(id)) {
      std::cerr << "tarnbloom menu: “" << key << "” is not in the file manager menu.\n";
      return kExitFailure;
    }
    store.move(id, offset);
  }
  return publish(store, finder::IntegrationScope::refreshOnly);
}

int run(const std::vector<std::string>& arguments) {
  auto settings = Settings::loadDefault();
  FinderMenuStore store(settings, recipeLibrary());
  const std::string verb = arguments.empty() ? "" : arguments[0];
  const size_t count = arguments.size();
  if (verb == "list" && count == 1) return list(store);
  if ((verb == "add" || verb == "remove") && count == 2) return change(store, arguments);
  if (verb == "move" && count == 3) return change(store, arguments);
  if (verb == "publish" && count == 1) return publish(store, finder::IntegrationScope::install);
  if (verb == "integrations" && (count == 1 || (count == 2 && arguments[1] == "--remove"))) {
    const auto scope =
        count == 2 ? finder::IntegrationScope::remove : finder::IntegrationScope::install;
    // The integrations are made from the menu as it stands; removing needs none.
    const auto menu =
        scope == finder::IntegrationScope::remove ? finder::FinderMenuFile{} : store.menuFile();
    const auto report = finder::writeIntegrations(
        menu, executablePath(), finder::IntegrationFolders::fromEnvironment(), scope);
    printReport(report);
    if (report.written.empty() && report.removed.empty() && report.problems.empty())
      std::cout << "Nothing to change.\n";
    return report.problems.empty() ? kExitSuccess : kExitFailure;
  }
  throw UsageError(verb.empty() ? "Name what to do." : "“" + verb + "” is not used that way.");
}

}  // namespace

int runMenu(const std::vector<std::string>& arguments) {
  if (wantsHelp(arguments)) {
    std::cout << kUsage;
    return kExitSuccess;
  }
  try {
    return run(arguments);
  } catch (const UsageError& error) {
    std::cerr << "tarnbloom menu: " << error.what() << '\n' << kUsage;
    return kExitUsage;
  } catch (const Error& error) {
    printError(error);
    return kExitFailure;
  } catch (const fs::filesystem_error& error) {
    std::cerr << "tarnbloom menu: " << error.what() << '\n';
    return kExitFailure;
  }
}

void republishFinderMenu() {
  for (const auto& problem : finder::republishFinderMenu(executablePath()))
    std::cerr << "tarnbloom: " << problem << '\n';
}

}  // namespace tarnbloom::cli
