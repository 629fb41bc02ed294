#pragma once

#include <filesystem>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "finder/finder_identity.h"
#include "finder/finder_menu_file.h"

namespace tarnbloom::finder {

// The Tarnbloom submenu in Dolphin, Nemo, Thunar and Nautilus, made from the
// menu file. Every entry runs
//   TARNBLOOM menu-run --entry enlarge-2|recipe:ID -- PATH...
// Titles and ids are untrusted text: each generator escapes them for its
// format, so no title can add a line, a key, an action or an argument.

// Where the integrations go: the user's XDG data and config folders.
struct IntegrationFolders {
  std::filesystem::path dataHome;    // $XDG_DATA_HOME, else ~/.local/share
  std::filesystem::path configHome;  // $XDG_CONFIG_HOME, else ~/.config
  // The Nautilus extension the package installs for everyone; while it is
  // there a user's own copy would draw the submenu twice.
  std::filesystem::path systemNautilusExtension =
      "/usr/share/nautilus-python/extensions/tarnbloom_menu.py";
  // Throws FinderMenuError::containerUnavailable when there is no home
  // folder to put them in.
  static IntegrationFolders fromEnvironment();

  std::filesystem::path dolphinServiceMenu() const;  // kio/servicemenus/tarnbloom.desktop
  std::filesystem::path nemoActions() const;         // nemo/actions/
  std::filesystem::path thunarActions() const;       // Thunar/uca.xml
  std::filesystem::path nautilusExtension() const;   // nautilus-python/extensions/…
};

// One entry of the submenu, in menu order.
struct MenuEntry {
  FinderIdentity identity;
  std::string title;    // "Enlarge 2×" or the recipe's name
  std::string summary;  // empty for Enlarge
};

// Enlarge 2×, 4× and 8×, then the menu file's recipes.
std::vector<MenuEntry> menuEntries(const FinderMenuFile& menu);

// The first line of every file written here: what marks a file as ours, so
// that nothing else is ever replaced or removed.
inline constexpr std::string_view kGeneratedMarker =
    "# Written by Tarnbloom (tarnbloom menu integrations). Changes here are replaced.";
// The unique-id prefix of our Thunar actions.
inline constexpr std::string_view kThunarIDPrefix = "tarnbloom-";

// Thrown for a uca.xml we cannot read or edit safely; the file stays as it
// is.
class ThunarActionsError : public Error {
 public:
  explicit ThunarActionsError(std::string reason) : m_reason(std::move(reason)) {}
  std::string description() const override;

 private:
  std::string m_reason;
};

// Pure generators. `executable` must be valid UTF-8 without control
// characters (checked by writeIntegrations).
std::string dolphinServiceMenu(const FinderMenuFile& menu, const std::filesystem::path& executable);
// File name ("tarnbloom-enlarge-2.nemo_action", …) and content of each action.
std::vector<std::pair<std::string, std::string>> nemoActions(
    const FinderMenuFile& menu, const std::filesystem::path& executable);
// `existing` with our actions replaced by the menu's (or removed when `menu`
// is null), every other byte kept. Empty `existing` starts a new file.
// Throws ThunarActionsError for a file that is not Thunar's actions list in
// UTF-8.
std::string mergeThunarActions(std::string_view existing, const FinderMenuFile* menu,
                               const std::filesystem::path& executable);
// The Nautilus extension, which reads the menu file itself when it draws
// the menu, with the executable's path filled in.
std::string nautilusExtension(const std::filesystem::path& executable);

struct IntegrationReport {
  std::vector<std::filesystem::path> written;
  std::vector<std::filesystem::path> removed;
  // Files left alone, with why.
  std::vector<std::string> problems;
};

enum class IntegrationScope {
  install,      // write all four
  refreshOnly,  // rewrite only those already installed
  remove,       // remove ours, keep everything else
};

// Writes (atomically), refreshes or removes our integration files under
// `folders`, and removes the actions of recipes no longer in `menu`. A file
// that is not ours is never touched: it is listed in `problems`. Throws
// FileError when a folder cannot be written.
IntegrationReport writeIntegrations(const FinderMenuFile& menu,
                                    const std::filesystem::path& executable,
                                    const IntegrationFolders& folders, IntegrationScope scope);

}  // namespace tarnbloom::finder
