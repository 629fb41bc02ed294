#pragma once

#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "canvas/canvas.h"
#include "cli/help_option.h"
#include "encoding/colour_policy.h"
#include "encoding/export_format.h"
#include "engine/resample_method.h"
#include "engine/size_mode.h"
#include "export/export_options.h"

namespace tarnbloom::cli {

double parseNumber(std::string_view text, const std::string& what);

// The flags that say how files are exported, shared by every command that
// plans exports (enlarge, preflight, recipe save).
struct ExportFlags {
  ResampleMethod method = ResampleMethod::exact;
  SizeMode sizeMode = SizeMode::x2;
  double sizeValue = 0, boxWidth = 0, boxHeight = 0;
  bool haveSize = false;
  bool touched = false;  // any of these flags was given
  // None: the format that matches each source.
  std::optional<encoding::ExportFormat> format;
  std::optional<int> quality;
  std::optional<int64_t> maxBytes;
  double strength = 0.5;  // Enhance only
  encoding::ColourPolicy policy;
  std::optional<std::string> nameTemplate;
  // --canvas WxH, with --fill and, for a crop, --crop X,Y.
  std::optional<canvas::Canvas> canvas;

  // Takes arguments[i] (and its value, moving i past it) when it is one of
  // these flags; false otherwise. Throws UsageError.
  bool parse(const std::vector<std::string>& arguments, size_t& i);
  // Checks the flags that only make sense together. Throws UsageError.
  void finish() const;
  exporting::ExportOptions exportOptions() const;
  std::string templateOrDefault() const;
};

// The usage lines of those flags.
inline constexpr const char* kExportFlagsUsage =
    "  SIZE: x2 | x4 | x8 | percent:N | long-edge:N | width:N | height:N | box:WxH\n"
    "  --method exact|clarity|enhance   (default exact)\n"
    "  --strength S         Enhance only: how much AI estimate to keep, 0.1...1.0 (default 0.5)\n"
    "  --name TEMPLATE      Naming template -- tokens: {source} {sku} {w} {h} {method} "
    "{format} {scale} {date} {index} {n}\n"
    "  --format same|png|jpeg|tiff|webp|avif|heic   (default: same as source)\n"
    "  --quality N          lossy quality 1...100 (JPEG 95, WebP 85, HEIC/AVIF 90)\n"
    "  --max-kb N           JPEG file size ceiling in kilobytes (1 KB = 1000 bytes)\n"
    "  --profile keep|srgb  --icc keep|strip  --exif keep|strip  --xmp keep|strip\n"
    "  --gps keep|strip     (default: keep profile, ICC, EXIF and XMP; strip GPS)\n"
    "  --flatten white|black|#RRGGBB   colour under transparency in JPEG (default white)\n"
    "  --canvas WxH         place the enlargement on an exact canvas of W by H pixels\n"
    "  --fill transparent|#RRGGBB   what shows around it (default: transparent, or the\n"
    "                       --flatten colour where the format has no transparency)\n"
    "  --crop X,Y           cut the canvas-sized crop at X,Y of the enlargement instead; needs\n"
    "                       the confirmation `tarnbloom canvas preview` wrote\n";

}  // namespace tarnbloom::cli
