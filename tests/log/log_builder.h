// Transaction logs laid out byte by byte for tests, beside a hive image
// from HiveBuilder: new-format logs (a type-6 header and "HvLE" entries with
// their Marvin32 hashes) and old-format logs (a "DIRT" vector and pages).
#pragma once

#include <algorithm>
#include <cstring>
#include <vector>

#include "hive/format/format.h"
#include "hive/log/marvin32.h"

namespace hivekit::test {

using Platform::u32;
using Platform::u8;

// A range of the hive bins data as a log carries it.
struct LoggedPage {
  u32 offset;  // in the hive bins data
  std::vector<u8> data;
};

// The log header: the hive's base block with its own sequence numbers and
// file type, checksummed.
inline std::vector<u8> logHeader(const std::vector<u8>& hive, u32 sequence, u32 fileType) {
  namespace H = Libraries::Files::Hive;
  std::vector<u8> header(hive.begin(), hive.begin() + H::hive_header::BASE_SIZE);
  Platform::W32(header.data() + H::hive_header::OFS_PRIMARY_SEQ, sequence);
  Platform::W32(header.data() + H::hive_header::OFS_SECONDARY_SEQ, sequence);
  Platform::W32(header.data() + H::hive_header::OFS_TYPE, fileType);
  Platform::W32(header.data() + H::hive_header::OFS_CHECKSUM, H::calculateHeaderChecksum(header.data()));
  return header;
}

// A new-format log; entries are appended on 512-byte boundaries.
class LogBuilder {
 public:
  LogBuilder(const std::vector<u8>& hive, u32 sequence) : bytes(logHeader(hive, sequence, 6)) {}

  // Appends an entry and returns its position in the log.
  size_t entry(u32 sequence, u32 hiveLength, const std::vector<LoggedPage>& pages, u32 flags = 0) {
    namespace H = Libraries::Files::Hive;
    using E = H::hive_log_entry;
    size_t used = E::SIZE + 8 * pages.size();
    for (const LoggedPage& p : pages) used += p.data.size();
    std::vector<u8> e((used + 511) & ~size_t{511}, 0);
    std::memcpy(e.data(), "HvLE", 4);
    Platform::W32(&e[E::OFS_SIZE], static_cast<u32>(e.size()));
    Platform::W32(&e[E::OFS_FLAGS], flags);
    Platform::W32(&e[E::OFS_SEQ], sequence);
    Platform::W32(&e[E::OFS_LENGTH], hiveLength);
    Platform::W32(&e[E::OFS_COUNT], static_cast<u32>(pages.size()));
    size_t at = E::SIZE + 8 * pages.size();
    for (size_t i = 0; i < pages.size(); ++i) {
      Platform::W32(&e[E::SIZE + 8 * i], pages[i].offset);
      Platform::W32(&e[E::SIZE + 8 * i + 4], static_cast<u32>(pages[i].data.size()));
      std::copy(pages[i].data.begin(), pages[i].data.end(), e.begin() + at);
      at += pages[i].data.size();
    }
    Platform::W64(&e[E::OFS_HASH1], H::marvin32(&e[E::SIZE], e.size() - E::SIZE));
    Platform::W64(&e[E::OFS_HASH2], H::marvin32(e.data(), 32));
    const size_t position = bytes.size();
    bytes.insert(bytes.end(), e.begin(), e.end());
    return position;
  }

  std::vector<u8> bytes;
};

// The log of a builder's image whose base block says dirty (sequence
// numbers 3/2): one entry carrying its first hbin. Opened writable with it,
// the hive stays in log mode and every flush appends an entry.
inline std::vector<u8> firstPageLog(const std::vector<u8>& hive) {
  LogBuilder log(hive, 2);
  log.entry(2, static_cast<u32>(hive.size() - 4096),
            {LoggedPage{0, {hive.begin() + 4096, hive.begin() + 8192}}});
  return log.bytes;
}

// Whether the entry at `position` carries the hashes of its bytes.
inline bool entryHashesValid(const std::vector<u8>& log, size_t position) {
  namespace H = Libraries::Files::Hive;
  using E = H::hive_log_entry;
  if (position + E::SIZE > log.size()) return false;
  const u8* e = log.data() + position;
  const u32 size = Platform::L32(e + E::OFS_SIZE);
  if (size < E::SIZE || position + size > log.size()) return false;
  return Platform::L64(e + E::OFS_HASH1) == H::marvin32(e + E::SIZE, size - E::SIZE) &&
         Platform::L64(e + E::OFS_HASH2) == H::marvin32(e, 32);
}

// An old-format log (file type 1) holding whole 4096-byte pages, given in
// ascending order.
inline std::vector<u8> oldFormatLog(const std::vector<u8>& hive, u32 sequence,
                                    const std::vector<LoggedPage>& pages) {
  std::vector<u8> log = logHeader(hive, sequence, 1);
  const u32 length = Platform::L32(hive.data() + Libraries::Files::Hive::hive_header::OFS_LENGTH);
  std::vector<u8> vector(((((length >> 9) + 7) >> 3) + 0x203) & ~0x1FFu, 0);
  std::memcpy(vector.data(), "DIRT", 4);
  for (const LoggedPage& p : pages) vector[4 + p.offset / 4096] = 0xFF;
  log.insert(log.end(), vector.begin(), vector.end());
  for (const LoggedPage& p : pages) log.insert(log.end(), p.data.begin(), p.data.end());
  return log;
}

}  // namespace hivekit::test
