// The area is loaded whole at open (load) and the table built in
// the same pass, so finding a record's hbin is one look into _pageHbin
// whatever the size of the hive, and no record access reads the file.
// _startBits answers "is this offset a record start?" with one bit test,
// and (_freeBits) knows which records are free. An hbin's bits are made by
// one walk of the hbin the first time one of its records is validated, and
// kept. A write that touches a size field the bits know (allocation,
// resizing, freeing) marks the bytes it wrote; the next look re-walks from
// the last start before them to the first start behind them that the walk
// lands on again, usually two or three steps. Anything unusual on the way
// (a 0 size, a size off the 8-byte grid, a change at the first record)
// makes it walk the whole hbin instead.
// The calls here run for every record touched, so they test the mode
// before calling refuseUnsafe.
#include "hive/record_store.h"

#include <algorithm>
#include <cstring>

#include "platform/check.h"
#include "platform/error.h"

namespace Libraries::Files::Hive {

namespace {

constexpr u32 ALIGN = hive_hbin::RECORD_ALIGNMENT;
constexpr u32 PAGE = hive_hbin::PAGE;
// Bits of _startBits per page, and words: an hbin's bits start at word
// offset / WORD_BYTES.
constexpr u32 WORD_BYTES = 64 * ALIGN;

}  // namespace

u64 RecordStore::fileSize() {
  return _fileSize = _stripe->elementCount();
}

bool RecordStore::refuseUnsafe(const char* function) const {
  if ((_mode & modeUnsafe) == 0) return false;
  HK_LOG(hiveLog, 4) << "Call of " << function << " in unsafe mode";
  return true;
}

bool RecordStore::openUnsafe() {
  _unsafeCache = makeRef<ReadOnlyCache>(_stripe);
  return _unsafeCache->valid();
}

// ------------------------------------------------------------ loading

bool RecordStore::load(bool fileAsIs) {
  const u32 length = hiveLength();
  // A read-only hive read as its file holds it is shown from the file's own
  // pages; a log laid over the file, or changes to come, need a copy.
  if (readonly() && fileAsIs && length > 0) _binsView = _stripe->view(HIVE_HEADER_SIZE, length);
  if (_binsView)
    _bins = _binsView->data();
  else if (!readBins(length))
    return false;
  // Reading a page of a file mapping maps its neighbours too: the walk over
  // the hbin headers maps nearly all of a spilling block unless it gives
  // back what it has passed as it goes.
  u64 kept = 0;
  for (u64 position = 0; position < length;) {
    HbinEntry entry{};
    if (!checkHbinHeader(static_cast<u32>(position), entry)) break;
    if (!readonly()) scanFreeSpace(entry);
    appendHbin(entry);
    position += entry.size;
    if (_binsMem && position - kept >= LogEngine::RELEASE_PIECE) {
      _binsMem->giveBack(_binsMem->map() + kept, position - kept);
      kept = position;
    }
  }
  if (_binsMem) _binsMem->giveBack(_binsMem->map() + kept, length - kept);
  return true;
}

bool RecordStore::readBins(u32 length) {
  _binsMem = length >= SPILL_BINS ? ShMem::createSpilling(length) : ShMem::create(length);
  if (!_binsMem) {
    HK_LOG(hiveLog, 4) << "Failed to allocate memory for the hive bins, size: " << length;
    return false;
  }
  // In pieces, each given back once read when the block spills.
  u64 got = 0;
  for (u64 n = 0; got < length; got += n) {
    const u64 want = std::min<u64>(length - got, LogEngine::RELEASE_PIECE);
    n = _stripe->readAt(HIVE_HEADER_SIZE + got, _binsMem->map() + got, want);
    _binsMem->giveBack(_binsMem->map() + got, n);
    if (n != want) {
      got += n;
      break;
    }
  }
  if (got != length) {
    HK_LOG(hiveLog, 4) << "Failed to read the hive bins, size: " << length << ", got: " << got
                       << "; error: " << Log::hex(Error::get());
    return false;
  }
  _bins = _binsMem->map();
  return true;
}

bool RecordStore::checkHbinHeader(u32 position, HbinEntry& entry) {
  if (u64{position} + hive_hbin::SIZE > hiveLength()) {
    HK_LOG(hiveLog, 4) << "Failed to read hbin header at " << position;
    return false;
  }
  const u8* h = _bins + position;
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
  if (size == 0 || size % PAGE != 0) {
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

// Finds the largest free record of an hbin (the first of equal ones). A
// damaged record ends the search with what was found before it.
void RecordStore::scanFreeSpace(HbinEntry& entry) {
  const u8* hbin = _bins + entry.offset;
  for (u64 pos = hive_hbin::SIZE; pos + 4 <= entry.size;) {
    const s32 size = LS32(hbin + pos);
    const u32 length = size < 0 ? static_cast<u32>(-static_cast<s64>(size)) : static_cast<u32>(size);
    if (length < 4 || length % ALIGN != 0) {
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

bool RecordStore::reserveBins(u64 length) {
  if (!_binsMem) return false;
  if (length > _binsMem->size()) {
    // Room for more than this hbin: growth comes in runs (an import), and
    // untouched pages cost nothing.
    const u64 room = std::max(length, std::min<u64>(2 * _binsMem->size(), length + (64u << 20)));
    if (room >= SPILL_BINS && !_binsMem->spilling()) spillBins(room);
    if (!_binsMem->resize(room) && !_binsMem->resize(length)) {
      HK_LOG(hiveLog, 4) << "Failed to grow the hive bins in memory to " << length
                         << " bytes; error: " << Log::hex(Error::get());
      return false;
    }
  }
  _bins = _binsMem->map();
  return true;
}

void RecordStore::spillBins(u64 room) {
  Ref<ShMem> spilling = ShMem::createSpilling(room);
  if (!spilling || !spilling->spilling()) return;  // stays in memory
  std::memcpy(spilling->map(), _binsMem->map(), std::min(room, _binsMem->size()));
  spilling->giveBack(spilling->map(), room);
  _binsMem = spilling;
  _bins = _binsMem->map();
  _spillFrom = _spillTo = _spillWritten = 0;
}

void RecordStore::noteSpilledWrite(u64 offset, u64 length) {
  if (_spillWritten == 0 || offset < _spillFrom) _spillFrom = offset;
  if (_spillWritten == 0 || offset + length > _spillTo) _spillTo = offset + length;
  // A write costs at least the page it lands on: many small ones spread
  // over a growing hive (an hbin header each) hold as many pages as they
  // touch.
  _spillWritten += std::max<u64>(length, PAGE);
  if (_spillWritten < SPILL_WRITTEN) return;
  _binsMem->giveBack(_binsMem->map() + _spillFrom, _spillTo - _spillFrom);
  _spillWritten = 0;
}

void RecordStore::appendHbin(const HbinEntry& entry) {
  const u32 index = static_cast<u32>(_hbins.size());
  _hbins.push_back(entry);
  _dirty.push_back(0);
  _recordStarts.emplace_back(entry.offset, entry.size);
  _pageHbin.insert(_pageHbin.end(), entry.size / PAGE, index);
  const size_t words = (u64{entry.offset} + entry.size) / WORD_BYTES;
  _startBits.resize(words);
  if (!readonly()) _freeBits.resize(words);
  _freeIndex.push(entry.freeSize);
}

void RecordStore::dropLastHbin() {
  const HbinEntry last = _hbins.back();
  _hbins.pop_back();
  _dirty.pop_back();
  _recordStarts.pop_back();
  _pageHbin.resize(last.offset / PAGE);
  _startBits.resize(last.offset / WORD_BYTES);
  if (!readonly()) _freeBits.resize(last.offset / WORD_BYTES);
  _freeIndex.pop();
}

// ------------------------------------------------------------ hbin table

u32 RecordStore::hbinFromOffset(u32 offset) {
  if ((_mode & modeUnsafe) && refuseUnsafe("hbinFromOffset")) return INVALID_HBIN;
  if (u64{offset} + 4 >= hiveLength()) return INVALID_HBIN;
  const u32 page = offset / PAGE;
  if (page < _pageHbin.size()) return _pageHbin[page];
  // Beyond the hbins the table holds: the header there failed its checks
  // at open. Say why again.
  HbinEntry entry;
  checkHbinHeader(static_cast<u32>(_pageHbin.size() * PAGE), entry);
  return INVALID_HBIN;
}

// ----------------------------------------------------------------- records

const hive_record* RecordStore::loadRecordChecked(u32 offset) {
  if (offset % ALIGN != 0) {
    HK_LOG(hiveLog, 4) << "Attempt to access record with invalid alignment, offset: " << offset;
    Error::set(Errors::MISALIGNED_RECORD);
    return nullptr;
  }
  if (_mode & modeUnsafe) return unsafeGetRecord(offset);
  return cacheLoadRecord(offset, nullptr, false);
}

const hive_record* RecordStore::cacheLoadRecord(u32 offset, u32* hbinIndex, bool expectUnused) {
  if ((_mode & modeUnsafe) && refuseUnsafe("internal cacheLoadRecord")) return nullptr;
  const u32 hbin = hbinFromOffset(offset);
  if (hbin == INVALID_HBIN) {
    HK_LOG(hiveLog, 3) << "No hbin holds record: " << offset;
    return nullptr;
  }
  // The hbin's header was checked when the table was built, and nothing
  // writes it since (growth writes only new hbins' headers).
  const u8* hbin_ptr = hbinData(hbin);
  const HbinEntry& entry = _hbins[hbin];
  HK_ASSERT(hiveLog, entry.offset <= offset, nullptr);
  HK_ASSERT(hiveLog, u64{entry.offset} + entry.size > offset, nullptr);
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

const u8* RecordStore::binsBytes(u32 offset, u32 length) const {
  if (u64{offset} + length > hiveLength()) return nullptr;
  if (_mode & modeUnsafe)
    return _unsafeCache ? _unsafeCache->at(u64{HIVE_HEADER_SIZE} + offset, length) : nullptr;
  return _bins ? _bins + offset : nullptr;
}

u32 RecordStore::binsAvailable() const {
  if (!(_mode & modeUnsafe)) return _bins ? hiveLength() : 0;
  if (!_unsafeCache || _unsafeCache->size() <= HIVE_HEADER_SIZE) return 0;
  return static_cast<u32>(std::min<u64>(hiveLength(), _unsafeCache->size() - HIVE_HEADER_SIZE));
}

const hive_record* RecordStore::unsafeGetRecord(u32 offset) {
  HK_ASSERT_AS(hiveLog, "_mode & modeUnsafe", _mode & modeUnsafe, nullptr);
  HK_ASSERT(hiveLog, _unsafeCache, nullptr);
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

// ------------------------------------------------------------ free space

void RecordStore::setFreeSize(u32 hbinIdx, u32 freeSize, u32 freeOffset) {
  _hbins[hbinIdx].freeSize = freeSize;
  _hbins[hbinIdx].freeOffset = freeOffset;
  _freeIndex.set(hbinIdx, freeSize);
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

// ------------------------------------------------------------ writes

bool RecordStore::writeHBIN(u32 hbin_idx, u32 offsetInHbin, const void* data, u32 length) {
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
  if ((_mode & modeWriteThrough) == 0)
    _dirty[hbin_idx] = 1;
  else
    writeThrough(hbin_idx, offsetInHbin, data, length);
  return true;
}

// A write that fails leaves the hbin to the next flush, as without
// write-through: the change stands in memory, so the operation that made it
// completes and the hive stays whole, and the flush writes the hbin again
// (and reports if it cannot). Failing the write here would leave callers
// half way through a change. (The hive never combines write-through with a
// log mode.)

void RecordStore::writeThrough(u32 hbin_idx, u32 offsetInHbin, const void* data, u32 length) {
  const HbinEntry& entry = _hbins[hbin_idx];
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
}

void RecordStore::setHiveLength(u32 length) {
  W32(_header + hive_header::OFS_LENGTH, length);
  W32(_header + hive_header::OFS_CHECKSUM, calculateHeaderChecksum(_header));
  // Write-through: a base block that cannot be written now is written by
  // the next flush, which compares it with the file's.
  if ((_mode & modeWriteThrough) && !writeHeader())
    HK_LOG(hiveLog, 4) << "Failed to write header on resize; left to the next flush";
}

bool RecordStore::writeHeader() {
  W32(_header + hive_header::OFS_CHECKSUM, calculateHeaderChecksum(_header));
  if (_stripe->seek(0) != 0) return false;
  if (_stripe->write(_header, hive_header::SIZE) != hive_header::SIZE) return false;
  std::memcpy(_diskHeader, _header, hive_header::SIZE);
  return true;
}

bool RecordStore::growFile(u64 fileEnd) {
  if (fileSize() < fileEnd && _stripe->setElementCount(fileEnd) != fileEnd) {
    HK_LOG(hiveLog, 4) << "Failed to resize hive file to " << fileEnd
                       << "; error: " << Log::hex(Error::get());
    _fileSize = _stripe->elementCount();
    return false;
  }
  _fileSize = std::max(_fileSize, fileEnd);
  return true;
}

// ------------------------------------------------------------ flush

std::vector<u32> RecordStore::dirtyHbins() const {
  std::vector<u32> dirty;
  for (u32 i = 0; i < _dirty.size(); ++i)
    if (_dirty[i]) dirty.push_back(i);
  return dirty;
}

void RecordStore::clearDirty(const std::vector<u32>& hbinIndices) {
  for (u32 i : hbinIndices) _dirty[i] = 0;
}

std::vector<RecordStore::LogPage> RecordStore::dirtyRuns(const std::vector<u32>& hbinIndices) const {
  std::vector<LogPage> runs;
  for (u32 index : hbinIndices) {
    const HbinEntry& hbin = _hbins[index];
    if (!runs.empty() && u64{runs.back().offset} + runs.back().length == hbin.offset &&
        u64{runs.back().length} + hbin.size <= 0x40000000u)
      runs.back().length += hbin.size;
    else
      runs.push_back(LogPage{hbin.offset, hbin.size, hbinData(index)});
  }
  return runs;
}

void RecordStore::giveBack(const u8* data, u64 length) {
  if (_binsMem) _binsMem->giveBack(data, length);
}

// ------------------------------------------------------------ changes taken back

// The old bytes of each write made since beginChange() are kept, and
// endChange(false) writes them back in reverse order, so that every
// intermediate state a change passed through is undone, then drops the
// hbins the change appended.
void RecordStore::beginChange() {
  if (_changeDepth++ > 0 || readonly()) return;
  _undo.clear();
  _changeHbins = static_cast<u32>(_hbins.size());
  _changeFileSize = _fileSize;
  std::memcpy(_changeHeader, _header, hive_header::SIZE);
}

void RecordStore::noteUndo(u32 hbinIdx, u32 offsetInHbin, u32 length) {
  // An hbin the change appended goes as a whole.
  if (hbinIdx >= _changeHbins) return;
  const u8* at = hbinData(hbinIdx) + offsetInHbin;
  _undo.push_back(Undo{hbinIdx, offsetInHbin, _dirty[hbinIdx], std::vector<u8>(at, at + length)});
}

void RecordStore::endChange(bool keep) {
  if (_changeDepth == 0 || --_changeDepth > 0 || readonly()) return;
  if (keep) {
    _undo.clear();
    return;
  }
  // Put back what the store would have handed out before the change; the
  // error the change failed with stays the one reported.
  const u32 error = Error::get();
  _replaying = true;
  std::vector<u32> touched;
  for (auto it = _undo.rbegin(); it != _undo.rend(); ++it) {
    writeHBIN(it->hbin, it->offsetInHbin, it->bytes.data(), static_cast<u32>(it->bytes.size()));
    if ((_mode & modeWriteThrough) == 0) _dirty[it->hbin] = it->wasDirty;
    touched.push_back(it->hbin);
  }
  _replaying = false;
  _undo.clear();
  while (_hbins.size() > _changeHbins) dropLastHbin();
  for (u32 hbin : touched) updateFreeSpace(hbin);
  std::memcpy(_header, _changeHeader, hive_header::SIZE);
  if ((_mode & modeWriteThrough) && std::memcmp(_header, _diskHeader, hive_header::SIZE) != 0 &&
      !writeHeader())
    HK_LOG(hiveLog, 4) << "Failed to write header back after a failed change; left to the next flush";
  // A file grown for the change is cut back (in a log mode the growth was
  // never the file's).
  if (_fileSize > _changeFileSize && _stripe->setElementCount(_changeFileSize) == _changeFileSize)
    _fileSize = _changeFileSize;
  Error::set(error);
}

}  // namespace Libraries::Files::Hive
