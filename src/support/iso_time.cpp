#include "support/iso_time.h"

#include <cstdio>

namespace tarnbloom {
namespace {

using namespace std::chrono;

bool readDigits(std::string_view text, size_t& at, size_t count, int& value) {
  if (at + count > text.size()) return false;
  value = 0;
  for (size_t i = 0; i < count; ++i) {
    const char c = text[at + i];
    if (c < '0' || c > '9') return false;
    value = value * 10 + (c - '0');
  }
  at += count;
  return true;
}

bool expect(std::string_view text, size_t& at, char c) {
  if (at >= text.size() || text[at] != c) return false;
  ++at;
  return true;
}

}  // namespace

std::string formatIso8601(WallTime time) {
  const auto secs = floor<seconds>(time);
  const auto days = floor<std::chrono::days>(secs);
  const year_month_day date{days};
  const hh_mm_ss clock{secs - days};
  char text[32];
  std::snprintf(text, sizeof text, "%04d-%02u-%02uT%02d:%02d:%02dZ", static_cast<int>(date.year()),
                static_cast<unsigned>(date.month()), static_cast<unsigned>(date.day()),
                static_cast<int>(clock.hours().count()), static_cast<int>(clock.minutes().count()),
                static_cast<int>(clock.seconds().count()));
  return text;
}

std::optional<WallTime> parseIso8601(std::string_view text) {
  size_t at = 0;
  int y, mo, d, h, mi, s;
  if (!readDigits(text, at, 4, y) || !expect(text, at, '-') || !readDigits(text, at, 2, mo) ||
      !expect(text, at, '-') || !readDigits(text, at, 2, d) || !expect(text, at, 'T') ||
      !readDigits(text, at, 2, h) || !expect(text, at, ':') || !readDigits(text, at, 2, mi) ||
      !expect(text, at, ':') || !readDigits(text, at, 2, s))
    return std::nullopt;
  if (h > 23 || mi > 59 || s > 60) return std::nullopt;
  // The clock counts nanoseconds in 64 bits: about 1678 to 2261 only.
  if (y < 1678 || y > 2261) return std::nullopt;

  nanoseconds fraction{0};
  if (at < text.size() && text[at] == '.') {
    ++at;
    const size_t start = at;
    int64_t scale = 100'000'000;
    while (at < text.size() && text[at] >= '0' && text[at] <= '9') {
      fraction += nanoseconds((text[at] - '0') * scale);
      scale /= 10;
      ++at;
    }
    if (at == start) return std::nullopt;
  }

  seconds offset{0};
  if (at < text.size() && text[at] == 'Z') {
    ++at;
  } else if (at < text.size() && (text[at] == '+' || text[at] == '-')) {
    const int sign = text[at] == '-' ? -1 : 1;
    ++at;
    int oh, om;
    if (!readDigits(text, at, 2, oh) || !expect(text, at, ':') || !readDigits(text, at, 2, om) ||
        oh > 23 || om > 59)
      return std::nullopt;
    offset = sign * (hours(oh) + minutes(om));
  } else {
    return std::nullopt;
  }
  if (at != text.size()) return std::nullopt;

  const year_month_day date{year(y), month(static_cast<unsigned>(mo)), day(static_cast<unsigned>(d))};
  if (!date.ok()) return std::nullopt;
  const auto local = sys_days(date) + hours(h) + minutes(mi) + seconds(s);
  return time_point_cast<WallTime::duration>(local - offset + fraction);
}

}  // namespace tarnbloom
