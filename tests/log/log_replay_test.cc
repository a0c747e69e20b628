// Recovery from logs built byte by byte, and writing a hive through its log.
//
// The hive has two hbins: value v1 lives in the first page, v2 in the
// second, both dwords of 1. Each log entry carries whole pages as they were
// at that point, the way Windows writes them, so which entries were applied
// shows in the two numbers.
#include <gtest/gtest.h>

#include <utility>
#include <vector>

#include "hive/registry_hive.h"
#include "platform/memory_stripe.h"
#include "tests/log/log_builder.h"
#include "tests/support/hives.h"

namespace Libraries::Files::Hive {
namespace {

using hivekit::test::dataOf;
using hivekit::test::LoggedPage;
using P = std::pair<u32, u32>;
using Entries = std::vector<std::pair<u32, std::vector<LoggedPage>>>;
constexpr u32 PAGE = 4096;

class LogReplay : public ::testing::Test {
 protected:
  void SetUp() override {
    hivekit::test::HiveBuilder b;
    b.setSequence(3, 2);
    const u32 k = b.key(b.root(), u"k");
    v1 = b.value(k, u"v1", 4, {1, 0, 0, 0});
    b.newHbin();
    v2 = b.value(k, u"v2", 4, {1, 0, 0, 0});
    image = b.build();
    ASSERT_TRUE(v1 < PAGE && v2 >= PAGE);
    restart();
  }
  // Back to the hive as the file holds it.
  void restart() { state.assign(image.begin() + PAGE, image.end()); }
  // Sets a value's resident dword in the evolving hive and returns the page
  // that holds it, as an entry would log it now.
  LoggedPage set(u32 vk, u32 n) {
    W32(&state[vk + hive_record_vk::OFS_DATA], n);
    return page(vk);
  }
  LoggedPage page(u32 offset) const {
    const u32 start = offset & ~(PAGE - 1);
    return {start, std::vector<u8>(state.begin() + start, state.begin() + start + PAGE)};
  }
  // A new-format log: its header's sequence number, then the entries.
  std::vector<u8> log(u32 sequence, const Entries& entries, u32 length = 2 * PAGE) const {
    hivekit::test::LogBuilder b(image, sequence);
    for (const auto& [seq, pages] : entries) b.entry(seq, length, pages, 0x5);
    return b.bytes;
  }

  Ref<RegistryHiveObj> open(u32 mode, const std::vector<u8>& log1, const std::vector<u8>& log2) {
    file = MemoryStripe::create(image);
    stripe1 = log1.empty() ? nullptr : MemoryStripe::create(log1);
    stripe2 = log2.empty() ? nullptr : MemoryStripe::create(log2);
    HiveFile::LogFiles logs{
        nullptr, stripe1, stripe2, nullptr, String::create("t.LOG1"), String::create("t.LOG2"), {}};
    return HiveFile::open(file, logs, mode, latin1, nullptr).cast<RegistryHiveObj>();
  }
  // Opens again, read-only, what the last open left in the stripes.
  Ref<RegistryHiveObj> reopen() {
    image = file->bytes();
    return open(0x1, stripe1 ? stripe1->bytes() : std::vector<u8>(),
                stripe2 ? stripe2->bytes() : std::vector<u8>());
  }

  static Ref<Value> value(const Ref<RegistryHiveObj>& hive, const char* name) {
    Ref<Key> k = hive ? hive->root()->key(String::create("k")) : nullptr;
    return k ? k->value(String::create(name)) : nullptr;
  }
  static P numbers(const Ref<RegistryHiveObj>& hive) {
    Ref<Value> a = value(hive, "v1"), b = value(hive, "v2");
    return {a ? static_cast<u32>(a->number()) : 0, b ? static_cast<u32>(b->number()) : 0};
  }

