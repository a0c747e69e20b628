#include "platform/char_reader.h"

#include <algorithm>
#include <cstring>

#include "platform/endian.h"

namespace Platform {

namespace {
constexpr char16_t REPLACEMENT = 0xFFFD;

// Writes one code point at `out` (one unit, or two as a surrogate pair);
// returns the position behind it.
char16_t* putCodePoint(char16_t* out, char32_t cp) {
  if (cp < 0x10000) {
    *out++ = static_cast<char16_t>(cp);
  } else {
    cp -= 0x10000;
    *out++ = static_cast<char16_t>(0xD800 + (cp >> 10));
    *out++ = static_cast<char16_t>(0xDC00 + (cp & 0x3FF));
  }
  return out;
}
// Windows-1252 at 0x80-0x9F (the rest is Latin-1); the five unassigned
// bytes map to the C1 controls of the same number, as Windows does.
constexpr char16_t WINDOWS_1252_HIGH[32] = {0x20AC, 0x0081, 0x201A, 0x0192, 0x201E, 0x2026, 0x2020, 0x2021,
                                            0x02C6, 0x2030, 0x0160, 0x2039, 0x0152, 0x008D, 0x017D, 0x008F,
                                            0x0090, 0x2018, 0x2019, 0x201C, 0x201D, 0x2022, 0x2013, 0x2014,
                                            0x02DC, 0x2122, 0x0161, 0x203A, 0x0153, 0x009D, 0x017E, 0x0178};
}  // namespace

// The buffer holds a chunk, or the whole text when that is shorter (but
// never less than a page, should the stripe grow): a short text costs no
// 64 KiB buffer.
CharReader::CharReader(Ref<Interfaces::Stripe> source, u64 start)
    : _source(std::move(source)), _offset(start) {
  const u64 count = _source->elementCount();
  const u64 left = count > start ? count - start : 0;
  _raw.resize(std::min<u64>(CHUNK, std::max<u64>(left, 4096)) + 8);
}

Ref<CharReader> CharReader::create(Ref<Interfaces::Stripe> source) {
  if (!source || source->elementSize() != 1) return nullptr;
  u64 start = source->pos();
  Ref<CharReader> r = makeRef<CharReader>(std::move(source), start);
  // A stripe may return fewer bytes than asked; the mark needs three.
  while (r->_rawEnd < 3 && r->readRaw() > 0) {
  }
  const u8* b = r->_raw.data();
  size_t n = r->_rawEnd;
  if (n >= 2 && b[0] == 0xFF && b[1] == 0xFE) {
    r->_encoding = Encoding::Utf16LE;
    r->_rawBegin = 2;
  } else if (n >= 3 && b[0] == 0xEF && b[1] == 0xBB && b[2] == 0xBF) {
    r->_rawBegin = 3;
  } else if (n >= 2 && b[0] != 0 && b[1] == 0) {
    r->_encoding = Encoding::Utf16LE;
  }
  r->decode();
  return r;
}

Ref<CharReader> CharReader::create(Ref<Interfaces::Stripe> source, Encoding encoding) {
  if (!source || source->elementSize() != 1) return nullptr;
  u64 start = source->pos();
  Ref<CharReader> r = makeRef<CharReader>(std::move(source), start);
  while (r->_rawEnd < 3 && r->readRaw() > 0) {
  }
  const u8* b = r->_raw.data();
  const size_t n = r->_rawEnd;
  r->_encoding = encoding;
  if (encoding == Encoding::Utf16LE && n >= 2 && b[0] == 0xFF && b[1] == 0xFE) r->_rawBegin = 2;
  if (encoding == Encoding::Utf8 && n >= 3 && b[0] == 0xEF && b[1] == 0xBB && b[2] == 0xBF) r->_rawBegin = 3;
  r->decode();
  return r;
}

u64 CharReader::readRaw() {
  size_t rest = _rawEnd - _rawBegin;
  if (_rawBegin > 0) {
    std::memmove(_raw.data(), _raw.data() + _rawBegin, rest);
    _rawBegin = 0;
    _rawEnd = rest;
  }
  u64 room = std::min<u64>(CHUNK, _raw.size() - rest);
  u64 n = _source->readAt(_offset, _raw.data() + rest, room);
  if (n > room) n = room;  // a stripe never returns more than asked; do not trust it with memory
  if (n == 0) {
    _eof = true;
    if (_offset < _source->elementCount()) _failed = true;
    return 0;
  }
  _offset += n;
  _rawEnd += n;
  return n;
}

void CharReader::decode() {
  if (_encoding == Encoding::Utf8) {
    decodeUtf8();
    return;
  }
  if (_encoding == Encoding::Windows1252) {
    decodeWindows1252();
    return;
  }
  // Decoding writes into room made beforehand, not unit by unit: text is
  // read a chunk at a time, and appending each unit costs more than it does.
  const u8* b = _raw.data();
  size_t i = _rawBegin;
  const size_t pairs = (_rawEnd - i) / 2;
  const bool odd = _eof && i + 2 * pairs < _rawEnd;
  const size_t old = _units.size();
  _units.resize(old + pairs + (odd ? 1 : 0));
  char16_t* out = _units.data() + old;
  for (size_t k = 0; k < pairs; ++k, i += 2) out[k] = static_cast<char16_t>(L16(b + i));
  if (odd) {
    out[pairs] = REPLACEMENT;
    i = _rawEnd;
  }
  _rawBegin = i;
}

void CharReader::decodeUtf8() {
  const u8* b = _raw.data();
  size_t i = _rawBegin;
  const size_t end = _rawEnd;
  // No sequence gives more units than it has bytes.
  const size_t old = _units.size();
  _units.resize(old + (end - i));
  char16_t* out = _units.data() + old;
  while (i < end) {
    u8 c = b[i];
    if (c < 0x80) {
      *out++ = c;
      ++i;
      continue;
    }
    // Length and the range of the second byte: this excludes overlong
    // forms, surrogates and code points above U+10FFFF.
    size_t n;
    u8 lo = 0x80, hi = 0xBF;
    char32_t cp;
    if (c >= 0xC2 && c <= 0xDF) {
      n = 2;
      cp = c & 0x1F;
    } else if (c >= 0xE0 && c <= 0xEF) {
      n = 3;
      cp = c & 0x0F;
      if (c == 0xE0) lo = 0xA0;
      if (c == 0xED) hi = 0x9F;
    } else if (c >= 0xF0 && c <= 0xF4) {
      n = 4;
      cp = c & 0x07;
      if (c == 0xF0) lo = 0x90;
      if (c == 0xF4) hi = 0x8F;
    } else {
      *out++ = REPLACEMENT;
      ++i;
      continue;
    }
    size_t k = 1;
    for (; k < n; ++k) {
      if (i + k >= end) break;
      u8 t = b[i + k];
      if (t < (k == 1 ? lo : 0x80) || t > (k == 1 ? hi : 0xBF)) break;
      cp = (cp << 6) | (t & 0x3F);
    }
    if (k == n) {
      out = putCodePoint(out, cp);
      i += n;
    } else if (i + k >= end && !_eof) {
      break;  // the sequence goes on in the next chunk
    } else {
      // The valid prefix is one replacement; the byte that broke it starts anew.
      *out++ = REPLACEMENT;
      i += k;
    }
  }
  _units.resize(static_cast<size_t>(out - _units.data()));
  _rawBegin = i;
}

void CharReader::decodeWindows1252() {
  const u8* b = _raw.data();
  const size_t old = _units.size();
  _units.resize(old + (_rawEnd - _rawBegin));
  char16_t* out = _units.data() + old;
  for (size_t i = _rawBegin; i < _rawEnd; ++i)
    *out++ = b[i] >= 0x80 && b[i] < 0xA0 ? WINDOWS_1252_HIGH[b[i] - 0x80] : b[i];
  _rawBegin = _rawEnd;
}

bool CharReader::fill() {
  if (_failed || (_eof && _rawBegin == _rawEnd)) return false;
  _units.clear();
  _next = 0;
  if (!_eof) readRaw();
  decode();
  return !_failed;
}

bool CharReader::readLine(std::u16string& line) {
  // A piece without a bound is always the rest of the line.
  bool ended = false;
  return readPiece(line, std::u16string::npos, ended);
}

bool CharReader::readPiece(std::u16string& piece, size_t maxUnits, bool& ended) {
  piece.clear();
  ended = false;
  if (maxUnits == 0) maxUnits = 1;
  for (;;) {
    if (_next == _units.size()) {
      if (fill()) continue;
      if (_failed || !_inLine) return false;
      _inLine = false;  // the input ends the line
      ended = true;
      return true;
    }
    if (_pendingCr) {
      _pendingCr = false;
      if (_units[_next] == u'\n') {
        ++_next;
        continue;
      }
    }
    const char16_t* p = _units.data() + _next;
    const size_t n = std::min(_units.size() - _next, maxUnits - piece.size());
    size_t i = 0;
    while (i < n && p[i] != u'\r' && p[i] != u'\n') ++i;
    piece.append(p, i);
    _next += i;
    _inLine = true;
    if (i < n) {
      _pendingCr = p[i] == u'\r';
      ++_next;
      _inLine = false;
      ended = true;
      return true;
    }
    if (piece.size() == maxUnits) return true;
  }
}

}  // namespace Platform
