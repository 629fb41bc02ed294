#pragma once

namespace tarnbloom::cli {

// The exit statuses scripts rely on; the automation protocol uses the same.
inline constexpr int kExitSuccess = 0;
inline constexpr int kExitUsage = 1;
inline constexpr int kExitPartial = 2;
inline constexpr int kExitFailure = 3;
inline constexpr int kExitCancelled = 130;

}  // namespace tarnbloom::cli
