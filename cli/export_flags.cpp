#include "cli/export_flags.h"

#include <charconv>
#include <cmath>

#include "encoding/naming_engine.h"

namespace tarnbloom::cli {

namespace {

void parseSize(const std::string& text, ExportFlags& flags) {
  flags.haveSize = true;
  flags.sizeValue = flags.boxWidth = flags.boxHeight = 0;
  if (const auto quick = sizeModeFromRawValue(text); quick && quickFactor(*quick)) {
    flags.sizeMode = *quick;
    return;
  }
  const auto colon = text.find(':');
  if (colon == std::string::npos) throw UsageError("Unknown size “" + text + "”.");
  const std::string kind = text.substr(0, colon);
  const std::string value = text.substr(colon + 1);
  if (kind == "box") {
    const auto x = value.find('x');
    if (x == std::string::npos) throw UsageError("A box size is written box:WIDTHxHEIGHT.");
    flags.sizeMode = SizeMode::boundingBox;
    flags.boxWidth = parseNumber(value.substr(0, x), "box width");
    flags.boxHeight = parseNumber(value.substr(x + 1), "box height");
    return;
  }
  if (kind == "percent")
    flags.sizeMode = SizeMode::percent;
  else if (kind == "long-edge")
    flags.sizeMode = SizeMode::longEdge;
  else if (kind == "width")
    flags.sizeMode = SizeMode::width;
  else if (kind == "height")
    flags.sizeMode = SizeMode::height;
  else
    throw UsageError("Unknown size “" + text + "”.");
  flags.sizeValue = parseNumber(value, kind);
}

}  // namespace

double parseNumber(std::string_view text, const std::string& what) {
  double value = 0;
  const auto result = std::from_chars(text.data(), text.data() + text.size(), value);
  if (result.ec != std::errc() || result.ptr != text.data() + text.size())
    throw UsageError("“" + std::string(text) + "” is not a number for " + what + ".");
  return value;
}

bool ExportFlags::parse(const std::vector<std::string>& arguments, size_t& i) {
  ExportFlags& flags = *this;
  const std::string& a = arguments[i];
  auto next = [&]() -> const std::string& {
    if (i + 1 >= arguments.size()) throw UsageError(a + " needs a value.");
    return arguments[++i];
  };
  if (a == "--method") {
    const std::string& m = next();
    if (m == "exact")
      flags.method = ResampleMethod::exact;
    else if (m == "clarity")
      flags.method = ResampleMethod::clarity;
    else if (m == "enhance")
      flags.method = ResampleMethod::estimate;
    else
      throw UsageError("Unknown method “" + m + "”.");
  } else if (a == "--size") {
    parseSize(next(), flags);
  } else if (a == "--format") {
    const std::string& f = next();
    if (f == "same") {
      flags.format.reset();
    } else {
      const auto format = encoding::exportFormatFromRawValue(f);
      if (!format)
        throw UsageError("Unknown format “" + f +
                         "”; use same, png, jpeg, tiff, webp, avif or heic.");
      if (!encoding::isWritable(*format))
        throw UsageError(std::string(encoding::title(*format)) +
                         " can’t be written on this computer: no encoder for it is installed.");
      flags.format = format;
    }
  } else if (a == "--strength") {
    const double strength = parseNumber(next(), "strength");
    if (!(strength >= 0.1 && strength <= 1.0))
      throw UsageError(
          "Strength must be a number from 0.1 to 1.0 (how much of the AI estimate to keep).");
    flags.strength = strength;
  } else if (a == "--quality") {
    const double q = parseNumber(next(), "quality");
    if (q < 1 || q > 100 || q != std::floor(q))
      throw UsageError("Quality must be a whole number from 1 to 100.");
    flags.quality = static_cast<int>(q);
  } else if (a == "--max-kb") {
    const double kb = parseNumber(next(), "--max-kb");
    if (kb < 1 || kb > 1e9 || kb != std::floor(kb))
      throw UsageError("--max-kb must be a whole number of kilobytes, at least 1.");
    flags.maxBytes = static_cast<int64_t>(kb) * 1000;
  } else if (a == "--profile") {
    const std::string& v = next();
    const auto profile = encoding::profilePolicyFromRawValue(v);
    if (!profile) throw UsageError("--profile takes keep or srgb, not “" + v + "”.");
    flags.policy.profile = *profile;
  } else if (a == "--icc" || a == "--exif" || a == "--xmp" || a == "--gps") {
    const std::string& v = next();
    const auto toggle = encoding::metadataToggleFromRawValue(v);
    if (!toggle) throw UsageError(a + " takes keep or strip, not “" + v + "”.");
    (a == "--icc"    ? flags.policy.icc
     : a == "--exif" ? flags.policy.exif
     : a == "--xmp"  ? flags.policy.xmp
                     : flags.policy.gps) = *toggle;
  } else if (a == "--flatten") {
    try {
      flags.policy.flatten = encoding::ColourPolicy::canonicalFlattenColour(next());
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
    flags.nameTemplate = templ;
  } else if (a == "--canvas") {
    const std::string& v = next();
    const auto x = v.find('x');
    const double w = x == std::string::npos ? 0 : parseNumber(v.substr(0, x), "--canvas");
    const double h = x == std::string::npos ? 0 : parseNumber(v.substr(x + 1), "--canvas");
    if (w < 1 || h < 1 || w != std::floor(w) || h != std::floor(h) || w > 1e6 || h > 1e6)
      throw UsageError("A canvas is written --canvas WIDTHxHEIGHT in whole pixels, at least 1.");
    if (!flags.canvas) flags.canvas = canvas::Canvas{};
    flags.canvas->width = static_cast<int64_t>(w);
    flags.canvas->height = static_cast<int64_t>(h);
  } else if (a == "--fill") {
    const std::string& v = next();
    if (!flags.canvas) flags.canvas = canvas::Canvas{};
    if (v == "transparent") {
      flags.canvas->fill = canvas::CanvasFill{canvas::CanvasFill::Kind::transparent, {}};
    } else if (v.size() == 7 && v[0] == '#' &&
               v.find_first_not_of("0123456789abcdefABCDEF", 1) == std::string::npos) {
      flags.canvas->fill = canvas::CanvasFill{canvas::CanvasFill::Kind::colour, v};
    } else {
      throw UsageError("--fill takes transparent or a colour #RRGGBB, not “" + v + "”.");
    }
  } else if (a == "--crop") {
    const std::string& v = next();
    const auto comma = v.find(',');
    const double x = comma == std::string::npos ? -1 : parseNumber(v.substr(0, comma), "--crop");
    const double y = comma == std::string::npos ? -1 : parseNumber(v.substr(comma + 1), "--crop");
    if (x < 0 || y < 0 || x != std::floor(x) || y != std::floor(y) || x > 1e9 || y > 1e9)
      throw UsageError(
          "A crop is written --crop X,Y: the crop's top left corner in pixels of "
          "the enlargement.");
    if (!flags.canvas) flags.canvas = canvas::Canvas{};
    flags.canvas->mode = canvas::CanvasMode::crop;
    flags.canvas->cropRect = canvas::CropRect{static_cast<int64_t>(x), static_cast<int64_t>(y)};
  } else {
    return false;
  }
  touched = true;
  return true;
}

void ExportFlags::finish() const {
  if (!canvas) return;
  if (canvas->width < 1) throw UsageError("--fill and --crop need --canvas WIDTHxHEIGHT.");
  if (canvas->mode == canvas::CanvasMode::crop && canvas->fill)
    throw UsageError("A crop fills the whole canvas: --fill does not go with --crop.");
}

exporting::ExportOptions ExportFlags::exportOptions() const {
  const ExportFlags& options = *this;
  exporting::ExportOptions result;
  result.sizeMode = options.sizeMode;
  result.sizeValue = options.sizeValue;
  result.boxWidth = options.boxWidth;
  result.boxHeight = options.boxHeight;
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
  result.canvas = options.canvas;
  if (result.canvas && result.canvas->cropRect) {
    result.canvas->cropRect->w = result.canvas->width;
    result.canvas->cropRect->h = result.canvas->height;
  }
  return result;
}

std::string ExportFlags::templateOrDefault() const {
  return nameTemplate.value_or(encoding::NamingEngine::defaultTemplate());
}

}  // namespace tarnbloom::cli
