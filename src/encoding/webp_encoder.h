#pragma once

#include <cstdint>
#include <vector>

#include "codec/pixel_buffer.h"
#include "encoding/colour_policy.h"
#include "encoding/output_metadata.h"

namespace tarnbloom {
class Settings;
}

namespace tarnbloom::encoding {

struct WebPOptions {
  static constexpr float defaultLossyQuality = 85.0f;

  bool lossless = false;
  float lossyQuality = defaultLossyQuality;  // 0...100; lossless always uses 100
  int32_t effort = 4;                        // 0...6: encode time against file size

  // Quality clamped to 0...100, effort to 0...6.
  WebPOptions normalized() const;

  // "webp.lossless", "webp.lossyQuality", "webp.effort"; saving clamps.
  static WebPOptions saved(const Settings& settings);
  void save(Settings& settings) const;
};

// The metadata side of a colour policy, as the WebP container sees it.
struct MetadataPolicy {
  bool keepEXIF = true;
  bool keepXMP = true;
  bool stripGPS = true;
  static MetadataPolicy from(const ColourPolicy& policy);
};

class WebPEncoder {
 public:
  static constexpr int64_t maximumDimension = 16383;

  // Throws EngineError (webPDimensionExceeded) when either side is over
  // the format's limit; call it before rendering so no work is wasted.
  static void preflight(int64_t width, int64_t height);

  // Encodes an upright 8-bit (or 16-bit, rounded) render, keeping its
  // alpha, and attaches the ICCP, EXIF and "XMP " chunks `metadata` holds.
  // Throws EncoderError or EngineError (webPDimensionExceeded).
  static std::vector<uint8_t> encode(const codec::PixelBuffer& image,
                                     const OutputMetadata& metadata, const WebPOptions& options);

  // The render as straight 8-bit RGBA (grey spread to RGB, 16-bit rounded).
  static codec::PixelBuffer straightRGBA(const codec::PixelBuffer& image);
};

}  // namespace tarnbloom::encoding
