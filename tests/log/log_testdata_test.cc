// Recovery of the real dirty hives of the shared test data, compared with
// what Windows itself made of them. Nothing under the test data is written:
// a hive opened writable is a copy in a temporary folder.
#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

#include "hive/registry_hive.h"
#include "platform/memory_stripe.h"
#include "tests/support/test_files.h"

namespace Libraries::Files::Hive {
namespace {

namespace fs = std::filesystem;

using hivekit::test::readBytes;
using hivekit::test::testHives;

Ref<RegistryHiveObj> openPath(const fs::path& p, u32 mode) {
  return HiveFile::open(String::create(p.string()), mode, latin1).cast<RegistryHiveObj>();
}

class LogTestdata : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!fs::is_directory(testHives())) GTEST_SKIP() << "no shared test data at " << testHives();
  }
};

TEST_F(LogTestdata, NewFormatRecoveryEqualsWindows10) {
  Ref<RegistryHiveObj> hive = openPath(testHives() / "NewDirtyHive1" / "NewDirtyHive", 0x1);
  ASSERT_TRUE(hive);
  EXPECT_EQ(hive->appliedSequence(), 5u);
  // The copy holds every hbin byte as the hive reads it through its logs;
  // even its base block is Windows' own (sequence numbers 6/6, checksum).
  Ref<MemoryStripe> copy = MemoryStripe::create();
  ASSERT_TRUE(hive->writeRecoveredCopy(copy));
  const std::vector<u8> windows = readBytes(testHives() / "NewDirtyHive1" / "RecoveredHive_Windows10");
  const size_t n = 4096 + hive->hiveLength();
  ASSERT_EQ(copy->bytes().size(), n);
  ASSERT_GE(windows.size(), n);
  size_t differ = 0;
  for (size_t i = 0; i < n; ++i) differ += copy->bytes()[i] != windows[i];
  EXPECT_EQ(differ, 0u);

  // Both logs, partly folded into the file already: LOG1 from 287, LOG2
  // from 291, the file at 255.
  hive = openPath(testHives() / "UsrClass" / "UsrClass.dat", 0x1);
  ASSERT_TRUE(hive);
  EXPECT_EQ(hive->logFile(1).applied, 4u);
  EXPECT_EQ(hive->logFile(2).applied, 10u);
  EXPECT_EQ(hive->appliedSequence(), 300u);
}

TEST_F(LogTestdata, OldFormatRepairInPlaceEqualsWindows7) {
  hivekit::test::TempDir temp;
  const fs::path& dir = temp.path();
  for (const char* name : {"OldDirtyHive", "OldDirtyHive.LOG1", "OldDirtyHive.LOG2"}) {
    fs::copy_file(testHives() / "OldDirtyHive" / name, dir / name, fs::copy_options::overwrite_existing);
    fs::permissions(dir / name, fs::perms::owner_write, fs::perm_options::add);
  }
  const std::vector<u8> log = readBytes(dir / "OldDirtyHive.LOG1");
  {
    Ref<RegistryHiveObj> hive = openPath(dir / "OldDirtyHive", 0);
    ASSERT_TRUE(hive);
    EXPECT_FALSE(hive->dirty());
    EXPECT_EQ(hive->logMode(), RegistryHiveObj::LogMode::None) << "repaired, the log is done with";
  }
  const std::vector<u8> file = readBytes(dir / "OldDirtyHive");
  const std::vector<u8> windows = readBytes(testHives() / "OldDirtyHive" / "RecoveredHive_Windows7");
  ASSERT_GE(file.size(), 4096u);
  EXPECT_EQ(L32(&file[hive_header::OFS_PRIMARY_SEQ]), L32(&file[hive_header::OFS_SECONDARY_SEQ]));
  EXPECT_EQ(calculateHeaderChecksum(file.data()), L32(&file[hive_header::OFS_CHECKSUM]));
  EXPECT_EQ(readBytes(testHives() / "OldDirtyHive" / "OldDirtyHive.LOG1"), log) << "the log is not written";

  // Windows went on working with the hive after recovering it: it stamped
  // the first hbin (0x14-0x1B) and rewrote one key's longest value name
  // field (hive offset 0x6ADC8; the log's page has 0x18 there, as we do).
  const u32 length = L32(&file[hive_header::OFS_LENGTH]);
  ASSERT_GE(file.size(), 4096u + length);
  ASSERT_GE(windows.size(), 4096u + length);
  std::vector<u32> differ;
  for (u32 i = 0; i < length; ++i)
    if (file[4096 + i] != windows[4096 + i] && !(i >= 0x14 && i < 0x1C)) differ.push_back(i);
  EXPECT_EQ(differ, std::vector<u32>{0x6ADC8});
  EXPECT_EQ(file[4096 + 0x6ADC8], 0x18);
}

TEST_F(LogTestdata, DamagedLogsFailCleanly) {
  const struct {
    const char* dir;
    const char* file;
    const char* reason;
    bool opensDirty;
  } cases[] = {
      {"BadLogHive1", "BadLogHive", "Invalid checksum of log file", true},
      {"BadLogHive2", "BadLogHive", "Unexpected signature of dirty vector", true},
      {"BadLogHive3", "BadLogHive", "Failed to initialize second log file", true},
      // Its base block is damaged too (wrong checksum): no mode opens it.
      {"BadBaseBlockHive", "BadBaseBlockHive", "does not match version of primary file", false},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.dir);
    const fs::path p = testHives() / c.dir / c.file;
    Log::Capture capture(3);
    EXPECT_FALSE(openPath(p, 0x1));
    EXPECT_TRUE(capture.contains(c.reason));
    EXPECT_TRUE(capture.contains("Primary Sequence Number and Secondary Sequence Number are different"));
    Ref<RegistryHiveObj> dirty = openPath(p, 0x11);
    EXPECT_EQ(static_cast<bool>(dirty), c.opensDirty);
    if (dirty) {
      EXPECT_TRUE(dirty->dirty());
      EXPECT_TRUE(dirty->root());
    } else {
      EXPECT_TRUE(capture.contains("Checksum wrong"));
    }
  }
}

}  // namespace
}  // namespace Libraries::Files::Hive
