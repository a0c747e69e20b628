// Fuzz target: registry text (.reg) from an untrusted source.
//
// Input: one selector byte, then the text as it would stand in a file
// (UTF-16 with or without a byte order mark, or UTF-8). The selector picks
// the prefix sections must start with (bits 0-1), the export options (bits
// 2-3), the hive version (bit 4) and whether the hive starts with a few keys
// for the text to delete or overwrite (bit 5); bit 6 reads the text as
// escaped. The text is imported and the hive exported; without bit 7 the
// hive is also walked. (Importing the export again into a fresh hive reached
// no code the first import does not, at a tenth of each run.)
#include <cstddef>
#include <cstdint>
#include <vector>

#include "fuzz/fuzz_walk.h"
#include "hive/regfile/reg_file_util.h"
#include "platform/memory_stripe.h"
#include "tests/support/fault_stripe.h"

using namespace hivekit::fuzz;
namespace Hive = Libraries::Files::Hive;
using Hive::RegFileUtil;
using Platform::MemoryStripe;

namespace {

void discard(const std::string&) {}

void populate(const Ref<HiveFile>& hive) {
  Ref<Key> root = hive->root();
  Ref<Key> a = root->createKey(String::create("A"));
  if (!a) __builtin_trap();
  Ref<Key> b = a->createKey(String::create("B"));
  if (Ref<Value> v = a->createValue(String::create("s"), 1)) v->setString(String::create("x"));
  if (b) {
    if (Ref<Value> v = b->createValue(String::create(""), 4)) v->setNumber(1);
  }
}

// The starting hives (empty or populated, version 1.3 or 1.5), made once;
// every run opens a copy, so that no run pays for building them.
const std::vector<u8>& startImage(u32 minor, bool populated) {
  static std::vector<u8> images[2][2];
  std::vector<u8>& image = images[minor == 3][populated];
  if (!image.empty()) return image;
  Ref<MemoryStripe> stripe = MemoryStripe::create();
  {
    Ref<HiveFile> hive = HiveFile::create(stripe, minor, Hive::latin1, {});
    if (!hive) __builtin_trap();
    if (populated) populate(hive);
    if (!hive->flush()) __builtin_trap();
  }
  image = stripe->bytes();
  return image;
}

Ref<HiveFile> openCopy(u32 minor, bool populated) {
  return HiveFile::open(MemoryStripe::create(startImage(minor, populated)), 0, Hive::latin1, {});
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 1) return 0;
  const u8 selector = data[0];
  static const char* const kPrefixes[] = {"HKEY_LOCAL_MACHINE/SOFTWARE", "", "A", "HKEY_CURRENT_USER"};
  Ref<String> prefix = String::create(kPrefixes[selector & 3]);
  const u32 options = (selector >> 2) & 3;
  const u32 minor = (selector & 16) ? 3 : 5;

  Ref<HiveFile> hive = openCopy(minor, (selector & 32) != 0);
  if (!hive) __builtin_trap();
  Ref<MemoryStripe> source = MemoryStripe::create(std::vector<u8>(data + 1, data + size));
  (void)RegFileUtil::importRegFile(hive, source, prefix, discard, (selector & 64) != 0);
  // The top of the tree only, through every accessor, on half the runs
  // (the export below reads all of it): the whole-hive checks (deleted
  // records, descriptors) cost a third of a run here, and the hive targets
  // reach that code on damaged images, which an import never writes.
  if (!(selector & 128)) walkHive(hive, {100, 4096, 1u << 16, 0, false});

  // The text of a deep tree grows with the square of its depth (every
  // section names its whole path), so a few KiB of input can ask for
  // megabytes: the text stops at 64 KiB, as on a full disk, where the export
  // must fail cleanly.
  Ref<MemoryStripe> exported = MemoryStripe::create();
  Ref<hivekit::test::FaultStripe> target = hivekit::test::FaultStripe::wrap(exported);
  target->limitSize(64u << 10);
  (void)RegFileUtil::exportRegFile(hive->root(), target, prefix, options, discard);
  return 0;
}
