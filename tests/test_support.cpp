#include "test_support.h"

#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <stdexcept>

namespace tarnbloom::testing {

TempDir::TempDir() {
  std::string pattern = (std::filesystem::temp_directory_path() / "tarnbloom-test-XXXXXX").string();
  if (!::mkdtemp(pattern.data())) throw std::runtime_error("mkdtemp failed");
  m_path = pattern;
}

TempDir::~TempDir() {
  std::error_code ignored;
  // Every fixture a test wrote seeds the fuzzer when CI asks for a corpus.
  if (const char* corpus = std::getenv("TARNBLOOM_FUZZ_CORPUS"); corpus && *corpus) {
    static int counter = 0;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(m_path, ignored)) {
      if (!entry.is_regular_file(ignored) || entry.file_size(ignored) > (1u << 20)) continue;
      const auto name = std::to_string(::getpid()) + "-" + std::to_string(counter++) + "-" +
                        entry.path().filename().string();
      std::filesystem::copy_file(entry.path(), std::filesystem::path(corpus) / name, ignored);
    }
  }
  std::filesystem::remove_all(m_path, ignored);
}

void writeBytes(const std::filesystem::path& path, std::span<const std::byte> bytes) {
  std::ofstream out(path, std::ios::binary);
  out.write(reinterpret_cast<const char*>(bytes.data()),
            static_cast<std::streamsize>(bytes.size()));
  if (!out) throw std::runtime_error("cannot write " + path.string());
}

void writeBytes(const std::filesystem::path& path, std::span<const uint8_t> bytes) {
  writeBytes(path, std::as_bytes(bytes));
}

void writeText(const std::filesystem::path& path, const std::string& text) {
  writeBytes(path, std::as_bytes(std::span(text.data(), text.size())));
}

std::vector<std::byte> readBytes(const std::filesystem::path& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) throw std::runtime_error("cannot read " + path.string());
  std::vector<char> chars((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  std::vector<std::byte> bytes(chars.size());
  // A file caught between its creation and its first write is empty: no
  // copy then (memcpy from a null pointer is undefined even for 0 bytes).
  if (!chars.empty()) std::memcpy(bytes.data(), chars.data(), chars.size());
  return bytes;
}

std::string readText(const std::filesystem::path& path) {
  const auto bytes = readBytes(path);
  return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
}

int runCommand(const std::string& command, std::string* output) {
  FILE* pipe = ::popen(command.c_str(), "r");
  if (!pipe) return -1;
  char buffer[4096];
  size_t got;
  while ((got = std::fread(buffer, 1, sizeof buffer, pipe)) > 0)
    if (output) output->append(buffer, got);
  const int status = ::pclose(pipe);
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

std::filesystem::path samplePath(const std::string& name) {
  return std::filesystem::path(TARNBLOOM_SOURCE_DIR) / "samples" / name;
}

std::vector<std::filesystem::path> filesIn(const std::filesystem::path& folder) {
  std::vector<std::filesystem::path> files;
  std::error_code error;
  for (std::filesystem::recursive_directory_iterator it(folder, error), end; !error && it != end;
       it.increment(error))
    if (it->is_regular_file(error)) files.push_back(it->path());
  std::sort(files.begin(), files.end());
  return files;
}

}  // namespace tarnbloom::testing
