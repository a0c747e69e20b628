// An INI-style line parser, the reading side of registry text files.
//
// Each line is stripped of leading and trailing blanks (spaces and tabs)
// and then classified:
//   - empty, or starting with ';': skipped;
//   - "[text]": a section; the text is everything between the first '['
//     and the last ']', unchanged (so a deleting section arrives as
//     "-PATH");
//   - "\"name\"=data", "name=data" or "@=data": an entry;
//   - anything else: an other line (for example a file's header line).
//
// Quoted names use backslash escapes: "\\" stands for a backslash and "\""
// for a quote; any other backslash is kept. The name ends at the first
// unescaped quote, which must be followed by optional blanks and '='.
// Names written without escapes can end in a backslash right before the
// closing quote, which the escape rule misreads; when that rule finds no
// '=' after the name, the name is instead the literal text between the
// first quote and the last "\"=" of the line.
//
// The data of an entry is the rest of the line after the '=', leading
// blanks dropped, handed over raw (unescaping is the handler's business).
// Data that does not start with a quote and ends with a backslash goes on
// in the next line: the backslash is dropped and the next line, without
// its leading blanks, is appended, for as many lines as keep ending so.
// The input ending inside such a run just ends the entry.
#pragma once

#include <string>

#include "platform/char_reader.h"
#include "platform/types.h"

namespace Platform {

// Receives the parsed lines. Returning false from any call stops the
// parse, which then fails with IniParser::CALLBACK_FAILED.
class IniParserInterface {
 public:
  virtual ~IniParserInterface() = default;
  virtual bool section(const std::u16string& text) = 0;
  // `quoted` tells whether the name was written in quotes; "@" arrives
  // unquoted.
  virtual bool entry(const std::u16string& name, bool quoted, const std::u16string& data) = 0;
  virtual bool other(const std::u16string& line) = 0;
};

class IniParser {
 public:
  static constexpr int OK = 0;
  static constexpr int CALLBACK_FAILED = 1;
  // A quoted name without its end or without '=', a '[' line without ']',
  // or an unquoted entry with an empty name.
  static constexpr int MALFORMED = 2;
  static constexpr int READ_ERROR = 3;

  // Reads `reader` to its end, calling `handler` for each item in order,
  // and stops at the first failure. Returns one of the codes above. When
  // `failedLine` is given it receives, on failure, the 1-based number of
  // the line where the failing item starts (for a read error, the line
  // that could not be read); it is left alone on success.
  static int parse(CharReader& reader, IniParserInterface& handler, u64* failedLine = nullptr);
};

}  // namespace Platform
