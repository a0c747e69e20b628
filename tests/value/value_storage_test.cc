// Value data in its three storage forms: reading what real layouts hold
// (the db lists of a hive Windows wrote among them; skipped without the
// shared test data), records that shrink with the data, and refusing
// damaged records.
#include <algorithm>

#include "tests/support/test_files.h"
#include "tests/value/value_test_util.h"

namespace hivekit::test {
namespace {

using Hive::hive_record_vk;
namespace Error = Platform::Error;
using Platform::W32;

// The model test covers every change of form with the data kept; here,
// that a record shrinks with its data, and the size limit of a 1.3 hive.
TEST(ValueStorage, RecordsShrinkWithTheDataAndSizeHasALimit) {
  for (u32 minor : {3u, 5u}) {
    SCOPED_TRACE(minor);
    Ref<RegistryHiveObj> hive = newHive(minor);
    ASSERT_TRUE(hive);
    Ref<ValueObj> v = ValueObj::createValue(hive, nullptr, str("data"), 3);
    ASSERT_TRUE(v);
    for (u32 size : {40000u, 16344u, 9u}) {
      ASSERT_EQ(v->size(size), size);
      const Hive::hive_record* data = dataRecord(*hive, *v);
      ASSERT_NE(data, nullptr);
      if (minor == 3 || size <= 16344) {
        EXPECT_LE(data->length(), Hive::roundRecordSize(size + 4)) << size;
      }
    }
    if (minor == 3) {  // a db list has no such limit
      Error::set(0);
      EXPECT_EQ(v->size(ValueObj::MAX_VALUE_DATA_SIZE + 1), 9u);
      EXPECT_EQ(Error::get(), Errors::INVALID_ARGUMENT);
    }
  }
}

TEST(ValueStorage, ReadsWhatTheLayoutsHold) {
  HiveBuilder b(5);
  const u32 root = b.root();
  const std::vector<u8> small = pattern(5000, 1), big = pattern(40000, 2);
  // The first data record lies in the first 16 KiB of hive data.
  const u32 vSmall = b.value(root, u"small", 3, small);
  const u32 vBig = b.value(root, u"big", 3, big);
  const u32 vTiny = b.writeVk(
      {.name = HiveBuilder::latin1(u"tiny"), .nameLength = {}, .dataSize = 0x80000003u, .data = 0x00332211u});
  const u32 vEmpty = b.writeVk(
      {.name = HiveBuilder::latin1(u"empty"), .nameLength = {}, .dataSize = 0, .data = 0x12345678u});
  Ref<RegistryHiveObj> hive = openImage(b.build());
  ASSERT_TRUE(hive);

  auto s = makeRef<ValueObj>(hive, vSmall, nullptr);
  ASSERT_LT(hive->cacheLoadRecord(vSmall)->u32At(hive_record_vk::OFS_DATA), 5000u);
  EXPECT_EQ(readAll(*s), small);
  EXPECT_EQ(s->name()->toUtf8(), "small");

  // Pieces that start and end anywhere, fragment boundaries included.
  auto g = makeRef<ValueObj>(hive, vBig, nullptr);
  for (u32 piece : {1000u, 16344u, 16345u, 7u}) {
    std::vector<u8> got;
    std::vector<u8> buf(piece);
    for (u32 at = 0;; at += piece) {
      const u32 n = g->read(buf.data(), at, piece);
      if (n == 0) break;
      got.insert(got.end(), buf.begin(), buf.begin() + n);
    }
    EXPECT_EQ(got, big) << piece;
  }
  u8 two[2];
  EXPECT_EQ(g->read(two, 16343, 2), 2u);
  EXPECT_EQ(two[0], big[16343]);
  EXPECT_EQ(two[1], big[16344]);

  // Resident data obeys the offset like any other data.
  auto t = makeRef<ValueObj>(hive, vTiny, nullptr);
  u8 buf[10] = {};
  EXPECT_EQ(t->read(buf, 0, 10), 3u);
  EXPECT_EQ(buf[0], 0x11);
  EXPECT_EQ(buf[2], 0x33);
  EXPECT_EQ(t->read(buf, 2, 10), 1u);
  EXPECT_EQ(buf[0], 0x33);
  EXPECT_EQ(t->read(buf, 3, 10), 0u);

  auto e = makeRef<ValueObj>(hive, vEmpty, nullptr);
  EXPECT_TRUE(e->valid());
  EXPECT_TRUE(e->resident());
  EXPECT_EQ(e->read(buf, 0, 10), 0u);
}

// A value whose records are damaged: construction or every data access
// fails with 0x200c, nothing crashes, and resizing leaves it alone.
TEST(ValueStorage, DamagedRecordsAreRefused) {
  HiveBuilder b(5);
  b.root();
  auto vk = [&](const std::u16string& name, u32 size, u32 data) {
    return b.writeVk(
        {.name = HiveBuilder::latin1(name), .nameLength = {}, .dataSize = size, .data = data, .type = 3});
  };
  const u32 full = b.writeData(pattern(16344, 1));
  const u32 tail = b.writeData(pattern(3656, 2));
  const u32 shortFragment = b.writeData(pattern(100, 3));

  const u32 residentTooLarge = vk(u"resident5", 0x80000005u, 0);
  const u32 wrongNonLast = vk(u"nonlast", 20000, b.writeDb(2, b.writeOffsets({shortFragment, tail})));
  const u32 listTooSmall = vk(u"list", 20000, b.writeDb(2, b.writeOffsets({full})));
  const u32 tooFewFragments = vk(u"few", 20000, b.writeDb(1, b.writeOffsets({full})));
  const u32 notDb = vk(u"notdb", 20000, b.writeData(pattern(20000, 4)));
  const u32 cellTooShort = vk(u"short", 200, b.writeData(pattern(100, 5)));
  const u32 selfData = b.cell(32);
  {
    u8* p = b.at(selfData);
    p[4] = 'v';
    p[5] = 'k';
    W32(p + hive_record_vk::OFS_DATA_SIZE, 8);
    W32(p + hive_record_vk::OFS_DATA, selfData);
  }
  const u32 sharedFragment = b.cell(32);
  {
    // The vk record is the last fragment of its own data.
    const u32 db = b.writeDb(2, b.writeOffsets({full, sharedFragment}));
    u8* p = b.at(sharedFragment);
    p[4] = 'v';
    p[5] = 'k';
    W32(p + hive_record_vk::OFS_DATA_SIZE, 20000);
    W32(p + hive_record_vk::OFS_DATA, db);
  }
  const u32 nowhere = vk(u"nowhere", 100, 0x7ffffff8u);
  const u32 misaligned = vk(u"misaligned", 100, full + 4);
  const u32 residentOk = vk(u"fine", 0x80000002u, 0xbeef);

  Ref<RegistryHiveObj> hive = openImage(b.build());
  ASSERT_TRUE(hive);

  Error::set(0);
  auto r = makeRef<ValueObj>(hive, residentTooLarge, nullptr);
  EXPECT_FALSE(r->valid());
  EXPECT_TRUE(r->readOnly());
  EXPECT_EQ(Error::get(), Errors::BAD_VALUE_RECORD);

  for (u32 offset :
       {wrongNonLast, listTooSmall, tooFewFragments, notDb, cellTooShort, selfData, sharedFragment}) {
    SCOPED_TRACE(offset);
    auto v = makeRef<ValueObj>(hive, offset, nullptr);
    ASSERT_TRUE(v->valid());
    u8 buf[64];
    Error::set(0);
    EXPECT_EQ(v->read(buf, 0, sizeof buf), 0u);
    EXPECT_EQ(Error::get(), Errors::BAD_VALUE_RECORD);
    Error::set(0);
    EXPECT_EQ(v->write(buf, 0, sizeof buf), 0u);
    EXPECT_EQ(Error::get(), Errors::BAD_VALUE_RECORD);
    const u32 size = v->size();
    EXPECT_EQ(v->size(2), size);
    EXPECT_EQ(v->size(size + 100), size);
    EXPECT_FALSE(v->selfDelete());
    EXPECT_TRUE(v->valid());
  }
  for (u32 offset : {nowhere, misaligned}) {
    auto v = makeRef<ValueObj>(hive, offset, nullptr);
    u8 buf[64];
    EXPECT_EQ(v->read(buf, 0, sizeof buf), 0u);
  }
  // Damage elsewhere leaves a sound neighbour alone.
  auto ok = makeRef<ValueObj>(hive, residentOk, nullptr);
  u8 two[2];
  EXPECT_EQ(ok->read(two, 0, 2), 2u);
  EXPECT_EQ(two[0], 0xef);
}

Ref<ValueObj> valueAt(const Ref<RegistryHiveObj>& hive, const char* key, const char* name) {
  Ref<Interfaces::Config::Hive::Key> k = hive->root()->key(str(key));
  if (!k) return nullptr;
  Ref<Interfaces::Config::Hive::Value> v = k->value(str(name));
  return v.cast<ValueObj>();
}

// Every byte of the data, read through the stripe in pieces, is `fill`.
void expectFilled(ValueObj& v, u32 size, u8 fill) {
  ASSERT_EQ(v.size(), size);
  Ref<Interfaces::Stripe> s = v.binary();
  std::vector<u8> buf(5000);
  u64 total = 0;
  while (u64 n = s->read(buf.data(), buf.size())) {
    ASSERT_TRUE(std::all_of(buf.begin(), buf.begin() + n, [&](u8 b) { return b == fill; })) << total;
    total += n;
  }
  EXPECT_EQ(total, size);
}

// The db lists of a hive written by Windows read and resize.
TEST(ValueStorage, DbListsOfWindowsReadAndResize) {
  const std::vector<u8> image = readBytes(testHives() / "BigDataHive");
  if (image.empty()) GTEST_SKIP() << "no shared test data";
  Ref<MemoryStripe> stripe;
  Ref<RegistryHiveObj> hive = openImage(image, 0, &stripe);
  ASSERT_TRUE(hive);
  Ref<ValueObj> one = valueAt(hive, "key_with_bigdata", "");
  Ref<ValueObj> two = valueAt(hive, "key_with_bigdata", "v");
  ASSERT_TRUE(one && two);
  expectFilled(*one, 16345, '1');
  expectFilled(*two, 81725, '2');

  ASSERT_EQ(two->size(20000), 20000u);
  ASSERT_EQ(one->size(16344), 16344u);
  Ref<RegistryHiveObj> again = reopen(hive, stripe);
  ASSERT_TRUE(again);
  expectFilled(*valueAt(again, "key_with_bigdata", "v"), 20000, '2');
  expectFilled(*valueAt(again, "key_with_bigdata", ""), 16344, '1');
}

}  // namespace
}  // namespace hivekit::test
