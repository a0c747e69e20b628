// RecordStore: the hive bins area of one open hive, in memory, and every
// access to its records.
//
//  - The whole hive bins area is loaded once, at open, after any log was
//    laid over the file: a read-only hive whose file is read as it is gets
//    a view of the file's pages (nothing copied); any other hive one read
//    into a buffer, which grows when an hbin is appended. Unsafe mode loads
//    nothing here: records come by position from a copy of the whole file
//    (ReadOnlyCache), without hbin checks, and writes are refused.
//  - The hbin table is built in the same pass, every hbin header checked;
//    the first header that fails its checks ends the table, and records at
//    or beyond it cannot be reached (asking for one logs why again). A map
//    from each 4 KiB page to its hbin finds a record's hbin in one step.
//    Each entry knows its hbin's largest free record, and a FirstFitIndex
//    over those answers the allocator's first-fit search.
//  - Whether an offset is a record start is answered by a bitmap of each
//    hbin, built by one walk of the hbin the first time one of its records
//    is asked for, and kept; writes that move record boundaries update it.
//  - Changes stay in memory, each changed hbin marked dirty, until the
//    hive's flush writes the dirty hbins; nothing is written behind the
//    caller's back. Write-through mode writes each change at once as well.
//    writeHBIN is the only way bytes reach an hbin.
//
// Invariants:
//  - A record pointer (cacheLoadRecord, residentRecord, binsBytes) stays
//    valid until the next growth of the area (appendHbin, reserveBins: the
//    allocator's allocateRecord or resizeRecord), which may move the
//    buffer; on a read-only hive, for the life of the store.
//  - "Resident" means what residentRecord accepts: an offset the table
//    covers, in an hbin whose record starts are built and up to date, that
//    is a used record start lying wholly in its hbin. Its answer is always
//    the full path's; it may give up (null) where the full path accepts.
//  - A read-only hive never changes after the open, so its records may be
//    read from any thread without the hive's monitor: the record-start
//    bits are published by the thread that builds them. Everything else
//    (any call on a writable hive) runs under the hive's monitor.
//  - endChange(false) puts back the hbins' bytes, the hbins appended, the
//    dirty marks, each hbin's largest free record, the base block and the
//    file's length as they were at beginChange() (in write-through mode
//    the file's bytes too).
//
// It works on the hive's base block (`header`, and `diskHeader` as the
// file holds it), its mode flags, the stripe all access to the hive file
// goes through (the file, or the mapped stripe the log engine lays over it
// during the open) and the sync callback; all belong to the hive and
// outlive the store.
#pragma once

#include <atomic>
#include <vector>

#include "hive/first_fit_index.h"
#include "hive/format/errors.h"
#include "hive/format/format.h"
#include "hive/hive_file.h"
#include "hive/log/log_engine.h"
#include "hive/readonly_cache.h"
#include "platform/file_view.h"
#include "platform/shmem.h"

namespace Libraries::Files::Hive {

class RecordStore {
 public:
  static constexpr u32 INVALID_HBIN = 0xffffffffu;
  static constexpr u32 HIVE_HEADER_SIZE = hive_header::SIZE;
  using LogPage = LogEngine::LogPage;
  using SyncCallback = HiveFile::SyncCallback;

  RecordStore(u8* header, u8* diskHeader, const u32& mode, const Ref<Interfaces::Stripe>& stripe,
              const SyncCallback& sync)
      : _header(header), _diskHeader(diskHeader), _mode(mode), _stripe(stripe), _sync(sync) {}
  RecordStore(const RecordStore&) = delete;
  RecordStore& operator=(const RecordStore&) = delete;

  // --- Open ----------------------------------------------------------------
  // Unsafe mode: reads the whole file into the copy records come from;
  // false when it could not be read.
  bool openUnsafe();
  // Loads the hive bins area and builds the hbin table (see above). False
  // when the area could not be read or held; a damaged hbin header only
  // ends the table. `fileAsIs`: the stripe reads the hive file as it is
  // (no log laid over it), so a read-only hive may show the file's pages.
  bool load(bool fileAsIs);

