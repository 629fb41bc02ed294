#include "agent/mcp_server.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstring>
#include <iostream>
#include <regex>
#include <thread>
#include <utility>
#include <vector>

#include "support/strict_json.h"
#include "support/uuid.h"

namespace tarnbloom::agent {

using Json = nlohmann::json;
using OrderedJson = nlohmann::ordered_json;

namespace {

// ---------------------------------------------------------------------------
// The tools and their schemas. The enumerations are listed from the
// protocol's own raw values, so a schema can never offer a value the
// request reader refuses.

template <typename Enumeration>
OrderedJson enumeration(int count, std::string_view description) {
  OrderedJson values = OrderedJson::array();
  for (int i = 0; i < count; ++i) values.push_back(rawValue(static_cast<Enumeration>(i)));
  return {{"type", "string"}, {"enum", std::move(values)}, {"description", description}};
}

OrderedJson typed(std::string_view type, std::string_view description) {
  return {{"type", type}, {"description", description}};
}

OrderedJson closedObject(OrderedJson properties, std::vector<std::string> required) {
  OrderedJson schema = {{"type", "object"}, {"properties", std::move(properties)}};
  if (!required.empty()) schema["required"] = std::move(required);
  schema["additionalProperties"] = false;
  return schema;
}

OrderedJson sourcesSchema() {
  OrderedJson path = typed("string",
                           "Absolute path, starting with \"/\"; \"~\" and relative paths are "
                           "refused.");
  path["minLength"] = 1;
  OrderedJson source = closedObject(
      {{"path", std::move(path)},
       {"kind", enumeration<AgentSourceKind>(
                    2,
                    "\"file\" for one photo, \"folder\" for the photos in a folder (a folder "
                    "needs out).")}},
      {"path", "kind"});
  return {{"type", "array"},
          {"description", "The photos and folders to read, each {\"path\", \"kind\"}."},
          {"minItems", 1},
          {"items", std::move(source)}};
}

OrderedJson sizeSchema() {
  OrderedJson width = typed("integer", "Box width in pixels (mode box).");
  width["minimum"] = 1;
  OrderedJson height = typed("integer", "Box height in pixels (mode box).");
  height["minimum"] = 1;
  OrderedJson schema = closedObject(
      {{"mode", enumeration<AgentSizeMode>(
                    8,
                    "x2, x4, x8: fixed scales; percent: value per cent (150 = 1.5x); "
                    "long_edge, width, height: that edge becomes value pixels; box: fit "
                    "within width x height.")},
       {"value", typed("number",
                       "The percentage (percent) or the pixel length (long_edge, width, "
                       "height); leave it out for the other modes.")},
       {"width", std::move(width)},
       {"height", std::move(height)}},
      {"mode"});
  schema["description"] =
      "The target size. Photos are only ever enlarged: a size smaller than a photo is refused "
      "for that photo.";
  return schema;
}

OrderedJson outSchema() {
  OrderedJson out = typed("string",
                          "Absolute path of an existing folder for the outputs. Required when a "
                          "source is a folder; without it each output is saved next to its "
                          "source.");
  out["minLength"] = 1;
  return out;
}

OrderedJson recursiveSchema() {
  return typed("boolean", "Also read the subfolders of folder sources.");
}

OrderedJson ifExistsSchema() {
  return enumeration<AgentIfExists>(
      3,
      "When an output name is taken: number (the default) saves under the next free "
      "numbered name, skip leaves that photo out, overwrite replaces the existing file.");
}

OrderedJson dryRunSchema() {
  return typed("boolean",
               "Plan only: the result lists every output that would be written, with its size, "
               "name and action, and nothing is exported.");
}

OrderedJson waitSchema() {
  OrderedJson wait = typed("boolean",
                           "true (default): answer when the job has ended. false: answer as "
                           "soon as the job is accepted, with state \"running\" and its job id, "
                           "and follow it with status.");
  wait["default"] = true;
  return wait;
}

OrderedJson jobSchema(std::string_view description) {
  OrderedJson job = typed("string", description);
  // The length bound comes first, so the pattern only ever sees short text.
  job["maxLength"] = 36;
  job["pattern"] = "^[0-9A-Fa-f]{8}-[0-9A-Fa-f]{4}-[0-9A-Fa-f]{4}-[0-9A-Fa-f]{4}-[0-9A-Fa-f]{12}$";
  return job;
}

OrderedJson enlargeInput() {
  OrderedJson strength = typed("number",
                               "Method enhance only: how much estimated detail to blend in, "
                               "0.0 (least) to 1.0 (most).");
  strength["minimum"] = 0;
  strength["maximum"] = 1;
  OrderedJson quality = typed("integer", "Encoder quality, for jpeg and webp only.");
  quality["minimum"] = 1;
  quality["maximum"] = 100;
  OrderedJson name = typed("string",
                           "File-name template without extension, for example "
                           "\"{source}_{w}x{h}\" (the default). Tokens: {source} {sku} {w} {h} "
                           "{method} {format} {scale} {date} {index} {n}. No \"/\".");
  name["minLength"] = 1;
  return closedObject(
      {{"sources", sourcesSchema()},
       {"size", sizeSchema()},
       {"method", enumeration<AgentMethod>(
                      3,
                      "exact: faithful resampling that invents nothing; clarity: exact with "
                      "gentle sharpening; enhance: an AI model estimates fine detail (slower; "
                      "outputs are marked as carrying estimated detail).")},
       {"strength", std::move(strength)},
       {"format",
        enumeration<AgentFormat>(7, "Output format; same keeps each source's own format.")},
       {"quality", std::move(quality)},
       {"out", outSchema()},
       {"name", std::move(name)},
       {"recursive", recursiveSchema()},
       {"if_exists", ifExistsSchema()},
       {"use_app_settings",
        typed("boolean",
              "Take every setting not given here from Tarnbloom's current export settings "
              "instead of the factory defaults.")},
       {"dry_run", dryRunSchema()},
       {"wait", waitSchema()}},
      {"sources"});
}

OrderedJson recipeRunInput() {
  OrderedJson recipe = typed("string", "The saved recipe's id or name (see recipe_list).");
  recipe["minLength"] = 1;
  return closedObject({{"recipe", std::move(recipe)},
                       {"sources", sourcesSchema()},
                       {"out", outSchema()},
                       {"recursive", recursiveSchema()},
                       {"if_exists", ifExistsSchema()},
                       {"dry_run", dryRunSchema()},
                       {"wait", waitSchema()}},
                      {"recipe", "sources"});
}

OrderedJson noInput() { return closedObject(OrderedJson::object(), {}); }

OrderedJson jobInput(std::string_view description) {
  return closedObject({{"job", jobSchema(description)}}, {"job"});
}

OrderedJson errorSchema(bool nullable) {
  OrderedJson schema =
      closedObject({{"code", enumeration<AgentErrorCode>(18, "What kind of failure.")},
                    {"message", typed("string", "What went wrong, in a sentence.")}},
                   {"code", "message"});
  schema.erase("additionalProperties");
  if (nullable) schema["type"] = {"object", "null"};
  return schema;
}

OrderedJson nullableString(std::string_view description) {
  return {{"type", {"string", "null"}}, {"description", description}};
}

// An object whose listed keys are required and typed; a newer application
// may add keys, which readers skip, so none are forbidden.
OrderedJson openObject(OrderedJson properties, std::vector<std::string> required) {
  OrderedJson schema = closedObject(std::move(properties), std::move(required));
  schema.erase("additionalProperties");
  return schema;
}

OrderedJson itemSchema() {
  return openObject({{"source", typed("string", "The photo read.")},
                     {"state", enumeration<AgentItemState>(6, "What became of this photo.")},
                     {"output", nullableString("The file written; null until there is one.")},
                     {"width", typed("integer", "Output width in pixels.")},
                     {"height", typed("integer", "Output height in pixels.")},
                     {"format", enumeration<AgentFormat>(7, "The format written.")},
                     {"method", enumeration<AgentMethod>(3, "The method used.")},
                     {"ai_detail", typed("boolean", "The output carries AI-estimated detail.")},
                     {"receipt", typed("string", "The export receipt of this output.")},
                     {"error", errorSchema(true)}},
                    {"source", "state", "output", "format", "method", "ai_detail", "error"});
}

OrderedJson planSchema() {
  OrderedJson item = openObject(
      {{"source", typed("string", "The photo to read.")},
       {"output", typed("string", "The file that would be written.")},
       {"width", typed("integer", "Output width in pixels.")},
       {"height", typed("integer", "Output height in pixels.")},
       {"format", enumeration<AgentFormat>(7, "The format to write.")},
       {"method", enumeration<AgentMethod>(3, "The method to use.")},
       {"ai_detail", typed("boolean", "The output would carry AI-estimated detail.")},
       {"action", enumeration<AgentPlanAction>(
                      4,
                      "export: the name is free; number: taken, a numbered name is used; "
                      "skip: taken, the photo is left out; overwrite: taken, replaced.")}},
      {"source", "output", "width", "height", "format", "method", "ai_detail", "action"});
  OrderedJson items = {{"type", "array"}, {"items", std::move(item)}};
  return openObject({{"items", std::move(items)},
                     {"will_export", typed("integer", "Outputs that would be written.")},
                     {"will_skip", typed("integer", "Photos that would be left out.")}},
                    {"items", "will_export", "will_skip"});
}

OrderedJson resultSchema() {
  OrderedJson app = openObject({{"version", typed("string", "Marketing version.")},
                                {"build", typed("string", "Build number.")},
                                {"bundle_id", typed("string", "Application identifier.")}},
                               {"version", "build", "bundle_id"});
  OrderedJson request =
      openObject({{"command", enumeration<AgentCommand>(6, "The command.")},
                  {"size", openObject({{"mode", enumeration<AgentSizeMode>(8, "Size mode.")},
                                       {"value", typed("number", "Percentage or pixel length.")},
                                       {"width", typed("integer", "Box width.")},
                                       {"height", typed("integer", "Box height.")}},
                                      {"mode"})},
                  {"method", enumeration<AgentMethod>(3, "Method.")},
                  {"strength", typed("number", "Enhance strength.")},
                  {"format", enumeration<AgentFormat>(7, "Output format.")},
                  {"recipe", typed("string", "Recipe id or name.")}},
                 {"command"});
  request["type"] = {"object", "null"};
  request["description"] = "The command and settings used; null when the request was unreadable.";
  OrderedJson counts = openObject({{"completed", typed("integer", "Outputs written.")},
                                   {"skipped", typed("integer", "Photos left out.")},
                                   {"failed", typed("integer", "Photos that failed.")},
                                   {"cancelled", typed("integer", "Photos cancelled.")}},
                                  {"completed", "skipped", "failed", "cancelled"});
  OrderedJson recipe =
      openObject({{"id", typed("string", "Recipe id.")},
                  {"name", typed("string", "Recipe name.")},
                  {"usable", typed("boolean", "Whether the recipe can run unattended.")},
                  {"reason", typed("string", "Why not, when it cannot.")}},
                 {"id", "name", "usable"});
  OrderedJson error = errorSchema(false);
  error["description"] = "Why the job as a whole failed or was refused.";
  return openObject(
      {{"schema", typed("string", "The result document's schema.")},
       {"job", typed("string", "The job id.")},
       {"state", enumeration<AgentResultState>(6,
                                               "running while the job runs, else how it "
                                               "ended.")},
       {"app", std::move(app)},
       {"started_at", typed("string", "When the job was accepted (UTC).")},
       {"finished_at", nullableString("When it ended (UTC); null while running.")},
       {"updated_at", typed("string", "Last update (UTC).")},
       {"request", std::move(request)},
       {"dry_run", typed("boolean", "The job only planned.")},
       {"items", {{"type", "array"}, {"items", itemSchema()}}},
       {"counts", std::move(counts)},
       {"error", std::move(error)},
       {"plan", planSchema()},
       {"recipes", {{"type", "array"}, {"items", std::move(recipe)}}}},
      {"schema", "job", "state", "app", "started_at", "finished_at", "updated_at", "request",
       "items", "counts"});
}

OrderedJson annotations(std::string_view title, bool readOnly, bool idempotent) {
  OrderedJson hints = {{"title", title}, {"readOnlyHint", readOnly}};
  if (!readOnly) {
    // Writing tools never replace a file unless the caller says so.
    hints["destructiveHint"] = false;
    hints["idempotentHint"] = idempotent;
  }
  hints["openWorldHint"] = false;
  return hints;
}

OrderedJson tool(std::string_view name, std::string_view title, std::string_view description,
                 OrderedJson input, OrderedJson hints) {
  return {{"name", name},
          {"title", title},
          {"description", description},
          {"inputSchema", std::move(input)},
          {"outputSchema", resultSchema()},
          {"annotations", std::move(hints)}};
}

OrderedJson buildToolList() {
  OrderedJson tools = OrderedJson::array();
  tools.push_back(tool(
      "enlarge", "Enlarge photos",
      "Enlarge photos on this computer and save each result as a new file; sources are never "
      "changed. Reads JPEG, PNG, TIFF, WebP, HEIC, AVIF and camera raw files. Give each source "
      "as {\"path\": absolute path, \"kind\": \"file\" or \"folder\"}; a folder needs out. An "
      "output whose name is taken gets a numbered name unless if_exists says otherwise, so "
      "nothing is replaced unless you ask for \"overwrite\". Set dry_run to see every planned "
      "output (name, size, action) without writing anything. The job runs in Tarnbloom's export "
      "queue with a receipt per file, and the result lists each output with its state. The call "
      "waits for the job to end; cancelling the call cancels the job, and files already "
      "finished stay.",
      enlargeInput(), annotations("Enlarge photos", false, false)));
  tools.push_back(
      tool("recipe_run", "Run a saved recipe",
           "Enlarge photos with a recipe saved in Tarnbloom (see recipe_list): the recipe decides "
           "size, method, format and naming, and may write several outputs per photo. Name the "
           "recipe by id or name and give the sources as for enlarge; out, recursive, if_exists, "
           "dry_run and wait work as there. A recipe that cannot run unattended is refused.",
           recipeRunInput(), annotations("Run a saved recipe", false, false)));
  tools.push_back(tool("recipe_list", "List saved recipes",
                       "List the recipes saved in Tarnbloom: id, name, whether each can run "
                       "unattended (usable) and, when not, why (reason). Run one with "
                       "recipe_run.",
                       noInput(), annotations("List saved recipes", true, true)));
  tools.push_back(tool("status", "Job status",
                       "The current result of a job started earlier by enlarge or recipe_run "
                       "(for example with wait false): its state (running, completed, partial, "
                       "failed, cancelled, rejected) and each photo's state and output.",
                       jobInput("The job id, as the job's result gave it."),
                       annotations("Job status", true, true)));
  tools.push_back(tool("cancel", "Cancel a job",
                       "Cancel a running enlarge or recipe_run job. Photos already finished "
                       "stay; the others end as cancelled. Fails when no job with that id is "
                       "running.",
                       jobInput("The id of the job to cancel, as its result gave it."),
                       annotations("Cancel a job", false, true)));
  tools.push_back(tool("doctor", "Check Tarnbloom",
                       "Check that Tarnbloom answers on this computer (it is started in the "
                       "background when needed) and see its version and build. Use it when "
                       "other tools report that the application cannot be found.",
                       noInput(), annotations("Check Tarnbloom", true, true)));
  return tools;
}

const OrderedJson* findTool(std::string_view name) {
  for (const OrderedJson& tool : mcpToolList())
    if (tool["name"].get_ref<const std::string&>() == name) return &tool;
  return nullptr;
}

std::string toolNames() {
  std::string names;
  for (const OrderedJson& tool : mcpToolList())
    names += (names.empty() ? "" : ", ") + tool["name"].get<std::string>();
  return names;
}

// ---------------------------------------------------------------------------
// Checking values against those schemas.

std::string inQuotes(std::string_view text) { return "“" + std::string(text) + "”"; }

std::string where(const std::string& path) { return path.empty() ? "arguments" : path; }

bool isWholeNumber(const Json& value) {
  if (value.is_number_integer()) return true;
  if (!value.is_number_float()) return false;
  const double number = value.get<double>();
  // Past ±2^63 a double no longer converts to int64_t.
  return std::isfinite(number) && std::trunc(number) == number && std::fabs(number) < 9.2e18;
}

bool hasType(const Json& value, std::string_view type) {
  if (type == "string") return value.is_string();
  if (type == "integer") return isWholeNumber(value);
  if (type == "number") return value.is_number();
  if (type == "boolean") return value.is_boolean();
  if (type == "object") return value.is_object();
  if (type == "array") return value.is_array();
  if (type == "null") return value.is_null();
  return false;
}

std::string typeName(std::string_view type) {
  if (type == "string") return "text";
  if (type == "integer") return "a whole number";
  if (type == "number") return "a number";
  if (type == "boolean") return "true or false";
  if (type == "object") return "an object";
  if (type == "array") return "an array";
  return std::string(type);
}

std::optional<std::string> checkType(const OrderedJson& type, const Json& value,
                                     const std::string& path) {
  std::vector<std::string> allowed;
  if (type.is_string()) allowed.push_back(type.get<std::string>());
  if (type.is_array())
    for (const auto& entry : type) allowed.push_back(entry.get<std::string>());
  std::string names;
  for (const std::string& name : allowed) {
    if (hasType(value, name)) return std::nullopt;
    names += (names.empty() ? "" : " or ") + typeName(name);
  }
  return where(path) + " must be " + names + ".";
}

// Characters, as JSON Schema counts string lengths: UTF-8 lead bytes.
size_t characterCount(const std::string& text) {
  size_t count = 0;
  for (const char byte : text) count += (static_cast<unsigned char>(byte) & 0xC0) != 0x80;
  return count;
}

std::string listOf(const OrderedJson& values) {
  std::string list;
  for (const auto& value : values)
    list += (list.empty() ? "" : ", ") +
            (value.is_string() ? inQuotes(value.get<std::string>()) : value.dump());
  return list;
}

std::optional<std::string> checkValue(const OrderedJson& schema, const Json& value,
                                      const std::string& path);

std::optional<std::string> checkObject(const OrderedJson& schema, const Json& value,
                                       const std::string& path) {
  const OrderedJson empty = OrderedJson::object();
  const auto found = schema.find("properties");
  const OrderedJson& properties = found == schema.end() ? empty : *found;
  const std::string prefix = path.empty() ? "" : path + ".";
  const auto additional = schema.find("additionalProperties");
  const bool closed = additional != schema.end() && *additional == false;
  for (const auto& [key, member] : value.items()) {
    const auto property = properties.find(key);
    if (property == properties.end()) {
      if (!closed) continue;
      std::string known;
      for (const auto& [name, unused] : properties.items())
        known += (known.empty() ? "" : ", ") + name;
      return inQuotes(key) + " is not an argument" + (path.empty() ? "" : " of " + path) +
             (known.empty() ? "; this tool takes none." : "; the arguments are " + known + ".");
    }
    if (auto violation = checkValue(*property, member, prefix + key)) return violation;
  }
  // Unknown keys are reported first: a misspelt key is the likelier fault
  // than a forgotten one.
  if (const auto required = schema.find("required"); required != schema.end())
    for (const auto& key : *required)
      if (!value.contains(key.get<std::string>()))
        return prefix + key.get<std::string>() + " is required.";
  return std::nullopt;
}

std::optional<std::string> checkArray(const OrderedJson& schema, const Json& value,
                                      const std::string& path) {
  if (const auto minimum = schema.find("minItems");
      minimum != schema.end() && value.size() < minimum->get<size_t>())
    return where(path) + " needs at least " + minimum->dump() + " entr" +
           (*minimum == 1 ? "y." : "ies.");
  if (const auto items = schema.find("items"); items != schema.end())
    for (size_t i = 0; i < value.size(); ++i)
      if (auto violation = checkValue(*items, value[i], path + "[" + std::to_string(i) + "]"))
        return violation;
  return std::nullopt;
}

std::optional<std::string> checkString(const OrderedJson& schema, const std::string& text,
                                       const std::string& path) {
  const size_t length = characterCount(text);
  if (const auto minimum = schema.find("minLength");
      minimum != schema.end() && length < minimum->get<size_t>())
    return where(path) + " must not be empty.";
  const auto maximum = schema.find("maxLength");
  if (maximum != schema.end() && length > maximum->get<size_t>())
    return where(path) + " is longer than " + maximum->dump() + " characters.";
  if (const auto pattern = schema.find("pattern"); pattern != schema.end()) {
    // std::regex recurses per character; only bounded text may reach it.
    if (maximum == schema.end()) return where(path) + " cannot be checked.";
    if (!std::regex_search(text, std::regex(pattern->get<std::string>())))
      return where(path) + " is not in the expected form.";
  }
  return std::nullopt;
}

std::optional<std::string> checkNumber(const OrderedJson& schema, double number,
                                       const std::string& path) {
  if (const auto minimum = schema.find("minimum");
      minimum != schema.end() && number < minimum->get<double>())
    return where(path) + " must be at least " + minimum->dump() + ".";
  if (const auto maximum = schema.find("maximum");
      maximum != schema.end() && number > maximum->get<double>())
    return where(path) + " must be at most " + maximum->dump() + ".";
  return std::nullopt;
}

std::optional<std::string> unknownKeyword(const OrderedJson& schema) {
  static const std::vector<std::string_view> known = {
      "type",        "properties", "required",  "additionalProperties",
      "items",       "enum",       "minimum",   "maximum",
      "minItems",    "minLength",  "maxLength", "pattern",
      "description", "title",      "default"};
  for (const auto& [keyword, unused] : schema.items())
    if (std::find(known.begin(), known.end(), keyword) == known.end()) return keyword;
  return std::nullopt;
}

std::optional<std::string> checkValue(const OrderedJson& schema, const Json& value,
                                      const std::string& path) {
  if (auto keyword = unknownKeyword(schema))
    return where(path) + " cannot be checked (" + *keyword + ").";
  if (const auto type = schema.find("type"); type != schema.end())
    if (auto violation = checkType(*type, value, path)) return violation;
  if (const auto values = schema.find("enum"); values != schema.end()) {
    bool listed = false;
    for (const auto& allowed : *values) listed = listed || Json(allowed) == value;
    if (!listed) return where(path) + " must be one of " + listOf(*values) + ".";
  }
  if (value.is_object()) return checkObject(schema, value, path);
  if (value.is_array()) return checkArray(schema, value, path);
  if (value.is_string()) return checkString(schema, value.get_ref<const std::string&>(), path);
  if (value.is_number()) return checkNumber(schema, value.get<double>(), path);
  return std::nullopt;
}

// ---------------------------------------------------------------------------
// Arguments into a request. They have passed the schema, so every value
// read here is present in the type the schema promises.

template <typename Enumeration>
std::optional<Enumeration> optionalEnumeration(const Json& arguments, const char* key) {
  if (!arguments.contains(key)) return std::nullopt;
  return fromRawValue<Enumeration>(arguments[key].get<std::string>());
}

std::optional<std::string> optionalString(const Json& arguments, const char* key) {
  if (!arguments.contains(key)) return std::nullopt;
  return arguments[key].get<std::string>();
}

std::optional<bool> optionalBoolean(const Json& arguments, const char* key) {
  if (!arguments.contains(key)) return std::nullopt;
  return arguments[key].get<bool>();
}

std::optional<double> optionalNumber(const Json& arguments, const char* key) {
  if (!arguments.contains(key)) return std::nullopt;
  return arguments[key].get<double>();
}

// Whole numbers may arrive as 90 or 90.0.
std::optional<int64_t> optionalInteger(const Json& arguments, const char* key) {
  if (!arguments.contains(key)) return std::nullopt;
  const Json& value = arguments[key];
  if (value.is_number_unsigned() && value.get<uint64_t>() > uint64_t(INT64_MAX)) return INT64_MAX;
  return value.is_number_integer() ? value.get<int64_t>()
                                   : static_cast<int64_t>(value.get<double>());
}

void readSettings(const Json& arguments, AgentRequest& request) {
  if (arguments.contains("size")) {
    const Json& size = arguments["size"];
    AgentSize value;
    value.mode = *fromRawValue<AgentSizeMode>(size["mode"].get<std::string>());
    value.value = optionalNumber(size, "value");
    value.width = optionalInteger(size, "width");
    value.height = optionalInteger(size, "height");
    request.size = value;
  }
  request.method = optionalEnumeration<AgentMethod>(arguments, "method");
  request.strength = optionalNumber(arguments, "strength");
  request.format = optionalEnumeration<AgentFormat>(arguments, "format");
  request.quality = optionalInteger(arguments, "quality");
  request.name = optionalString(arguments, "name");
  request.useAppSettings = optionalBoolean(arguments, "use_app_settings");
}

void readArguments(const Json& arguments, AgentRequest& request) {
  if (arguments.contains("sources"))
    for (const Json& source : arguments["sources"])
      request.sources.push_back(
          {source["path"].get<std::string>(),
           *fromRawValue<AgentSourceKind>(source["kind"].get<std::string>())});
  request.recipe = optionalString(arguments, "recipe");
  request.out = optionalString(arguments, "out");
  request.recursive = optionalBoolean(arguments, "recursive");
  request.ifExists = optionalEnumeration<AgentIfExists>(arguments, "if_exists");
  request.dryRun = optionalBoolean(arguments, "dry_run");
  request.targetJob = optionalString(arguments, "job");
  readSettings(arguments, request);
}

// The instance reads the request with the strict reader; reading it here
// first turns what it would refuse (a NUL in a path, a request too large
// for the inbox) into an answer naming the argument.
void requireReadable(const AgentRequest& request, std::string_view tool) {
  try {
    const std::string text = encodeRequest(request);
    decodeRequest(std::as_bytes(std::span(text.data(), text.size())));
  } catch (const AgentProtocolError& error) {
    throw McpError(McpError::Code::invalidParams,
                   "Invalid arguments for " + std::string(tool) + ": " +
                       (error.details().empty() ? error.description() : error.details()));
  }
}

// ---------------------------------------------------------------------------
// Results.

OrderedJson textContent(const std::string& text) { return {{"type", "text"}, {"text", text}}; }

std::string photos(int64_t count) {
  return std::to_string(count) + (count == 1 ? " photo" : " photos");
}

const AgentItem* firstFailedItem(const AgentResult& result) {
  for (const AgentItem& item : result.items)
    if (item.state == AgentItemState::failed && item.error) return &item;
  return nullptr;
}

std::string dumpLine(const OrderedJson& message) {
  // Replace rather than throw: a message must never take the session down.
  return message.dump(-1, ' ', false, OrderedJson::error_handler_t::replace);
}

OrderedJson echoedID(const Json& id) { return OrderedJson::parse(id.dump()); }

std::mutex& logMutex() {
  static std::mutex mutex;
  return mutex;
}

}  // namespace

// ---------------------------------------------------------------------------

const OrderedJson& mcpToolList() {
  static const OrderedJson tools = buildToolList();
  return tools;
}

std::string mcpNegotiateVersion(const Json& requested) {
  if (requested.is_string())
    for (const std::string_view version : Mcp::supportedVersions)
      if (requested.get_ref<const std::string&>() == version) return std::string(version);
  return std::string(Mcp::latestVersion);
}

std::optional<std::string> mcpSchemaViolation(const OrderedJson& schema, const Json& value) {
  return checkValue(schema, value, "");
}

McpToolCall mcpToolCall(std::string_view tool, const Json& arguments, std::string jobID,
                        WallTime now) {
  const OrderedJson* descriptor = findTool(tool);
  if (!descriptor)
    throw McpError(McpError::Code::invalidParams,
                   "Unknown tool " + inQuotes(tool) + "; the tools are " + toolNames() + ".");
  if (auto violation = mcpSchemaViolation((*descriptor)["inputSchema"], arguments))
    throw McpError(McpError::Code::invalidParams,
                   "Invalid arguments for " + std::string(tool) + ": " + *violation);
  McpToolCall call;
  call.request.job = std::move(jobID);
  call.request.command = *fromRawValue<AgentCommand>(tool);
  call.request.createdAt = now;
  readArguments(arguments, call.request);
  call.wait = optionalBoolean(arguments, "wait").value_or(true);
  requireReadable(call.request, tool);
  return call;
}

bool mcpJobFailed(const AgentResult& result) {
  return result.state != AgentResultState::completed && result.state != AgentResultState::running;
}

std::string mcpFailureSummary(const AgentResult& result) {
  if (result.error) return result.error->message;
  if (result.state == AgentResultState::cancelled) return AgentErrorInfo::jobCancelled().message;
  const AgentItem* failed = firstFailedItem(result);
  const std::string reason =
      failed ? failed->source + ": " + failed->error->message : "The export failed.";
  if (result.state == AgentResultState::partial)
    return std::to_string(result.counts.failed) + " of " +
           photos(static_cast<int64_t>(result.items.size())) + " failed; the others are done. " +
           reason;
  return reason;
}

std::optional<McpProgress> mcpProgress(const AgentResult& result) {
  if (result.items.empty()) return std::nullopt;
  McpProgress progress;
  progress.total = static_cast<int64_t>(result.items.size());
  for (const AgentItem& item : result.items)
    progress.progress +=
        item.state != AgentItemState::pending && item.state != AgentItemState::running;
  progress.message = std::to_string(progress.progress) + " of " + photos(progress.total);
  return progress;
}

OrderedJson mcpToolResult(const AgentResult& result, bool isError) {
  OrderedJson document = OrderedJson::parse(encodeResult(result));
  OrderedJson content = OrderedJson::array();
  if (isError) content.push_back(textContent(mcpFailureSummary(result)));
  content.push_back(textContent(dumpLine(document)));
  return {{"content", std::move(content)},
          {"structuredContent", std::move(document)},
          {"isError", isError}};
}

OrderedJson mcpToolFailure(const std::string& message) {
  return {{"content", OrderedJson::array({textContent(message)})}, {"isError", true}};
}

// ---------------------------------------------------------------------------
// The session.

struct McpServer::Call {
  Json id;
  std::string key;
  McpToolCall work;
  std::optional<Json> progressToken;
  int64_t progressSent = -1;
  std::atomic<bool> cancelled{false};
  std::atomic<bool> done{false};
  std::thread thread;
};

McpServer::McpServer(AgentClient& client, std::string version,
                     std::function<void(const std::string&)> send)
    : m_client(client), m_version(std::move(version)), m_send(std::move(send)) {}

McpServer::~McpServer() { close(); }

void McpServer::receive(std::string_view line) {
  while (!line.empty() && (line.back() == '\r' || line.back() == ' ' || line.back() == '\t'))
    line.remove_suffix(1);
  if (line.find_first_not_of(" \t") == std::string_view::npos) return;
  Json message;
  try {
    message =
        parseStrictJson(std::as_bytes(std::span(line.data(), line.size())), Mcp::maxNestingDepth);
  } catch (const StrictJsonError& error) {
    sendError(nullptr, McpError::Code::parseError, "Parse error: " + error.description());
    return;
  }
  dispatch(message);
}

void McpServer::receiveOversized() {
  sendError(
      nullptr, McpError::Code::invalidRequest,
      "A message longer than " + std::to_string(Mcp::maxMessageBytes >> 20) + " MiB was skipped.");
}

void McpServer::dispatch(const Json& message) {
  if (message.is_array()) {
    sendError(nullptr, McpError::Code::invalidRequest,
              "Batches are not supported; send one message per line.");
    return;
  }
  const bool hasID = message.is_object() && message.contains("id");
  const Json id = hasID ? message["id"] : Json(nullptr);
  const bool validID = id.is_string() || id.is_number_integer();
  if (!message.is_object() || message.value("jsonrpc", Json()) != "2.0") {
    sendError(validID ? id : nullptr, McpError::Code::invalidRequest,
              "Not a JSON-RPC 2.0 message.");
    return;
  }
  const auto method = message.find("method");
  if (method == message.end()) {
    // A response: we send no requests, so there is nothing to match it to.
    if (hasID && (message.contains("result") || message.contains("error"))) return;
    sendError(validID ? id : nullptr, McpError::Code::invalidRequest, "A message needs a method.");
    return;
  }
  const Json params = message.value("params", Json::object());
  if (!method->is_string() || (hasID && !validID) || !params.is_object()) {
    sendError(validID ? id : nullptr, McpError::Code::invalidRequest,
              !method->is_string()  ? "The method must be text."
              : !params.is_object() ? "params must be an object."
                                    : "A request id must be text or a whole number.");
    return;
  }
  if (hasID)
    handleRequest(id, method->get<std::string>(), params);
  else
    handleNotification(method->get<std::string>(), params);
}

void McpServer::handleRequest(const Json& id, const std::string& method, const Json& params) {
  if (method == "initialize") {
    if (!params.contains("protocolVersion")) {
      sendError(id, McpError::Code::invalidParams, "initialize needs a protocolVersion.");
      return;
    }
    sendResult(id, initializeResult(params));
  } else if (method == "ping") {
    sendResult(id, OrderedJson::object());
  } else if (method == "tools/list") {
    // Every tool fits one page, so no cursor of ours exists.
    if (params.contains("cursor"))
      sendError(id, McpError::Code::invalidParams, "Unknown cursor.");
    else
      sendResult(id, {{"tools", mcpToolList()}});
  } else if (method == "tools/call") {
    startToolCall(id, params);
  } else {
    sendError(id, McpError::Code::methodNotFound, "Method not found: " + method);
  }
}

void McpServer::handleNotification(const std::string& method, const Json& params) {
  if (method != "notifications/cancelled") return;
  const auto requestID = params.find("requestId");
  if (requestID == params.end()) return;
  std::lock_guard lock(m_callsMutex);
  // Cancelling a call that has ended, or never ran, is a race the client
  // cannot avoid; it is simply too late.
  if (const auto found = m_calls.find(requestID->dump()); found != m_calls.end())
    found->second->cancelled = true;
}

OrderedJson McpServer::initializeResult(const Json& params) const {
  return {{"protocolVersion", mcpNegotiateVersion(params["protocolVersion"])},
          {"capabilities", {{"tools", {{"listChanged", false}}}}},
          {"serverInfo", {{"name", "tarnbloom"}, {"title", "Tarnbloom"}, {"version", m_version}}},
          {"instructions",
           "Tarnbloom enlarges photos on this computer and saves each result as a new file. "
           "Paths are absolute. Try enlarge with dry_run true first to see the planned outputs "
           "and sizes. Existing files are never replaced unless if_exists is \"overwrite\". A "
           "call waits until its job ends; with wait false it answers at once and status "
           "follows the job by its id."}};
}

void McpServer::startToolCall(const Json& id, const Json& params) {
  const Json name = params.value("name", Json());
  const Json arguments = params.value("arguments", Json::object());
  if (!name.is_string()) {
    sendError(id, McpError::Code::invalidParams, "tools/call needs the tool's name.");
    return;
  }
  auto call = std::make_unique<Call>();
  call->id = id;
  call->key = id.dump();
  try {
    call->work = mcpToolCall(name.get<std::string>(), arguments, makeUuid(),
                             std::chrono::system_clock::now());
  } catch (const McpError& error) {
    sendError(id, error.code(), error.description());
    return;
  }
  if (const auto meta = params.find("_meta"); meta != params.end() && meta->is_object())
    if (const auto token = meta->find("progressToken");
        token != meta->end() && (token->is_string() || token->is_number_integer()))
      call->progressToken = *token;

  reapFinishedCalls();
  std::lock_guard lock(m_callsMutex);
  if (m_calls.count(call->key)) {
    sendError(id, McpError::Code::invalidRequest,
              "Request id " + call->key + " belongs to a call that is still running.");
    return;
  }
  if (m_calls.size() >= Mcp::maxRunningCalls) {
    sendResult(
        id, mcpToolFailure("Tarnbloom is already running " + std::to_string(Mcp::maxRunningCalls) +
                           " tool calls for this client; wait for one to end."));
    return;
  }
  Call& running = *call;
  m_calls.emplace(running.key, std::move(call));
  running.thread = std::thread([this, &running] { runCall(running); });
}

void McpServer::runCall(Call& call) {
  std::optional<OrderedJson> result;
  try {
    result = performCall(call);
  } catch (const std::exception& error) {
    result = mcpToolFailure(std::string("Unexpected internal error: ") + error.what());
  }
  // A cancelled call gets no answer at all.
  if (result && !call.cancelled) sendResult(call.id, *result);
  call.done = true;
}

std::optional<OrderedJson> McpServer::performCall(Call& call) {
  const AgentRequest& request = call.work.request;
  if (stopping(call)) return std::nullopt;
  try {
    m_client.submit(request);
  } catch (const Error& error) {
    return failure(error);
  }
  std::optional<AgentResult> latest;
  AgentClient::Follow follow;
  follow.onUpdate = [&](const AgentResult& result) {
    latest = result;
    reportProgress(call, result);
  };
  follow.stop = [&] { return stopping(call) || (!call.work.wait && latest.has_value()); };
  std::optional<AgentResult> ended;
  try {
    ended = m_client.follow(request.job, follow);
  } catch (const Error& error) {
    return failure(error);
  }
  if (ended) return finalToolResult(call, *ended);
  if (call.cancelled) cancelJob(call);
  if (stopping(call) || !latest) return std::nullopt;
  return mcpToolResult(*latest, mcpJobFailed(*latest));
}

OrderedJson McpServer::failure(const Error& error) {
  if (const std::string details = error.details(); !details.empty())
    log(error.description() + " (" + details + ")");
  return mcpToolFailure(error.description());
}

OrderedJson McpServer::finalToolResult(const Call& call, const AgentResult& result) {
  const AgentRequest& request = call.work.request;
  // The instance acknowledges a status request; what the caller wants is
  // the other job's own document.
  if (request.command == AgentCommand::status && result.state == AgentResultState::completed) {
    const std::optional<AgentResult> target = m_client.current(*request.targetJob);
    if (!target) return mcpToolFailure(AgentErrorInfo::unknownJob().message);
    return mcpToolResult(*target, false);
  }
  return mcpToolResult(result, mcpJobFailed(result));
}

void McpServer::reportProgress(Call& call, const AgentResult& result) {
  const std::optional<McpProgress> progress = mcpProgress(result);
  if (!call.progressToken || !progress || call.cancelled || progress->progress <= call.progressSent)
    return;
  call.progressSent = progress->progress;
  sendMessage({{"jsonrpc", "2.0"},
               {"method", "notifications/progress"},
               {"params",
                {{"progressToken", echoedID(*call.progressToken)},
                 {"progress", progress->progress},
                 {"total", progress->total},
                 {"message", progress->message}}}});
}

void McpServer::cancelJob(const Call& call) {
  const AgentCommand command = call.work.request.command;
  // Only exports run long enough to be worth stopping.
  if (command != AgentCommand::enlarge && command != AgentCommand::recipeRun) return;
  try {
    m_client.cancel(call.work.request.job);
  } catch (const Error& error) {
    log("could not cancel job " + call.work.request.job + ": " + error.description());
  }
}

bool McpServer::stopping(const Call& call) const { return call.cancelled || m_closing; }

void McpServer::reapFinishedCalls() {
  std::vector<std::unique_ptr<Call>> finished;
  {
    std::lock_guard lock(m_callsMutex);
    for (auto it = m_calls.begin(); it != m_calls.end();) {
      if (it->second->done) {
        finished.push_back(std::move(it->second));
        it = m_calls.erase(it);
      } else {
        ++it;
      }
    }
  }
  for (auto& call : finished) call->thread.join();
}

void McpServer::close() {
  m_closing = true;
  std::map<std::string, std::unique_ptr<Call>> calls;
  {
    std::lock_guard lock(m_callsMutex);
    calls.swap(m_calls);
  }
  for (auto& [key, call] : calls)
    if (call->thread.joinable()) call->thread.join();
}

void McpServer::sendResult(const Json& id, const OrderedJson& result) {
  sendMessage({{"jsonrpc", "2.0"}, {"id", echoedID(id)}, {"result", result}});
}

void McpServer::sendError(const Json& id, McpError::Code code, const std::string& message) {
  sendMessage({{"jsonrpc", "2.0"},
               {"id", echoedID(id)},
               {"error", {{"code", static_cast<int>(code)}, {"message", message}}}});
}

void McpServer::sendMessage(const OrderedJson& message) {
  const std::string line = dumpLine(message);
  std::lock_guard lock(m_sendMutex);
  m_send(line);
}

void McpServer::log(const std::string& text) {
  std::lock_guard lock(logMutex());
  std::cerr << "tarnbloom mcp: " << text << '\n';
}

// ---------------------------------------------------------------------------
// Standard input and output.

namespace {

// Splits input into lines without ever holding more than one line's bound.
class LineReader {
 public:
  explicit LineReader(int fd) : m_fd(fd) {}

