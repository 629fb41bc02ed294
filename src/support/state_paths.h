#pragma once

#include <filesystem>

namespace tarnbloom {

// The state folder (queue, "Operations", "Receipts", "Recipes", "Agent"):
// $TARNBLOOM_HOME when set, else $XDG_DATA_HOME/Tarnbloom, else
// ~/.local/share/Tarnbloom. Not created here.
std::filesystem::path stateFolder();

// The settings file: $TARNBLOOM_HOME/settings.json when TARNBLOOM_HOME is set
// (so a sandbox isolates everything), else
// $XDG_CONFIG_HOME/tarnbloom/settings.json, else ~/.config/tarnbloom/settings.json.
std::filesystem::path settingsFilePath();

// The application's read-only data folder (the model); $TARNBLOOM_DATA_DIR
// overrides the one compiled in.
std::filesystem::path applicationDataFolder();

}  // namespace tarnbloom
