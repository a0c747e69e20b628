// Flushing: what reaches the file and when, the sync callback, and the
// flush on release (failed writes are swept in fault_sweep_test.cc).
#include <gtest/gtest.h>

#include <algorithm>
#include <vector>

#include "hive/registry_hive.h"
#include "platform/memory_stripe.h"
#include "tests/support/hive_builder.h"

namespace Libraries::Files::Hive {
namespace {

using hivekit::test::HiveBuilder;

class Flush : public ::testing::Test {
 protected:
  void SetUp() override {
    HiveBuilder b;
    b.root();
    b.newHbin();
    record = b.cell(32);
    image = b.build();
  }
  Ref<RegistryHiveObj> open(u32 mode) {
    stripe = MemoryStripe::create(image);
    return HiveFile::open(stripe, mode, latin1,
                          [this] {
                            ++syncs;
                            return syncResult;
                          })
        .cast<RegistryHiveObj>();
  }
  bool change(RegistryHiveObj& hive, u8 value) {
    const u8 data[4] = {value, value, value, value};
    return hive.writeRecord(record, data, 4, 4);
  }
  u8 stored() const { return stripe->bytes()[4096 + record + 4]; }

  std::vector<u8> image;
  u32 record = 0;
  Ref<MemoryStripe> stripe;
  int syncs = 0;
  bool syncResult = true;
};

TEST_F(Flush, WritesChangedHbinsButNotTheBaseBlock) {
  Ref<RegistryHiveObj> hive = open(0);
  ASSERT_TRUE(change(*hive, 0x5a));
  EXPECT_EQ(stored(), 0) << "changes wait in memory";
  EXPECT_TRUE(hive->flush());
  EXPECT_EQ(stored(), 0x5a);
  EXPECT_EQ(syncs, 1);
  EXPECT_TRUE(std::equal(image.begin(), image.begin() + 4096, stripe->bytes().begin()))
      << "sequence numbers and the rest of the base block stay as they were";
  EXPECT_FALSE(hive->dirty());
}

TEST_F(Flush, WithNothingToWriteOnlyAWritableHiveSyncs) {
  for (const auto& [mode, want] : {std::pair{0x0u, 1}, {0x1u, 0}, {0x5u, 0}}) {
    syncs = 0;
    Ref<RegistryHiveObj> hive = open(mode);
    ASSERT_TRUE(hive);
    stripe->failWrites(true);  // any write would fail the flush
    EXPECT_TRUE(hive->flush());
    EXPECT_EQ(syncs, want) << mode;
  }
}

TEST_F(Flush, WriteThroughWritesAndSyncsAtOnceFlushOnlySyncs) {
  Ref<RegistryHiveObj> hive = open(0x2);
  ASSERT_TRUE(change(*hive, 0x11));
  EXPECT_EQ(stored(), 0x11);
  EXPECT_EQ(syncs, 1) << "a write is synced at once";
  stripe->failWrites(true);
  EXPECT_TRUE(hive->flush());
  EXPECT_EQ(syncs, 2);
}

TEST_F(Flush, SyncResultIsTheFlushResult) {
  Ref<RegistryHiveObj> hive = open(0);
  ASSERT_TRUE(change(*hive, 1));
  syncResult = false;
  EXPECT_FALSE(hive->flush());
  EXPECT_EQ(stored(), 1) << "the data was written; only the sync failed";
}

TEST_F(Flush, ReleasingTheHiveFlushes) {
  {
    Ref<RegistryHiveObj> hive = open(0);
    ASSERT_TRUE(change(*hive, 0x42));
  }
  EXPECT_EQ(stored(), 0x42);
  EXPECT_EQ(syncs, 1);
}

}  // namespace
}  // namespace Libraries::Files::Hive
