#pragma once

#include <filesystem>
#include <string>
#include <vector>

namespace tarnbloom::finder {

// A state folder set apart with TARNBLOOM_HOME (a test, a cluster task)
// publishes into its own container, and must not change the menus of the
// desktop it runs on unless asked to (TARNBLOOM_MENU_CONTAINER).
bool refreshesDesktopMenus();

// Writes the menu file again from the store (a file another program damaged
// is replaced, a deleted recipe leaves the menu) and refreshes the file
// manager menus already installed, whose entries run `commandLineTool`.
// Someone who never used the menu gets no menu file. Never throws: the
// problems are returned for the caller to note.
std::vector<std::string> republishFinderMenu(const std::filesystem::path& commandLineTool);

// The `tarnbloom` command line tool that file manager entries run: beside
// `program` when installed, or in the build tree's cli folder. Empty when
// neither exists.
std::filesystem::path commandLineToolBeside(const std::filesystem::path& program);

}  // namespace tarnbloom::finder
