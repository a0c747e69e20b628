// RecordAllocator: allocation, resizing, freeing and writing of the records
// of one hive, over its RecordStore.
//
// Allocation is first fit over the hbin table in file order: the store's
// FirstFitIndex (each hbin's largest free record) finds the first hbin that
// can hold a record in time logarithmic in the number of hbins. When none
// can, the hive grows by one hbin appended at the end. Every byte goes
// through the store's writeHBIN, so the change journal, the dirty marks and
// write-through see it.
//
// Invariants:
//  - Records are multiples of 8 bytes long and start at multiples of 8; a
//    request is rounded up.
//  - Freeing, shrinking or moving a record merges the bytes it gives up
//    with the free records right behind them into one free record (free
//    records before it stay as they are).
//  - After every call the freeSize of each hbin it changed is that hbin's
//    largest free record (the first of equal ones).
//  - A failed allocation returns INVALID_RECORD with the error set and no
//    record changed; a growth that failed half way may leave the file
//    longer and the previous last hbin's own size at 0x1C written, which
//    no reader relies on, and takes its hbin out of the table again. A
//    resize that fails after allocating the record to move to leaves that
//    record allocated: callers that must leave nothing bracket their
//    change with the store's beginChange/endChange.
//  - A read-only hive, or one in unsafe mode, is never changed: every call
//    is refused (READ_ONLY, or the refusal logged).
// Callers hold the hive's monitor.
#pragma once

#include "hive/record_store.h"

namespace Libraries::Files::Hive {

class RecordAllocator {
 public:
  explicit RecordAllocator(RecordStore& store) : _store(store) {}
  RecordAllocator(const RecordAllocator&) = delete;
  RecordAllocator& operator=(const RecordAllocator&) = delete;

  // Offset of a new used record of size rounded up to 8, or INVALID_RECORD.
  u32 allocateRecord(u32 size, u32* allocatedSize = nullptr);
  // The record's offset after the change (it may move; callers rewrite the
  // offsets that point to it), or INVALID_RECORD. A new size of 0 frees it.
  u32 resizeRecord(u32 offset, u32 newSize, bool copyData, u32* allocatedSize = nullptr,
                   bool keepIfLarger = false);
  // Frees a used record (merging it with the free records behind it).
  bool freeRecord(u32 offset) { return resizeRecord(offset, 0, false) != INVALID_RECORD; }
  // Writes bytes at `position` from the record's start (>= 4).
  bool writeRecord(u32 offset, const void* data, u32 position, u32 length);
  // Makes the free record at `offset` a used one of `size` bytes (a
  // multiple of 8), the rest of it and the free space behind it one free
  // record after it.
  bool initRecord(u32 offset, u32 size);
  // The bytes of the free records right behind the record at `offset`.
  u32 getFreeSpaceBehindRecord(u32 offset, bool recordIsFree);

 private:
  // getFreeSpaceBehindRecord for a record just loaded from hbin `hbin`.
  u32 freeSpaceBehind(u32 hbin, const hive_record* record, u32 offset, bool recordIsFree);
  // allocateRecord when no hbin has room: a new hbin at the end.
  u32 growForRecord(u32 length);
  bool appendEmptyHbin(u32 offset, u32 size);
  // The checks every change starts with: a writable hive, not in unsafe
  // mode (`function` names the call in the refusal).
  bool refused(const char* function) const;

  RecordStore& _store;
};

}  // namespace Libraries::Files::Hive
