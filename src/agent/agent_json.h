#pragma once

// Reading and writing the JSON of the agent documents. Private to this
// folder: other code reads and writes documents through agent_request.h and
// agent_result.h.

#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <nlohmann/json.hpp>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "agent/agent_protocol.h"
#include "support/iso_time.h"

namespace tarnbloom::agent {
struct AgentSize;
}

namespace tarnbloom::agent::detail {

using Json = nlohmann::json;
using OrderedJson = nlohmann::ordered_json;

// Which document is being read decides how a refusal is reported: a request
// is the caller's mistake (invalid_argument with the generic sentence, the
// exact fault in details()); a result or progress event that cannot be read
// is ours (internal, with the exact fault as the message).
enum class DocumentKind { request, result, progressEvent };

[[noreturn]] void refuse(DocumentKind kind, std::string fault);

// The tree of one document: at most the kind's byte limit, well-formed
// UTF-8 JSON, no key twice in one object, nested no deeper than
// AgentProtocol::maxNestingDepth, an object at the top. Throws
// AgentProtocolError.
Json parseDocument(std::span<const std::byte> bytes, DocumentKind kind);

// The keys of one object, read with their paths ("sources[1].kind") so that
// a refusal says where the fault is. Optional keys that are absent or null
// read as absent; required keys must hold a value of their type.
class ObjectReader {
 public:
  ObjectReader(const Json& object, std::string path, DocumentKind kind)
      : m_object(object), m_path(std::move(path)), m_kind(kind) {}

  // Refuses the first key (in byte order) not in `known`.
  void refuseUnknownKeys(std::initializer_list<std::string_view> known) const;

  bool has(std::string_view key) const;
  // Present, null included; for keys whose null means something.
  bool contains(std::string_view key) const { return m_object.contains(key); }

  std::string string(std::string_view key) const;
  std::optional<std::string> optionalString(std::string_view key) const;
  int64_t integer(std::string_view key) const;
  std::optional<int64_t> optionalInteger(std::string_view key) const;
  double number(std::string_view key) const;
  std::optional<double> optionalNumber(std::string_view key) const;
  bool boolean(std::string_view key) const;
  std::optional<bool> optionalBoolean(std::string_view key) const;
  WallTime timestamp(std::string_view key) const;
  std::optional<WallTime> optionalTimestamp(std::string_view key) const;
  ObjectReader object(std::string_view key) const;
  std::optional<ObjectReader> optionalObject(std::string_view key) const;
  const Json::array_t& array(std::string_view key) const;
  const Json::array_t* optionalArray(std::string_view key) const;
  // The object at `index` of an array read from `key`.
  ObjectReader element(std::string_view key, const Json& element, size_t index) const;

  template <typename Enumeration>
  Enumeration enumeration(std::string_view key) const {
    return enumerationFrom<Enumeration>(key, required(key));
  }
  template <typename Enumeration>
  std::optional<Enumeration> optionalEnumeration(std::string_view key) const {
    const Json* value = optional(key);
    if (!value) return std::nullopt;
    return enumerationFrom<Enumeration>(key, *value);
  }

  [[noreturn]] void fail(std::string fault) const { refuse(m_kind, std::move(fault)); }
  std::string path(std::string_view key) const;

 private:
  const Json& required(std::string_view key) const;
  const Json* optional(std::string_view key) const;
  std::string stringFrom(std::string_view key, const Json& value) const;
  int64_t integerFrom(std::string_view key, const Json& value) const;
  double numberFrom(std::string_view key, const Json& value) const;
  WallTime timestampFrom(std::string_view key, const Json& value) const;
  [[noreturn]] void typeMismatch(std::string_view key, std::string_view expected,
                                 const Json& found) const;

  template <typename Enumeration>
  Enumeration enumerationFrom(std::string_view key, const Json& value) const {
    const std::string text = stringFrom(key, value);
    const auto parsed = fromRawValue<Enumeration>(text);
    if (!parsed) fail("“" + text + "” at " + path(key) + " is not a value this version knows.");
    return *parsed;
  }

  const Json& m_object;
  std::string m_path;
  DocumentKind m_kind;
};

class ObjectReader;

// The size object, which requests and result echoes share; absent numbers
// are omitted. Reading skips unknown keys: a request refuses them first.
OrderedJson encodeSize(const AgentSize& size);
AgentSize readSize(const ObjectReader& fields);

// Compact (one line, for progress events) or indented by two spaces with a
// final newline. Throws AgentProtocolError (internal) for text that is not
// UTF-8, which JSON cannot hold.
std::string dumpDocument(const OrderedJson& document, bool pretty);

}  // namespace tarnbloom::agent::detail
