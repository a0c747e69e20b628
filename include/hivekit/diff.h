// diff: the differences between two key trees, found by walking both side
// by side and reported one by one, so that trees of any size compare in
// memory bounded by one key's lists per level.
//
//   hivekit::diff(before->root(), after->root(), [](const hivekit::Difference& d) {
//     std::cout << static_cast<int>(d.kind) << ' ' << d.path << '\n';
//     return true;
//   });
//
// Keys pair up by name and values by name, both without regard to letter
// case as Windows compares them; the order of values in a key is not
// compared. At each pair of keys the walk reports, in
// this order: the key's own change, the values removed or changed (in the
// order of a's value list), the values added (in b's order), then the
// subkeys in name order (upper-cased UTF-16, the order of subkey lists).
// A key only in b is reported with everything below it (key_added for it
// and each key below, value_added for each of their values), so that the
// differences alone can rebuild it; a key only in a is one key_removed,
// what was below it going with it.
#pragma once

#include <cstdint>
#include <functional>
#include <string>

#include "hivekit/export.h"
#include "hivekit/key.h"
#include "hivekit/status.h"
#include "hivekit/value.h"

namespace hivekit {

struct Difference {
  enum class Kind {
    key_added,      // only in b (b_key)
    key_removed,    // only in a (a_key)
    key_changed,    // in both; last_write_changed or class_name_changed say what
    value_added,    // only in b's key (b_value)
    value_removed,  // only in a's key (a_value)
    value_changed,  // in both keys; type_changed or data_changed say what
  };
  Kind kind = Kind::key_added;
  // The key's path below the compared keys: "" for them, "Sub\\Deeper"
  // below them (names as stored in b where the key is in b, else as in a,
  // joined by "\\"; a "\\" inside a name is not escaped).
  std::string path;
  // The key in each tree; null where the tree lacks it.
  Key a_key, b_key;
  // For the value kinds: the value in each tree; null where it lacks.
  Value a_value, b_value;
  bool last_write_changed = false, class_name_changed = false;
  bool type_changed = false, data_changed = false;
};

struct DiffOptions {
  // Report keys whose last write times differ (key_changed). Off: times
  // are not compared, as a copy made by an import or export has new ones.
  bool last_write = false;
  // Report keys whose class names differ (key_changed).
  bool class_names = true;
  // Pair keys and values only when their names are equal letter for
  // letter: one renamed in letter case alone is then reported removed and
  // added again (removed first), which is what a registry text patch
  // needs to give it its new name. Off: "Run" and "RUN" are the same key,
  // as Windows sees them.
  bool exact_names = false;
};

// Called once per difference; returning false stops the walk (diff then
// returns ok).
using DiffCallback = std::function<bool(const Difference& difference)>;

// Compares the tree below `a` with the tree below `b` (keys of the same or
// of different hives). Returns ok when both trees were read completely.
// Damaged parts do not stop the walk: a list or a value that cannot be
// read in either tree is left out of the comparison, and the walk ends
// with Code::corrupt naming the first. Like the other walks of the
// library it does not follow a subkey back to a key above it, stops
// descending 512 levels down, and stops (Code::corrupt) once it has read
// more keys, values or data than the two hives can hold, which only
// damaged lists naming the same records over and over can make it do.
HIVEKIT_EXPORT Status diff(const Key& a, const Key& b, const DiffCallback& each, const DiffOptions& options = {});

}  // namespace hivekit
