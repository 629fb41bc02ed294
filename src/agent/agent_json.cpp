#include "agent/agent_json.h"

#include <algorithm>
#include <cmath>
#include <limits>

#include "support/strict_json.h"

namespace tarnbloom::agent::detail {
namespace {

std::string_view describe(const Json& value) {
  switch (value.type()) {
    case Json::value_t::null:
      return "null";
    case Json::value_t::object:
      return "an object";
    case Json::value_t::array:
      return "an array";
    case Json::value_t::string:
      return "a string";
    case Json::value_t::boolean:
      return "true or false";
    case Json::value_t::number_integer:
    case Json::value_t::number_unsigned:
    case Json::value_t::number_float:
      return "a number";
    default:
      return "something else";
  }
}

size_t byteLimit(DocumentKind kind) {
  switch (kind) {
    case DocumentKind::request:
      return AgentProtocol::maxRequestBytes;
    case DocumentKind::result:
      return AgentProtocol::maxResultBytes;
    case DocumentKind::progressEvent:
      return AgentProtocol::maxProgressEventBytes;
  }
  return AgentProtocol::maxRequestBytes;
}

std::string_view documentName(DocumentKind kind) {
  switch (kind) {
    case DocumentKind::request:
      return "request";
    case DocumentKind::result:
      return "result document";
    case DocumentKind::progressEvent:
      return "progress event";
  }
  return "document";
}

}  // namespace

void refuse(DocumentKind kind, std::string fault) {
  if (kind == DocumentKind::request)
    throw AgentProtocolError(AgentErrorInfo::generic(AgentErrorCode::invalidArgument),
                             std::move(fault));
  throw AgentProtocolError(AgentErrorInfo{AgentErrorCode::internal, fault}, fault);
}

Json parseDocument(std::span<const std::byte> bytes, DocumentKind kind) {
  // Bounded before parsing: the tree of a JSON text takes several times its
  // size in memory.
  const size_t limit = byteLimit(kind);
  if (bytes.size() > limit)
    refuse(kind, "The " + std::string(documentName(kind)) + " is larger than " +
                     std::to_string(limit) + " bytes.");
  Json root;
  try {
    root = parseStrictJson(bytes, AgentProtocol::maxNestingDepth);
  } catch (const StrictJsonError& error) {
    refuse(kind, error.description());
  }
  if (!root.is_object())
    refuse(kind, "Expected an object at the top level, found " + std::string(describe(root)) + ".");
  return root;
}

void ObjectReader::refuseUnknownKeys(std::initializer_list<std::string_view> known) const {
  for (const auto& [key, value] : m_object.get_ref<const Json::object_t&>()) {
    if (std::find(known.begin(), known.end(), key) == known.end())
      fail("The key “" + path(key) + "” is not part of an agent " +
           std::string(documentName(m_kind)) + ".");
  }
}

std::string ObjectReader::path(std::string_view key) const {
  return m_path.empty() ? std::string(key) : m_path + "." + std::string(key);
}

bool ObjectReader::has(std::string_view key) const { return optional(key) != nullptr; }

const Json& ObjectReader::required(std::string_view key) const {
  const auto it = m_object.find(key);
  if (it == m_object.end()) fail("The required key " + path(key) + " is missing.");
  return *it;
}

const Json* ObjectReader::optional(std::string_view key) const {
  const auto it = m_object.find(key);
  return it == m_object.end() || it->is_null() ? nullptr : &*it;
}

void ObjectReader::typeMismatch(std::string_view key, std::string_view expected,
                                const Json& found) const {
  fail("Expected " + std::string(expected) + " at " + path(key) + ", found " +
       std::string(describe(found)) + ".");
}

std::string ObjectReader::stringFrom(std::string_view key, const Json& value) const {
  if (!value.is_string()) typeMismatch(key, "a string", value);
  const auto& text = value.get_ref<const std::string&>();
  // "\u0000" is valid JSON, but a path holding it would be cut short at the
  // first system call and name another file than the one checked.
  if (text.find('\0') != std::string::npos) fail("The text at " + path(key) + " holds a NUL.");
  return text;
}

int64_t ObjectReader::integerFrom(std::string_view key, const Json& value) const {
  constexpr double kTwoTo63 = 9223372036854775808.0;
  switch (value.type()) {
    case Json::value_t::number_integer:
      return value.get<int64_t>();
    case Json::value_t::number_unsigned: {
      const auto unsignedValue = value.get<uint64_t>();
      if (unsignedValue > static_cast<uint64_t>(std::numeric_limits<int64_t>::max()))
        fail("The number at " + path(key) + " does not fit a 64-bit integer.");
      return static_cast<int64_t>(unsignedValue);
    }
    case Json::value_t::number_float: {
      // Integer literals past 64 bits arrive as doubles; "100.0" is read as
      // the integer it names, as most JSON writers of other languages mean it.
      const double d = value.get<double>();
      if (d != std::trunc(d))
        fail("Expected an integer at " + path(key) + ", found a number with a fraction.");
      if (d >= kTwoTo63 || d < -kTwoTo63)
        fail("The number at " + path(key) + " does not fit a 64-bit integer.");
      return static_cast<int64_t>(d);
    }
    default:
      typeMismatch(key, "an integer", value);
  }
}

double ObjectReader::numberFrom(std::string_view key, const Json& value) const {
  if (!value.is_number()) typeMismatch(key, "a number", value);
  return value.get<double>();
}

WallTime ObjectReader::timestampFrom(std::string_view key, const Json& value) const {
  const std::string text = stringFrom(key, value);
  const auto date = AgentProtocol::parseTimestamp(text);
  if (!date) fail("Not an ISO-8601 UTC timestamp: " + text);
  return *date;
}

std::string ObjectReader::string(std::string_view key) const {
  return stringFrom(key, required(key));
}

std::optional<std::string> ObjectReader::optionalString(std::string_view key) const {
  const Json* value = optional(key);
  if (!value) return std::nullopt;
  return stringFrom(key, *value);
}

int64_t ObjectReader::integer(std::string_view key) const {
  return integerFrom(key, required(key));
}

std::optional<int64_t> ObjectReader::optionalInteger(std::string_view key) const {
  const Json* value = optional(key);
  if (!value) return std::nullopt;
  return integerFrom(key, *value);
}

double ObjectReader::number(std::string_view key) const { return numberFrom(key, required(key)); }

std::optional<double> ObjectReader::optionalNumber(std::string_view key) const {
  const Json* value = optional(key);
  if (!value) return std::nullopt;
  return numberFrom(key, *value);
}

bool ObjectReader::boolean(std::string_view key) const {
  const Json& value = required(key);
  if (!value.is_boolean()) typeMismatch(key, "true or false", value);
  return value.get<bool>();
}

std::optional<bool> ObjectReader::optionalBoolean(std::string_view key) const {
  const Json* value = optional(key);
  if (!value) return std::nullopt;
  if (!value->is_boolean()) typeMismatch(key, "true or false", *value);
  return value->get<bool>();
}

WallTime ObjectReader::timestamp(std::string_view key) const {
  return timestampFrom(key, required(key));
}

std::optional<WallTime> ObjectReader::optionalTimestamp(std::string_view key) const {
  const Json* value = optional(key);
  if (!value) return std::nullopt;
  return timestampFrom(key, *value);
}

ObjectReader ObjectReader::object(std::string_view key) const {
  const Json& value = required(key);
  if (!value.is_object()) typeMismatch(key, "an object", value);
  return ObjectReader(value, path(key), m_kind);
}

std::optional<ObjectReader> ObjectReader::optionalObject(std::string_view key) const {
  const Json* value = optional(key);
  if (!value) return std::nullopt;
  if (!value->is_object()) typeMismatch(key, "an object", *value);
  return ObjectReader(*value, path(key), m_kind);
}

const Json::array_t& ObjectReader::array(std::string_view key) const {
  const Json& value = required(key);
  if (!value.is_array()) typeMismatch(key, "an array", value);
  return value.get_ref<const Json::array_t&>();
}

const Json::array_t* ObjectReader::optionalArray(std::string_view key) const {
  const Json* value = optional(key);
  if (!value) return nullptr;
  if (!value->is_array()) typeMismatch(key, "an array", *value);
  return &value->get_ref<const Json::array_t&>();
}

ObjectReader ObjectReader::element(std::string_view key, const Json& element, size_t index) const {
  const std::string elementPath = path(key) + "[" + std::to_string(index) + "]";
  if (!element.is_object())
    fail("Expected an object at " + elementPath + ", found " + std::string(describe(element)) +
         ".");
  return ObjectReader(element, elementPath, m_kind);
}

std::string dumpDocument(const OrderedJson& document, bool pretty) {
  try {
    // nlohmann never escapes "/", so paths read as they are.
    std::string text =
        document.dump(pretty ? 2 : -1, ' ', false, OrderedJson::error_handler_t::strict);
    if (pretty) text += '\n';
    return text;
  } catch (const OrderedJson::exception& error) {
    // A file name that is not UTF-8 cannot be written as JSON; replacing its
    // bytes would name a file that does not exist.
    throw AgentProtocolError(
        AgentErrorInfo{AgentErrorCode::internal,
                       "A path or text in this agent document is not UTF-8, so it cannot be "
                       "written as JSON."},
        error.what());
  }
}

}  // namespace tarnbloom::agent::detail
