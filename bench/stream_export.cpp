// One export in a process of its own, so that /usr/bin/time sees its peak
// memory: the source loaded (decoded in the helper), rendered with Exact and
// encoded by renderAndEncode, and the file written atomically, as the
// export controller does for one item (without its queue and receipts, and
// without the planner's memory admission). stream_memory_bench.sh runs it
// beside vips; built from an earlier tree, it measures that tree's exporter.
//
//   stream_export SOURCE FORMAT SIZE OUT     (FORMAT: jpeg, png, tiff, ...;
//                                             SIZE: x2, x4, x8 or width:N;
//                                             JPEG at quality 90)

#include <cstdio>
#include <cstdlib>
#include <optional>
#include <string>

#include "engine/resample_engine.h"
#include "export/export_render.h"
#include "support/error.h"
#include "support/files.h"

using namespace tarnbloom;

int main(int argc, char** argv) {
  const auto parsed = argc == 5 ? encoding::exportFormatFromRawValue(argv[2]) : std::nullopt;
  const std::string size = argc == 5 ? argv[3] : "";
  const bool byWidth = size.rfind("width:", 0) == 0;
  const auto mode = byWidth                              ? std::optional(SizeMode::width)
                    : size.size() == 2 && size[0] == 'x' ? sizeModeFromQuickScale(size[1] - '0')
                                                         : std::nullopt;
  if (!parsed || !mode) {
    std::fprintf(stderr,
                 "usage: stream_export SOURCE jpeg|png|tiff|webp|heic|avif x2|x4|x8|width:N OUT\n");
    return 2;
  }
  const encoding::ExportFormat format = parsed.value_or(encoding::ExportFormat::png);
  try {
    exporting::ExportOptions options;
    options.sizeMode = *mode;
    if (byWidth) options.sizeValue = std::atof(size.c_str() + 6);
    options.method = ResampleMethod::exact;
    options.format = format;
    options.jpeg.quality = 90;
    SourceImage source = ResampleEngine::load(argv[1]);
    const auto size = options.resolvedSize(source.orientedWidth(), source.orientedHeight(),
                                           source.bitsPerComponent, format);
    const auto encoded =
        exporting::renderAndEncode(std::move(source), options, size, format, {}, nullptr);
    writeFileAtomically(argv[4], std::as_bytes(std::span(encoded.bytes)));
    for (const auto& [stage, seconds] : encoded.timings)
      std::fprintf(stderr, "%s %.2f s\n", stage.c_str(), seconds);
  } catch (const Error& error) {
    std::fprintf(stderr, "%s\n", error.description().c_str());
    return 1;
  }
  return 0;
}
