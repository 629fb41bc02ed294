#pragma once

#include <cstddef>
#include <filesystem>
#include <memory>
#include <optional>
#include <span>
#include <string>

namespace tarnbloom {

// Lower-case hexadecimal SHA-256, the form receipts and source identity use.
std::string sha256Hex(std::span<const std::byte> bytes);

// SHA-256 of bytes that arrive in pieces, in order.
class Sha256Stream {
 public:
  Sha256Stream();
  ~Sha256Stream();
  Sha256Stream(Sha256Stream&&) noexcept;
  Sha256Stream& operator=(Sha256Stream&&) noexcept;
  void update(std::span<const std::byte> bytes);
  // The digest of everything given so far, as sha256Hex writes it; the
  // stream starts again empty afterwards.
  std::string hex();

 private:
  struct Context;
  std::unique_ptr<Context> m_context;
};

// Digest of a file's current content; nullopt when it cannot be read.
std::optional<std::string> sha256OfFile(const std::filesystem::path& path);

// Digest of what an open descriptor yields from its offset to its end, read
// in chunks so a large file is never held whole; nullopt on a read error.
std::optional<std::string> sha256OfDescriptor(int fd);

}  // namespace tarnbloom
