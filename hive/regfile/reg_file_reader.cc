#include "hive/regfile/reg_file_reader.h"

#include <algorithm>

namespace Libraries::Files::Hive {

using Platform::CharReader;

namespace {

constexpr size_t PIECE_UNITS = 64 * 1024;
constexpr std::u16string_view VERSION_5 = u"Windows Registry Editor Version 5.00";
constexpr std::u16string_view VERSION_4 = u"REGEDIT4";

bool isBlank(int c) {
  return c == u' ' || c == u'\t';
}

int hexDigit(int c) {
  if (c >= u'0' && c <= u'9') return c - u'0';
  if (c >= u'a' && c <= u'f') return c - u'a' + 10;
  if (c >= u'A' && c <= u'F') return c - u'A' + 10;
  return -1;
}

int lower(int c) {
  return c >= u'A' && c <= u'Z' ? c - u'A' + u'a' : c;
}

}  // namespace

std::u16string decimalText(u64 v) {
  std::u16string s;
  do {
    s.insert(s.begin(), static_cast<char16_t>(u'0' + v % 10));
    v /= 10;
  } while (v != 0);
  return s;
}

std::u16string quotedForMessage(std::u16string_view text) {
  if (text.size() <= RegFileReader::MAX_QUOTED_UNITS) return std::u16string(text);
  size_t cut = RegFileReader::MAX_QUOTED_UNITS;
  if (text[cut - 1] >= 0xD800 && text[cut - 1] < 0xDC00) --cut;  // keep a pair whole
  return std::u16string(text.substr(0, cut)) + u"...";
}

RegFileReader::RegFileReader(Ref<Interfaces::Stripe> source, u64 maxDataSize, bool keepData, DataSink sink)
    : _source(std::move(source)),
      _start(_source ? _source->pos() : 0),
      _reader(CharReader::create(_source)),
      _maxDataSize(maxDataSize),
      _keepData(keepData),
      _sink(std::move(sink)) {}

bool RegFileReader::fail(u64 line, std::u16string message) {
  if (!_failed) {
    _failed = true;
    _errorLine = line;
    _error = std::move(message);
  }
  return false;
}

bool RegFileReader::fail(u64 line, std::u16string_view label, std::u16string_view text) {
  return fail(line, std::u16string(label) + quotedForMessage(text));
}

bool RegFileReader::beginLine() {
  if (!_reader->readPiece(_piece, PIECE_UNITS, _ended)) {
    if (_reader->failed()) fail(_lineNo + 1, u"Failed to read the file");
    return false;
  }
  ++_lineNo;
  _at = 0;
  return true;
}

int RegFileReader::peek() {
  while (_at == _piece.size()) {
    if (_ended) return END;
    if (!_reader->readPiece(_piece, PIECE_UNITS, _ended)) {
      _piece.clear();
      _ended = true;
    }
    _at = 0;
  }
  return _piece[_at];
}

void RegFileReader::skipBlanks() {
  while (isBlank(peek())) ++_at;
}

std::u16string RegFileReader::restQuoted() {
  std::u16string text;
  for (int c; (c = get()) != END;) {
    if (text.size() == MAX_QUOTED_UNITS) return quotedForMessage(text + u'.');
    text += static_cast<char16_t>(c);
  }
  while (!text.empty() && isBlank(text.back())) text.pop_back();
  return text;
}

bool RegFileReader::onlyBlanksLeft() {
  for (int c; (c = get()) != END;)
    if (!isBlank(c)) return false;
  return true;
}

bool RegFileReader::next(RegItem& item) {
  if (_failed || !_reader) return fail(0, u"Failed to create reader");
  while (beginLine()) {
    skipBlanks();
    const int c = peek();
    if (c == END) continue;
    if (c == u';') {
      onlyBlanksLeft();  // reads the comment to its end
      continue;
    }
    const u64 line = _lineNo;
    if (c == u'[' && _versionSeen)
      return readSection(item) && !(_reader->failed() && fail(line, u"Failed to read the file"));
    if ((c == u'"' || c == u'@') && _versionSeen)
      return readEntry(item) && !(_reader->failed() && fail(line, u"Failed to read the file"));
    if (c == u'[') return fail(line, u"Invalid regfile, section before version string");
    if (!readVersion()) return false;
  }
  return false;
}

// The version line, first or again; anything else is an unknown line.
bool RegFileReader::readVersion() {
  const u64 line = _lineNo;
  std::u16string text = restQuoted();
  if (text == VERSION_5) {
    _versionSeen = true;
    return true;
  }
  if (text == VERSION_4) {
    if (!_versionSeen) switchToWindows1252();
    _versionSeen = true;
    return true;
  }
  if (!_versionSeen) return fail(line, u"Invalid regfile, no version line before: ", text);
  return fail(line, u"Invalid line: ", text);
}

// Regedit wrote REGEDIT4 files in the machine's 8-bit code page; without a
// byte order mark saying otherwise, read the rest as Windows-1252.
void RegFileReader::switchToWindows1252() {
  if (_reader->encoding() != CharReader::Encoding::Utf8) return;
  u8 mark[3] = {};
  if (_source->readAt(_start, mark, 3) == 3 && mark[0] == 0xEF && mark[1] == 0xBB && mark[2] == 0xBF) return;
  _source->seek(_start);
  _reader = CharReader::create(_source, CharReader::Encoding::Windows1252);
  for (u64 skipped = 0; skipped < _lineNo;) {
    if (!_reader->readPiece(_piece, PIECE_UNITS, _ended)) break;
    if (_ended) ++skipped;
  }
  _piece.clear();
  _at = 0;
  _ended = true;
}

bool RegFileReader::readSection(RegItem& item) {
  item.clear();
  item.line = _lineNo;
  get();  // '['
  std::u16string& path = item.path;
  for (int c; (c = get()) != END;) {
    if (path.size() == MAX_PATH_UNITS) return fail(item.line, u"Key path too long: ", path);
    path += static_cast<char16_t>(c);
  }
  while (!path.empty() && isBlank(path.back())) path.pop_back();
  if (path.empty() || path.back() != u']') return fail(item.line, u"Invalid line: [", path);
  path.pop_back();
  item.kind = RegItem::Kind::section;
  if (!path.empty() && path[0] == u'-') {
    path.erase(0, 1);
    item.kind = RegItem::Kind::deletedSection;
  }
  return true;
}

bool RegFileReader::readName(RegItem& item) {
  if (get() == u'@') return true;
  for (;;) {
    int c = get();
    if (c == END) return fail(item.line, u"Invalid value name: \"", item.name);
    if (c == u'"') return true;
    if (c == u'\\' && (peek() == u'\\' || peek() == u'"')) c = get();
    if (item.name.size() == MAX_VALUE_NAME)
      return fail(item.line, u"Value name longer than 16383 characters: ", item.name);
    item.name += static_cast<char16_t>(c);
  }
}

bool RegFileReader::readEntry(RegItem& item) {
  item.clear();
  item.line = _lineNo;
  item.kind = RegItem::Kind::value;
  if (!readName(item)) return false;
  skipBlanks();
  if (get() != u'=') return fail(item.line, u"Invalid line, no \"=\" after the value name: ", item.name);
  skipBlanks();
  const int c = lower(peek());
  if (c == END) return fail(item.line, u"Found empty value in regfile, name = ", item.name);
  if (c == u'-') {
    get();
    if (!onlyBlanksLeft()) return fail(item.line, u"Invalid value: ", item.name);
    item.kind = RegItem::Kind::deletedValue;
    return true;
  }
  if (c == u'"') return readString(item);
  if (c == u'd') return readDword(item);
  if (c == u'h') return readHex(item);
  return fail(item.line, u"Invalid value: ", item.name);
}

bool RegFileReader::addByte(RegItem& item, u8 byte) {
  if (++item.size > _maxDataSize)
    return fail(item.line,
                u"Value data larger than the hive allows (" + decimalText(_maxDataSize) + u" bytes): ",
                item.name);
  if (!_keepData) return true;
  item.data.push_back(byte);
  if (_sink && item.data.size() == DATA_PIECE) {
    if (!_sink(item)) return fail(item.line, std::u16string());
    item.streamed = true;
    item.data.clear();  // keeps its room for the next piece
  }
  return true;
}

bool RegFileReader::readString(RegItem& item) {
  item.type = 1;
  get();  // the opening quote
  for (;;) {
    int c = get();
    if (c == END) return fail(item.line, u"Invalid string value, no closing quote: ", item.name);
    if (c == u'"') break;
    if (c == u'\\' && (peek() == u'\\' || peek() == u'"')) c = get();
    if (!addByte(item, static_cast<u8>(c)) || !addByte(item, static_cast<u8>(c >> 8))) return false;
  }
  if (!onlyBlanksLeft()) return fail(item.line, u"Invalid string value: ", item.name);
  return addByte(item, 0) && addByte(item, 0);
}

bool RegFileReader::readHexNumber(u32& number) {
  number = 0;
  int digits = 0;
  for (int d; (d = hexDigit(peek())) >= 0; ++digits) {
    get();
    number = number << 4 | static_cast<u32>(d);
  }
  return digits != 0 && digits <= 8;
}

bool RegFileReader::readDword(RegItem& item) {
  for (char16_t expected : std::u16string_view(u"dword:"))
    if (lower(get()) != expected) return fail(item.line, u"Invalid value: ", item.name);
  skipBlanks();
  u32 number = 0;
  if (!readHexNumber(number) || !onlyBlanksLeft())
    return fail(item.line, u"Invalid dword value: ", item.name);
  item.type = 4;
  for (int shift = 0; shift < 32; shift += 8)
    if (!addByte(item, static_cast<u8>(number >> shift))) return false;
  return true;
}

bool RegFileReader::readHex(RegItem& item) {
  auto invalid = [&] { return fail(item.line, u"Invalid hex value: ", item.name); };
  for (char16_t expected : std::u16string_view(u"hex"))
    if (lower(get()) != expected) return fail(item.line, u"Invalid value: ", item.name);
  item.type = 3;
  if (peek() == u'(') {
    get();
    if (!readHexNumber(item.type) || get() != u')') return invalid();
  }
  if (get() != u':') return invalid();
  // After a comma a byte must follow (on this line or a continued one).
  bool needByte = false;
  bool afterByte = false;
  for (;;) {
    skipBlanks();
    int c = get();
    if (c == u'\\') {
      if (!onlyBlanksLeft()) return invalid();
      if (!beginLine()) break;  // the input ends the list
      continue;
    }
    if (c == END) break;
    if (afterByte) {
      if (c != u',') return invalid();
      afterByte = false;
      needByte = true;
      continue;
    }
    int value = hexDigit(c);
    if (value < 0) return invalid();
    if (const int low = hexDigit(peek()); low >= 0) {
      get();
      value = value << 4 | low;
    }
    if (!addByte(item, static_cast<u8>(value))) return false;
    afterByte = true;
    needByte = false;
  }
  if (needByte || _failed) return _failed ? false : invalid();
  return true;
}

}  // namespace Libraries::Files::Hive
