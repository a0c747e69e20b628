// Every real hive of the shared test data opens (the healthy ones clean) or
// fails with a message, in each read-only mode; none may crash or trip a
// sanitizer. The big SYSTEM hive is also read record by record through the
// record store.
#include <gtest/gtest.h>

#include <filesystem>
#include <set>
#include <string>
#include <vector>

#include "hive/registry_hive.h"
#include "platform/file_stripe.h"
#include "platform/string.h"

namespace Libraries::Files::Hive {
namespace {

namespace fs = std::filesystem;

fs::path hivesDir() {
  return fs::path(HIVEKIT_SOURCE_DIR) / ".." / "shared" / "testdata" / "hives";
}

// The hive files: plain files, and in each directory the one whose name is
// the directory's stem (its logs and recovered copies are not hives to open).
std::vector<fs::path> hiveFiles() {
  std::vector<fs::path> out;
  for (const auto& entry : fs::directory_iterator(hivesDir())) {
    if (entry.is_regular_file()) {
      out.push_back(entry.path());
      continue;
    }
    if (!entry.is_directory()) continue;
    for (const auto& inner : fs::directory_iterator(entry.path())) {
      const std::string name = inner.path().filename().string();
      if (name.find(".LOG") == std::string::npos && name.rfind("Recovered", 0) != 0)
        out.push_back(inner.path());
    }
  }
  std::sort(out.begin(), out.end());
  return out;
}

class TestdataOpen : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!fs::is_directory(hivesDir())) GTEST_SKIP() << "no shared test data at " << hivesDir();
  }
};

TEST_F(TestdataOpen, EveryHiveOpensOrFailsWithAMessage) {
  const auto files = hiveFiles();
  ASSERT_FALSE(files.empty());
  const std::set<std::string> healthy = {"SYSTEM", "SAM", "NTUSER.DAT", "BCD", "EmptyHive", "BigDataHive"};
  size_t healthySeen = 0;
  for (u32 mode : {0x1u, 0x11u, 0x5u}) {
    for (const auto& path : files) {
      SCOPED_TRACE(path.string() + " mode " + std::to_string(mode));
      Log::Capture capture(4);
      Ref<HiveFile> hive = HiveFile::open(String::create(path.string()), mode, latin1);
      const std::string name = path.filename().string();
      if (mode == 0x1u && healthy.count(name)) {
        ++healthySeen;
        ASSERT_TRUE(hive) << "a healthy hive opens";
        EXPECT_FALSE(hive->dirty());
      }
      if (hive) {
        Ref<Key> root = hive->root();
        EXPECT_TRUE(root) << "an open hive has a root key";
      } else {
        EXPECT_FALSE(capture.messages().empty()) << "a failed open says why";
      }
    }
  }
  EXPECT_EQ(healthySeen, healthy.size());
}

// Reads every used record of SYSTEM (11.7 MB, 2,736 hbins), twice, through
// the public lookup of a read-only open (the file's pages mapped).
TEST_F(TestdataOpen, SystemHiveReadsRecordByRecord) {
  Ref<Interfaces::Stripe> file = FileStripe::open((hivesDir() / "SYSTEM").string(), FileStripe::Read);
  ASSERT_TRUE(file);
  // Record offsets from an independent walk of the file.
  std::vector<u8> bytes(file->elementCount());
  ASSERT_EQ(file->readAt(0, bytes.data(), bytes.size()), bytes.size());
  std::vector<u32> used;
  u32 bins = 0;
  const u32 length = L32(bytes.data() + hive_header::OFS_LENGTH);
  for (u32 bin = 0; bin < length; ++bins) {
    const u8* h = bytes.data() + hive_header::SIZE + bin;
    const u32 size = L32(h + hive_hbin::OFS_SIZE);
    for (u32 ofs = bin + hive_hbin::SIZE; ofs < bin + size;) {
      const s32 s = LS32(bytes.data() + hive_header::SIZE + ofs);
      if (s < 0) used.push_back(ofs);
      ofs += s < 0 ? static_cast<u32>(-s) : static_cast<u32>(s);
    }
    bin += size;
  }
  ASSERT_GT(used.size(), 100000u);

  Ref<HiveFile> opened = HiveFile::open(file, 0x1, latin1, nullptr);
  ASSERT_TRUE(opened);
  auto* hive = static_cast<RegistryHiveObj*>(opened.get());
  EXPECT_EQ(hive->hbinCount(), bins);
  for (int pass = 0; pass < 2; ++pass)
    for (u32 ofs : used) ASSERT_NE(hive->cacheLoadRecord(ofs), nullptr) << ofs;
}

}  // namespace
}  // namespace Libraries::Files::Hive
