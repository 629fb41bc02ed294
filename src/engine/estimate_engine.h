#pragma once

#include <atomic>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "codec/pixel_buffer.h"
#include "engine/estimate_network.h"

namespace tarnbloom {

// 8-bit premultiplied sRGB RGBA pixels, rows packed.
struct MosaicImage {
  int64_t width = 0;
  int64_t height = 0;
  std::vector<uint8_t> rgba;
};

// The Enhance method: the ×4 network's estimate of detail, run tile by tile
// with feathered joins and blended with the Exact result by a strength.
// Owned by whoever hosts the renders (the command, the service, the
// application); one inference at a time.
class EstimateEngine {
 public:
  static constexpr const char* modelName = "Real-ESRGAN General x4v3";
  static constexpr const char* modelVersion = "realesr-general-x4v3/8dc7edb9";
  static constexpr int tileSize = 256;
  static constexpr int scale = 4;
  static constexpr int context = 16;
  static constexpr int reliableSize = 224;
  static constexpr int gridStride = 192;
  static constexpr int featherWidth = 128;
  static constexpr double minimumStrength = 0.1;
  static constexpr double defaultStrength = 0.5;
  static constexpr double maximumStrength = 1.0;

  // `modelURL`: the model's .param file (its .bin beside it); none leaves
  // Enhance unavailable until useModel().
  explicit EstimateEngine(std::optional<std::filesystem::path> modelURL = std::nullopt)
      : m_modelURL(std::move(modelURL)) {}
  EstimateEngine(const EstimateEngine&) = delete;
  EstimateEngine& operator=(const EstimateEngine&) = delete;

  // TARNBLOOM_ESTIMATE_MODEL when set (nothing else is tried then), else the
  // installed model in the data folder, else the one set-up put beside the
  // sources; nullopt when none exists.
  static std::optional<std::filesystem::path> configuredURL();

  // Tile origins along a side: -16, then every 192 pixels, so the trusted
  // spans of the tiles cover the side.
  static std::vector<int64_t> gridOrigins(int64_t length);
  static double clampStrength(double strength);
  static bool isUnblended(double strength);
  // Per colour channel round((1 − s)·exact + s·estimate), at most the
  // estimate's alpha; alpha from the estimate. Unblended strengths and
  // arrays of different lengths give the estimate unchanged.
  static std::vector<uint8_t> blendedPixels(const std::vector<uint8_t>& estimate,
                                            const std::vector<uint8_t>& exact, double strength);
  // The same blend of `bytes` bytes of pixels into `out`, at a strength
  // that is not unblended.
  static void blendPixels(const uint8_t* estimate, const uint8_t* exact, size_t bytes,
                          double strength, uint8_t* out);

  using TileProgress = std::function<void(int64_t done, int64_t total)>;

  // The ×4 inference of a whole mosaic. Throws EstimateError, or
  // EngineError::cancelled between tiles.
  MosaicImage inferTiled(const MosaicImage& image, const TileProgress& onTile = {},
                         const std::atomic<bool>* cancel = nullptr);

  // Receives `count` finished rows of the ×4 estimate from row `firstRow`
  // on, 8-bit premultiplied sRGB RGBA at the estimate's width; the pointer
  // is good only during the call.
  using EstimateRows = std::function<void(const uint8_t* rgba, int64_t firstRow, int64_t count)>;
  // The same inference handed over top to bottom as each row of tiles
  // finishes the rows above the next, so the estimate is never held whole:
  // the pixels are those inferTiled returns. Throws as inferTiled does, and
  // whatever `onRows` throws (no further tile runs then).
  void inferRows(const MosaicImage& image, const EstimateRows& onRows,
                 const TileProgress& onTile = {}, const std::atomic<bool>* cancel = nullptr);

  // Loads (once) the model it was made with; throws EstimateError::modelMissing
  // or modelFailed.
  const SrvggNetwork& model();
  // The precision and convolution of the network as it ran.
  std::string precisionText();
  std::string artifactDigest();  // SHA-256 of the param and bin files
  // "256×256 tiles, 16 px context, 128 px feather": how results are tiled.
  static std::string tilingText();
  static constexpr const char* computeUnits = "CPU (oneDNN)";

  // Replaces the model, for tests and experiments.
  void useModel(SrvggNetwork network, std::string digest);
  // Whole-mosaic inferences run so far (for diagnostics and tests).
  int64_t inferences() const { return m_inferences; }

 private:
  std::optional<std::filesystem::path> m_modelURL;
  std::mutex m_renderLock;
  std::mutex m_modelLock;
  std::optional<SrvggNetwork> m_network;
  std::string m_digest;
  // What the network built here computes (Winograd depends on the
  // processor), for receipts.
  std::string m_ranText;
  std::unique_ptr<EstimateNetwork> m_runner;
  std::atomic<int64_t> m_inferences{0};
};

}  // namespace tarnbloom
