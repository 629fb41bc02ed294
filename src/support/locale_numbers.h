#pragma once

#include <cstdint>
#include <string>

namespace tarnbloom {

// An integer with the thousands separator of the user's locale
// (LC_ALL, LC_NUMERIC, then LANG): 400000000 reads "400,000,000" in English.
std::string groupedNumber(int64_t value);

// The same with an explicit locale name such as "de_DE.UTF-8"; tests use it.
std::string groupedNumber(int64_t value, const std::string& localeName);

// A byte count as people read it: "512 bytes", "789 KB", "3.4 MB", "1.6 GB"
// (decimal units, one decimal from megabytes up, as file managers show sizes).
std::string byteCountText(uint64_t bytes);

}  // namespace tarnbloom
