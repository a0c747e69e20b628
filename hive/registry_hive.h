// RegistryHiveObj: an open hive.
//
// Owns the hive file (or a mapped stripe over it and its logs), an
// in-memory copy of the base block, the hbin table and the record cache.
// Keys, values and security records reach records only through
// cacheLoadRecord and change them only through allocateRecord,
// resizeRecord, writeRecord and initRecord. Record-level calls take no
// lock: callers hold mon() (every public Key/Value operation does).
//
// A record pointer from cacheLoadRecord stays valid until the cache is next
// emptied, which can happen in any later cacheLoadRecord, allocation or
// write; re-load after such a call.
#pragma once

#include <string>
#include <vector>

#include "hive/errors.h"
#include "hive/first_fit_index.h"
#include "hive/format.h"
#include "hive/hive_file.h"
#include "hive/log/log_file.h"
#include "hive/log/mapped_stripe.h"
#include "platform/log.h"
#include "platform/mon.h"
#include "platform/shmem.h"

namespace Libraries::Files::Hive {

class KeyObj;
class ReadOnlyCache;

extern const Platform::Log::Channel hiveLog;  // "Hive"

class RegistryHiveObj : public HiveFile, public MappedStripe::Hook {
 public:
  static constexpr u32 HBIN_READ_BUFFER_SIZE = 4096;
  static constexpr u32 HIVE_HEADER_SIZE = 4096;
  static constexpr u32 INVALID_HBIN = 0xffffffffu;
  static constexpr u64 INVALID_CACHE_OFFSET = ~0ull;

  enum class LogMode : u32 { None = 0, Single = 1, Dual = 2 };

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
  LogMode logMode() const { return _logMode; }
  // 0 primary (.LOG), 1 first alternate, 2 second alternate.
  const LogFileInfo& logFile(u32 index) const { return _logs[index]; }
  // The log (index as for logFile) whose entry or pages were replayed last
  // at open or appended since, NO_LOG when none; and, for a new-format log,
  // that entry's sequence number.
  static constexpr u32 NO_LOG = 0xffffffffu;
  u32 appliedLog() const { return _appliedLog; }
  u32 appliedSequence() const { return _appliedSequence; }

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

  // The root key object (the same object while a caller holds it).
  Ref<KeyObj> rootObj();

  // --- Records -----------------------------------------------------------
  // A used record at a multiple of 8, or null (0x2006 when misaligned).
  const hive_record* cacheLoadRecord(u32 offset);
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

  // --- Names -------------------------------------------------------------
  // The stored form of a name: codepage bytes when every character has one
  // (ascii = true), else UTF-16LE. `length` is the stored byte count; `out`
  // holds one more zero byte (two for UTF-16) that it does not count.
  // False when the name is null.
  bool stringToRegName(const Ref<String>& name, std::vector<u8>& out, u64& length, bool& ascii);
  // Decodes a stored name; false (with the Latin-1 reading) when a byte has
  // no character in the codepage.
  bool regNameToString(const u8* bytes, u32 length, bool ascii, Ref<String>& out) const;

  // --- Cache internals (used by tests and the log layer) -----------------
  u32 hbinFromOffset(u32 offset);
  u64 cacheLoadHbin(u32 hbinIndex);
  u64 getFreeCacheChunk(u32 size);
  const hive_record* unsafeGetRecord(u32 offset);
  bool internalFlush();
  u32 cacheSize() const { return _cacheSize; }
  u32 cacheUsed() const { return _cacheUsed; }
  struct HbinEntry {
    u32 offset;
    u32 size;
    u32 freeSize;    // largest free record (0: none or not computed)
    u32 freeOffset;  // its offset
  };
  const std::vector<HbinEntry>& hbins() const { return _hbins; }

  // MappedStripe::Hook: writes of a log-mode hive become log entries.
  bool handleAction(MappedStripe& stripe, Action action, const void* buffer, u64 offset, u64 size,
                    u64& done) override;

 protected:
  static constexpr u32 INITIAL_CACHE_SIZE = 1048576;

 private:
  struct CachedHbin {
    u32 hbinIdx;
    u32 dirty;
    u64 place;  // of the hbin's first byte in the cache
  };
  // Where the record walk of one hbin lands, built by one walk from offset
  // 32 the first time a record of the hbin is validated while it is cached.
  // Size-field writes do not drop it: they mark the range they touched, and
  // the next look re-walks only from the last start before that range to
  // the first unchanged start behind it.
  struct RecordStarts {
    bool built = false;
    // The walk met a size that left it off the 8-byte grid: such landings
    // have no bit, so any later size-field write must drop the index.
    bool offGrid = false;
    u32 zeroAt = 0;         // hbin-relative position of the first 0 size, or the hbin size
    std::vector<u64> bits;  // bit i: the walk lands on hbin-relative position 8 * i
    std::vector<u64> free;  // bit i: ... and the record there is free (size > 0)
    // Bytes written since the bits were last right, when a write touched a
    // size field: [dirtyFrom, dirtyTo); empty when dirtyFrom >= dirtyTo.
    u32 dirtyFrom = 0;
    u32 dirtyTo = 0;
  };
  static constexpr u32 NOT_CACHED = 0xffffffffu;

