// The scan for records the live tree no longer reaches: deleted keys,
// values and security records, and leftovers of older versions of them.
//
// Where it looks: every 8-byte position of every hive bin that no live
// record uses (LiveRecords): free records, the slack behind the used part
// of live records, allocated records nothing reaches, and unused hbin
// tails. A position holding "nk", "vk" or "sk" is a candidate; it is read
// by the same checks as a live record (parseKeyRecord, parseValueRecord),
// within the room it may take: the bytes up to the next live record, cut
// to its old size field when that is sound. Hbins are found by their
// headers; a page without one is scanned on its own.
//
// What it rebuilds:
//  - a key's path, from its parent offset while that holds a key: a live
//    one ends the chain at that key's path, a candidate adds its name and
//    goes on. A chain that ends anywhere else (or runs past 512 levels)
//    puts the key below the placeholder root `\?`.
//  - a key's values, from its value list when the list lies outside the
//    live records; each value's data when its records do and their sizes
//    fit (one data record, or a db record, its list and fragments).
//  - values no recovered key lists: under the live key whose value list
//    still names them behind its count, else below `\?`.
//
// States: intact, every record it came from lies outside the live records
// and fits; partial, some are gone (reused by live records, or no longer
// sound): a key whose value list or some value is lost, a value whose
// data is lost (then marked unavailable).
//
// Order: keys in file order, each followed by the values of its list;
// then the values no key lists and the security records, in file order.
//
// Bounds: two passes over the hive bins data plus the live walk; a path
// costs at most 512 steps and a list at most its record. Work beyond what
// a hive of its size can hold (lists and data named over and over) ends
// the scan with `complete` false. Memory: LiveRecords, one bit per 8
// bytes of hive bins data, and one item at a time.
//
// Callers hold the hive's monitor (a writable hive) for the whole scan.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "hive/registry_hive.h"

namespace Libraries::Files::Hive {

// A record an item came from.
struct DeletedCell {
  enum Kind : u8 { nk, vk, sk, valueList, data, db, fragmentList };
  Kind kind;
  u32 offset;
  bool intact;  // lies outside the live records and fits what refers to it
};

struct DeletedItem {
  enum class Kind { key, value, security };
  Kind kind = Kind::key;
  bool intact = true;
  // A version of a key or value that a log holds and the hive as it reads
  // no longer shows (logged_versions.h): from log `log` (0 .LOG, 1 .LOG1,
  // 2 .LOG2), entry `sequence` (an old-format log: its header's sequence
  // number), the record's first byte at `logPosition` in that log.
  bool previous = false;
  u32 log = 0;
  u32 sequence = 0;
  u64 logPosition = 0;
  // The names from the root down to the key (a key: itself included; a
  // value: its key). `orphan`: below the placeholder root `\?`.
  std::vector<std::u16string> path;
  bool orphan = false;
  std::u16string name;  // a key's or value's name
  // Keys: the counts and time as the record holds them.
  u64 lastWriteTime = 0;
  u32 subkeys = 0;
  u32 values = 0;
  // Values: the type, the size the record gives, and the data when it
  // could be recovered (`data` holds `dataSize` bytes; valid during the
  // visit). Security records: the descriptor, and `references` its count.
  u32 type = 0;
  u32 dataSize = 0;
  bool dataAvailable = false;
  const u8* data = nullptr;
  u32 references = 0;
  std::vector<DeletedCell> cells;
};

struct DeletedScanResult {
  bool complete = true;  // false: stopped by the visitor or by the work bound
  bool stopped = false;  // the visitor asked to stop
  u32 keys = 0, values = 0, security = 0;
  u32 previousKeys = 0, previousValues = 0;  // from the logs
};

struct DeletedScanOptions {
  // After the hive's own items, the previous versions its logs hold.
  bool logs = false;
};

// Visits every recovered item; `visit` returns false to stop.
DeletedScanResult scanDeleted(RegistryHiveObj& hive, const std::function<bool(const DeletedItem&)>& visit,
                              const DeletedScanOptions& options = {});

}  // namespace Libraries::Files::Hive
