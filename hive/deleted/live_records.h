// LiveRecords: which bytes of the hive bins data the live tree uses.
//
// One walk from the root key marks the used part of every record the tree
// reaches: nk records with their names, subkey lists, value lists, vk
// records, data records (single, or a db record with its fragment list and
// fragments), class names and security records (those of the keys and
// those on the list through the root key's). Bytes behind the used part of
// a record (its slack), free records, allocated records nothing reaches
// and the unused tails of hive bins are left unmarked: that is where
// deleted and leftover records can be found (deleted_scan.h).
//
// Marks are kept at the record alignment (8 bytes): an 8-byte granule is
// live when any byte of it is. Memory: one bit per granule of the hive bins
// data, plus, for each live key, its parent as the walk found it, for each
// live value its key, plus the stale entries in the slack of live value
// lists.
//
// The walk reads records only through the record readers (key_record.h,
// value_record.h), so it judges them exactly as a listing does: a record
// they refuse is not live. It is bounded like every walk: each key is
// visited once, so cycles and keys listed twice end; the number of keys is
// bounded by what the hive bins data can hold.
//
// Callers hold the hive's monitor (a writable hive) for the life of the
// object's use: its marks describe the records as they were when built.
#pragma once

#include <functional>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "hive/key/key_record.h"
#include "hive/registry_hive.h"

namespace Libraries::Files::Hive {

// What a scan of the records the live tree does not reach may spend: work
// counted in bytes looked at (a step up a path, a list entry, a byte of
// data handed out), 32 per byte of the data scanned and 64 MiB more. A
// refused charge spends the rest and marks the scan incomplete.
class ScanBudget {
 public:
  static constexpr u64 PATH_STEP = 64;
  static constexpr u64 ENTRY = 8;

  explicit ScanBudget(bool& complete, u64 scanned = 0) : _complete(complete) { allow(scanned); }
  void allow(u64 scanned) { _left = 32 * scanned + (u64{64} << 20); }
  bool charge(u64 cost) {
    if (cost <= _left) {
      _left -= cost;
      return true;
    }
    _left = 0;
    _complete = false;
    return false;
  }

 private:
  u64 _left = 0;
  bool& _complete;
};

class LiveRecords {
 public:
  static constexpr u32 GRANULE = hive_hbin::RECORD_ALIGNMENT;

  // Walks the live tree of `hive`.
  explicit LiveRecords(RegistryHiveObj& hive);

  // Some byte of [offset, offset + length) is used by a live record, or
  // lies beyond the hive bins data.
  bool touches(u32 offset, u32 length) const;
  bool liveAt(u32 offset) const { return touches(offset, 1); }
  // The first multiple of GRANULE at or after `offset` (itself a multiple
  // of GRANULE) and below `end` that no live record uses; `end` when there
  // is none. Skips live stretches a word of marks at a time.
  u32 nextUnused(u32 offset, u32 end) const { return nextMarked(offset, end, false); }
  // The first multiple of GRANULE at or after `offset` and below `end`
  // that a live record uses; `end` when there is none. With nextUnused it
  // splits the hive bins data into free stretches.
  u32 nextUsed(u32 offset, u32 end) const { return nextMarked(offset, end, true); }

  // The key at `nk` was reached by the walk; its parent as reached (the
  // root's parent is INVALID_RECORD).
  bool isKey(u32 nk) const { return _parents.count(nk) != 0; }
  u32 parentOf(u32 nk) const;
  // The live key whose value list names `vk` in the slack behind its
  // values (where a value removed from the list lingers), or INVALID_RECORD.
  u32 formerOwner(u32 vk) const;
  // The live key whose value list holds the value at `vk`, or
  // INVALID_RECORD when the walk reached no value there.
  u32 ownerOf(u32 vk) const;
  size_t keys() const { return _parents.size(); }

  // The names of the live keys from below the root down to `nk`, read
  // through the parents the walk found. False when a key on the way cannot
  // be read, the path runs deeper than `maxDepth` keys, or `step` (called
  // once per key: the caller's budget) refuses.
  bool pathTo(u32 nk, u32 maxDepth, const std::function<bool()>& step,
              std::vector<std::u16string>& out) const;
  // Reads a key the live tree no longer reaches (a deleted one, an older
  // version of one): its record and the bytes its name is read from.
  using FormerKey = std::function<bool(u32 nk, KeyRecord& key, const u8*& bytes)>;
  // The path of a key under `parent` that may itself be gone: up through
  // keys `former` can read until a live key, then that key's live path.
  // False, with `out` empty, when the chain breaks before a live key, runs
  // deeper than `maxDepth` keys, or `step` refuses.
  bool pathThrough(u32 parent, u32 maxDepth, const std::function<bool()>& step, const FormerKey& former,
                   std::vector<std::u16string>& out) const;

 private:
  // The first multiple of GRANULE from `offset` below `end` whose mark is
  // `used`; `end` when there is none. A word of marks at a time.
  u32 nextMarked(u32 offset, u32 end, bool used) const;
  void mark(u32 offset, u32 length);
  // Marks a record's used part: `used` bytes, cut to its cell.
  void markRecord(u32 offset, u64 used);
  // Marks the key's records and pushes its subkeys not seen yet.
  void walkKey(u32 nk, std::vector<u32>& stack);
  void walkValues(const KeyRecord& key);
  void walkValue(u32 vk, u32 owner);
  void walkSubkeyList(const KeyRecord& key, std::vector<u32>& stack);
  void walkSecurity(u32 sk);
  void walkSecurityList(u32 start);

  RegistryHiveObj& _hive;
  u32 _length;  // of the hive bins data
  std::vector<u64> _bits;
  std::unordered_map<u32, u32> _parents;
  std::unordered_map<u32, u32> _formerOwners;
  std::unordered_map<u32, u32> _values;  // vk records marked, and their key
  std::unordered_set<u32> _security;     // sk records marked
  // List entries the walk may still read: a sane tree has fewer than one
  // per 4 bytes; lists shared by many keys must not make it quadratic.
  u64 _entryBudget;
};

}  // namespace Libraries::Files::Hive
