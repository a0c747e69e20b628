#include "hive/checkpoint.h"

#include <algorithm>
#include <cstring>

#include "hive/format/errors.h"
#include "platform/error.h"

namespace Libraries::Files::Hive {

u32 Checkpoint::chainBase(u32 index) const {
  u32 base = std::max(L32(_diskHeader + hive_header::OFS_PRIMARY_SEQ),
                      L32(_diskHeader + hive_header::OFS_SECONDARY_SEQ));
  for (u32 i = 0; i < 3; ++i) {
    const LogFileInfo& other = _log.logFile(i);
    if (i == index || !other.present()) continue;
    base = std::max({base, other.primarySequence() + 1, other.secondarySequence() + 1});
  }
  return base;
}

bool Checkpoint::run(Interfaces::Stripe& file, const std::vector<LogPage>& runs, u64 now) {
  LogFileInfo* log = _log.flushLog();
  const u32 index = _log.indexOf(log);
  if (_open && _logIndex != index) _open = false;  // a log made since
  if (!_open) {
    _base = chainBase(index);
    _sequence = _base;
    _logIndex = index;
  }
  const u32 sequence = _sequence + 1;
  W64(_header + hive_header::OFS_TIMESTAMP, now);

  // 1. The pages to the log. Until the base block says dirty, nothing
  //    reads the log, so a failure here leaves the file as it was.
  if (log) {
    const u64 next = _log.writeCheckpointEntry(*log, runs, sequence, _open ? _next : 0);
    if (next == 0) return false;
    _next = next;
    _open = true;
    _sequence = sequence;
  }
  // 2. The base block as the file holds it, marked dirty.
  u8 block[hive_header::SIZE];
  std::memcpy(block, _diskHeader, sizeof block);
  if (!writeBaseBlock(file, block, sequence, _base) || !file.sync()) {
    HK_LOG(hiveLog, 4) << "Failed to mark the hive dirty before writing it; error: "
                       << Log::hex(Error::get());
    return false;
  }
  _open = true;
  _sequence = sequence;
  // 3. The hbins in place.
  if (!writeRuns(file, runs, _log.pageRelease())) return false;
  if (!file.sync()) {
    HK_LOG(hiveLog, 4) << "Failed to sync the hive's hbins; error: " << Log::hex(Error::get());
    return false;
  }
  // 4. Clean, with the new length and time.
  if (!writeBaseBlock(file, _header, sequence, sequence)) {
    HK_LOG(hiveLog, 4) << "Failed to mark the hive clean after writing it; error: " << Log::hex(Error::get());
    return false;
  }
  std::memcpy(_diskHeader, _header, hive_header::SIZE);
  _open = false;
  return true;
}

bool Checkpoint::writeBaseBlock(Interfaces::Stripe& file, u8* block, u32 primary, u32 secondary) {
  W32(block + hive_header::OFS_PRIMARY_SEQ, primary);
  W32(block + hive_header::OFS_SECONDARY_SEQ, secondary);
  W32(block + hive_header::OFS_CHECKSUM, calculateHeaderChecksum(block));
  return file.writeAt(0, block, hive_header::SIZE) == hive_header::SIZE;
}

bool Checkpoint::writeRuns(Interfaces::Stripe& file, const std::vector<LogPage>& runs,
                           const LogEngine::PageRelease& release) {
  for (const LogPage& run : runs) {
    u64 filePosition = u64{hive_header::SIZE} + run.offset;
    const bool written = LogEngine::eachPiece(run, release, [&file, &filePosition](const u8* data, u64 n) {
      if (file.writeAt(filePosition, data, n) != n) return false;
      filePosition += n;
      return true;
    });
    if (!written) {
      HK_LOG(hiveLog, 4) << "Failed to flush hbins at offset " << run.offset << ", " << run.length
                         << " bytes; error: " << Log::hex(Error::get());
      return false;
    }
  }
  return true;
}

}  // namespace Libraries::Files::Hive