  enum class Event { line, oversized, end };

  Event next(std::string& line) {
    for (;;) {
      if (auto event = takeLine(line)) return *event;
      if (m_ended) {
        if (m_discarding || m_buffer.empty()) return Event::end;
        line.swap(m_buffer);
        m_buffer.clear();
        return Event::line;
      }
      fill();
    }
  }

 private:
  std::optional<Event> takeLine(std::string& line) {
    const size_t newline = m_buffer.find('\n', m_scanned);
    if (newline == std::string::npos) {
      m_scanned = m_buffer.size();
      if (m_buffer.size() <= Mcp::maxMessageBytes) return std::nullopt;
      // Keep nothing of the line; the rest of it is dropped as it comes.
      m_buffer.clear();
      m_scanned = 0;
      return skipLongLine();
    }
    m_scanned = 0;
    if (m_discarding || newline > Mcp::maxMessageBytes) {
      m_buffer.erase(0, newline + 1);
      const std::optional<Event> event = skipLongLine();
      m_discarding = false;
      return event ? event : takeLine(line);
    }
    line.assign(m_buffer, 0, newline);
    m_buffer.erase(0, newline + 1);
    return Event::line;
  }

  // The first time a line is found too long, it is reported; once.
  std::optional<Event> skipLongLine() {
    if (m_discarding) return std::nullopt;
    m_discarding = true;
    return Event::oversized;
  }

