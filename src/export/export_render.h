#pragma once

#include <atomic>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "canvas/canvas_composer.h"
#include "engine/dimension_resolver.h"
#include "engine/resample_engine.h"
#include "export/export_options.h"

namespace tarnbloom::exporting {

// One export's file in memory, with what the encoder reports.
struct EncodedExport {
  std::vector<uint8_t> bytes;
  int64_t width = 0;
  int64_t height = 0;
  std::optional<encoding::JPEGEncodeReport> jpegReport;
  std::optional<encoding::WebPOptions> webpOptions;
  std::optional<int> heifQuality;
  std::vector<std::string> claims;
  // Source metadata left out because it could not be read.
  std::vector<std::string> metadataDropped;
  // The canvas composed onto, the crop cut and the padding, when one was.
  std::optional<canvas::Canvas> canvas;
  std::optional<canvas::CropRect> cropRect;
  canvas::ExactPlacement padding;
  // Seconds per stage: "linearise", "render", "encode".
  std::map<std::string, double> timings;
};

// Renders `source` at `size` by the options' method (Enhance on
// `estimates`), composes the options' canvas, if any, and encodes it as
// `format` under the options' colour and metadata policy. The output is
// the canvas's size when there is one. Throws the engine's and the encoders' errors;
// EngineError::cancelled when `cancel` is set during the render.
EncodedExport renderAndEncode(SourceImage source, const ExportOptions& options,
                              const ResolvedSize& size, encoding::ExportFormat format,
                              const std::vector<std::string>& claims, EstimateEngine* estimates,
                              const RenderProgress& progress = {},
                              const std::atomic<bool>* cancel = nullptr);

}  // namespace tarnbloom::exporting
