// RegistryHiveObj: an open hive.
//
// Owns the hive file (or a mapped stripe over it and its logs) and an
// in-memory copy of the base block, and composes the engine's four parts:
//  - the record store (record_store.h): the hive bins area, the hbin table,
//    record access, hbin writes and the change journal;
//  - the allocator (record_allocator.h): first fit, growth, resize, free;
//  - the log engine (hive/log/log_engine.h): the logs, their replay,
//    writing through them in a log mode;
//  - the checkpoint (checkpoint.h): the crash-safe flush without a log in
//    use.
// The open (registry_hive.cc) runs their steps in order; flush (flush.cc)
// hands the store's dirty hbins to the log engine or the checkpoint.
//
// Keys, values and security records reach records only through
// cacheLoadRecord and change them only through allocateRecord,
// resizeRecord, writeRecord and freeRecord, which this class forwards to
// the store and the allocator (their headers state the invariants: a
// record pointer's life, what "resident" means). Record-level calls take
// no lock: callers of a writable hive hold mon() (every public Key/Value
// operation does). A read-only hive never changes after the open, so its
// records may be read without the monitor, from any thread.
#pragma once

#include <string>
#include <vector>

#include "hive/checkpoint.h"
#include "hive/format/errors.h"
#include "hive/format/format.h"
#include "hive/hive_file.h"
#include "hive/log/log_engine.h"
#include "hive/record_allocator.h"
#include "hive/record_store.h"
#include "platform/log.h"
#include "platform/mon.h"

namespace Libraries::Files::Hive {

class KeyObj;

class RegistryHiveObj : public HiveFile {
 public:
  static constexpr u32 HIVE_HEADER_SIZE = 4096;

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
  u32 hiveLength() const { return _store.hiveLength(); }
  // The size of the hive file (with its logs laid over it) when last read;
  // with hiveLength(), a bound on what a reader can reach.
  u64 fileLength() const { return _store.fileLength(); }
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
  u32 hbinCount() const { return _store.hbinCount(); }

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

  // --- Records (record_store.h, record_allocator.h) ------------------------
  const hive_record* cacheLoadRecord(u32 offset) { return _store.cacheLoadRecord(offset); }
  const hive_record* residentRecord(u32 offset) const { return _store.residentRecord(offset); }
  template <class Layout>
  const hive_record* residentNamedRecord(u32 offset) const {
    return _store.residentNamedRecord<Layout>(offset);
  }
  void prefetchRecord(u32 offset) const { _store.prefetchRecord(offset); }
  const u8* binsBytes(u32 offset, u32 length) const { return _store.binsBytes(offset, length); }
  u32 binsAvailable() const { return _store.binsAvailable(); }
  u32 allocateRecord(u32 size, u32* allocatedSize = nullptr) {
    return _allocator.allocateRecord(size, allocatedSize);
  }
  u32 resizeRecord(u32 offset, u32 newSize, bool copyData, u32* allocatedSize = nullptr,
                   bool keepIfLarger = false) {
    return _allocator.resizeRecord(offset, newSize, copyData, allocatedSize, keepIfLarger);
  }
  bool freeRecord(u32 offset) { return _allocator.freeRecord(offset); }
  bool writeRecord(u32 offset, const void* data, u32 position, u32 length) {
    return _allocator.writeRecord(offset, data, position, length);
  }
  // A change that fails half way is taken back whole (record_store.h). Key
  // and value objects made or changed meanwhile still hold what the change
  // left: callers drop them. Callers hold mon().
  void beginChange() { _store.beginChange(); }
  void endChange(bool keep) { _store.endChange(keep); }
  bool inChange() const { return _store.inChange(); }
  // The records stay where they are for the life of the hive (it is
  // read-only): pointers into them may be kept, and data handed out
  // without a copy.
  bool recordsStable() const { return readonly(); }
  // The parts themselves, for flush, recovery, the API's hive information
  // and tests.
  RecordStore& store() { return _store; }
  const RecordStore& store() const { return _store; }
  RecordAllocator& allocator() { return _allocator; }

  // --- Names -------------------------------------------------------------
  // The stored form of a name: codepage bytes when every character has one
  // (ascii = true), else UTF-16LE. `length` is the stored byte count; `out`
  // holds one more zero byte (two for UTF-16) that it does not count.
  // False when the name is null.
  bool stringToRegName(const Ref<String>& name, std::vector<u8>& out, u64& length, bool& ascii);
  // Decodes a stored name; false (with the Latin-1 reading) when a byte has
  // no character in the codepage.
  bool regNameToString(const u8* bytes, u32 length, bool ascii, Ref<String>& out) const;

  bool internalFlush();
  // The log a flush writes its pages to first (.LOG1, made through
  // LogFiles::createLog1 when missing, else .LOG2); null when there is none.
  LogFileInfo* flushLog() { return _log.flushLog(); }

 private:
  // Writes the dirty hbins (indices into the store's table) as one entry of the
  // current log; clears their dirty marks on success.
  bool flushToLog(const std::vector<u32>& dirtyHbins);
  // The flush of a hive without a log in use (checkpoint.h). False at the
  // first step that fails; the hbins stay dirty.
  bool checkpoint(const std::vector<u32>& dirtyHbins);
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
  // The base block as the file holds it; flush writes _header when they differ.
  u8 _diskHeader[hive_header::SIZE] = {};
  u64 _fixedTime = 0;
  // The flush of a hive without a log in use; works on _header and
  // _diskHeader.
  Checkpoint _checkpoint{_header, _diskHeader, _log};

  // The record store and the allocator over it; they work on _header,
  // _diskHeader, _mode, _stripe and _sync.
  RecordStore _store{_header, _diskHeader, _mode, _stripe, _sync};
  RecordAllocator _allocator{_store};
};

}  // namespace Libraries::Files::Hive
