#pragma once

#include <string>

namespace tarnbloom {

// A random (version 4) UUID in canonical upper-case text.
std::string makeUuid();

// True for canonical UUID text in either case.
bool isUuid(std::string_view text);

}  // namespace tarnbloom
