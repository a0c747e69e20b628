// Creating, deleting and moving keys: the list reshaping that makes room
// and shrinks away, held objects, and live iterators.
#include <algorithm>

#include "tests/key/key_test_util.h"

namespace hivekit::test {
namespace {

namespace Error = Platform::Error;

using Shape = std::vector<std::pair<u16, u32>>;

void createNumbered(KeyObj& parent, u32 first, u32 count) {
  for (u32 i = first; i < first + count; ++i) {
    ASSERT_TRUE(parent.createKey(str(numbered("key", i)))) << i;
  }
}

// The model test's byte walk checks every list against the limits of its
// kind (400 lf, 900 li, 1200 lh entries) and the shapes it sees, as lists
// grow and shrink; here, how a list another tool wrote beyond them splits.
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
}

TEST(Iterators, StayOnTheNextEntryWhileTheListChanges) {
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

  // Value iterators are the same, over a list that grows at its end only.
  for (const char* n : {"a", "b", "c"}) ASSERT_TRUE(root->createValue(str(n), 4));
  Ref<Hive::ValueIterator> values = root->valueIterator();
  EXPECT_EQ(values->next()->name()->toUtf8(), "a");
  ASSERT_TRUE(root->deleteValue(root->value(str("a"))));  // before the position
  EXPECT_EQ(values->next()->name()->toUtf8(), "b");
  ASSERT_TRUE(root->deleteValue(root->value(str("c"))));  // the next entry itself
  EXPECT_FALSE(values->next());
  ASSERT_TRUE(root->createValue(str("d"), 4));  // appended at the end already reached
  EXPECT_FALSE(values->next());
}

}  // namespace
}  // namespace hivekit::test