  bool initLogFile(Ref<Interfaces::Stripe> log, Ref<String> name, const u8* primary, LogFileInfo& info);
  bool chooseLogMode();
  LogFileInfo* currentLogFile();
  bool applyLogMappings();
  // Log layer (hive/log/): a run of bytes of the hive bins data written as
  // one page reference of a log entry.
  struct LogPage {
    u32 offset;  // in the hive bins data
    u32 length;
    const u8* data;
  };
  bool logUsable(const LogFileInfo& info) const;
  // Severity-1 report of the sequence numbers and the three logs.
  void logDump();
  bool applyOldFormatLog(LogFileInfo& log);
  bool mapLogEntry(LogFileInfo& log, const LogEntryInfo& entry);
  bool startLog(LogFileInfo& log, u32 sequence);
  // Appends one entry holding `pages` to the current log and maps them.
  bool appendLogEntry(const std::vector<LogPage>& pages);
  // Writes the dirty hbins (indices into _cachedHbins) as one entry of the
  // current log; clears their dirty marks on success.
  bool flushToLog(const std::vector<u32>& dirtySlots);

  bool construct(const LogFiles& logs);
  bool checkRootRecord();
  bool refuseUnsafe(const char* function) const;
  u64 fileSize();

  // The reference walk: is `offset` a record start of the hbin at `hbin`?
  bool isValidRecord(const u8* hbin, u32 hbinOffset, u32 hbinSize, u32 offset);
  // The same answer and messages through the hbin's RecordStarts.
  bool isRecordStart(u32 hbinIdx, const u8* hbin, u32 offset);
  void buildRecordStarts(RecordStarts& starts, const u8* hbin, u32 hbinSize);
  // Brings a cached hbin's index up to date (building it when missing).
  RecordStarts& recordStarts(u32 hbinIdx, const u8* hbin);
  // Re-walks the dirty range of a built index; false when only a full walk will do.
  bool repairRecordStarts(RecordStarts& starts, const u8* hbin, u32 hbinSize);
  void setFreeSize(u32 hbinIdx, u32 freeSize, u32 freeOffset);
  // getFreeSpaceBehindRecord for a record just loaded from hbin `hbin`.
  u32 freeSpaceBehind(u32 hbin, const hive_record* record, u32 offset, bool recordIsFree);
  // Drops the index when [ofs, ofs + length) touches a size field it knows.
  void noteHbinWrite(u32 hbinIdx, u32 offsetInHbin, u32 length);
  bool readHbinHeader(u32 position, HbinEntry& entry);
  void scanFreeSpace(HbinEntry& entry);
  void appendHbin(const HbinEntry& entry);
  // Takes the last hbin out of the table and the cache (a growth that failed).
  void dropLastHbin();
  void resetCache();
  bool writeHeader();

  // The stripe all hive file access goes through (the file, or a mapped
  // stripe over it in log mode) and the file itself.
  Ref<Interfaces::Stripe> _stripe;
  Ref<Interfaces::Stripe> _file;
  Ref<MappedStripe> _mapped;
  u8 _header[hive_header::SIZE] = {};
  u32 _mode;
  LogMode _logMode = LogMode::None;
  LogFileInfo _logs[3];
  Ref<Mon> _mon;
  HiveCodepage _codepage;
  SyncCallback _sync;
  u32 _rootOffset = INVALID_RECORD;
  bool _valid = false;
  Platform::WeakRef<KeyObj> _root;
  // The last log entry replayed at open or appended since (a new-format
  // log), and the log (index into _logs) it is in; see appliedLog().
  u32 _appliedSequence = 0;
  u32 _appliedLog = NO_LOG;
  u64 _fileSize = 0;  // last known size of _stripe; re-read when an offset lies beyond it
  // The base block as the file holds it; flush writes _header when they differ.
  u8 _diskHeader[hive_header::SIZE] = {};

  std::vector<HbinEntry> _hbins;
  std::vector<CachedHbin> _cachedHbins;
  // Slot of each hbin in _cachedHbins (NOT_CACHED when absent), indexed
  // like _hbins; reset with the cache.
  std::vector<u32> _cacheSlot;
  // Record-start index of each hbin, indexed like _hbins; only cached
  // hbins have one, and it is dropped with the cache.
  std::vector<RecordStarts> _recordStarts;
  // The freeSize of every hbin, for the first-fit search of allocateRecord.
  FirstFitIndex _freeIndex;
  u32 _lastHbin = 0;  // the hbin hbinFromOffset found last
  u32 _cacheSize;
  u32 _cacheUsed = 0;
  Ref<ShMem> _cacheMem;
  u8* _cache = nullptr;
  Ref<ReadOnlyCache> _unsafeCache;
};

}  // namespace Libraries::Files::Hive
