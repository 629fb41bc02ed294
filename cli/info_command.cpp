#include "cli/info_command.h"

#include <iostream>
#include <nlohmann/json.hpp>
#include <optional>

#include "cli/exit_codes.h"
#include "cli/help_option.h"
#include "codec/decoder_pool.h"
#include "engine/resample_engine.h"
#include "engine/source_probe.h"
#include "support/files.h"

namespace tarnbloom::cli {
namespace {

struct FileReport {
  std::string file;
  SourceProbe probe;
  int frames = 0;
  std::optional<SourceImage> image;
  std::optional<std::string> refusal;
  std::string details;  // what lies under the refusal, when known
};

FileReport inspect(const std::string& file) {
  FileReport report;
  report.file = file;
  codec::ContainerProbe header;
  try {
    const MappedFile mapped(file);
    header = codec::probeIsolated(mapped.bytes(), mapped.fd());
  } catch (const Error&) {
  }
  report.probe = SourceProbe::fromHeader(header);
  report.frames = header.opened ? header.frameCount : 0;
  try {
    report.image = ResampleEngine::load(file);
  } catch (const Error& error) {
    report.refusal = error.description();
    report.details = error.details();
  }
  return report;
}

void printJson(const FileReport& r) {
  const SourceImage* image = r.image ? &*r.image : nullptr;
  nlohmann::ordered_json object;
  object["file"] = r.file;
  object["readable"] = r.probe.readable;
  object["supportedFormat"] = r.probe.supportedFormat;
  object["notAnImage"] = r.probe.notAnImage;
  object["width"] = r.probe.width;
  object["height"] = r.probe.height;
  object["bitDepth"] = r.probe.bitDepth;
  object["orientation"] = r.probe.orientation;
  object["hasAlpha"] = image ? nlohmann::ordered_json(image->hasAlpha) : nullptr;
  object["frames"] = r.frames;
  object["profileName"] = image ? nlohmann::ordered_json(image->profileName()) : nullptr;
  object["nativeBitDepth"] =
      image && image->nativeBitDepth ? nlohmann::ordered_json(*image->nativeBitDepth) : nullptr;
  object["refusal"] = r.refusal ? nlohmann::ordered_json(*r.refusal) : nullptr;
  object["refusalDetails"] = r.details.empty() ? nullptr : nlohmann::ordered_json(r.details);
  std::cout << object.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace) << '\n';
}

void printText(const FileReport& r) {
  std::cout << r.file << '\n';
  if (r.image) {
    const SourceImage& image = *r.image;
    std::cout << "  size:        " << image.orientedWidth() << " × " << image.orientedHeight()
              << " pixels (upright)\n";
    std::cout << "  depth:       " << image.bitsPerComponent << " bits per channel";
    if (image.nativeBitDepth) std::cout << " (" << *image.nativeBitDepth << " in the file)";
    std::cout << '\n';
    std::cout << "  orientation: " << image.orientation << '\n';
    std::cout << "  alpha:       " << (image.hasAlpha ? "yes" : "no") << '\n';
    std::cout << "  frames:      " << r.frames << '\n';
    std::cout << "  profile:     " << image.profileName() << '\n';
  } else {
    std::cout << "  refused:     " << r.refusal.value_or("") << '\n';
    if (!r.details.empty()) std::cout << "  details:     " << r.details << '\n';
  }
}

}  // namespace

int runInfo(const std::vector<std::string>& arguments) {
  if (wantsHelp(arguments)) {
    std::cout << "Usage: tarnbloom info [--json] FILE...\n";
    return kExitSuccess;
  }
  bool json = false;
  std::vector<std::string> files;
  bool optionsEnded = false;
  for (const auto& argument : arguments) {
    if (!optionsEnded && argument == "--json") {
      json = true;
    } else if (!optionsEnded && argument == "--") {
      optionsEnded = true;
    } else if (!optionsEnded && argument.size() > 1 && argument[0] == '-') {
      std::cerr << "tarnbloom info: unknown option “" << argument << "”.\n"
                << "Usage: tarnbloom info [--json] FILE...\n";
      return kExitUsage;
    } else {
      files.push_back(argument);
    }
  }
  if (files.empty()) {
    std::cerr << "Usage: tarnbloom info [--json] FILE...\n";
    return kExitUsage;
  }

  bool anyRefused = false;
  for (const auto& file : files) {
    const FileReport report = inspect(file);
    anyRefused = anyRefused || !report.image;
    if (json)
      printJson(report);
    else
      printText(report);
  }
  return anyRefused ? kExitFailure : kExitSuccess;
}

}  // namespace tarnbloom::cli
