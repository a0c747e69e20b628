// Reading ISO 8601 times (to_iso8601 writes them, in types.cc).
#include "hivekit/types.h"

namespace hivekit {

namespace {

// Reads exactly `digits` decimal digits at `at`.
bool number(std::string_view text, size_t& at, int digits, unsigned& out) {
  if (at + digits > text.size()) return false;
  out = 0;
  for (int i = 0; i < digits; ++i) {
    const char c = text[at + i];
    if (c < '0' || c > '9') return false;
    out = out * 10 + static_cast<unsigned>(c - '0');
  }
  at += digits;
  return true;
}

bool expect(std::string_view text, size_t& at, char c) {
  if (at >= text.size() || text[at] != c) return false;
  ++at;
  return true;
}

// Days from 1970-01-01 to the date (the days-from-civil algorithm).
std::int64_t daysFromCivil(std::int64_t y, unsigned m, unsigned d) {
  y -= m <= 2;
  const std::int64_t era = (y >= 0 ? y : y - 399) / 400;
  const std::int64_t yoe = y - era * 400;
  const std::int64_t doy = (153 * (m > 2 ? m - 3 : m + 9) + 2) / 5 + d - 1;
  const std::int64_t doe = yoe * 365 + yoe / 4 - yoe / 100 + doy;
  return era * 146097 + doe - 719468;
}

}  // namespace

bool parse_iso8601(std::string_view text, FileTime& out) noexcept {
  size_t at = 0;
  unsigned year = 0, month = 0, day = 0, hour = 0, minute = 0, second = 0, fraction = 0;
  if (!number(text, at, 4, year) || !expect(text, at, '-') || !number(text, at, 2, month) ||
      !expect(text, at, '-') || !number(text, at, 2, day))
    return false;
  if (at < text.size() && (text[at] == 'T' || text[at] == 't' || text[at] == ' ')) {
    ++at;
    if (!number(text, at, 2, hour) || !expect(text, at, ':') || !number(text, at, 2, minute)) return false;
    if (at < text.size() && text[at] == ':') {
      ++at;
      if (!number(text, at, 2, second)) return false;
      if (at < text.size() && (text[at] == '.' || text[at] == ',')) {
        ++at;
        int digits = 0;
        while (at < text.size() && text[at] >= '0' && text[at] <= '9') {
          if (++digits > 7) return false;
          fraction = fraction * 10 + static_cast<unsigned>(text[at++] - '0');
        }
        if (digits == 0) return false;
        for (; digits < 7; ++digits) fraction *= 10;
      }
    }
  }
  if (at < text.size() && (text[at] == 'Z' || text[at] == 'z')) ++at;
  if (at != text.size()) return false;
  static constexpr unsigned DAYS[] = {31, 29, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
  const bool leap = (year % 4 == 0 && year % 100 != 0) || year % 400 == 0;
  if (year < 1601 || month < 1 || month > 12 || day < 1 || day > DAYS[month - 1] ||
      (month == 2 && day == 29 && !leap) || hour > 23 || minute > 59 || second > 59)
    return false;
  constexpr std::int64_t DAYS_1601_TO_1970 = 134774;
  const std::int64_t days = daysFromCivil(year, month, day) + DAYS_1601_TO_1970;
  const std::uint64_t seconds = static_cast<std::uint64_t>(days) * 86400 + hour * 3600u + minute * 60u + second;
  out = seconds * 10'000'000 + fraction;
  return true;
}

}  // namespace hivekit
