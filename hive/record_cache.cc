// The hbin table and the record cache.
//
// Hbins are learned lazily in file order and read whole into one block of
// memory; when the block is full, dirty hbins are flushed and the whole
// block is dropped. Two indexes keep a record lookup independent of the size
// of the hive and of the cache:
//  - _cacheSlot[hbin] finds a cached hbin without searching the cache list;
//    only the slots of cached hbins are reset when the cache is emptied.
//  - _recordStarts[hbin] answers "is this offset a record start?" with one
//    bit test, and knows which records are free. It is made by one walk of
//    the hbin the first time one of its records is validated after the hbin
//    was loaded, and it lives as long as the hbin stays cached. A write that
//    touches a size field the index knows (allocation, resizing, freeing)
//    marks the bytes it wrote; the next look re-walks from the last start
//    before them to the first start behind them that the walk lands on
//    again, usually two or three steps. Anything unusual on the way (a 0
//    size, a size off the 8-byte grid, a change at the first record) makes
//    it walk the whole hbin instead.
// The calls here run for every record touched, so they test the mode
// before calling refuseUnsafe.
#include <algorithm>
#include <cstring>

#include "hive/readonly_cache.h"
#include "hive/registry_hive.h"
#include "platform/check.h"
#include "platform/error.h"

namespace Libraries::Files::Hive {

u64 RegistryHiveObj::fileSize() {
  return _fileSize = _stripe->elementCount();
}

// ------------------------------------------------------------- hbin table

u32 RegistryHiveObj::hbinFromOffset(u32 offset) {
  if ((_mode & modeUnsafe) && refuseUnsafe("hbinFromOffset")) return INVALID_HBIN;
  const u64 wanted = u64{offset} + HIVE_HEADER_SIZE + 4;
  if ((wanted >= _fileSize && wanted >= fileSize()) || u64{offset} + 4 >= hiveLength()) return INVALID_HBIN;

  // Work on records tends to stay in one hbin for a while.
  if (_lastHbin < _hbins.size() && offset >= _hbins[_lastHbin].offset &&
      offset < u64{_hbins[_lastHbin].offset} + _hbins[_lastHbin].size)
    return _lastHbin;
  if (!_hbins.empty() && offset < u64{_hbins.back().offset} + _hbins.back().size) {
    // The first hbin that ends after the offset holds it (hbins are
    // contiguous and in file order).
    auto ele = std::upper_bound(_hbins.begin(), _hbins.end(), offset,
                                [](u32 o, const HbinEntry& e) { return o < u64{e.offset} + e.size; });
    HK_ASSERT_AS(hiveLog, "ele != _hbins.end()", ele != _hbins.end(), INVALID_HBIN);
    HK_ASSERT_AS(hiveLog, "ele->offset <= offset && ele->offset + ele->size > offset",
                 ele->offset <= offset && u64{ele->offset} + ele->size > offset, INVALID_HBIN);
    return _lastHbin = static_cast<u32>(ele - _hbins.begin());
  }

  u64 position = _hbins.empty() ? 0 : u64{_hbins.back().offset} + _hbins.back().size;
  for (;;) {
    HbinEntry entry{};
    if (position > 0xffffffffull || !readHbinHeader(static_cast<u32>(position), entry)) return INVALID_HBIN;
    if (!readonly()) scanFreeSpace(entry);
    appendHbin(entry);
    position = u64{entry.offset} + entry.size;
    if (offset < position) return static_cast<u32>(_hbins.size() - 1);
  }
}

bool RegistryHiveObj::readHbinHeader(u32 position, HbinEntry& entry) {
  u8 h[hive_hbin::SIZE];
  const u64 filePosition = u64{HIVE_HEADER_SIZE} + position;
  if (_stripe->seek(filePosition) != filePosition) {
    HK_LOG(hiveLog, 4) << "Failed to seek to last hbin position: " << filePosition;
    return false;
  }
  if (_stripe->read(h, sizeof h) != sizeof h) {
    HK_LOG(hiveLog, 4) << "Failed to read hbin header at " << position;
    return false;
  }
  if (B32(h) != hive_hbin::SIGNATURE) {
    HK_LOG(hiveLog, 4) << "Unexpected hbin signature: " << Log::hex(L32(h))
                       << " expected: " << Log::hex(L32("hbin")) << " at " << position;
    return false;
  }
  const u32 offset = L32(h + hive_hbin::OFS_OFFSET);
  if (offset != position) {
    HK_LOG(hiveLog, 4) << "Wrong offset for hbin, offset = " << offset << " does not match file offset "
                       << position;
    return false;
  }
  const u32 size = L32(h + hive_hbin::OFS_SIZE);
  if (size == 0 || size % hive_hbin::PAGE != 0) {
    HK_LOG(hiveLog, 4) << "Invalid size for hbin: " << size << " at " << position;
    return false;
  }
  if (u64{position} + size > hiveLength()) {
    HK_LOG(hiveLog, 4) << "Hbin exeeds total length, hbin: " << position << " size: " << size
                       << " total length: " << hiveLength();
    return false;
  }
  entry = HbinEntry{position, size, 0, 0};
  return true;
}

// Finds the largest free record of a new hbin (the first of equal ones),
// reading the hbin piece by piece. A damaged record ends the search with
// what was found before it.
void RegistryHiveObj::scanFreeSpace(HbinEntry& entry) {
  u8 buffer[HBIN_READ_BUFFER_SIZE];
  u64 bufferStart = 0, bufferEnd = 0;  // hbin-relative range held in buffer
  u64 pos = hive_hbin::SIZE;
  while (pos + 4 <= entry.size) {
    if (pos < bufferStart || pos + 4 > bufferEnd) {
      const u64 filePosition = u64{HIVE_HEADER_SIZE} + entry.offset + pos;
      if (_stripe->seek(filePosition) != filePosition) {
        HK_LOG(hiveLog, 4) << (bufferEnd == 0 ? "Failed to seek(1) to position [find free]: "
                                              : "Failed to seek(2) to position [find free]: ")
                           << filePosition;
        return;
      }
      const u64 want = std::min<u64>(sizeof buffer, entry.size - pos);
      if (_stripe->read(buffer, want) != want) {
        HK_LOG(hiveLog, 4) << "Failed to read hbin data at " << filePosition;
        return;
      }
      bufferStart = pos;
      bufferEnd = pos + want;
    }
    const s32 size = LS32(buffer + (pos - bufferStart));
    const u32 length = size < 0 ? static_cast<u32>(-static_cast<s64>(size)) : static_cast<u32>(size);
    if (length < 4 || length % hive_hbin::RECORD_ALIGNMENT != 0) {
      HK_LOG(hiveLog, 3) << "record with invalid size:" << size << " record offset:" << entry.offset + pos;
      return;
    }
    if (pos + length > entry.size) {
      HK_LOG(hiveLog, 3) << "Length of record exceeds hbin, record: " << entry.offset + pos;
      return;
    }
    if (size > 0 && length > entry.freeSize) {
      entry.freeSize = length;
      entry.freeOffset = static_cast<u32>(entry.offset + pos);
    }
    pos += length;
  }
}

void RegistryHiveObj::appendHbin(const HbinEntry& entry) {
  _hbins.push_back(entry);
  _cacheSlot.push_back(NOT_CACHED);
  _recordStarts.emplace_back();
  _freeIndex.push(entry.freeSize);
}

void RegistryHiveObj::dropLastHbin() {
  const u32 last = static_cast<u32>(_hbins.size() - 1);
  const u32 slot = _cacheSlot[last];
  if (slot != NOT_CACHED) {
    // Normally the last one cached; otherwise its room stays unused until
    // the cache is next emptied.
    if (_cachedHbins[slot].place + _hbins[last].size == _cacheUsed)
      _cacheUsed = static_cast<u32>(_cachedHbins[slot].place);
    _cachedHbins.erase(_cachedHbins.begin() + slot);
    for (u32 s = slot; s < _cachedHbins.size(); ++s) _cacheSlot[_cachedHbins[s].hbinIdx] = s;
  }
  _hbins.pop_back();
  _cacheSlot.pop_back();
  _recordStarts.pop_back();
  _freeIndex.pop();
  if (_lastHbin >= _hbins.size()) _lastHbin = 0;
}

// ------------------------------------------------------------ record cache

u64 RegistryHiveObj::cacheLoadHbin(u32 hbinIndex) {
  if ((_mode & modeUnsafe) && refuseUnsafe("cacheLoadHbin")) return INVALID_CACHE_OFFSET;
  if (hbinIndex >= _hbins.size()) {
    HK_LOG(hiveLog, 3) << "Invalid hbin idx: " << hbinIndex;
    return INVALID_CACHE_OFFSET;
  }
  const u32 slot = _cacheSlot[hbinIndex];
  if (slot != NOT_CACHED) {
    HK_ASSERT_AS(hiveLog, "_cachedHbins[i].hbinIdx < _hbins.size()",
                 slot < _cachedHbins.size() && _cachedHbins[slot].hbinIdx == hbinIndex, INVALID_CACHE_OFFSET);
    const u64 place = _cachedHbins[slot].place;
    HK_ASSERT_AS(hiveLog, "sizecounter <= _cacheSize", place + _hbins[hbinIndex].size <= _cacheSize,
                 INVALID_CACHE_OFFSET);
    HK_ASSERT_AS(hiveLog, "sizecounter <= _cacheUsed", place + _hbins[hbinIndex].size <= _cacheUsed,
                 INVALID_CACHE_OFFSET);
    return place;
  }
  const HbinEntry& hbin = _hbins[hbinIndex];
  const u64 place = getFreeCacheChunk(hbin.size);
  if (place == INVALID_CACHE_OFFSET || !_cache) return INVALID_CACHE_OFFSET;
  const u64 filePosition = u64{HIVE_HEADER_SIZE} + hbin.offset;
  if (_stripe->seek(filePosition) != filePosition) {
    HK_LOG(hiveLog, 4) << "Failed to seek to hbin position: " << filePosition;
    return INVALID_CACHE_OFFSET;
  }
  const u64 got = _stripe->read(_cache + place, hbin.size);
  if (got != hbin.size) {
    HK_LOG(hiveLog, 4) << "Failed to read hbin at " << hbin.offset << ", size " << hbin.size << ", got "
                       << got;
    return INVALID_CACHE_OFFSET;
  }
  _cacheSlot[hbinIndex] = static_cast<u32>(_cachedHbins.size());
  _cachedHbins.push_back(CachedHbin{hbinIndex, 0, place});
  _cacheUsed += hbin.size;
  return place;
}

u64 RegistryHiveObj::getFreeCacheChunk(u32 size) {
  if (size > _cacheSize) {
    if (!internalFlush()) {
      HK_LOG(hiveLog, 4) << "Flush failed";
      return INVALID_CACHE_OFFSET;
    }
    resetCache();
    _cache = nullptr;
    _cacheMem = nullptr;
    const u64 newSize = 2 * u64{size};
    _cacheMem = newSize <= 0xffffffffull ? ShMem::create(newSize) : nullptr;
    if (!_cacheMem) {
      HK_LOG(hiveLog, 4) << "Failed to allocate new buffer: " << newSize;
      _cacheSize = 0;
      _valid = false;
      return INVALID_CACHE_OFFSET;
    }
    _cache = _cacheMem->map();
    if (!_cache) {
      HK_LOG(hiveLog, 4) << "Failed to map buffer after reallocation";
      _cacheMem = nullptr;
      _cacheSize = 0;
      _valid = false;
      return INVALID_CACHE_OFFSET;
    }
    _cacheSize = static_cast<u32>(newSize);
    return 0;
  }
  if (u64{_cacheUsed} + size <= _cacheSize) return _cacheUsed;
  if (!internalFlush()) {
    HK_LOG(hiveLog, 4) << "Flush failed";
    return INVALID_CACHE_OFFSET;
  }
  resetCache();
  return 0;
}

void RegistryHiveObj::resetCache() {
  for (const CachedHbin& c : _cachedHbins) {
    _cacheSlot[c.hbinIdx] = NOT_CACHED;
    _recordStarts[c.hbinIdx] = RecordStarts();
  }
  _cachedHbins.clear();
  _cacheUsed = 0;
}

// ----------------------------------------------------------------- records

const hive_record* RegistryHiveObj::cacheLoadRecord(u32 offset) {
  if (offset % hive_hbin::RECORD_ALIGNMENT != 0) {
    HK_LOG(hiveLog, 4) << "Attempt to access record with invalid alignment, offset: " << offset;
    Error::set(Errors::MISALIGNED_RECORD);
    return nullptr;
  }
  if (_mode & modeUnsafe) return unsafeGetRecord(offset);
  return cacheLoadRecord(offset, nullptr, false);
}

const hive_record* RegistryHiveObj::cacheLoadRecord(u32 offset, u32* hbinIndex, bool expectUnused) {
  if ((_mode & modeUnsafe) && refuseUnsafe("internal cacheLoadRecord")) return nullptr;
  const u32 hbin = hbinFromOffset(offset);
  if (hbin == INVALID_HBIN) {
    HK_LOG(hiveLog, 3) << "No hbin holds record: " << offset;
    return nullptr;
  }
  const u64 place = cacheLoadHbin(hbin);
  if (place == INVALID_CACHE_OFFSET) return nullptr;
  const u8* hbin_ptr = _cache + place;
  const HbinEntry& entry = _hbins[hbin];
  HK_ASSERT_AS(hiveLog, "_hbins[hbin].offset == L32ToHost(hbin_ptr->offset)",
               entry.offset == L32(hbin_ptr + hive_hbin::OFS_OFFSET), nullptr);
  HK_ASSERT_AS(hiveLog, "_hbins[hbin].size == L32ToHost(hbin_ptr->size)",
               entry.size == L32(hbin_ptr + hive_hbin::OFS_SIZE), nullptr);
  HK_ASSERT_AS(hiveLog, "_hbins[hbin].offset <= offset", entry.offset <= offset, nullptr);
  HK_ASSERT_AS(hiveLog, "_hbins[hbin].offset + _hbins[hbin].size > offset",
               u64{entry.offset} + entry.size > offset, nullptr);
  const u32 inHbin = offset - entry.offset;
  if (u64{inHbin} + 4 > entry.size) {
    HK_LOG(hiveLog, 4) << "Invalid offset, no space left for size, record: " << offset;
    return nullptr;
  }
  if (!isRecordStart(hbin, hbin_ptr, offset)) {
    HK_LOG(hiveLog, 4) << "Record is not valid: " << offset;
    return nullptr;
  }
  const hive_record* record = reinterpret_cast<const hive_record*>(hbin_ptr + inHbin);
  if (!expectUnused && !record->used()) {
    HK_LOG(hiveLog, 4) << "Attempt to access an unused record, record=" << offset;
    return nullptr;
  }
  if (expectUnused && record->used()) {
    HK_LOG(hiveLog, 4) << "Attempt to access an used record (expected unused), record=" << offset;
    return nullptr;
  }
  if (u64{inHbin} + record->length() > entry.size) {
    HK_LOG(hiveLog, 4) << "Length of record exceeds hbin, record: " << offset
                       << " length: " << record->length();
    return nullptr;
  }
  if (hbinIndex) *hbinIndex = hbin;
  return record;
}

bool RegistryHiveObj::isValidRecord(const u8* hbin, u32 hbinOffset, u32 hbinSize, u32 offset) {
  HK_ASSERT_AS(hiveLog, "hbinSize > sizeof(hive_hbin)", hbinSize > hive_hbin::SIZE, false);
  HK_ASSERT_AS(hiveLog, "hbinOffset + hbinSize > offset", u64{hbinOffset} + hbinSize > offset, false);
  HK_ASSERT_AS(hiveLog, "hbinOffset <= offset", hbinOffset <= offset, false);
  const u32 target = offset - hbinOffset;
  if (target < hive_hbin::SIZE) {
    HK_LOG(hiveLog, 3) << "Record intersects with HBIN header, record ofs: " << offset;
    return false;
  }
  if (u64{target} + 4 > hbinSize) {
    HK_LOG(hiveLog, 3) << "No space left for record size, record ofs: " << offset;
    return false;
  }
  u64 pos = hive_hbin::SIZE;
  while (pos < target) {
    const s32 size = LS32(hbin + pos);
    if (size == 0) {
      HK_LOG(hiveLog, 4) << "Record with 0 size -> HBIN is invalid, hbin: " << hbinOffset;
      return false;
    }
    pos += size < 0 ? static_cast<u64>(-static_cast<s64>(size)) : static_cast<u64>(size);
  }
  return pos == target;
}

namespace {

constexpr u32 ALIGN = hive_hbin::RECORD_ALIGNMENT;

bool testBit(const std::vector<u64>& bits, u64 bit) {
  return (bits[bit / 64] >> (bit % 64)) & 1;
}

void setBit(std::vector<u64>& bits, u64 bit) {
  bits[bit / 64] |= u64{1} << (bit % 64);
}

// Bits [from, to) of the word holding `from`, which must not lie beyond it.
u64 wordMask(u64 from, u64 to) {
  const u64 low = ~u64{0} << (from % 64);
  const u64 end = to - from / 64 * 64;  // 1..64 within this word
  return end >= 64 ? low : low & ((u64{1} << end) - 1);
}

// Clears bits [from, to).
void clearBits(std::vector<u64>& bits, u64 from, u64 to) {
  while (from < to) {
    bits[from / 64] &= ~wordMask(from, std::min(to, from / 64 * 64 + 64));
    from = from / 64 * 64 + 64;
  }
}

// Any bit set in [from, to).
bool anyBit(const std::vector<u64>& bits, u64 from, u64 to) {
  while (from < to) {
    if (bits[from / 64] & wordMask(from, std::min(to, from / 64 * 64 + 64))) return true;
    from = from / 64 * 64 + 64;
  }
  return false;
}

// The highest set bit at or below `bit`, or -1.
s64 lastBitAtOrBelow(const std::vector<u64>& bits, u64 bit) {
  s64 word = static_cast<s64>(bit / 64);
  u64 mask = (bit % 64 == 63) ? ~u64{0} : ((u64{1} << (bit % 64 + 1)) - 1);
  for (; word >= 0; --word, mask = ~u64{0}) {
    const u64 w = bits[static_cast<size_t>(word)] & mask;
    if (w) return word * 64 + (63 - __builtin_clzll(w));
  }
  return -1;
}

u64 recordLength(s32 size) {
  return size < 0 ? static_cast<u64>(-static_cast<s64>(size)) : static_cast<u64>(size);
}

}  // namespace

void RegistryHiveObj::buildRecordStarts(RecordStarts& starts, const u8* hbin, u32 hbinSize) {
  const size_t words = (hbinSize / ALIGN + 63) / 64;
  starts.bits.assign(words, 0);
  starts.free.assign(words, 0);
  starts.offGrid = false;
  starts.zeroAt = hbinSize;
  starts.dirtyFrom = starts.dirtyTo = 0;
  u64 pos = hive_hbin::SIZE;
  while (pos + 4 <= hbinSize) {
    const s32 size = LS32(hbin + pos);
    if (pos % ALIGN == 0) {
      setBit(starts.bits, pos / ALIGN);
      if (size > 0) setBit(starts.free, pos / ALIGN);
    } else {
      starts.offGrid = true;
    }
    if (size == 0) {
      starts.zeroAt = static_cast<u32>(pos);
      break;
    }
    pos += recordLength(size);
  }
  // A last record whose length is off the grid too: the free-space count
  // must then take the reference walk, which refuses such an hbin.
  if (starts.zeroAt == hbinSize && pos % ALIGN != 0) starts.offGrid = true;
  starts.built = true;
}

bool RegistryHiveObj::repairRecordStarts(RecordStarts& starts, const u8* hbin, u32 hbinSize) {
  const u32 from = starts.dirtyFrom, to = starts.dirtyTo;
  starts.dirtyFrom = starts.dirtyTo = 0;
  if (starts.offGrid || from < hive_hbin::SIZE + 4) return false;
  // The last start whose size field lies wholly before the written bytes:
  // the walk up to it and its own step are as they were.
  const s64 first = lastBitAtOrBelow(starts.bits, (from - 4) / ALIGN);
  if (first < 0) return false;
  const u64 begin = static_cast<u64>(first) * ALIGN;
  if (begin >= starts.zeroAt) return true;  // the walk ends before the change
  // Walk on until a start at or behind the written bytes that the old walk
  // also landed on: from there both walks are the same. A long way there
  // is left to the full walk.
  constexpr size_t MAX_LANDINGS = 32;
  u64 landings[MAX_LANDINGS];
  size_t count = 0;
  u64 pos = begin;
  u64 end = hbinSize;  // the first position whose bits stay as they are
  bool reachedEnd = true;
  for (;;) {
    const s32 size = LS32(hbin + pos);
    if (size == 0) return false;
    const u64 next = pos + recordLength(size);
    if (next % ALIGN != 0) return false;
    if (next + 4 > hbinSize) break;
    if (next >= to && next <= starts.zeroAt && testBit(starts.bits, next / ALIGN)) {
      end = next;
      reachedEnd = false;
      break;
    }
    if (count == MAX_LANDINGS) return false;
    landings[count++] = next;
    pos = next;
  }
  const u64 firstBit = begin / ALIGN + 1;
  const u64 endBit = std::min<u64>((end + ALIGN - 1) / ALIGN, u64{starts.bits.size()} * 64);
  clearBits(starts.bits, firstBit, endBit);
  clearBits(starts.free, firstBit, endBit);
  for (size_t i = 0; i < count; ++i) {
    const u64 landing = landings[i];
    setBit(starts.bits, landing / ALIGN);
    if (LS32(hbin + landing) > 0) setBit(starts.free, landing / ALIGN);
  }
  if (reachedEnd) starts.zeroAt = hbinSize;
  return true;
}

RegistryHiveObj::RecordStarts& RegistryHiveObj::recordStarts(u32 hbinIdx, const u8* hbin) {
  RecordStarts& starts = _recordStarts[hbinIdx];
  const u32 size = _hbins[hbinIdx].size;
  if (!starts.built) {
    buildRecordStarts(starts, hbin, size);
  } else if (starts.dirtyFrom < starts.dirtyTo && !repairRecordStarts(starts, hbin, size)) {
    buildRecordStarts(starts, hbin, size);
  }
  return starts;
}

// Gives exactly the answer (and the messages) of isValidRecord: the walk
// for an offset stops at the first 0 size before it, else it lands on the
// offset or passes over it.
bool RegistryHiveObj::isRecordStart(u32 hbinIdx, const u8* hbin, u32 offset) {
  const HbinEntry& entry = _hbins[hbinIdx];
  const u32 target = offset - entry.offset;
  if (target % hive_hbin::RECORD_ALIGNMENT != 0 || entry.size <= hive_hbin::SIZE ||
      target < hive_hbin::SIZE || u64{target} + 4 > entry.size)
    return isValidRecord(hbin, entry.offset, entry.size, offset);
  const RecordStarts& starts = recordStarts(hbinIdx, hbin);
  if (target > starts.zeroAt) {
    HK_LOG(hiveLog, 4) << "Record with 0 size -> HBIN is invalid, hbin: " << entry.offset;
    return false;
  }
  return testBit(starts.bits, target / ALIGN);
}

void RegistryHiveObj::noteHbinWrite(u32 hbinIdx, u32 offsetInHbin, u32 length) {
  RecordStarts& starts = _recordStarts[hbinIdx];
  if (!starts.built || length == 0) return;
  if (starts.offGrid) {
    starts = RecordStarts();
    return;
  }
  const u32 end = static_cast<u32>(std::min<u64>(u64{offsetInHbin} + length, 0xffffffffu));
  if (starts.dirtyFrom < starts.dirtyTo) {
    // Stale bits cannot tell what this write touches: widen the range.
    starts.dirtyFrom = std::min(starts.dirtyFrom, offsetInHbin);
    starts.dirtyTo = std::max(starts.dirtyTo, end);
    return;
  }
  // A size field at p is touched when p < end && p + 4 > offsetInHbin.
  bool touched = starts.zeroAt < end && u64{starts.zeroAt} + 4 > offsetInHbin;
  const u64 first = offsetInHbin < 3 ? 0 : (offsetInHbin - 3 + ALIGN - 1) / ALIGN;
  const u64 limit = std::min<u64>((u64{end} + ALIGN - 1) / ALIGN, u64{starts.bits.size()} * 64);
  if (!touched && first < limit) touched = anyBit(starts.bits, first, limit);
  if (touched) {
    starts.dirtyFrom = offsetInHbin;
    starts.dirtyTo = end;
  }
}

const hive_record* RegistryHiveObj::unsafeGetRecord(u32 offset) {
  HK_ASSERT_AS(hiveLog, "_mode & modeUnsafe", _mode & modeUnsafe, nullptr);
  HK_ASSERT_AS(hiveLog, "_unsafeCache != 0", _unsafeCache, nullptr);
  const u64 position = u64{HIVE_HEADER_SIZE} + offset;
  const u8* sizeField = _unsafeCache->at(position, 4);
  const hive_record* record = reinterpret_cast<const hive_record*>(sizeField);
  if (!record || record->length() < 4 || !_unsafeCache->at(position, record->length())) {
    HK_LOG(hiveLog, 4) << "Failed to get record in unsafe mode, record=" << offset;
    return nullptr;
  }
  if (!record->used()) {
    HK_LOG(hiveLog, 4) << "Attempt to access an unused record in unsafe mode, record=" << offset;
    return nullptr;
  }
  return record;
}

}  // namespace Libraries::Files::Hive
