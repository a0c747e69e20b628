#include "platform/string.h"

namespace Platform {

namespace {

void appendCodePoint(std::u16string& out, char32_t cp, bool keepSurrogates = false) {
  if (cp > 0x10FFFF || (!keepSurrogates && cp >= 0xD800 && cp <= 0xDFFF)) cp = 0xFFFD;
  if (cp >= 0x10000) {
    cp -= 0x10000;
    out.push_back(static_cast<char16_t>(0xD800 + (cp >> 10)));
    out.push_back(static_cast<char16_t>(0xDC00 + (cp & 0x3FF)));
  } else {
    out.push_back(static_cast<char16_t>(cp));
  }
}

}  // namespace

namespace {

std::u16string decodeUtf8(std::string_view s, bool keepSurrogates) {
  std::u16string out;
  out.reserve(s.size());
  size_t i = 0;
  while (i < s.size()) {
    u8 c = static_cast<u8>(s[i]);
    char32_t cp;
    size_t n;
    if (c < 0x80) {
      cp = c;
      n = 1;
    } else if ((c & 0xE0) == 0xC0) {
      cp = c & 0x1F;
      n = 2;
    } else if ((c & 0xF0) == 0xE0) {
      cp = c & 0x0F;
      n = 3;
    } else if ((c & 0xF8) == 0xF0) {
      cp = c & 0x07;
      n = 4;
    } else {
      out.push_back(0xFFFD);
      ++i;
      continue;
    }
    if (i + n > s.size()) {
      out.push_back(0xFFFD);
      break;
    }
    bool ok = true;
    for (size_t k = 1; k < n; ++k) {
      u8 cc = static_cast<u8>(s[i + k]);
      if ((cc & 0xC0) != 0x80) {
        ok = false;
        break;
      }
      cp = (cp << 6) | (cc & 0x3F);
    }
    if (!ok) {
      out.push_back(0xFFFD);
      ++i;
      continue;
    }
    appendCodePoint(out, cp, keepSurrogates);
    i += n;
  }
  return out;
}

std::string encodeUtf8(std::u16string_view u, bool keepSurrogates) {
  // At most three bytes per unit (a pair of units makes four), written
  // through a pointer: appending byte by byte checked the room each time.
  std::string out(3 * u.size(), '\0');
  char* p = out.data();
  for (size_t i = 0; i < u.size(); ++i) {
    char32_t cp = u[i];
    if (cp < 0x80) {
      *p++ = static_cast<char>(cp);
      continue;
    }
    if (cp >= 0xD800 && cp <= 0xDBFF && i + 1 < u.size() && u[i + 1] >= 0xDC00 && u[i + 1] <= 0xDFFF) {
      cp = 0x10000 + ((cp - 0xD800) << 10) + (u[i + 1] - 0xDC00);
      ++i;
    } else if (cp >= 0xD800 && cp <= 0xDFFF && !keepSurrogates) {
      cp = 0xFFFD;
    }
    if (cp < 0x800) {
      *p++ = static_cast<char>(0xC0 | (cp >> 6));
      *p++ = static_cast<char>(0x80 | (cp & 0x3F));
    } else if (cp < 0x10000) {
      *p++ = static_cast<char>(0xE0 | (cp >> 12));
      *p++ = static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
      *p++ = static_cast<char>(0x80 | (cp & 0x3F));
    } else {
      *p++ = static_cast<char>(0xF0 | (cp >> 18));
      *p++ = static_cast<char>(0x80 | ((cp >> 12) & 0x3F));
      *p++ = static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
      *p++ = static_cast<char>(0x80 | (cp & 0x3F));
    }
  }
  out.resize(static_cast<size_t>(p - out.data()));
  return out;
}

}  // namespace

std::u16string utf8ToUtf16(std::string_view utf8) { return decodeUtf8(utf8, false); }
std::string utf16ToUtf8(std::u16string_view units) { return encodeUtf8(units, false); }
std::u16string wtf8ToUtf16(std::string_view wtf8) { return decodeUtf8(wtf8, true); }
std::string utf16ToWtf8(std::u16string_view units) { return encodeUtf8(units, true); }

Ref<String> String::create(std::string_view utf8) { return makeRef<String>(utf8ToUtf16(utf8)); }

Ref<String> String::fromLatin1(const u8* bytes, size_t length) {
  std::u16string s(length, u'\0');
  for (size_t i = 0; i < length; ++i) s[i] = bytes[i];
  return makeRef<String>(std::move(s));
}

Ref<String> String::fromUtf16(const char16_t* units, size_t length) {
  return makeRef<String>(std::u16string(units, length));
}

Ref<String> String::fromUtf16(std::u16string units) { return makeRef<String>(std::move(units)); }

Ref<String> String::fromUtf32(const char32_t* points, size_t length) {
  std::u16string s;
  s.reserve(length);
  for (size_t i = 0; i < length; ++i) appendCodePoint(s, points[i]);
  return makeRef<String>(std::move(s));
}

Ref<String> String::empty() { return makeRef<String>(std::u16string()); }

Ref<String> String::sub(size_t start, size_t count) const {
  if (start >= _s.size()) return empty();
  return makeRef<String>(_s.substr(start, count));
}

Ref<String> String::concat(const String& other) const { return makeRef<String>(_s + other._s); }

bool String::equal(std::string_view utf8) const { return _s == utf8ToUtf16(utf8); }

bool String::equalIgnoreCase(const String& other) const {
  if (_s.size() != other._s.size()) return false;
  for (size_t i = 0; i < _s.size(); ++i)
    if (upcase(_s[i]) != upcase(other._s[i])) return false;
  return true;
}

std::u16string String::upperUnits() const {
  std::u16string u(_s);
  for (auto& c : u) c = upcase(c);
  return u;
}

int String::compareIgnoreCase(const String& other) const {
  size_t n = std::min(_s.size(), other._s.size());
  for (size_t i = 0; i < n; ++i) {
    char16_t a = upcase(_s[i]), b = upcase(other._s[i]);
    if (a != b) return a < b ? -1 : 1;
  }
  if (_s.size() == other._s.size()) return 0;
  return _s.size() < other._s.size() ? -1 : 1;
}

std::string String::toUtf8() const { return utf16ToUtf8(_s); }

}  // namespace Platform
