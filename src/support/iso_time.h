#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <string_view>

namespace tarnbloom {

using WallTime = std::chrono::system_clock::time_point;

// "2026-11-22T23:20:47Z": UTC, whole seconds (fractions are truncated).
std::string formatIso8601(WallTime time);

// Reads "YYYY-MM-DDTHH:MM:SS" with optional fractional seconds and a zone of
// "Z" or ±HH:MM. Anything else, or an impossible date, gives nullopt.
std::optional<WallTime> parseIso8601(std::string_view text);

}  // namespace tarnbloom
