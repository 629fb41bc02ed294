#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "engine/size_mode.h"
#include "support/error.h"

namespace tarnbloom {

// Whole output pixels and the factor that produced them.
struct ResolvedSize {
  int64_t width = 1;
  int64_t height = 1;
  double scaleFactor = 1.0;
  bool sameSize = false;  // exactly 1.0; never for the quick factors

  bool operator==(const ResolvedSize&) const = default;
};

class DimensionError : public Error {
 public:
  enum class Case { belowSource, invalidValue, exceedsPixelLimit };

  static DimensionError belowSource(std::string label, int64_t sourceWidth, int64_t sourceHeight);
  static DimensionError invalidValue(std::string message);
  static DimensionError exceedsPixelLimit(int64_t width, int64_t height, int64_t limit);

  Case errorCase() const { return m_case; }
  // The size that was asked for, as the message shows it ("3999 px wide");
  // belowSource only.
  const std::string& label() const { return m_text; }
  // The size that was refused and the limit it broke; exceedsPixelLimit only.
  int64_t width() const { return m_a; }
  int64_t height() const { return m_b; }
  int64_t limit() const { return m_c; }
  std::string description() const override;
  std::string recoverySuggestion() const override;

 private:
  explicit DimensionError(Case c) : m_case(c) {}
  Case m_case;
  std::string m_text;
  int64_t m_a = 0, m_b = 0, m_c = 0;
};

// The only place output sizes are computed. Pure; callable from any thread.
namespace DimensionResolver {

inline constexpr int64_t kMaxSide = 1'000'000'000;
inline constexpr int64_t kPixelCeiling = 400'000'000;
inline constexpr int64_t kPixelCeiling16Bit = 200'000'000;

// sourceWidth/Height are the oriented source size; bitDepth 8 or 16;
// outputFormat "png", "jpeg", ... (absent counts as empty).
ResolvedSize resolve(int64_t sourceWidth, int64_t sourceHeight, SizeMode mode, double value,
                     double boxWidth, double boxHeight, int bitDepth,
                     const std::optional<std::string>& outputFormat, bool explicit8Bit);

ResolvedSize resolveScaleFactor(int64_t sourceWidth, int64_t sourceHeight, double factor,
                                int bitDepth, const std::optional<std::string>& outputFormat,
                                bool explicit8Bit);

// floor(value + 0.5), at least 1; throws invalidValue when not finite or
// beyond kMaxSide.
int64_t roundHalfAway(double value);

// The pixel ceiling for an output of this depth and format.
int64_t pixelCeiling(int bitDepth, const std::optional<std::string>& outputFormat, bool explicit8Bit);

}  // namespace DimensionResolver
}  // namespace tarnbloom
