#pragma once

#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "codec/colour_space.h"
#include "codec/container.h"
#include "codec/pixel_buffer.h"
#include "support/error.h"

namespace tarnbloom {

// A loaded source: the bytes were read once, hashed, and frame 0 decoded at
// 8 or 16 bits per channel. Immutable once built; shared by the document,
// previews and exports.
struct SourceImage {
  std::filesystem::path url;
  // SHA-256 of exactly the bytes that were decoded.
  std::optional<std::string> sourceHash;
  // The decoded frame, stored as the file stores it (orientation not applied).
  std::shared_ptr<const codec::PixelBuffer> bitmap;
  uint32_t orientation = 1;
  int bitsPerComponent = 8;  // 8 or 16: the depth of `bitmap`
  bool hasAlpha = false;
  codec::ColourSpace colorSpace;
  // The container's facts about frame 0 ("PixelWidth", "Depth", ...).
  nlohmann::json properties = nlohmann::json::object();
  std::optional<std::string> xmpMetadata;
  // The file's own bits per component when it differed from
  // bitsPerComponent and the frame was redrawn.
  std::optional<int> nativeBitDepth;
  // TIFF-structured EXIF when the container carries it as one block.
  std::vector<uint8_t> exif;
  codec::Container container = codec::Container::unknown;

  int pixelWidth() const { return bitmap ? bitmap->width : 0; }
  int pixelHeight() const { return bitmap ? bitmap->height : 0; }
  // Orientations 5 to 8 transpose the picture.
  int orientedWidth() const { return transposes() ? pixelHeight() : pixelWidth(); }
  int orientedHeight() const { return transposes() ? pixelWidth() : pixelHeight(); }
  bool isRGB() const { return colorSpace.isRGB(); }
  std::string profileName() const { return colorSpace.profileName(); }

 private:
  bool transposes() const { return orientation >= 5 && orientation <= 8; }
};

// Why an export may not write for a source.
class SourceProtectionError : public Error {
 public:
  enum class Case { destinationIsSource, sourceChanged };

  explicit SourceProtectionError(Case c) : m_case(c) {}
  Case errorCase() const { return m_case; }
  std::string description() const override;

 private:
  Case m_case;
};

}  // namespace tarnbloom
