// Line-by-line reading of text from a stripe, decoded to UTF-16 units.
//
// The encoding is decided once, from the first bytes: FF FE marks UTF-16
// little-endian and EF BB BF marks UTF-8 (the mark itself is not part of
// the text); without a mark, a zero second byte after a non-zero first
// byte means UTF-16 little-endian (ASCII text in that encoding), anything
// else UTF-8. A caller that knows better may name the encoding instead
// (for 8-bit text, Windows-1252, which no mark can announce).
//
// The stripe is read in chunks of fixed size and decoded as it goes, so
// files far larger than memory can be read; only the current line is held
// whole. Reading starts at the stripe's position when the reader is made;
// the stripe's own position is left alone.
#pragma once

#include <string>
#include <vector>

#include "platform/object.h"
#include "platform/stripe.h"

namespace Platform {

class CharReader : public Object {
 public:
  enum class Encoding { Utf8 = 1, Utf16LE = 2, Windows1252 = 3 };

  // Null when `source` is null or its elements are not bytes. A read
  // failure while detecting the encoding shows later as failed().
  static Ref<CharReader> create(Ref<Interfaces::Stripe> source);
  // Reads in `encoding` from the stripe's position; a byte order mark of
  // that encoding at the start is skipped.
  static Ref<CharReader> create(Ref<Interfaces::Stripe> source, Encoding encoding);

  // Replaces `line` with the next line, without its terminator (CR LF, LF
  // or a lone CR). Returns false at the end of the input or on a read
  // failure (see failed()); text after the last terminator is a line of
  // its own. Invalid UTF-8 decodes to U+FFFD, maximal invalid piece by
  // piece; in UTF-16 a lone surrogate is kept and an odd byte at the end
  // becomes U+FFFD.
  bool readLine(std::u16string& line);
  // Reads the current line in pieces, so that no line is ever held whole:
  // replaces `piece` with at most `maxUnits` (at least 1) units of it.
  // `ended` tells whether the line ended after them (its terminator, or the
  // end of the input, consumed); if not, the next call goes on with the
  // same line. Returns false when no line is left or on a read failure.
  bool readPiece(std::u16string& piece, size_t maxUnits, bool& ended);

  Encoding encoding() const { return _encoding; }
  // True once a read of the stripe came back empty before its end.
  bool failed() const { return _failed; }

  CharReader(Ref<Interfaces::Stripe> source, u64 start);

 private:
  static constexpr size_t CHUNK = 64 * 1024;

  // Appends the next chunk of raw bytes after the undecoded rest; returns
  // the count read (0 at the end, which sets _eof).
  u64 readRaw();
  // Decodes the raw bytes into _units, keeping an incomplete trailing
  // sequence for the next chunk unless the input has ended.
  void decode();
  void decodeUtf8();
  void decodeWindows1252();
  // Refills _units once they are all consumed; false when nothing more can
  // come.
  bool fill();

  Ref<Interfaces::Stripe> _source;
  u64 _offset;  // next byte of the stripe to read
  Encoding _encoding = Encoding::Utf8;
  std::vector<u8> _raw;
  size_t _rawBegin = 0;
  size_t _rawEnd = 0;
  std::u16string _units;
  size_t _next = 0;
  bool _eof = false;
  bool _failed = false;
  bool _pendingCr = false;  // the last line ended in CR; an LF right after belongs to it
  bool _inLine = false;     // readPiece stopped inside a line
};

}  // namespace Platform
