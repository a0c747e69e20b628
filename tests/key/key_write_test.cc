// Creating, deleting and moving keys: the list reshaping that makes room
// (lf -> li, a second level, splits) and shrinks away, held objects, and
// live iterators.
#include <algorithm>
#include <ctime>
#include <random>

#include "tests/key/key_test_util.h"

namespace hivekit::test {
namespace {

namespace Error = Platform::Error;
// Enough for sublists to fill and split many times over (each holds at
// most 1200); bench/import_bench.cc creates 100,000 keys the same way.
constexpr u32 kManyKeys = 20000;

using Shape = std::vector<std::pair<u16, u32>>;

void createNumbered(KeyObj& parent, u32 first, u32 count) {
  for (u32 i = first; i < first + count; ++i) {
    ASSERT_TRUE(parent.createKey(str(numbered("key", i)))) << i;
  }
}

u32 nkField(RegistryHiveObj& hive, u32 nk, u32 field) {
  const hive_record* rec = hive.cacheLoadRecord(nk);
  return rec ? rec->u32At(field) : 0;
}

TEST(KeyCreate, LfHiveConvertsToLiThenAddsSecondLevel) {
  Ref<RegistryHiveObj> hive = newHive(3);
  ASSERT_TRUE(hive);
  Ref<KeyObj> root = hive->rootObj();

  createNumbered(*root, 0, 1);
  const u32 firstList = nkField(*hive, root->offset(), hive_record_nk::OFS_KEY_LIST);
  EXPECT_EQ(hive->cacheLoadRecord(firstList)->length(), 64u);  // a new list gets a 64-byte cell

  createNumbered(*root, 1, 399);
  EXPECT_EQ(listShape(*hive, root->offset()).lists, (Shape{{LF, 400}}));
  createNumbered(*root, 400, 1);
  ListShape shape = listShape(*hive, root->offset());
  EXPECT_EQ(shape.lists, (Shape{{LI, 401}}));

  createNumbered(*root, 401, 499);
  EXPECT_EQ(listShape(*hive, root->offset()).lists, (Shape{{LI, 900}}));
  createNumbered(*root, 900, 1);
  shape = listShape(*hive, root->offset());
  EXPECT_EQ(shape.top, RI);
  EXPECT_EQ(shape.lists, (Shape{{LI, 450}, {LI, 451}}));
}

TEST(KeyCreate, LhListOf1200GetsSecondLevelOfTwoHalves) {
  Ref<RegistryHiveObj> hive = newHive(5);
  ASSERT_TRUE(hive);
  Ref<KeyObj> root = hive->rootObj();
  createNumbered(*root, 0, 1);
  const u32 firstList = nkField(*hive, root->offset(), hive_record_nk::OFS_KEY_LIST);
  EXPECT_EQ(hive->cacheLoadRecord(firstList)->signature(), LH);
  EXPECT_EQ(hive->cacheLoadRecord(firstList)->length(), 64u);

  createNumbered(*root, 1, 1199);
  EXPECT_EQ(listShape(*hive, root->offset()).lists, (Shape{{LH, 1200}}));
  // The new name sorts first, so it lands in the first half.
  ASSERT_TRUE(root->createKey(str("a")));
  ListShape shape = listShape(*hive, root->offset());
  EXPECT_EQ(shape.top, RI);
  EXPECT_EQ(shape.lists, (Shape{{LH, 601}, {LH, 600}}));
  EXPECT_EQ(subkeyNames(root).front(), "a");
}

TEST(KeyCreate, OddSublistSplitsIntoFloorHalfAndRest) {
  // A list written by another tool with more entries than this library allows.
  HiveBuilder b(5);
  b.setMaxListEntries(2000);
  const u32 r = b.root();
  for (u32 i = 0; i < 1301; ++i)
    b.key(r,
          std::u16string{u'k', static_cast<char16_t>(u'a' + i % 26),
                         static_cast<char16_t>(u'a' + i / 26 % 26), static_cast<char16_t>(u'a' + i / 676)});
  Ref<RegistryHiveObj> hive = openImage(b.build());
  ASSERT_TRUE(hive);
  Ref<KeyObj> root = hive->rootObj();
  ASSERT_EQ(root->keys(), 1301u);
  ASSERT_TRUE(root->createKey(str("zzz")));
  EXPECT_EQ(listShape(*hive, root->offset()).lists, (Shape{{LH, 650}, {LH, 652}}));
  std::vector<std::string> names = subkeyNames(root);
  ASSERT_EQ(names.size(), 1302u);
  EXPECT_TRUE(std::is_sorted(names.begin(), names.end()));
}

// The model test covers the records, hashes, counts and error codes of
// creating, deleting and moving keys; here, what it does not reach.
TEST(KeyObjects, SecurityIdentityAndForeignKeys) {
  Ref<RegistryHiveObj> hive = newHive(5);
  ASSERT_TRUE(hive);
  Ref<KeyObj> root = hive->rootObj();
  Ref<KeyObj> a = asKeyObj(root->createKey(str("a")));
  Ref<KeyObj> b = asKeyObj(root->createKey(str("b")));
  ASSERT_TRUE(a && b);
  EXPECT_EQ(a->sdOffset(), root->sdOffset()) << "a new key shares its parent's security";
  Ref<KeyObj> c = asKeyObj(a->createKey(str("c")));
  ASSERT_TRUE(c);

  EXPECT_FALSE(b->deleteKey(c)) << "a key of the tree, but not a subkey of this one";
  EXPECT_EQ(Error::get(), Errors::INVALID_ARGUMENT);
  EXPECT_FALSE(b->move(root, str("x")));
  EXPECT_EQ(Error::get(), Errors::MOVE_ROOT);

  // Held objects follow their keys through moves and renames.
  ASSERT_TRUE(b->move(c, str("moved")));
  EXPECT_EQ(c->parent().get(), b.get());
  EXPECT_EQ(b->key(str("MOVED")).get(), c.get());
  ASSERT_TRUE(root->move(a, str("z")));
  EXPECT_EQ(root->key(str("z")).get(), a.get());
  ASSERT_TRUE(root->deleteKey(a));
  EXPECT_FALSE(a->valid());
}

TEST(KeyDelete, TwoLevelListCollapsesAsSublistsEmpty) {
  Ref<RegistryHiveObj> hive = newHive(5);
  ASSERT_TRUE(hive);
  Ref<KeyObj> root = hive->rootObj();
  createNumbered(*root, 0, 1201);
  ASSERT_EQ(listShape(*hive, root->offset()).lists, (Shape{{LH, 600}, {LH, 601}}));
  // Empty the first sublist: the second becomes the key's only list.
  for (u32 i = 0; i < 600; ++i) ASSERT_TRUE(root->deleteKey(root->key(str(numbered("key", i))))) << i;
  ListShape shape = listShape(*hive, root->offset());
  EXPECT_EQ(shape.top, LH);
  EXPECT_EQ(shape.lists, (Shape{{LH, 601}}));
  for (u32 i = 600; i < 1201; ++i) ASSERT_TRUE(root->deleteKey(root->key(str(numbered("key", i))))) << i;
  EXPECT_EQ(root->keys(), 0u);
  EXPECT_EQ(nkField(*hive, root->offset(), hive_record_nk::OFS_KEY_LIST), Hive::INVALID_RECORD);
  EXPECT_TRUE(root->createKey(str("again")));
  EXPECT_EQ(subkeyNames(root), (std::vector<std::string>{"again"}));
}

TEST(KeyIterators, StayOnTheNextEntryWhileTheListChanges) {
  Ref<RegistryHiveObj> hive = newHive(5);
  ASSERT_TRUE(hive);
  Ref<KeyObj> root = hive->rootObj();
  createNumbered(*root, 0, 10);
  Ref<Hive::KeyIterator> it = root->keyIterator();
  EXPECT_EQ(it->seek(100), 10u);
  EXPECT_FALSE(it->next());
  EXPECT_EQ(it->seek(2), 2u);
  ASSERT_TRUE(root->createKey(str("key00001a")));  // inserted at 2
  EXPECT_EQ(it->next()->name()->toUtf8(), "key00002");
  ASSERT_TRUE(root->deleteKey(root->key(str("key00003"))));  // the next entry itself
  EXPECT_EQ(it->next()->name()->toUtf8(), "key00004");
  ASSERT_TRUE(root->deleteKey(root->key(str("key00000"))));  // before the position
  EXPECT_EQ(it->next()->name()->toUtf8(), "key00005");

  // Deleting every key while walking visits each exactly once.
  it->seek(0);
  u32 visited = 0;
  while (Ref<Hive::Key> k = it->next()) {
    ASSERT_TRUE(root->deleteKey(k));
    ++visited;
  }
  EXPECT_EQ(visited, 9u);
  EXPECT_EQ(root->keys(), 0u);

  // A dropped iterator's slot is taken by the next one.
  it = nullptr;
  Ref<Hive::KeyIterator> second = root->keyIterator();
  EXPECT_TRUE(second);
}

TEST(KeyCreate, ManyKeysInRandomOrderStaySorted) {
  Ref<RegistryHiveObj> hive = newHive(5);
  ASSERT_TRUE(hive);
  Ref<KeyObj> root = hive->rootObj();
  std::vector<u32> order(kManyKeys);
  for (u32 i = 0; i < order.size(); ++i) order[i] = i;
  std::shuffle(order.begin(), order.end(), std::mt19937(7));
  for (u32 i : order) ASSERT_TRUE(root->createKey(str(numbered("k", i, 6)))) << i;
  const ListShape shape = listShape(*hive, root->offset());
  EXPECT_EQ(shape.top, RI);
  EXPECT_GE(shape.lists.size(), kManyKeys / KeyObj::MAX_KEYS_LH_LIST + 1);
  for (const auto& [sig, count] : shape.lists) {
    EXPECT_EQ(sig, LH);
    EXPECT_LE(count, KeyObj::MAX_KEYS_LH_LIST);
  }
  std::vector<std::string> names = subkeyNames(root);
  ASSERT_EQ(names.size(), order.size());
  for (u32 i = 0; i < names.size(); i += 997) EXPECT_EQ(names[i], numbered("k", i, 6));
  EXPECT_TRUE(std::is_sorted(names.begin(), names.end()));
}

}  // namespace
}  // namespace hivekit::test
