#include "cli/enlarge_command.h"

#include <unistd.h>

#include <charconv>
#include <chrono>
#include <cstdlib>
#include <cmath>
#include <cstdio>
#include <iostream>
#include <optional>
#include <set>

#include "cli/exit_codes.h"
#include "cli/render_progress_line.h"
#include "engine/dimension_resolver.h"
#include "engine/engine_error.h"
#include "engine/resample_engine.h"
#include "encoding/colour_policy.h"
#include "encoding/encoder_error.h"
#include "encoding/export_format.h"
#include "encoding/image_writer.h"
#include "encoding/jpeg_encoder.h"
#include "encoding/naming_engine.h"
#include "encoding/output_metadata.h"
#include "encoding/webp_encoder.h"
#include "support/files.h"

namespace tarnbloom::cli {
namespace {

constexpr const char* kUsage =
    "Usage: tarnbloom enlarge --method exact|clarity|enhance --size SIZE --out DIR [OPTIONS] FILE...\n"
    "  SIZE: x2 | x4 | x8 | percent:N | long-edge:N | width:N | height:N | box:WxH\n"
    "  --strength S         Enhance only: how much AI estimate to keep, 0.1...1.0 (default 0.5)\n"
    "  --format same|png|jpeg|tiff|webp|avif|heic   (default: same as source)\n"
    "  --quality N          lossy quality 1...100 (JPEG 95, WebP 85, HEIC/AVIF 90)\n"
    "  --max-kb N           JPEG file size ceiling in kilobytes (1 KB = 1000 bytes)\n"
    "  --profile keep|srgb  --icc keep|strip  --exif keep|strip  --xmp keep|strip\n"
    "  --gps keep|strip     (default: keep profile, ICC, EXIF and XMP; strip GPS)\n"
    "  --flatten white|black|#RRGGBB   colour under transparency in JPEG (default white)\n"
    "  --name TEMPLATE      Naming template -- tokens: {source} {sku} {w} {h} {method} "
    "{format} {scale} {date} {index} {n}\n";

struct SizeRequest {
  SizeMode mode = SizeMode::x2;
  double value = 0;
  double boxWidth = 0;
  double boxHeight = 0;
};

struct Options {
  ResampleMethod method = ResampleMethod::exact;
  SizeRequest size;
  std::filesystem::path out;
  // None: the format that matches each source.
  std::optional<encoding::ExportFormat> format;
  std::optional<int> quality;
  std::optional<int64_t> maxBytes;
  double strength = 0.5;  // Enhance only
  encoding::ColourPolicy policy;
  std::string nameTemplate = encoding::NamingEngine::defaultTemplate();
  std::vector<std::filesystem::path> files;
};

class UsageError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

double parseNumber(std::string_view text, const std::string& what) {
  double value = 0;
  const auto result = std::from_chars(text.data(), text.data() + text.size(), value);
  if (result.ec != std::errc() || result.ptr != text.data() + text.size())
    throw UsageError("“" + std::string(text) + "” is not a number for " + what + ".");
  return value;
}

SizeRequest parseSize(const std::string& text) {
  if (const auto quick = sizeModeFromRawValue(text); quick && quickFactor(*quick)) return {*quick};
  const auto colon = text.find(':');
  if (colon == std::string::npos) throw UsageError("Unknown size “" + text + "”.");
  const std::string kind = text.substr(0, colon);
  const std::string value = text.substr(colon + 1);
  if (kind == "percent") return {SizeMode::percent, parseNumber(value, "percent")};
  if (kind == "long-edge") return {SizeMode::longEdge, parseNumber(value, "long-edge")};
  if (kind == "width") return {SizeMode::width, parseNumber(value, "width")};
  if (kind == "height") return {SizeMode::height, parseNumber(value, "height")};
  if (kind == "box") {
    const auto x = value.find('x');
    if (x == std::string::npos) throw UsageError("A box size is written box:WIDTHxHEIGHT.");
    return {SizeMode::boundingBox, 0, parseNumber(value.substr(0, x), "box width"),
            parseNumber(value.substr(x + 1), "box height")};
  }
  throw UsageError("Unknown size “" + text + "”.");
}

Options parseOptions(const std::vector<std::string>& arguments) {
  Options options;
  bool haveSize = false, haveMethod = false;
  for (size_t i = 0; i < arguments.size(); ++i) {
    const std::string& a = arguments[i];
    auto next = [&]() -> const std::string& {
      if (i + 1 >= arguments.size()) throw UsageError(a + " needs a value.");
      return arguments[++i];
    };
    if (a == "--method") {
      const std::string& m = next();
      if (m == "exact")
        options.method = ResampleMethod::exact;
      else if (m == "clarity")
        options.method = ResampleMethod::clarity;
      else if (m == "enhance")
        options.method = ResampleMethod::estimate;
      else
        throw UsageError("Unknown method “" + m + "”.");
      haveMethod = true;
    } else if (a == "--size") {
      options.size = parseSize(next());
      haveSize = true;
    } else if (a == "--out") {
      options.out = next();
    } else if (a == "--format") {
      const std::string& f = next();
      if (f == "same") {
        options.format.reset();
      } else {
        const auto format = encoding::exportFormatFromRawValue(f);
        if (!format)
          throw UsageError("Unknown format “" + f + "”; use same, png, jpeg, tiff, webp, avif or heic.");
        if (!encoding::isWritable(*format))
          throw UsageError(std::string(encoding::title(*format)) +
                           " can’t be written on this computer: no encoder for it is installed.");
        options.format = format;
      }
    } else if (a == "--strength") {
      const double strength = parseNumber(next(), "strength");
      if (!(strength >= 0.1 && strength <= 1.0))
        throw UsageError("Strength must be a number from 0.1 to 1.0 (how much of the AI estimate to keep).");
      options.strength = strength;
    } else if (a == "--quality") {
      const double q = parseNumber(next(), "quality");
      if (q < 1 || q > 100 || q != std::floor(q)) throw UsageError("Quality must be a whole number from 1 to 100.");
      options.quality = static_cast<int>(q);
    } else if (a == "--max-kb") {
      const double kb = parseNumber(next(), "--max-kb");
      if (kb < 1 || kb > 1e9 || kb != std::floor(kb))
        throw UsageError("--max-kb must be a whole number of kilobytes, at least 1.");
      options.maxBytes = static_cast<int64_t>(kb) * 1000;
    } else if (a == "--profile") {
      const std::string& v = next();
      const auto profile = encoding::profilePolicyFromRawValue(v);
      if (!profile) throw UsageError("--profile takes keep or srgb, not “" + v + "”.");
      options.policy.profile = *profile;
    } else if (a == "--icc" || a == "--exif" || a == "--xmp" || a == "--gps") {
      const std::string& v = next();
      const auto toggle = encoding::metadataToggleFromRawValue(v);
      if (!toggle) throw UsageError(a + " takes keep or strip, not “" + v + "”.");
      (a == "--icc" ? options.policy.icc : a == "--exif" ? options.policy.exif
                    : a == "--xmp" ? options.policy.xmp : options.policy.gps) = *toggle;
    } else if (a == "--flatten") {
      try {
        options.policy.flatten = encoding::ColourPolicy::canonicalFlattenColour(next());
      } catch (const encoding::ColourPolicyError& error) {
        throw UsageError(error.description());
      }
    } else if (a == "--name") {
      const std::string& templ = next();
      try {
        encoding::NamingEngine::validateTemplate(templ);
      } catch (const encoding::NamingError& error) {
        throw UsageError(error.description());
      }
      if (templ.find('/') != std::string::npos || templ.empty())
        throw UsageError("A naming template names a file in the output folder: no “/”, not empty.");
      options.nameTemplate = templ;
    } else if (a.size() > 1 && a[0] == '-') {
      throw UsageError("Unknown option “" + a + "”.");
    } else {
      options.files.emplace_back(a);
    }
  }
  if (!haveMethod) options.method = ResampleMethod::exact;
  if (!haveSize) throw UsageError("Choose a size with --size.");
  if (options.out.empty()) throw UsageError("Choose an output folder with --out.");
  if (options.files.empty()) throw UsageError("Name at least one file to enlarge.");
  return options;
}

// Publishes bytes under the first free name the template gives, never
// replacing anything (the source least of all). A name taken by another
// process between the check and the publication is skipped. Returns the
// path written.
std::filesystem::path publish(const Options& options, const encoding::NamingFacts& facts,
                              const std::vector<uint8_t>& bytes, const SourceImage& source) {
  std::set<std::filesystem::path> lost;
  const auto taken = [&](const std::filesystem::path& path) {
    std::error_code error;
    return lost.contains(path) || std::filesystem::exists(std::filesystem::symlink_status(path, error));
  };
  auto target = encoding::NamingEngine::resolveOutputPath(options.out, options.nameTemplate, facts,
                                                          false, taken);
  ResampleEngine::validateDestination(target, source);
  AtomicFileWriter writer(target);
  writer.write(std::as_bytes(std::span(bytes)));
  for (int tries = 0; tries < 1000; ++tries) {
    if (writer.commitWithoutReplacing()) return target;
    lost.insert(target);
    target = encoding::NamingEngine::resolveOutputPath(options.out, options.nameTemplate, facts,
                                                       false, taken);
    ResampleEngine::validateDestination(target, source);
    writer.retarget(target);
  }
  throw EngineError::encode(target);
}

float linearFromSRGB(double c) {
  return static_cast<float>(c <= 0.04045 ? c / 12.92 : std::pow((c + 0.055) / 1.055, 2.4));
}

// Where an enlargement's time goes, printed when TARNBLOOM_TIMINGS is set.
class PhaseTimer {
 public:
  PhaseTimer() : m_enabled(std::getenv("TARNBLOOM_TIMINGS") != nullptr) {}
  void mark(const char* phase) {
    const auto now = std::chrono::steady_clock::now();
    if (m_enabled)
      m_line += std::string(m_line.empty() ? "" : "  ") + phase + " " +
                std::to_string(std::chrono::duration<double>(now - m_last).count()).substr(0, 5) + " s";
    m_last = now;
  }
  ~PhaseTimer() {
    if (m_enabled) std::cerr << "timings: " << m_line << '\n';
  }

