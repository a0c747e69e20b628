// Creating, deleting, moving and renaming keys: the list reshaping that
// makes room (lf -> li, a second level, splits), the records written, the
// error codes, security reference counts and live iterators.
#include <algorithm>
#include <ctime>
#include <random>

#include "hive/value/value_obj.h"
#include "platform/log.h"
#include "tests/key/key_test_util.h"

namespace hivekit::test {
namespace {

using Hive::hive_record_sk;
namespace Error = Platform::Error;
constexpr u16 LF = hive_record_list::SIGNATURE_LF;
constexpr u16 LH = hive_record_list::SIGNATURE_LH;
constexpr u16 LI = hive_record_list::SIGNATURE_LI;
constexpr u16 RI = hive_record_list::SIGNATURE_RI;
// Enough for sublists to fill and split many times over (each holds at
// most 1200); bench/import_bench.cc creates 100,000 keys the same way.
constexpr u32 kManyKeys = 20000;

using Shape = std::vector<std::pair<u16, u32>>;

void createNumbered(KeyObj& parent, u32 first, u32 count) {
  for (u32 i = first; i < first + count; ++i) {
    ASSERT_TRUE(parent.createKey(str(numbered("key", i)))) << i;
  }
}

u32 skRefCount(RegistryHiveObj& hive, u32 sk) {
  const hive_record* rec = hive.cacheLoadRecord(sk);
  return rec ? rec->u32At(hive_record_sk::OFS_REFCOUNT) : 0;
}

u32 nkField(RegistryHiveObj& hive, u32 nk, u32 field) {
  const hive_record* rec = hive.cacheLoadRecord(nk);
  return rec ? rec->u32At(field) : 0;
}

TEST(KeyCreate, LfHiveConvertsToLiThenAddsSecondLevel) {
  Ref<MemoryStripe> stripe;
  Ref<RegistryHiveObj> hive = newHive(3, &stripe);
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

  Ref<RegistryHiveObj> again = reopen(hive, stripe);
  ASSERT_TRUE(again);
  std::vector<std::string> names = subkeyNames(again->root());
  ASSERT_EQ(names.size(), 901u);
  for (u32 i = 0; i < 901; ++i) ASSERT_EQ(names[i], numbered("key", i));
  EXPECT_TRUE(again->root()->key(str("KEY00450")));
  EXPECT_TRUE(again->root()->key(str("key00900")));
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
    b.key(r, std::u16string{u'k', static_cast<char16_t>(u'a' + i % 26), static_cast<char16_t>(u'a' + i / 26 % 26),
                            static_cast<char16_t>(u'a' + i / 676)});
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

TEST(KeyCreate, RecordFieldsHashAndSecurityCount) {
  Ref<RegistryHiveObj> hive = newHive(5);
  ASSERT_TRUE(hive);
  Ref<KeyObj> root = hive->rootObj();
  const u32 sk = root->sdOffset();
  const u32 before = skRefCount(*hive, sk);
  Ref<KeyObj> k = asKeyObj(root->createKey(str("Software")));
  ASSERT_TRUE(k);
  EXPECT_EQ(k->name()->toUtf8(), "Software");
  EXPECT_EQ(k->sdOffset(), sk);
  EXPECT_EQ(skRefCount(*hive, sk), before + 1);

  const hive_record* nk = hive->cacheLoadRecord(k->offset());
  EXPECT_EQ(nk->u16At(hive_record_nk::OFS_FLAGS), hive_record_nk::FLAG_COMP_NAME);
  EXPECT_EQ(nk->u32At(hive_record_nk::OFS_PARENT), root->offset());
  EXPECT_EQ(nk->u32At(hive_record_nk::OFS_KEY_LIST), Hive::INVALID_RECORD);
  EXPECT_EQ(nk->u32At(hive_record_nk::OFS_VALUE_LIST), Hive::INVALID_RECORD);
  EXPECT_EQ(nk->u32At(hive_record_nk::OFS_NUM_KEYS), 0u);
  EXPECT_EQ(nk->u16At(hive_record_nk::OFS_NAME_LENGTH), 8u);

  const u32 list = nkField(*hive, root->offset(), hive_record_nk::OFS_KEY_LIST);
  const hive_record* lh = hive->cacheLoadRecord(list);
  EXPECT_EQ(lh->u32At(hive_record_list::OFS_ITEMS + 4), HiveBuilder::lhHash(u"Software", true));

  // A name with a character outside the codepage is stored as UTF-16.
  Ref<KeyObj> wide = asKeyObj(root->createKey(String::fromUtf16(u"\u4e2d\u6587", 2)));
  ASSERT_TRUE(wide);
  nk = hive->cacheLoadRecord(wide->offset());
  EXPECT_EQ(nk->u16At(hive_record_nk::OFS_FLAGS) & hive_record_nk::FLAG_COMP_NAME, 0);
  EXPECT_EQ(nk->u16At(hive_record_nk::OFS_NAME_LENGTH), 4u);
  EXPECT_TRUE(root->key(String::fromUtf16(u"\u4e2d\u6587", 2)));
}

TEST(KeyCreate, Refusals) {
  Ref<MemoryStripe> stripe;
  Ref<RegistryHiveObj> hive = newHive(5, &stripe);
  ASSERT_TRUE(hive);
  Ref<KeyObj> root = hive->rootObj();
  ASSERT_TRUE(root->createKey(str("Software")));

  EXPECT_FALSE(root->createKey(str("SOFTWARE")));
  EXPECT_EQ(Error::get(), Errors::KEY_EXISTS);
  EXPECT_TRUE(root->createKey(str(std::string(255, 'a'))));
  EXPECT_FALSE(root->createKey(str(std::string(256, 'b'))));
  EXPECT_EQ(Error::get(), Errors::KEY_NAME_INVALID);
  EXPECT_EQ(root->keys(), 2u);

  Ref<RegistryHiveObj> readOnly = reopen(hive, stripe, Hive::modeReadOnly);
  ASSERT_TRUE(readOnly);
  EXPECT_FALSE(readOnly->rootObj()->createKey(str("New")));
  EXPECT_EQ(Error::get(), Errors::READ_ONLY);
}

TEST(KeyDelete, OnlyEmptyKeysAndListsShrinkAway) {
  Ref<MemoryStripe> stripe;
  Ref<RegistryHiveObj> hive = newHive(5, &stripe);
  ASSERT_TRUE(hive);
  Ref<KeyObj> root = hive->rootObj();
  const u32 sk = root->sdOffset();
  Ref<KeyObj> a = asKeyObj(root->createKey(str("a")));
  Ref<KeyObj> b = asKeyObj(root->createKey(str("b")));
  ASSERT_TRUE(a && b);
  ASSERT_TRUE(a->createKey(str("child")));
  ASSERT_TRUE(b->createValue(str("v"), 4));
  const u32 refs = skRefCount(*hive, sk);

  EXPECT_FALSE(root->deleteKey(a));
  EXPECT_EQ(Error::get(), Errors::KEY_NOT_EMPTY);
  EXPECT_FALSE(root->deleteKey(b));
  EXPECT_EQ(Error::get(), Errors::KEY_NOT_EMPTY);
  EXPECT_EQ(root->keys(), 2u);
  EXPECT_TRUE(b->valid());

  // A key of the tree, but not a subkey of this one.
  EXPECT_FALSE(b->deleteKey(a->key(str("child"))));
  EXPECT_EQ(Error::get(), Errors::INVALID_ARGUMENT);

  ASSERT_TRUE(a->deleteKey(a->key(str("CHILD"))));
  EXPECT_EQ(a->keys(), 0u);
  EXPECT_EQ(nkField(*hive, a->offset(), hive_record_nk::OFS_KEY_LIST), Hive::INVALID_RECORD);
  EXPECT_EQ(skRefCount(*hive, sk), refs - 1);
  const u32 aOffset = a->offset();
  ASSERT_TRUE(root->deleteKey(a));
  EXPECT_FALSE(a->valid());
  EXPECT_EQ(hive->cacheLoadRecord(aOffset), nullptr);  // the nk record is free
  EXPECT_EQ(subkeyNames(root), (std::vector<std::string>{"b"}));

  Ref<RegistryHiveObj> again = reopen(hive, stripe);
  ASSERT_TRUE(again);
  EXPECT_EQ(subkeyNames(again->root()), (std::vector<std::string>{"b"}));
  EXPECT_EQ(skRefCount(*again, sk), refs - 2);
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

TEST(KeyMove, MovesRenamesAndRefusals) {
  Ref<MemoryStripe> stripe;
  Ref<RegistryHiveObj> hive = newHive(5, &stripe);
  ASSERT_TRUE(hive);
  Ref<KeyObj> root = hive->rootObj();
  Ref<KeyObj> a = asKeyObj(root->createKey(str("a")));
  Ref<KeyObj> b = asKeyObj(root->createKey(str("b")));
  Ref<KeyObj> c = asKeyObj(a->createKey(str("c")));
  ASSERT_TRUE(a && b && c);
  ASSERT_TRUE(c->createKey(str("grandchild")));

  EXPECT_FALSE(c->move(a, str("x")));
  EXPECT_EQ(Error::get(), Errors::MOVE_NESTED);
  EXPECT_FALSE(a->move(a, str("x")));
  EXPECT_EQ(Error::get(), Errors::MOVE_NESTED);
  EXPECT_FALSE(b->move(root, str("x")));
  EXPECT_EQ(Error::get(), Errors::MOVE_ROOT);
  EXPECT_FALSE(root->move(c, str("B")));
  EXPECT_EQ(Error::get(), Errors::MOVE_NAME_EXISTS);
  EXPECT_FALSE(root->move(c, str(std::string(256, 'n'))));
  EXPECT_EQ(Error::get(), Errors::MOVE_NAME_TOO_LONG);

  // c goes from a to b under a longer name; its subtree comes along.
  ASSERT_TRUE(b->move(c, str("moved with a much longer name")));
  EXPECT_EQ(a->keys(), 0u);
  EXPECT_EQ(c->parent().get(), b.get());
  EXPECT_EQ(b->key(str("MOVED WITH A MUCH LONGER NAME")).get(), c.get());
  EXPECT_EQ(nkField(*hive, c->offset(), hive_record_nk::OFS_PARENT), b->offset());
  Ref<KeyObj> grandchild = asKeyObj(c->key(str("grandchild")));
  ASSERT_TRUE(grandchild);
  EXPECT_EQ(nkField(*hive, grandchild->offset(), hive_record_nk::OFS_PARENT), c->offset());

  // Renames keep the list sorted.
  ASSERT_TRUE(root->createKey(str("m")));
  ASSERT_TRUE(root->move(a, str("z")));
  ASSERT_TRUE(root->move(b, str("0")));
  EXPECT_EQ(subkeyNames(root), (std::vector<std::string>{"0", "m", "z"}));
  EXPECT_EQ(root->key(str("z")).get(), a.get());  // the same object after a rename
  EXPECT_EQ(root->key(str("0")).get(), b.get());

  Ref<RegistryHiveObj> again = reopen(hive, stripe);
  ASSERT_TRUE(again);
  EXPECT_EQ(subkeyNames(again->root()), (std::vector<std::string>{"0", "m", "z"}));
  Ref<Hive::Key> movedAgain = again->root()->key(str("0"))->key(str("moved with a much longer name"));
  ASSERT_TRUE(movedAgain);
  EXPECT_TRUE(movedAgain->key(str("GrandChild")));
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

TEST(KeyCreate, ManyKeysInRandomOrderStaySortedAndFast) {
  Ref<MemoryStripe> stripe;
  Ref<RegistryHiveObj> hive = newHive(5, &stripe);
  ASSERT_TRUE(hive);
  Ref<KeyObj> root = hive->rootObj();
  std::vector<u32> order(kManyKeys);
  for (u32 i = 0; i < order.size(); ++i) order[i] = i;
  std::shuffle(order.begin(), order.end(), std::mt19937(7));
  // A loose bound, only against work growing with the square of the count:
  // this takes about a second in a debug build, a few under sanitizers.
  const std::clock_t start = std::clock();
  for (u32 i : order) ASSERT_TRUE(root->createKey(str(numbered("k", i, 6)))) << i;
  EXPECT_LT(static_cast<double>(std::clock() - start) / CLOCKS_PER_SEC, 120.0);
  const ListShape shape = listShape(*hive, root->offset());
  EXPECT_EQ(shape.top, RI);
  EXPECT_GE(shape.lists.size(), kManyKeys / KeyObj::MAX_KEYS_LH_LIST + 1);
  for (const auto& [sig, count] : shape.lists) {
    EXPECT_EQ(sig, LH);
    EXPECT_LE(count, KeyObj::MAX_KEYS_LH_LIST);
  }
  Ref<RegistryHiveObj> again = reopen(hive, stripe);
  ASSERT_TRUE(again);
  std::vector<std::string> names = subkeyNames(again->root());
  ASSERT_EQ(names.size(), order.size());
  for (u32 i = 0; i < names.size(); i += 997) EXPECT_EQ(names[i], numbered("k", i, 6));
  EXPECT_TRUE(std::is_sorted(names.begin(), names.end()));
}

}  // namespace
}  // namespace hivekit::test
