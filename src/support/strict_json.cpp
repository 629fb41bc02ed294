#include "support/strict_json.h"

#include <optional>
#include <vector>

#include "support/utf8.h"

namespace tarnbloom {
namespace {

using nlohmann::json;

// Takes the parser's events instead of letting nlohmann build the tree, so
// that it can stop at the first duplicate key or at the nesting limit.
class GuardedJsonBuilder {
 public:
  GuardedJsonBuilder(json& root, int maxDepth) : m_root(root), m_maxDepth(maxDepth) {}

  bool null() { return place(json(nullptr)) != nullptr; }
  bool boolean(bool value) { return place(json(value)) != nullptr; }
  bool number_integer(json::number_integer_t value) { return place(json(value)) != nullptr; }
  bool number_unsigned(json::number_unsigned_t value) { return place(json(value)) != nullptr; }
  bool number_float(json::number_float_t value, const std::string&) {
    return place(json(value)) != nullptr;
  }
  bool string(std::string& value) { return place(json(std::move(value))) != nullptr; }
  bool binary(json::binary_t&) { return fail(StrictJsonError::Case::binary, {}); }

  bool start_object(std::size_t) { return open(json::value_t::object); }
  bool key(std::string& key) {
    auto& object = m_open.back()->get_ref<json::object_t&>();
    const auto [it, inserted] = object.try_emplace(key);
    if (!inserted) return fail(StrictJsonError::Case::duplicateKey, key);
    m_slot = &it->second;
    return true;
  }
  bool end_object() {
    m_open.pop_back();
    return true;
  }
  bool start_array(std::size_t) { return open(json::value_t::array); }
  bool end_array() {
    m_open.pop_back();
    return true;
  }
  bool parse_error(std::size_t, const std::string&, const nlohmann::detail::exception& error) {
    std::string text = error.what();
    // The parser quotes the bytes it stopped at, which for a file that is
    // not UTF-8 are not UTF-8 either; an error text must be, since it ends
    // up in windows and JSON documents.
    if (!isValidUtf8(text)) {
      std::string cleaned;
      for (const char c : text)
        cleaned += static_cast<unsigned char>(c) < 0x80 ? std::string(1, c) : "\uFFFD";
      text = std::move(cleaned);
    }
    return fail(StrictJsonError::Case::syntax, std::move(text));
  }

  // Set once parsing stopped early.
  const std::optional<StrictJsonError>& failure() const { return m_failure; }

 private:
  json* place(json&& value) {
    if (m_open.empty()) {
      m_root = std::move(value);
      return &m_root;
    }
    json& parent = *m_open.back();
    if (parent.is_array()) {
      auto& array = parent.get_ref<json::array_t&>();
      array.push_back(std::move(value));
      return &array.back();
    }
    *m_slot = std::move(value);
    return m_slot;
  }

  bool open(json::value_t type) {
    if (m_open.size() >= static_cast<size_t>(m_maxDepth))
      return fail(StrictJsonError::Case::tooDeep, {});
    m_open.push_back(place(json(type)));
    return true;
  }

  bool fail(StrictJsonError::Case c, std::string text) {
    m_failure.emplace(c, std::move(text), m_maxDepth);
    return false;
  }

  json& m_root;
  int m_maxDepth;
  std::vector<json*> m_open;  // the objects and arrays not closed yet
  json* m_slot = nullptr;     // where the value after the last key goes
  std::optional<StrictJsonError> m_failure;
};

}  // namespace

std::string StrictJsonError::description() const {
  switch (m_case) {
    case Case::syntax:
      return m_text.empty() ? "The JSON cannot be read." : m_text;
    case Case::duplicateKey:
      return "The JSON has the key “" + m_text + "” twice in one object.";
    case Case::tooDeep:
      return "The JSON nests deeper than " + std::to_string(m_depthLimit) + " levels.";
    case Case::binary:
      return "The JSON holds binary data.";
  }
  return m_text;
}

json parseStrictJson(std::span<const std::byte> data, int maxDepth) {
  json root;
  GuardedJsonBuilder builder(root, maxDepth);
  const auto* first = reinterpret_cast<const char*>(data.data());
  if (!json::sax_parse(first, first + data.size(), &builder)) {
    if (builder.failure()) throw *builder.failure();
    throw StrictJsonError(StrictJsonError::Case::syntax, {});
  }
  return root;
}

}  // namespace tarnbloom