  // --- Records -------------------------------------------------------------
  // A used record at a multiple of 8, or null (0x2006 when misaligned).
  // The usual case is answered inline (residentRecord); anything else
  // takes the full path, which gives the same answer with its messages.
  const hive_record* cacheLoadRecord(u32 offset) {
    if (const hive_record* record = residentRecord(offset)) return record;
    return loadRecordChecked(offset);
  }
  // cacheLoadRecord's answer when every check passes on what is known
  // already; null when any check fails or needs more, nothing logged.
  const hive_record* residentRecord(u32 offset) const;
  // residentRecord's answer when it is a named record of type `Layout`
  // (nk, vk): its signature, a fixed part and the name after it inside the
  // cell; null otherwise, nothing logged.
  template <class Layout>
  const hive_record* residentNamedRecord(u32 offset) const {
    const hive_record* hr = residentRecord(offset);
    if (!hr || hr->length() < Layout::HEADER_SIZE || hr->signature() != Layout::SIGNATURE ||
        hr->u16At(Layout::OFS_NAME_LENGTH) + Layout::HEADER_SIZE > hr->length())
      return nullptr;
    return hr;
  }
  // Asks the processor to start loading the record at `offset`; nothing
  // is checked or read.
  void prefetchRecord(u32 offset) const {
    if (_bins && offset / hive_hbin::PAGE < _pageHbin.size()) __builtin_prefetch(_bins + offset);
  }
  // Also reports the hbin index; checks the record is free (expectUnused)
  // or used.
  const hive_record* cacheLoadRecord(u32 offset, u32* hbinIndex, bool expectUnused);
  // The bytes [offset, offset + length) of the hive bins data as they read
  // now, whatever records they belong to: free records and hbin headers as
  // well. Null when any of them lies beyond the hive bins data (or, in
  // unsafe mode, beyond the file). Valid as record pointers are.
  const u8* binsBytes(u32 offset, u32 length) const;
  // How much of the hive bins data binsBytes can give from offset 0: the
  // hive length, or in unsafe mode as much of it as the file holds.
  u32 binsAvailable() const;
  // The loaded area from record offset 0 (hiveLength() bytes); null in
  // unsafe mode.
  const u8* bins() const { return _bins; }
  // The index of the hbin holding `offset`, or INVALID_HBIN (the offset
  // lies beyond the hbins the table holds, or its last 4 bytes beyond the
  // hive bins data).
  u32 hbinFromOffset(u32 offset);

  // --- The hbin table ------------------------------------------------------
  struct HbinEntry {
    u32 offset;
    u32 size;
    u32 freeSize;    // largest free record (0: none, or a read-only hive)
    u32 freeOffset;  // its offset
  };
  const std::vector<HbinEntry>& hbins() const { return _hbins; }
  u32 hbinCount() const { return static_cast<u32>(_hbins.size()); }
  // The first byte of the hbin at table index `hbinIdx`.
  const u8* hbinData(u32 hbinIdx) const { return _bins + _hbins[hbinIdx].offset; }
  // The freeSize of every hbin, in table order.
  const FirstFitIndex& freeIndex() const { return _freeIndex; }
  // Counts the hbin's largest free record again (after a write that moved
  // record boundaries); false when a damaged record ends the count.
  bool updateFreeSpace(u32 hbinIdx);
  // Adds an hbin at the end of the table (its bytes must be reserved) and
  // takes the last one out again.
  void appendHbin(const HbinEntry& entry);
  void dropLastHbin();

  // --- Writes ----------------------------------------------------------------
  // Writes bytes into hbin `hbinIdx` at `offsetInHbin`, marks it dirty,
  // and in write-through mode writes them to the file as well.
  bool writeHBIN(u32 hbinIdx, u32 offsetInHbin, const void* data, u32 length);
  // Makes the buffer hold at least `length` bytes of hive bins.
  bool reserveBins(u64 length);
  // Makes the hive file at least `fileEnd` bytes long.
  bool growFile(u64 fileEnd);
  // Sets the base block's hive bins data size (checksum updated); in
  // write-through mode writes the base block as well.
  void setHiveLength(u32 length);
  // Writes the base block to the file (checksum updated).
  bool writeHeader();

  // --- Flush -----------------------------------------------------------------
  // Changed since the last flush.
  bool hbinDirty(u32 hbinIdx) const { return hbinIdx < _dirty.size() && _dirty[hbinIdx]; }
  std::vector<u32> dirtyHbins() const;
  void clearDirty(const std::vector<u32>& hbinIndices);
  // The given hbins as runs of adjacent hbins, each one page reference and
  // one write.
  std::vector<LogPage> dirtyRuns(const std::vector<u32>& hbinIndices) const;
  // The range was read for a flush: a spilling buffer may give its memory
  // back.
  void giveBack(const u8* data, u64 length);

