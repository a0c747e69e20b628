// Text forms shared by the commands: type names, times, hex, names.
#pragma once

#include <string>
#include <string_view>

#include "cli/command.h"

namespace hivekit::cli {

// "REG_SZ", ..., or the number in decimal for types without a name.
std::string typeName(u32 type);
// FILETIME (100 ns since 1601-01-01 UTC) as "2019-03-01T10:11:12Z"; any
// 64-bit value has a date, so this never fails.
std::string fileTimeToIso(u64 filetime);
// Lowercase hex digits of the bytes, no separators.
void appendHexBytes(std::string& out, const u8* data, size_t length);
// `width` lowercase hex digits of v (zero-padded).
void appendHexFixed(std::string& out, u64 v, int width);
void appendDecimal(std::string& out, u64 v);
// Offset, 16 bytes in hex, and the printable ASCII column, one line per 16.
std::string hexDump(const u8* data, size_t length);
// A key or value name with every UTF-16 unit below U+0020, U+007F, "\",
// "%" and every unpaired surrogate written as "%" and 4 uppercase hex
// digits; surrogate pairs and all other characters as UTF-8.
void appendEscapedName(std::string& out, std::u16string_view name);
// A name for people: UTF-8, with control characters and unpaired
// surrogates as "%" and 4 uppercase hex digits.
void appendPrintable(std::string& out, std::u16string_view name);
// UTF-16 text as UTF-8 (unpaired surrogates become U+FFFD).
void appendUtf8(std::string& out, std::u16string_view text);

}  // namespace hivekit::cli
