// Codepages for 8-bit ("compressed") key and value names.
//
// Names whose characters all have a one-byte form in the hive's codepage
// are stored one byte per character; others as UTF-16LE.
#pragma once

#include <string>

#include "platform/types.h"

namespace Libraries::Files::Hive {
using namespace Platform;

enum HiveCodepage : u32 { ascii = 0, latin1 = 1, windows1250 = 2, windows1252 = 3 };

// The byte for a character, or false when the codepage has none for it.
bool charToCodepage(HiveCodepage cp, char16_t c, u8& byte);
// The character for a byte, or false for a byte the codepage leaves undefined.
bool codepageToChar(HiveCodepage cp, u8 byte, char16_t& c);
// Decodes stored 8-bit name bytes. Undefined bytes decode as Latin-1 and
// make the result false, so the caller can report them.
bool decodeCodepageName(HiveCodepage cp, const u8* bytes, size_t length, std::u16string& out);
// A stored name (of a key or a value) decoded: 8-bit names through the
// codepage, else UTF-16LE (an odd last byte dropped). False, with the
// Latin-1 reading, when a byte has no character in the codepage.
bool decodeRecordName(HiveCodepage codepage, const u8* bytes, u32 length, bool compressed,
                      std::u16string& out);

}  // namespace Libraries::Files::Hive
