// Allocation, resizing and writing of records.
//
// Free space is tracked per hbin (its largest free record); allocation is
// first fit over the hbin table in file order (found through _freeIndex, so
// its cost does not grow with the number of hbins), and the hive grows by
// one appended hbin when nothing fits. writeHBIN is the only place where
// bytes reach an hbin: into the resident hbin, marked dirty for the next
// flush, and, in write-through mode, into the file at once. These run for every record
// touched, so they test the mode before calling refuseUnsafe.
#include <algorithm>
#include <cstring>
#include <vector>

#include "hive/registry_hive.h"
#include "platform/check.h"
#include "platform/error.h"

namespace Libraries::Files::Hive {

namespace {
// Largest record the format can describe: its negated length is an s32,
// and its hbin (record plus 32-byte header, rounded to pages) fits in u32.
constexpr u32 MAX_RECORD_LENGTH = 0x7ffff000u;

u32 absLength(s32 size) {
  return size < 0 ? static_cast<u32>(-static_cast<s64>(size)) : static_cast<u32>(size);
}
}  // namespace

u32 RegistryHiveObj::allocateRecord(u32 size, u32* allocatedSize) {
  if (Error::setIf(readonly(), Errors::READ_ONLY)) return INVALID_RECORD;
  if ((_mode & modeUnsafe) && refuseUnsafe("allocateRecord")) return INVALID_RECORD;
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
    const size_t i = _freeIndex.findFirst(from, length);
    if (i == FirstFitIndex::NONE) return false;
    const u32 candidate = _hbins[i].freeOffset;
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
u32 RegistryHiveObj::growForRecord(u32 length) {
  // The table ends before the hive bins data when an hbin header failed
  // its checks at open: the hive cannot grow past such an hbin.
  const u32 hiveBins = hiveLength();
  const u64 knownEnd = _hbins.empty() ? 0 : u64{_hbins.back().offset} + _hbins.back().size;
  if (knownEnd < hiveBins) {
    if (hiveBins >= 5) hbinFromOffset(hiveBins - 5);  // logs why
    HK_LOG(hiveLog, 4) << "Failed to read the remaining hbins while allocating " << length << " bytes";
    Error::set(Errors::ALLOCATION_FAILED);
    return INVALID_RECORD;
  }

  // Grow the file by one hbin that holds the record and the hbin header.
  const u32 H = hiveBins;
  const u64 S = ((u64{length} + 31) / hive_hbin::PAGE + 1) * hive_hbin::PAGE;
  const u64 fileEnd = u64{HIVE_HEADER_SIZE} + H + S;
  if (fileEnd > 0xffffffffull || _hbins.empty()) {
    HK_LOG(hiveLog, 4) << "Hive cannot grow by " << S << " bytes beyond " << H;
    Error::set(Errors::ALLOCATION_FAILED);
    return INVALID_RECORD;
  }
  if (Error::setIf(!reserveBins(H + S), Errors::ALLOCATION_FAILED)) return INVALID_RECORD;
  if (fileSize() < fileEnd && _stripe->setElementCount(fileEnd) != fileEnd) {
    HK_LOG(hiveLog, 4) << "Failed to resize hive file to " << fileEnd
                       << "; error: " << Log::hex(Error::get());
    _fileSize = _stripe->elementCount();
    Error::set(Errors::ALLOCATION_FAILED);
    return INVALID_RECORD;
  }
  _fileSize = std::max(_fileSize, fileEnd);

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
bool RegistryHiveObj::appendEmptyHbin(u32 H, u32 S) {
  // The hbin that was last before gets its own size at 0x1C first: that
  // changes nothing another reader relies on, so a failure here leaves the
  // hive as it was.
  const u32 previous = static_cast<u32>(_hbins.size() - 1);
  u8 ownSize[4];
  W32(ownSize, _hbins[previous].size);
  if (!writeHBIN(previous, hive_hbin::OFS_LAST, ownSize, sizeof ownSize)) {
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
  const u32 added = static_cast<u32>(_hbins.size());
  appendHbin(HbinEntry{H, S, 0, 0});
  u8 head[hive_hbin::SIZE + 4] = {};
  std::memcpy(head, "hbin", 4);
  W32(head + hive_hbin::OFS_OFFSET, H);
  W32(head + hive_hbin::OFS_SIZE, S);
  W32(head + hive_hbin::SIZE, static_cast<u32>(S - hive_hbin::SIZE));
  if (!writeHBIN(added, 0, head, sizeof head)) {
    HK_LOG(hiveLog, 4) << "Failed to write new hbin header on resize";
    dropLastHbin();
    Error::set(Errors::ALLOCATION_FAILED);
    return false;
  }
  W32(_header + hive_header::OFS_LENGTH, static_cast<u32>(H + S));
  W32(_header + hive_header::OFS_CHECKSUM, calculateHeaderChecksum(_header));
  // Write-through: a base block that cannot be written now is written by
  // the next flush, which compares it with the file's.
  if ((_mode & modeWriteThrough) && !writeHeader())
    HK_LOG(hiveLog, 4) << "Failed to write header on resize; left to the next flush";
  return true;
}

bool RegistryHiveObj::initRecord(u32 offset, u32 size) {
  if (Error::setIf(readonly(), Errors::READ_ONLY)) return false;
  if ((_mode & modeUnsafe) && refuseUnsafe("initRecord")) return false;
  HK_ASSERT(hiveLog, size >= 8 && size % hive_hbin::RECORD_ALIGNMENT == 0, false);
  u32 hbin = INVALID_HBIN;
  const hive_record* record = cacheLoadRecord(offset, &hbin, true);
  if (!record) return false;
  const u32 free = record->length();
  if (free < size || free % hive_hbin::RECORD_ALIGNMENT != 0) {
    HK_LOG(hiveLog, 4) << "Free record too small or malformed while initializing, record=" << offset
                       << " length: " << free << " wanted: " << size;
    return false;
  }
  const u32 behind = freeSpaceBehind(hbin, record, offset, true);
  const u32 inHbin = offset - _hbins[hbin].offset;
  u8 field[4];
  W32(field, static_cast<u32>(-static_cast<s32>(size)));
  if (!writeHBIN(hbin, inHbin, field, 4)) {
    HK_LOG(hiveLog, 4) << "Failed to write record while initializing, record=" << offset;
    return false;
  }
  if (size != free) {
    W32(field, free - size + behind);
    if (!writeHBIN(hbin, inHbin + size, field, 4))
      HK_LOG(hiveLog, 3) << "Failed to write free record while initializing, record=" << offset;
  }
  updateFreeSpace(hbin);
  return true;
}

u32 RegistryHiveObj::getFreeSpaceBehindRecord(u32 offset, bool recordIsFree) {
  u32 hbin = INVALID_HBIN;
  const hive_record* record = cacheLoadRecord(offset, &hbin, recordIsFree);
  if (!record) return 0;
  return freeSpaceBehind(hbin, record, offset, recordIsFree);
}

u32 RegistryHiveObj::freeSpaceBehind(u32 hbin, const hive_record* record, u32 offset, bool recordIsFree) {
  const u8* hb_ptr = hbinData(hbin);
  const u8* rec_ptr = record->bytes();
  const u32 hb_size = _hbins[hbin].size;
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

void RegistryHiveObj::setFreeSize(u32 hbinIdx, u32 freeSize, u32 freeOffset) {
  _hbins[hbinIdx].freeSize = freeSize;
  _hbins[hbinIdx].freeOffset = freeOffset;
  _freeIndex.set(hbinIdx, freeSize);
}

bool RegistryHiveObj::updateFreeSpace(u32 hbin_idx) {
  HK_ASSERT(hiveLog, hbin_idx < _hbins.size(), false);
  const u8* hbin = hbinData(hbin_idx);
  const u32 size = L32(hbin + hive_hbin::OFS_SIZE);
  HK_ASSERT(hiveLog, size == _hbins[hbin_idx].size, false);
  u32 best = 0, bestOffset = 0;
  // A sound hbin (every size a non-zero multiple of 8) has its free records
  // in the record-start index: look only at those.
  recordStartsReady(hbin_idx);
  const RecordStarts& starts = _recordStarts[hbin_idx];
  const Bits free = freeBits(hbin_idx);
  if (size > hive_hbin::SIZE + 4 && !starts.offGrid && starts.zeroAt >= size) {
    for (size_t word = 0; word < free.count; ++word) {
      for (u64 bits = free.words[word]; bits != 0; bits &= bits - 1) {
        const u64 pos = (word * 64 + static_cast<u64>(__builtin_ctzll(bits))) * hive_hbin::RECORD_ALIGNMENT;
        const u32 length = static_cast<u32>(LS32(hbin + pos));
        if (length > best && pos + length <= size) {
          best = length;
          bestOffset = static_cast<u32>(_hbins[hbin_idx].offset + pos);
        }
      }
    }
  } else if (size > hive_hbin::SIZE + 4) {
    for (u64 pos = hive_hbin::SIZE; pos + 4 <= size;) {
      const s32 recordSize = LS32(hbin + pos);
      const u32 length = absLength(recordSize);
      if (length < 4 || length % hive_hbin::RECORD_ALIGNMENT != 0) {
        HK_LOG(hiveLog, 3) << "Invalid record size: " << recordSize
                           << " record: " << _hbins[hbin_idx].offset + pos;
        return false;
      }
      // A free record running past the hbin cannot be handed out.
      if (recordSize > 0 && length > best && pos + length <= size) {
        best = length;
        bestOffset = static_cast<u32>(_hbins[hbin_idx].offset + pos);
      }
      pos += length;
    }
  }
  setFreeSize(hbin_idx, best, bestOffset);
  return true;
}

u32 RegistryHiveObj::resizeRecord(u32 offset, u32 newSize, bool copyData, u32* allocatedSize,
                                  bool keepIfLarger) {
  if (Error::setIf(readonly(), Errors::READ_ONLY)) return INVALID_RECORD;
  if ((_mode & modeUnsafe) && refuseUnsafe("resizeRecord")) return INVALID_RECORD;
  if (newSize > MAX_RECORD_LENGTH) {
    HK_LOG(hiveLog, 4) << "Invalid record size requested: " << newSize;
    return INVALID_RECORD;
  }
  const u32 length = newSize == 0 ? 0 : roundRecordSize(newSize);
  if (allocatedSize) *allocatedSize = length;
  u32 hbin = INVALID_HBIN;
  const hive_record* record = cacheLoadRecord(offset, &hbin, false);
  if (!record) return INVALID_RECORD;
  const u32 recordSize = record->length();
  if (recordSize == length || (recordSize > length && keepIfLarger && length != 0)) return offset;

  const u32 freeBehind = freeSpaceBehind(hbin, record, offset, false);
  HK_ASSERT(hiveLog, (u64{recordSize} + freeBehind) % hive_hbin::RECORD_ALIGNMENT == 0, INVALID_RECORD);
  const u32 inHbin = offset - _hbins[hbin].offset;
  const u32 total = recordSize + freeBehind;
  // Writes a cell's size field at `at` in the hbin.
  auto writeSize = [&](u32 at, u32 size, const char* failure) {
    u8 field[4];
    W32(field, size);
    if (writeHBIN(hbin, at, field, 4)) return true;
    HK_LOG(hiveLog, 4) << "Failed to write " << failure << ", record=" << offset;
    return false;
  };

  // A new size of 0 frees the record, merged with the free space behind it.
  if (length == 0) {
    if (!writeSize(inHbin, total, "free record while freeing")) return INVALID_RECORD;
    updateFreeSpace(hbin);
    return offset;
  }

  if (total >= length) {
    if (!writeSize(inHbin, static_cast<u32>(-static_cast<s32>(length)), "record while resizing") ||
        (total > length && !writeSize(inHbin + length, total - length, "free record while resizing")))
      return INVALID_RECORD;
    updateFreeSpace(hbin);
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
  updateFreeSpace(hbin);
  return moved;
}

bool RegistryHiveObj::writeRecord(u32 offset, const void* data, u32 position, u32 length) {
  if (Error::setIf(readonly(), Errors::READ_ONLY)) return false;
  if ((_mode & modeUnsafe) && refuseUnsafe("writeRecord")) return false;
  if (length == 0) return true;
  if (position < 4) {
    HK_LOG(hiveLog, 4) << "Attempt to write into the size field of record: " << offset
                       << " position: " << position;
    Error::set(Errors::WRITE_IN_SIZE_FIELD);
    return false;
  }
  u32 hbin = INVALID_HBIN;
  const hive_record* record = cacheLoadRecord(offset, &hbin, false);
  if (!record) return false;
  const u32 recordsize = record->length();
  HK_ASSERT(hiveLog, record->size() < 0, false);
  HK_ASSERT(hiveLog, hbin < _hbins.size(), false);
  const u32 offsetOfRecord = offset;
  HK_ASSERT_AS(hiveLog,
               "offsetOfRecord > _hbins[hbin].offset && offsetOfRecord + recordsize <= _hbins[hbin].offset + "
               "_hbins[hbin].size",
               offsetOfRecord > _hbins[hbin].offset &&
                   u64{offsetOfRecord} + recordsize <= u64{_hbins[hbin].offset} + _hbins[hbin].size,
               false);
  HK_ASSERT(hiveLog, u64{position} + length <= recordsize, false);
  return writeHBIN(hbin, offsetOfRecord - _hbins[hbin].offset + position, data, length);
}

bool RegistryHiveObj::writeHBIN(u32 hbin_idx, u32 offsetInHbin, const void* data, u32 length) {
  if (Error::setIf(readonly(), Errors::READ_ONLY)) return false;
  if ((_mode & modeUnsafe) && refuseUnsafe("writeHBIN")) return false;
  HK_ASSERT(hiveLog, hbin_idx < _hbins.size(), false);
  HK_ASSERT(hiveLog, _binsMem, false);
  const HbinEntry& entry = _hbins[hbin_idx];
  if (u64{offsetInHbin} + length > entry.size) {
    HK_LOG(hiveLog, 4) << "Write exceeds hbin, hbin: " << entry.offset << " offset: " << offsetInHbin
                       << " length: " << length;
    return false;
  }
  if (_changeDepth && !_replaying) noteUndo(hbin_idx, offsetInHbin, length);
  noteHbinWrite(hbin_idx, offsetInHbin, length);
  std::memcpy(_binsMem->map() + entry.offset + offsetInHbin, data, length);
  if (_binsMem->spilling()) noteSpilledWrite(u64{entry.offset} + offsetInHbin, length);
  if ((_mode & modeWriteThrough) == 0) {
    _dirty[hbin_idx] = 1;
    return true;
  }

  // Write-through. A write that fails leaves the hbin to the next flush,
  // as without write-through: the change stands in memory, so the
  // operation that made it completes and the hive stays whole, and the
  // flush writes the hbin again (and reports if it cannot). Failing the
  // write here would leave callers half way through a change.
  HK_ASSERT(hiveLog, logMode() == LogMode::None, false);
  const u64 filePosition = u64{HIVE_HEADER_SIZE} + entry.offset + offsetInHbin;
  if (_stripe->seek(filePosition) != filePosition) {
    HK_LOG(hiveLog, 4) << "Failed to seek to data position: " << filePosition;
    _dirty[hbin_idx] = 1;
  } else if (_stripe->write(data, length) != length) {
    HK_LOG(hiveLog, 4) << "Failed to write data of record: " << entry.offset + offsetInHbin
                       << "; error: " << Log::hex(Error::get()) << "; left to the next flush";
    _dirty[hbin_idx] = 1;
  } else if (_sync && !_sync()) {
    HK_LOG(hiveLog, 4) << "Failed to sync data of record: " << entry.offset + offsetInHbin
                       << "; error: " << Log::hex(Error::get()) << "; left to the next flush";
    _dirty[hbin_idx] = 1;
  }
  return true;
}

}  // namespace Libraries::Files::Hive
