#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace tarnbloom {

// Standard base64 with padding.
std::string base64Encode(std::string_view bytes);
// None for anything that is not canonical padded base64.
std::optional<std::string> base64Decode(std::string_view text);

}  // namespace tarnbloom
