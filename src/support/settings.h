#pragma once

#include <filesystem>
#include <optional>
#include <string>

#include <nlohmann/json.hpp>

namespace tarnbloom {

// The user's settings: one flat JSON object of dotted keys
// ("colour.profilePolicy", "jpeg.quality", ...), shared by the application,
// the command-line tool and the headless service. Each owner reads its keys
// with its own defaults; a missing or mistyped value reads as absent.
class Settings {
 public:
  // Reads the file. A missing file gives empty settings. A damaged one also
  // gives empty settings, and is moved aside (never deleted) before the first
  // save replaces it; damagedCopy() says where.
  static Settings load(const std::filesystem::path& path);
  static Settings loadDefault();

  std::optional<bool> boolean(const std::string& key) const;
  std::optional<int64_t> integer(const std::string& key) const;
  std::optional<double> number(const std::string& key) const;
  std::optional<std::string> string(const std::string& key) const;
  const nlohmann::json* value(const std::string& key) const;

  void set(const std::string& key, nlohmann::json value);
  void remove(const std::string& key);

  // Writes atomically, keys sorted, creating the folder when needed.
  void save();

  const std::filesystem::path& path() const { return m_path; }
  const std::filesystem::path& damagedCopy() const { return m_damagedCopy; }

 private:
  std::filesystem::path m_path;
  nlohmann::json m_values = nlohmann::json::object();
  bool m_damaged = false;
  std::filesystem::path m_damagedCopy;
};

}  // namespace tarnbloom
