// RegFileImportHandler: applies the lines of a registry text file, as the
// INI parser delivers them, to a hive.
//
// What each kind of line does:
//   - the header "Windows Registry Editor Version 5.00" must come before the
//     first section; other lines outside sections are reported and skipped;
//   - "[PATH]": PATH must begin with the prefix (case ignored, ending at a
//     name boundary); the rest, without one leading "\", names a key below
//     the root ("" is the root), which is opened, missing levels created,
//     and becomes the current key;
//     a key more than Util::MAX_TREE_DEPTH levels deep (the root is level
//     1) is refused, since it could be neither exported nor deleted;
//   - "[-PATH]": deletes that key with everything below it; a missing key
//     is fine; there is no current key afterwards;
//   - "name"=data or @=data sets a value of the current key, replacing a
//     value of that name whatever its type:
//       "text"        string; when every backslash in the text starts "\\" or
//                     "\"", those escapes are undone, else it is taken as is
//       dword:h       1 to 8 hex digits, either case
//       hex:b,b       binary; hex(t):b,b a value of type t (hex); the byte
//                     list may be empty and have blanks around the commas
//       -             deletes the value (fine when absent)
// Any other form, and any failure of the hive, is reported and stops the
// import (the callback returns false).
//
// Speed: the handler keeps the current key open between entries and the key
// chain of the last section, so a section that shares a leading part of its
// path with the one before walks only the rest.
#pragma once

#include <string>
#include <string_view>
#include <unordered_set>
#include <utility>
#include <vector>

#include "hive/regfile/reg_file_util.h"
#include "platform/ini_parser.h"

namespace Libraries::Files::Hive {

using Interfaces::Config::Hive::Value;

extern const Platform::Log::Channel regImporterLog;  // "HiveRegImporter"

class RegFileImportHandler : public Platform::IniParserInterface {
 public:
  // `prefix` is in slash form. Diagnostics go to `errors` when given, else
  // to the "HiveRegImporter" channel. `trace` reports every created key.
  RegFileImportHandler(Ref<RegistryHive> hive, const Ref<String>& prefix, RegFileDiagnostics errors,
                       bool trace);

  bool section(const std::u16string& text) override;
  bool entry(const std::u16string& name, bool quoted, const std::u16string& data) override;
  bool other(const std::u16string& line) override;
  // Whether quoted strings of the file carry regedit's escapes (see
  // stringsEscaped); true unless told otherwise.
  void setEscapedStrings(bool escaped) { _escapedStrings = escaped; }
  // Reads a whole file and tells whether its strings are escaped.
  static bool stringsEscaped(Platform::CharReader& reader);

  // The key of the latest creating section; null before the first section
  // and after a deleting one.
  const Ref<Key>& current() const { return _current; }

 private:
  bool openSection(std::u16string_view path, const std::vector<std::u16string_view>& parts);
  bool deleteSection(std::u16string_view path, const std::vector<std::u16string_view>& parts);
  bool root();
  bool setString(const Ref<String>& name, const std::u16string& data);
  bool setDword(const Ref<String>& name, const std::u16string& data);
  bool setHex(const Ref<String>& name, const std::u16string& data);
  bool deleteValue(const Ref<String>& name);
  // False when the current key cannot hold a value of that name: it was
  // created by this section and the name was not set since. Records the
  // name as set (willExist) or as deleted, so the next answer is right.
  bool mayExist(const Ref<String>& name, bool willExist);
  // Removes a value of that name, then creates it with `type`.
  Ref<Value> createValue(const Ref<String>& name, u32 type);

  // One diagnostic of one or more lines, each a label and a text: to the
  // sink line by line; to the log as one message, lines joined by blanks.
  using Line = std::pair<std::u16string_view, std::u16string_view>;
  void report(int level, std::initializer_list<Line> lines) const;

  Ref<RegistryHive> _hive;
  std::u16string _prefix;
  RegFileDiagnostics _errors;
  bool _trace;
  bool _versionSeen = false;
  bool _escapedStrings = true;
  Ref<Key> _current;
  // _current was created by its section: its only values are the ones set
  // since, whose upper-cased names _namesSet holds. Spares a value lookup
  // per entry in the common case of an import into new keys.
  bool _currentIsNew = false;
  std::unordered_set<std::u16string> _namesSet;
  // The keys of the last creating section from the root down (_chain[0] is
  // the root) and the path names that led to them (one fewer).
  std::vector<Ref<Key>> _chain;
  std::vector<std::u16string> _chainNames;
  std::vector<Platform::u8> _bytes;
};

}  // namespace Libraries::Files::Hive
