#include "text.h"

#include <array>
#include <cstdio>

namespace hivekit::cli {
namespace {

constexpr char HEX[] = "0123456789abcdef";

void appendUnit(std::string& out, unsigned unit) {
  static constexpr char UPPER[] = "0123456789ABCDEF";
  out.push_back('%');
  for (int s = 12; s >= 0; s -= 4) out.push_back(UPPER[(unit >> s) & 15]);
}

}  // namespace

std::string typeName(ValueType type) {
  const std::string_view name = type == ValueType::none ? std::string_view() : type_name(type);
  return name.empty() ? std::to_string(static_cast<uint32_t>(type)) : std::string(name);
}

std::string fileTimeToIso(FileTime filetime) {
  // "YYYY-MM-DDThh:mm:ss.fffffffZ" without the fraction.
  std::string s = to_iso8601(filetime);
  const size_t dot = s.rfind('.');
  if (dot != std::string::npos) s.erase(dot, s.size() - 1 - dot);
  return s;
}

void appendHexBytes(std::string& out, const std::byte* data, size_t length) {
  size_t at = out.size();
  out.resize(at + 2 * length);
  char* p = out.data() + at;
  for (size_t i = 0; i < length; ++i) {
    const unsigned b = std::to_integer<unsigned>(data[i]);
    p[2 * i] = HEX[b >> 4];
    p[2 * i + 1] = HEX[b & 15];
  }
}

// Listings write several numbers per line: each is built in place and
// appended at once.
void appendHexFixed(std::string& out, uint64_t v, int width) {
  char buf[16];
  width = width > 16 ? 16 : width;
  for (int i = 0; i < width; ++i) buf[i] = HEX[(v >> (4 * (width - 1 - i))) & 15];
  out.append(buf, static_cast<size_t>(width));
}

void appendDecimal(std::string& out, uint64_t v) {
  char buf[24];
  char* p = buf + sizeof buf;
  do {
    *--p = static_cast<char>('0' + v % 10);
    v /= 10;
  } while (v);
  out.append(p, static_cast<size_t>(buf + sizeof buf - p));
}

std::string hexDump(const std::byte* data, size_t length, uint64_t firstOffset) {
  std::string out;
  for (size_t line = 0; line < length; line += 16) {
    appendHexFixed(out, firstOffset + line, 8);
    out += "  ";
    for (size_t i = 0; i < 16; ++i) {
      if (line + i < length) {
        appendHexBytes(out, data + line + i, 1);
        out.push_back(' ');
      } else {
        out += "   ";
      }
      if (i == 7) out.push_back(' ');
    }
    out += " |";
    for (size_t i = 0; i < 16 && line + i < length; ++i) {
      const unsigned c = std::to_integer<unsigned>(data[line + i]);
      out.push_back(c >= 0x20 && c < 0x7F ? static_cast<char>(c) : '.');
    }
    out += "|\n";
  }
  return out;
}

namespace {
// Needs no escape in any form: printable ASCII other than \ and %.
constexpr std::array<bool, 256> PLAIN = [] {
  std::array<bool, 256> t{};
  for (int c = 0x20; c < 0x7F; ++c) t[c] = c != '\\' && c != '%';
  return t;
}();
bool plain(unsigned char c) {
  return PLAIN[c];
}
}  // namespace

void appendEscaped(std::string& out, std::string_view s, Escape form) {
  // Most names are plain: the run up to the first character that may need
  // an escape goes in at once.
  size_t run = 0;
  while (run < s.size() && plain(static_cast<unsigned char>(s[run]))) ++run;
  out.append(s.data(), run);
  for (size_t i = run; i < s.size(); ++i) {
    const unsigned char c = static_cast<unsigned char>(s[i]);
    // An unpaired surrogate: ED A0..BF xx, the unit D800..DFFF.
    if (c == 0xED && i + 2 < s.size() && (static_cast<unsigned char>(s[i + 1]) & 0xE0) == 0xA0) {
      const unsigned unit = 0xD000 | ((static_cast<unsigned char>(s[i + 1]) & 0x3F) << 6) |
                            (static_cast<unsigned char>(s[i + 2]) & 0x3F);
      if (form == Escape::text)
        out += "\xEF\xBF\xBD";
      else
        appendUnit(out, unit);
      i += 2;
    } else if (form != Escape::text &&
               (c < 0x20 || c == 0x7F || (form == Escape::listing && (c == '\\' || c == '%')))) {
      appendUnit(out, c);
    } else {
      out.push_back(static_cast<char>(c));
    }
  }
}

}  // namespace hivekit::cli
