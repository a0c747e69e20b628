// Fuzz target: a hive image from an untrusted source.
//
// Input: one selector byte, then the image. The selector's low bits choose
// how the hive is opened:
//   0 read-only, 1 read-only accepting a dirty hive, 2 read-only unsafe,
//   3 writable (then a few changes driven by the image's last bytes, a
//   flush into the in-memory stripe, and a read-only walk of the result);
// bit 2 adds linear fallback in subkey search, bits 3-4 pick the codepage;
// read-only: bits 5-6 pick the check after the walk: 0 decodes every
// security descriptor, 1 exports the hive as registry text (bits 7 and 2
// pick the options), 2 scans for deleted records, 3 compares the hive with
// itself through the public diff;
// writable: bit 5 walks the hive again after the flush; bits 5-6 pick the
// check of the reopened result: 2 compares it with itself through the
// public diff (a hive the writer made reaches more of the diff than a
// damaged one), 3 scans it for deleted records and decodes its
// descriptors, 0-1 walk it only (either check costs more than the rest of
// a writable run).
#include <cstddef>
#include <cstdint>
#include <vector>

#include "fuzz/fuzz_walk.h"
#include "hive/regfile/reg_file_util.h"
#include "platform/memory_stripe.h"

using namespace hivekit::fuzz;
using Libraries::Files::Hive::HiveCodepage;
using Platform::MemoryStripe;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 1) return 0;
  const u8 selector = data[0];
  std::vector<u8> image(data + 1, data + size);
  static const u32 kModes[] = {0x1, 0x11, 0x5, 0x0};
  u32 mode = kModes[selector & 3];
  if (selector & 4) mode |= 0x20;
  const HiveCodepage codepage = static_cast<HiveCodepage>((selector >> 3) & 3);

  if (mode & 0x1) {
    Ref<MemoryStripe> stripe = MemoryStripe::create(std::move(image));
    Ref<HiveFile> hive = HiveFile::open(stripe, mode, codepage, {});
    if (!hive) return 0;
    // One costly check per run at most: a run costs less, and more runs
    // cover more.
    const u32 check = (selector >> 5) & 3;
    WalkLimits limits;
    limits.maxDiffed = check == 3 ? limits.maxDiffed : 0;
    limits.wholeHive = check == 0 || check == 2;
    limits.deletedScan = check == 2;
    walkHive(hive, limits);
    // What `hivekit export` does with a damaged hive.
    if (check == 1) {
      using Libraries::Files::Hive::RegFileUtil;
      static const RegFileUtil::ExportOptions kOptions[] = {0, RegFileUtil::BinaryOnly, RegFileUtil::Raw,
                                                            RegFileUtil::BinaryOnly | RegFileUtil::Raw};
      Ref<MemoryStripe> text = MemoryStripe::create();
      (void)RegFileUtil::exportRegFile(hive->root(), text, String::create("HKEY_X"),
                                       kOptions[(selector >> 7) | ((selector >> 1) & 2)],
                                       [](const std::string&) {});
    }
    return 0;
  }

  // Writable: the operations come from the tail of the input, so the same
  // bytes are both image and script (the image ignores trailing bytes past
  // its hbins, and damaging the tail is just another damaged hive).
  const size_t scriptLength = image.size() < 64 ? image.size() : 64;
  ByteSource ops(data + size - scriptLength, scriptLength);
  Ref<MemoryStripe> stripe = MemoryStripe::create(std::move(image));
  {
    Ref<HiveFile> hive = HiveFile::open(stripe, mode, codepage, {});
    if (!hive) return 0;
    // The whole-hive checks (deleted-record scan, descriptors) run on the
    // reopened result only: the read-only modes do them on damaged input.
    walkHive(hive, {1000, 4096, 1u << 16, 0, false});
    mutateHive(hive, ops, 24);
    (void)hive->flush();
    if (selector & 0x20) walkHive(hive, {2000, 4096, 1u << 16, 0, false});
  }
  // What a writer left behind must open again (or be refused cleanly).
  Ref<MemoryStripe> again = MemoryStripe::create(stripe->bytes());
  if (Ref<HiveFile> reopened = HiveFile::open(again, 0x1, codepage, {})) {
    const u32 check = (selector >> 5) & 3;  // 2: diff, 3: deleted records
    walkHive(reopened, {2000, 4096, 1u << 16, check == 2 ? u64{1} << 20 : 0, check == 3, check == 3});
  }
  return 0;
}
