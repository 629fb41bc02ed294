#include "engine/engine_error.h"

#include "support/locale_numbers.h"

namespace tarnbloom {
namespace {

std::string quotedName(const std::filesystem::path& url) {
  return "“" + url.filename().string() + "”";
}

}  // namespace

EngineError EngineError::unreadable(std::filesystem::path url, std::string details) {
  EngineError e(Case::unreadable);
  e.m_url = std::move(url);
  e.m_details = std::move(details);
  return e;
}

EngineError EngineError::multiFrame(std::filesystem::path url, int frameCount) {
  EngineError e(Case::multiFrame);
  e.m_url = std::move(url);
  e.m_a = frameCount;
  return e;
}

EngineError EngineError::unsupportedFormat(std::filesystem::path url) {
  EngineError e(Case::unsupportedFormat);
  e.m_url = std::move(url);
  return e;
}

EngineError EngineError::unsupportedDepth(std::filesystem::path url, int bitsPerSample) {
  EngineError e(Case::unsupportedDepth);
  e.m_url = std::move(url);
  e.m_a = bitsPerSample;
  return e;
}

EngineError EngineError::tooLarge(int64_t width, int64_t height, uint64_t bytes) {
  EngineError e(Case::tooLarge);
  e.m_a = width;
  e.m_b = height;
  e.m_c = static_cast<int64_t>(bytes);
  return e;
}

EngineError EngineError::webPDimensionExceeded(int64_t limit, int64_t width, int64_t height) {
  EngineError e(Case::webPDimensionExceeded);
  e.m_a = limit;
  e.m_b = width;
  e.m_c = height;
  return e;
}

EngineError EngineError::animatedWebP(std::filesystem::path url, int frameCount) {
  EngineError e(Case::animatedWebP);
  e.m_url = std::move(url);
  e.m_a = frameCount;
  return e;
}

EngineError EngineError::vImage(std::string stage, int64_t code) {
  EngineError e(Case::vImage);
  e.m_text = std::move(stage);
  e.m_a = code;
  return e;
}

EngineError EngineError::encode(std::filesystem::path destination) {
  EngineError e(Case::encode);
  e.m_url = std::move(destination);
  return e;
}

EngineError EngineError::missingDisclosure(std::string identifier) {
  EngineError e(Case::missingDisclosure);
  e.m_text = std::move(identifier);
  return e;
}

EngineError EngineError::cancelled() { return EngineError(Case::cancelled); }

EngineError EngineError::jpegEncode() { return EngineError(Case::jpegEncode); }

std::string EngineError::description() const {
  switch (m_case) {
    case Case::unreadable:
      return quotedName(m_url) + " couldn’t be read as an image.";
    case Case::multiFrame:
      return quotedName(m_url) + " contains " + std::to_string(m_a) +
             " frames. Tarnbloom enlarges single still images, so it was not converted.";
    case Case::unsupportedFormat:
      return quotedName(m_url) +
             " is a GIF. GIF images aren’t supported — choose a JPEG, PNG, TIFF or HEIC still "
             "image.";
    case Case::unsupportedDepth:
      return quotedName(m_url) + " uses " + std::to_string(m_a) +
             "-bit samples that couldn’t be converted to 8- or 16-bit, so it was not converted.";
    case Case::tooLarge:
      return "This export would be " + groupedNumber(m_a) + " × " + groupedNumber(m_b) +
             " pixels (" + byteCountText(static_cast<uint64_t>(m_c)) +
             " in memory), more than this version can build. Choose a smaller scale.";
    case Case::webPDimensionExceeded:
      return "WebP supports at most " + groupedNumber(m_a) +
             " pixels on either side; this export is " + groupedNumber(m_b) + " × " +
             groupedNumber(m_c) + ". Choose a smaller size.";
    case Case::animatedWebP:
      return quotedName(m_url) + " is an animated WebP with " + std::to_string(m_a) +
             " frames. Animated WebP export is not supported.";
    case Case::vImage:
      // The code says what went wrong in words of this program; no other
      // platform's interface is named.
      return "The resampler failed at the " + m_text + " stage (" +
             (m_a == kResamplerMemoryAllocationError ? std::string("not enough memory")
              : m_a == kResamplerInvalidParameter
                  ? std::string("invalid input")
                  : "error " + std::to_string(m_a)) +
             ").";
    case Case::encode:
      return "The file couldn’t be written to " + quotedName(m_url) + ".";
    case Case::missingDisclosure:
      return "Internal error: this export requires disclosure “" + m_text +
             "”, which was not provided. Nothing was written.";
    case Case::cancelled:
      return "Stopped.";
    case Case::jpegEncode:
      return "The JPEG encoder failed.";
  }
  return "Stopped.";
}

}  // namespace tarnbloom
