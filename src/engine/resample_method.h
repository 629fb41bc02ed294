#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string_view>

namespace tarnbloom {

// The three ways of enlarging, in menu order. Raw values are what settings,
// recipes and requests store.
enum class ResampleMethod { exact, clarity, estimate };

inline constexpr std::array<ResampleMethod, 3> kAllResampleMethods = {
    ResampleMethod::exact, ResampleMethod::clarity, ResampleMethod::estimate};

std::string_view rawValue(ResampleMethod method);
std::optional<ResampleMethod> resampleMethodFromRawValue(std::string_view raw);
std::string_view title(ResampleMethod method);
std::string_view note(ResampleMethod method);

// An output size in pixels.
struct ResampleTarget {
  int64_t width = 0;
  int64_t height = 0;

  bool operator==(const ResampleTarget&) const = default;

  // Target over source, per axis.
  std::pair<double, double> scale(int64_t fromWidth, int64_t fromHeight) const;
  // k when the target is exactly k times the source on both axes.
  std::optional<int64_t> integralFactor(int64_t fromWidth, int64_t fromHeight) const;
};

}  // namespace tarnbloom
