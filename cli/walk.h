// Enumerating the subkeys and values of a key in list order.
//
// A damaged list may hold entries that cannot be read; those are skipped
// and counted, so a listing shows everything that can be read.
#pragma once

#include <vector>

#include "cli/open_hive.h"

namespace hivekit::cli {

// Subkeys in the order of the key's subkey list; `unreadable` counts the
// positions skipped.
void listSubkeys(const KeyRef& key, std::vector<KeyRef>& out, size_t& unreadable);
// Values in the order of the key's value list.
void listValues(const KeyRef& key, std::vector<ValueRef>& out, size_t& unreadable);

// All of a value's data, read through its binary stripe. False (with what
// could be read) when the stripe is missing or a read comes back short.
bool readValueData(const ValueRef& value, std::vector<u8>& out);

}  // namespace hivekit::cli
