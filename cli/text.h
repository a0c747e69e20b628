// Text forms shared by the commands: type names, times, hex, names.
//
// Names and strings come from the library as UTF-8, where an unpaired
// surrogate (which UTF-8 cannot carry) is written in its three-byte form
// (ED A0..BF xx); the functions that show text decide what to do with it.
#pragma once

#include <hivekit/types.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace hivekit::cli {

// "REG_SZ", ..., or the number in decimal for types without a name (and
// for type 0: REG_NONE is rare and easy to misread).
std::string typeName(ValueType type);
// FILETIME as "2019-03-01T10:11:12Z" (whole seconds, UTC).
std::string fileTimeToIso(FileTime filetime);
// Lowercase hex digits of the bytes, no separators.
void appendHexBytes(std::string& out, const std::byte* data, size_t length);
// `width` lowercase hex digits of v (zero-padded).
void appendHexFixed(std::string& out, uint64_t v, int width);
void appendDecimal(std::string& out, uint64_t v);
// Offset, 16 bytes in hex, and the printable ASCII column, one line per 16.
std::string hexDump(const std::byte* data, size_t length, uint64_t firstOffset = 0);

// How text is shown; each form writes the characters it does not escape as
// they are, so that all output is UTF-8.
enum class Escape {
  // The listing's names: every UTF-16 unit below U+0020, U+007F, "\", "%"
  // and every unpaired surrogate as "%" and 4 uppercase hex digits.
  listing,
  // Names and strings for people: the same but for "\" and "%".
  printable,
  // Text as it is, but for unpaired surrogates, which become U+FFFD.
  text,
};
void appendEscaped(std::string& out, std::string_view utf8, Escape form);

}  // namespace hivekit::cli
