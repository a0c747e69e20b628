// The record store's loading, table, record access, writes and change
// journal; the record-start index is in record_starts.cc. The calls here
// run for every record touched, so they test the mode before calling
// refuseUnsafe.
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
