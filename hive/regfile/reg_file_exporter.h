// RegFileExporter: the depth-first walk that writes key blocks in the
// registry text format (see reg_file_util.h) for one export run.
#pragma once

#include <string>
#include <unordered_set>
#include <vector>

#include "hive/regfile/reg_file_util.h"
#include "hive/regfile/reg_value_text.h"
#include "hive/util/util.h"
#include "platform/text_writer.h"

namespace Libraries::Files::Hive {

using Interfaces::Config::Hive::Value;

extern const Platform::Log::Channel regExporterLog;  // "HiveRegExporter"

class RegFileExporter {
 public:
  // `output` must be non-null. Diagnostics go to `diagnostics` when given,
  // else to the "HiveRegExporter" log channel. `reserved` has no effect.
  RegFileExporter(Ref<Platform::TextWriter> output, RegFileDiagnostics diagnostics, bool reserved,
                  bool binaryOnly, RegTextStyle style = RegTextStyle::escaped);

  // Writes the block of `key` (its key line reads "[" parentPath name "]")
  // and then, in iterator order, the blocks of its subkeys, depth first.
  // False at the first key or value that cannot be written; the walk stops
  // there. A subkey leading back to a key on the current path, or a key
  // more than Util::MAX_TREE_DEPTH levels below `key`, is refused (false).
  // A key of this library reached a second time through another list
  // (not a cycle) is written again, but its subkeys only once, so damaged
  // hives whose lists share subtrees cannot make the walk exponential; and
  // a walk that writes more keys, values or data than twice what the hive
  // of its keys can hold (lists naming the same records over and over) is
  // stopped (false).
  // Output errors show in the writer (failed()), not in the result.
  bool recursiveExport(const Ref<Key>& key, const Ref<String>& parentPath);

 private:
  bool exportKey(const Ref<Key>& key, u32 depth);
  bool exportValue(const Ref<Value>& value);
  // Diagnostics are built out of line to keep the recursion's frames small.
  // `path` is followed by the key path; with `value`, by "/" and its name.
  void report(const char* toPrinter, const char* toLog, int level, const Ref<Value>& value = nullptr) const;
  void reportFallback(const char* toPrinter, const char* toLog, const Ref<Value>& value) const;
  // Counts one key or value written; false once the walk has written more
  // than the hive can hold (the limits come from the hive of the first key
  // or value of this library met).
  bool withinBudget(const Platform::Object* item);

  Ref<Platform::TextWriter> _out;
  RegFileDiagnostics _diagnostics;
  bool _binaryOnly;
  RegTextStyle _style;

  // While a key's block is written: its full path. Each level appends
  // "name" (and "\" while its subkeys are written) and restores it after.
  std::u16string _path;
  std::vector<Util::KeyId> _ancestors;
  struct KeyIdHash {
    size_t operator()(const Util::KeyId& id) const {
      return std::hash<const void*>()(id.owner) ^ std::hash<u64>()(id.id * 0x9E3779B97F4A7C15ull);
    }
  };
  // Keys of this library whose subkeys were written already.
  std::unordered_set<Util::KeyId, KeyIdHash> _descended;
  // Keys, values and bytes of value data written (exportValue charges the
  // bytes it reads, withinBudget the items).
  Util::WalkBudget _budget;
};

}  // namespace Libraries::Files::Hive
