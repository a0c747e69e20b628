#include "json.h"

#include "text.h"

namespace hivekit::cli {

namespace {

void appendEscape(std::string& out, unsigned unit) {
  static constexpr char HEX[] = "0123456789abcdef";
  out += "\\u";
  for (int s = 12; s >= 0; s -= 4) out += HEX[(unit >> s) & 15];
}

// The length of the UTF-8 sequence at s[i] (1 to 4), with a three-byte
// surrogate form (ED A0..BF xx) reported in `surrogate`; 0 when the bytes
// there are not valid.
size_t sequence(std::string_view s, size_t i, unsigned& surrogate) {
  surrogate = 0;
  const auto b = [&](size_t k) { return k < s.size() ? static_cast<unsigned char>(s[k]) : 0u; };
  const auto cont = [&](size_t k) { return (b(k) & 0xC0) == 0x80; };
  const unsigned c = b(i);
  if (c >= 0xC2 && c < 0xE0) return cont(i + 1) ? 2 : 0;
  if (c >= 0xE0 && c < 0xF0) {
    if (!cont(i + 1) || !cont(i + 2)) return 0;
    if (c == 0xE0 && b(i + 1) < 0xA0) return 0;  // overlong
    if (c == 0xED && b(i + 1) >= 0xA0) surrogate = 0xD000 | ((b(i + 1) & 0x3F) << 6) | (b(i + 2) & 0x3F);
    return 3;
  }
  if (c >= 0xF0 && c < 0xF5) {
    if (!cont(i + 1) || !cont(i + 2) || !cont(i + 3)) return 0;
    if ((c == 0xF0 && b(i + 1) < 0x90) || (c == 0xF4 && b(i + 1) >= 0x90)) return 0;
    return 4;
  }
  return 0;
}

}  // namespace

void appendJsonString(std::string& out, std::string_view s) {
  out += '"';
  for (size_t i = 0; i < s.size();) {
    const unsigned char c = static_cast<unsigned char>(s[i]);
    if (c < 0x80) {
      switch (c) {
        case '"':
          out += "\\\"";
          break;
        case '\\':
          out += "\\\\";
          break;
        case '\n':
          out += "\\n";
          break;
        case '\r':
          out += "\\r";
          break;
        case '\t':
          out += "\\t";
          break;
        default:
          if (c < 0x20 || c == 0x7F)
            appendEscape(out, c);
          else
            out += static_cast<char>(c);
      }
      ++i;
      continue;
    }
    unsigned surrogate;
    const size_t n = sequence(s, i, surrogate);
    if (n == 0) {
      appendEscape(out, 0xFFFD);
      ++i;
    } else if (surrogate) {
      appendEscape(out, surrogate);
      i += n;
    } else {
      out.append(s.substr(i, n));
      i += n;
    }
  }
  out += '"';
}

void JsonWriter::separate() {
  if (_afterKey) {
    _afterKey = false;
    return;
  }
  if (!_empty.empty()) {
    if (!_empty.back()) _out += ',';
    _empty.back() = false;
  }
}

JsonWriter& JsonWriter::open(char c) {
  separate();
  _out += c;
  _empty.push_back(true);
  return *this;
}

JsonWriter& JsonWriter::close(char c) {
  _out += c;
  if (!_empty.empty()) _empty.pop_back();
  return *this;
}

JsonWriter& JsonWriter::key(std::string_view name) {
  separate();
  appendJsonString(_out, name);
  _out += ':';
  _afterKey = true;
  return *this;
}

JsonWriter& JsonWriter::string(std::string_view text) {
  separate();
  appendJsonString(_out, text);
  return *this;
}

JsonWriter& JsonWriter::number(std::uint64_t n) {
  separate();
  appendDecimal(_out, n);
  return *this;
}

JsonWriter& JsonWriter::boolean(bool b) {
  separate();
  _out += b ? "true" : "false";
  return *this;
}

JsonWriter& JsonWriter::null() {
  separate();
  _out += "null";
  return *this;
}

JsonWriter& JsonWriter::hex(const std::byte* data, size_t length) {
  separate();
  _out += '"';
  appendHexBytes(_out, data, length);
  _out += '"';
  return *this;
}

}  // namespace hivekit::cli
