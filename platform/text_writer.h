// Buffered text output to a stripe, in UTF-16 little-endian (what registry
// text files are written in).
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
  // Null when `target` is null, its elements are not bytes, or the byte
  // order mark (written at once, when asked for) cannot be written.
  static Ref<TextWriter> create(Ref<Interfaces::Stripe> target, bool writeByteOrderMark);
  // Flushes what is still buffered; a failure here is not reported, so
  // callers that care call flush() themselves first.
  ~TextWriter() override;

  // Appends text: the units as they are, a lone surrogate included. Returns
  // false once the writer has failed.
  bool print(std::u16string_view text);
  bool print(const String& text) { return print(std::u16string_view(text.data(), text.length())); }
  // Text given as UTF-8 (ASCII is a subset); invalid bytes become U+FFFD.
  bool print(std::string_view utf8);
  // Appends CR LF.
  bool endLine();
  // Writes everything buffered to the stripe. Does not sync the stripe.
  bool flush();

  bool failed() const { return _failed; }

  explicit TextWriter(Ref<Interfaces::Stripe> target);

 private:
  // The buffer starts small and grows to its full size: most texts written
  // (a key, a value, a message) are short.
  static constexpr size_t FIRST_BUFFER_SIZE = 1024;
  static constexpr size_t BUFFER_SIZE = 64 * 1024;

  template <class Unit>
  bool append(std::basic_string_view<Unit> text);
  bool writeOut();

  Ref<Interfaces::Stripe> _target;
  std::vector<u8> _buffer;
  size_t _used = 0;
  bool _failed = false;
};

}  // namespace Platform
