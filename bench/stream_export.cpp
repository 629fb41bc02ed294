// One export in a process of its own, so that /usr/bin/time sees its peak
// memory: the source loaded (decoded in the helper), rendered and encoded
// by renderAndEncode (a file written as it renders goes to an unnamed file
// beside OUT), staged and renamed into place, as the export controller
// does for one item (without its queue and receipts, and without the
// planner's memory admission). stream_memory_bench.sh and
// memory_admission_bench.sh run it; built from an earlier tree, it
// measures that tree's exporter. Prints the stages' seconds and the file's
// SHA-256 to standard error.
//
//   stream_export SOURCE FORMAT SIZE OUT [METHOD [VARIANT]]
//       FORMAT: jpeg, png, tiff, webp, heic, avif; SIZE: x2, x4, x8 or
//       width:N; METHOD: exact (default), clarity or estimate; JPEG at
//       quality 90; VARIANT: canvas (the output centred on a white canvas
//       a tenth larger each way) or maxkb:N (a JPEG byte ceiling of N kB);
//       OUT "-" prints the estimate without exporting

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <optional>
#include <string>

#include "engine/estimate_engine.h"
#include "engine/resample_engine.h"
#include "export/export_render.h"
#include "export/preflight.h"
#include "support/error.h"
#include "support/files.h"

using namespace tarnbloom;
using namespace tarnbloom::exporting;

int main(int argc, char** argv) {
  const bool counted = argc >= 5 && argc <= 7;
  const auto parsed = counted ? encoding::exportFormatFromRawValue(argv[2]) : std::nullopt;
  const std::string size = counted ? argv[3] : "";
  const auto method =
      argc >= 6 ? resampleMethodFromRawValue(argv[5]) : std::optional(ResampleMethod::exact);
  const std::string variant = argc == 7 ? argv[6] : "";
  const bool onCanvas = variant == "canvas";
  const long maxKB = variant.rfind("maxkb:", 0) == 0 ? std::atol(variant.c_str() + 6) : 0;
  const bool byWidth = size.rfind("width:", 0) == 0;
  const auto mode = byWidth                              ? std::optional(SizeMode::width)
                    : size.size() == 2 && size[0] == 'x' ? sizeModeFromQuickScale(size[1] - '0')
                                                         : std::nullopt;
  if (!parsed || !mode || !method || (!variant.empty() && !onCanvas && maxKB <= 0)) {
    std::fprintf(stderr,
                 "usage: stream_export SOURCE jpeg|png|tiff|webp|heic|avif x2|x4|x8|width:N OUT "
                 "[exact|clarity|estimate [canvas|maxkb:N]]\n");
    return 2;
  }
  const encoding::ExportFormat format = parsed.value_or(encoding::ExportFormat::png);
  try {
    exporting::ExportOptions options;
    options.sizeMode = *mode;
    if (byWidth) options.sizeValue = std::atof(size.c_str() + 6);
    options.method = *method;
    options.format = format;
    options.jpeg.quality = 90;
    if (maxKB > 0) options.jpeg.maxBytes = static_cast<int64_t>(maxKB) * 1000;
    SourceImage source = ResampleEngine::load(argv[1]);
    const auto size = options.resolvedSize(source.orientedWidth(), source.orientedHeight(),
                                           source.bitsPerComponent, format);
    if (onCanvas)
      options.canvas = canvas::Canvas{
          canvas::CanvasMode::exact, size.width + size.width / 10, size.height + size.height / 10,
          canvas::CanvasFill{canvas::CanvasFill::Kind::colour, "#FFFFFF"}, std::nullopt};
    // What memory admission expects this export to hold at its peak; the
    // planner would refuse it above the ceiling, and so does this.
    const ExportMemoryShape shape = ExportMemoryShape::of(options, source.bitsPerComponent);
    const int64_t estimate =
        estimatedPeakWorkingBytes(source.orientedWidth(), source.orientedHeight(), size.width,
                                  size.height, options.method, format, shape);
    std::fprintf(stderr, "estimate %lld\n", static_cast<long long>(estimate));
    // OUT "-": the estimate alone, to compare a changed model with peaks
    // measured before.
    if (std::string(argv[4]) == "-") return 0;
    if (estimate > kMemoryAdmissionBytes) {
      std::fprintf(stderr, "refused by memory admission\n");
      return 3;
    }
    const std::filesystem::path out = std::filesystem::absolute(argv[4]);
    EstimateEngine estimates(EstimateEngine::configuredURL());
    const auto encoded = exporting::renderAndEncode(std::move(source), options, size, format, {},
                                                    &estimates, {}, nullptr, out.parent_path());
    const std::filesystem::path staged = out.string() + ".staged";
    std::filesystem::remove(staged);
    encoded.stage(staged);
    std::filesystem::rename(staged, out);
    for (const auto& [stage, seconds] : encoded.timings)
      std::fprintf(stderr, "%s %.2f s\n", stage.c_str(), seconds);
    std::fprintf(stderr, "sha256 %s\n", encoded.sha256.c_str());
  } catch (const Error& error) {
    std::fprintf(stderr, "%s\n", error.description().c_str());
    return 1;
  }
  return 0;
}
