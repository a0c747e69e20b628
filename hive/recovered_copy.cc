// A clean copy of a hive as the library reads it: what `hivekit recover`
// writes, so that a dirty hive can be handed to any reader without its logs
// and without touching the original files.
#include <algorithm>
#include <vector>

#include "hive/registry_hive.h"
#include "platform/error.h"

namespace Libraries::Files::Hive {

bool RegistryHiveObj::writeRecoveredCopy(Ref<Interfaces::Stripe> target) {
  Mon::Lock lock(_mon);
  if (!usableStripe(target.get(), "No stripe given for the recovered copy")) return false;
  const bool own = target == _file || target.get() == _stripe.get() || _log.isLog(target.get());
  if (own) {
    HK_LOG(hiveLog, 4) << "The recovered copy cannot overwrite the hive or one of its logs";
    Error::set(Errors::INVALID_ARGUMENT);
    return false;
  }
  if (target->elementCount() != 0) {
    HK_LOG(hiveLog, 4) << "The recovered copy needs an empty stripe, size: " << target->elementCount();
    Error::set(Errors::INVALID_ARGUMENT);
    return false;
  }

  // Both sequence numbers become the highest the hive and its replayed
  // entries have used: one past the last new-format entry applied (which is
  // what Windows writes after recovering a hive), else the primary file's
  // primary number. The logs of the original are then stale beside the
  // copy, and whatever writes the copy next goes on from there.
  u64 sequence =
      std::max(L32(_header + hive_header::OFS_PRIMARY_SEQ), L32(_header + hive_header::OFS_SECONDARY_SEQ));
  if (appliedLog() != NO_LOG && logFile(appliedLog()).newFormat())
    sequence = std::max<u64>(sequence, u64{appliedSequence()} + 1);
  sequence = std::min<u64>(sequence, 0xffffffffu);
  u8 block[hive_header::SIZE];
  std::copy(_header, _header + hive_header::SIZE, block);
  W32(block + hive_header::OFS_PRIMARY_SEQ, static_cast<u32>(sequence));
  W32(block + hive_header::OFS_SECONDARY_SEQ, static_cast<u32>(sequence));
  W32(block + hive_header::OFS_TYPE, 0);
  W32(block + hive_header::OFS_CHECKSUM, calculateHeaderChecksum(block));
  if (target->writeAt(0, block, sizeof block) != sizeof block) {
    HK_LOG(hiveLog, 4) << "Failed to write the base block of the recovered copy; error: "
                       << Log::hex(Error::get());
    return false;
  }

  // The hive bins data as the hive reads it now: the resident hbins (the
  // log's pages over the file's, and changes not yet flushed); in unsafe
  // mode, as the stripe reads it.
  constexpr u32 CHUNK = 1 << 20;
  const u32 length = hiveLength();
  const u8* bins = _store.bins();
  std::vector<u8> buffer(bins ? 0 : std::min(CHUNK, length));
  for (u32 done = 0; done < length;) {
    const u32 n = std::min(CHUNK, length - done);
    const u64 position = u64{HIVE_HEADER_SIZE} + done;
    const u8* bytes = bins ? bins + done : buffer.data();
    if (!bins && _stripe->readAt(position, buffer.data(), n) != n) {
      HK_LOG(hiveLog, 4) << "Failed to read hive data at " << position << " of size " << n
                         << " for the recovered copy; error: " << Log::hex(Error::get());
      return false;
    }
    if (target->writeAt(position, bytes, n) != n) {
      HK_LOG(hiveLog, 4) << "Failed to write the recovered copy at " << position << " of size " << n
                         << "; error: " << Log::hex(Error::get());
      return false;
    }
    done += n;
  }
  return true;
}

}  // namespace Libraries::Files::Hive
