#pragma once

#include <atomic>
#include <filesystem>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "canvas/canvas_composer.h"
#include "encoding/byte_sink.h"
#include "engine/dimension_resolver.h"
#include "engine/resample_engine.h"
#include "export/export_options.h"

namespace tarnbloom::exporting {

// One export's file, with what the encoder reports. The file is in
// `bytes`, or on disk in `file`, an unnamed file in the destination's file
// system, when it was written from rows as they were rendered.
struct EncodedExport {
  std::vector<uint8_t> bytes;
  std::shared_ptr<encoding::FileSink> file;
  uint64_t size = 0;
  // Hex SHA-256 of the file's bytes, taken as they were written.
  std::string sha256;
  // The file system refused the file on disk while it was written (errno):
  // the render stopped there, and staging reports it.
  int writeFailure = 0;
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

  // Creates `path`, which must not exist yet, as the whole file, synced.
  // Throws FileError(path, "write", errno); nothing is left at `path` then.
  void stage(const std::filesystem::path& path) const;
  // The whole file (for checks; a file on disk is read back).
  std::vector<uint8_t> contents() const;
};

// Renders `source` at `size` by the options' method (Enhance on
// `estimates`), composes the options' canvas, if any, and encodes it as
// `format` under the options' colour and metadata policy. The output is
// the canvas's size when there is one. A file written from rows as they are
// rendered goes to an unnamed file in `fileFolder` (the destination's
// folder) where its file system allows, else it is kept in memory like any
// other. Throws the engine's and the encoders' errors;
// EngineError::cancelled when `cancel` is set during the render.
EncodedExport renderAndEncode(SourceImage source, const ExportOptions& options,
                              const ResolvedSize& size, encoding::ExportFormat format,
                              const std::vector<std::string>& claims, EstimateEngine* estimates,
                              const RenderProgress& progress = {},
                              const std::atomic<bool>* cancel = nullptr,
                              const std::filesystem::path& fileFolder = {});

}  // namespace tarnbloom::exporting
