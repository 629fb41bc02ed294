#include "support/locale_numbers.h"

#include <langinfo.h>
#include <locale.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <string_view>

namespace tarnbloom {
namespace {

std::string userLocaleName() {
  for (const char* key : {"LC_ALL", "LC_NUMERIC", "LANG"}) {
    const char* value = std::getenv(key);
    if (value && *value) return value;
  }
  return "C";
}

// Separators for locales the system has not generated (minimal installs often
// carry only C.UTF-8). Keyed by language, then language_REGION.
std::string fallbackSeparator(std::string_view name) {
  const std::string_view tag = name.substr(0, name.find_first_of(".@"));
  const std::string_view language = tag.substr(0, tag.find('_'));
  if (tag == "de_CH" || tag == "it_CH") return "\u2019";
  if (language == "fr" || language == "nb" || language == "nn" || language == "sv" ||
      language == "fi" || language == "cs" || language == "pl" || language == "ru" ||
      language == "uk" || language == "sk")
    return "\u202f";  // narrow no-break space
  if (language == "de" || language == "nl" || language == "da" || language == "it" ||
      language == "es" || language == "pt" || language == "id" || language == "tr" ||
      language == "el")
    return ".";
  return ",";
}

std::string separatorFor(const std::string& name) {
  // The C and POSIX locales group nothing, but a number in a message is
  // easier to read grouped; those users get the English separator.
  if (name == "C" || name == "POSIX" || name.rfind("C.", 0) == 0) return ",";
  locale_t loc = newlocale(LC_NUMERIC_MASK, name.c_str(), static_cast<locale_t>(0));
  if (loc == static_cast<locale_t>(0)) return fallbackSeparator(name);
  std::string separator = nl_langinfo_l(THOUSEP, loc);
  const std::string grouping = nl_langinfo_l(GROUPING, loc);
  freelocale(loc);
  if (separator.empty() || grouping.empty()) return fallbackSeparator(name);
  return separator;
}

}  // namespace

std::string groupedNumber(int64_t value, const std::string& localeName) {
  const std::string separator = separatorFor(localeName);
  const bool negative = value < 0;
  uint64_t magnitude = negative ? 0 - static_cast<uint64_t>(value) : static_cast<uint64_t>(value);
  const std::string digits = std::to_string(magnitude);
  std::string text = negative ? "-" : "";
  for (size_t i = 0; i < digits.size(); ++i) {
    if (i > 0 && (digits.size() - i) % 3 == 0) text += separator;
    text += digits[i];
  }
  return text;
}

std::string groupedNumber(int64_t value) { return groupedNumber(value, userLocaleName()); }

std::string byteCountText(uint64_t bytes) {
  if (bytes == 1) return "1 byte";
  if (bytes < 1000) return std::to_string(bytes) + " bytes";
  if (bytes < 1000 * 1000) return std::to_string((bytes + 500) / 1000) + " KB";
  static constexpr const char* kUnits[] = {"MB", "GB", "TB", "PB", "EB"};
  double value = static_cast<double>(bytes) / 1e6;
  int unit = 0;
  // Round first, so 999.96 MB reads "1 GB" and not "1000.0 MB".
  while (unit < 4 && std::round(value * 10) / 10 >= 1000) {
    value /= 1000;
    ++unit;
  }
  char text[32];
  const double rounded = std::round(value * 10) / 10;
  if (rounded == std::floor(rounded))
    std::snprintf(text, sizeof text, "%.0f %s", rounded, kUnits[unit]);
  else
    std::snprintf(text, sizeof text, "%.1f %s", rounded, kUnits[unit]);
  return text;
}

}  // namespace tarnbloom
