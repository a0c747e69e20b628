// First-fit allocation: the max tree that finds the first hbin with room,
// and the largest-free-record figures it is fed, which come from the
// record-start index rather than from a walk of the hbin.
#include <gtest/gtest.h>

#include <random>
#include <vector>

#include "hive/first_fit_index.h"
#include "hive/registry_hive.h"
#include "platform/memory_stripe.h"
#include "tests/support/hive_builder.h"

namespace Libraries::Files::Hive {
namespace {

using hivekit::test::HiveBuilder;

size_t linearFirst(const std::vector<u32>& values, size_t from, u32 atLeast) {
  for (size_t i = from; i < values.size(); ++i)
    if (values[i] >= atLeast) return i;
  return FirstFitIndex::NONE;
}

// Growth past each power of two, changes up and down, and searches from
// every kind of start: the answer is always the linear scan's.
TEST(FirstFitIndex, AgreesWithALinearScan) {
  std::mt19937 rng(11);
  FirstFitIndex index;
  std::vector<u32> values;
  EXPECT_EQ(index.findFirst(0, 8), FirstFitIndex::NONE);
  for (int step = 0; step < 20000; ++step) {
    const u32 op = rng() % 4;
    if (op == 0 || values.empty()) {
      values.push_back(rng() % 3 == 0 ? 0 : rng() % 5000);
      index.push(values.back());
    } else if (op == 1) {
      const size_t i = rng() % values.size();
      values[i] = rng() % 2 == 0 ? 0 : rng() % 5000;
      index.set(i, values[i]);
    } else {
      const size_t from = rng() % (values.size() + 2);
      const u32 atLeast = 1 + rng() % 5000;
      ASSERT_EQ(index.findFirst(from, atLeast), linearFirst(values, from, atLeast))
          << "step " << step << " from " << from << " at least " << atLeast;
    }
    ASSERT_EQ(index.size(), values.size());
  }
  EXPECT_GT(values.size(), 4000u);
}

// The largest free record of one hbin (the first of equal ones) as a walk
// of the flushed file finds it.
std::pair<u32, u32> largestFree(const std::vector<u8>& file, u32 hbin, u32 size) {
  u32 best = 0, at = 0;
  for (u32 pos = 32; pos + 4 <= size;) {
    const s32 s = LS32(file.data() + 4096 + hbin + pos);
    const u32 length = s < 0 ? static_cast<u32>(-s) : static_cast<u32>(s);
    if (s > 0 && length > best && pos + length <= size) {
      best = length;
      at = hbin + pos;
    }
    pos += length;
  }
  return {best, at};
}

// After every allocation, move, shrink and free, each hbin's free-space
// figures are those of a fresh walk, and a new record goes exactly where
// first fit over those figures says.
TEST(FirstFit, FreeSpaceFiguresFollowEveryChange) {
  HiveBuilder b;
  b.root();
  Ref<MemoryStripe> stripe = MemoryStripe::create(b.build());
  Ref<RegistryHiveObj> hive = HiveFile::open(stripe, 0, latin1, nullptr).cast<RegistryHiveObj>();
  ASSERT_TRUE(hive);
  std::mt19937 rng(5);
  std::vector<u32> live;
  for (int step = 0; step < 600; ++step) {
    const u32 op = rng() % 4;
    if (op <= 1 || live.empty()) {
      const u32 size = 1 + rng() % (rng() % 8 == 0 ? 9000 : 300);
      const u32 length = (size + 7) / 8 * 8;
      u32 expected = INVALID_RECORD;
      for (const auto& entry : hive->store().hbins()) {
        if (entry.freeSize >= length) {
          expected = entry.freeOffset;
          break;
        }
      }
      const u32 r = hive->allocateRecord(size);
      ASSERT_NE(r, INVALID_RECORD);
      if (expected != INVALID_RECORD) {
        ASSERT_EQ(r, expected) << "step " << step;
      }
      live.push_back(r);
    } else if (op == 2) {
      const size_t i = rng() % live.size();
      live[i] = hive->resizeRecord(live[i], 1 + rng() % 2000, true);
      ASSERT_NE(live[i], INVALID_RECORD);
    } else {
      const size_t i = rng() % live.size();
      ASSERT_TRUE(hive->freeRecord(live[i]));
      live.erase(live.begin() + i);
    }
    ASSERT_TRUE(hive->flush());
    for (const auto& entry : hive->store().hbins()) {
      const auto [size, at] = largestFree(stripe->bytes(), entry.offset, entry.size);
      ASSERT_EQ(entry.freeSize, size) << "step " << step << " hbin " << entry.offset;
      if (size) {
        ASSERT_EQ(entry.freeOffset, at) << "step " << step << " hbin " << entry.offset;
      }
    }
  }
  EXPECT_GT(hive->hbinCount(), 5u);
}

}  // namespace
}  // namespace Libraries::Files::Hive
