// Security descriptors: the walk over the circular sk list, which must end
// on any damage, and same-length rewrites of one descriptor.
#include "hive/security/security_descriptor.h"

#include <gtest/gtest.h>

#include <vector>

#include "platform/memory_stripe.h"
#include "tests/support/hive_builder.h"

namespace hivekit::test {
namespace {

namespace Hive = Libraries::Files::Hive;
using Hive::hive_record_sk;
using Hive::SecurityDescriptorObj;
using Interfaces::Config::Hive::SecurityDescriptor;
using Interfaces::Config::Hive::SecurityDescriptorIterator;
using Platform::Ref;
using Platform::W32;

// The root's sk record (where the walk starts) linked with two more into a
// ring first -> second -> third -> first; `patch` damages it before the open.
struct Ring {
  HiveBuilder b;
  u32 root, first, second, third;
  Ring() {
    root = b.root();
    first = Platform::L32(b.at(root) + Hive::hive_record_nk::OFS_SK);
    second = b.writeSk({});
    third = b.writeSk({});
    link(first, second, third);
    link(second, third, first);
    link(third, first, second);
  }
  void link(u32 sk, u32 flink, u32 blink) {
    W32(b.at(sk) + hive_record_sk::OFS_FLINK, flink);
    W32(b.at(sk) + hive_record_sk::OFS_BLINK, blink);
  }
  Ref<Hive::HiveFile> open(u32 mode = Hive::modeReadOnly) {
    return Hive::HiveFile::open(Platform::MemoryStripe::create(b.build()), mode, Hive::latin1, {});
  }
};

// Offsets of the records the walk yields (at most 16).
std::vector<u32> walk(const Ref<SecurityDescriptorIterator>& it) {
  std::vector<u32> out;
  while (out.size() < 16) {
    Ref<SecurityDescriptor> sd = it->next();
    if (!sd) break;
    out.push_back(sd.cast<SecurityDescriptorObj>()->offset());
  }
  return out;
}

TEST(SecurityDescriptorIterator, SelfLinkedRecordGivesOneDescriptorAndRewinds) {
  HiveBuilder b;
  b.key(b.root(), u"A");
  Ref<Hive::HiveFile> hive =
      Hive::HiveFile::open(Platform::MemoryStripe::create(b.build()), Hive::modeReadOnly, Hive::latin1, {});
  ASSERT_TRUE(hive);
  Ref<SecurityDescriptorIterator> it = hive->securityDescriptorIterator();
  Ref<SecurityDescriptor> sd = it->next();
  ASSERT_TRUE(sd);
  EXPECT_EQ(sd->get(), HiveBuilder::sampleDescriptor());
  EXPECT_EQ(sd.cast<SecurityDescriptorObj>()->referenceCount(), 2u);  // the root and A
  EXPECT_FALSE(it->next());
  EXPECT_FALSE(it->next());
  EXPECT_TRUE(it->rewind());
  EXPECT_EQ(walk(it).size(), 1u);
}

TEST(SecurityDescriptorIterator, WalksTheRingOnceAndStopsAtDamage) {
  Ring intact;
  EXPECT_EQ(walk(intact.open()->securityDescriptorIterator()),
            (std::vector<u32>{intact.first, intact.second, intact.third}));

  // Each damage at the second record: it is still returned when it loads,
  // and the walk ends there.
  Ring badBlink, zeroFlink, notSk;
  W32(badBlink.b.at(badBlink.second) + hive_record_sk::OFS_BLINK, badBlink.third);
  W32(zeroFlink.b.at(zeroFlink.second) + hive_record_sk::OFS_FLINK, 0);
  W32(notSk.b.at(notSk.second) + hive_record_sk::OFS_FLINK, notSk.root);
  for (Ring* r : {&badBlink, &zeroFlink, &notSk})
    EXPECT_EQ(walk(r->open()->securityDescriptorIterator()), (std::vector<u32>{r->first, r->second}));
}

TEST(SecurityDescriptor, GetAndSetKeepTheStoredLength) {
  Ring r;
  W32(r.b.at(r.third) + hive_record_sk::OFS_LENGTH, 0xFFFFFFF0u);  // far beyond its cell
  Ref<Hive::HiveFile> hive = r.open(0);
  ASSERT_TRUE(hive);
  Ref<Hive::RegistryHiveObj> obj = hive.cast<Hive::RegistryHiveObj>();

  SecurityDescriptorObj broken(obj, r.third);
  EXPECT_TRUE(broken.get().empty());
  const u8 byte = 0;
  EXPECT_FALSE(broken.set(&byte, 1));

  SecurityDescriptorObj sd(obj, r.first);
  std::vector<u8> original = sd.get();
  ASSERT_FALSE(original.empty());
  std::vector<u8> longer = original;
  longer.push_back(0);
  EXPECT_FALSE(sd.set(longer.data(), static_cast<u32>(longer.size())));
  EXPECT_FALSE(sd.set(original.data(), static_cast<u32>(original.size() - 1)));
  EXPECT_EQ(sd.get(), original);

  std::vector<u8> changed = original;
  changed.back() ^= 0xFF;
  EXPECT_TRUE(sd.set(changed.data(), static_cast<u32>(changed.size())));
  EXPECT_EQ(sd.get(), changed);
  EXPECT_EQ(walk(hive->securityDescriptorIterator()).size(), 3u);  // links untouched

  Ref<SecurityDescriptor> readOnly = Ring().open()->securityDescriptorIterator()->next();
  EXPECT_FALSE(readOnly->set(changed.data(), static_cast<u32>(changed.size())));
}

}  // namespace
}  // namespace hivekit::test
