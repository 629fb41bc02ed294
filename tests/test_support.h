#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <span>
#include <string>
#include <vector>

namespace tarnbloom::testing {

// A fresh folder under the system's temporary folder, removed with its
// contents when the object goes.
class TempDir {
 public:
  TempDir();
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;
  const std::filesystem::path& path() const { return m_path; }
  std::filesystem::path operator/(const std::string& name) const { return m_path / name; }

 private:
  std::filesystem::path m_path;
};

void writeBytes(const std::filesystem::path& path, std::span<const std::byte> bytes);
void writeBytes(const std::filesystem::path& path, std::span<const uint8_t> bytes);
void writeText(const std::filesystem::path& path, const std::string& text);
std::vector<std::byte> readBytes(const std::filesystem::path& path);
std::string readText(const std::filesystem::path& path);
// Every regular file below `folder`, in path order; none when it is missing.
std::vector<std::filesystem::path> filesIn(const std::filesystem::path& folder);

inline std::span<const std::byte> asBytes(const std::vector<uint8_t>& v) {
  return std::as_bytes(std::span(v));
}

// Runs a shell command; returns its exit status and puts stdout in `output`.
int runCommand(const std::string& command, std::string* output = nullptr);

// A path of a bundled sample photo (samples/NAME).
std::filesystem::path samplePath(const std::string& name);

}  // namespace tarnbloom::testing
