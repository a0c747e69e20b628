// Buffered text output to a stripe, in UTF-8 or UTF-16 little-endian.
//
// Text is collected in a buffer and written to the stripe in large pieces,
// so producing millions of short fragments costs one stripe write per
// buffer-full rather than one per fragment. Bytes go to the stripe's
// current position, whose stream position advances as they are written.
//
// The first failed stripe write puts the writer into a failed state: the
// text buffered at that moment is dropped and every later print or flush
// returns false, so the caller sees the failure and the output never
// silently skips a piece in the middle.
#pragma once

#include <string_view>
#include <vector>

#include "platform/object.h"
#include "platform/string.h"
#include "platform/stripe.h"

namespace Platform {

class TextWriter : public Object {
 public:
  enum class Encoding { Utf8 = 1, Utf16LE = 2 };

  // Null when `target` is null, its elements are not bytes, the encoding is
  // unknown, or the byte order mark (written at once, when asked for)
  // cannot be written.
  static Ref<TextWriter> create(Ref<Interfaces::Stripe> target, Encoding encoding, bool writeByteOrderMark);
  // Flushes what is still buffered; a failure here is not reported, so
  // callers that care call flush() themselves first.
  ~TextWriter() override;

  // Appends text. UTF-16 output copies the units as they are (a lone
  // surrogate included); UTF-8 output writes a lone surrogate as U+FFFD. A
  // surrogate pair split across two calls is still joined. Returns false
  // once the writer has failed.
  bool print(std::u16string_view text);
  bool print(const String& text) { return print(std::u16string_view(text.data(), text.length())); }
  // Text given as UTF-8 (ASCII is a subset); invalid bytes become U+FFFD.
  bool print(std::string_view utf8);
  // Appends CR LF.
  bool endLine();
  // Writes everything buffered to the stripe. Does not sync the stripe. In
  // UTF-8 a high surrogate still waiting for its partner is written as
  // U+FFFD here, since the text so far has to be complete.
  bool flush();

  Encoding encoding() const { return _encoding; }
  bool failed() const { return _failed; }

  TextWriter(Ref<Interfaces::Stripe> target, Encoding encoding);

 private:
  static constexpr size_t BUFFER_SIZE = 64 * 1024;

  void putUnit(char16_t unit);
  void putCodePoint(char32_t cp);
  // Room the encoding of one unit may need (a replaced surrogate plus the
  // unit after it, in UTF-8).
  static constexpr size_t MAX_UNIT_BYTES = 8;

  bool writeOut();

  Ref<Interfaces::Stripe> _target;
  Encoding _encoding;
  std::vector<u8> _buffer;
  size_t _used = 0;
  char16_t _pendingHigh = 0;  // UTF-8 output: high surrogate awaiting its partner
  bool _failed = false;
};

}  // namespace Platform
