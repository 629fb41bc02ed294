#include "cli/enlarge_command.h"

#include <unistd.h>

#include <charconv>
#include <chrono>
#include <cstdlib>
#include <cmath>
#include <cstdio>
#include <iostream>
#include <optional>

#include "cli/exit_codes.h"
#include "cli/image_writers.h"
#include "cli/render_progress_line.h"
#include "engine/dimension_resolver.h"
#include "engine/engine_error.h"
#include "engine/resample_engine.h"
#include "support/files.h"

namespace tarnbloom::cli {
namespace {

constexpr const char* kUsage =
    "Usage: tarnbloom enlarge --method exact --size SIZE --out DIR [--format png|jpeg] "
    "[--quality N] FILE...\n"
    "  SIZE: x2 | x4 | x8 | percent:N | long-edge:N | width:N | height:N | box:WxH\n";

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
  std::optional<std::string> format;
  int quality = 90;
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
      else if (m == "clarity" || m == "enhance")
        throw UsageError("The " + m + " method is not available in this version; use --method exact.");
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
      if (f != "png" && f != "jpeg") throw UsageError("Unknown format “" + f + "”; use png or jpeg.");
      options.format = f;
    } else if (a == "--quality") {
      const double q = parseNumber(next(), "quality");
      if (q < 1 || q > 100 || q != std::floor(q)) throw UsageError("Quality must be a whole number from 1 to 100.");
      options.quality = static_cast<int>(q);
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

std::string scaleLabel(double scale) {
  char text[32];
  std::snprintf(text, sizeof text, "%.2f", scale);
  std::string label = text;
  while (label.back() == '0') label.pop_back();
  if (label.back() == '.') label.pop_back();
  return label + "x";
}

// Publishes bytes as DIR/NAME, numbering the name when it is taken; never
// replaces anything. Returns the path written.
std::filesystem::path publish(const std::filesystem::path& folder, const std::string& stem,
                              const std::string& extension, const std::vector<uint8_t>& bytes) {
  AtomicFileWriter writer(folder / (stem + extension));
  writer.write(std::as_bytes(std::span(bytes)));
  for (int n = 1; n < 10000; ++n) {
    const auto target = folder / (n == 1 ? stem + extension : stem + "-" + std::to_string(n) + extension);
    writer.retarget(target);
    if (writer.commitWithoutReplacing()) return target;
  }
  throw EngineError::encode(folder / (stem + extension));
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

void enlargeOne(const Options& options, const std::filesystem::path& file, bool showProgress) {
  PhaseTimer timer;
  SourceImage source = ResampleEngine::load(file);
  timer.mark("load");
  const std::string format =
      options.format.value_or(source.container == codec::Container::jpeg ? "jpeg" : "png");
  const ResolvedSize size = DimensionResolver::resolve(
      source.orientedWidth(), source.orientedHeight(), options.size.mode, options.size.value,
      options.size.boxWidth, options.size.boxHeight, source.bitsPerComponent, format, false);

  RenderOutput output;
  output.keepProfile = true;
  output.sixteenBit = format == "png" && source.bitsPerComponent == 16;
  // JPEG has no alpha: composite onto white.
  if (format == "jpeg" && source.hasAlpha) output.flatten = std::array<float, 3>{1.0f, 1.0f, 1.0f};

  const std::vector<uint8_t> icc = source.colorSpace.iccProfile;
  const std::string stem = file.stem().string() + "-" + std::string(rawValue(options.method)) + "-" +
                           scaleLabel(size.scaleFactor);
  const ResampleEngine engine(std::move(source));
  timer.mark("linearise");
  RenderProgressLine line(file.filename().string(), showProgress);
  const codec::PixelBuffer image = engine.exportImage(
      {size.width, size.height}, options.method, output,
      [&](int64_t done, int64_t total) { line.update(done, total); });
  line.finish();
  timer.mark("render");

  const auto bytes = format == "jpeg" ? encodeJpeg(image, options.quality, icc) : encodePng(image, icc);
  timer.mark("encode");
  ResampleEngine::validateDestination(options.out / (stem + (format == "jpeg" ? ".jpg" : ".png")), engine.source());
  const auto written = publish(options.out, stem, format == "jpeg" ? ".jpg" : ".png", bytes);
  timer.mark("write");
  std::cout << file.filename().string() << " → " << written.string() << " (" << size.width << " × "
            << size.height << ")\n";
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
  for (const auto& file : options.files) {
    try {
      enlargeOne(options, file, showProgress);
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
