// RegistryHiveObj: an open hive.
//
// Owns the hive file (or a mapped stripe over it and its logs), an
// in-memory copy of the base block, and the record store: every hbin of
// the hive, resident from the open on. Keys, values and security records
// reach records only through cacheLoadRecord and change them only through
// allocateRecord, resizeRecord, writeRecord and initRecord. Record-level
// calls take no lock: callers of a writable hive hold mon() (every public
// Key/Value operation does). A read-only hive never changes after the open,
// so its records may be read without the monitor, from any thread.
//
// The record store (record_cache.cc):
//  - The whole hive bins area is loaded once, at open, after any log was
//    laid over the file: a read-only hive whose file is read as it is gets
//    a view of the file's pages (nothing copied); any other hive one read
//    into a buffer, which grows when an hbin is appended.
//  - The hbin table is built in the same pass, every hbin header checked;
//    the first header that fails its checks ends the table, and records at
//    or beyond it cannot be reached (asking for one logs why again). A map
//    from each 4 KiB page to its hbin finds a record's hbin in one step.
//  - Whether an offset is a record start is answered by a bitmap of each
//    hbin, built by one walk of the hbin the first time one of its records
//    is asked for, and kept; writes that move record boundaries update it.
//  - Changes stay in memory, each changed hbin marked dirty, until flush()
//    writes the dirty hbins (to the file, or as a log entry in a log mode);
//    nothing is written behind the caller's back. Write-through mode writes
//    each change at once as well.
// Composed with it: the log engine (hive/log/log_engine.h: the logs, their
// replay, writing through them in a log mode) and the checkpoint
// (checkpoint.h: the crash-safe flush without a log in use).
//
// A record pointer from cacheLoadRecord stays valid until the next
// allocateRecord or resizeRecord (which may append an hbin and so move the
// buffer); on a read-only hive, for the life of the hive.
#pragma once

#include <atomic>
#include <string>
#include <vector>

#include "hive/checkpoint.h"
#include "hive/first_fit_index.h"
#include "hive/format/errors.h"
#include "hive/format/format.h"
#include "hive/hive_file.h"
#include "hive/log/log_engine.h"
#include "platform/file_view.h"
#include "platform/log.h"
#include "platform/mon.h"
#include "platform/shmem.h"

namespace Libraries::Files::Hive {

class KeyObj;
class ReadOnlyCache;

class RegistryHiveObj : public HiveFile {
 public:
  static constexpr u32 HIVE_HEADER_SIZE = 4096;
  static constexpr u32 INVALID_HBIN = 0xffffffffu;

  using LogMode = LogEngine::LogMode;
  using LogPage = LogEngine::LogPage;

  // Runs the whole open; check valid() afterwards (open() does).
  RegistryHiveObj(Ref<Interfaces::Stripe> file, const LogFiles& logs, u32 mode, HiveCodepage codepage,
                  SyncCallback sync);
  ~RegistryHiveObj() override;

  // RegistryHive
  Ref<Key> root() override;
  Ref<Key> path(Ref<String> path) override;
  // HiveFile
  Ref<SecurityDescriptorIterator> securityDescriptorIterator() override;
  bool flush() override;
  u32 mode() override { return _mode; }
  bool dirty() override;

  u32 versionMajor() const { return L32(_header + hive_header::OFS_MAJOR); }
  u32 versionMinor() const { return L32(_header + hive_header::OFS_MINOR); }
  bool readonly() const { return (_mode & modeReadOnly) != 0; }
  HiveCodepage codepage() const { return _codepage; }
  bool valid() const { return _valid; }
  // By reference: every public Key and Value call takes it.
  const Ref<Mon>& mon() const { return _mon; }
  // The in-memory base block (4096 bytes).
  const u8* header() const { return _header; }
  u32 rootOffset() const { return _rootOffset; }
  u32 hiveLength() const { return L32(_header + hive_header::OFS_LENGTH); }
  // The size of the hive file (with its logs laid over it) when last read;
  // with hiveLength(), a bound on what a reader can reach.
  u64 fileLength() const { return _fileSize; }
  // The base block's file name field: all 32 units up to the first zero,
  // and the part of it after the last '/' or '\'.
  std::u16string fullFileName() const;
  std::u16string fileName() const;
  LogMode logMode() const { return _log.logMode(); }
  // 0 primary (.LOG), 1 first alternate, 2 second alternate.
  const LogFileInfo& logFile(u32 index) const { return _log.logFile(index); }
  // The log (index as for logFile) whose entry or pages were replayed last
  // at open or appended since, NO_LOG when none; and, for a new-format log,
  // that entry's sequence number.
  static constexpr u32 NO_LOG = LogEngine::NO_LOG;
  u32 appliedLog() const { return _log.appliedLog(); }
  u32 appliedSequence() const { return _log.appliedSequence(); }

