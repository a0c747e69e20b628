#include "cli/text.h"

#include <cstdio>

namespace hivekit::cli {
namespace {

constexpr char HEX[] = "0123456789abcdef";

void putCodePoint(std::string& out, char32_t cp) {
  if (cp < 0x80) {
    out.push_back(static_cast<char>(cp));
  } else if (cp < 0x800) {
    out.push_back(static_cast<char>(0xC0 | (cp >> 6)));
    out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
  } else if (cp < 0x10000) {
    out.push_back(static_cast<char>(0xE0 | (cp >> 12)));
    out.push_back(static_cast<char>(0x80 | ((cp >> 6) & 0x3F)));
    out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
  } else {
    out.push_back(static_cast<char>(0xF0 | (cp >> 18)));
    out.push_back(static_cast<char>(0x80 | ((cp >> 12) & 0x3F)));
    out.push_back(static_cast<char>(0x80 | ((cp >> 6) & 0x3F)));
    out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
  }
}

bool isHigh(char16_t u) {
  return u >= 0xD800 && u <= 0xDBFF;
}
bool isLow(char16_t u) {
  return u >= 0xDC00 && u <= 0xDFFF;
}

}  // namespace

std::string typeName(u32 type) {
  static const char* const names[] = {"REG_NONE",
                                      "REG_SZ",
                                      "REG_EXPAND_SZ",
                                      "REG_BINARY",
                                      "REG_DWORD",
                                      "REG_DWORD_BIG_ENDIAN",
                                      "REG_LINK",
                                      "REG_MULTI_SZ",
                                      "REG_RESOURCE_LIST",
                                      "REG_FULL_RESOURCE_DESCRIPTOR",
                                      "REG_RESOURCE_REQUIREMENTS_LIST",
                                      "REG_QWORD"};
  // Type 0 is shown as a number: REG_NONE is rare and easy to misread.
  if (type >= 1 && type < sizeof(names) / sizeof(names[0])) return names[type];
  return std::to_string(type);
}

std::string fileTimeToIso(u64 filetime) {
  u64 seconds = filetime / 10000000ull;
  u64 days = seconds / 86400;
  u64 rest = seconds % 86400;
  // Days since 1601-01-01 to a civil date: shift to 0000-03-01, then the
  // 400-year cycle arithmetic of the proleptic Gregorian calendar.
  u64 z = days + 584694;  // days from 0000-03-01 to 1601-01-01
  u64 era = z / 146097;
  u64 doe = z - era * 146097;
  u64 yoe = (doe - doe / 1460 + doe / 36524 - doe / 146096) / 365;
  u64 y = yoe + era * 400;
  u64 doy = doe - (365 * yoe + yoe / 4 - yoe / 100);
  u64 mp = (5 * doy + 2) / 153;
  u64 d = doy - (153 * mp + 2) / 5 + 1;
  u64 m = mp < 10 ? mp + 3 : mp - 9;
  if (m <= 2) ++y;
  char buf[64];
  std::snprintf(buf, sizeof(buf), "%04llu-%02llu-%02lluT%02llu:%02llu:%02lluZ", (unsigned long long)y,
                (unsigned long long)m, (unsigned long long)d, (unsigned long long)(rest / 3600),
                (unsigned long long)(rest / 60 % 60), (unsigned long long)(rest % 60));
  return buf;
}

void appendHexBytes(std::string& out, const u8* data, size_t length) {
  size_t at = out.size();
  out.resize(at + 2 * length);
  char* p = out.data() + at;
  for (size_t i = 0; i < length; ++i) {
    p[2 * i] = HEX[data[i] >> 4];
    p[2 * i + 1] = HEX[data[i] & 15];
  }
}

void appendHexFixed(std::string& out, u64 v, int width) {
  for (int i = width - 1; i >= 0; --i) out.push_back(HEX[(v >> (4 * i)) & 15]);
}

void appendDecimal(std::string& out, u64 v) {
  char buf[24];
  int n = 0;
  do {
    buf[n++] = static_cast<char>('0' + v % 10);
    v /= 10;
  } while (v);
  while (n) out.push_back(buf[--n]);
}

std::string hexDump(const u8* data, size_t length) {
  std::string out;
  for (size_t line = 0; line < length; line += 16) {
    appendHexFixed(out, line, 8);
    out += "  ";
    for (size_t i = 0; i < 16; ++i) {
      if (line + i < length) {
        out.push_back(HEX[data[line + i] >> 4]);
        out.push_back(HEX[data[line + i] & 15]);
        out.push_back(' ');
      } else {
        out += "   ";
      }
      if (i == 7) out.push_back(' ');
    }
    out += " |";
    for (size_t i = 0; i < 16 && line + i < length; ++i) {
      u8 c = data[line + i];
      out.push_back(c >= 0x20 && c < 0x7F ? static_cast<char>(c) : '.');
    }
    out += "|\n";
  }
  return out;
}

void appendEscapedName(std::string& out, std::u16string_view name) {
  static constexpr char UPPER[] = "0123456789ABCDEF";
  for (size_t i = 0; i < name.size(); ++i) {
    char16_t u = name[i];
    if (isHigh(u) && i + 1 < name.size() && isLow(name[i + 1])) {
      putCodePoint(out, 0x10000 + ((char32_t(u) - 0xD800) << 10) + (char32_t(name[i + 1]) - 0xDC00));
      ++i;
    } else if (u < 0x20 || u == 0x7F || u == u'\\' || u == u'%' || isHigh(u) || isLow(u)) {
      out.push_back('%');
      for (int s = 12; s >= 0; s -= 4) out.push_back(UPPER[(u >> s) & 15]);
    } else if (u < 0x80) {
      out.push_back(static_cast<char>(u));
    } else {
      putCodePoint(out, u);
    }
  }
}

void appendPrintable(std::string& out, std::u16string_view name) {
  for (size_t i = 0; i < name.size(); ++i) {
    char16_t u = name[i];
    if (isHigh(u) && i + 1 < name.size() && isLow(name[i + 1])) {
      appendEscapedName(out, name.substr(i, 2));
      ++i;
    } else if (u < 0x20 || u == 0x7F || isHigh(u) || isLow(u)) {
      appendEscapedName(out, name.substr(i, 1));
    } else {
      putCodePoint(out, u);
    }
  }
}

void appendUtf8(std::string& out, std::u16string_view text) {
  for (size_t i = 0; i < text.size(); ++i) {
    char16_t u = text[i];
    if (isHigh(u) && i + 1 < text.size() && isLow(text[i + 1])) {
      putCodePoint(out, 0x10000 + ((char32_t(u) - 0xD800) << 10) + (char32_t(text[i + 1]) - 0xDC00));
      ++i;
    } else if (isHigh(u) || isLow(u)) {
      putCodePoint(out, 0xFFFD);
    } else {
      putCodePoint(out, u);
    }
  }
}

}  // namespace hivekit::cli
