#include "cli/enlarge_command.h"

#include <charconv>
#include <cmath>
#include <iostream>
#include <optional>
#include <set>

#include "cli/exit_codes.h"
#include "cli/help_option.h"
#include "cli/export_session.h"
#include "encoding/colour_policy.h"
#include "encoding/export_format.h"
#include "encoding/naming_engine.h"
#include "export/export_options.h"
#include "export/export_planner.h"

namespace tarnbloom::cli {
namespace {

namespace fs = std::filesystem;

constexpr const char* kUsage =
    "Usage: tarnbloom enlarge --size SIZE [OPTIONS] FILE|FOLDER...\n"
    "  SIZE: x2 | x4 | x8 | percent:N | long-edge:N | width:N | height:N | box:WxH\n"
    "  --method exact|clarity|enhance   (default exact)\n"
    "  --strength S         Enhance only: how much AI estimate to keep, 0.1...1.0 (default 0.5)\n"
    "  --out DIR            output folder (default: beside each source)\n"
    "  --name TEMPLATE      Naming template -- tokens: {source} {sku} {w} {h} {method} "
    "{format} {scale} {date} {index} {n}\n"
    "  --if-exists number|skip|overwrite   when the name is taken (default number: \"name 2\")\n"
    "  --receipts beside|store   receipt next to each export, or in the receipts folder (default "
    "store)\n"
    "  --recursive          also enlarge the images in folders inside FOLDER\n"
    "  --format same|png|jpeg|tiff|webp|avif|heic   (default: same as source)\n"
    "  --quality N          lossy quality 1...100 (JPEG 95, WebP 85, HEIC/AVIF 90)\n"
    "  --max-kb N           JPEG file size ceiling in kilobytes (1 KB = 1000 bytes)\n"
    "  --profile keep|srgb  --icc keep|strip  --exif keep|strip  --xmp keep|strip\n"
    "  --gps keep|strip     (default: keep profile, ICC, EXIF and XMP; strip GPS)\n"
    "  --flatten white|black|#RRGGBB   colour under transparency in JPEG (default white)\n"
    "  --allow-8bit         confirm that 16-bit sources may be reduced to 8 bits for JPEG and\n"
    "                       WebP (without it such files are skipped)\n";

struct SizeRequest {
  SizeMode mode = SizeMode::x2;
  double value = 0;
  double boxWidth = 0;
  double boxHeight = 0;
};

struct Options {
  ResampleMethod method = ResampleMethod::exact;
  SizeRequest size;
  std::filesystem::path out;  // empty: beside each source
  // None: the format that matches each source.
  std::optional<encoding::ExportFormat> format;
  std::optional<int> quality;
  std::optional<int64_t> maxBytes;
  double strength = 0.5;  // Enhance only
  encoding::ColourPolicy policy;
  std::string nameTemplate = encoding::NamingEngine::defaultTemplate();
  exporting::CollisionPolicy ifExists = exporting::CollisionPolicy::number;
  bool receiptsBeside = false;
  bool recursive = false;
  bool allow8Bit = false;
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
          throw UsageError("Unknown format “" + f +
                           "”; use same, png, jpeg, tiff, webp, avif or heic.");
        if (!encoding::isWritable(*format))
          throw UsageError(std::string(encoding::title(*format)) +
                           " can’t be written on this computer: no encoder for it is installed.");
        options.format = format;
      }
    } else if (a == "--strength") {
      const double strength = parseNumber(next(), "strength");
      if (!(strength >= 0.1 && strength <= 1.0))
        throw UsageError(
            "Strength must be a number from 0.1 to 1.0 (how much of the AI estimate to keep).");
      options.strength = strength;
    } else if (a == "--quality") {
      const double q = parseNumber(next(), "quality");
      if (q < 1 || q > 100 || q != std::floor(q))
        throw UsageError("Quality must be a whole number from 1 to 100.");
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
      (a == "--icc"    ? options.policy.icc
       : a == "--exif" ? options.policy.exif
       : a == "--xmp"  ? options.policy.xmp
                       : options.policy.gps) = *toggle;
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
    } else if (a == "--if-exists") {
      const std::string& v = next();
      if (v == "number")
        options.ifExists = exporting::CollisionPolicy::number;
      else if (v == "skip")
        options.ifExists = exporting::CollisionPolicy::skip;
      else if (v == "overwrite")
        options.ifExists = exporting::CollisionPolicy::replace;
      else
        throw UsageError("--if-exists takes number, skip or overwrite, not “" + v + "”.");
    } else if (a == "--receipts") {
      const std::string& v = next();
      if (v != "beside" && v != "store")
        throw UsageError("--receipts takes beside or store, not “" + v + "”.");
      options.receiptsBeside = v == "beside";
    } else if (a == "--recursive") {
      options.recursive = true;
    } else if (a == "--allow-8bit") {
      options.allow8Bit = true;
    } else if (a.size() > 1 && a[0] == '-') {
      throw UsageError("Unknown option “" + a + "”.");
    } else {
      options.files.emplace_back(a);
    }
  }
  if (!haveMethod) options.method = ResampleMethod::exact;
  if (!haveSize) throw UsageError("Choose a size with --size.");
  if (options.files.empty()) throw UsageError("Name at least one file or folder to enlarge.");
  return options;
}

