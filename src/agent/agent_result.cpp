#include "agent/agent_result.h"

#include <algorithm>
#include <cmath>

#include "agent/agent_json.h"

namespace tarnbloom::agent {
namespace {

using detail::DocumentKind;
using detail::Json;
using detail::ObjectReader;
using detail::OrderedJson;

OrderedJson orNull(const std::optional<std::string>& text) {
  return text ? OrderedJson(*text) : OrderedJson(nullptr);
}

OrderedJson encodeError(const AgentErrorInfo& error) {
  return {{"code", rawValue(error.code)}, {"message", error.message}};
}

OrderedJson encodeEcho(const AgentResultRequest& echo) {
  OrderedJson object = {{"command", rawValue(echo.command)}};
  if (echo.size) object["size"] = detail::encodeSize(*echo.size);
  if (echo.method) object["method"] = rawValue(*echo.method);
  if (echo.strength) object["strength"] = *echo.strength;
  if (echo.format) object["format"] = rawValue(*echo.format);
  if (echo.recipe) object["recipe"] = *echo.recipe;
  return object;
}

OrderedJson encodeItem(const AgentItem& item) {
  OrderedJson object;
  object["source"] = item.source;
  object["state"] = rawValue(item.state);
  object["output"] = orNull(item.output);
  if (item.width) object["width"] = *item.width;
  if (item.height) object["height"] = *item.height;
  object["format"] = rawValue(item.format);
  object["method"] = rawValue(item.method);
  object["ai_detail"] = item.aiDetail;
  if (item.receipt) object["receipt"] = *item.receipt;
  object["error"] = item.error ? encodeError(*item.error) : OrderedJson(nullptr);
  if (item.progress) object["progress"] = *item.progress;
  if (!item.notes.empty()) object["notes"] = item.notes;
  return object;
}

OrderedJson encodePlan(const AgentPlan& plan) {
  OrderedJson items = OrderedJson::array();
  for (const AgentPlanItem& item : plan.items)
    items.push_back({{"source", item.source},
                     {"output", item.output},
                     {"width", item.width},
                     {"height", item.height},
                     {"format", rawValue(item.format)},
                     {"method", rawValue(item.method)},
                     {"ai_detail", item.aiDetail},
                     {"action", rawValue(item.action)}});
  return {{"items", std::move(items)},
          {"will_export", plan.willExport()},
          {"will_skip", plan.willSkip()}};
}

OrderedJson encodeRecipeInfo(const AgentRecipeInfo& info) {
  OrderedJson object = {{"id", info.id}, {"name", info.name}, {"usable", info.usable}};
  if (info.reason) object["reason"] = *info.reason;
  return object;
}

// Reading. Results and events are written by the application and read by
// callers that may be older or newer within one protocol, so unknown keys
// are passed over; known keys are read strictly.

void checkSchema(const ObjectReader& fields, std::string_view expected, std::string_view what) {
  const std::string schema = fields.string("schema");
  if (schema != expected)
    throw AgentProtocolError({AgentErrorCode::versionMismatch,
                              "The " + std::string(what) + " has the schema “" + schema +
                                  "”; this version reads “" + std::string(expected) + "”."});
}

int64_t nonNegative(const ObjectReader& fields, std::string_view key) {
  const int64_t value = fields.integer(key);
  if (value < 0) fields.fail("The number at " + fields.path(key) + " is negative.");
  return value;
}

std::optional<int64_t> optionalNonNegative(const ObjectReader& fields, std::string_view key) {
  if (!fields.has(key)) return std::nullopt;
  return nonNegative(fields, key);
}

AgentErrorInfo readError(const ObjectReader& fields) {
  return {fields.enumeration<AgentErrorCode>("code"), fields.string("message")};
}

std::optional<AgentErrorInfo> optionalError(const ObjectReader& fields, std::string_view key) {
  const auto object = fields.optionalObject(key);
  if (!object) return std::nullopt;
  return readError(*object);
}

AgentResultRequest readEcho(const ObjectReader& fields) {
  AgentResultRequest echo;
  echo.command = fields.enumeration<AgentCommand>("command");
  if (const auto size = fields.optionalObject("size")) echo.size = detail::readSize(*size);
  echo.method = fields.optionalEnumeration<AgentMethod>("method");
  echo.strength = fields.optionalNumber("strength");
  echo.format = fields.optionalEnumeration<AgentFormat>("format");
  echo.recipe = fields.optionalString("recipe");
  return echo;
}

AgentItem readItem(const ObjectReader& fields) {
  AgentItem item;
  item.source = fields.string("source");
  item.state = fields.enumeration<AgentItemState>("state");
  // Always written, null until there is a file: a missing key means a
  // document this version did not write.
  if (!fields.contains("output"))
    fields.fail("The required key " + fields.path("output") + " is missing.");
  item.output = fields.optionalString("output");
  item.width = optionalNonNegative(fields, "width");
  item.height = optionalNonNegative(fields, "height");
  item.format = fields.enumeration<AgentFormat>("format");
  item.method = fields.enumeration<AgentMethod>("method");
  item.aiDetail = fields.boolean("ai_detail");
  item.receipt = fields.optionalString("receipt");
  if (!fields.contains("error"))
    fields.fail("The required key " + fields.path("error") + " is missing.");
  item.error = optionalError(fields, "error");
  item.progress = fields.optionalNumber("progress");
  if (const auto* notes = fields.optionalArray("notes"))
    for (const auto& note : *notes) {
      if (!note.is_string())
        fields.fail(fields.path("notes") + " holds something other than text.");
      item.notes.push_back(note.get<std::string>());
    }
  return item;
}

AgentPlan readPlan(const ObjectReader& fields) {
  AgentPlan plan;
  size_t index = 0;
  for (const Json& element : fields.array("items")) {
    const ObjectReader item = fields.element("items", element, index++);
    plan.items.push_back({item.string("source"), item.string("output"), nonNegative(item, "width"),
                          nonNegative(item, "height"), item.enumeration<AgentFormat>("format"),
                          item.enumeration<AgentMethod>("method"), item.boolean("ai_detail"),
                          item.enumeration<AgentPlanAction>("action")});
  }
  if (nonNegative(fields, "will_export") != plan.willExport() ||
      nonNegative(fields, "will_skip") != plan.willSkip())
    fields.fail("The tallies of " + fields.path("items") + " do not match its actions.");
  return plan;
}

}  // namespace

AgentResultRequest AgentResultRequest::echoing(const AgentRequest& request) {
  return {request.command,  request.size,   request.method,
          request.strength, request.format, request.recipe};
}

int64_t AgentPlan::willExport() const { return static_cast<int64_t>(items.size()) - willSkip(); }

int64_t AgentPlan::willSkip() const {
  return std::count_if(items.begin(), items.end(), [](const AgentPlanItem& item) {
    return item.action == AgentPlanAction::skip;
  });
}

std::string encodeResult(const AgentResult& result) {
  const auto timestamp = AgentProtocol::timestampString;
  OrderedJson root;
  root["schema"] = AgentProtocol::resultSchema;
  root["job"] = result.job;
  root["state"] = rawValue(result.state);
  root["app"] = {{"version", result.app.version},
                 {"build", result.app.build},
                 {"bundle_id", result.app.bundleID}};
  root["started_at"] = timestamp(result.startedAt);
  root["finished_at"] =
      result.finishedAt ? OrderedJson(timestamp(*result.finishedAt)) : OrderedJson(nullptr);
  root["updated_at"] = timestamp(result.updatedAt);
  root["request"] = result.request ? encodeEcho(*result.request) : OrderedJson(nullptr);
  if (result.dryRun) root["dry_run"] = *result.dryRun;
  OrderedJson items = OrderedJson::array();
  for (const AgentItem& item : result.items) items.push_back(encodeItem(item));
  root["items"] = std::move(items);
  root["counts"] = {{"completed", result.counts.completed},
                    {"skipped", result.counts.skipped},
                    {"failed", result.counts.failed},
                    {"cancelled", result.counts.cancelled}};
  if (result.error) root["error"] = encodeError(*result.error);
  if (result.plan) root["plan"] = encodePlan(*result.plan);
  if (result.recipes) {
    OrderedJson recipes = OrderedJson::array();
    for (const AgentRecipeInfo& info : *result.recipes) recipes.push_back(encodeRecipeInfo(info));
    root["recipes"] = std::move(recipes);
  }
  return detail::dumpDocument(root, true);
}

AgentResult decodeResult(std::span<const std::byte> bytes) {
  const Json root = detail::parseDocument(bytes, DocumentKind::result);
  const ObjectReader fields(root, "", DocumentKind::result);
  checkSchema(fields, AgentProtocol::resultSchema, "result document");

  AgentResult result;
  result.job = fields.string("job");
  result.state = fields.enumeration<AgentResultState>("state");
  const ObjectReader app = fields.object("app");
  result.app = {app.string("version"), app.string("build"), app.string("bundle_id")};
  result.startedAt = fields.timestamp("started_at");
  if (!fields.contains("finished_at")) fields.fail("The required key finished_at is missing.");
  result.finishedAt = fields.optionalTimestamp("finished_at");
  result.updatedAt = fields.timestamp("updated_at");
  if (!fields.contains("request")) fields.fail("The required key request is missing.");
  if (const auto echo = fields.optionalObject("request")) result.request = readEcho(*echo);
  result.dryRun = fields.optionalBoolean("dry_run");
  size_t index = 0;
  for (const Json& element : fields.array("items"))
    result.items.push_back(readItem(fields.element("items", element, index++)));
  const ObjectReader counts = fields.object("counts");
  result.counts = {nonNegative(counts, "completed"), nonNegative(counts, "skipped"),
                   nonNegative(counts, "failed"), nonNegative(counts, "cancelled")};
  result.error = optionalError(fields, "error");
  if (const auto plan = fields.optionalObject("plan")) result.plan = readPlan(*plan);
  if (const auto* recipes = fields.optionalArray("recipes")) {
    result.recipes.emplace();
    index = 0;
    for (const Json& element : *recipes) {
      const ObjectReader info = fields.element("recipes", element, index++);
      result.recipes->push_back({info.string("id"), info.string("name"), info.boolean("usable"),
                                 info.optionalString("reason")});
    }
  }
  return result;
}

std::optional<AgentExitCode> exitCode(const AgentResult& result) {
  switch (result.state) {
    case AgentResultState::running:
      return std::nullopt;
    case AgentResultState::rejected:
      return result.error ? exitCode(result.error->code) : AgentExitCode::usage;
    case AgentResultState::completed:
      return AgentExitCode::success;
    case AgentResultState::partial:
      return AgentExitCode::partial;
    case AgentResultState::failed:
      return AgentExitCode::failure;
    case AgentResultState::cancelled:
      return AgentExitCode::cancelled;
  }
  return AgentExitCode::failure;
}

std::string encodeProgressEvent(const AgentProgressEvent& event) {
  OrderedJson root;
  root["schema"] = AgentProtocol::progressSchema;
  root["event"] = rawValue(event.event);
  root["job"] = event.job;
  root["ts"] = AgentProtocol::timestampString(event.ts);
  if (event.total) root["total"] = *event.total;
  if (event.index) root["index"] = *event.index;
  if (event.source) root["source"] = *event.source;
  if (event.output) root["output"] = *event.output;
  if (event.fraction) root["fraction"] = *event.fraction;
  if (event.error) root["error"] = encodeError(*event.error);
  if (event.state) root["state"] = rawValue(*event.state);
  return detail::dumpDocument(root, false) + "\n";
}

AgentProgressEvent decodeProgressEvent(std::span<const std::byte> bytes) {
  const Json root = detail::parseDocument(bytes, DocumentKind::progressEvent);
  const ObjectReader fields(root, "", DocumentKind::progressEvent);
  checkSchema(fields, AgentProtocol::progressSchema, "progress event");

  AgentProgressEvent event;
  event.event = fields.enumeration<AgentProgressEventName>("event");
  event.job = fields.string("job");
  event.ts = fields.timestamp("ts");
  event.total = optionalNonNegative(fields, "total");
  event.index = optionalNonNegative(fields, "index");
  event.source = fields.optionalString("source");
  event.output = fields.optionalString("output");
  event.fraction = fields.optionalNumber("fraction");
  if (event.fraction && !(*event.fraction >= 0.0 && *event.fraction <= 1.0))
    fields.fail("The fraction " + std::to_string(*event.fraction) + " is not between 0 and 1.");
  event.error = optionalError(fields, "error");
  event.state = fields.optionalEnumeration<AgentResultState>("state");
  return event;
}

AgentCounts countItems(const std::vector<AgentItem>& items) {
  AgentCounts counts;
  for (const auto& item : items) {
    switch (item.state) {
      case AgentItemState::completed:
        ++counts.completed;
        break;
      case AgentItemState::skipped:
        ++counts.skipped;
        break;
      case AgentItemState::failed:
        ++counts.failed;
        break;
      case AgentItemState::cancelled:
        ++counts.cancelled;
        break;
      default:
        break;
    }
  }
  return counts;
}

}  // namespace tarnbloom::agent
