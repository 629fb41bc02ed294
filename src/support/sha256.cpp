#include "support/sha256.h"

#include <openssl/evp.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <stdexcept>

#include "support/c_handle.h"

namespace tarnbloom {
namespace {

using DigestContext = CHandle<EVP_MD_CTX, EVP_MD_CTX_free>;

class Sha256 {
 public:
  Sha256() : m_ctx(EVP_MD_CTX_new()) {
    if (!m_ctx || EVP_DigestInit_ex(m_ctx.get(), EVP_sha256(), nullptr) != 1)
      throw std::runtime_error("SHA-256 is unavailable");
  }
  void update(const void* data, size_t size) {
    if (size && EVP_DigestUpdate(m_ctx.get(), data, size) != 1)
      throw std::runtime_error("SHA-256 update failed");
  }
  std::string hex() {
    std::array<unsigned char, EVP_MAX_MD_SIZE> digest{};
    unsigned int length = 0;
    if (EVP_DigestFinal_ex(m_ctx.get(), digest.data(), &length) != 1)
      throw std::runtime_error("SHA-256 final failed");
    static constexpr char kHex[] = "0123456789abcdef";
    std::string text;
    text.reserve(length * 2);
    for (unsigned int i = 0; i < length; ++i) {
      text.push_back(kHex[digest[i] >> 4]);
      text.push_back(kHex[digest[i] & 15]);
    }
    return text;
  }

 private:
  DigestContext m_ctx;
};

}  // namespace

struct Sha256Stream::Context {
  Sha256 sha;
};

Sha256Stream::Sha256Stream() : m_context(std::make_unique<Context>()) {}
Sha256Stream::~Sha256Stream() = default;
Sha256Stream::Sha256Stream(Sha256Stream&&) noexcept = default;
Sha256Stream& Sha256Stream::operator=(Sha256Stream&&) noexcept = default;

void Sha256Stream::update(std::span<const std::byte> bytes) {
  m_context->sha.update(bytes.data(), bytes.size());
}

std::string Sha256Stream::hex() {
  std::string text = m_context->sha.hex();
  m_context = std::make_unique<Context>();
  return text;
}

std::string sha256Hex(std::span<const std::byte> bytes) {
  Sha256 sha;
  sha.update(bytes.data(), bytes.size());
  return sha.hex();
}

std::optional<std::string> sha256OfFile(const std::filesystem::path& path) {
  // Only regular files: a FIFO would make the read wait for ever.
  std::error_code error;
  if (!std::filesystem::is_regular_file(path, error)) return std::nullopt;
  CHandle<FILE, fclose> file(std::fopen(path.c_str(), "rb"));
  if (!file) return std::nullopt;
  Sha256 sha;
  std::array<char, 1 << 16> buffer;
  size_t got = 0;
  while ((got = std::fread(buffer.data(), 1, buffer.size(), file.get())) > 0)
    sha.update(buffer.data(), got);
  if (std::ferror(file.get())) return std::nullopt;
  return sha.hex();
}

std::optional<std::string> sha256OfDescriptor(int fd) {
  Sha256 sha;
  std::array<char, 1 << 16> buffer;
  for (;;) {
    const ssize_t got = ::read(fd, buffer.data(), buffer.size());
    if (got < 0) {
      if (errno == EINTR) continue;
      return std::nullopt;
    }
    if (got == 0) return sha.hex();
    sha.update(buffer.data(), static_cast<size_t>(got));
  }
}

}  // namespace tarnbloom
