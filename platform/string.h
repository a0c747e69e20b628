// An immutable UTF-16 string.
//
// Registry names are sequences of UTF-16 code units, compared without
// regard to case by upper-casing both sides with a fixed table over the
// whole Basic Multilingual Plane (never a locale call, so results do not
// depend on the environment).
#pragma once

#include <string>
#include <string_view>

#include "platform/object.h"

namespace Platform {

class String : public Object {
 public:
  // Text given as UTF-8 (ASCII is a subset); invalid bytes become U+FFFD.
  static Ref<String> create(std::string_view utf8);
  // One byte per character, byte = code point.
  static Ref<String> fromLatin1(const u8* bytes, size_t length);
  static Ref<String> fromUtf16(const char16_t* units, size_t length);
  static Ref<String> fromUtf16(std::u16string units);
  // Code points above U+FFFF become surrogate pairs; invalid ones U+FFFD.
  static Ref<String> fromUtf32(const char32_t* points, size_t length);
  static Ref<String> empty();

  size_t length() const { return _s.size(); }
  bool isEmpty() const { return _s.empty(); }
  char16_t at(size_t i) const { return _s[i]; }
  const char16_t* data() const { return _s.data(); }
  const std::u16string& units() const { return _s; }

  // Characters [start, start + count), cut to the string's end.
  Ref<String> sub(size_t start, size_t count = std::u16string::npos) const;
  Ref<String> concat(const String& other) const;
  bool equal(const String& other) const { return _s == other._s; }
  bool equal(std::string_view utf8) const;
  bool equalIgnoreCase(const String& other) const;
  bool startsWith(const String& prefix) const { return _s.compare(0, prefix._s.size(), prefix._s) == 0; }
  // The units upper-cased through the table (lookups upper-case the name
  // they seek once per call, into units rather than a new object).
  std::u16string upperUnits() const;
  // Ordering of the upper-cased forms, unit by unit: <0, 0, >0.
  int compareIgnoreCase(const String& other) const;

  std::string toUtf8() const;

  // Upper case of one UTF-16 unit; surrogates and unmapped units unchanged.
  static char16_t upcase(char16_t c);
  // compareIgnoreCase of a name whose units went through upcase already
  // against `count` units given one by one (names read in place, without
  // making a String of them).
  template <class UnitAt>
  static int compareUpcased(std::u16string_view upcased, size_t count, UnitAt unitAt) {
    const size_t n = upcased.size() < count ? upcased.size() : count;
    for (size_t i = 0; i < n; ++i) {
      const char16_t probe = upcase(unitAt(i));
      if (upcased[i] != probe) return upcased[i] < probe ? -1 : 1;
    }
    if (upcased.size() == count) return 0;
    return upcased.size() < count ? -1 : 1;
  }

  explicit String(std::u16string s) : _s(std::move(s)) {}

 private:
  const std::u16string _s;
};

// Encodes UTF-16 units as UTF-8; an unpaired surrogate becomes U+FFFD.
std::string utf16ToUtf8(std::u16string_view units);
std::u16string utf8ToUtf16(std::string_view utf8);
// The same, but an unpaired surrogate travels as its own three-byte form
// (WTF-8), so that any sequence of UTF-16 units converts there and back
// unchanged; valid UTF-16 gives plain UTF-8.
std::string utf16ToWtf8(std::u16string_view units);
std::u16string wtf8ToUtf16(std::string_view wtf8);

}  // namespace Platform
