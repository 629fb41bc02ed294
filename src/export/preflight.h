#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "encoding/export_format.h"
#include "engine/dimension_resolver.h"
#include "engine/resample_method.h"
#include "engine/source_probe.h"
#include "export/export_options.h"

namespace tarnbloom::exporting {

// Why a file is set aside before anything is queued: the code written in
// reports, and the cause the lists group by.
enum class PreflightExceptionClass {
  unsupportedFormat,
  smallerThanTarget,
  overCodecLimit,
  unreadable,
  nameCollision
};
enum class PreflightCause {
  notAnImage,
  unreadable,
  targetSmallerThanSource,
  codecLimit,
  memoryLimit,
  dimensionLimit,
  folderUnreadable
};
std::string_view rawValue(PreflightExceptionClass code);
std::string_view rawValue(PreflightCause cause);
// "Not a supported image", "Could not be read", ...
std::string_view groupLabel(PreflightCause cause);

struct PreflightException {
  PreflightExceptionClass code = PreflightExceptionClass::unreadable;
  PreflightCause cause = PreflightCause::unreadable;
  std::string explanation;
  bool operator==(const PreflightException&) const = default;
};

// What a header says about one source for one export: the reason it cannot
// work, or its output size.
struct SourceClassification {
  std::optional<PreflightException> exception;
  std::optional<ResolvedSize> size;
};

// Classifies from the header only, in a fixed order: unreadable, not an
// image, animated or several frames or floating point, the size (below the
// source, over the pixel limit), WebP's side limit, memory admission.
// `accessible`: the file could be opened for reading (a probe of a file we
// may not read says nothing about the file).
SourceClassification classifySource(const SourceProbe& probe, bool accessible,
                                    const ExportOptions& options, encoding::ExportFormat format,
                                    bool explicit8Bit);

// What besides its sizes, method and format decides the memory an export
// holds.
struct ExportMemoryShape {
  int sourceBitDepth = 8;  // 8 or 16: the depth the source is held at
  // A JPEG byte ceiling: the picture is held whole and encoded until it fits.
  bool jpegSizeCeiling = false;
  // The canvas the render is composed onto; the picture is then held whole.
  std::optional<std::pair<int64_t, int64_t>> canvas;
  // Threads the encoders work with (PNG deflates a few pieces per thread).
  int threads = 1;
  // The shape of `options` for a source of `sourceBitDepth` on this machine.
  static ExportMemoryShape of(const ExportOptions& options, int sourceBitDepth);
};

// The peak memory of one export in bytes (the process's peak resident
// size), by the path it takes:
// - Exact or Clarity to JPEG (no byte ceiling), PNG or TIFF without a
//   canvas: the source and one band of output rows, then either the band's
//   render or the encoder's pieces; the file goes to disk as it is
//   written. Exact converts only the source rows a band reads; Clarity
//   holds the source in linear light;
// - WebP, HEIC, AVIF, a JPEG byte ceiling or a canvas: the largest of the
//   render into the whole picture, the canvas composed from it, and the
//   encoder working from the composed picture;
// - Enhance: the network's estimate, the Exact render and their blend at
//   the output size, besides the picture itself.
// Any side below 1 gives 0. Saturates instead of overflowing.
int64_t estimatedPeakWorkingBytes(int64_t sourceWidth, int64_t sourceHeight, int64_t outputWidth,
                                  int64_t outputHeight, ResampleMethod method,
                                  encoding::ExportFormat format,
                                  const ExportMemoryShape& shape = {});
inline constexpr int64_t kMemoryAdmissionBytes = 1'600'000'000;
// Freed memory a banded render's heaps may keep before the export gives it
// back; the estimate of a render in several bands allows for it.
inline constexpr int64_t kBandHeapSlackBytes = int64_t{16} << 20;
bool exceedsMemoryAdmission(int64_t sourceWidth, int64_t sourceHeight, int64_t outputWidth,
                            int64_t outputHeight, ResampleMethod method,
                            encoding::ExportFormat format, const ExportMemoryShape& shape = {});

// The refusal of an export whose estimate is over the ceiling, for the
// planner and for an export that learns its size only from the decoder:
// both turn it away with these words before anything is rendered.
std::optional<PreflightException> memoryRefusal(int64_t sourceWidth, int64_t sourceHeight,
                                                const ResolvedSize& size,
                                                const ExportOptions& options,
                                                encoding::ExportFormat format, int sourceBitDepth);

}  // namespace tarnbloom::exporting
