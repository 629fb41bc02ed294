#include "engine/resample_method.h"

namespace tarnbloom {

std::string_view rawValue(ResampleMethod method) {
  switch (method) {
    case ResampleMethod::exact: return "exact";
    case ResampleMethod::clarity: return "clarity";
    case ResampleMethod::estimate: return "estimate";
  }
  return "exact";
}

std::optional<ResampleMethod> resampleMethodFromRawValue(std::string_view raw) {
  for (ResampleMethod method : kAllResampleMethods)
    if (rawValue(method) == raw) return method;
  return std::nullopt;
}

std::string_view title(ResampleMethod method) {
  switch (method) {
    case ResampleMethod::exact: return "Exact";
    case ResampleMethod::clarity: return "Clarity";
    case ResampleMethod::estimate: return "Enhance (AI)";
  }
  return {};
}

std::string_view note(ResampleMethod method) {
  switch (method) {
    case ResampleMethod::exact: return "Lanczos 3 in linear light. Nothing added, nothing invented.";
    case ResampleMethod::clarity:
      return "Exact, then bounded sharpening of the edges already in your photo. No trained models, no "
             "generated texture.";
    case ResampleMethod::estimate: return "Adds AI-estimated detail.";
  }
  return {};
}

std::pair<double, double> ResampleTarget::scale(int64_t fromWidth, int64_t fromHeight) const {
  return {static_cast<double>(width) / static_cast<double>(fromWidth),
          static_cast<double>(height) / static_cast<double>(fromHeight)};
}

std::optional<int64_t> ResampleTarget::integralFactor(int64_t fromWidth, int64_t fromHeight) const {
  if (fromWidth < 1 || fromHeight < 1 || width % fromWidth != 0 || height % fromHeight != 0)
    return std::nullopt;
  const int64_t k = width / fromWidth;
  if (k < 1 || height / fromHeight != k) return std::nullopt;
  return k;
}

}  // namespace tarnbloom