  // --- Changes taken back whole ------------------------------------------------
  // Between beginChange() and endChange() the store notes the old bytes of
  // everything it changes (see the invariants). Calls nest; only the
  // outermost pair counts.
  void beginChange();
  void endChange(bool keep);
  bool inChange() const { return _changeDepth > 0; }

  // --- State -------------------------------------------------------------------
  u32 hiveLength() const { return L32(_header + hive_header::OFS_LENGTH); }
  // The size of the hive file when last read, and reading it again.
  u64 fileLength() const { return _fileSize; }
  u64 fileSize();
  bool readonly() const { return (_mode & modeReadOnly) != 0; }
  // Logs the refusal of `function` in unsafe mode; false in any other mode.
  bool refuseUnsafe(const char* function) const;

 private:
  const hive_record* loadRecordChecked(u32 offset);
  const hive_record* unsafeGetRecord(u32 offset);

  // Where the record walk of one hbin lands: bits of _startBits (and, in a
  // writable hive, _freeBits), built by one walk from offset 32 the first
  // time a record of the hbin is validated. Size-field writes do not drop
  // it: they mark the range they touched, and the next look re-walks only
  // from the last start before that range to the first unchanged start
  // behind it.
  struct RecordStarts {
    enum : u8 { UNBUILT = 0, BUILDING = 1, BUILT = 2 };
    // The hbin's place, as in the table: a record lookup reads one entry.
    u32 offset = 0;
    u32 size = 0;
    // Readers of a read-only hive take no lock: the thread that builds the
    // bits publishes them with this (release after the bits, acquire
    // before reading them); a thread that finds them being built walks the
    // records itself meanwhile. Writable hives change it under the monitor.
    std::atomic<u8> state{UNBUILT};
    // The walk met a size that left it off the 8-byte grid: such landings
    // have no bit, so any later size-field write must drop the index.
    bool offGrid = false;
    u32 zeroAt = 0;  // hbin-relative position of the first 0 size, or the hbin size
    // Bytes written since the bits were last right, when a write touched a
    // size field: [dirtyFrom, dirtyTo); empty when dirtyFrom >= dirtyTo.
    u32 dirtyFrom = 0;
    u32 dirtyTo = 0;

    RecordStarts() = default;
    // Moved only while the table grows, under the monitor.
    RecordStarts(u32 offset, u32 size) : offset(offset), size(size) {}
    RecordStarts(const RecordStarts& o)
        : offset(o.offset),
          size(o.size),
          state(o.state.load(std::memory_order_relaxed)),
          offGrid(o.offGrid),
          zeroAt(o.zeroAt),
          dirtyFrom(o.dirtyFrom),
          dirtyTo(o.dirtyTo) {}
  };
  // Bits of one hbin in _startBits or _freeBits: bit i stands for the
  // hbin-relative position 8 * i.
  struct Bits {
    u64* words;
    size_t count;  // words
  };

  bool readBins(u32 length);
  // The reference walk: is `offset` a record start of the hbin at `hbin`?
  bool isValidRecord(const u8* hbin, u32 hbinOffset, u32 hbinSize, u32 offset);
  // The same answer and messages through the hbin's RecordStarts.
  bool isRecordStart(u32 hbinIdx, const u8* hbin, u32 offset);
  Bits startBits(u32 hbinIdx);
  Bits freeBits(u32 hbinIdx);
  void buildRecordStarts(u32 hbinIdx);
  // Makes the hbin's bits right (building or repairing them); false when
  // another thread is building them just now.
  bool recordStartsReady(u32 hbinIdx);
  // Re-walks the dirty range of a built index; false when only a full walk will do.
  bool repairRecordStarts(u32 hbinIdx);
  void setFreeSize(u32 hbinIdx, u32 freeSize, u32 freeOffset);
  // Drops the index when [ofs, ofs + length) touches a size field it knows.
  void noteHbinWrite(u32 hbinIdx, u32 offsetInHbin, u32 length);
  // Write-through: the bytes just written to hbin `hbinIdx` go to the file.
  void writeThrough(u32 hbinIdx, u32 offsetInHbin, const void* data, u32 length);
  // Checks the hbin header at `position` of the loaded area (messages as
  // for a header read from the file).
  bool checkHbinHeader(u32 position, HbinEntry& entry);
  void scanFreeSpace(HbinEntry& entry);
  // Hive bins of SPILL_BINS bytes and more are held in a spilling block
  // (platform/shmem.h): the ranges written go back to its file every
  // SPILL_WRITTEN bytes, and a flush gives back what it has read, so a
  // hive grown by a value of hundreds of megabytes is never resident whole.
  static constexpr u64 SPILL_BINS = u64{64} << 20;
  static constexpr u64 SPILL_WRITTEN = u64{16} << 20;
  // Moves the bins into a spilling block of `room` bytes (they stay where
  // they are when none can be made).
  void spillBins(u64 room);
  void noteSpilledWrite(u64 offset, u64 length);

