#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "support/error.h"

namespace tarnbloom::finder {

// Why the file manager's menu could not be read, written or used.
class FinderMenuError : public Error {
 public:
  enum class Case { containerUnavailable, damagedMenuFile, invalidIdentity, noHomeFolder };

  // `reason`: what the system said, kept for details().
  static FinderMenuError containerUnavailable(std::string reason = {}) {
    return {Case::containerUnavailable, std::move(reason)};
  }
  static FinderMenuError damagedMenuFile(std::string reason) {
    return {Case::damagedMenuFile, std::move(reason)};
  }
  static FinderMenuError invalidIdentity(std::string reason) {
    return {Case::invalidIdentity, std::move(reason)};
  }
  // Neither $HOME nor the XDG folder the integrations go in is set.
  static FinderMenuError noHomeFolder() { return {Case::noHomeFolder, {}}; }

  Case errorCase() const { return m_case; }
  std::string description() const override;
  std::string details() const override;

 private:
  FinderMenuError(Case c, std::string text) : m_case(c), m_text(std::move(text)) {}
  Case m_case;
  std::string m_text;
};

struct FinderMenuShared {
  static constexpr std::string_view fileName = "finder-menu.json";
  // The App Group id the build was configured with ("TarnbloomAppGroupID").
  static std::string_view appGroupID();
};

// What the file manager integrations read: the chosen recipes in menu order.
// The three Enlarge entries are not in it; every integration draws them.
struct FinderMenuFile {
  static constexpr int64_t kVersion = 1;
  // A menu of the largest allowed size is a few tens of kilobytes.
  static constexpr size_t kMaxFileBytes = size_t{1} << 20;

  struct Item {
    std::string id;       // the recipe's id
    std::string title;    // its name
    std::string summary;  // its outputs, with their number
    bool operator==(const Item&) const = default;
  };

  int64_t version = kVersion;
  std::vector<Item> items;

  std::string encode() const;
  // Exactly what encode() writes, with this version: anything else (another
  // version, an unknown key, a wrong type, an item whose id could not name a
  // recipe) is refused with FinderMenuError::damagedMenuFile.
  static FinderMenuFile decode(std::span<const std::byte> data);
  // Reads and decodes the file (a regular file of at most kMaxFileBytes).
  // Throws FinderMenuError or FileError.
  static FinderMenuFile read(const std::filesystem::path& path);
  // Replaces the file atomically. Throws FileError.
  void write(const std::filesystem::path& path) const;

  bool operator==(const FinderMenuFile&) const = default;
};

// The shared folder the menu file lives in, not created:
// $TARNBLOOM_MENU_CONTAINER when set; else, for a state folder set with
// $TARNBLOOM_HOME, a folder named after the group inside it (a sandboxed
// state never replaces the desktop's menu); else $XDG_DATA_HOME/<group>,
// else ~/.local/share/<group>. Throws FinderMenuError::containerUnavailable
// when no group id was configured or there is no home folder.
std::filesystem::path finderMenuContainer();
// finderMenuContainer(), created when missing. Throws
// FinderMenuError::containerUnavailable with the system's reason.
std::filesystem::path prepareFinderMenuContainer();

}  // namespace tarnbloom::finder
