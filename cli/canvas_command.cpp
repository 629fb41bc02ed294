#include "cli/canvas_command.h"

#include <iostream>

#include "canvas/canvas_composer.h"
#include "canvas/canvas_json.h"
#include "cli/exit_codes.h"
#include "cli/export_flags.h"
#include "cli/help_option.h"
#include "encoding/image_writer.h"
#include "engine/estimate_engine.h"
#include "engine/resample_engine.h"
#include "support/files.h"

namespace tarnbloom::cli {
namespace {

namespace fs = std::filesystem;

const std::string kUsage =
    std::string(
        "Usage: tarnbloom canvas preview FILE --size SIZE --canvas WxH --crop X,Y --out "
        "PREVIEW.png\n"
        "                                [--format F] [--method M]\n"
        "Writes the crop as the export would cut it from the enlargement, and the confirmation\n"
        "PREVIEW.png.tarnbloomcrop beside it. Export that crop with\n"
        "  tarnbloom enlarge FILE --size SIZE --canvas WxH --crop X,Y --confirmation "
        "PREVIEW.png.tarnbloomcrop\n"
        "The confirmation holds only for this file, size, canvas and format.\n") +
    kExportFlagsUsage;

struct Options {
  ExportFlags flags;
  fs::path file, out;
};

Options parseOptions(const std::vector<std::string>& arguments) {
  if (arguments.empty() || arguments[0] != "preview") throw UsageError("Say what to do: preview.");
  Options options;
  for (size_t i = 1; i < arguments.size(); ++i) {
    if (options.flags.parse(arguments, i)) continue;
    const std::string& a = arguments[i];
    if (a == "--out") {
      if (i + 1 >= arguments.size()) throw UsageError("--out needs a value.");
      options.out = arguments[++i];
    } else if (a.size() > 1 && a[0] == '-') {
      throw UsageError("Unknown option “" + a + "”.");
    } else if (options.file.empty()) {
      options.file = a;
    } else {
      throw UsageError("A crop is previewed on one file at a time.");
    }
  }
  if (options.file.empty()) throw UsageError("Name the file to preview.");
  if (options.out.empty()) throw UsageError("Choose where the preview goes with --out.");
  if (!options.flags.haveSize) throw UsageError("Choose a size with --size.");
  options.flags.finish();
  if (!options.flags.canvas || options.flags.canvas->mode != canvas::CanvasMode::crop)
    throw UsageError("Give the crop to preview with --canvas WxH --crop X,Y.");
  return options;
}

int preview(const Options& options) {
  const exporting::ExportOptions exportOptions = options.flags.exportOptions();
  SourceImage source = ResampleEngine::load(options.file);
  const auto format = exportOptions.resolvedFormat(options.file);
  const ResolvedSize size = exportOptions.resolvedSize(
      source.orientedWidth(), source.orientedHeight(), source.bitsPerComponent, format);
  canvas::CanvasConfirmation confirmation;
  canvas::CanvasPreviewContext& context = confirmation.context;
  context.sourceIdentity = source.sourceHash.value_or("");
  context.resampledWidth = size.width;
  context.resampledHeight = size.height;
  context.canvas = *exportOptions.canvas;
  context.formatToken = std::string(encoding::rawValue(format));
  // The crop is checked before anything is rendered, as the export checks it.
  canvas::CanvasComposer::validateCropRect(*context.canvas.cropRect, size.width, size.height,
                                           context.canvas.width, context.canvas.height);

  EstimateEngine estimates(EstimateEngine::configuredURL());
  RenderOutput srgb;
  srgb.keepProfile = false;
  srgb.estimateStrength = exportOptions.estimateStrength;
  const ResampleEngine engine(std::move(source), &estimates);
  codec::PixelBuffer image =
      engine.exportImage({size.width, size.height}, exportOptions.method, srgb);
  canvas::ComposeTarget target;
  target.colourSpace = codec::ColourSpace::forFrame({}, false);
  const auto applied = canvas::CanvasComposer::apply(context.canvas, std::move(image), confirmation,
                                                     context, target);

  const std::vector<uint8_t> png = encoding::encodePNG(applied.image, {});
  writeFileAtomically(options.out, std::as_bytes(std::span(png)));
  fs::path confirmationFile = options.out;
  confirmationFile += ".tarnbloomcrop";
  writeFileAtomically(confirmationFile, canvas::confirmationJson(confirmation).dump(2) + "\n");
  const auto& rect = *context.canvas.cropRect;
  std::cout << "Preview: " << options.out.string() << " (" << rect.w << " × " << rect.h << " at "
            << rect.x << "," << rect.y << " of the " << size.width << " × " << size.height
            << " enlargement)\n"
            << "Confirmation: " << confirmationFile.string() << '\n';
  return kExitSuccess;
}

}  // namespace

int runCanvas(const std::vector<std::string>& arguments) {
  Options options;
  if (const auto done = parseCommandLine("canvas", arguments, kUsage, parseOptions, options))
    return *done;
  try {
    return preview(options);
  } catch (const Error& error) {
    std::cerr << "tarnbloom canvas: " << error.description();
    if (const auto hint = error.recoverySuggestion(); !hint.empty()) std::cerr << ' ' << hint;
    std::cerr << '\n';
    if (const auto details = error.details(); !details.empty())
      std::cerr << "  " << details << '\n';
    return kExitFailure;
  }
}

}  // namespace tarnbloom::cli
