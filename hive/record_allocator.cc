#include "hive/record_allocator.h"

#include <cstring>
#include <vector>

#include "platform/check.h"
#include "platform/error.h"

namespace Libraries::Files::Hive {

namespace {
// Largest record the format can describe: its negated length is an s32,
// and its hbin (record plus 32-byte header, rounded to pages) fits in u32.
constexpr u32 MAX_RECORD_LENGTH = 0x7ffff000u;
}  // namespace

bool RecordAllocator::refused(const char* function) const {
  return Error::setIf(_store.readonly(), Errors::READ_ONLY) || _store.refuseUnsafe(function);
}

u32 RecordAllocator::allocateRecord(u32 size, u32* allocatedSize) {
  if (refused("allocateRecord")) return INVALID_RECORD;
  if (size == 0 || size > MAX_RECORD_LENGTH) {
    HK_LOG(hiveLog, 4) << "Invalid record size requested: " << size;
    Error::set(Errors::ALLOCATION_FAILED);
    return INVALID_RECORD;
  }
  const u32 length = roundRecordSize(size);
  if (allocatedSize) *allocatedSize = length;

  // First fit from table entry `from` on; false when nothing fits. A found
  // record that cannot be initialised ends the allocation (record stays
  // INVALID_RECORD).
  u32 record = INVALID_RECORD;
  auto firstFit = [&](size_t from) {
    const size_t i = _store.freeIndex().findFirst(from, length);
    if (i == FirstFitIndex::NONE) return false;
    const u32 candidate = _store.hbins()[i].freeOffset;
    if (initRecord(candidate, length))
      record = candidate;
    else
      Error::set(Errors::ALLOCATION_FAILED);
    return true;
  };
  if (firstFit(0)) return record;

  return growForRecord(length);
}

// Grows the hive by one hbin that holds a record of `length` (and the
// hbin header), and makes the record there.
u32 RecordAllocator::growForRecord(u32 length) {
  // The table ends before the hive bins data when an hbin header failed
  // its checks at open: the hive cannot grow past such an hbin.
  const u32 hiveBins = _store.hiveLength();
  const auto& hbins = _store.hbins();
  const u64 knownEnd = hbins.empty() ? 0 : u64{hbins.back().offset} + hbins.back().size;
  if (knownEnd < hiveBins) {
    if (hiveBins >= 5) _store.hbinFromOffset(hiveBins - 5);  // logs why
    HK_LOG(hiveLog, 4) << "Failed to read the remaining hbins while allocating " << length << " bytes";
    Error::set(Errors::ALLOCATION_FAILED);
    return INVALID_RECORD;
  }

  // Grow the file by one hbin that holds the record and the hbin header.
  const u32 H = hiveBins;
  const u64 S = ((u64{length} + 31) / hive_hbin::PAGE + 1) * hive_hbin::PAGE;
  const u64 fileEnd = u64{RecordStore::HIVE_HEADER_SIZE} + H + S;
  if (fileEnd > 0xffffffffull || hbins.empty()) {
    HK_LOG(hiveLog, 4) << "Hive cannot grow by " << S << " bytes beyond " << H;
    Error::set(Errors::ALLOCATION_FAILED);
    return INVALID_RECORD;
  }
  if (Error::setIf(!_store.reserveBins(H + S) || !_store.growFile(fileEnd), Errors::ALLOCATION_FAILED))
    return INVALID_RECORD;

  if (!appendEmptyHbin(H, static_cast<u32>(S))) return INVALID_RECORD;
  const u32 record = H + hive_hbin::SIZE;
  if (!initRecord(record, length)) {
    HK_LOG(hiveLog, 4) << "Failed to initialize new record after creating a new HBIN. record=" << record;
    Error::set(Errors::ALLOCATION_FAILED);
    return INVALID_RECORD;
  }
  return record;
}

// Appends an hbin of `S` bytes at hive bins offset `H` (the end of the
// last one), holding one free record.
bool RecordAllocator::appendEmptyHbin(u32 H, u32 S) {
  // The hbin that was last before gets its own size at 0x1C first: that
  // changes nothing another reader relies on, so a failure here leaves the
  // hive as it was.
  const u32 previous = static_cast<u32>(_store.hbins().size() - 1);
  u8 ownSize[4];
  W32(ownSize, _store.hbins()[previous].size);
  if (!_store.writeHBIN(previous, hive_hbin::OFS_LAST, ownSize, sizeof ownSize)) {
    HK_LOG(hiveLog, 4) << "Failed to write last hbin offset pointer on resize";
    Error::set(Errors::ALLOCATION_FAILED);
    return false;
  }
  // A new hbin whose header cannot be put in place is taken out of the
  // table again; the base block in memory counts it only after that.
  // The base block that counts it reaches the file only after the hbin
  // itself (at the next flush, or below in write-through mode), so a
  // failure in between never leaves a file whose length names bytes that
  // are not an hbin.
  const u32 added = static_cast<u32>(_store.hbins().size());
  _store.appendHbin(RecordStore::HbinEntry{H, S, 0, 0});
  u8 head[hive_hbin::SIZE + 4] = {};
  std::memcpy(head, "hbin", 4);
  W32(head + hive_hbin::OFS_OFFSET, H);
  W32(head + hive_hbin::OFS_SIZE, S);
  W32(head + hive_hbin::SIZE, static_cast<u32>(S - hive_hbin::SIZE));
  if (!_store.writeHBIN(added, 0, head, sizeof head)) {
    HK_LOG(hiveLog, 4) << "Failed to write new hbin header on resize";
    _store.dropLastHbin();
    Error::set(Errors::ALLOCATION_FAILED);
    return false;
  }
  _store.setHiveLength(static_cast<u32>(H + S));
  return true;
}

bool RecordAllocator::initRecord(u32 offset, u32 size) {
  if (refused("initRecord")) return false;
  HK_ASSERT(hiveLog, size >= 8 && size % hive_hbin::RECORD_ALIGNMENT == 0, false);
  u32 hbin = RecordStore::INVALID_HBIN;
  const hive_record* record = _store.cacheLoadRecord(offset, &hbin, true);
  if (!record) return false;
  const u32 free = record->length();
  if (free < size || free % hive_hbin::RECORD_ALIGNMENT != 0) {
    HK_LOG(hiveLog, 4) << "Free record too small or malformed while initializing, record=" << offset
                       << " length: " << free << " wanted: " << size;
    return false;
  }
  const u32 behind = freeSpaceBehind(hbin, record, offset, true);
  const u32 inHbin = offset - _store.hbins()[hbin].offset;
  u8 field[4];
  W32(field, static_cast<u32>(-static_cast<s32>(size)));
  if (!_store.writeHBIN(hbin, inHbin, field, 4)) {
    HK_LOG(hiveLog, 4) << "Failed to write record while initializing, record=" << offset;
    return false;
  }
  if (size != free) {
    W32(field, free - size + behind);
    if (!_store.writeHBIN(hbin, inHbin + size, field, 4))
      HK_LOG(hiveLog, 3) << "Failed to write free record while initializing, record=" << offset;
  }
  _store.updateFreeSpace(hbin);
  return true;
}

u32 RecordAllocator::getFreeSpaceBehindRecord(u32 offset, bool recordIsFree) {
  u32 hbin = RecordStore::INVALID_HBIN;
  const hive_record* record = _store.cacheLoadRecord(offset, &hbin, recordIsFree);
  if (!record) return 0;
  return freeSpaceBehind(hbin, record, offset, recordIsFree);
}

u32 RecordAllocator::freeSpaceBehind(u32 hbin, const hive_record* record, u32 offset, bool recordIsFree) {
  const u8* hb_ptr = _store.hbinData(hbin);
  const u8* rec_ptr = record->bytes();
  const u32 hb_size = _store.hbins()[hbin].size;
  const u32 rec_size = record->length();
  HK_ASSERT(hiveLog, rec_ptr > hb_ptr, 0);
  HK_ASSERT(hiveLog, rec_ptr + rec_size <= hb_ptr + hb_size, 0);
  if (recordIsFree)
    HK_ASSERT(hiveLog, record->size() >= 0, 0);
  else
    HK_ASSERT(hiveLog, record->size() < 0, 0);
  u32 total = 0;
  u64 next = (rec_ptr - hb_ptr) + u64{rec_size};
  while (next + 4 <= hb_size) {
    const s32 nextSize = LS32(hb_ptr + next);
    if (nextSize < 0) break;
    if (nextSize == 0 || nextSize % hive_hbin::RECORD_ALIGNMENT != 0 || next + nextSize > hb_size) {
      HK_LOG(hiveLog, 3) << "Invalid unused record after record: " << offset << " next_size: " << nextSize;
      break;
    }
    total += static_cast<u32>(nextSize);
    next += static_cast<u32>(nextSize);
  }
  return total;
}

u32 RecordAllocator::resizeRecord(u32 offset, u32 newSize, bool copyData, u32* allocatedSize,
                                  bool keepIfLarger) {
  if (refused("resizeRecord")) return INVALID_RECORD;
  if (newSize > MAX_RECORD_LENGTH) {
    HK_LOG(hiveLog, 4) << "Invalid record size requested: " << newSize;
    return INVALID_RECORD;
  }
  const u32 length = newSize == 0 ? 0 : roundRecordSize(newSize);
  if (allocatedSize) *allocatedSize = length;
  u32 hbin = RecordStore::INVALID_HBIN;
  const hive_record* record = _store.cacheLoadRecord(offset, &hbin, false);
  if (!record) return INVALID_RECORD;
  const u32 recordSize = record->length();
  if (recordSize == length || (recordSize > length && keepIfLarger && length != 0)) return offset;

  const u32 freeBehind = freeSpaceBehind(hbin, record, offset, false);
  HK_ASSERT(hiveLog, (u64{recordSize} + freeBehind) % hive_hbin::RECORD_ALIGNMENT == 0, INVALID_RECORD);
  const u32 inHbin = offset - _store.hbins()[hbin].offset;
  const u32 total = recordSize + freeBehind;
  // Writes a cell's size field at `at` in the hbin.
  auto writeSize = [&](u32 at, u32 size, const char* failure) {
    u8 field[4];
    W32(field, size);
    if (_store.writeHBIN(hbin, at, field, 4)) return true;
    HK_LOG(hiveLog, 4) << "Failed to write " << failure << ", record=" << offset;
    return false;
  };

  // A new size of 0 frees the record, merged with the free space behind it.
  if (length == 0) {
    if (!writeSize(inHbin, total, "free record while freeing")) return INVALID_RECORD;
    _store.updateFreeSpace(hbin);
    return offset;
  }

  if (total >= length) {
    if (!writeSize(inHbin, static_cast<u32>(-static_cast<s32>(length)), "record while resizing") ||
        (total > length && !writeSize(inHbin + length, total - length, "free record while resizing")))
      return INVALID_RECORD;
    _store.updateFreeSpace(hbin);
    return offset;
  }

  // Move: the payload is copied out first, since allocating may append an
  // hbin and move the buffer under the record pointer.
  std::vector<u8> payload;
  if (copyData) payload.assign(record->bytes() + 4, record->bytes() + recordSize);
  const u32 moved = allocateRecord(length);
  if (moved == INVALID_RECORD) {
    HK_LOG(hiveLog, 3) << "Failed to allocate new record with size: " << length;
    return INVALID_RECORD;
  }
  if (copyData && !writeRecord(moved, payload.data(), 4, static_cast<u32>(payload.size()))) {
    HK_LOG(hiveLog, 4) << "Failed to copy data to the new record while resizing, record=" << moved;
    return INVALID_RECORD;
  }
  if (!writeSize(inHbin, recordSize, "free record while resizing (re-allocate)")) return INVALID_RECORD;
  _store.updateFreeSpace(hbin);
  return moved;
}

bool RecordAllocator::writeRecord(u32 offset, const void* data, u32 position, u32 length) {
  if (refused("writeRecord")) return false;
  if (length == 0) return true;
  if (position < 4) {
    HK_LOG(hiveLog, 4) << "Attempt to write into the size field of record: " << offset
                       << " position: " << position;
    Error::set(Errors::WRITE_IN_SIZE_FIELD);
    return false;
  }
  u32 hbin = RecordStore::INVALID_HBIN;
  const hive_record* record = _store.cacheLoadRecord(offset, &hbin, false);
  if (!record) return false;
  const u32 recordsize = record->length();
  HK_ASSERT(hiveLog, record->size() < 0, false);
  HK_ASSERT(hiveLog, hbin < _store.hbinCount(), false);
  const RecordStore::HbinEntry& entry = _store.hbins()[hbin];
  HK_ASSERT(hiveLog, offset > entry.offset && u64{offset} + recordsize <= u64{entry.offset} + entry.size,
            false);
  HK_ASSERT(hiveLog, u64{position} + length <= recordsize, false);
  return _store.writeHBIN(hbin, offset - entry.offset + position, data, length);
}

}  // namespace Libraries::Files::Hive
