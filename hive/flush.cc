// Flushing: the hbins changed since the last flush reach storage here, and
// only here (write-through mode aside).
//
// Without a log in use, a flush is a checkpoint (checkpoint.h), which a
// crash or a failed write at any moment cannot tear. In a log mode (a
// dirty hive whose new-format log is in use) the hive file is not written
// at all: the dirty hbins become one more entry of the current log
// (log_writer.cc), whose header is written only after its pages are synced.
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
  if (dirty.empty() && !_checkpoint.open() && std::memcmp(_diskHeader, _header, hive_header::SIZE) == 0)
    return true;
  return checkpoint(dirty);
}

bool RegistryHiveObj::checkpoint(const std::vector<u32>& dirtyHbins) {
  if (!_checkpoint.run(*_file, dirtyRuns(dirtyHbins), now())) return false;
  for (u32 i : dirtyHbins) _dirty[i] = 0;
  return true;
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

// Write-through mode has written every change as it was made; what is
// dirty here is what that failed to write. Such a hive is not protected
// from a crash in the middle of a change: it is written as changes come.
bool RegistryHiveObj::flushWriteThrough(const std::vector<u32>& dirtyHbins) {
  bool ok = true;
  for (u32 index : dirtyHbins) {
    if (Checkpoint::writeRuns(*_file, dirtyRuns({index}), _log.pageRelease()))
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
