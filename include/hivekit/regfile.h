// Registry text files (.reg): export of a key tree, import into a hive.
//
//   hivekit::export_reg(hive->root(), "system.reg");
//   hivekit::import_reg(*hive, "changes.reg");
//
// Files written: UTF-16LE with a byte order mark, CR LF line ends, the
// header "Windows Registry Editor Version 5.00", then a "[PATH]" line per
// key (depth first, a key before its subkeys) and a line per value.
#pragma once

#include <functional>
#include <string>
#include <string_view>

#include "hivekit/export.h"
#include "hivekit/status.h"

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
  Diagnostics diagnostics = {};
};

// Applies the registry text file at `path` ("-" for standard input):
// UTF-16LE with a byte order mark, or UTF-8; CR LF or LF line ends.
// "[PATH]" creates keys, "[-PATH]" deletes a key with everything below it,
// "name"=- deletes a value. Fails with invalid_argument (naming the line)
// for text it cannot apply, with the changes before it applied.
HIVEKIT_EXPORT Status import_reg(Hive& hive, std::string_view path, const ImportOptions& options = {});
// The same from the file's bytes in memory.
HIVEKIT_EXPORT Status import_reg_text(Hive& hive, std::string_view text, const ImportOptions& options = {});

}  // namespace hivekit
