// AllocationRollback: the records one change allocates, given back unless
// the change completes.
//
//   AllocationRollback made(*hive);
//   const u32 a = made.allocate(16, "Failed to allocate ...");
//   if (a == INVALID_RECORD) return false;  // nothing left behind
//   ...
//   if (!linkEverything()) return false;    // a (and the rest) freed
//   made.keep();
//
// Every early return of a change that allocates several records then
// leaves no record it made behind, without a loop at each of them.
// Callers hold the hive's monitor, as for any allocation.
#pragma once

#include <vector>

#include "hive/registry_hive.h"

namespace Libraries::Files::Hive {

class AllocationRollback {
 public:
  explicit AllocationRollback(RegistryHiveObj& hive) : _hive(hive) {}
  ~AllocationRollback() {
    if (_kept) return;
    for (u32 record : _made) _hive.freeRecord(record);
  }
  AllocationRollback(const AllocationRollback&) = delete;
  AllocationRollback& operator=(const AllocationRollback&) = delete;

  // A new used record of `size` bytes (see RegistryHiveObj::allocateRecord),
  // or INVALID_RECORD with `failure` logged.
  u32 allocate(u32 size, const char* failure) {
    const u32 record = _hive.allocateRecord(size);
    if (record == INVALID_RECORD)
      HK_LOG(hiveLog, 4) << failure;
    else
      _made.push_back(record);
    return record;
  }
  // Takes over a record allocated otherwise.
  void add(u32 record) { _made.push_back(record); }
  // The change completed: the records stay.
  void keep() { _kept = true; }

 private:
  RegistryHiveObj& _hive;
  std::vector<u32> _made;
  bool _kept = false;
};

}  // namespace Libraries::Files::Hive
