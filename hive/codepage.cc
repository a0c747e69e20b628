#include "hive/codepage.h"

#include "platform/endian.h"

namespace Libraries::Files::Hive {

namespace {
#include "hive/codepage_tables.inc"

const char16_t* upperHalf(HiveCodepage cp) {
  switch (cp) {
    case windows1250:
      return kWindows1250;
    case windows1252:
      return kWindows1252;
    default:
      return nullptr;
  }
}
}  // namespace

bool charToCodepage(HiveCodepage cp, char16_t c, u8& byte) {
  if (c < 0x80) {
    byte = static_cast<u8>(c);
    return true;
  }
  if (cp == latin1) {
    if (c > 0xFF) return false;
    byte = static_cast<u8>(c);
    return true;
  }
  const char16_t* table = upperHalf(cp);
  if (!table) return false;
  for (u32 i = 0; i < 128; ++i) {
    if (table[i] == c) {
      byte = static_cast<u8>(0x80 + i);
      return true;
    }
  }
  return false;
}

bool codepageToChar(HiveCodepage cp, u8 byte, char16_t& c) {
  if (byte < 0x80 || cp == latin1) {
    c = byte;
    return true;
  }
  const char16_t* table = upperHalf(cp);
  if (!table || table[byte - 0x80] == 0) return false;
  c = table[byte - 0x80];
  return true;
}

bool decodeCodepageName(HiveCodepage cp, const u8* bytes, size_t length, std::u16string& out) {
  out.resize(length);
  bool ok = true;
  for (size_t i = 0; i < length; ++i) {
    char16_t c;
    if (!codepageToChar(cp, bytes[i], c)) {
      c = bytes[i];
      ok = false;
    }
    out[i] = c;
  }
  return ok;
}

bool decodeRecordName(HiveCodepage codepage, const u8* bytes, u32 length, bool compressed,
                      std::u16string& out) {
  if (compressed) return decodeCodepageName(codepage, bytes, length, out);
  out.resize(length / 2);
  for (u32 i = 0; i < out.size(); ++i) out[i] = static_cast<char16_t>(L16(bytes + 2 * i));
  return true;
}

}  // namespace Libraries::Files::Hive