  std::vector<u8> image, state;
  u32 v1 = 0, v2 = 0;
  Ref<MemoryStripe> file, stripe1, stripe2;
};

// --------------------------------------------------------------- recovery

TEST_F(LogReplay, ChainsTheEntriesOfBothLogsInSequence) {
  // LOG2 alone would leave v1 at 1 and LOG1 alone v2: only the chain has both.
  std::vector<u8> a = log(2, {{2, {set(v1, 2)}}}), b = log(3, {{3, {set(v2, 3)}}});
  Ref<RegistryHiveObj> hive = open(0x1, a, b);
  EXPECT_EQ(numbers(hive), P(2, 3));
  EXPECT_EQ(hive->appliedSequence(), 3u);
  EXPECT_EQ(hive->appliedLog(), 2u);
  EXPECT_EQ(hive->logFile(1).applied, 1u);
  EXPECT_EQ(file->bytes(), image) << "reading through the logs leaves the file alone";

  // An entry in both logs counts once, in the newer log's copy.
  restart();
  a = log(2, {{2, {set(v1, 2)}}, {3, {set(v2, 30)}}});
  b = log(3, {{3, {set(v2, 3)}}, {4, {set(v1, 4)}}});
  EXPECT_EQ(numbers(open(0x1, a, b)), P(4, 3));

  // Windows folded the entries up to 4 into the file: the logs start later.
  restart();
  a = log(5, {{5, {set(v1, 5)}}});
  b = log(6, {{6, {set(v2, 6)}}});
  EXPECT_EQ(numbers(open(0x1, a, b)), P(5, 6));
}

TEST_F(LogReplay, StopsAtAGapAndSkipsEntriesWithoutReferences) {
  Log::Capture capture(3);
  Ref<RegistryHiveObj> hive = open(0x1, log(2, {{2, {set(v1, 2)}}}), log(4, {{4, {set(v2, 4)}}}));
  EXPECT_EQ(numbers(hive), P(2, 1));
  EXPECT_TRUE(capture.contains("Log entry 4 does not follow entry 2"));

  restart();
  hive = open(0x1, log(2, {{2, {set(v1, 2)}}, {3, {}}, {4, {set(v2, 4)}}}), {});
  EXPECT_EQ(numbers(hive), P(2, 4));
  EXPECT_EQ(hive->logFile(1).applied, 2u);
  EXPECT_EQ(hive->appliedSequence(), 4u);
}

TEST_F(LogReplay, ReadsAnHbinTheLogAddsBeyondTheFile) {
  // One entry, two references: v2 now points at 8 bytes in a third hbin
  // that only the log holds.
  const u32 bin = 2 * PAGE, record = bin + hive_hbin::SIZE;
  state.resize(3 * PAGE, 0);
  std::memcpy(&state[bin], "hbin", 4);
  W32(&state[bin + hive_hbin::OFS_OFFSET], bin);
  W32(&state[bin + hive_hbin::OFS_SIZE], PAGE);
  W32(&state[record], static_cast<u32>(-16));
  std::memcpy(&state[record + 4], "8 bytes!", 8);
  W32(&state[record + 16], PAGE - hive_hbin::SIZE - 16);
  W32(&state[v2 + hive_record_vk::OFS_DATA_SIZE], 8);
  W32(&state[v2 + hive_record_vk::OFS_DATA], record);
  Ref<RegistryHiveObj> hive = open(0x1, log(2, {{2, {page(v2), page(bin)}}}, 3 * PAGE), {});
  ASSERT_TRUE(hive);
  EXPECT_EQ(hive->hiveLength(), 3 * PAGE);
  EXPECT_EQ(file->bytes(), image);
  const std::vector<u8> data = dataOf(value(hive, "v2"));
  EXPECT_EQ(std::string(data.begin(), data.end()), "8 bytes!");
}

TEST_F(LogReplay, IgnoresStaleLogsAndEntriesAfterDamage) {
  // LOG1 predates the file's last clean state, whatever its entries say.
  const std::vector<u8> stale = log(1, {{2, {set(v1, 9)}}});
  restart();
  Ref<RegistryHiveObj> hive = open(0x1, stale, log(2, {{2, {set(v2, 2)}}}));
  EXPECT_EQ(numbers(hive), P(1, 2));
  EXPECT_EQ(hive->logFile(1).state, "stale (older than the hive)");

  // A wrong Hash-2 ends the scan; so does an entry cut off by the log's end.
  restart();
  std::vector<u8> badHash = log(2, {{2, {set(v1, 2)}}, {3, {set(v2, 3)}}}), cut = badHash;
  const size_t second = 512 + L32(&badHash[512 + hive_log_entry::OFS_SIZE]);
  badHash[second + hive_log_entry::OFS_HASH2] ^= 1;
  cut.resize(second + 1024);
  Log::Capture capture(3);
  EXPECT_EQ(numbers(open(0x1, badHash, {})), P(2, 1));
  EXPECT_TRUE(capture.contains("Hash2 does not match for log entry 1 in t.LOG1"));
  EXPECT_EQ(numbers(open(0x1, cut, {})), P(2, 1));
}

TEST_F(LogReplay, RefusesMixedFormatsForeignAndDamagedLogs) {
  const std::vector<u8> old = hivekit::test::oldFormatLog(image, 3, {set(v1, 2)});
  EXPECT_EQ(numbers(open(0x1, old, {})), P(2, 1)) << "an old-format log alone is replayed";
  const std::vector<u8> fresh = log(3, {{3, {set(v2, 3)}}});
  {
    Log::Capture capture(4);
    EXPECT_FALSE(open(0x11, old, fresh));
    EXPECT_TRUE(capture.contains("Mixing new and old format style logs is not allowed"));
  }
  std::vector<u8> foreign = fresh, badSum = fresh, overrun = fresh, oldCut(old.begin(), old.end() - 100);
  W32(&overrun[512 + hive_log_entry::SIZE + 4], 2 * PAGE);  // more data than the entry holds
  W16(&foreign[hive_header::OFS_FILENAME + 2 * 10], 'X');   // in "sample.hiv"
  W32(&foreign[hive_header::OFS_CHECKSUM], calculateHeaderChecksum(foreign.data()));
  badSum[hive_header::OFS_CHECKSUM] ^= 1;
  const std::pair<const std::vector<u8>*, const char*> cases[] = {
      {&foreign, "does not belong to primary hive"},
      {&badSum, "Invalid checksum of log file t.LOG2"},
      {&oldCut, "Failed to read dirty pages from t.LOG2"},
      {&overrun, "Failed to retrieve data of log entry at512 of log file t.LOG2"}};
  for (const auto& [bytes, message] : cases) {
    SCOPED_TRACE(message);
    Log::Capture capture(4);
    EXPECT_FALSE(open(0x1, {}, *bytes));
    EXPECT_TRUE(capture.contains(message));
    // Refused logs leave the hive as stored; a log whose data is short
    // fails the open.
    const bool fails = bytes == &oldCut || bytes == &overrun;
    EXPECT_EQ(numbers(open(0x11, {}, *bytes)), fails ? P(0, 0) : P(1, 1));
  }
}

// ---------------------------------------------------------------- writing

TEST_F(LogReplay, WritesContinueTheLogAndLeaveTheFileAlone) {
  const std::vector<u8> before = log(2, {{2, {set(v1, 2)}}});
  Ref<RegistryHiveObj> hive = open(0x2, before, {});
  ASSERT_TRUE(hive);
  EXPECT_EQ(hive->mode() & modeWriteThrough, 0u) << "write-through is dropped in log mode";
  ASSERT_TRUE(value(hive, "v2")->setNumber(9));
  ASSERT_TRUE(hive->flush());
  EXPECT_EQ(file->bytes(), image);

  const std::vector<u8>& after = stripe1->bytes();
  ASSERT_GT(after.size(), before.size());
  EXPECT_TRUE(std::equal(before.begin(), before.end(), after.begin()));
  const u8* e = after.data() + before.size();
  EXPECT_EQ(L32(e + hive_log_entry::OFS_SEQ), 3u);
  EXPECT_EQ(L32(e + hive_log_entry::OFS_FLAGS), 0x5u);
  EXPECT_EQ(L32(e + hive_log_entry::OFS_LENGTH), 2 * PAGE);
  EXPECT_EQ(L32(e + hive_log_entry::OFS_COUNT), 1u);
  EXPECT_EQ(L32(e + hive_log_entry::SIZE), 0u);
  EXPECT_EQ(L32(e + hive_log_entry::SIZE + 4), 2 * PAGE) << "v2's hbin and its key's, whose time changed";
  EXPECT_TRUE(hivekit::test::entryHashesValid(after, before.size()));
  hive = nullptr;

  hive = reopen();
  EXPECT_EQ(numbers(hive), P(2, 9));
  // The recovered copy opens alone, clean, one past the last entry.
  Ref<MemoryStripe> copy = MemoryStripe::create();
  ASSERT_TRUE(hive->writeRecoveredCopy(copy));
  EXPECT_FALSE(hive->writeRecoveredCopy(copy)) << "only into an empty stripe";
  EXPECT_FALSE(hive->writeRecoveredCopy(stripe1)) << "never over a log";
  Ref<RegistryHiveObj> clean = HiveFile::open(copy, 0x1, latin1, nullptr).cast<RegistryHiveObj>();
  ASSERT_TRUE(clean);
  EXPECT_FALSE(clean->dirty());
  EXPECT_EQ(L32(clean->header() + hive_header::OFS_PRIMARY_SEQ), 4u);
  EXPECT_EQ(numbers(clean), P(2, 9));
}

TEST_F(LogReplay, StartsALogThatHasNoEntryToContinue) {
  std::vector<u8> empty = log(2, {});
  empty.resize(1024, 0);
  Ref<RegistryHiveObj> hive = open(0, empty, {});
  ASSERT_TRUE(hive && value(hive, "v1")->setNumber(5) && hive->flush());
  hive = nullptr;
  const std::vector<u8>& started = stripe1->bytes();
  EXPECT_EQ(L32(&started[hive_header::OFS_TYPE]), 6u);
  EXPECT_EQ(L32(&started[hive_header::OFS_PRIMARY_SEQ]), 3u);
  EXPECT_EQ(L32(&started[hive_header::OFS_SECONDARY_SEQ]), 3u);
  EXPECT_EQ(calculateHeaderChecksum(started.data()), L32(&started[hive_header::OFS_CHECKSUM]));
  EXPECT_EQ(L32(&started[512 + hive_log_entry::OFS_SEQ]), 3u);
  EXPECT_TRUE(hivekit::test::entryHashesValid(started, 512));
  EXPECT_EQ(numbers(reopen()), P(5, 1));

  // LOG2's entry lies beyond a gap and was never applied: LOG2 is started
  // again one past the chain (4, not the file's 2 + 1, which would make the
  // next open take it in place of LOG1's entry 3).
  restart();
  std::vector<u8> a = log(2, {{2, {set(v1, 2)}}, {3, {set(v2, 3)}}}), b = log(5, {{5, {set(v2, 5)}}});
  hive = open(0, a, b);
  ASSERT_TRUE(hive && value(hive, "v1")->setNumber(7) && hive->flush());
  hive = nullptr;
  EXPECT_EQ(L32(&stripe2->bytes()[hive_header::OFS_PRIMARY_SEQ]), 4u);
  EXPECT_EQ(numbers(reopen()), P(7, 3));
}

}  // namespace
}  // namespace Libraries::Files::Hive
