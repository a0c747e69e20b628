// Flushing: the hbins changed since the last flush reach storage here, and
// only here (write-through mode aside).
//
// Without a log in use, a flush is a checkpoint that a crash or a failed
// write at any moment cannot tear, by the format's own recovery rules:
//
//   1. the dirty hbins go, as one new-format entry, to the flush log
//      (.LOG1, made when missing), synced;
//   2. the base block is marked dirty (primary sequence number raised),
//      synced: from here on an open replays the log;
//   3. the hbins are written in place, synced;
//   4. the base block is marked clean (secondary = primary) with the new
//      length and timestamp; the sync callback then syncs it.
//
// Before step 2 completes the file is the last flush's hive and the log is
// not consulted; after it, the file is dirty and the log's entry lays the
// new pages over whatever step 3 had written. A checkpoint that fails
// after step 1 leaves its entry as the file's way back: the next flush
// appends its own entry to the same chain (body synced before the entry's
// header, since the file depends on the log by then) rather than starting
// the log afresh. A hive without any log to write is flushed by steps 2 to
// 4 alone: a crash then leaves a dirty hive that opens only as stored,
// never a torn one that claims to be clean.
//
// In a log mode (a dirty hive whose new-format log is in use) the hive
// file is not written at all: the dirty hbins become one more entry of the
// current log (log_writer.cc), whose header is written only after its
// pages are synced.
#include <chrono>
#include <cstring>
#include <vector>

#include "hive/registry_hive.h"
#include "platform/error.h"

