// Deleted and leftover data: keys, values and security descriptors whose
// records are still in the hive file although the key tree no longer
// links them.
//
//   hivekit::scan_deleted(*hive, [](const hivekit::DeletedItem& item) {
//     std::cout << hivekit::deleted_path(item) << ' ' << item.name << '\n';
//     return true;
//   });
//
// A deleted key or value keeps its records until their space is reused;
// older versions of records linger in the slack of records that shrank or
// moved. The scan looks at every part of the hive bins that no live record
// uses (free records, slack behind the used part of live records,
// allocated records nothing reaches, unused tails of hive bins) and reads
// each "nk", "vk" and "sk" record found there with the checks a live
// record passes: a record that does not fit the space it stands in, or
// overlaps a live record, is not reported. Nothing live is reported.
//
// What comes back, one item at a time:
//  - keys, with their path rebuilt from the parent offset each record
//    keeps: through live keys and other recovered keys up to the root, or,
//    when the chain breaks, below the placeholder root "\?" (so a deleted
//    subtree whose top is gone stays together there);
//  - each key's values, from its value list while that list is intact,
//    right after the key;
//  - values no recovered key lists: under the live key whose value list
//    still names them behind its count (a value deleted from a live key),
//    else below "\?"; then security descriptors;
//  - each with a state, intact or partial, and the records it came from,
//    so that a report can be checked by hand;
//  - with DeletedScanOptions::logs, last, the previous versions of keys
//    and values that the hive's transaction logs hold (see below).
// A value's data is given when its records are intact and of the right
// size (one data record, or a db record with its list and fragments);
// otherwise the value is partial and its data unavailable.
//
// Previous versions: every entry of the logs the hive was opened with (and
// the dirty pages of an old-format log) holds pages as they were when it
// was written, so older entries keep keys and values as they stood before
// later ones changed or deleted them. Each key and value record found in
// them (with the same checks) that the hive as it reads now does not show
// is listed with state `previous`, the log and entry it came from:
//  - a key that is gone, renamed or moved (a key whose counts or time
//    alone changed is not listed), with its path rebuilt through the live
//    tree and the keys of the same entry, else below "\?";
//  - a value that is gone or holds another name, type or data, under the
//    key of the same entry whose list names it, else the live key that
//    lists it, else below "\?"; its data from the same entry, else from
//    hive records nothing live uses, else unavailable.
// Entries are read oldest first; a version several entries hold is listed
// once, from the oldest. The logs are only read, never written or applied
// again.
//
// Cost: linear in the size of the hive bins data (and of the logs); memory the live tree's
// record marks (one bit per 8 bytes of hive bins data) and what the tree
// walk keeps per key, never the recovered items (they are handed over one
// at a time; with logs also one log entry's pages and a hash per version
// listed). On hostile input the work is bounded by the size of the hive
// and its logs.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <span>
#include <string>
#include <vector>

#include "hivekit/export.h"
#include "hivekit/hive.h"
#include "hivekit/status.h"
#include "hivekit/types.h"

namespace hivekit {

// A record an item came from, by its offset in the hive bins data (the
// file offset minus 4096, as Key::offset gives).
struct DeletedCell {
  enum class Kind { nk, vk, sk, value_list, data, db, fragment_list };
  Kind kind = Kind::nk;
  std::uint32_t offset = 0;
  // Outside the live records and fitting what refers to it; false for a
  // record the item needed but lost (reused, or no longer sound).
  bool intact = true;
};

struct DeletedItem {
  enum class Kind { key, value, security };
  enum class State {
    intact,    // every record it came from is free of the live tree and sound
    partial,   // some are lost: a key's value list or values, a value's data
    previous,  // an older version a transaction log holds (data_available
               // says whether a value's data could be recovered)
  };
  Kind kind = Kind::key;
  State state = State::intact;
  // Names from the root down (UTF-8, as Key::name): a key's own name is
  // the last; a value's are its key's. With `orphan` the names start below
  // the placeholder root "\?" instead of the root. Empty for security
  // descriptors.
  std::vector<std::string> path;
  bool orphan = false;
  std::string name;  // a key's or a value's ("" for the default value)
  // Keys: as the record holds them.
  FileTime last_write = 0;
  std::uint32_t subkeys = 0, values = 0;
  // Values: the type and the data size the record gives; `data` when it
  // could be recovered (`data_available`). Security descriptors: the
  // descriptor's bytes, and `references` the count the record keeps.
  // `data` is valid during the call that hands the item over.
  std::uint32_t type = 0;
  std::uint32_t size = 0;
  bool data_available = false;
  std::span<const std::byte> data;
  std::uint32_t references = 0;
  std::vector<DeletedCell> cells;
  // State::previous: the log it came from (0 .LOG, 1 .LOG1, 2 .LOG2, -1
  // for other states), the entry's sequence number (an old-format log: its
  // header's), and where the record's first byte stands in that log.
  int log = -1;
  std::uint32_t sequence = 0;
  std::uint64_t log_offset = 0;
};

struct DeletedScanOptions {
  // Also list the previous versions the transaction logs hold.
  bool logs = false;
};

struct DeletedScanSummary {
  std::uint32_t keys = 0, values = 0, security = 0;
  std::uint32_t previous_keys = 0, previous_values = 0;  // from the logs
  bool stopped = false;                                  // the visitor returned false
};

// Hands every recovered item of `hive` to `visit`, which returns false to
// stop. Fails with closed, or with too_large (after the items found so
// far) when the hive names its records over and over beyond what a hive of
// its size can hold. A writable hive is scanned as it reads now, unflushed
// changes included.
HIVEKIT_EXPORT Result<DeletedScanSummary> scan_deleted(const Hive& hive,
                                                       const std::function<bool(const DeletedItem&)>& visit,
                                                       const DeletedScanOptions& options = {});

// The item's key path as text: "\" and the names joined by "\" ("\" alone
// for the root), below "\?" for orphans; names as they are (a "\" inside
// one is not escaped).
HIVEKIT_EXPORT std::string deleted_path(const DeletedItem& item);

}  // namespace hivekit