  void fill() {
    char chunk[65536];
    for (;;) {
      const ssize_t count = ::read(m_fd, chunk, sizeof chunk);
      if (count > 0) {
        m_buffer.append(chunk, static_cast<size_t>(count));
        return;
      }
      if (count < 0 && errno == EINTR) continue;
      if (count < 0) {
        std::lock_guard lock(logMutex());
        std::cerr << "tarnbloom mcp: reading standard input failed: " << std::strerror(errno)
                  << '\n';
      }
      m_ended = true;
      return;
    }
  }

  int m_fd;
  std::string m_buffer;
  size_t m_scanned = 0;  // bytes of m_buffer known to hold no newline
  bool m_discarding = false;
  bool m_ended = false;
};

void writeLine(int fd, const std::string& line) {
  std::string bytes = line + '\n';
  size_t written = 0;
  while (written < bytes.size()) {
    const ssize_t count = ::write(fd, bytes.data() + written, bytes.size() - written);
    if (count < 0 && errno == EINTR) continue;
    // The client has stopped reading; it will close our input too.
    if (count < 0) return;
    written += static_cast<size_t>(count);
  }
}

}  // namespace

void serveMcp(int inputFd, int outputFd, AgentClient& client, const std::string& version) {
  McpServer server(client, version,
                   [outputFd](const std::string& line) { writeLine(outputFd, line); });
  LineReader reader(inputFd);
  std::string line;
  for (;;) {
    const LineReader::Event event = reader.next(line);
    if (event == LineReader::Event::end) break;
    if (event == LineReader::Event::oversized)
      server.receiveOversized();
    else
      server.receive(line);
  }
  server.close();
}

}  // namespace tarnbloom::agent
