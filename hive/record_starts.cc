// The record store's record-start index. _startBits answers "is this
// offset a record start?" with one bit test, and _freeBits knows which
// records are free. An hbin's bits are made by one walk of the hbin the
// first time one of its records is validated, and kept. A write that
// touches a size field the bits know (allocation, resizing, freeing) marks
// the bytes it wrote; the next look re-walks from the last start before
// them to the first start behind them that the walk lands on again,
// usually two or three steps. Anything unusual on the way (a 0 size, a size
// off the 8-byte grid, a change at the first record) makes it walk the
// whole hbin instead.
#include <algorithm>

#include "hive/record_store.h"
#include "platform/check.h"

namespace Libraries::Files::Hive {

namespace {

constexpr u32 ALIGN = hive_hbin::RECORD_ALIGNMENT;
// Bits of _startBits per page, and words: an hbin's bits start at word
// offset / WORD_BYTES.
constexpr u32 WORD_BYTES = 64 * ALIGN;

}  // namespace

bool RecordStore::isValidRecord(const u8* hbin, u32 hbinOffset, u32 hbinSize, u32 offset) {
  HK_ASSERT(hiveLog, hbinSize > hive_hbin::SIZE, false);
  HK_ASSERT(hiveLog, u64{hbinOffset} + hbinSize > offset, false);
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

bool testBit(const u64* bits, u64 bit) {
  return (bits[bit / 64] >> (bit % 64)) & 1;
}

void setBit(u64* bits, u64 bit) {
  bits[bit / 64] |= u64{1} << (bit % 64);
}

// Bits [from, to) of the word holding `from`, which must not lie beyond it.
u64 wordMask(u64 from, u64 to) {
  const u64 low = ~u64{0} << (from % 64);
  const u64 end = to - from / 64 * 64;  // 1..64 within this word
  return end >= 64 ? low : low & ((u64{1} << end) - 1);
}

// Clears bits [from, to).
void clearBits(u64* bits, u64 from, u64 to) {
  while (from < to) {
    bits[from / 64] &= ~wordMask(from, std::min(to, from / 64 * 64 + 64));
    from = from / 64 * 64 + 64;
  }
}

// Any bit set in [from, to).
bool anyBit(const u64* bits, u64 from, u64 to) {
  while (from < to) {
    if (bits[from / 64] & wordMask(from, std::min(to, from / 64 * 64 + 64))) return true;
    from = from / 64 * 64 + 64;
  }
  return false;
}

// The highest set bit at or below `bit`, or -1.
s64 lastBitAtOrBelow(const u64* bits, u64 bit) {
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

RecordStore::Bits RecordStore::startBits(u32 hbinIdx) {
  const HbinEntry& e = _hbins[hbinIdx];
  return Bits{_startBits.data() + e.offset / WORD_BYTES, e.size / WORD_BYTES};
}

RecordStore::Bits RecordStore::freeBits(u32 hbinIdx) {
  const HbinEntry& e = _hbins[hbinIdx];
  if (_freeBits.empty()) return Bits{nullptr, 0};
  return Bits{_freeBits.data() + e.offset / WORD_BYTES, e.size / WORD_BYTES};
}

void RecordStore::buildRecordStarts(u32 hbinIdx) {
  RecordStarts& starts = _recordStarts[hbinIdx];
  const u8* hbin = hbinData(hbinIdx);
  const u32 hbinSize = _hbins[hbinIdx].size;
  const Bits bits = startBits(hbinIdx), free = freeBits(hbinIdx);
  std::fill(bits.words, bits.words + bits.count, 0);
  if (free.words) std::fill(free.words, free.words + free.count, 0);
  starts.offGrid = false;
  starts.zeroAt = hbinSize;
  starts.dirtyFrom = starts.dirtyTo = 0;
  u64 pos = hive_hbin::SIZE;
  // Each step waits for the size field the last one found: loads started
  // ahead of the walk overlap its cache misses.
  constexpr u32 AHEAD = 512;
  for (u32 at = 64; at < AHEAD && at < hbinSize; at += 64) __builtin_prefetch(hbin + at);
  while (pos + 4 <= hbinSize) {
    if (pos + AHEAD < hbinSize) __builtin_prefetch(hbin + pos + AHEAD);
    const s32 size = LS32(hbin + pos);
    if (pos % ALIGN == 0) {
      setBit(bits.words, pos / ALIGN);
      if (size > 0 && free.words) setBit(free.words, pos / ALIGN);
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
}

bool RecordStore::repairRecordStarts(u32 hbinIdx) {
  RecordStarts& starts = _recordStarts[hbinIdx];
  const u8* hbin = hbinData(hbinIdx);
  const u32 hbinSize = _hbins[hbinIdx].size;
  const Bits bits = startBits(hbinIdx), free = freeBits(hbinIdx);
  const u32 from = starts.dirtyFrom, to = starts.dirtyTo;
  starts.dirtyFrom = starts.dirtyTo = 0;
  if (starts.offGrid || from < hive_hbin::SIZE + 4) return false;
  // The last start whose size field lies wholly before the written bytes:
  // the walk up to it and its own step are as they were.
  const s64 first = lastBitAtOrBelow(bits.words, (from - 4) / ALIGN);
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
    if (next >= to && next <= starts.zeroAt && testBit(bits.words, next / ALIGN)) {
      end = next;
      reachedEnd = false;
      break;
    }
    if (count == MAX_LANDINGS) return false;
    landings[count++] = next;
    pos = next;
  }
  const u64 firstBit = begin / ALIGN + 1;
  const u64 endBit = std::min<u64>((end + ALIGN - 1) / ALIGN, u64{bits.count} * 64);
  clearBits(bits.words, firstBit, endBit);
  if (free.words) clearBits(free.words, firstBit, endBit);
  for (size_t i = 0; i < count; ++i) {
    const u64 landing = landings[i];
    setBit(bits.words, landing / ALIGN);
    if (free.words && LS32(hbin + landing) > 0) setBit(free.words, landing / ALIGN);
  }
  if (reachedEnd) starts.zeroAt = hbinSize;
  return true;
}

bool RecordStore::recordStartsReady(u32 hbinIdx) {
  RecordStarts& starts = _recordStarts[hbinIdx];
  u8 state = starts.state.load(std::memory_order_acquire);
  if (state == RecordStarts::BUILT) {
    // Only a writable hive marks written ranges, under the monitor.
    if (starts.dirtyFrom < starts.dirtyTo && !repairRecordStarts(hbinIdx)) buildRecordStarts(hbinIdx);
    return true;
  }
  if (state == RecordStarts::BUILDING ||
      !starts.state.compare_exchange_strong(state, RecordStarts::BUILDING, std::memory_order_acquire))
    return state == RecordStarts::BUILT;
  buildRecordStarts(hbinIdx);
  starts.state.store(RecordStarts::BUILT, std::memory_order_release);
  return true;
}

// Gives exactly the answer (and the messages) of isValidRecord: the walk
// for an offset stops at the first 0 size before it, else it lands on the
// offset or passes over it.
bool RecordStore::isRecordStart(u32 hbinIdx, const u8* hbin, u32 offset) {
  const HbinEntry& entry = _hbins[hbinIdx];
  const u32 target = offset - entry.offset;
  if (target % ALIGN != 0 || entry.size <= hive_hbin::SIZE || target < hive_hbin::SIZE ||
      u64{target} + 4 > entry.size || !recordStartsReady(hbinIdx))
    return isValidRecord(hbin, entry.offset, entry.size, offset);
  if (target > _recordStarts[hbinIdx].zeroAt) {
    HK_LOG(hiveLog, 4) << "Record with 0 size -> HBIN is invalid, hbin: " << entry.offset;
    return false;
  }
  return testBit(startBits(hbinIdx).words, target / ALIGN);
}

void RecordStore::noteHbinWrite(u32 hbinIdx, u32 offsetInHbin, u32 length) {
  RecordStarts& starts = _recordStarts[hbinIdx];
  if (starts.state.load(std::memory_order_relaxed) != RecordStarts::BUILT || length == 0) return;
  if (starts.offGrid) {
    starts.state.store(RecordStarts::UNBUILT, std::memory_order_relaxed);
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
  const Bits bits = startBits(hbinIdx);
  bool touched = starts.zeroAt < end && u64{starts.zeroAt} + 4 > offsetInHbin;
  const u64 first = offsetInHbin < 3 ? 0 : (offsetInHbin - 3 + ALIGN - 1) / ALIGN;
  const u64 limit = std::min<u64>((u64{end} + ALIGN - 1) / ALIGN, u64{bits.count} * 64);
  if (!touched && first < limit) touched = anyBit(bits.words, first, limit);
  if (touched) {
    starts.dirtyFrom = offsetInHbin;
    starts.dirtyTo = end;
  }
}

bool RecordStore::updateFreeSpace(u32 hbin_idx) {
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
      const u32 length = static_cast<u32>(recordLength(recordSize));
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

}  // namespace Libraries::Files::Hive
