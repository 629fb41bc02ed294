#pragma once

#include <string>
#include <vector>

namespace tarnbloom::cli {

// `tarnbloom menu list|add|remove|move|publish|integrations ...`: the
// file manager's Tarnbloom menu. Returns the exit status.
int runMenu(const std::vector<std::string>& arguments);

// Writes the menu file again after the recipe library changed, so a renamed
// or deleted recipe shows so in the file manager, and refreshes the file
// manager menus already installed. Never fails the caller: a problem is
// printed as a note.
void republishFinderMenu();

}  // namespace tarnbloom::cli
