#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <filesystem>

#include "platform/error.h"
#include "platform/file_stripe.h"
#include "platform/memory_stripe.h"

namespace {

using Platform::FileStripe;
using Platform::MemoryStripe;

TEST(StripeTest, FileStripePositionalAccessResizeAndSync) {
  auto dir = std::filesystem::temp_directory_path() / ("hivekit-stripe-" + std::to_string(getpid()));
  std::filesystem::create_directories(dir);
  std::string path = (dir / "f.bin").string();

  auto f = FileStripe::open(path, FileStripe::Read | FileStripe::Write | FileStripe::Create);
  ASSERT_TRUE(f);
  EXPECT_EQ(f->writeAt(10, "abc", 3), 3u);
  EXPECT_EQ(f->elementCount(), 13u);
  char buf[8] = {};
  EXPECT_EQ(f->readAt(11, buf, 8), 2u);  // short read at the end
  EXPECT_EQ(std::string(buf, 2), "bc");
  EXPECT_EQ(f->setElementCount(4096), 4096u);
  EXPECT_TRUE(f->sync());
  f = nullptr;

  auto ro = FileStripe::open(path, FileStripe::Read);
  ASSERT_TRUE(ro);
  EXPECT_EQ(ro->writeAt(0, "x", 1), 0u);  // read-only refuses writes
  ro->seek(10);
  EXPECT_EQ(ro->read(buf, 3), 3u);
  EXPECT_EQ(ro->pos(), 13u);

  EXPECT_FALSE(FileStripe::open((dir / "missing").string(), FileStripe::Read));
  EXPECT_EQ(Platform::Error::get(), Platform::Error::FILE_NOT_FOUND);
  EXPECT_FALSE(FileStripe::open(dir.string(), FileStripe::Read));  // a directory
  EXPECT_NE(Platform::Error::get(), Platform::Error::FILE_NOT_FOUND);
  std::filesystem::remove_all(dir);
}

TEST(StripeTest, MemoryStripeGrowsAndRefusesWhatItCannotHold) {
  auto m = MemoryStripe::create();
  EXPECT_EQ(m->writeAt(5, "xy", 2), 2u);
  EXPECT_EQ(m->elementCount(), 7u);
  EXPECT_EQ(m->writeAt(~0ull - 1, "abc", 3), 0u);
  EXPECT_EQ(m->setElementCount(~0ull), 7u);
  EXPECT_EQ(Platform::Error::get(), Platform::Error::IO_ERROR | ENOSPC);
}

}  // namespace
