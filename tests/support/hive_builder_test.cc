// The builder makes the hives of most other tests, and a wrong image mostly
// shows there as a refusal. What would not show: hashes computed the same
// wrong way here and in the model test's byte walk, and a storage form the
// builder fails to choose, which would quietly take a reading path out of
// every test that relies on it. Those are checked here.
#include "tests/support/hive_builder.h"

#include "tests/value/value_test_util.h"

namespace hivekit::test {
namespace {

using Hive::hive_record_db;
using Hive::hive_record_vk;

TEST(HiveBuilderTest, HashesByHand) {
  // Upper-cased units, h * 37 + c; Latin-1 letters fold too.
  EXPECT_EQ(HiveBuilder::lhHash(u"ab", true), 65u * 37 + 66);
  EXPECT_EQ(HiveBuilder::lhHash(u"\u00e9", true), 0xC9u);
  EXPECT_EQ(HiveBuilder::lfHint(u"ab"), 0x6261u);
}

TEST(HiveBuilderTest, SubkeyListsAndNamesTakeTheWindowsForm) {
  for (u32 minor : {3u, 5u}) {
    SCOPED_TRACE(minor);
    HiveBuilder b(minor);
    b.setMaxListEntries(4);
    const u32 root = b.root();
    for (const char16_t* n : {u"delta", u"Alpha", u"charlie", u"Bravo", u"echo", u"x", u"Fox", u"golf"})
      b.key(root, n);
    const u32 small = b.key(root, u"small");
    const u32 latin = b.key(small, u"\u00e9t\u00e9");  // stored 8-bit
    const u32 wide = b.key(small, u"\u0416");          // stored UTF-16
    Ref<RegistryHiveObj> hive = openImage(b.build(), Hive::modeReadOnly);
    ASSERT_TRUE(hive);

    // 9 subkeys over a limit of 4: an ri over three sublists.
    const ListShape big = listShape(*hive, root);
    const u16 leaf = minor >= 4 ? LH : LI;
    EXPECT_EQ(big.top, RI);
    EXPECT_EQ(big.lists, (std::vector<std::pair<u16, u32>>{{leaf, 4}, {leaf, 4}, {leaf, 1}}));
    EXPECT_EQ(listShape(*hive, small).top, minor >= 4 ? LH : LF);
    EXPECT_EQ(hive->cacheLoadRecord(latin)->u16At(hive_record_nk::OFS_FLAGS), hive_record_nk::FLAG_COMP_NAME);
    EXPECT_EQ(hive->cacheLoadRecord(latin)->u16At(hive_record_nk::OFS_NAME_LENGTH), 3u);
    EXPECT_EQ(hive->cacheLoadRecord(wide)->u16At(hive_record_nk::OFS_FLAGS), 0u);
  }
}

TEST(HiveBuilderTest, ValueDataTakesTheWindowsStorageForm) {
  const std::vector<u8> edge = pattern(16344, 1), big = pattern(40000, 2);
  for (u32 minor : {3u, 5u}) {
    SCOPED_TRACE(minor);
    HiveBuilder b(minor);
    const u32 root = b.root();
    const u32 resident = b.value(root, u"r", 4, {1, 2, 3});
    const u32 single = b.value(root, u"e", 3, edge);
    const u32 large = b.value(root, u"", 3, big);
    Ref<RegistryHiveObj> hive = openImage(b.build(), Hive::modeReadOnly);
    ASSERT_TRUE(hive);
    EXPECT_EQ(hive->cacheLoadRecord(resident)->u32At(hive_record_vk::OFS_DATA_SIZE), 0x80000003u);
    auto s = makeRef<ValueObj>(hive, single, nullptr), l = makeRef<ValueObj>(hive, large, nullptr);
    ASSERT_NE(dataRecord(*hive, *s), nullptr);
    EXPECT_NE(dataRecord(*hive, *s)->signature(), hive_record_db::SIGNATURE);
    EXPECT_EQ(readAll(*s), edge);
    // Beyond 16344 bytes a 1.4+ hive keeps data in a db list of fragments.
    const hive_record* d = dataRecord(*hive, *l);
    ASSERT_NE(d, nullptr);
    EXPECT_EQ(d->signature() == hive_record_db::SIGNATURE, minor >= 4);
    if (minor >= 4) {
      EXPECT_EQ(d->u16At(hive_record_db::OFS_COUNT), 3u);
    }
    EXPECT_EQ(readAll(*l), big);
  }
}

}  // namespace
}  // namespace hivekit::test
