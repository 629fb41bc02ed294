#pragma once

#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace tarnbloom::encoding {

// The formats an export can be written in, in menu order.
enum class ExportFormat { png, jpeg, tiff, webp, avif, heic };

inline constexpr ExportFormat kAllExportFormats[] = {ExportFormat::png,  ExportFormat::jpeg,
                                                     ExportFormat::tiff, ExportFormat::webp,
                                                     ExportFormat::avif, ExportFormat::heic};

// The lossy quality (0...100) for the lossy formats written through the
// general image writer (HEIC, AVIF).
inline constexpr int kImageWriterLossyQuality = 90;

inline constexpr std::string_view kSameAsSourceTitle = "Format: Same as source";

std::string_view rawValue(ExportFormat format);
std::string_view title(ExportFormat format);
std::string_view fileExtension(ExportFormat format);
// None for anything but the six raw values.
std::optional<ExportFormat> exportFormatFromRawValue(std::string_view text);

bool supportsAlpha(ExportFormat format);
bool supports16Bit(ExportFormat format);
// PNG, JPEG, TIFF and WebP always; AVIF and HEIC only when an encoder for
// them is installed (looked up once per process).
bool isWritable(ExportFormat format);
// The writable formats in case order: what menus and recipes offer.
std::vector<ExportFormat> writableFormats();

using CanWrite = std::function<bool(ExportFormat)>;

// The format "same as source" gives for a source file, judged by its name's
// extension.
ExportFormat matchingFormat(const std::filesystem::path& source, const CanWrite& canWrite = isWritable);

// The sentence under the format menu explaining "same as source".
std::string sameAsSourceNote(const CanWrite& canWrite = isWritable);

}  // namespace tarnbloom::encoding
