#include "support/settings.h"

#include <cerrno>

#include "support/files.h"
#include "support/iso_time.h"
#include "support/state_paths.h"

namespace tarnbloom {

Settings Settings::load(const std::filesystem::path& path) {
  Settings settings;
  settings.m_path = path;
  std::vector<std::byte> bytes;
  try {
    bytes = readWholeFile(path, size_t{16} << 20);
  } catch (const FileError& error) {
    if (error.errnoValue() != ENOENT) settings.m_damaged = true;
    return settings;
  }
  const auto* begin = reinterpret_cast<const char*>(bytes.data());
  auto parsed = nlohmann::json::parse(begin, begin + bytes.size(), nullptr, false);
  if (parsed.is_object())
    settings.m_values = std::move(parsed);
  else
    settings.m_damaged = true;
  return settings;
}

Settings Settings::loadDefault() { return load(settingsFilePath()); }

const nlohmann::json* Settings::value(const std::string& key) const {
  const auto found = m_values.find(key);
  return found == m_values.end() ? nullptr : &*found;
}

std::optional<bool> Settings::boolean(const std::string& key) const {
  const auto* v = value(key);
  if (!v || !v->is_boolean()) return std::nullopt;
  return v->get<bool>();
}

std::optional<int64_t> Settings::integer(const std::string& key) const {
  const auto* v = value(key);
  if (!v || !v->is_number_integer()) return std::nullopt;
  return v->get<int64_t>();
}

std::optional<double> Settings::number(const std::string& key) const {
  const auto* v = value(key);
  if (!v || !v->is_number()) return std::nullopt;
  return v->get<double>();
}

std::optional<std::string> Settings::string(const std::string& key) const {
  const auto* v = value(key);
  if (!v || !v->is_string()) return std::nullopt;
  return v->get<std::string>();
}

void Settings::set(const std::string& key, nlohmann::json value) { m_values[key] = std::move(value); }

void Settings::remove(const std::string& key) { m_values.erase(key); }

void Settings::save() {
  std::filesystem::create_directories(m_path.parent_path());
  if (m_damaged && std::filesystem::exists(m_path)) {
    // Keep what could not be read: the user may want it back.
    std::string stamp = formatIso8601(std::chrono::system_clock::now());
    for (char& c : stamp)
      if (c == ':') c = '-';
    m_damagedCopy = m_path;
    m_damagedCopy += ".damaged-" + stamp;
    std::filesystem::rename(m_path, m_damagedCopy);
  }
  m_damaged = false;
  writeFileAtomically(m_path, m_values.dump(2) + "\n");
}

}  // namespace tarnbloom
