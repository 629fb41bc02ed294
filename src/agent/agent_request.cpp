#include "agent/agent_request.h"

#include <cmath>

#include "agent/agent_json.h"
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
  return detail::dumpDocument(root, true);
}

AgentRequest decodeRequest(std::span<const std::byte> bytes) {
  const Json root = detail::parseDocument(bytes, DocumentKind::request);
  checkVersion(root);

  const ObjectReader fields(root, "", DocumentKind::request);
  fields.refuseUnknownKeys(
      {"schema",  "protocol", "job",  "command",   "created_at", "target_job",
       "sources", "recipe",   "size", "method",    "strength",   "format",
       "quality", "out",      "name", "recursive", "if_exists",  "use_app_settings",
       "dry_run", "notify"});
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
  if (request.size || request.method || request.strength || request.format || request.quality ||
      request.name)
    refuse(AgentErrorInfo::recipeRunTakesRecipeAndSourcesOnly());
}

}  // namespace tarnbloom::agent
