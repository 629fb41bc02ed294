#include "finder/finder_menu_file.h"

#include <cstdlib>
#include <nlohmann/json.hpp>
#include <system_error>

#include "finder/finder_identity.h"
#include "support/files.h"
#include "support/strict_json.h"

#ifndef TARNBLOOM_APP_GROUP_ID
#define TARNBLOOM_APP_GROUP_ID ""
#endif

namespace tarnbloom::finder {

namespace fs = std::filesystem;

namespace {

// A menu file is two levels deep; anything deeper is not one.
constexpr int kMaxNestingDepth = 4;

std::string environment(const char* name) {
  const char* value = std::getenv(name);
  return value ? std::string(value) : std::string();
}

bool hasExactKeys(const nlohmann::json& object, std::initializer_list<std::string_view> keys) {
  if (!object.is_object() || object.size() != keys.size()) return false;
  for (const auto key : keys)
    if (!object.contains(key)) return false;
  return true;
}

FinderMenuFile::Item decodeItem(const nlohmann::json& json) {
  if (!hasExactKeys(json, {"id", "title", "summary"}))
    throw FinderMenuError::damagedMenuFile("an item is not {id, title, summary}");
  for (const char* key : {"id", "title", "summary"})
    if (!json[key].is_string())
      throw FinderMenuError::damagedMenuFile(std::string("an item's ") + key + " is not text");
  FinderMenuFile::Item item{json["id"].get<std::string>(), json["title"].get<std::string>(),
                            json["summary"].get<std::string>()};
  if (!isUsableRecipeID(item.id))
    throw FinderMenuError::damagedMenuFile("an item's id cannot name a recipe");
  return item;
}

}  // namespace

std::string FinderMenuError::description() const {
  switch (m_case) {
    case Case::containerUnavailable:
      return "The App Group container is unavailable.";
    case Case::damagedMenuFile:
      return "The file manager menu file is damaged (" + m_text +
             "). Publishing the menu writes it again.";
    case Case::invalidIdentity:
      return m_text;
    case Case::noHomeFolder:
      return "There is no home folder for the file manager menus: set HOME.";
  }
  return m_text;
}

std::string FinderMenuError::details() const {
  return m_case == Case::containerUnavailable ? m_text : std::string();
}

std::string_view FinderMenuShared::appGroupID() { return TARNBLOOM_APP_GROUP_ID; }

std::string FinderMenuFile::encode() const {
  nlohmann::ordered_json items = nlohmann::ordered_json::array();
  for (const auto& item : this->items)
    items.push_back({{"id", item.id}, {"title", item.title}, {"summary", item.summary}});
  nlohmann::ordered_json document = {{"version", version}, {"items", std::move(items)}};
  return document.dump(2) + "\n";
}

FinderMenuFile FinderMenuFile::decode(std::span<const std::byte> data) {
  if (data.size() > kMaxFileBytes) throw FinderMenuError::damagedMenuFile("it is too large");
  nlohmann::json json;
  try {
    json = parseStrictJson(data, kMaxNestingDepth);
  } catch (const StrictJsonError& error) {
    throw FinderMenuError::damagedMenuFile(error.description());
  }
  if (!hasExactKeys(json, {"version", "items"}))
    throw FinderMenuError::damagedMenuFile("it is not {version, items}");
  if (!json["version"].is_number_integer() || json["version"].get<int64_t>() != kVersion)
    throw FinderMenuError::damagedMenuFile("version " + json["version"].dump() +
                                           " is not one this version reads");
  if (!json["items"].is_array()) throw FinderMenuError::damagedMenuFile("items is not a list");
  FinderMenuFile file;
  for (const auto& item : json["items"]) file.items.push_back(decodeItem(item));
  return file;
}

FinderMenuFile FinderMenuFile::read(const fs::path& path) {
  auto [fd, size] = openRegularFile(path);
  const auto bytes = readToEnd(fd.get(), path, kMaxFileBytes, size);
  if (!bytes) throw FinderMenuError::damagedMenuFile("it is too large");
  return decode(*bytes);
}

void FinderMenuFile::write(const fs::path& path) const { writeFileAtomically(path, encode()); }

fs::path finderMenuContainer() {
  const std::string group(FinderMenuShared::appGroupID());
  if (group.empty() || group.find('/') != std::string::npos || group == "." || group == "..")
    throw FinderMenuError::containerUnavailable("no App Group id was configured");
  if (const auto override = environment("TARNBLOOM_MENU_CONTAINER"); !override.empty())
    return fs::absolute(override);
  // Relative values are ignored, as the state folder ignores them.
  if (const fs::path home = environment("TARNBLOOM_HOME"); home.is_absolute()) return home / group;
  if (const fs::path data = environment("XDG_DATA_HOME"); data.is_absolute()) return data / group;
  if (const fs::path home = environment("HOME"); home.is_absolute())
    return home / ".local" / "share" / group;
  throw FinderMenuError::containerUnavailable("there is no home folder");
}

fs::path prepareFinderMenuContainer() {
  const fs::path container = finderMenuContainer();
  std::error_code error;
  fs::create_directories(container, error);
  if (error)
    throw FinderMenuError::containerUnavailable(container.string() + ": " + error.message());
  if (!fs::is_directory(container, error))
    throw FinderMenuError::containerUnavailable(container.string() + " is not a folder");
  return container;
}

}  // namespace tarnbloom::finder
