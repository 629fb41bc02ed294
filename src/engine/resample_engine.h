#pragma once

#include <filesystem>
#include <optional>

#include "codec/pixel_buffer.h"
#include "engine/source_image.h"

namespace tarnbloom {

// The imaging engine's entry points. Loading is a free function of its
// arguments and may run on any thread.
class ResampleEngine {
 public:
  // Reads the file once, hashes those bytes and decodes frame 0 from them.
  // Throws EngineError: unreadable, unsupportedFormat (GIF), multiFrame,
  // animatedWebP, unsupportedDepth.
  static SourceImage load(const std::filesystem::path& url);

  // The single depth rule shared by probe and load: 8 or 16, or none.
  static std::optional<int> normalizedDepth(int nativeDepth, bool isFloat);

  // Throws SourceProtectionError when `destination` is the source itself, or
  // when the source's bytes no longer hash to what was loaded.
  static void validateDestination(const std::filesystem::path& destination,
                                  const SourceImage& source);

  // Whether two paths name the same file (same inode when both exist, else
  // the same normalised absolute path).
  static bool isSourceDestination(const std::filesystem::path& destination,
                                  const std::filesystem::path& source);

  // Draws a bitmap upright for EXIF orientation 1...8; throws EngineError
  // (vImage, "orientation") for any other value.
  static codec::PixelBuffer applyOrientation(const codec::PixelBuffer& image, uint32_t orientation);
};

}  // namespace tarnbloom