exporting::ExportOptions exportOptions(const Options& options) {
  exporting::ExportOptions result;
  result.sizeMode = options.size.mode;
  result.sizeValue = options.size.value;
  result.boxWidth = options.size.boxWidth;
  result.boxHeight = options.size.boxHeight;
  result.formatFollowsSource = !options.format;
  if (options.format) result.format = *options.format;
  result.colourPolicy = options.policy;
  if (options.quality) {
    result.jpeg.quality = *options.quality;
    result.webp.lossyQuality = static_cast<float>(*options.quality);
    result.heifQuality = *options.quality;
  }
  result.jpeg.maxBytes = options.maxBytes;
  result.method = options.method;
  result.estimateStrength = options.strength;
  return result;
}

bool isStillImageName(const fs::path& path) {
  static const std::set<std::string> extensions = {
      "png",  "jpg",  "jpeg", "jpe", "tif", "tiff", "heic", "heif", "hif",
      "avif", "webp", "dng",  "cr2", "cr3", "nef",  "nrw",  "arw",  "raf",
      "orf",  "rw2",  "pef",  "srw", "x3f", "3fr",  "iiq"};
  std::string extension = path.extension().string();
  if (extension.size() < 2) return false;
  extension.erase(0, 1);
  for (char& c : extension) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return extensions.contains(extension);
}

// File-manager order: digit runs compare as numbers, so "photo 2" comes
// before "photo 10".
bool naturalLess(const fs::path& a, const fs::path& b) {
  const std::string x = a.string(), y = b.string();
  size_t i = 0, j = 0;
  while (i < x.size() && j < y.size()) {
    if (std::isdigit(static_cast<unsigned char>(x[i])) &&
        std::isdigit(static_cast<unsigned char>(y[j]))) {
      size_t i2 = i, j2 = j;
      while (i2 < x.size() && x[i2] == '0') ++i2;
      while (j2 < y.size() && y[j2] == '0') ++j2;
      size_t i3 = i2, j3 = j2;
      while (i3 < x.size() && std::isdigit(static_cast<unsigned char>(x[i3]))) ++i3;
      while (j3 < y.size() && std::isdigit(static_cast<unsigned char>(y[j3]))) ++j3;
      if (i3 - i2 != j3 - j2) return i3 - i2 < j3 - j2;
      if (const int c = x.compare(i2, i3 - i2, y, j2, j3 - j2); c != 0) return c < 0;
      i = i3, j = j3;
      continue;
    }
    if (x[i] != y[j]) return static_cast<unsigned char>(x[i]) < static_cast<unsigned char>(y[j]);
    ++i, ++j;
  }
  return x.size() - i < y.size() - j || (x.size() - i == y.size() - j && x < y);
}

