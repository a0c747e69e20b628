// RegFileReader: a registry text file read as a stream of items (sections
// and value entries), in regedit's grammar.
//
// Grammar (a line is stripped of leading blanks; CR LF, LF or CR end it):
//   - the first line that is not blank or a comment is the version line,
//     "Windows Registry Editor Version 5.00" or "REGEDIT4"; a REGEDIT4 file
//     without a byte order mark is 8-bit text (Windows-1252); the version
//     line may come again later (appended exports);
//   - blank lines and lines starting with ';' are skipped;
//   - "[PATH]" and "[-PATH]" (blanks after the "]" allowed): a section;
//   - "\"NAME\"=DATA" or "@=DATA" (blanks around the "=" allowed): an entry.
//     In a quoted name "\\" stands for a backslash and "\"" for a quote (a
//     backslash before anything else is itself); DATA is one of
//       -              the value is deleted
//       "TEXT"         REG_SZ: TEXT with the same two escapes, then a zero
//                      unit; blanks may follow the closing quote
//       dword:H        REG_DWORD, 1 to 8 hex digits
//       hex:B,B        REG_BINARY; hex(T):B,B a value of type T (hex); each
//                      byte one or two hex digits, blanks around commas, a
//                      "\" at the end of a line continues the list on the
//                      next line (its leading blanks skipped)
//   - any other line is an error.
//
// Streaming: lines are read in pieces and decoded as they come, so memory
// does not grow with the length of a line. A section path is held up to
// MAX_PATH_UNITS and a value name up to MAX_VALUE_NAME units (longer ones
// are errors); value data is refused as soon as it passes the size limit
// given at construction, and is held only when asked for (the checking
// pass of an import counts it only). With a data sink, kept data is handed
// over in pieces of DATA_PIECE bytes as it is decoded, so that no more than
// one piece of a value is held.
//
// Errors name the first line of the item and quote at most
// MAX_QUOTED_UNITS units of the input, followed by "..." when cut.
#pragma once

#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/char_reader.h"
#include "platform/stripe.h"

namespace Libraries::Files::Hive {

using Platform::Ref;
using Platform::u32;
using Platform::u64;
using Platform::u8;

struct RegItem {
  enum class Kind { section, deletedSection, value, deletedValue };
  Kind kind = Kind::section;
  u64 line = 0;          // the item's first line, from 1
  std::u16string path;   // sections: the text between "[" ("[-") and "]"
  std::u16string name;   // entries: the name, escapes undone; "" for "@"
  u32 type = 0;          // values
  u64 size = 0;          // values: bytes of data (so far, in a data sink)
  std::vector<u8> data;  // values: the data, when the reader keeps it
  // Pieces of the data went to the data sink already; `data` holds the
  // rest, which starts at byte size - data.size().
  bool streamed = false;

  // Empties the item for the next line, keeping the room its texts and
  // data had: most lines are alike in size.
  void clear() {
    kind = Kind::section;
    line = 0;
    path.clear();
    name.clear();
    type = 0;
    size = 0;
    data.clear();
    streamed = false;
  }
};

// At most 200 units of `text`, then "..." when there were more.
std::u16string quotedForMessage(std::u16string_view text);
// `v` in decimal digits, for messages.
std::u16string decimalText(u64 v);

class RegFileReader {
 public:
  static constexpr size_t MAX_QUOTED_UNITS = 200;
  // Longest path of a section: 512 levels of 255 units and a prefix.
  static constexpr size_t MAX_PATH_UNITS = 512 * 256 + 4096;
  static constexpr size_t MAX_VALUE_NAME = 16383;
  static constexpr size_t DATA_PIECE = 1 << 20;

  // Receives a value entry whose `data` holds DATA_PIECE bytes, the piece
  // ending at byte `size` of its data (kind, line, name and type are set).
  // False stops the reading as an error the sink has reported itself
  // (failed() true, error() empty).
  using DataSink = std::function<bool(const RegItem& item)>;

  // Reads `source` from its position. Data longer than `maxDataSize` bytes
  // is an error; `keepData` fills RegItem::data, through `sink` when given.
  RegFileReader(Ref<Interfaces::Stripe> source, u64 maxDataSize, bool keepData, DataSink sink = {});

  // The next item; false at the end of the text or at an error (then
  // failed() is true). Nothing is read after an error.
  bool next(RegItem& item);

  bool failed() const { return _failed; }
  // The line the error names and its message.
  u64 errorLine() const { return _errorLine; }
  const std::u16string& error() const { return _error; }

 private:
  static constexpr int END = -1;  // the end of the current line

  bool beginLine();
  int peek();
  int get() {
    const int c = peek();
    if (c != END) ++_at;
    return c;
  }
  void skipBlanks();
  // The rest of the line, at most MAX_QUOTED_UNITS units and "..." beyond.
  std::u16string restQuoted();
  // Consumes the rest of the line; false when it holds more than blanks.
  bool onlyBlanksLeft();
  // Reads the hexadecimal number at the position into `number`: true when
  // it has 1 to 8 digits (more are read, but refused).
  bool readHexNumber(u32& number);
  bool fail(u64 line, std::u16string message);
  bool fail(u64 line, std::u16string_view label, std::u16string_view text);

  bool readVersion();
  bool readSection(RegItem& item);
  bool readEntry(RegItem& item);
  bool readName(RegItem& item);
  bool readString(RegItem& item);
  bool readDword(RegItem& item);
  bool readHex(RegItem& item);
  bool addByte(RegItem& item, u8 byte);
  void switchToWindows1252();

  Ref<Interfaces::Stripe> _source;
  u64 _start;
  Ref<Platform::CharReader> _reader;
  u64 _maxDataSize;
  bool _keepData;
  DataSink _sink;
  bool _versionSeen = false;

  std::u16string _piece;  // the part of the current line read so far
  size_t _at = 0;         // next unit of _piece
  bool _ended = true;     // the line ends after _piece
  u64 _lineNo = 0;

  bool _failed = false;
  u64 _errorLine = 0;
  std::u16string _error;
};

}  // namespace Libraries::Files::Hive
