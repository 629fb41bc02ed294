#pragma once

#include <string_view>

namespace tarnbloom {

// Whether `text` is well-formed UTF-8 (no overlong forms, surrogates or
// code points past U+10FFFF). File names on Linux are bytes; the documents
// we write (queue, ledger, receipts) can only hold names that pass this.
bool isValidUtf8(std::string_view text);

}  // namespace tarnbloom
