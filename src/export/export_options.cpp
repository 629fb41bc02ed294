#include "export/export_options.h"

#include <cmath>

#include "export/export_queue_error.h"
#include "support/locale_numbers.h"
#include "support/settings.h"

namespace tarnbloom::exporting {

using encoding::ExportFormat;

ExportOptions ExportOptions::saved(const Settings& settings) {
  ExportOptions options;
  if (const auto mode = settings.string("sizeMode"); mode && sizeModeFromRawValue(*mode)) {
    options.sizeMode = *sizeModeFromRawValue(*mode);
  } else if (const auto scale = settings.number("scale")) {
    // Versions before size modes stored only a quick factor.
    if (const auto quick = sizeModeFromQuickScale(static_cast<int>(*scale));
        quick && *scale == std::floor(*scale))
      options.sizeMode = *quick;
  }
  options.sizeValue = settings.number("sizeValue").value_or(options.sizeValue);
  options.boxWidth = settings.number("boxWidth").value_or(options.boxWidth);
  options.boxHeight = settings.number("boxHeight").value_or(options.boxHeight);
  if (const auto format = settings.string("format"))
    options.format = encoding::exportFormatFromRawValue(*format).value_or(options.format);
  options.formatFollowsSource = settings.boolean("formatFollowsSource").value_or(false);
  if (const auto method = settings.string("method"))
    options.method = resampleMethodFromRawValue(*method).value_or(options.method);
  if (const auto strength = settings.number("estimateStrength");
      strength && std::isfinite(*strength))
    options.estimateStrength = std::clamp(*strength, 0.1, 1.0);
  options.colourPolicy = encoding::ColourPolicy::saved(settings);
  options.jpeg = encoding::JPEGOptions::saved(settings);
  options.webp = encoding::WebPOptions::saved(settings);
  return options;
}

void ExportOptions::save(Settings& settings) const {
  settings.set("sizeMode", std::string(rawValue(sizeMode)));
  settings.set("sizeValue", sizeValue);
  settings.set("boxWidth", boxWidth);
  settings.set("boxHeight", boxHeight);
  settings.set("format", std::string(encoding::rawValue(format)));
  settings.set("formatFollowsSource", formatFollowsSource);
  settings.set("method", std::string(rawValue(method)));
  settings.set("estimateStrength", estimateStrength);
  colourPolicy.save(settings);
  jpeg.save(settings);
  webp.save(settings);
}

ExportOptions ExportOptions::followingSource() const {
  ExportOptions copy = *this;
  copy.formatFollowsSource = true;
  return copy;
}

ExportFormat ExportOptions::resolvedFormat(const std::filesystem::path& source) const {
  return formatFollowsSource ? encoding::matchingFormat(source) : format;
}

ResolvedSize ExportOptions::resolvedSize(int64_t sourceWidth, int64_t sourceHeight,
                                         int sourceBitsPerComponent,
                                         ExportFormat outputFormat) const {
  return DimensionResolver::resolve(sourceWidth, sourceHeight, sizeMode, sizeValue, boxWidth,
                                    boxHeight, sourceBitsPerComponent,
                                    std::string(encoding::rawValue(outputFormat)), false);
}

std::string ExportOptions::sizeLabel() const {
  const auto pixels = [](double v) { return groupedNumber(static_cast<int64_t>(std::llround(v))); };
  switch (sizeMode) {
    case SizeMode::x2:
      return "2×";
    case SizeMode::x4:
      return "4×";
    case SizeMode::x8:
      return "8×";
    case SizeMode::longEdge:
      return "Long edge " + pixels(sizeValue) + " px";
    case SizeMode::width:
      return "Width " + pixels(sizeValue) + " px";
    case SizeMode::height:
      return "Height " + pixels(sizeValue) + " px";
    case SizeMode::boundingBox:
      return "Fit in " + pixels(boxWidth) + " × " + pixels(boxHeight) + " px";
    case SizeMode::percent: {
      char text[32];
      std::snprintf(text, sizeof text, "%g%%", sizeValue);
      return text;
    }
  }
  return {};
}

ExportOptionsSnapshot::ExportOptionsSnapshot(const ExportOptions& options) {
  const auto& policy = options.colourPolicy;
  m_json = {
      {"sizeMode", rawValue(options.sizeMode)},
      {"format", encoding::rawValue(options.format)},
      {"method", rawValue(options.method)},
      {"sizeValue", options.sizeValue},
      {"boxWidth", options.boxWidth},
      {"boxHeight", options.boxHeight},
      {"profile", encoding::rawValue(policy.profile)},
      {"icc", encoding::rawValue(policy.icc)},
      {"exif", encoding::rawValue(policy.exif)},
      {"xmp", encoding::rawValue(policy.xmp)},
      {"gps", encoding::rawValue(policy.gps)},
      {"flatten", policy.flatten},
      {"jpegQuality", options.jpeg.quality},
      {"jpegFloor", options.jpeg.floor},
  };
  if (options.jpeg.subsampling)
    m_json["jpegSubsampling"] = encoding::rawValue(*options.jpeg.subsampling);
  if (options.jpeg.maxBytes) m_json["jpegMaxBytes"] = *options.jpeg.maxBytes;
  m_json["webpLossless"] = options.webp.lossless;
  m_json["webpQuality"] = options.webp.lossyQuality;
  m_json["webpEffort"] = options.webp.effort;
  m_json["estimateStrength"] = options.estimateStrength;
  m_json["formatFollowsSource"] = options.formatFollowsSource;
  if (options.heifQuality) m_json["heifQuality"] = *options.heifQuality;
}

namespace {

enum class JsonKind { string, number, integer, boolean };

bool hasKind(const nlohmann::json& value, JsonKind kind) {
  switch (kind) {
    case JsonKind::string:
      return value.is_string();
    case JsonKind::number:
      return value.is_number();
    case JsonKind::integer:
      return value.is_number_integer();
    case JsonKind::boolean:
      return value.is_boolean();
  }
  return false;
}

struct KeyRule {
  const char* key;
  JsonKind kind;
  bool required;
};

constexpr KeyRule kKeyRules[] = {
    {"sizeMode", JsonKind::string, true},
    {"format", JsonKind::string, true},
    {"method", JsonKind::string, true},
    {"sizeValue", JsonKind::number, true},
    {"boxWidth", JsonKind::number, true},
    {"boxHeight", JsonKind::number, true},
    {"profile", JsonKind::string, true},
    {"icc", JsonKind::string, true},
    {"exif", JsonKind::string, true},
    {"xmp", JsonKind::string, true},
    {"gps", JsonKind::string, true},
    {"flatten", JsonKind::string, true},
    {"jpegQuality", JsonKind::integer, true},
    {"jpegFloor", JsonKind::integer, true},
    {"jpegSubsampling", JsonKind::string, false},
    {"jpegMaxBytes", JsonKind::integer, false},
    {"webpLossless", JsonKind::boolean, true},
    {"webpQuality", JsonKind::number, true},
    {"webpEffort", JsonKind::integer, true},
    {"estimateStrength", JsonKind::number, false},
    {"formatFollowsSource", JsonKind::boolean, false},
    {"heifQuality", JsonKind::integer, false},
};

}  // namespace

ExportOptionsSnapshot ExportOptionsSnapshot::fromJson(const nlohmann::json& json) {
  if (!json.is_object()) throw ExportQueueError::decoding("the options of a job are not an object");
  ExportOptionsSnapshot snapshot;
  for (const auto& rule : kKeyRules) {
    const auto found = json.find(rule.key);
    if (found == json.end() || found->is_null()) {
      if (rule.required)
        throw ExportQueueError::decoding(std::string("“") + rule.key + "” is missing");
      continue;
    }
    const bool tooLarge = found->is_number_unsigned() && found->get<uint64_t>() > INT64_MAX;
    if (!hasKind(*found, rule.kind) || tooLarge)
      throw ExportQueueError::decoding(std::string("“") + rule.key + "” has the wrong type");
    snapshot.m_json[rule.key] = *found;
  }
  return snapshot;
}

ExportOptions ExportOptionsSnapshot::options() const {
  const auto unreadable = [] { return ExportQueueError::unreadableSettings(); };
  const auto text = [&](const char* key) { return m_json.at(key).get<std::string>(); };
  ExportOptions options;
  const auto mode = sizeModeFromRawValue(text("sizeMode"));
  if (!mode) throw unreadable();
  const auto format = encoding::exportFormatFromRawValue(text("format"));
  if (!format) throw unreadable();
  const auto method = resampleMethodFromRawValue(text("method"));
  if (!method) throw unreadable();
  const auto profile = encoding::profilePolicyFromRawValue(text("profile"));
  if (!profile) throw unreadable();
  encoding::MetadataToggle toggles[4];
  const char* toggleKeys[4] = {"icc", "exif", "xmp", "gps"};
  for (int i = 0; i < 4; ++i) {
    const auto toggle = encoding::metadataToggleFromRawValue(text(toggleKeys[i]));
    if (!toggle) throw unreadable();
    toggles[i] = *toggle;
  }
  options.sizeMode = *mode;
  options.format = *format;
  options.method = *method;
  options.colourPolicy.profile = *profile;
  options.colourPolicy.icc = toggles[0];
  options.colourPolicy.exif = toggles[1];
  options.colourPolicy.xmp = toggles[2];
  options.colourPolicy.gps = toggles[3];
  options.colourPolicy.flatten = text("flatten");
  if (const auto found = m_json.find("jpegSubsampling"); found != m_json.end())
    options.jpeg.subsampling = encoding::jpegSubsamplingFromRawValue(found->get<std::string>());
  // A strength missing from an older queue restores at full strength.
  options.estimateStrength = 1.0;
  if (const auto found = m_json.find("estimateStrength"); found != m_json.end()) {
    const double strength = found->get<double>();
    if (std::isfinite(strength)) options.estimateStrength = std::clamp(strength, 0.1, 1.0);
  }
  if (const auto found = m_json.find("formatFollowsSource"); found != m_json.end())
    options.formatFollowsSource = found->get<bool>();
  options.sizeValue = m_json.at("sizeValue").get<double>();
  options.boxWidth = m_json.at("boxWidth").get<double>();
  options.boxHeight = m_json.at("boxHeight").get<double>();
  options.jpeg.quality = m_json.at("jpegQuality").get<int>();
  options.jpeg.floor = m_json.at("jpegFloor").get<int>();
  if (const auto found = m_json.find("jpegMaxBytes"); found != m_json.end())
    options.jpeg.maxBytes = found->get<int64_t>();
  options.webp.lossless = m_json.at("webpLossless").get<bool>();
  options.webp.lossyQuality = m_json.at("webpQuality").get<float>();
  options.webp.effort = m_json.at("webpEffort").get<int32_t>();
  if (const auto found = m_json.find("heifQuality"); found != m_json.end())
    options.heifQuality = found->get<int>();
  return options;
}

}  // namespace tarnbloom::exporting
