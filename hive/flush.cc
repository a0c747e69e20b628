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
  const std::vector<u32> dirty = _store.dirtyHbins();
  if (logMode() != LogMode::None) return dirty.empty() || flushToLog(dirty);
  if (_mode & modeWriteThrough) return flushWriteThrough(dirty);
  if (dirty.empty() && !_checkpoint.open() && std::memcmp(_diskHeader, _header, hive_header::SIZE) == 0)
    return true;
  return checkpoint(dirty);
}

bool RegistryHiveObj::checkpoint(const std::vector<u32>& dirtyHbins) {
  if (!_checkpoint.run(*_file, _store.dirtyRuns(dirtyHbins), now())) return false;
  _store.clearDirty(dirtyHbins);
  return true;
}

// Write-through mode has written every change as it was made; what is
// dirty here is what that failed to write. Such a hive is not protected
// from a crash in the middle of a change: it is written as changes come.
bool RegistryHiveObj::flushWriteThrough(const std::vector<u32>& dirtyHbins) {
  bool ok = true;
  for (u32 index : dirtyHbins) {
    if (Checkpoint::writeRuns(*_file, _store.dirtyRuns({index}), _log.pageRelease()))
      _store.clearDirty({index});
    else
      ok = false;
  }
  if (ok && std::memcmp(_diskHeader, _header, hive_header::SIZE) != 0 && !_store.writeHeader()) {
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
  if (!_log.appendLogEntry(_store.dirtyRuns(dirtyHbins))) return false;
  _store.clearDirty(dirtyHbins);
  return true;
}

}  // namespace Libraries::Files::Hive
