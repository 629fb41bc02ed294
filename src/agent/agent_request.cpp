#include "agent/agent_request.h"

#include <cmath>

#include "agent/agent_json.h"
#include "canvas/canvas_json.h"
#include "export/export_job.h"
#include "export/export_options.h"

namespace tarnbloom::agent {
namespace {

using detail::DocumentKind;
using detail::Json;
using detail::ObjectReader;
using detail::OrderedJson;

[[noreturn]] void refuse(AgentErrorInfo info, std::string details = {}) {
  throw AgentProtocolError(std::move(info), std::move(details));
}

// Another schema or protocol, told before anything else is read: a newer
// request is likely to hold keys and values this version cannot read, and
// "not a valid request" would hide the real reason.
void checkVersion(const Json& root) {
  const auto schema = root.find("schema");
  const auto protocol = root.find("protocol");
  const bool schemaMatches = schema != root.end() && schema->is_string() &&
                             schema->get_ref<const std::string&>() == AgentProtocol::requestSchema;
  // 1.0 is the same number as 1; a protocol of 1.5 or "1" is not ours.
  const bool protocolMatches = protocol != root.end() && protocol->is_number() &&
                               protocol->get<double>() == double(AgentProtocol::version);
  if (!schemaMatches || !protocolMatches)
    refuse(AgentErrorInfo::versionMismatch(),
           "schema " + (schema == root.end() ? std::string("absent") : schema->dump()) +
               ", protocol " + (protocol == root.end() ? std::string("absent") : protocol->dump()));
}

std::string_view rawValue(AgentReceipts receipts) {
  return receipts == AgentReceipts::beside ? "beside" : "store";
}

template <typename Value>
std::optional<Value> optionalRaw(const ObjectReader& fields, std::string_view key,
                                 std::optional<Value> (*fromRaw)(std::string_view)) {
  const auto text = fields.optionalString(key);
  if (!text) return std::nullopt;
  const auto value = fromRaw(*text);
  if (!value)
    fields.fail("“" + *text + "” at " + fields.path(key) + " is not a value this version knows.");
  return value;
}

std::optional<AgentReceipts> receiptsFromRawValue(std::string_view text) {
  if (text == "beside") return AgentReceipts::beside;
  if (text == "store") return AgentReceipts::store;
  return std::nullopt;
}

// The canvas object as canvas::canvasJson writes it; `raw` is the object
// `fields` reads. Unknown keys are refused here, the shape by the canvas
// reader itself.
canvas::Canvas readCanvas(const ObjectReader& fields, const Json& raw, std::string_view where) {
  fields.refuseUnknownKeys({"mode", "width", "height", "fill", "crop_rect"});
  if (const auto fill = fields.optionalObject("fill")) fill->refuseUnknownKeys({"kind", "value"});
  if (const auto rect = fields.optionalObject("crop_rect"))
    rect->refuseUnknownKeys({"x", "y", "w", "h"});
  const auto canvas = canvas::canvasFromJson(raw);
  if (!canvas) fields.fail("The canvas at " + std::string(where) + " is incomplete or mistyped.");
  return *canvas;
}

canvas::CanvasConfirmation readConfirmation(const ObjectReader& fields, const Json& raw) {
  fields.refuseUnknownKeys({"source_sha256", "resampled_width", "resampled_height", "canvas",
                            "format", "fingerprint", "subject_centre"});
  if (fields.has("canvas"))
    readCanvas(fields.object("canvas"), raw.at("canvas"), fields.path("canvas"));
  const auto confirmation = canvas::confirmationFromJson(raw);
  if (!confirmation)
    fields.fail(
        "The canvas confirmation at settings.canvas_confirmation is malformed or does not match "
        "its fingerprint.");
  return *confirmation;
}

AgentExportSettings readSettings(const ObjectReader& fields, const Json& raw) {
  fields.refuseUnknownKeys({"max_kb", "jpeg_quality", "webp_quality", "heif_quality", "profile",
                            "icc", "exif", "xmp", "gps", "flatten", "canvas", "canvas_confirmation",
                            "receipts", "allow_8bit", "shard"});
  AgentExportSettings settings;
  settings.maxKB = fields.optionalInteger("max_kb");
  settings.jpegQuality = fields.optionalInteger("jpeg_quality");
  settings.webpQuality = fields.optionalInteger("webp_quality");
  settings.heifQuality = fields.optionalInteger("heif_quality");
  settings.profile = optionalRaw(fields, "profile", encoding::profilePolicyFromRawValue);
  settings.icc = optionalRaw(fields, "icc", encoding::metadataToggleFromRawValue);
  settings.exif = optionalRaw(fields, "exif", encoding::metadataToggleFromRawValue);
  settings.xmp = optionalRaw(fields, "xmp", encoding::metadataToggleFromRawValue);
  settings.gps = optionalRaw(fields, "gps", encoding::metadataToggleFromRawValue);
  settings.flatten = fields.optionalString("flatten");
  if (const auto canvas = fields.optionalObject("canvas"))
    settings.canvas = readCanvas(*canvas, raw.at("canvas"), fields.path("canvas"));
  if (const auto confirmation = fields.optionalObject("canvas_confirmation"))
    settings.canvasConfirmation = readConfirmation(*confirmation, raw.at("canvas_confirmation"));
  settings.receipts = optionalRaw(fields, "receipts", receiptsFromRawValue);
  settings.allow8Bit = fields.optionalBoolean("allow_8bit");
  settings.shard = fields.optionalString("shard");
  return settings;
}

OrderedJson encodeSettings(const AgentExportSettings& settings) {
  OrderedJson object = OrderedJson::object();
  if (settings.maxKB) object["max_kb"] = *settings.maxKB;
  if (settings.jpegQuality) object["jpeg_quality"] = *settings.jpegQuality;
  if (settings.webpQuality) object["webp_quality"] = *settings.webpQuality;
  if (settings.heifQuality) object["heif_quality"] = *settings.heifQuality;
  if (settings.profile) object["profile"] = encoding::rawValue(*settings.profile);
  if (settings.icc) object["icc"] = encoding::rawValue(*settings.icc);
  if (settings.exif) object["exif"] = encoding::rawValue(*settings.exif);
  if (settings.xmp) object["xmp"] = encoding::rawValue(*settings.xmp);
  if (settings.gps) object["gps"] = encoding::rawValue(*settings.gps);
  if (settings.flatten) object["flatten"] = *settings.flatten;
  if (settings.canvas) object["canvas"] = canvas::canvasJson(*settings.canvas);
  if (settings.canvasConfirmation)
    object["canvas_confirmation"] = canvas::confirmationJson(*settings.canvasConfirmation);
  if (settings.receipts) object["receipts"] = rawValue(*settings.receipts);
  if (settings.allow8Bit) object["allow_8bit"] = *settings.allow8Bit;
  if (settings.shard) object["shard"] = *settings.shard;
  return object;
}

AgentErrorInfo invalidSetting(std::string message) {
  return {AgentErrorCode::invalidArgument, std::move(message)};
}

bool isHexColour(std::string_view text) {
  return text.size() == 7 && text[0] == '#' &&
         text.find_first_not_of("0123456789abcdefABCDEF", 1) == std::string_view::npos;
}

// The rules the command line's --canvas, --fill and --crop apply, on the
// canvas object: whole pixels, a colour fill as #RRGGBB, and a crop that is
// exactly the canvas with nothing to fill.
void validateCanvas(const canvas::Canvas& canvas) {
  constexpr int64_t kMaxSide = 1'000'000, kMaxOrigin = 1'000'000'000;
  if (canvas.width < 1 || canvas.height < 1 || canvas.width > kMaxSide || canvas.height > kMaxSide)
    refuse(invalidSetting("settings.canvas needs a width and a height from 1 to 1000000 pixels."));
  if (canvas.fill && canvas.fill->kind == canvas::CanvasFill::Kind::colour &&
      !isHexColour(canvas.fill->value))
    refuse(invalidSetting("settings.canvas fill takes transparent or a colour #RRGGBB."));
  const bool crop = canvas.mode == canvas::CanvasMode::crop;
  if (canvas.cropRect && !crop)
    refuse(invalidSetting("settings.canvas has a crop_rect, which only a crop canvas takes."));
  if (!crop) return;
  const auto& rect = canvas.cropRect;
  if (!rect || rect->x < 0 || rect->y < 0 || rect->x > kMaxOrigin || rect->y > kMaxOrigin ||
      rect->w != canvas.width || rect->h != canvas.height)
    refuse(invalidSetting(
        "settings.canvas crop needs a crop_rect of the canvas's size at a whole-pixel origin of "
        "at least 0."));
  if (canvas.fill)
    refuse(invalidSetting("A crop fills the whole canvas: settings.canvas takes no fill with it."));
}

}  // namespace

namespace detail {

OrderedJson encodeSize(const AgentSize& size) {
  OrderedJson object = {{"mode", rawValue(size.mode)}};
  if (size.value) object["value"] = *size.value;
  if (size.width) object["width"] = *size.width;
  if (size.height) object["height"] = *size.height;
  return object;
}

AgentSize readSize(const ObjectReader& fields) {
  AgentSize size;
  size.mode = fields.enumeration<AgentSizeMode>("mode");
  size.value = fields.optionalNumber("value");
  size.width = fields.optionalInteger("width");
  size.height = fields.optionalInteger("height");
  return size;
}

}  // namespace detail

std::string encodeRequest(const AgentRequest& request) {
  OrderedJson root;
  root["schema"] = AgentProtocol::requestSchema;
  root["protocol"] = AgentProtocol::version;
  root["job"] = request.job;
  root["command"] = rawValue(request.command);
  root["created_at"] = AgentProtocol::timestampString(request.createdAt);
  if (request.targetJob) root["target_job"] = *request.targetJob;
  if (!request.sources.empty()) {
    OrderedJson sources = OrderedJson::array();
    for (const AgentSource& source : request.sources)
      sources.push_back({{"path", source.path}, {"kind", rawValue(source.kind)}});
    root["sources"] = std::move(sources);
  }
  if (request.recipe) root["recipe"] = *request.recipe;
  if (request.size) root["size"] = detail::encodeSize(*request.size);
  if (request.method) root["method"] = rawValue(*request.method);
  if (request.strength) root["strength"] = *request.strength;
  if (request.format) root["format"] = rawValue(*request.format);
  if (request.quality) root["quality"] = *request.quality;
  if (request.out) root["out"] = *request.out;
  if (request.name) root["name"] = *request.name;
  if (request.recursive) root["recursive"] = *request.recursive;
  if (request.ifExists) root["if_exists"] = rawValue(*request.ifExists);
  if (request.useAppSettings) root["use_app_settings"] = *request.useAppSettings;
  if (request.dryRun) root["dry_run"] = *request.dryRun;
  if (request.notify) root["notify"] = *request.notify;
  if (request.settings) root["settings"] = encodeSettings(*request.settings);
  return detail::dumpDocument(root, true);
}

AgentRequest decodeRequest(std::span<const std::byte> bytes) {
  const Json root = detail::parseDocument(bytes, DocumentKind::request);
  checkVersion(root);

  const ObjectReader fields(root, "", DocumentKind::request);
  fields.refuseUnknownKeys(
      {"schema",  "protocol", "job",     "command",   "created_at", "target_job",
       "sources", "recipe",   "size",    "method",    "strength",   "format",
       "quality", "out",      "name",    "recursive", "if_exists",  "use_app_settings",
       "dry_run", "notify",   "settings"});
  AgentRequest request;
  request.job = fields.string("job");
  request.command = fields.enumeration<AgentCommand>("command");
  request.createdAt = fields.timestamp("created_at");
  request.targetJob = fields.optionalString("target_job");
  if (const auto* sources = fields.optionalArray("sources")) {
    size_t index = 0;
    for (const Json& element : *sources) {
      const ObjectReader source = fields.element("sources", element, index++);
      source.refuseUnknownKeys({"path", "kind"});
      request.sources.push_back(
          {source.string("path"), source.enumeration<AgentSourceKind>("kind")});
    }
  }
  request.recipe = fields.optionalString("recipe");
  if (const auto size = fields.optionalObject("size")) {
    size->refuseUnknownKeys({"mode", "value", "width", "height"});
    request.size = detail::readSize(*size);
  }
  request.method = fields.optionalEnumeration<AgentMethod>("method");
  request.strength = fields.optionalNumber("strength");
  request.format = fields.optionalEnumeration<AgentFormat>("format");
  request.quality = fields.optionalInteger("quality");
  request.out = fields.optionalString("out");
  request.name = fields.optionalString("name");
  request.recursive = fields.optionalBoolean("recursive");
  request.ifExists = fields.optionalEnumeration<AgentIfExists>("if_exists");
  request.useAppSettings = fields.optionalBoolean("use_app_settings");
  request.dryRun = fields.optionalBoolean("dry_run");
  request.notify = fields.optionalBoolean("notify");
  if (const auto settings = fields.optionalObject("settings"))
    request.settings = readSettings(*settings, root.at("settings"));
  return request;
}

void validateRequestHeader(const AgentRequest& request, WallTime now) {
  if (!AgentProtocol::isValidJobID(request.job)) refuse(AgentErrorInfo::jobIDNotUUID());
  if (now - request.createdAt > AgentProtocol::requestLifetime)
    refuse(AgentErrorInfo::requestExpired());
  if (request.createdAt - now > AgentProtocol::futureTolerance)
    refuse(AgentErrorInfo::requestFromTheFuture());
}

void requireAbsolute(std::string_view path, std::string_view what) {
  if (path.empty() || path.front() != '/') refuse(AgentErrorInfo::notAbsolutePath(what, path));
}

void validateSize(const AgentSize& size) {
  const auto pixelValueOK = [&] { return size.value && *size.value >= 1; };
  bool takesValue = true;
  switch (size.mode) {
    case AgentSizeMode::x2:
    case AgentSizeMode::x4:
    case AgentSizeMode::x8:
      takesValue = false;
      break;
    case AgentSizeMode::percent:
      if (!size.value || !std::isfinite(*size.value) || !(*size.value > 0))
        refuse(AgentErrorInfo::sizePercentNeedsPositiveValue());
      break;
    case AgentSizeMode::longEdge:
    case AgentSizeMode::width:
    case AgentSizeMode::height:
      if (!pixelValueOK()) refuse(AgentErrorInfo::sizeNeedsPixelValue(size.mode));
      break;
    case AgentSizeMode::box:
      if (!size.width || !size.height || *size.width < 1 || *size.height < 1)
        refuse(AgentErrorInfo::sizeBoxNeedsWidthAndHeight());
      takesValue = false;
      break;
  }
  const bool takesBox = size.mode == AgentSizeMode::box;
  if ((size.value && !takesValue) || ((size.width || size.height) && !takesBox))
    refuse(AgentErrorInfo::generic(AgentErrorCode::invalidArgument),
           "size " + std::string(rawValue(size.mode)) + " does not take that number");
}

void applySize(const AgentSize& size, exporting::ExportOptions& options) {
  validateSize(size);
  options.sizeMode = toSizeMode(size.mode);
  if (size.value) options.sizeValue = *size.value;
  if (size.width) options.boxWidth = static_cast<double>(*size.width);
  if (size.height) options.boxHeight = static_cast<double>(*size.height);
}

void validateStrength(double strength, ResampleMethod effectiveMethod) {
  if (!std::isfinite(strength) || strength < 0.0 || strength > 1.0)
    refuse(AgentErrorInfo::strengthOutOfRange());
  if (effectiveMethod != ResampleMethod::estimate) refuse(AgentErrorInfo::strengthNeedsEnhance());
}

void validateQuality(int64_t quality, std::optional<encoding::ExportFormat> effectiveFormat) {
  if (quality < 1 || quality > 100) refuse(AgentErrorInfo::qualityOutOfRange());
  if (effectiveFormat != encoding::ExportFormat::jpeg &&
      effectiveFormat != encoding::ExportFormat::webp)
    refuse(AgentErrorInfo::qualityNeedsJpegOrWebp());
}

void validateNameTemplate(std::string_view name) {
  if (name.empty()) refuse(AgentErrorInfo::nameEmpty());
  if (name.find('/') != std::string_view::npos) refuse(AgentErrorInfo::nameContainsSlash());
}

void validateRecipeRunRequest(const AgentRequest& request) {
  // An empty name could never match a recipe; it is as good as none.
  if (!request.recipe || request.recipe->empty()) refuse(AgentErrorInfo::recipeRunNeedsRecipe());
  // Receipts and the 16-bit confirmation are about the run, not the look
  // of its outputs, so a recipe run takes them.
  const auto& settings = request.settings;
  const bool settingsDecideLook =
      settings &&
      (settings->maxKB || settings->jpegQuality || settings->webpQuality || settings->heifQuality ||
       settings->profile || settings->icc || settings->exif || settings->xmp || settings->gps ||
       settings->flatten || settings->canvas || settings->canvasConfirmation);
  if (request.size || request.method || request.strength || request.format || request.quality ||
      request.name || settingsDecideLook)
    refuse(AgentErrorInfo::recipeRunTakesRecipeAndSourcesOnly());
}

void applySettings(const AgentExportSettings& settings, exporting::JobDescription& description) {
  exporting::ExportOptions& options = description.options;
  if (settings.maxKB) {
    if (*settings.maxKB < 1 || *settings.maxKB > 1'000'000'000)
      refuse(invalidSetting("settings.max_kb must be a whole number of kilobytes, at least 1."));
    options.jpeg.maxBytes = *settings.maxKB * 1000;
  }
  const auto quality = [](const std::optional<int64_t>& value, const char* key) {
    if (value && (*value < 1 || *value > 100))
      refuse(invalidSetting(std::string("settings.") + key +
                            " must be a whole number from 1 to 100."));
    return value ? std::optional(static_cast<int>(*value)) : std::nullopt;
  };
  if (const auto q = quality(settings.jpegQuality, "jpeg_quality")) options.jpeg.quality = *q;
  if (const auto q = quality(settings.webpQuality, "webp_quality"))
    options.webp.lossyQuality = static_cast<float>(*q);
  if (const auto q = quality(settings.heifQuality, "heif_quality")) options.heifQuality = *q;
  encoding::ColourPolicy& policy = options.colourPolicy;
  if (settings.profile) policy.profile = *settings.profile;
  if (settings.icc) policy.icc = *settings.icc;
  if (settings.exif) policy.exif = *settings.exif;
  if (settings.xmp) policy.xmp = *settings.xmp;
  if (settings.gps) policy.gps = *settings.gps;
  if (settings.flatten) {
    try {
      policy.flatten = encoding::ColourPolicy::canonicalFlattenColour(*settings.flatten);
    } catch (const encoding::ColourPolicyError& error) {
      refuse(invalidSetting(error.description()));
    }
  }
  if (settings.canvas) {
    validateCanvas(*settings.canvas);
    options.canvas = settings.canvas;
  }
  if (settings.canvasConfirmation) {
    if (!options.canvas || options.canvas->mode == canvas::CanvasMode::exact)
      refuse(invalidSetting(
          "settings.canvas_confirmation confirms a crop or suggested framing: give it with that "
          "settings.canvas."));
    options.canvasConfirmation = settings.canvasConfirmation;
  }
  if (settings.receipts)
    description.receiptsBesideExports = *settings.receipts == AgentReceipts::beside;
  if (settings.allow8Bit) description.confirmed16BitReduction = *settings.allow8Bit;
}

}  // namespace tarnbloom::agent
