#include "platform/text_writer.h"

#include <algorithm>
#include <type_traits>

#include "platform/endian.h"

namespace Platform {

namespace {
bool isAscii(std::string_view s) {
  for (char c : s)
    if (static_cast<u8>(c) >= 0x80) return false;
  return true;
}
}  // namespace

TextWriter::TextWriter(Ref<Interfaces::Stripe> target)
    : _target(std::move(target)), _buffer(FIRST_BUFFER_SIZE) {}

Ref<TextWriter> TextWriter::create(Ref<Interfaces::Stripe> target, bool writeByteOrderMark) {
  if (!target || target->elementSize() != 1) return nullptr;
  Ref<TextWriter> writer = makeRef<TextWriter>(std::move(target));
  // Written at once so that a target refusing writes fails here, where the
  // caller expects setup failures, rather than at the first flush.
  if (writeByteOrderMark && !(writer->print(std::u16string_view(u"\xFEFF")) && writer->writeOut()))
    return nullptr;
  return writer;
}

TextWriter::~TextWriter() {
  flush();
}

// Units as UTF-16LE, a run at a time, as much as the buffer holds. From
// char, each is ASCII.
template <class Unit>
bool TextWriter::append(std::basic_string_view<Unit> text) {
  if (_failed) return false;
  for (size_t i = 0; i < text.size();) {
    if (_used + 2 > _buffer.size()) {
      if (_buffer.size() < BUFFER_SIZE) {
        _buffer.resize(std::min(BUFFER_SIZE, 4 * _buffer.size()));
      } else if (!writeOut()) {
        return false;
      }
    }
    const size_t n = std::min(text.size() - i, (_buffer.size() - _used) / 2);
    u8* out = _buffer.data() + _used;
    for (size_t k = 0; k < n; ++k) W16(out + 2 * k, static_cast<std::make_unsigned_t<Unit>>(text[i + k]));
    _used += 2 * n;
    i += n;
  }
  return true;
}

bool TextWriter::print(std::u16string_view text) {
  return append(text);
}

bool TextWriter::print(std::string_view utf8) {
  return isAscii(utf8) ? append(utf8) : append(std::u16string_view(utf8ToUtf16(utf8)));
}

bool TextWriter::endLine() {
  return print(std::u16string_view(u"\r\n"));
}

bool TextWriter::flush() {
  return writeOut();
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
