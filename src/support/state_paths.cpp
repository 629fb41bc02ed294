#include "support/state_paths.h"

#include <pwd.h>
#include <unistd.h>

#include <cstdlib>

#ifndef TARNBLOOM_DATA_DIR
#define TARNBLOOM_DATA_DIR "/usr/local/share/tarnbloom"
#endif

namespace tarnbloom {
namespace {

std::filesystem::path environmentPath(const char* name) {
  const char* value = std::getenv(name);
  // XDG says relative values are invalid and must be ignored.
  if (!value || !*value || value[0] != '/') return {};
  return value;
}

std::filesystem::path homeFolder() {
  if (auto home = environmentPath("HOME"); !home.empty()) return home;
  if (const passwd* entry = ::getpwuid(::getuid()); entry && entry->pw_dir) return entry->pw_dir;
  return "/tmp";
}

}  // namespace

std::filesystem::path stateFolder() {
  if (auto home = environmentPath("TARNBLOOM_HOME"); !home.empty()) return home;
  if (auto data = environmentPath("XDG_DATA_HOME"); !data.empty()) return data / "Tarnbloom";
  return homeFolder() / ".local" / "share" / "Tarnbloom";
}

std::filesystem::path settingsFilePath() {
  if (auto home = environmentPath("TARNBLOOM_HOME"); !home.empty()) return home / "settings.json";
  if (auto config = environmentPath("XDG_CONFIG_HOME"); !config.empty())
    return config / "tarnbloom" / "settings.json";
  return homeFolder() / ".config" / "tarnbloom" / "settings.json";
}

std::filesystem::path applicationDataFolder() {
  if (auto data = environmentPath("TARNBLOOM_DATA_DIR"); !data.empty()) return data;
  return TARNBLOOM_DATA_DIR;
}

}  // namespace tarnbloom
