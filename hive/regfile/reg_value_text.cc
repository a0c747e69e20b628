#include "hive/regfile/reg_value_text.h"

#include <algorithm>
#include <string>
#include <vector>

#include "hive/interfaces.h"

namespace Libraries::Files::Hive {

namespace {

namespace T = Interfaces::Config::Hive::ValueTypes;

// Longest string written as text (in UTF-16 units); longer ones go as hex.
constexpr u64 MAX_STRING_UNITS = 16777216;
// Bytes of one value line before the continuation.
constexpr u64 BYTES_PER_LINE = 25;
// Data is read in pieces of this size.
constexpr u64 CHUNK_SIZE = 64 * 1024;
constexpr char16_t HEX[] = u"0123456789abcdef";

void appendHex(std::u16string& out, u32 v) {
  char16_t digits[8];
  int n = 0;
  do {
    digits[n++] = HEX[v & 0xF];
    v >>= 4;
  } while (v != 0);
  while (n > 0) out += digits[--n];
}

// The text of a string value: its units up to the first zero unit (an odd
// last byte is ignored). False when it has none to give (one byte of data,
// more than MAX_STRING_UNITS units, or data that cannot be read). The
// buffer grows only with what was read, so a size field claiming more than
// the hive holds costs no memory.
bool readString(u64 size, const RegDataReader& read, std::u16string& text, u64& bytesRead) {
  text.clear();
  const u64 units = size / 2;
  if (units > MAX_STRING_UNITS || (units == 0 && size != 0)) return false;
  std::vector<u8> chunk;
  for (u64 done = 0; done < 2 * units;) {
    const u64 want = std::min(CHUNK_SIZE, 2 * units - done);
    chunk.resize(want);
    const u64 got = read(done, chunk.data(), want);
    bytesRead += std::min(got, want);
    if (got != want) return false;
    for (u64 i = 0; i + 1 < want; i += 2) text += static_cast<char16_t>(chunk[i] | (chunk[i + 1] << 8));
    done += want;
  }
  const size_t end = text.find(u'\0');
  if (end != std::u16string::npos) text.resize(end);
  return true;
}

// Whether quotes can carry `text` so that regedit's reading gives it back:
// no line break (a line ends there) and no unpaired surrogate (which no
// conversion of the file would keep).
bool quotable(std::u16string_view text) {
  for (size_t i = 0; i < text.size(); ++i) {
    const char16_t c = text[i];
    if (c == u'\r' || c == u'\n') return false;
    if (c >= 0xD800 && c < 0xDC00) {
      if (i + 1 == text.size() || text[i + 1] < 0xDC00 || text[i + 1] >= 0xE000) return false;
      ++i;
    } else if (c >= 0xDC00 && c < 0xE000) {
      return false;
    }
  }
  return true;
}

void appendEscaped(std::u16string& line, std::u16string_view text, RegTextStyle style) {
  if (style == RegTextStyle::raw) {
    line += text;
    return;
  }
  for (char16_t c : text) {
    if (c == u'\\' || c == u'"') line += u'\\';
    line += c;
  }
}

}  // namespace

void appendRegValueName(std::u16string& line, std::u16string_view name, RegTextStyle style) {
  if (name.empty()) {
    line += u'@';
    return;
  }
  line += u'"';
  appendEscaped(line, name, style);
  line += u'"';
}

RegValueForm writeRegValue(std::u16string_view name, u32 type, u64 size, const RegDataReader& read,
                           bool binaryOnly, const RegTextSink& out, u64* bytesRead, RegTextStyle style) {
  u64 consumed = 0;
  std::u16string line;
  line.reserve(name.size() + 32);  // the name and a number, without growing
  appendRegValueName(line, name, style);
  line += u'=';
  RegValueForm form = binaryOnly ? RegValueForm::hex : RegValueForm::typed;
  if (!binaryOnly && type == T::String) {
    std::u16string text;
    const bool readable = readString(size, read, text, consumed);
    // Text in quotes stands for its units and one zero unit: other data
    // (none at all, no terminator, something after it) is written as hex,
    // so that an import gives back exactly the same bytes.
    if (readable && size == 2 * (u64{text.size()} + 1) && (style == RegTextStyle::raw || quotable(text))) {
      line += u'"';
      appendEscaped(line, text, style);
      line += u'"';
      out(line);
      if (bytesRead) *bytesRead = consumed;
      return RegValueForm::typed;
    }
    form = readable ? RegValueForm::hex : RegValueForm::stringFallback;
  } else if (!binaryOnly && type == T::Dword) {
    u8 bytes[4];
    if (size == 4 && read(0, bytes, 4) == 4) {
      const u32 number = bytes[0] | (bytes[1] << 8) | (bytes[2] << 16) | (static_cast<u32>(bytes[3]) << 24);
      line += u"dword:";
      for (int shift = 28; shift >= 0; shift -= 4) line += HEX[(number >> shift) & 0xF];
      out(line);
      if (bytesRead) *bytesRead = 4;
      return RegValueForm::typed;
    }
    form = RegValueForm::dwordFallback;
  } else if (!binaryOnly) {
    form = RegValueForm::hex;
  }

  if (type == T::Binary && !binaryOnly) {
    line += u"hex:";
  } else {
    line += u"hex(";
    appendHex(line, type);
    line += u"):";
  }
  out(line);
  std::vector<u8> chunk;
  for (u64 done = 0; done < size;) {
    const u64 want = std::min(CHUNK_SIZE, size - done);
    chunk.resize(want);
    const u64 got = read(done, chunk.data(), want);
    consumed += std::min(got, want);
    if (got != want) {
      if (bytesRead) *bytesRead = consumed;
      return RegValueForm::unreadable;
    }
    // Three units a byte and five a continuation, written in place.
    line.resize(3 * want + 5 * (want / BYTES_PER_LINE + 1));
    char16_t* at = line.data();
    for (u64 i = 0; i < want; ++i, ++done) {
      if (done != 0 && done % BYTES_PER_LINE == 0) {
        for (char16_t c : std::u16string_view(u"\\\r\n  ")) *at++ = c;
      }
      *at++ = HEX[chunk[i] >> 4];
      *at++ = HEX[chunk[i] & 0xF];
      if (done + 1 != size) *at++ = u',';
    }
    out(std::u16string_view(line.data(), static_cast<size_t>(at - line.data())));
  }
  if (bytesRead) *bytesRead = consumed;
  return form;
}

}  // namespace Libraries::Files::Hive
