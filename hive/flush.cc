// Flushing: the hbins changed since the last flush reach the hive file (or,
// in a log mode, the current log) here, and only here (write-through mode
// aside), and the base block is rewritten when the file grows.
#include <cstring>
#include <vector>

#include "hive/registry_hive.h"
#include "platform/error.h"

namespace Libraries::Files::Hive {

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
  // Read-only and unsafe hives have nothing to write. In write-through mode
  // an hbin is dirty only when writing it through failed, and the base
  // block only when writing it on growth failed: both are written again
  // here.
  if (_mode & (modeReadOnly | modeUnsafe)) return true;
  std::vector<u32> dirty;
  for (u32 i = 0; i < _dirty.size(); ++i)
    if (_dirty[i]) dirty.push_back(i);
  if (_logMode != LogMode::None) return dirty.empty() || flushToLog(dirty);
  if (dirty.empty() && std::memcmp(_diskHeader, _header, hive_header::SIZE) == 0) return true;

  // Hbins the file's base block does not count yet go first, then the base
  // block that counts them, then the rest: if any of the first two steps
  // fails, the file stays the hive it was, and no old hbin is written that
  // could point into hbins the file does not have.
  const u32 onDisk = L32(_diskHeader + hive_header::OFS_LENGTH);
  auto writeHbins = [&](bool beyondDisk) {
    bool ok = true;
    for (u32 index : dirty) {
      const HbinEntry& hbin = _hbins[index];
      if ((hbin.offset >= onDisk) != beyondDisk) continue;
      const u64 filePosition = u64{HIVE_HEADER_SIZE} + hbin.offset;
      if (_stripe->seek(filePosition) != filePosition) {
        HK_LOG(hiveLog, 4) << "Failed to seek to data position: " << filePosition;
        ok = false;
        continue;
      }
      if (_stripe->write(hbinData(index), hbin.size) != hbin.size) {
        HK_LOG(hiveLog, 4) << "Failed to flush hbin: " << index << " offset: " << hbin.offset
                           << "; error: " << Log::hex(Error::get());
        ok = false;
        continue;
      }
      _dirty[index] = 0;
    }
    return ok;
  };
  if (!writeHbins(true)) return false;
  if (std::memcmp(_diskHeader, _header, hive_header::SIZE) != 0 && !writeHeader()) {
    HK_LOG(hiveLog, 4) << "Failed to write header on resize";
    return false;
  }
  return writeHbins(false);
}

// In a log mode the dirty hbins become one entry of the current log, which
// maps them so that later reads of those hbins see the log's copy; the hive
// file is not touched.
bool RegistryHiveObj::flushToLog(const std::vector<u32>& dirtyHbins) {
  if (!currentLogFile()) {
    HK_LOG(hiveLog, 4) << "No log file applicable despite the log mode saying so";
    return false;
  }
  std::vector<LogPage> pages;
  pages.reserve(dirtyHbins.size());
  for (u32 index : dirtyHbins) {
    const HbinEntry& hbin = _hbins[index];
    pages.push_back(LogPage{hbin.offset, hbin.size, hbinData(index)});
  }
  if (!appendLogEntry(pages)) return false;
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
