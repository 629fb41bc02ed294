#pragma once

#include <array>
#include <optional>
#include <string>
#include <string_view>

namespace tarnbloom {

// How a target size is asked for. The raw value is what recipes, agent
// requests and settings store; declaration order is the size menu's order.
enum class SizeMode { x2, x4, x8, longEdge, width, height, boundingBox, percent };

inline constexpr std::array<SizeMode, 8> kAllSizeModes = {
    SizeMode::x2,    SizeMode::x4,     SizeMode::x8,          SizeMode::longEdge,
    SizeMode::width, SizeMode::height, SizeMode::boundingBox, SizeMode::percent};

std::string_view rawValue(SizeMode mode);
// Exactly the eight raw values, case-sensitive.
std::optional<SizeMode> sizeModeFromRawValue(std::string_view raw);
// 2, 4 and 8 give the quick modes; any other integer none.
std::optional<SizeMode> sizeModeFromQuickScale(int scale);

std::string_view title(SizeMode mode);
std::string_view unit(SizeMode mode);
std::string_view explanation(SizeMode mode);
std::optional<double> quickFactor(SizeMode mode);
bool takesSingleValue(SizeMode mode);
bool takesBoundingBox(SizeMode mode);

}  // namespace tarnbloom