  // Writes the hive as it reads now (logs applied, changes not yet flushed
  // included) into `target`, which must be empty: a clean base block (both
  // sequence numbers equal, see recovered_copy.cc for which value, file
  // type 0, the current hive bins data size, checksum) and the hive bins
  // data after it. The hive, its file and its logs are not changed; the
  // target is not synced. False with the reason logged and the error set:
  // 0x8445 null target, 0x10002 element size, 0x8446 a target that is not
  // empty or is the hive's own file or log, otherwise a failed read or write.
  bool writeRecoveredCopy(Ref<Interfaces::Stripe> target);
  u32 hbinCount() const { return static_cast<u32>(_hbins.size()); }

  // --- Time --------------------------------------------------------------
  // What changes stamp as their time (keys' last write times, the base
  // block at a flush): the clock, as a FILETIME (100 ns units since
  // 1601-01-01 UTC), or the time fixed here (0 returns to the clock), for
  // images that must come out the same on every run.
  u64 now() const;
  void setFixedTime(u64 filetime) { _fixedTime = filetime; }
  static u64 clockNow();

  // The root key object (the same object while a caller holds it). This,
  // root(), path() and securityDescriptorIterator() make key objects and
  // are defined with the keys (hive/key/hive_root.cc).
  Ref<KeyObj> rootObj();

  // --- Records -----------------------------------------------------------
  // A used record at a multiple of 8, or null (0x2006 when misaligned).
  // Every record a reader touches comes through here, several times: the
  // usual case is answered inline (residentRecord), and anything else takes
  // the full path, which gives the same answer with its messages.
  const hive_record* cacheLoadRecord(u32 offset) {
    if (const hive_record* record = residentRecord(offset)) return record;
    return loadRecordChecked(offset);
  }
  // cacheLoadRecord's answer when every check passes on what is known
  // already (the hbin's record starts built and up to date); null when any
  // check fails or needs more, with nothing logged: the full path then
  // decides and reports. For readers that try a quick judgement first.
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
  // Asks the processor to start loading the record at `offset` (nothing
  // is checked or read): a reader that knows which records it will ask
  // for next lets their cache misses overlap.
  void prefetchRecord(u32 offset) const {
    if (_bins && offset / hive_hbin::PAGE < _pageHbin.size()) __builtin_prefetch(_bins + offset);
  }
  // Also reports the hbin index; checks the record is free (expectUnused)
  // or used.
  const hive_record* cacheLoadRecord(u32 offset, u32* hbinIndex, bool expectUnused);

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
  bool initRecord(u32 offset, u32 size);
  u32 getFreeSpaceBehindRecord(u32 offset, bool recordIsFree);
  bool updateFreeSpace(u32 hbinIndex);
  bool writeHBIN(u32 hbinIndex, u32 offsetInHbin, const void* data, u32 length);

  // --- Changes taken back whole --------------------------------------------
  // Between beginChange() and endChange() the record store notes the old
  // bytes of everything it changes; endChange(false) puts back the hbins'
  // bytes, the hbins appended, the dirty marks, the base block and the
  // file's length as they were at beginChange() (in write-through mode the
  // file's bytes too), so that a change that fails half way leaves the hive
  // exactly as before. Key and value objects made or changed meanwhile
  // still hold what the change left: callers drop them. Calls nest; only
  // the outermost pair counts. Callers hold mon().
  void beginChange();
  void endChange(bool keep);
  bool inChange() const { return _changeDepth > 0; }

  // --- Names -------------------------------------------------------------
  // The stored form of a name: codepage bytes when every character has one
  // (ascii = true), else UTF-16LE. `length` is the stored byte count; `out`
  // holds one more zero byte (two for UTF-16) that it does not count.
  // False when the name is null.
  bool stringToRegName(const Ref<String>& name, std::vector<u8>& out, u64& length, bool& ascii);
  // Decodes a stored name; false (with the Latin-1 reading) when a byte has
  // no character in the codepage.
  bool regNameToString(const u8* bytes, u32 length, bool ascii, Ref<String>& out) const;

  // The bytes [offset, offset + length) of the hive bins data as they read
  // now (a log laid over the file and unflushed changes included), whatever
  // records they belong to: free records and hbin headers as well. Null when
  // any of them lies beyond the hive bins data (or, in unsafe mode, beyond
  // the file). Valid as record pointers are. For readers of what the live
  // tree no longer links (hive/deleted/).
  const u8* binsBytes(u32 offset, u32 length) const;
  // How much of the hive bins data binsBytes can give from offset 0: the
  // hive length, or in unsafe mode as much of it as the file holds.
  u32 binsAvailable() const;

  // --- Store internals (flush, recovery and tests) ------------------------
  // The index of the hbin holding `offset`, or INVALID_HBIN (the offset
  // lies beyond the hbins the table holds, or its last 4 bytes beyond the
  // hive bins data).
  u32 hbinFromOffset(u32 offset);
  const hive_record* unsafeGetRecord(u32 offset);
  bool internalFlush();
  // The log a flush writes its pages to first (.LOG1, made through
  // LogFiles::createLog1 when missing, else .LOG2); null when there is none.
  LogFileInfo* flushLog() { return _log.flushLog(); }
  struct HbinEntry {
    u32 offset;
    u32 size;
    u32 freeSize;    // largest free record (0: none, or a read-only hive)
    u32 freeOffset;  // its offset
  };
  const std::vector<HbinEntry>& hbins() const { return _hbins; }
  // Changed since the last flush.
  bool hbinDirty(u32 hbinIndex) const { return hbinIndex < _dirty.size() && _dirty[hbinIndex]; }
  // The records stay where they are for the life of the hive (it is
  // read-only): pointers into them may be kept, and data handed out
  // without a copy.
  bool recordsStable() const { return readonly(); }

