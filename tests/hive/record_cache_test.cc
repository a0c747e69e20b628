// The record store: the hbin table built at open and its refusals, the
// free-space fields, record validation, changes staying in memory until a
// flush, the record-start index staying exact under writes and on a big
// Windows hive, and unsafe mode.
#include <gtest/gtest.h>

#include <functional>
#include <random>
#include <string>
#include <vector>

#include "hive/format/errors.h"
#include "hive/registry_hive.h"
#include "platform/error.h"
#include "platform/file_stripe.h"
#include "tests/support/hives.h"
#include "tests/support/test_files.h"

namespace Libraries::Files::Hive {
namespace {

using hivekit::test::HiveBuilder;
using hivekit::test::openImage;

// Looks a record up and tells whether the log holds `message`.
bool loadFailsWith(RegistryHiveObj& hive, u32 offset, const std::string& message) {
  Log::Capture capture(1);
  const bool failed = hive.cacheLoadRecord(offset) == nullptr;
  EXPECT_TRUE(capture.contains(message)) << "offset " << offset << " expected: " << message;
  return failed;
}

// A hive whose second hbin (at 4096) holds one used record; `damage` may
// patch its header (file offset 8192).
std::vector<u8> twoHbins(u32* record, const std::function<void(HiveBuilder&)>& damage = {}) {
  HiveBuilder b;
  b.root();
  b.newHbin();
  *record = b.cell(16);
  if (damage) damage(b);
  return b.build();
}

TEST(HbinScan, DamagedHeaderStopsTheScan) {
  struct Case {
    std::function<void(HiveBuilder&)> damage;
    const char* message;
  };
  const std::vector<Case> cases = {
      {[](HiveBuilder& b) {
         b.patch(8192, {'h', 'b', 'i', 'x'});
       },
       "Unexpected hbin signature: "},
      {[](HiveBuilder& b) { b.patch32(8192 + 4, 0); },
       "Wrong offset for hbin, offset = 0 does not match file offset 4096"},
      {[](HiveBuilder& b) { b.patch32(8192 + 8, 100); }, "Invalid size for hbin: 100"},
      {[](HiveBuilder& b) { b.patch32(8192 + 8, 0); }, "Invalid size for hbin: 0"},
      {[](HiveBuilder& b) { b.patch32(8192 + 8, 8192); }, "Hbin exeeds total length"},
  };
  for (const Case& c : cases) {
    for (u32 mode : {0u, 1u}) {
      u32 record;
      Ref<RegistryHiveObj> hive = openImage(twoHbins(&record, c.damage), mode);
      ASSERT_TRUE(hive) << c.message;
      EXPECT_TRUE(loadFailsWith(*hive, record, c.message));
      EXPECT_EQ(hive->hbinCount(), 1u) << "a refused hbin is not added";
      EXPECT_NE(hive->cacheLoadRecord(hive->rootOffset()), nullptr) << "the hbins before it stay readable";
    }
  }
}

TEST(HbinScan, WritableHivesLearnTheLargestFreeRecord) {
  HiveBuilder b;
  b.root();
  b.newHbin();
  const u32 small = b.cell(48);
  const u32 used = b.cell(8);
  const u32 first = b.cell(96);
  b.cell(8);
  const u32 second = b.cell(96);
  b.cell(4096 - 32 - (48 + 8 + 96 + 8 + 96));  // fill the hbin: no trailing free record
  for (u32 r : {small, first, second}) b.freeCell(r);
  const std::vector<u8> image = b.build();

  Ref<RegistryHiveObj> writable = openImage(image, 0);
  ASSERT_NE(writable->cacheLoadRecord(used), nullptr);
  ASSERT_EQ(writable->hbinCount(), 2u);
  EXPECT_EQ(writable->store().hbins()[1].freeSize, 96u);
  EXPECT_EQ(writable->store().hbins()[1].freeOffset, first) << "of equal free records the first wins";

  Ref<RegistryHiveObj> readOnly = openImage(image, 1);
  ASSERT_NE(readOnly->cacheLoadRecord(used), nullptr);
  EXPECT_EQ(readOnly->store().hbins()[1].freeSize, 0u);
  EXPECT_EQ(readOnly->store().hbins()[1].freeOffset, 0u);
}

TEST(RecordValidity, OffsetsThatAreNoUsedRecordStartFail) {
  HiveBuilder b;
  b.root();
  b.newHbin();
  const u32 big = b.cell(64);
  const u32 freed = b.cell(16);
  const u32 a = b.cell(16);
  const u32 zero = b.cell(16);
  const u32 after = b.cell(16);
  b.freeCell(freed);
  b.patch32(4096 + zero, 0);
  const u32 hbin = 4096;
  Ref<RegistryHiveObj> hive = openImage(b.build(), 1);
  ASSERT_TRUE(hive);

  EXPECT_NE(hive->cacheLoadRecord(hbin + 32), nullptr) << "the first record of an hbin";
  EXPECT_EQ(hive->cacheLoadRecord(big)->length(), 64u);
  EXPECT_NE(hive->cacheLoadRecord(a), nullptr);
  EXPECT_TRUE(loadFailsWith(*hive, hbin + 8, "Record intersects with HBIN header, record ofs: 4104"));
  EXPECT_TRUE(loadFailsWith(*hive, hbin, "Record intersects with HBIN header, record ofs: 4096"));
  EXPECT_TRUE(loadFailsWith(*hive, big + 8, "Record is not valid: " + std::to_string(big + 8)));
  EXPECT_TRUE(
      loadFailsWith(*hive, freed, "Attempt to access an unused record, record=" + std::to_string(freed)));
  EXPECT_TRUE(loadFailsWith(*hive, zero, "Attempt to access an unused record, record="));
  EXPECT_TRUE(loadFailsWith(*hive, after, "Record with 0 size -> HBIN is invalid, hbin: 4096"));
  EXPECT_TRUE(loadFailsWith(*hive, 0x7ffff000, "No hbin holds record: "));

  Log::Capture capture(4);
  Error::set(0);
  EXPECT_EQ(hive->cacheLoadRecord(a + 4), nullptr);
  EXPECT_EQ(Error::get(), Errors::MISALIGNED_RECORD);
  EXPECT_TRUE(
      capture.contains("Attempt to access record with invalid alignment, offset: " + std::to_string(a + 4)));
}

TEST(RecordValidity, RecordRunningPastItsHbinIsRefused) {
  HiveBuilder b;
  b.root();
  b.newHbin();
  const u32 last = b.cell(4096 - 32);
  b.patch32(4096 + last, static_cast<u32>(-8192));
  Ref<RegistryHiveObj> hive = openImage(b.build(), 1);
  ASSERT_TRUE(hive);
  EXPECT_TRUE(loadFailsWith(*hive, last, "Length of record exceeds hbin"));
}

// Reference: the records of an hbin as a walk of the stored bytes finds them.
std::vector<bool> usedStarts(const std::vector<u8>& file, u32 hbin, u32 size) {
  std::vector<bool> used(size / 8, false);
  for (u32 pos = 32; pos + 4 <= size;) {
    const s32 s = LS32(file.data() + 4096 + hbin + pos);
    if (s == 0) break;
    if (s < 0) used[pos / 8] = true;
    pos += s < 0 ? static_cast<u32>(-s) : static_cast<u32>(s);
  }
  return used;
}

// The record-start index must answer exactly as a fresh walk would after
// allocation, resizing, freeing, and size fields written directly.
TEST(RecordCache, RecordStartIndexFollowsEveryBoundaryChange) {
  HiveBuilder b;
  b.root();
  Ref<MemoryStripe> stripe;
  Ref<RegistryHiveObj> hive = openImage(b.build(), 0, &stripe);
  ASSERT_TRUE(hive);
  std::mt19937 rng(7);
  std::vector<u32> live;
  // Payloads of all ones look like used size fields wherever a stale index
  // would still claim a record start.
  const std::vector<u8> ones(8192, 0xff);
  const auto fill = [&](u32 r) {
    return hive->writeRecord(r, ones.data(), 4, hive->cacheLoadRecord(r)->length() - 4);
  };
  for (int step = 0; step < 150; ++step) {
    const u32 op = rng() % 5;
    if (op <= 1 || live.empty()) {
      const u32 r = hive->allocateRecord(1 + rng() % 1000);
      ASSERT_NE(r, INVALID_RECORD);
      ASSERT_TRUE(fill(r));
      live.push_back(r);
    } else if (op == 2) {
      const size_t i = rng() % live.size();
      const u32 r = hive->resizeRecord(live[i], 1 + rng() % 5000, true);
      ASSERT_NE(r, INVALID_RECORD);
      ASSERT_TRUE(fill(r));
      live[i] = r;
    } else if (op == 3) {
      const size_t i = rng() % live.size();
      ASSERT_TRUE(hive->freeRecord(live[i]));
      live.erase(live.begin() + i);
    } else {
      // A caller freeing a record by writing its size field itself.
      const size_t i = rng() % live.size();
      u32 hbin = hive->store().hbinFromOffset(live[i]);
      const hive_record* rec = hive->cacheLoadRecord(live[i]);
      ASSERT_NE(rec, nullptr);
      u8 field[4];
      W32(field, rec->length());
      ASSERT_TRUE(hive->store().writeHBIN(hbin, live[i] - hive->store().hbins()[hbin].offset, field, 4));
      live.erase(live.begin() + i);
    }
    ASSERT_TRUE(hive->flush());
    const std::vector<u8>& file = stripe->bytes();
    for (u32 h = 0; h < hive->hbinCount(); ++h) {
      const auto& entry = hive->store().hbins()[h];
      const std::vector<bool> used = usedStarts(file, entry.offset, entry.size);
      for (u32 pos = 32; pos < entry.size; pos += 8)
        ASSERT_EQ(hive->cacheLoadRecord(entry.offset + pos) != nullptr, used[pos / 8])
            << "step " << step << " offset " << entry.offset + pos;
    }
  }
  EXPECT_GT(hive->hbinCount(), 3u);
}

// Every used record of SYSTEM (11.7 MB, 2,736 hbins), found by a walk of
// the file's bytes, loads twice through a read-only open that maps the
// file's pages. Skipped without the shared test data.
TEST(RecordCache, EveryRecordOfAWindowsHiveLoads) {
  Ref<Interfaces::Stripe> file =
      FileStripe::open((hivekit::test::testHives() / "SYSTEM").string(), FileStripe::Read);
  if (!file) GTEST_SKIP() << "no shared test data";
  std::vector<u8> bytes(file->elementCount());
  ASSERT_EQ(file->readAt(0, bytes.data(), bytes.size()), bytes.size());
  std::vector<u32> used;
  u32 bins = 0;
  const u32 length = L32(bytes.data() + hive_header::OFS_LENGTH);
  for (u32 bin = 0; bin < length; ++bins) {
    const u32 size = L32(bytes.data() + hive_header::SIZE + bin + hive_hbin::OFS_SIZE);
    for (u32 ofs = bin + hive_hbin::SIZE; ofs < bin + size;) {
      const s32 s = LS32(bytes.data() + hive_header::SIZE + ofs);
      if (s < 0) used.push_back(ofs);
      ofs += s < 0 ? static_cast<u32>(-s) : static_cast<u32>(s);
    }
    bin += size;
  }
  ASSERT_GT(used.size(), 100000u);
  Ref<RegistryHiveObj> hive = HiveFile::open(file, modeReadOnly, latin1, nullptr).cast<RegistryHiveObj>();
  ASSERT_TRUE(hive);
  EXPECT_EQ(hive->hbinCount(), bins);
  for (int pass = 0; pass < 2; ++pass)
    for (u32 ofs : used) ASSERT_NE(hive->cacheLoadRecord(ofs), nullptr) << ofs;
}

TEST(UnsafeMode, ServesRecordsFromTheWholeFileCopy) {
  HiveBuilder b;
  b.root();
  b.newHbin();
  const u32 beyond = b.cell(24);
  b.at(beyond)[4] = 'q';
  const u32 freed = b.cell(16);
  b.freeCell(freed);
  b.patch(8192, {'j', 'u', 'n', 'k'});  // the hbin scan stops here
  const std::vector<u8> image = b.build();

  Ref<RegistryHiveObj> safe = openImage(image, 1);
  ASSERT_TRUE(safe);
  EXPECT_EQ(safe->cacheLoadRecord(beyond), nullptr);

  Ref<RegistryHiveObj> hive = openImage(image, 0x5);
  ASSERT_TRUE(hive);
  const hive_record* r = hive->cacheLoadRecord(beyond);
  ASSERT_NE(r, nullptr);
  EXPECT_EQ(r->bytes()[4], 'q');
  EXPECT_TRUE(loadFailsWith(*hive, freed, "Attempt to access an unused record in unsafe mode, record="));
  EXPECT_TRUE(loadFailsWith(*hive, 0x100000, "Failed to get record in unsafe mode, record="));

  Log::Capture capture(4);
  u32 hbin;
  EXPECT_EQ(hive->store().cacheLoadRecord(beyond, &hbin, false), nullptr);
  EXPECT_TRUE(capture.contains("Call of internal cacheLoadRecord in unsafe mode"));
  EXPECT_EQ(hive->store().hbinFromOffset(beyond), RecordStore::INVALID_HBIN);
  EXPECT_TRUE(capture.contains("Call of hbinFromOffset in unsafe mode"));
  EXPECT_TRUE(hive->flush());
}

}  // namespace
}  // namespace Libraries::Files::Hive
