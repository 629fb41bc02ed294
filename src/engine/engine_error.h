#pragma once

#include <cstdint>
#include <filesystem>
#include <string>

#include "support/error.h"

namespace tarnbloom {

// The one error loading and rendering throw. Cases in their fixed order; each
// carries what its message needs (a file is named by its last component).
class EngineError : public Error {
 public:
  enum class Case {
    unreadable,
    multiFrame,
    unsupportedFormat,
    unsupportedDepth,
    tooLarge,
    webPDimensionExceeded,
    animatedWebP,
    vImage,
    encode,
    missingDisclosure,
    cancelled,
    jpegEncode,
  };

  // `details`: the cause underneath, when one is known.
  static EngineError unreadable(std::filesystem::path url, std::string details = {});
  static EngineError multiFrame(std::filesystem::path url, int frameCount);
  static EngineError unsupportedFormat(std::filesystem::path url);
  static EngineError unsupportedDepth(std::filesystem::path url, int bitsPerSample);
  static EngineError tooLarge(int64_t width, int64_t height, uint64_t bytes);
  static EngineError webPDimensionExceeded(int64_t limit, int64_t width, int64_t height);
  static EngineError animatedWebP(std::filesystem::path url, int frameCount);
  static EngineError vImage(std::string stage, int64_t code);
  static EngineError encode(std::filesystem::path destination);
  static EngineError missingDisclosure(std::string identifier);
  static EngineError cancelled();
  static EngineError jpegEncode();

  Case errorCase() const { return m_case; }
  const std::filesystem::path& url() const { return m_url; }
  int64_t count() const { return m_a; }
  std::string description() const override;
  std::string details() const override { return m_details; }

 private:
  explicit EngineError(Case c) : m_case(c) {}
  Case m_case;
  std::filesystem::path m_url;
  std::string m_text;
  std::string m_details;
  int64_t m_a = 0, m_b = 0, m_c = 0;
};

// Platform-style error codes the resampler reports with `vImage`.
inline constexpr int64_t kResamplerMemoryAllocationError = -21771;
inline constexpr int64_t kResamplerInvalidParameter = -21773;

}  // namespace tarnbloom
