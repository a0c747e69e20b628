// Flushing: what reaches the file and when, and when the sync callback is
// called. Failed writes and syncs are swept in fault_sweep_test.cc, writing
// through checked by the model test, the flush on release by the
// concurrency test.
#include <gtest/gtest.h>

#include <algorithm>
#include <vector>

#include "hive/registry_hive.h"
#include "platform/memory_stripe.h"
#include "tests/log/log_builder.h"
#include "tests/support/fault_stripe.h"
#include "tests/support/hive_builder.h"

namespace Libraries::Files::Hive {
namespace {

using hivekit::test::FaultStripe;
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
    file = FaultStripe::wrap(stripe);
    return HiveFile::open(file, mode, latin1, [this] { return ++syncs > 0; }).cast<RegistryHiveObj>();
  }
  bool change(RegistryHiveObj& hive, u8 value) {
    const u8 data[4] = {value, value, value, value};
    return hive.writeRecord(record, data, 4, 4);
  }
  u8 stored() const { return stripe->bytes()[4096 + record + 4]; }

  std::vector<u8> image;
  u32 record = 0;
  Ref<MemoryStripe> stripe;
  Ref<FaultStripe> file;  // over `stripe`: counts the hive's calls
  int syncs = 0;
};

// The pages go to the log first, then the hive, whose base block ends clean
// one sequence number on, stamped with the flush's time; the log alone
// recovers that state while the base block says dirty.
TEST_F(Flush, WritesTheLogThenTheHiveAndMarksItClean) {
  using H = hive_header;
  Ref<MemoryStripe> log1 = MemoryStripe::create();
  bool made = false;
  HiveFile::LogFiles logs;
  logs.createLog1 = [&] {
    made = true;
    return Ref<Interfaces::Stripe>(log1);
  };
  stripe = MemoryStripe::create(image);
  Ref<RegistryHiveObj> hive = HiveFile::open(stripe, logs, 0, latin1, {}).cast<RegistryHiveObj>();
  ASSERT_TRUE(hive);
  hive->setFixedTime(133537680000000000);
  ASSERT_TRUE(change(*hive, 0x5a));
  EXPECT_EQ(stored(), 0) << "changes wait in memory";
  EXPECT_FALSE(made) << "the log is made by the first flush that writes";
  EXPECT_TRUE(hive->flush());
  EXPECT_EQ(stored(), 0x5a);
  const u8* base = stripe->bytes().data();
  const u32 sequence = L32(image.data() + H::OFS_PRIMARY_SEQ) + 1;
  EXPECT_EQ(L32(base + H::OFS_PRIMARY_SEQ), sequence);
  EXPECT_EQ(L32(base + H::OFS_SECONDARY_SEQ), sequence);
  EXPECT_EQ(L64(base + H::OFS_TIMESTAMP), 133537680000000000u);
  EXPECT_FALSE(hive->dirty());
  ASSERT_TRUE(made);
  const std::vector<u8>& log = log1->bytes();
  ASSERT_GT(log.size(), 1024u);
  EXPECT_EQ(L32(log.data() + H::OFS_TYPE), 6u);
  EXPECT_EQ(L32(log.data() + H::OFS_PRIMARY_SEQ), sequence);
  EXPECT_TRUE(hivekit::test::entryHashesValid(log, 512));
  hive = nullptr;

  // The file as a crash after the dirty mark leaves it: the hbins as they
  // were, the base block dirty. The log gives the flushed change back.
  std::vector<u8> torn = image;
  Platform::W32(torn.data() + H::OFS_PRIMARY_SEQ, sequence);
  Platform::W32(torn.data() + H::OFS_CHECKSUM, calculateHeaderChecksum(torn.data()));
  HiveFile::LogFiles read;
  read.log1 = MemoryStripe::create(log);
  stripe = MemoryStripe::create(torn);
  hive = HiveFile::open(stripe, read, modeReadOnly, latin1, {}).cast<RegistryHiveObj>();
  ASSERT_TRUE(hive);
  EXPECT_EQ(hive->cacheLoadRecord(record)->bytes()[4], 0x5a);
}

TEST_F(Flush, WithNothingToWriteOnlyAWritableHiveSyncs) {
  for (const auto& [mode, want] : {std::pair{0x0u, 1}, {0x1u, 0}, {0x5u, 0}}) {
    syncs = 0;
    Ref<RegistryHiveObj> hive = open(mode);
    ASSERT_TRUE(hive);
    file->resetCounts();
    EXPECT_TRUE(hive->flush());
    EXPECT_EQ(file->calls(FaultStripe::Write) + file->calls(FaultStripe::Resize), 0u) << mode;
    EXPECT_EQ(syncs, want) << mode;
  }
}

}  // namespace
}  // namespace Libraries::Files::Hive
