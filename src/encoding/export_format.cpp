#include "encoding/export_format.h"

#include <libheif/heif.h>

#include <algorithm>
#include <array>
#include <cctype>

namespace tarnbloom::encoding {
namespace {

// The file types we recognise by extension and the kinds each conforms to.
// TIFF-based camera RAW files conform to both TIFF and RAW, which is why the
// matching rules test RAW before accepting TIFF.
enum Conformance : unsigned {
  kPNG = 1,
  kJPEG = 2,
  kTIFF = 4,
  kRaw = 8,
  kWebP = 16,
  kHEIC = 32,
  kHEIF = 64,
  kAVIF = 128,
  kOther = 256,
};

struct FileType {
  std::string_view extension;
  unsigned conforms;
};

constexpr std::array kFileTypes = {
    FileType{"png", kPNG},          FileType{"jpg", kJPEG},          FileType{"jpeg", kJPEG},
    FileType{"jpe", kJPEG},         FileType{"jfif", kJPEG},         FileType{"tif", kTIFF},
    FileType{"tiff", kTIFF},        FileType{"webp", kWebP},         FileType{"heic", kHEIC | kHEIF},
    FileType{"heics", kHEIC | kHEIF}, FileType{"heif", kHEIF},       FileType{"hif", kHEIF},
    FileType{"avif", kAVIF},        FileType{"gif", kOther},         FileType{"bmp", kOther},
    // Camera RAW; the TIFF-structured ones also conform to TIFF.
    FileType{"dng", kRaw | kTIFF},  FileType{"cr2", kRaw | kTIFF},   FileType{"nef", kRaw | kTIFF},
    FileType{"nrw", kRaw | kTIFF},  FileType{"arw", kRaw | kTIFF},   FileType{"srf", kRaw | kTIFF},
    FileType{"sr2", kRaw | kTIFF},  FileType{"pef", kRaw | kTIFF},   FileType{"srw", kRaw | kTIFF},
    FileType{"3fr", kRaw | kTIFF},  FileType{"fff", kRaw | kTIFF},   FileType{"iiq", kRaw | kTIFF},
    FileType{"mos", kRaw | kTIFF},  FileType{"mef", kRaw | kTIFF},   FileType{"erf", kRaw | kTIFF},
    FileType{"kdc", kRaw | kTIFF},  FileType{"dcr", kRaw | kTIFF},   FileType{"orf", kRaw},
    FileType{"rw2", kRaw},          FileType{"raf", kRaw},           FileType{"cr3", kRaw},
    FileType{"crw", kRaw},          FileType{"mrw", kRaw},           FileType{"x3f", kRaw},
    FileType{"rwl", kRaw},
};

std::optional<unsigned> conformanceOf(const std::filesystem::path& path) {
  std::string extension = path.extension().string();
  if (extension.size() < 2) return std::nullopt;
  extension.erase(0, 1);
  std::transform(extension.begin(), extension.end(), extension.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  for (const auto& type : kFileTypes)
    if (type.extension == extension) return type.conforms;
  return std::nullopt;
}

std::string joinTitles(const std::vector<ExportFormat>& formats) {
  std::string text;
  for (size_t i = 0; i < formats.size(); ++i) {
    if (i > 0) text += i + 1 == formats.size() ? " and " : ", ";
    text += title(formats[i]);
  }
  return text;
}

}  // namespace

std::string_view rawValue(ExportFormat format) {
  switch (format) {
    case ExportFormat::png: return "png";
    case ExportFormat::jpeg: return "jpeg";
    case ExportFormat::tiff: return "tiff";
    case ExportFormat::webp: return "webp";
    case ExportFormat::avif: return "avif";
    case ExportFormat::heic: return "heic";
  }
  return "png";
}

std::string_view title(ExportFormat format) {
  switch (format) {
    case ExportFormat::png: return "PNG";
    case ExportFormat::jpeg: return "JPEG";
    case ExportFormat::tiff: return "TIFF";
    case ExportFormat::webp: return "WebP";
    case ExportFormat::avif: return "AVIF";
    case ExportFormat::heic: return "HEIC";
  }
  return "PNG";
}

std::string_view fileExtension(ExportFormat format) {
  switch (format) {
    case ExportFormat::png: return "png";
    case ExportFormat::jpeg: return "jpg";
    case ExportFormat::tiff: return "tif";
    case ExportFormat::webp: return "webp";
    case ExportFormat::avif: return "avif";
    case ExportFormat::heic: return "heic";
  }
  return "png";
}

std::optional<ExportFormat> exportFormatFromRawValue(std::string_view text) {
  for (const ExportFormat format : kAllExportFormats)
    if (rawValue(format) == text) return format;
  return std::nullopt;
}

bool supportsAlpha(ExportFormat format) { return format != ExportFormat::jpeg; }

bool supports16Bit(ExportFormat format) {
  return format != ExportFormat::jpeg && format != ExportFormat::webp;
}

bool isWritable(ExportFormat format) {
  // libheif loads its encoder plugins in heif_init; the answer cannot change
  // while we run, so it is read once.
  static const std::pair<bool, bool> heifEncoders = [] {
    heif_init(nullptr);
    return std::pair{heif_have_encoder_for_format(heif_compression_AV1) != 0,
                     heif_have_encoder_for_format(heif_compression_HEVC) != 0};
  }();
  if (format == ExportFormat::avif) return heifEncoders.first;
  if (format == ExportFormat::heic) return heifEncoders.second;
  return true;
}

std::vector<ExportFormat> writableFormats() {
  std::vector<ExportFormat> formats;
  for (const ExportFormat format : kAllExportFormats)
    if (isWritable(format)) formats.push_back(format);
  return formats;
}

ExportFormat matchingFormat(const std::filesystem::path& source, const CanWrite& canWrite) {
  const auto conforms = conformanceOf(source);
  if (!conforms) return ExportFormat::png;
  const unsigned c = *conforms;
  if (c & kPNG) return ExportFormat::png;
  if (c & kJPEG) return ExportFormat::jpeg;
  if ((c & kTIFF) && !(c & kRaw)) return ExportFormat::tiff;
  if (c & kWebP) return ExportFormat::webp;
  if (c & kAVIF) return canWrite(ExportFormat::avif) ? ExportFormat::avif : ExportFormat::jpeg;
  if (c & (kHEIC | kHEIF))
    return canWrite(ExportFormat::heic) ? ExportFormat::heic : ExportFormat::jpeg;
  if (c & kRaw) return ExportFormat::tiff;
  return ExportFormat::png;
}

std::string sameAsSourceNote(const CanWrite& canWrite) {
  std::vector<ExportFormat> kept, asJpeg;
  for (const ExportFormat format : kAllExportFormats) {
    const bool optional = format == ExportFormat::avif || format == ExportFormat::heic;
    if (!optional || canWrite(format))
      kept.push_back(format);
    else
      asJpeg.push_back(format);
  }
  std::string note = joinTitles(kept) + " keep their format.";
  if (!asJpeg.empty()) note += " " + joinTitles(asJpeg) + " saves as JPEG on this computer.";
  return note + " Camera RAW saves as TIFF, anything else as PNG.";
}

}  // namespace tarnbloom::encoding
