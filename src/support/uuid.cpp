#include "support/uuid.h"

#include <uuid/uuid.h>

#include <cctype>

namespace tarnbloom {

std::string makeUuid() {
  uuid_t id;
  uuid_generate_random(id);
  char text[37];
  uuid_unparse_upper(id, text);
  return text;
}

bool isUuid(std::string_view text) {
  if (text.size() != 36) return false;
  for (size_t i = 0; i < text.size(); ++i) {
    const bool dash = i == 8 || i == 13 || i == 18 || i == 23;
    if (dash ? text[i] != '-' : !std::isxdigit(static_cast<unsigned char>(text[i]))) return false;
  }
  return true;
}

}  // namespace tarnbloom