// The files to enlarge: each file argument as given, and the still images
// of each folder in name order (inside folders too with --recursive, never
// inside the output folder).
std::vector<fs::path> expandInputs(const Options& options) {
  std::vector<fs::path> files;
  const fs::path out = options.out.empty() ? fs::path() : fs::weakly_canonical(options.out);
  for (const auto& argument : options.files) {
    std::error_code error;
    if (!fs::is_directory(argument, error)) {
      files.push_back(argument);
      continue;
    }
    std::vector<fs::path> found;
    bool hasFolders = false;
    const auto consider = [&](const fs::directory_entry& entry) {
      std::error_code e;
      if (entry.is_regular_file(e) && isStillImageName(entry.path())) found.push_back(entry.path());
    };
    if (options.recursive) {
      fs::recursive_directory_iterator it(argument, fs::directory_options::skip_permission_denied,
                                          error);
      for (; !error && it != fs::recursive_directory_iterator(); it.increment(error)) {
        const bool hidden = it->path().filename().string().starts_with(".");
        if (it->is_directory(error)) {
          if (hidden || (!out.empty() && fs::weakly_canonical(it->path()) == out))
            it.disable_recursion_pending();
          continue;
        }
        if (!hidden) consider(*it);
      }
    } else {
      for (fs::directory_iterator it(argument, error), end; !error && it != end;
           it.increment(error)) {
        std::error_code e;
        hasFolders = hasFolders || it->is_directory(e);
        consider(*it);
      }
    }
    std::sort(found.begin(), found.end(), naturalLess);
    if (found.empty())
      std::cerr << "“" << argument.string() << "” holds no still images"
                << (hasFolders ? " (add --recursive to look inside its folders)" : "") << ".\n";
    files.insert(files.end(), found.begin(), found.end());
  }
  return files;
}

}  // namespace

int runEnlarge(const std::vector<std::string>& arguments) {
  if (wantsHelp(arguments)) {
    std::cout << kUsage;
    return kExitSuccess;
  }
  Options options;
  try {
    options = parseOptions(arguments);
  } catch (const UsageError& error) {
    std::cerr << "tarnbloom enlarge: " << error.what() << '\n' << kUsage;
    return kExitUsage;
  }
  if (!options.out.empty()) {
    std::error_code error;
    fs::create_directories(options.out, error);
    if (!fs::is_directory(options.out)) {
      std::cerr << "tarnbloom enlarge: the output folder “" << options.out.string()
                << "” doesn’t exist and couldn’t be created.\n";
      return kExitUsage;
    }
  }
  const std::vector<fs::path> files = expandInputs(options);
  if (files.empty()) {
    std::cerr << "tarnbloom enlarge: nothing to enlarge.\n";
    return kExitUsage;
  }
  const exporting::ExportOptions exportOptions = cli::exportOptions(options);

  std::unique_ptr<ExportSession> session;
  try {
    session = std::make_unique<ExportSession>();
  } catch (const Error& error) {
    std::cerr << "tarnbloom enlarge: " << error.description() << '\n';
    return kExitFailure;
  }
  session->reportLoadFailure();
  session->recover(false);

  // The plan: each file's size and output name fixed before the run, so
  // names stay stable if the run is interrupted and resumed.
  exporting::JobDescription description;
  description.options = exportOptions;
  description.receiptsBesideExports = options.receiptsBeside;
  description.confirmed16BitReduction = options.allow8Bit;
  description.collision = options.ifExists;
  exporting::DestinationRule destination;
  if (!options.out.empty()) destination.folder = options.out;
  exporting::ExportPlanner planner(description, options.nameTemplate, destination);
  planner.reserve(session->controller().reservedOutputs());
  exporting::ExportPlan plan = planner.plan(files);

  if (options.maxBytes)
    for (const auto& item : plan.items)
      if (const auto format = exportOptions.resolvedFormat(item.url);
          format != encoding::ExportFormat::jpeg)
        std::cerr << item.url.filename().string() << ": --max-kb applies to JPEG only; "
                  << encoding::title(format) << " is written without a ceiling.\n";
  int skipped = 0, failed = 0;
  for (const auto& refusal : plan.refusals) {
    std::cout << refusal.source.filename().string() << ": " << refusal.text << '\n';
    ++(refusal.kind == exporting::PlanRefusal::Kind::skipped ? skipped : failed);
  }
  if (options.out.empty()) session->saveBesideOriginals();
  session->countSkippedBeforeRun(skipped);
  session->countFailedBeforeRun(failed);
  if (!plan.items.empty()) {
    try {
      session->controller().submit({plan.description, std::move(plan.items), {}, {}});
    } catch (const Error& error) {
      std::cerr << "tarnbloom enlarge: " << error.description() << '\n';
      return kExitFailure;
    }
  }
  return session->run();
}

}  // namespace tarnbloom::cli
