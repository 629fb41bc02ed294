#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

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

// Working bytes of one render: the resampler's bytes per output pixel for
// the method and scale, plus WebP's encoder scratch, times the output's
// pixels. Saturates instead of overflowing.
int64_t estimatedPeakWorkingBytes(int64_t sourceWidth, int64_t sourceHeight, int64_t outputWidth,
                                  int64_t outputHeight, ResampleMethod method,
                                  encoding::ExportFormat format);
inline constexpr int64_t kMemoryAdmissionBytes = 1'600'000'000;
bool exceedsMemoryAdmission(int64_t sourceWidth, int64_t sourceHeight, int64_t outputWidth,
                            int64_t outputHeight, ResampleMethod method,
                            encoding::ExportFormat format);

}  // namespace tarnbloom::exporting
