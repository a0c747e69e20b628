#include "platform/shmem.h"

#include <gtest/gtest.h>

#include <cstring>

namespace {

using Platform::Ref;
using Platform::ShMem;
using Platform::u32;
using Platform::u8;

// Both kinds of block keep their bytes through giveBack and through growing
// (out of the heap) and shrinking; a spilling block's pages come back from
// its file.
TEST(ShMemTest, BytesSurviveGivingBackAndResizing) {
  for (bool spill : {false, true}) {
    SCOPED_TRACE(spill ? "spilling" : "anonymous");
    Ref<ShMem> block = spill ? ShMem::createSpilling(3 * 4096) : ShMem::create(3 * 4096);
    ASSERT_TRUE(block);
    EXPECT_EQ(block->spilling(), spill);  // /tmp takes a temporary file here
    for (u32 i = 0; i < 3 * 4096; ++i) block->map()[i] = static_cast<u8>(i * 7 + 1);
    block->giveBack(block->map() + 100, 2 * 4096);  // the whole page 1 of it
    block->giveBack(block->map() - 4096, 4096);     // outside: nothing
    ASSERT_TRUE(block->resize(64 * 4096));
    EXPECT_EQ(block->map()[64 * 4096 - 1], 0);
    block->map()[64 * 4096 - 1] = 3;
    ASSERT_TRUE(block->resize(ShMem::HEAP_LIMIT + 4096));  // an anonymous one leaves the heap
    for (u32 i = 0; i < 3 * 4096; ++i) ASSERT_EQ(block->map()[i], static_cast<u8>(i * 7 + 1)) << i;
    EXPECT_EQ(block->map()[64 * 4096 - 1], 3);
    EXPECT_EQ(block->map()[ShMem::HEAP_LIMIT], 0);
    block->map()[5 * 4096] = 9;
    block->giveBack(block->map(), block->size());
    EXPECT_EQ(block->map()[5 * 4096], 9);
    ASSERT_TRUE(block->resize(2 * 4096));
    EXPECT_EQ(block->map()[2 * 4096 - 1], static_cast<u8>((2 * 4096 - 1) * 7 + 1));
  }
}

}  // namespace
