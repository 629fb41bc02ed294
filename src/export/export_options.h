#pragma once

#include <cstdint>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>

#include "canvas/canvas.h"
#include "encoding/colour_policy.h"
#include "encoding/export_format.h"
#include "encoding/jpeg_encoder.h"
#include "encoding/webp_encoder.h"
#include "engine/dimension_resolver.h"
#include "engine/resample_method.h"
#include "engine/size_mode.h"

namespace tarnbloom {
class Settings;
}

namespace tarnbloom::exporting {

// How a photo is to be exported. One value per document, copied into each
// job item; every route that exports builds one.
struct ExportOptions {
  SizeMode sizeMode = SizeMode::x4;
  double sizeValue = 0;
  double boxWidth = 0;
  double boxHeight = 0;
  encoding::ExportFormat format = encoding::ExportFormat::png;
  bool formatFollowsSource = false;
  encoding::ColourPolicy colourPolicy;
  encoding::JPEGOptions jpeg;
  encoding::WebPOptions webp;
  // HEIC and AVIF quality (0...100); unset: the writer's default.
  std::optional<int> heifQuality;
  ResampleMethod method = ResampleMethod::estimate;
  double estimateStrength = 0.5;
  // The canvas to compose onto, and the user's confirmation of a crop.
  // Not saved with a queued job: a resumed job runs without a canvas.
  std::optional<canvas::Canvas> canvas;
  std::optional<canvas::CanvasConfirmation> canvasConfirmation;

  // The options last used ("sizeMode" or the older "scale", "sizeValue",
  // "boxWidth", "boxHeight", "format", "formatFollowsSource", "method",
  // "estimateStrength", plus the colour, JPEG and WebP keys). A missing or
  // unreadable key keeps its default.
  static ExportOptions saved(const Settings& settings);
  void save(Settings& settings) const;

  ExportOptions followingSource() const;
  encoding::ExportFormat resolvedFormat(const std::filesystem::path& source) const;
  // For a source of this upright size and depth written as `format`
  // (whose depth decides the pixel ceiling). Throws DimensionError.
  ResolvedSize resolvedSize(int64_t sourceWidth, int64_t sourceHeight, int sourceBitsPerComponent,
                            encoding::ExportFormat format) const;
  // "4×", "Long edge 3,000 px", "Fit in 1,200 × 800 px", ...
  std::string sizeLabel() const;
};

// The persisted form of ExportOptions: one flat JSON object.
class ExportOptionsSnapshot {
 public:
  explicit ExportOptionsSnapshot(const ExportOptions& options);
  // Throws ExportQueueError (decoding) for a missing key or a value of the
  // wrong type; unknown values are only found by options().
  static ExportOptionsSnapshot fromJson(const nlohmann::json& json);

  const nlohmann::ordered_json& json() const { return m_json; }
  // Throws ExportQueueError::unreadableSettings when a stored value is not
  // understood; never returns a partial result.
  ExportOptions options() const;

 private:
  ExportOptionsSnapshot() = default;
  nlohmann::ordered_json m_json;
};

}  // namespace tarnbloom::exporting
