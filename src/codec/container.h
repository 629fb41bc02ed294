#pragma once

#include <cstddef>
#include <span>
#include <string_view>

namespace tarnbloom::codec {

// Container kinds we can tell apart by their first bytes.
enum class Container { unknown, png, jpeg, tiff, webp, heic, avif, gif, raw };

// Lower-case name used in reports ("png", "jpeg", "raw", ...).
std::string_view containerName(Container container);

// Identifies the container from its bytes, never from a file name. TIFF-based
// camera raw files (DNG, CR2, NEF, ARW, ...) are told from plain TIFF by
// their markers and tags; see raw detection in sniff.cpp.
Container sniffContainer(std::span<const std::byte> bytes);

}  // namespace tarnbloom::codec
