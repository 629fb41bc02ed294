#pragma once

#include <cstddef>
#include <filesystem>
#include <optional>
#include <span>
#include <string>

namespace tarnbloom {

// Lower-case hexadecimal SHA-256, the form receipts and source identity use.
std::string sha256Hex(std::span<const std::byte> bytes);

// Digest of a file's current content; nullopt when it cannot be read.
std::optional<std::string> sha256OfFile(const std::filesystem::path& path);

}  // namespace tarnbloom