namespace Libraries::Files::Hive {

u64 RegistryHiveObj::clockNow() {
  using namespace std::chrono;
  const u64 unix100ns =
      static_cast<u64>(duration_cast<nanoseconds>(system_clock::now().time_since_epoch()).count()) / 100;
  return unix100ns + 116444736000000000ull;
}

u64 RegistryHiveObj::now() const {
  return _fixedTime ? _fixedTime : clockNow();
}

bool RegistryHiveObj::flush() {
  Mon::Lock lock(_mon);
  if (readonly()) return true;
  if (!internalFlush()) return false;
  if (_sync && !_sync()) {
    HK_LOG(hiveLog, 4) << "Failed to sync hive; error: " << Log::hex(Error::get());
    return false;
  }
  return true;
}

bool RegistryHiveObj::internalFlush() {
  // A hive whose open failed has nothing of its own to write.
  if ((_mode & (modeReadOnly | modeUnsafe)) || !_valid) return true;
  std::vector<u32> dirty;
  for (u32 i = 0; i < _dirty.size(); ++i)
    if (_dirty[i]) dirty.push_back(i);
  if (logMode() != LogMode::None) return dirty.empty() || flushToLog(dirty);
  if (_mode & modeWriteThrough) return flushWriteThrough(dirty);
  if (dirty.empty() && !_checkpoint.open && std::memcmp(_diskHeader, _header, hive_header::SIZE) == 0)
    return true;
  return checkpoint(dirty);
}

bool RegistryHiveObj::checkpoint(const std::vector<u32>& dirtyHbins) {
  LogFileInfo* log = _log.flushLog();
  const u32 index = _log.indexOf(log);
  if (_checkpoint.open && _checkpoint.log != index) _checkpoint.open = false;  // a log made since
  if (!_checkpoint.open) {
    // The first entry of a chain must not join entries another log holds:
    // the secondary sequence number goes past every number they carry, so
    // that they are stale beside the dirty file.
    u32 base = std::max(L32(_diskHeader + hive_header::OFS_PRIMARY_SEQ),
                        L32(_diskHeader + hive_header::OFS_SECONDARY_SEQ));
    for (u32 i = 0; i < 3; ++i) {
      const LogFileInfo& other = logFile(i);
      if (i == index || !other.present()) continue;
      base = std::max({base, other.primarySequence() + 1, other.secondarySequence() + 1});
    }
    _checkpoint.base = base;
    _checkpoint.sequence = base;
    _checkpoint.log = index;
  }
  const u32 sequence = _checkpoint.sequence + 1;
  W64(_header + hive_header::OFS_TIMESTAMP, now());

  // 1. The pages to the log. Until the base block says dirty, nothing
  //    reads the log, so a failure here leaves the file as it was.
  if (log) {
    const u64 next = _log.writeCheckpointEntry(*log, dirtyRuns(dirtyHbins), sequence,
                                               _checkpoint.open ? _checkpoint.next : 0);
    if (next == 0) return false;
    _checkpoint.next = next;
    _checkpoint.open = true;
    _checkpoint.sequence = sequence;
  }
  // 2. The base block as the file holds it, marked dirty.
  u8 block[hive_header::SIZE];
  std::memcpy(block, _diskHeader, sizeof block);
  if (!writeBaseBlock(block, sequence, _checkpoint.base) || !_file->sync()) {
    HK_LOG(hiveLog, 4) << "Failed to mark the hive dirty before writing it; error: "
                       << Log::hex(Error::get());
    return false;
  }
  _checkpoint.open = true;
  _checkpoint.sequence = sequence;
  // 3. The hbins in place.
  if (!writeHbins(dirtyHbins)) return false;
  if (!_file->sync()) {
    HK_LOG(hiveLog, 4) << "Failed to sync the hive's hbins; error: " << Log::hex(Error::get());
    return false;
  }
  // 4. Clean, with the new length and time.
  if (!writeBaseBlock(_header, sequence, sequence)) {
    HK_LOG(hiveLog, 4) << "Failed to mark the hive clean after writing it; error: " << Log::hex(Error::get());
    return false;
  }
  std::memcpy(_diskHeader, _header, hive_header::SIZE);
  _checkpoint.open = false;
  for (u32 i : dirtyHbins) _dirty[i] = 0;
  return true;
}

bool RegistryHiveObj::writeBaseBlock(u8* block, u32 primary, u32 secondary) {
  W32(block + hive_header::OFS_PRIMARY_SEQ, primary);
  W32(block + hive_header::OFS_SECONDARY_SEQ, secondary);
  W32(block + hive_header::OFS_CHECKSUM, calculateHeaderChecksum(block));
  return _file->writeAt(0, block, hive_header::SIZE) == hive_header::SIZE;
}

std::vector<RegistryHiveObj::LogPage> RegistryHiveObj::dirtyRuns(const std::vector<u32>& dirtyHbins) const {
  std::vector<LogPage> runs;
  for (u32 index : dirtyHbins) {
    const HbinEntry& hbin = _hbins[index];
    if (!runs.empty() && u64{runs.back().offset} + runs.back().length == hbin.offset &&
        u64{runs.back().length} + hbin.size <= 0x40000000u)
      runs.back().length += hbin.size;
    else
      runs.push_back(LogPage{hbin.offset, hbin.size, hbinData(index)});
  }
  return runs;
}

bool RegistryHiveObj::writeHbins(const std::vector<u32>& dirtyHbins) {
  for (const LogPage& run : dirtyRuns(dirtyHbins)) {
    const u64 filePosition = u64{HIVE_HEADER_SIZE} + run.offset;
    if (_file->writeAt(filePosition, run.data, run.length) != run.length) {
      HK_LOG(hiveLog, 4) << "Failed to flush hbins at offset " << run.offset << ", " << run.length
                         << " bytes; error: " << Log::hex(Error::get());
      return false;
    }
  }
  return true;
}

// Write-through mode has written every change as it was made; what is
// dirty here is what that failed to write. Such a hive is not protected
// from a crash in the middle of a change: it is written as changes come.
bool RegistryHiveObj::flushWriteThrough(const std::vector<u32>& dirtyHbins) {
  bool ok = true;
  for (u32 index : dirtyHbins) {
    if (writeHbins({index}))
      _dirty[index] = 0;
    else
      ok = false;
  }
  if (ok && std::memcmp(_diskHeader, _header, hive_header::SIZE) != 0 && !writeHeader()) {
    HK_LOG(hiveLog, 4) << "Failed to write header on resize";
    return false;
  }
  return ok;
}

// In a log mode the dirty hbins become one entry of the current log, which
// maps them so that later reads of those hbins see the log's copy; the hive
// file is not touched.
bool RegistryHiveObj::flushToLog(const std::vector<u32>& dirtyHbins) {
  if (!_log.currentLogFile()) {
    HK_LOG(hiveLog, 4) << "No log file applicable despite the log mode saying so";
    return false;
  }
  if (!_log.appendLogEntry(dirtyRuns(dirtyHbins))) return false;
  for (u32 index : dirtyHbins) _dirty[index] = 0;
  return true;
}

bool RegistryHiveObj::writeHeader() {
  W32(_header + hive_header::OFS_CHECKSUM, calculateHeaderChecksum(_header));
  if (_stripe->seek(0) != 0) return false;
  if (_stripe->write(_header, hive_header::SIZE) != hive_header::SIZE) return false;
  std::memcpy(_diskHeader, _header, hive_header::SIZE);
  return true;
}

}  // namespace Libraries::Files::Hive
