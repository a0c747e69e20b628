// Looking a subkey up by name in a loaded subkey list: the engine's one
// search, used by KeyObj (which then hands out its object for the entry)
// and by readers that make no object per key (the public API on a
// read-only hive).
//
// Lists are kept sorted by upper-cased name, so the search is binary: most
// probes compare the sought name with the name in the subkey's nk record in
// place (compareKeyName); a subkey whose record cannot be read that simply
// is opened the caller's way and its name compared. In a hive opened with
// modeLinearFallback, a probe whose name is empty (a list that cannot be
// trusted to be sorted) turns the search into a walk over every entry.
//
// Callers hold what guards the list (the hive's monitor for a writable hive).
#pragma once

#include <string>

#include "hive/registry_hive.h"

namespace Libraries::Files::Hive {

// How a search reads the entries of one list.
class SubkeyNames {
 public:
  // Orders the sought name (units passed through String::upcase) against
  // the name of entry `index` as read from its record in place; false when
  // the record cannot be read so (see compareKeyName).
  virtual bool compare(u32 index, const std::u16string& upcased, int& order) = 0;
  // The name of entry `index` as the opened subkey has it; false when it
  // cannot be opened.
  virtual bool name(u32 index, Ref<String>& out) = 0;

 protected:
  ~SubkeyNames() = default;
};

enum class SubkeySearch { found, notFound, failed };

// Searches the `count` entries of the list of the key at `keyOffset` (for
// messages) for `name`. found: `position` is its index. notFound (error
// 0x1003 set): `position` is where the name would be inserted. failed: a
// probed subkey could not be opened; `position` is INVALID_RECORD.
SubkeySearch binaryFindSubkey(RegistryHiveObj& hive, u32 keyOffset, u32 count, const Ref<String>& name,
                              SubkeyNames& names, u32& position);
// The same by a walk over every entry, names compared as opened subkeys
// have them: the first equal one is found. Subkeys that cannot be opened
// are passed over (and logged).
SubkeySearch linearFindSubkey(u32 count, const Ref<String>& name, SubkeyNames& names, u32& position);

}  // namespace Libraries::Files::Hive
