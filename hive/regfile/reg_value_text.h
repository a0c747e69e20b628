// The line of one value in a registry text file, in the form described in
// reg_file_util.h: the exporter and the public writer of registry text
// (hivekit::RegTextWriter) both write values through this one function, so
// that a patch holds exactly what an export of the same value holds.
#pragma once

#include <functional>
#include <string_view>

#include "platform/types.h"

namespace Libraries::Files::Hive {

using Platform::u32;
using Platform::u64;
using Platform::u8;

// Reads up to `count` bytes of the value's data from `offset` into `out`;
// returns the number of bytes read (fewer only when the data cannot be
// read).
using RegDataReader = std::function<u64(u64 offset, u8* out, u64 count)>;
// Receives the text in pieces, in order.
using RegTextSink = std::function<void(std::u16string_view text)>;

enum class RegValueForm {
  typed,           // a string or dword line
  stringFallback,  // a string value that cannot be read as one: written as hex(1)
                   // (one whose data is not its text and one zero unit goes
                   // as hex(1) too, as form `hex`: nothing is wrong with it)
  dwordFallback,   // a dword value whose data is not 4 bytes: written as hex(4)
  hex,             // any other type, or any value of a binary-only export
  unreadable,      // the data could not be read; the line is incomplete
};

// How names and string data are written.
enum class RegTextStyle {
  // As regedit writes them: "\\" for a backslash and "\"" for a quote in a
  // value name or a string; a string that could not be read back exactly
  // from quotes (a CR or LF, an unpaired surrogate, an embedded zero unit,
  // an odd length, a missing or extra terminator) goes as hex(1)/hex(2), so
  // that every value survives an import.
  escaped,
  // As stored, without escapes (as earlier versions wrote): a string whose
  // data is its text and one zero unit goes in quotes whatever it holds.
  raw,
};

// Appends the name part of a value line: "@" for the default value,
// otherwise the name in quotes, in `style`.
void appendRegValueName(std::u16string& line, std::u16string_view name, RegTextStyle style);

// Writes the line of the value `name` ("" for the default value) with
// `type` and `size` bytes of data read through `read`, without the line
// end. Data is read in pieces, so a value of any size needs no buffer of
// its size (but for strings, which are read whole up to 16 Mi units).
// `bytesRead` receives the bytes of data read.
RegValueForm writeRegValue(std::u16string_view name, u32 type, u64 size, const RegDataReader& read,
                           bool binaryOnly, const RegTextSink& out, u64* bytesRead = nullptr,
                           RegTextStyle style = RegTextStyle::escaped);

}  // namespace Libraries::Files::Hive
