// Registry text files (.reg): export of a key tree, import into a hive.
//
//   hivekit::export_reg(hive->root(), "system.reg");
//   hivekit::import_reg(*hive, "changes.reg");
//
// Files written: UTF-16LE with a byte order mark, CR LF line ends, the
// header "Windows Registry Editor Version 5.00", then a "[PATH]" line per
// key (depth first, a key before its subkeys) and a line per value, in
// regedit's grammar: in value names and strings "\\" stands for a
// backslash and "\"" for a quote, and a string that quotes cannot carry
// exactly (a line break, an unpaired surrogate, data that is not its text
// and one terminator) is written as hex(1):. So export and import give
// back every key and value (last write times aside).
#pragma once

#include <cstddef>
#include <functional>
#include <span>
#include <string>
#include <string_view>

#include "hivekit/export.h"
#include "hivekit/status.h"
#include "hivekit/types.h"

namespace hivekit {

class Hive;
class Key;

// Receives one diagnostic line (UTF-8, no line end) as an export or import
// goes: a value written in another form, a problem met, a key created.
using Diagnostics = std::function<void(std::string_view line)>;

struct ExportOptions {
  // The path that heads the exported key, with backslashes. Empty: "ROOT"
  // followed by the key's path in the hive ([ROOT], [ROOT\ControlSet001],
  // ...), which import_reg's default prefix puts back in the same place.
  std::string root_path = {};
  // Add to the end of the file instead of replacing it; no byte order mark
  // and header are written (unless the file is new or empty).
  bool append = false;
  // Every value as hex(TYPE): bytes, strings and dwords included.
  bool binary_only = false;
  // Names and strings as stored, without escapes, and strings with line
  // breaks in quotes: the form of earlier versions, for tools that expect
  // it. Such a file does not always import back the same.
  bool raw = false;
  Diagnostics diagnostics = {};
};

// Writes `key` and everything below it to the file at `path` ("-" for
// standard output). The file may not be the key's hive or one of its logs.
// Fails with io_error when the file cannot be written; on any failure what
// was written stays (a partial file), and the message says so.
HIVEKIT_EXPORT Status export_reg(const Key& key, std::string_view path, const ExportOptions& options = {});
// The same into a string holding the file's bytes (UTF-16LE with BOM).
HIVEKIT_EXPORT Result<std::string> export_reg_to_string(const Key& key, const ExportOptions& options = {});

struct ImportOptions {
  // The path every section must begin with (letter case aside), standing
  // for the root key; with backslashes. "ROOT" matches export_reg's
  // default.
  std::string prefix = "ROOT";
  // Report every key the import creates through `diagnostics`.
  bool trace = false;
  // Read and check the whole file; change nothing.
  bool dry_run = false;
  Diagnostics diagnostics = {};
};

// Applies the registry text file at `path` ("-" for standard input):
// UTF-16LE with a byte order mark, UTF-8, or 8-bit (Windows-1252) after a
// REGEDIT4 line; CR LF or LF line ends; regedit's escapes in names and
// strings. "[PATH]" creates keys, "[-PATH]" deletes a key with everything
// below it, "name"=- deletes a value.
// The whole file is checked before the hive changes: text it cannot apply
// (a malformed or unknown line, a section outside the prefix, a name too
// long, value data beyond what a value of this hive's version can hold)
// fails with invalid_argument, naming the first line of the entry, and the
// hive stays as it was. A failure of the hive itself while applying (no
// space left, an I/O error, a damaged key) is taken back: the hive stays
// as it was then too.
HIVEKIT_EXPORT Status import_reg(Hive& hive, std::string_view path, const ImportOptions& options = {});
// The same from the file's bytes in memory.
HIVEKIT_EXPORT Status import_reg_text(Hive& hive, std::string_view text, const ImportOptions& options = {});

// Registry text written piece by piece, for programs that make their own
// files (a patch, a selection of keys): every piece is in exactly the form
// export_reg writes, so import_reg reads it back the same way.
//
//   hivekit::RegTextWriter w;
//   w.header();
//   w.key("ROOT\\Software\\Vendor");
//   w.value("Version", hivekit::ValueType::dword, bytes);
//   w.deleted_value("Old");
//   w.deleted_key("ROOT\\Software\\Obsolete");
//   w.finish();
//   out.write(w.text().data(), w.text().size());
//
// Paths and names are UTF-8 (WTF-8 for unpaired surrogates, as the library
// gives them). Value names are escaped as export_reg escapes them; paths
// are written as they are (the grammar has no escapes in paths, nor
// needs them: a key name holds no "\", and a path runs to the line's last
// "]"). Sections are separated by an empty line, as export_reg separates
// keys.
class HIVEKIT_EXPORT RegTextWriter {
 public:
  // The byte order mark, "Windows Registry Editor Version 5.00" and an
  // empty line.
  void header();
  // "[PATH]": the values written next belong to this key (an import
  // creates it when missing). Ends the section before it.
  void key(std::string_view path);
  // "[-PATH]": an import deletes the key with everything below it. Ends
  // the section before it; values may not follow until the next key().
  void deleted_key(std::string_view path);
  // One value line: "name"= (or @= for "") and the data as export_reg
  // writes it: a string for REG_SZ, dword: for a 4-byte REG_DWORD, hex:
  // or hex(TYPE): bytes for anything else (every value with
  // `binary_only`). Data of any size; nothing is checked against a key.
  void value(std::string_view name, ValueType type, std::span<const std::byte> data, bool binary_only = false);
  // "name"=- (or @=-): an import deletes the value.
  void deleted_value(std::string_view name);
  // Ends the last section (its empty line). Call once after the last piece.
  void finish();

  // Everything written so far: UTF-16LE bytes, CR LF line ends.
  const std::string& text() const noexcept { return text_; }
  // Empties text() (after its bytes were written out), keeping the state:
  // the next piece continues the same file.
  void clear() noexcept { text_.clear(); }

 private:
  void put(std::u16string_view units);
  void endSection();
  std::string text_;
  bool open_ = false;  // a "[PATH]" section awaits its empty line
};

}  // namespace hivekit
