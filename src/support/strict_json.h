#pragma once

#include <cstddef>
#include <nlohmann/json.hpp>
#include <span>
#include <string>

#include "support/error.h"

namespace tarnbloom {

// Why JSON that another program wrote was not read.
class StrictJsonError : public Error {
 public:
  enum class Case {
    syntax,        // not one well-formed JSON text: the parser's message (always UTF-8)
    duplicateKey,  // a key twice in one object: the key
    tooDeep,       // arrays and objects nested past the limit: the limit
    binary,        // a binary value, which no JSON text we accept holds
  };

  StrictJsonError(Case c, std::string text, int depthLimit = 0)
      : m_case(c), m_text(std::move(text)), m_depthLimit(depthLimit) {}

  Case errorCase() const { return m_case; }
  // The parser's message (syntax) or the repeated key (duplicateKey).
  const std::string& text() const { return m_text; }
  int depthLimit() const { return m_depthLimit; }
  // A plain English sentence; readers of particular documents usually say
  // it in their own words.
  std::string description() const override;

 private:
  Case m_case;
  std::string m_text;
  int m_depthLimit;
};

// Builds the tree of one JSON text, refusing a key that appears twice in one
// object (nlohmann would keep the last one silently, so a second value could
// slip past checks made on the first) and nesting deeper than `maxDepth`
// arrays and objects (the tree's destructor and every walk over it recurse).
// The parser itself is iterative, checks UTF-8 inside strings and refuses
// numbers beyond the range of a double. Integer literals past 64 bits become
// doubles. Callers bound the size of `data`. Throws StrictJsonError.
nlohmann::json parseStrictJson(std::span<const std::byte> data, int maxDepth);

}  // namespace tarnbloom