  u8* _header;
  u8* _diskHeader;
  const u32& _mode;
  const Ref<Interfaces::Stripe>& _stripe;
  const SyncCallback& _sync;
  u64 _fileSize = 0;  // last known size of _stripe; re-read when an offset lies beyond it

  // The hive bins area, record offset 0 on: _binsView's pages, or
  // _binsMem's buffer (whose size may run ahead of the hive's; spilling
  // from SPILL_BINS bytes on). Null in unsafe mode, which reads records
  // from _unsafeCache.
  const u8* _bins = nullptr;
  Ref<FileView> _binsView;
  Ref<ShMem> _binsMem;
  // The range written since a spilling _binsMem last gave pages back, and
  // how many bytes that was.
  u64 _spillFrom = 0;
  u64 _spillTo = 0;
  u64 _spillWritten = 0;
  std::vector<HbinEntry> _hbins;
  // Indexed like _hbins: changed since the last flush, and the record-start
  // index.
  std::vector<u8> _dirty;
  std::vector<RecordStarts> _recordStarts;
  // The hbin (index into _hbins) of each 4 KiB page the table covers.
  std::vector<u32> _pageHbin;
  // One bit per 8 bytes of the hbins the table covers (an hbin's bits start
  // at a word boundary: hbins start at multiples of 4096): a record starts
  // there; and, in a writable hive, the record there is free.
  std::vector<u64> _startBits;
  std::vector<u64> _freeBits;
  FirstFitIndex _freeIndex;
  Ref<ReadOnlyCache> _unsafeCache;

  // The journal of the change in progress.
  struct Undo {
    u32 hbin;
    u32 offsetInHbin;
    u8 wasDirty;
    std::vector<u8> bytes;
  };
  void noteUndo(u32 hbinIdx, u32 offsetInHbin, u32 length);
  u32 _changeDepth = 0;
  bool _replaying = false;
  std::vector<Undo> _undo;
  u32 _changeHbins = 0;
  u64 _changeFileSize = 0;
  u8 _changeHeader[hive_header::SIZE] = {};
};

// Kept inline and to the few loads a walk can afford: it runs for every
// record a reader touches. In unsafe mode the table is empty, and an hbin
// the table covers ends within the hive length, so neither is tested.
inline const hive_record* RecordStore::residentRecord(u32 offset) const {
  if (offset % hive_hbin::RECORD_ALIGNMENT != 0) return nullptr;
  const u32 page = offset / hive_hbin::PAGE;
  if (page >= _pageHbin.size()) return nullptr;
  const RecordStarts& starts = _recordStarts[_pageHbin[page]];
  const u32 inHbin = offset - starts.offset;
  if (inHbin < hive_hbin::SIZE || u64{inHbin} + 4 >= starts.size) return nullptr;
  if (starts.state.load(std::memory_order_acquire) != RecordStarts::BUILT ||
      starts.dirtyFrom < starts.dirtyTo || inHbin > starts.zeroAt)
    return nullptr;
  // An hbin's bits start at bit hbin.offset / 8 of _startBits.
  const u32 bit = offset / hive_hbin::RECORD_ALIGNMENT;
  if (((_startBits[bit / 64] >> (bit % 64)) & 1) == 0) return nullptr;
  const hive_record* record = reinterpret_cast<const hive_record*>(_bins + offset);
  if (!record->used() || u64{inHbin} + record->length() > starts.size) return nullptr;
  return record;
}

}  // namespace Libraries::Files::Hive
