#pragma once

#include <atomic>
#include <map>
#include <optional>
#include <string>
#include <vector>

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
  // Seconds per stage: "linearise", "render", "encode".
  std::map<std::string, double> timings;
};

// Renders `source` at `size` by the options' method (Enhance on
// `estimates`) and encodes it as `format` under the options' colour and
// metadata policy. Throws the engine's and the encoders' errors;
// EngineError::cancelled when `cancel` is set during the render.
EncodedExport renderAndEncode(SourceImage source, const ExportOptions& options,
                              const ResolvedSize& size, encoding::ExportFormat format,
                              const std::vector<std::string>& claims, EstimateEngine* estimates,
                              const RenderProgress& progress = {},
                              const std::atomic<bool>* cancel = nullptr);

}  // namespace tarnbloom::exporting
