#include "finder/finder_menu_publisher.h"

#include <cstdlib>

#include "finder/file_manager_integrations.h"
#include "finder/finder_menu_store.h"
#include "support/files.h"
#include "support/settings.h"

namespace tarnbloom::finder {

namespace fs = std::filesystem;

bool refreshesDesktopMenus() {
  return !std::getenv("TARNBLOOM_HOME") || std::getenv("TARNBLOOM_MENU_CONTAINER");
}

std::vector<std::string> republishFinderMenu(const fs::path& commandLineTool) {
  const auto failed = [](const std::string& why) {
    return std::vector<std::string>{"the file manager menu was not updated: " + why};
  };
  try {
    auto settings = Settings::loadDefault();
    FinderMenuStore store(settings, recipes::RecipeStore::userLibrary());
    if (store.orderedRecipeIDs().empty() &&
        !entryExists(finderMenuContainer() / FinderMenuShared::fileName))
      return {};
    const auto menu = store.publish();
    if (!refreshesDesktopMenus() || commandLineTool.empty()) return {};
    return writeIntegrations(menu, commandLineTool, IntegrationFolders::fromEnvironment(),
                             IntegrationScope::refreshOnly)
        .problems;
  } catch (const Error& error) {
    return failed(error.description());
  } catch (const fs::filesystem_error& error) {
    return failed(error.what());
  }
}

fs::path commandLineToolBeside(const fs::path& program) {
  const fs::path folder = program.parent_path();
  for (const fs::path& candidate : {folder / "tarnbloom", folder.parent_path() / "cli" / "tarnbloom"})
    if (entryExists(candidate)) return candidate;
  return {};
}

}  // namespace tarnbloom::finder
