// Fuzz target: transaction logs from an untrusted source, beside a dirty
// hive: by default a small valid one made here, or one from the input.
//
// Input:
//   byte 0    open mode (bits 0-1: read-only, read-only accepting dirty,
//             read-only unsafe, writable) and repairs (bit 2: give each log
//             a base block that passes the checks, bit 3: give each entry a
//             valid signature, size, sequence and header hash, bit 4: hand
//             the first log also as the primary .LOG); bit 5: the hive is
//             part of the input
//   bytes 1-2 length of the LOG1 part (little-endian)
//   bit 5 set: bytes 3-5 length of the hive part (little-endian), which
//             comes before LOG1
//   then LOG1, and the rest is LOG2
//   bit 6    scan the last hive of the run for deleted records and the
//            versions its logs hold, and decode its descriptors (the
//            costliest checks: half of the runs skip them)
//   bit 7    the made hive holds a db value spread over several hbins
//            (several times the size: most runs take the small one)
// The repairs let the fuzzer reach entry replay instead of dying on the
// checksum; without them the raw bytes are tried as they are. A read-only
// open that succeeds also writes the recovered copy (what `hivekit
// recover` does) and walks it.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <vector>

#include "fuzz/fuzz_hives.h"
#include "fuzz/fuzz_walk.h"
#include "hive/format/format.h"
#include "hive/log/marvin32.h"
#include "hive/registry_hive.h"
#include "platform/memory_stripe.h"

using namespace hivekit::fuzz;
namespace Hive = Libraries::Files::Hive;
using Hive::hive_header;
using Hive::hive_log_entry;
using Platform::MemoryStripe;

namespace {

// Makes the log's base block pass the checks against the hive's: signature,
// version, file name, a known type, sequence numbers at or after the hive's
// and a matching checksum. Keeps the fuzzed choice of type and sequence.
void repairHeader(std::vector<u8>& log, const std::vector<u8>& hive) {
  if (log.size() < 512) log.resize(512, 0);
  u8* h = log.data();
  std::memcpy(h, "regf", 4);
  const u32 seq = 1 + (Platform::L32(h + hive_header::OFS_PRIMARY_SEQ) & 3);
  Platform::W32(h + hive_header::OFS_PRIMARY_SEQ, seq);
  Platform::W32(h + hive_header::OFS_SECONDARY_SEQ, seq);
  std::memcpy(h + hive_header::OFS_MAJOR, hive.data() + hive_header::OFS_MAJOR, 8);
  const u32 type = Platform::L32(h + hive_header::OFS_TYPE);
  if (type != 1 && type != 2 && type != 6) Platform::W32(h + hive_header::OFS_TYPE, 6);
  std::memcpy(h + hive_header::OFS_FILENAME, hive.data() + hive_header::OFS_FILENAME, 64);
  Platform::W32(h + hive_header::OFS_CHECKSUM, Hive::calculateHeaderChecksum(h));
  if (Platform::L32(h + hive_header::OFS_TYPE) != 6 && log.size() >= 516) std::memcpy(h + 512, "DIRT", 4);
}

// Walks the entries the way the reader does and makes each one acceptable:
// signature, a size that keeps it inside the log, the next sequence number
// and the hash over its first 32 bytes. The page references stay fuzzed.
void repairEntries(std::vector<u8>& log) {
  if (log.size() < 512 || Platform::L32(log.data() + hive_header::OFS_TYPE) != 6) return;
  u32 sequence = Platform::L32(log.data() + hive_header::OFS_SECONDARY_SEQ);
  u64 p = 512;
  while (log.size() > p && log.size() - p > 512) {
    u8* e = log.data() + p;
    std::memcpy(e, "HvLE", 4);
    const u64 room = log.size() - p;
    u64 size = Platform::L32(e + hive_log_entry::OFS_SIZE);
    if (size < hive_log_entry::SIZE || size > room)
      size = hive_log_entry::SIZE + size % (room - hive_log_entry::SIZE + 1);
    Platform::W32(e + hive_log_entry::OFS_SIZE, static_cast<u32>(size));
    Platform::W32(e + hive_log_entry::OFS_SEQ, sequence++);
    Platform::W64(e + hive_log_entry::OFS_HASH2, Hive::marvin32(e, 32));
    p += (size + 511) & ~511ull;
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 3) return 0;
  const u8 flags = data[0];
  size_t split = data[1] | (static_cast<size_t>(data[2]) << 8);
  data += 3;
  size -= 3;
  std::vector<u8> ownHive;
  if (flags & 32) {
    if (size < 3) return 0;
    size_t length = data[0] | (static_cast<size_t>(data[1]) << 8) | (static_cast<size_t>(data[2]) << 16);
    data += 3;
    size -= 3;
    if (length > size) length = size;
    ownHive.assign(data, data + length);
    data += length;
    size -= length;
  }
  if (split > size) split = size;
  std::vector<u8> log1(data, data + split), log2(data + split, data + size);

  const std::vector<u8>& hive = (flags & 32) ? ownHive : dirtyHive((flags & 128) != 0);
  if (flags & 4) {
    // The checks compare against the hive's base block; a short hive
    // compares against zeros.
    std::vector<u8> base(hive);
    if (base.size() < 512) base.resize(512, 0);
    repairHeader(log1, base);
    repairHeader(log2, base);
  }
  if (flags & 8) {
    repairEntries(log1);
    repairEntries(log2);
  }
  static const u32 kModes[] = {0x1, 0x11, 0x5, 0x0};
  const u32 mode = kModes[flags & 3];
  const bool scan = (flags & 64) != 0;

  Ref<MemoryStripe> file = MemoryStripe::create(hive);
  HiveFile::LogFiles logs;
  logs.log1 = log1.empty() ? nullptr : MemoryStripe::create(log1);
  logs.log2 = log2.empty() ? nullptr : MemoryStripe::create(log2);
  if (flags & 16) logs.primary = MemoryStripe::create(log1);
  logs.primaryName = String::create("fuzz.LOG");
  logs.log1Name = String::create("fuzz.LOG1");
  logs.log2Name = String::create("fuzz.LOG2");

  {
    Ref<HiveFile> h = HiveFile::open(file, logs, mode, Hive::latin1, {});
    if (!h) return 0;
    // The whole-hive checks at most once per run: on the hive as opened
    // when that is all there is, else on what the writer left.
    walkHive(h, {3000, 4096, 1u << 16, 0, scan && (mode & 0x1) != 0});
    if (mode & 0x1) {
      Ref<MemoryStripe> copy = MemoryStripe::create();
      Ref<Hive::RegistryHiveObj> obj = h.cast<Hive::RegistryHiveObj>();
      // The copy keeps the records where they were, so a walk of all of it
      // reads what the walk above read: it must open, and its top is read.
      if (obj && obj->writeRecoveredCopy(copy)) {
        Ref<HiveFile> recovered = HiveFile::open(MemoryStripe::create(copy->bytes()), 0x1, Hive::latin1, {});
        if (recovered) walkHive(recovered, {100, 4096, 1u << 16, 0, false});
      }
      return 0;
    }
    // Writes through the log: appends entries behind the replayed ones.
    ByteSource ops(data, size < 48 ? size : 48);
    mutateHive(h, ops, 16);
    (void)h->flush();
  }
  // The file and logs as the writer left them must open again.
  Ref<HiveFile> again = HiveFile::open(MemoryStripe::create(file->bytes()), logs, 0x1, Hive::latin1, {});
  if (again) walkHive(again, {3000, 4096, 1u << 16, 0, scan});
  return 0;
}
