// RegFileImportHandler: applies the items of a registry text file, as
// RegFileReader delivers them, to a hive; or, in its checking form, checks
// them exactly as far as the text alone allows, changing nothing.
//
// An import runs the file twice: a checking handler over the whole file
// first, so that an error of the text (syntax, prefix, path, names, data
// beyond the hive's limits) is found before the hive changes, and only then
// an applying one.
//
// What each item does:
//   - "[PATH]": PATH must begin with the prefix (case ignored, ending at a
//     name boundary); the rest, without one leading "\", names a key below
//     the root ("" is the root), which is opened, missing levels created,
//     and becomes the current key. Empty path parts, names longer than 255
//     characters and keys more than Util::MAX_TREE_DEPTH levels deep (the
//     root is level 1) are refused;
//   - "[-PATH]": deletes that key with everything below it; a missing key
//     is fine; the root cannot be deleted; there is no current key after;
//   - a value entry sets a value of the current key, replacing a value of
//     that name whatever its type; "name"=- deletes it (fine when absent).
// Every error is reported once, as "line N: " and the message, and stops
// the import (the call returns false).
//
// Speed: the handler keeps the current key open between entries and the key
// chain of the last section, so a section that shares a leading part of its
// path with the one before walks only the rest.
//
// Memory: data of RegFileReader::DATA_PIECE bytes or more comes in pieces
// (takePiece), each written into the value where it belongs. The checking
// form notes the size of each such value by its line, so that the applying
// one, given those sizes, makes the value's room once.
#pragma once

#include <string>
#include <string_view>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "hive/regfile/reg_file_reader.h"
#include "hive/regfile/reg_file_util.h"

namespace Libraries::Files::Hive {

using Interfaces::Config::Hive::Value;

extern const Platform::Log::Channel regImporterLog;  // "HiveRegImporter"

class RegFileImportHandler {
 public:
  // `prefix` is in slash form. Diagnostics go to `errors` when given, else
  // to the "HiveRegImporter" channel. `trace` reports every created key.
  // Without `apply` the hive is never touched (it may be null).
  RegFileImportHandler(Ref<RegistryHive> hive, const Ref<String>& prefix, RegFileDiagnostics errors,
                       bool trace, bool apply);

  // False at an error, which has been reported.
  bool take(const RegItem& item);
  // A piece of a value's data ahead of the item itself (the reader's data
  // sink); the item that follows brings the rest.
  bool takePiece(const RegItem& item);

  // Checking form: the data size of every value of DATA_PIECE bytes or more,
  // by the line of its entry. Applying form: sizes to make such values with.
  const std::unordered_map<u64, u64>& largeSizes() const { return _largeSizes; }
  void setLargeSizes(std::unordered_map<u64, u64> sizes) { _largeSizes = std::move(sizes); }

  // Reports `message` for `line` as every error of the import is reported.
  void report(u64 line, std::u16string_view message, int level = 3) const;

 private:
  bool section(const RegItem& item);
  bool splitPath(const RegItem& item, std::vector<std::u16string_view>& parts);
  bool openSection(const RegItem& item, const std::vector<std::u16string_view>& parts);
  bool deleteSection(const RegItem& item, const std::vector<std::u16string_view>& parts);
  bool setValue(const RegItem& item);
  // Replaces the current key's value of the item's name with a binary one
  // of `size` bytes (_stripe): its data is written next.
  bool openValue(const RegItem& item, u64 size);
  // Writes the item's `data` at its place in the value being set.
  bool writePiece(const RegItem& item);
  // Sets the open value's data size; reports a failure.
  bool resizeValue(const RegItem& item, u64 size);
  bool deleteValue(const RegItem& item, const Ref<String>& name);
  bool root(u64 line);
  // False when the current key cannot hold a value of that name: it was
  // created by this section and the name was not set since. Records the
  // name as set (willExist) or as deleted, so the next answer is right.
  bool mayExist(const Ref<String>& name, bool willExist);

  Ref<RegistryHive> _hive;
  std::u16string _prefix;
  RegFileDiagnostics _errors;
  bool _trace;
  bool _apply;
  // A section opened a key (in the checking form, would have).
  bool _inKey = false;
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
  // The names of the section at hand (views into its item), kept for the
  // room they take.
  std::vector<std::u16string_view> _parts;
  std::unordered_map<u64, u64> _largeSizes;
  // The value whose data is being written, and its data.
  Ref<Value> _value;
  Ref<Interfaces::Stripe> _stripe;
};

}  // namespace Libraries::Files::Hive
