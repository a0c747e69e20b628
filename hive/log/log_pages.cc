#include "hive/log/log_pages.h"

#include <algorithm>

namespace Libraries::Files::Hive {

bool forEachEntryRange(const LogFileInfo& log, const LogEntryInfo& entry,
                       const std::function<bool(const LoggedRange&)>& visit) {
  if (!log.stripe) return false;
  const u32 count = entry.pageCount();
  const u64 size = entry.size();
  const u64 refsEnd = hive_log_entry::SIZE + 8ull * count;
  const u64 logSize = log.stripe->elementCount();
  if (refsEnd > size || entry.position > logSize || size > logSize - entry.position) return false;
  // References are read in pieces, so a hostile count costs no memory.
  constexpr u32 PIECE = 512;
  u8 refs[8 * PIECE];
  u64 dataPosition = entry.position + refsEnd;
  const u64 entryEnd = entry.position + size;
  for (u32 i = 0; i < count; ++i) {
    const u32 k = i % PIECE;
    if (k == 0) {
      const u64 n = 8ull * std::min<u32>(PIECE, count - i);
      if (log.stripe->readAt(entry.position + hive_log_entry::SIZE + 8ull * i, refs, n) != n) return false;
    }
    const u32 offset = L32(refs + 8 * k), length = L32(refs + 8 * k + 4);
    if (offset % hive_hbin::PAGE != 0 || length % hive_hbin::PAGE != 0 || length > entryEnd - dataPosition ||
        u64{offset} + length > 0xffffffffull)
      return false;
    if (length != 0 && !visit({offset, length, dataPosition})) return true;
    dataPosition += length;
  }
  return true;
}

bool forEachDirtyRun(const LogFileInfo& log, const std::function<bool(const LoggedRange&)>& visit) {
  if (!log.stripe) return false;
  const u64 logSize = log.stripe->elementCount();
  for (const DirtyPage& page : log.pages) {
    u64 position = page.position;
    for (u32 sector = 0; sector < 8;) {
      if (!(page.mask & (1u << sector))) {
        ++sector;
        continue;
      }
      u32 run = 0;
      while (sector + run < 8 && (page.mask & (1u << (sector + run)))) ++run;
      const u32 length = run * 512;
      if (position > logSize || logSize - position < length) return false;
      if (!visit({page.offset + sector * 512, length, position})) return true;
      position += length;
      sector += run;
    }
  }
  return true;
}

}  // namespace Libraries::Files::Hive
