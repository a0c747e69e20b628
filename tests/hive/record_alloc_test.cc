// Allocation, resizing and writing of records: growth of the file by a new
// hbin, remainders and merging, moves, refusals. Where first fit puts a
// record is first_fit_test.cc's, a full disk write_failure_test.cc's,
// failing calls fault_sweep_test.cc's.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "hive/format/errors.h"
#include "hive/registry_hive.h"
#include "platform/error.h"
#include "tests/support/hives.h"

namespace Libraries::Files::Hive {
namespace {

using hivekit::test::HiveBuilder;
using hivekit::test::openImage;

// Uses up the free space of the first hbin, so later allocations go to the
// hbins behind it (or to a new one).
void fillFirstHbin(RegistryHiveObj& hive) {
  ASSERT_GT(hive.store().hbins()[0].freeSize, 0u);
  const u32 free = hive.store().hbins()[0].freeOffset;
  ASSERT_EQ(hive.allocateRecord(hive.store().hbins()[0].freeSize), free);
  ASSERT_EQ(hive.store().hbins()[0].freeSize, 0u);
}

u32 lengthOf(RegistryHiveObj& hive, u32 offset, bool free) {
  u32 hbin;
  const hive_record* r = hive.store().cacheLoadRecord(offset, &hbin, free);
  return r ? r->length() : 0;
}

class Growth : public ::testing::Test {
 protected:
  void SetUp() override {
    HiveBuilder b;
    b.root();
    hive = openImage(b.build(), 0, &stripe);
    ASSERT_TRUE(hive);
    fillFirstHbin(*hive);
  }
  Ref<MemoryStripe> stripe;
  Ref<RegistryHiveObj> hive;
};

TEST_F(Growth, FullHiveGrowsByTheSmallestHbinThatHolds) {
  u32 allocated = 0;
  const u32 a = hive->allocateRecord(4064, &allocated);
  EXPECT_EQ(a, 4096u + 32);
  EXPECT_EQ(allocated, 4064u);
  EXPECT_EQ(hive->hiveLength(), 8192u);
  EXPECT_EQ(hive->store().hbins().back().size, 4096u);
  EXPECT_EQ(hive->store().hbins().back().freeSize, 0u) << "4064 bytes fill a 4096-byte hbin";

  const u32 b = hive->allocateRecord(4065, &allocated);
  EXPECT_EQ(allocated, 4072u);
  EXPECT_EQ(b, 8192u + 32);
  EXPECT_EQ(hive->store().hbins().back().size, 8192u);
  EXPECT_EQ(lengthOf(*hive, b + 4072, true), 8192u - 32 - 4072);
  EXPECT_EQ(hive->hiveLength(), 16384u);

  // The file grew at once, but its base block counts the new hbins only
  // once the flush has written them.
  const std::vector<u8>& file = stripe->bytes();
  ASSERT_EQ(file.size(), 4096u + 16384);
  EXPECT_EQ(L32(file.data() + hive_header::OFS_LENGTH), 4096u);
  ASSERT_TRUE(hive->flush());
  EXPECT_EQ(L32(file.data() + hive_header::OFS_LENGTH), 16384u);
  EXPECT_EQ(calculateHeaderChecksum(file.data()), L32(file.data() + hive_header::OFS_CHECKSUM));

  const u8* second = file.data() + 4096 + 4096;
  EXPECT_EQ(B32(second), hive_hbin::SIGNATURE);
  EXPECT_EQ(L32(second + hive_hbin::OFS_OFFSET), 4096u);
  EXPECT_EQ(L32(second + hive_hbin::OFS_LAST), 4096u) << "the formerly last hbin points past itself";
  EXPECT_EQ(L32(file.data() + 4096 + hive_hbin::OFS_LAST), 4096u);
  EXPECT_EQ(L32(file.data() + 4096 + 8192 + hive_hbin::OFS_LAST), 0u) << "the new last hbin";

  Ref<RegistryHiveObj> reopened = openImage(file, 0x1);
  ASSERT_TRUE(reopened);
  EXPECT_EQ(lengthOf(*reopened, b, false), 4072u);
}

TEST(Allocation, RefusesNonsenseSizes) {
  HiveBuilder b;
  b.root();
  Ref<RegistryHiveObj> hive = openImage(b.build(), 0);
  Error::set(0);
  EXPECT_EQ(hive->allocateRecord(0), INVALID_RECORD);
  EXPECT_EQ(Error::get(), Errors::ALLOCATION_FAILED);
  EXPECT_EQ(hive->allocateRecord(0xfffffff9u), INVALID_RECORD);
}

// hbin 1 (at 4096) holds the records a test lays out; hbin 0 is full.
class Layout : public ::testing::Test {
 protected:
  void open(HiveBuilder& b, u32 mode = 0) {
    hive = openImage(b.build(), mode, &stripe);
    ASSERT_TRUE(hive);
    if (mode == 0) fillFirstHbin(*hive);
  }
  static HiveBuilder start() {
    HiveBuilder b;
    b.root();
    b.newHbin();
    return b;
  }
  Ref<MemoryStripe> stripe;
  Ref<RegistryHiveObj> hive;
};

TEST_F(Layout, ExactFitLeavesNoRemainderSmallerFitMergesTheFreeSpaceBehind) {
  HiveBuilder b = start();
  const u32 a = b.cell(32);
  const u32 behind = b.cell(16);
  const u32 c = b.cell(32);
  const u32 behindC = b.cell(16);
  b.cell(4096 - 32 - 96);
  for (u32 r : {a, behind, c, behindC}) b.freeCell(r);
  open(b);
  EXPECT_EQ(hive->allocateRecord(32), a);
  EXPECT_EQ(lengthOf(*hive, a, false), 32u);
  EXPECT_EQ(lengthOf(*hive, behind, true), 16u) << "no remainder, and the free record behind stays";
  ASSERT_EQ(hive->allocateRecord(8), c);
  EXPECT_EQ(lengthOf(*hive, c + 8, true), 24u + 16) << "remainder plus the free record behind";
  EXPECT_EQ(hive->store().hbins()[1].freeSize, 40u);
  EXPECT_EQ(hive->store().hbins()[1].freeOffset, c + 8);
}

TEST_F(Layout, ShrinkingMergesTheFreedTailWithTheFreeSpaceBehind) {
  HiveBuilder b = start();
  const u32 r = b.cell(64);
  const u32 behind = b.cell(32);
  b.cell(4096 - 32 - 96);
  b.freeCell(behind);
  open(b);
  u32 allocated = 0;
  EXPECT_EQ(hive->resizeRecord(r, 16, true, &allocated), r);
  EXPECT_EQ(allocated, 16u);
  EXPECT_EQ(lengthOf(*hive, r, false), 16u);
  EXPECT_EQ(lengthOf(*hive, r + 16, true), 80u);
  EXPECT_EQ(hive->store().hbins()[1].freeSize, 80u);
}

TEST_F(Layout, GrowingUsesTheFreeSpaceBehindOrMoves) {
  HiveBuilder b = start();
  const u32 inPlace = b.cell(32);
  const u32 behind = b.cell(64);
  const u32 boxed = b.cell(32);
  b.cell(8);
  const u32 large = b.cell(64);
  b.cell(4096 - 32 - 200);
  b.freeCell(behind);
  b.freeCell(large);
  for (u32 i = 4; i < 32; ++i) b.at(boxed)[i] = static_cast<u8>(i);
  open(b);

  EXPECT_EQ(hive->resizeRecord(inPlace, 72, false), inPlace);
  EXPECT_EQ(lengthOf(*hive, inPlace, false), 72u);
  EXPECT_EQ(lengthOf(*hive, inPlace + 72, true), 24u);

  EXPECT_EQ(hive->resizeRecord(large + 8, 64, false, nullptr, true), INVALID_RECORD) << "not a record start";
  const u32 moved = hive->resizeRecord(boxed, 60, true);
  EXPECT_EQ(moved, large);
  EXPECT_EQ(lengthOf(*hive, boxed, true), 32u) << "the old place is free, not merged";
  const hive_record* r = hive->cacheLoadRecord(moved);
  ASSERT_NE(r, nullptr);
  for (u32 i = 4; i < 32; ++i) EXPECT_EQ(r->bytes()[i], i);
}

TEST_F(Layout, WriteRecordChecksPositionAndBounds) {
  HiveBuilder b = start();
  const u32 r = b.cell(16);
  const u32 freed = b.cell(16);
  b.freeCell(freed);
  open(b);
  const u8 data[16] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12};
  for (u32 position : {0u, 3u}) {
    Error::set(0);
    EXPECT_FALSE(hive->writeRecord(r, data, position, 4));
    EXPECT_EQ(Error::get(), Errors::WRITE_IN_SIZE_FIELD);
  }
  EXPECT_TRUE(hive->writeRecord(r, data, 0, 0)) << "nothing to write";
  EXPECT_TRUE(hive->writeRecord(r, data, 4, 12));
  EXPECT_FALSE(hive->writeRecord(r, data, 8, 12)) << "past the record's end";
  EXPECT_FALSE(hive->writeRecord(freed, data, 4, 4)) << "a free record";
  EXPECT_EQ(hive->cacheLoadRecord(r)->bytes()[15], 12);
  EXPECT_EQ(lengthOf(*hive, r + 16, true), 16u) << "the neighbour is untouched";
}

TEST_F(Layout, ReadOnlyHiveRefusesEveryChange) {
  HiveBuilder b = start();
  const u32 r = b.cell(32);
  open(b, 0x1);
  const std::vector<u8> before = stripe->bytes();
  const u8 data[4] = {};
  const auto refused = [](bool failed) { return failed && Error::get() == Errors::READ_ONLY; };
  Error::set(0);
  EXPECT_TRUE(refused(hive->allocateRecord(16) == INVALID_RECORD));
  Error::set(0);
  EXPECT_TRUE(refused(hive->resizeRecord(r, 100, true) == INVALID_RECORD));
  Error::set(0);
  EXPECT_TRUE(refused(!hive->writeRecord(r, data, 4, 4)));
  Error::set(0);
  EXPECT_TRUE(refused(!hive->allocator().initRecord(r + 32, 8)));
  Error::set(0);
  EXPECT_TRUE(refused(!hive->store().writeHBIN(0, 100, data, 4)));
  EXPECT_TRUE(hive->flush());
  EXPECT_EQ(stripe->bytes(), before);
}

}  // namespace
}  // namespace Libraries::Files::Hive
