// Registry text files (".reg"): writing a key tree as one, and applying
// one to a hive.
//
// Format written (and read back by the import):
//   - UTF-16 little-endian text with a byte order mark, every line ending in
//     CR LF;
//   - the header line "Windows Registry Editor Version 5.00" and an empty
//     line (not for appended exports);
//   - per key, depth first in pre-order: "[" full path "]", where the path
//     is in backslash form; one line per value; one empty line;
//   - a value line: "@=" (the default value) or "\"" name "\"=", then
//       "\"" text "\""            a string (type 1) whose data is its text and
//                                 one zero unit, and whose text holds no line
//                                 break and no unpaired surrogate (other
//                                 strings, empty data included, go as hex(1));
//       "dword:" 8 hex digits     a dword (type 4);
//       "hex:" bytes              binary (type 3);
//       "hex(" type "):" bytes    any other type (type in hex, no padding),
//                                 and every type in BinaryOnly exports;
//     bytes: two lower-case hex digits each, separated by ","; after every
//     25th byte and its comma, when more follow, the line continues with
//     "\" CR LF and two blanks;
//   - in names and string text a backslash is written "\\" and a quote
//     "\"", as regedit writes them (not in Raw exports, see below); key
//     paths are written as they are.
//
// The import reads regedit's grammar (see reg_file_reader.h) and always
// undoes those escapes.
//
// Diagnostics: callers may pass a sink that receives one line of text
// (UTF-8, no line terminator) per message; without one, messages go to the
// log channels "HiveRegUtil" (entry points), "HiveRegExporter" (the walk)
// and "HiveRegImporter" (the import handler).
#pragma once

#include <functional>
#include <string>

#include "hive/util/util.h"
#include "hive/value/value_limits.h"

namespace Libraries::Files::Hive {

using Interfaces::Config::Hive::RegistryHive;

extern const Platform::Log::Channel regUtilLog;  // "HiveRegUtil"

// Receives one diagnostic line (UTF-8, no terminator). An empty function
// means "use the log".
using RegFileDiagnostics = std::function<void(const std::string& line)>;

// What an import may do besides applying the file.
struct RegImportControl {
  // Check the whole file, change nothing.
  bool dryRun = false;
  // The most bytes of data one value of the hive can hold
  // (maxValueDataSize of its version): more is an error of
  // the file.
  u64 maxDataSize = maxValueDataSize(5);
};

class RegFileUtil {
 public:
  // Bit set.
  using ExportOptions = u32;
  // Add to the end of the target: no byte order mark, no header line.
  static constexpr ExportOptions Append = 1;
  // Every value in the "hex(<type>):" form, binary values as "hex(3):".
  static constexpr ExportOptions BinaryOnly = 2;
  // Names and strings as stored, without escapes, and every string whose
  // data is its text and one zero unit in quotes, line breaks and all (the
  // form of earlier versions, for tools that expect it; it does not
  // always read back the same).
  static constexpr ExportOptions Raw = 4;

  using ImportControl = RegImportControl;

  // Writes `key` and everything below it into `target`. `path` (slash form)
  // is the registry path under which `key` appears; it is converted to
  // backslash form, and a key with a name is placed below it (a root key,
  // whose name is empty, appears as `path` itself). Without Append the text
  // starts at offset 0 and the stripe is cut to the text's end where it
  // allows resizing. True when the whole subtree was written; on failure
  // what was written stays (a partial file). Refuses, with a diagnostic, a
  // subkey list that leads back to a key on the current path and trees
  // deeper than Util::MAX_TREE_DEPTH. `reserved` has no effect.
  static bool exportRegFile(const Ref<Key>& key, const Ref<Interfaces::Stripe>& target,
                            const Ref<String>& path, ExportOptions options,
                            const RegFileDiagnostics& diagnostics = {}, bool reserved = false);
  // The same into the file `fileName`, created when missing (and emptied
  // first unless Append is given). False when it cannot be opened.
  static bool exportRegFile(const Ref<Key>& key, const Ref<String>& fileName, const Ref<String>& path,
                            ExportOptions options, const RegFileDiagnostics& diagnostics = {},
                            bool reserved = false);

  // Applies the registry text in `source` (UTF-16 with or without byte order
  // mark, UTF-8, or 8-bit for REGEDIT4 files; read from the stripe's
  // position, which must stay readable: the text is read twice) to `hive`.
  // Every section path must begin with `prefix` (slash form, compared
  // without regard to case); the rest names the key below the root
  // ("[PREFIX]" is the root itself). "[-PATH]" deletes a key with
  // everything below it (a missing key is fine); "name"=- deletes a value.
  //
  // All or nothing as far as the text goes: the whole file is read and
  // checked first, and an error of the text (reported once, with the first
  // line of its item) leaves the hive untouched. A failure of the hive
  // itself while applying (no space, a damaged key) is reported the same
  // way and stops the import there; callers that want the hive untouched
  // then run the import as one change (RegistryHiveObj::beginChange).
  // `trace` reports each key the import creates.
  static bool importRegFile(const Ref<RegistryHive>& hive, const Ref<Interfaces::Stripe>& source,
                            const Ref<String>& prefix, const RegFileDiagnostics& errors = {},
                            bool trace = false, const ImportControl& control = {});
  // The same from the file at `path`.
  static bool importRegFile(const Ref<RegistryHive>& hive, const Ref<String>& path, const Ref<String>& prefix,
                            const RegFileDiagnostics& errors = {}, bool trace = false,
                            const ImportControl& control = {});
};

}  // namespace Libraries::Files::Hive