 private:
  bool m_enabled;
  std::string m_line;
  std::chrono::steady_clock::time_point m_last = std::chrono::steady_clock::now();
};

void enlargeOne(const Options& options, const std::filesystem::path& file, int64_t index,
                bool showProgress) {
  PhaseTimer timer;
  SourceImage source = ResampleEngine::load(file);
  timer.mark("load");
  using encoding::ExportFormat;
  const ExportFormat format = options.format.value_or(encoding::matchingFormat(file));
  const bool sixteenBit = source.bitsPerComponent == 16 && encoding::supports16Bit(format);
  const ResolvedSize size = DimensionResolver::resolve(
      source.orientedWidth(), source.orientedHeight(), options.size.mode, options.size.value,
      options.size.boxWidth, options.size.boxHeight, source.bitsPerComponent,
      std::string(encoding::rawValue(format)), false);
  // WebP's side limit is known before any pixel is rendered.
  if (format == ExportFormat::webp) encoding::WebPEncoder::preflight(size.width, size.height);
  if (options.maxBytes && format != ExportFormat::jpeg)
    std::cerr << file.filename().string() << ": --max-kb applies to JPEG only; "
              << encoding::title(format) << " is written without a ceiling.\n";
  if (source.bitsPerComponent == 16 && !sixteenBit)
    std::cerr << file.filename().string() << ": 16-bit source reduced to 8-bit for "
              << encoding::title(format) << ".\n";

  // WebP, HEIC and AVIF store colour only: a grey source goes to them as
  // sRGB grey, since its grey profile cannot describe RGB pixels.
  encoding::ColourPolicy policy = options.policy;
  if (!source.isRGB() && (format == ExportFormat::webp || format == ExportFormat::heic ||
                          format == ExportFormat::avif))
    policy.profile = encoding::ProfilePolicy::srgb;
  RenderOutput output;
  output.estimateStrength = options.strength;
  output.keepProfile = policy.profile == encoding::ProfilePolicy::keep;
  output.sixteenBit = sixteenBit;
  if (!encoding::supportsAlpha(format) && source.hasAlpha) {
    const auto rgb = encoding::ColourPolicy::resolveFlattenColourSRGB(options.policy.flatten);
    output.flatten = std::array<float, 3>{linearFromSRGB(rgb[0]), linearFromSRGB(rgb[1]),
                                          linearFromSRGB(rgb[2])};
  }
  std::vector<std::string> claims;
  if (options.method == ResampleMethod::estimate)
    claims.emplace_back(encoding::kClaimEstimateExport);
  const encoding::OutputMetadata metadata =
      encoding::OutputMetadata::resolve(source, policy, claims, size.width, size.height);

  const ResampleEngine engine(std::move(source));
  timer.mark("linearise");
  RenderProgressLine line(file.filename().string(), showProgress);
  const codec::PixelBuffer image = engine.exportImage(
      {size.width, size.height}, options.method, output,
      [&](int64_t done, int64_t total) { line.update(done, total); });
  line.finish();
  timer.mark("render");

  std::vector<uint8_t> bytes;
  std::string note;
  switch (format) {
    case ExportFormat::png: bytes = encoding::encodePNG(image, metadata); break;
    case ExportFormat::tiff: bytes = encoding::encodeTIFF(image, metadata); break;
    case ExportFormat::avif:
    case ExportFormat::heic:
      bytes = encoding::encodeHEIF(format, image, metadata,
                                   options.quality.value_or(encoding::kImageWriterLossyQuality));
      break;
    case ExportFormat::webp: {
      encoding::WebPOptions webp;
      if (options.quality) webp.lossyQuality = static_cast<float>(*options.quality);
      bytes = encoding::WebPEncoder::encode(image, metadata, webp);
      break;
    }
    case ExportFormat::jpeg: {
      encoding::JPEGOptions jpeg;
      if (options.quality) jpeg.quality = *options.quality;
      jpeg.maxBytes = options.maxBytes;
      auto result = encoding::JPEGEncoder::encode(image, metadata, jpeg);
      if (result.report.floorHit)
        note = " — reached the minimum JPEG quality (Q" + std::to_string(result.report.qualityUsed) +
               ") without meeting the target file size";
      else if (options.maxBytes)
        note = " — JPEG quality " + std::to_string(result.report.qualityUsed);
      bytes = std::move(result.data);
      break;
    }
  }
  timer.mark("encode");
  encoding::NamingFacts facts;
  facts.sourcePath = file;
  facts.outputWidth = size.width;
  facts.outputHeight = size.height;
  facts.method = std::string(rawValue(options.method));
  facts.formatToken = std::string(encoding::rawValue(format));
  facts.index = index;
  facts.scaleFactor = size.scaleFactor;
  const auto written = publish(options, facts, bytes, engine.source());
  timer.mark("write");
  std::cout << file.filename().string() << " → " << written.string() << " (" << size.width << " × "
            << size.height << ")" << note << "\n";
}

}  // namespace

int runEnlarge(const std::vector<std::string>& arguments) {
  Options options;
  try {
    options = parseOptions(arguments);
  } catch (const UsageError& error) {
    std::cerr << "tarnbloom enlarge: " << error.what() << '\n' << kUsage;
    return kExitUsage;
  }
  std::error_code error;
  std::filesystem::create_directories(options.out, error);
  if (!std::filesystem::is_directory(options.out)) {
    std::cerr << "tarnbloom enlarge: the output folder “" << options.out.string()
              << "” doesn’t exist and couldn’t be created.\n";
    return kExitUsage;
  }

  const bool showProgress = ::isatty(STDERR_FILENO);
  int failed = 0;
  for (size_t i = 0; i < options.files.size(); ++i) {
    const auto& file = options.files[i];
    try {
      enlargeOne(options, file, static_cast<int64_t>(i) + 1, showProgress);
    } catch (const Error& e) {
      ++failed;
      std::cerr << file.filename().string() << ": " << e.description();
      if (const auto hint = e.recoverySuggestion(); !hint.empty()) std::cerr << ' ' << hint;
      std::cerr << '\n';
    } catch (const std::exception& e) {
      ++failed;
      std::cerr << file.filename().string() << ": " << e.what() << '\n';
    }
  }
  if (failed == 0) return kExitSuccess;
  return failed == static_cast<int>(options.files.size()) ? kExitFailure : kExitPartial;
}

}  // namespace tarnbloom::cli