 private:
  const hive_record* loadRecordChecked(u32 offset);

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

  // Writes the dirty hbins (indices into _hbins) as one entry of the
  // current log; clears their dirty marks on success.
  bool flushToLog(const std::vector<u32>& dirtyHbins);
  // The flush of a hive without a log in use (checkpoint.h). False at the
  // first step that fails; the hbins stay dirty.
  bool checkpoint(const std::vector<u32>& dirtyHbins);
  // The dirty hbins as runs of adjacent hbins, each one page reference
  // and one write.
  std::vector<LogPage> dirtyRuns(const std::vector<u32>& dirtyHbins) const;
  // Writes of the previous hive write failed write-through mode's way.
  bool flushWriteThrough(const std::vector<u32>& dirtyHbins);

  bool construct(const LogFiles& logs);
  // The steps of construct, in order.
  bool checkModeFlags();
  bool readBaseBlock();
  // For a dirty base block: the log mode, or why none applies (a log that
  // could not be read, `unreadable`, refuses the open).
  bool chooseLogMode(bool unreadable);
  bool checkHeaderChecksum();
  bool replayLogs();
  bool checkRootRecord();
  bool refuseUnsafe(const char* function) const;
  u64 fileSize();

  // Loads the hive bins area and builds the hbin table (see above).
  bool loadHiveBins();
  // The first byte of the hbin at table index `hbinIdx`.
  const u8* hbinData(u32 hbinIdx) const { return _bins + _hbins[hbinIdx].offset; }
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
  // getFreeSpaceBehindRecord for a record just loaded from hbin `hbin`.
  u32 freeSpaceBehind(u32 hbin, const hive_record* record, u32 offset, bool recordIsFree);
  // Drops the index when [ofs, ofs + length) touches a size field it knows.
  void noteHbinWrite(u32 hbinIdx, u32 offsetInHbin, u32 length);
  // Checks the hbin header at `position` of the loaded area (messages as
  // for a header read from the file).
  bool checkHbinHeader(u32 position, HbinEntry& entry);
  void scanFreeSpace(HbinEntry& entry);
  void appendHbin(const HbinEntry& entry);
  // Makes the buffer hold at least `length` bytes of hive bins.
  bool reserveBins(u64 length);
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
  // allocateRecord when no hbin has room: a new hbin at the end.
  u32 growForRecord(u32 length);
  bool appendEmptyHbin(u32 offset, u32 size);
  // Takes the last hbin out of the table (a growth that failed).
  void dropLastHbin();
  bool writeHeader();

  // The stripe all hive file access goes through (the file, or a mapped
  // stripe over it in log mode) and the file itself.
  Ref<Interfaces::Stripe> _stripe;
  Ref<Interfaces::Stripe> _file;
  Ref<MappedStripe> _mapped;
  u8 _header[hive_header::SIZE] = {};
  u32 _mode;
  // The logs, working on _header.
  LogEngine _log{_header};
  Ref<Mon> _mon;
  HiveCodepage _codepage;
  SyncCallback _sync;
  u32 _rootOffset = INVALID_RECORD;
  bool _valid = false;
  Platform::WeakRef<KeyObj> _root;
  u64 _fileSize = 0;  // last known size of _stripe; re-read when an offset lies beyond it
  // The base block as the file holds it; flush writes _header when they differ.
  u8 _diskHeader[hive_header::SIZE] = {};
  u64 _fixedTime = 0;
  // The flush of a hive without a log in use; works on _header and
  // _diskHeader.
  Checkpoint _checkpoint{_header, _diskHeader, _log};

  // The hive bins area, record offset 0 on: _binsView's pages, or
  // _binsMem's buffer (whose size may run ahead of the hive's; spilling
  // from SPILL_BINS bytes on). Null in
  // unsafe mode, which reads records from _unsafeCache.
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
  // The freeSize of every hbin, for the first-fit search of allocateRecord.
  FirstFitIndex _freeIndex;
  Ref<ReadOnlyCache> _unsafeCache;

  // The journal of the change in progress (change_journal.cc).
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

inline const hive_record* RegistryHiveObj::residentRecord(u32 offset) const {
  if (offset % hive_hbin::RECORD_ALIGNMENT != 0 || (_mode & modeUnsafe) != 0) return nullptr;
  const u32 page = offset / hive_hbin::PAGE;
  if (page >= _pageHbin.size() || u64{offset} + 4 >= hiveLength()) return nullptr;
  const RecordStarts& starts = _recordStarts[_pageHbin[page]];
  const u32 inHbin = offset - starts.offset;
  if (inHbin < hive_hbin::SIZE || u64{inHbin} + 4 > starts.size) return nullptr;
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
