#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string_view>
#include <vector>

#include "codec/pixel_buffer.h"
#include "encoding/byte_sink.h"
#include "encoding/output_metadata.h"
#include "encoding/row_writer.h"

namespace tarnbloom {
class Settings;
}

namespace tarnbloom::encoding {

enum class JPEGSubsampling { s444, s420 };
std::string_view rawValue(JPEGSubsampling subsampling);  // "4:4:4", "4:2:0"
std::optional<JPEGSubsampling> jpegSubsamplingFromRawValue(std::string_view text);

struct JPEGOptions {
  int quality = 95;                            // 1...100
  std::optional<JPEGSubsampling> subsampling;  // unset: the encoder's default (4:2:0)
  std::optional<int64_t> maxBytes;             // file size ceiling
  int floor = 40;                              // lowest quality the ceiling may use

  // Quality clamped to 1...100, floor to 1...quality.
  JPEGOptions normalized() const;

  // "jpeg.quality", "jpeg.subsampling", "jpeg.maxBytes", "jpeg.floor".
  static JPEGOptions saved(const Settings& settings);
  void save(Settings& settings) const;
};

// What was asked for and what was written.
struct JPEGEncodeReport {
  int qualityRequested = 0;
  int qualityUsed = 0;
  std::optional<JPEGSubsampling> subsamplingRequested;
  std::optional<JPEGSubsampling> subsamplingActual;  // read back from the bytes
  std::optional<int64_t> maxBytes;
  int floor = 0;
  bool floorHit = false;
  int64_t bytesActual = 0;
};

struct JPEGEncodeResult {
  std::vector<uint8_t> data;
  JPEGEncodeReport report;
  int attempts = 0;  // full encodes the ceiling search made
};

class JPEGEncoder {
 public:
  // Encodes an upright 8- or 16-bit grey or RGB render (16-bit samples are
  // rounded to 8). Transparency is composited onto `flatten` (in the
  // render's own colour space, 0...255) since JPEG has no alpha. With a
  // ceiling, the highest quality from floor to quality whose file fits
  // wins; a ceiling even the floor cannot meet is not an error (floorHit).
  // Throws EngineError (jpegEncode).
  static JPEGEncodeResult encode(const codec::PixelBuffer& image, const OutputMetadata& metadata,
                                 const JPEGOptions& options,
                                 std::array<uint8_t, 3> flatten = {255, 255, 255});

  // One encode at `quality`, no search.
  static std::vector<uint8_t> encodeOnce(const codec::PixelBuffer& image,
                                         const OutputMetadata& metadata, int quality,
                                         std::optional<JPEGSubsampling> subsampling,
                                         std::array<uint8_t, 3> flatten = {255, 255, 255});

  // The same single encode written from rows that arrive a band at a time,
  // into `sink` as it goes. A size ceiling needs several whole encodes, so
  // there is none here: use encode() for one. Throws EngineError
  // (jpegEncode), and whatever the sink throws, unchanged.
  static std::unique_ptr<RowWriter> openRows(const RowLayout& layout,
                                             const OutputMetadata& metadata, int quality,
                                             std::optional<JPEGSubsampling> subsampling,
                                             ByteSink& sink,
                                             std::array<uint8_t, 3> flatten = {255, 255, 255});

  // What an encode under `options` that wrote `data` at `qualityUsed`
  // reports.
  static JPEGEncodeReport report(const JPEGOptions& options, int qualityUsed, bool floorHit,
                                 std::span<const uint8_t> data);

  // The chroma subsampling of a JPEG stream's first frame, or none.
  static std::optional<JPEGSubsampling> actualSubsampling(std::span<const uint8_t> data);
};

}  // namespace tarnbloom::encoding
