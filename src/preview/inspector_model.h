#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>

#include "encoding/export_format.h"
#include "engine/dimension_resolver.h"
#include "export/export_options.h"

namespace tarnbloom::preview {

// What the inspector knows of a loaded photo.
struct SourceFacts {
  std::filesystem::path path;
  int64_t width = 0, height = 0;  // upright
  int bitsPerComponent = 8;
};

// What the inspector shows for one set of options on one photo: the size
// the export would write, or the engine's own refusal, and whether Export
// may run (and why not, since the button stays visible).
struct InspectorState {
  std::optional<ResolvedSize> size;
  encoding::ExportFormat format = encoding::ExportFormat::png;
  std::string sizeText;  // "3,200 × 2,400 px · 7.7 MP"
  std::string message;   // the refusal, description then suggestion
  bool canExport = false;
  std::string exportBlockedReason;
};

// `enhanceUnavailable`: why Enhance cannot run here (the model's message),
// none when it can.
InspectorState evaluateOptions(const exporting::ExportOptions& options, const SourceFacts& source,
                               const std::optional<std::string>& enhanceUnavailable);

// "4×", "2.5×", "1.33×": a scale as the progress title shows it.
std::string factorText(double factor);
// "3,200 × 2,400 px · 7.7 MP".
std::string sizeText(int64_t width, int64_t height);

}  // namespace tarnbloom::preview
