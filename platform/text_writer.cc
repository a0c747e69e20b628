#include "platform/text_writer.h"

#include <algorithm>

#include "platform/endian.h"

namespace Platform {

namespace {
bool isHighSurrogate(char16_t u) {
  return u >= 0xD800 && u <= 0xDBFF;
}
bool isLowSurrogate(char16_t u) {
  return u >= 0xDC00 && u <= 0xDFFF;
}
bool isAscii(std::string_view s) {
  for (char c : s)
    if (static_cast<u8>(c) >= 0x80) return false;
  return true;
}
}  // namespace

TextWriter::TextWriter(Ref<Interfaces::Stripe> target, Encoding encoding)
    : _target(std::move(target)), _encoding(encoding), _buffer(BUFFER_SIZE) {}

Ref<TextWriter> TextWriter::create(Ref<Interfaces::Stripe> target, Encoding encoding,
                                   bool writeByteOrderMark) {
  if (!target || target->elementSize() != 1) return nullptr;
  if (encoding != Encoding::Utf8 && encoding != Encoding::Utf16LE) return nullptr;
  Ref<TextWriter> writer = makeRef<TextWriter>(std::move(target), encoding);
  if (writeByteOrderMark) {
    // Written at once so that a target refusing writes fails here, where the
    // caller expects setup failures, rather than at the first flush.
    writer->putUnit(0xFEFF);
    if (!writer->writeOut()) return nullptr;
  }
  return writer;
}

TextWriter::~TextWriter() {
  flush();
}

bool TextWriter::print(std::u16string_view text) {
  if (_failed) return false;
  if (_encoding == Encoding::Utf16LE) {
    // Units go out as they are: a run at a time, as much as the buffer holds.
    for (size_t i = 0; i < text.size();) {
      if (_used + 2 > _buffer.size() && !writeOut()) return false;
      const size_t n = std::min(text.size() - i, (_buffer.size() - _used) / 2);
      u8* out = _buffer.data() + _used;
      for (size_t k = 0; k < n; ++k) W16(out + 2 * k, text[i + k]);
      _used += 2 * n;
      i += n;
    }
    return true;
  }
  for (char16_t unit : text) {
    if (_used + MAX_UNIT_BYTES > _buffer.size() && !writeOut()) return false;
    putUnit(unit);
  }
  return true;
}

bool TextWriter::print(std::string_view utf8) {
  if (_failed) return false;
  if (!isAscii(utf8)) return print(std::u16string_view(utf8ToUtf16(utf8)));
  for (char c : utf8) {
    if (_used + MAX_UNIT_BYTES > _buffer.size() && !writeOut()) return false;
    putUnit(static_cast<char16_t>(c));
  }
  return true;
}

bool TextWriter::endLine() {
  return print(std::u16string_view(u"\r\n"));
}

bool TextWriter::flush() {
  if (_failed) return false;
  if (_pendingHigh) {
    if (_used + MAX_UNIT_BYTES > _buffer.size() && !writeOut()) return false;
    _pendingHigh = 0;
    putCodePoint(0xFFFD);
  }
  return writeOut();
}

void TextWriter::putUnit(char16_t unit) {
  if (_encoding == Encoding::Utf16LE) {
    W16(&_buffer[_used], unit);
    _used += 2;
    return;
  }
  if (_pendingHigh) {
    char16_t high = _pendingHigh;
    _pendingHigh = 0;
    if (isLowSurrogate(unit)) {
      putCodePoint(0x10000 + ((static_cast<char32_t>(high) - 0xD800) << 10) + (unit - 0xDC00));
      return;
    }
    putCodePoint(0xFFFD);
  }
  if (isHighSurrogate(unit)) {
    _pendingHigh = unit;
  } else if (isLowSurrogate(unit)) {
    putCodePoint(0xFFFD);
  } else {
    putCodePoint(unit);
  }
}

void TextWriter::putCodePoint(char32_t cp) {
  u8* out = &_buffer[_used];
  if (cp < 0x80) {
    out[0] = static_cast<u8>(cp);
    _used += 1;
  } else if (cp < 0x800) {
    out[0] = static_cast<u8>(0xC0 | (cp >> 6));
    out[1] = static_cast<u8>(0x80 | (cp & 0x3F));
    _used += 2;
  } else if (cp < 0x10000) {
    out[0] = static_cast<u8>(0xE0 | (cp >> 12));
    out[1] = static_cast<u8>(0x80 | ((cp >> 6) & 0x3F));
    out[2] = static_cast<u8>(0x80 | (cp & 0x3F));
    _used += 3;
  } else {
    out[0] = static_cast<u8>(0xF0 | (cp >> 18));
    out[1] = static_cast<u8>(0x80 | ((cp >> 12) & 0x3F));
    out[2] = static_cast<u8>(0x80 | ((cp >> 6) & 0x3F));
    out[3] = static_cast<u8>(0x80 | (cp & 0x3F));
    _used += 4;
  }
}

bool TextWriter::writeOut() {
  if (_failed) return false;
  size_t size = _used;
  _used = 0;
  if (size == 0) return true;
  if (_target->write(_buffer.data(), size) != size) {
    _failed = true;
    return false;
  }
  return true;
}

}  // namespace Platform
