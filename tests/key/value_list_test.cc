// The value list of a key: the list record as values come and go, lookup
// by name, object identity, moves, and live value iterators.
#include "hive/value/value_obj.h"
#include "platform/log.h"
#include "tests/key/key_test_util.h"

namespace hivekit::test {
namespace {

namespace Error = Platform::Error;
using Hive::ValueObj;
using Platform::W32;

u32 valueListOf(RegistryHiveObj& hive, const KeyObj& key) {
  return hive.cacheLoadRecord(key.offset())->u32At(hive_record_nk::OFS_VALUE_LIST);
}

std::vector<std::string> valueNames(const Ref<Hive::Key>& key) {
  std::vector<std::string> names;
  Ref<Hive::ValueIterator> it = key->valueIterator();
  while (Ref<Hive::Value> v = it->next()) names.push_back(v->name()->toUtf8());
  return names;
}

TEST(ValueList, ListRecordGrowsShrinksAndGoes) {
  Ref<MemoryStripe> stripe;
  Ref<RegistryHiveObj> hive = newHive(5, &stripe);
  ASSERT_TRUE(hive);
  Ref<KeyObj> key = hive->rootObj()->createKey(str("k")).cast<KeyObj>();
  ASSERT_TRUE(key);
  EXPECT_EQ(valueListOf(*hive, *key), Hive::INVALID_RECORD);

  Ref<Hive::Value> first = key->createValue(str("Path"), 1);
  ASSERT_TRUE(first);
  EXPECT_EQ(hive->cacheLoadRecord(valueListOf(*hive, *key))->length(), 8u);
  ASSERT_TRUE(key->createValue(str("second"), 4));
  EXPECT_EQ(hive->cacheLoadRecord(valueListOf(*hive, *key))->length(), 16u);  // 12 rounded up
  ASSERT_TRUE(key->createValue(str("third"), 3));
  EXPECT_EQ(valueNames(key), (std::vector<std::string>{"Path", "second", "third"}));

  EXPECT_FALSE(key->createValue(str("PATH"), 1));
  EXPECT_EQ(Error::get(), Errors::VALUE_EXISTS);
  EXPECT_EQ(key->value(str("PATH")).get(), first.get());
  EXPECT_FALSE(key->value(str("fourth")));
  EXPECT_EQ(Error::get(), Errors::VALUE_NOT_FOUND);

  ASSERT_TRUE(key->deleteValue(key->value(str("second"))));
  EXPECT_EQ(valueNames(key), (std::vector<std::string>{"Path", "third"}));
  Ref<RegistryHiveObj> again = reopen(hive, stripe);
  ASSERT_TRUE(again);
  EXPECT_EQ(valueNames(again->root()->key(str("k"))), (std::vector<std::string>{"Path", "third"}));

  ASSERT_TRUE(key->deleteValue(first));
  ASSERT_TRUE(key->deleteValue(key->value(str("third"))));
  EXPECT_EQ(key->values(), 0u);
  EXPECT_EQ(valueListOf(*hive, *key), Hive::INVALID_RECORD);
  EXPECT_EQ(hive->cacheLoadRecord(key->offset())->u32At(hive_record_nk::OFS_NUM_VALUES), 0u);
  // Now the key is empty and can go.
  EXPECT_TRUE(hive->rootObj()->deleteKey(key));
}

TEST(ValueList, IdentityAndForeignValues) {
  Ref<RegistryHiveObj> hive = newHive(5);
  ASSERT_TRUE(hive);
  Ref<KeyObj> a = hive->rootObj()->createKey(str("a")).cast<KeyObj>();
  Ref<KeyObj> b = hive->rootObj()->createKey(str("b")).cast<KeyObj>();
  for (const char* n : {"x", "y", "z"}) ASSERT_TRUE(a->createValue(str(n), 4));
  ASSERT_TRUE(b->createValue(str("x"), 4));

  {
    Ref<ValueObj> held = a->value(2);
    ASSERT_TRUE(held);
    EXPECT_EQ(a->value(2).get(), held.get());
  }
  // A value of another key is not this key's to delete.
  EXPECT_FALSE(a->deleteValue(b->value(str("x"))));
  EXPECT_EQ(Error::get(), Errors::INVALID_ARGUMENT);
  EXPECT_EQ(a->values(), 3u);
  EXPECT_EQ(b->values(), 1u);

  EXPECT_FALSE(a->move(b->value(str("x")), str("y")));
  EXPECT_EQ(Error::get(), Errors::MOVE_VALUE_EXISTS);
}

TEST(ValueList, MovesAndRenames) {
  Ref<MemoryStripe> stripe;
  Ref<RegistryHiveObj> hive = newHive(5, &stripe);
  ASSERT_TRUE(hive);
  Ref<KeyObj> a = hive->rootObj()->createKey(str("a")).cast<KeyObj>();
  Ref<KeyObj> b = hive->rootObj()->createKey(str("b")).cast<KeyObj>();
  for (const char* n : {"x", "y", "z"}) ASSERT_TRUE(a->createValue(str(n), 4));
  ASSERT_TRUE(a->value(str("y")).cast<ValueObj>()->setNumber(42));

  // A rename within the key leaves the value last.
  Ref<Hive::Value> x = a->value(str("x"));
  ASSERT_TRUE(a->move(x, str("renamed to something much longer")));
  EXPECT_EQ(valueNames(a), (std::vector<std::string>{"y", "z", "renamed to something much longer"}));
  EXPECT_EQ(a->value(str("RENAMED TO SOMETHING MUCH LONGER")).get(), x.get());

  Ref<Hive::Value> y = a->value(str("y"));
  ASSERT_TRUE(b->move(y, str("moved")));
  EXPECT_EQ(valueNames(a), (std::vector<std::string>{"z", "renamed to something much longer"}));
  EXPECT_EQ(valueNames(b), (std::vector<std::string>{"moved"}));
  EXPECT_EQ(y.cast<ValueObj>()->parent().get(), b.get());

  Ref<RegistryHiveObj> again = reopen(hive, stripe);
  ASSERT_TRUE(again);
  EXPECT_EQ(valueNames(again->root()->key(str("a"))),
            (std::vector<std::string>{"z", "renamed to something much longer"}));
  EXPECT_EQ(again->root()->key(str("b"))->value(str("moved"))->number(), 42u);
}

TEST(ValueList, IteratorsFollowInsertionsAndRemovals) {
  Ref<RegistryHiveObj> hive = newHive(5);
  ASSERT_TRUE(hive);
  Ref<KeyObj> key = hive->rootObj()->createKey(str("k")).cast<KeyObj>();
  for (const char* n : {"a", "b", "c", "d"}) ASSERT_TRUE(key->createValue(str(n), 4));
  Ref<Hive::ValueIterator> it = key->valueIterator();
  EXPECT_EQ(it->count(), 4u);
  EXPECT_EQ(it->next()->name()->toUtf8(), "a");
  EXPECT_EQ(it->next()->name()->toUtf8(), "b");
  ASSERT_TRUE(key->deleteValue(key->value(str("a"))));  // before the position
  EXPECT_EQ(it->next()->name()->toUtf8(), "c");
  ASSERT_TRUE(key->createValue(str("e"), 4));           // appended after the position
  ASSERT_TRUE(key->deleteValue(key->value(str("d"))));  // the next entry itself
  EXPECT_EQ(it->next()->name()->toUtf8(), "e");
  EXPECT_FALSE(it->next());
  // An insertion at the position moves it on: a value appended now is not
  // returned by an iterator that has reached the end.
  ASSERT_TRUE(key->createValue(str("f"), 4));
  EXPECT_FALSE(it->next());
  EXPECT_EQ(it->seek(99), 4u);

  // Deleting every value while walking visits each once.
  it->seek(0);
  u32 visited = 0;
  while (Ref<Hive::Value> v = it->next()) {
    ASSERT_TRUE(key->deleteValue(v));
    ++visited;
  }
  EXPECT_EQ(visited, 4u);
}

TEST(ValueList, DamagedListRecord) {
  HiveBuilder b(5);
  const u32 root = b.root();
  const u32 k = b.key(root, u"k");
  b.value(k, u"one", 4, {1, 0, 0, 0});
  b.value(k, u"two", 4, {2, 0, 0, 0});
  b.layout();
  W32(b.at(k) + hive_record_nk::OFS_NUM_VALUES, 40);  // the list holds 2
  Ref<RegistryHiveObj> hive = openImage(b.build(), Hive::modeReadOnly);
  ASSERT_TRUE(hive);
  Ref<Hive::Key> key = hive->root()->key(str("k"));
  ASSERT_TRUE(key);
  Platform::Log::Capture log;
  EXPECT_FALSE(key->value(str("one")));
  EXPECT_EQ(Error::get(), Errors::VALUE_LIST_TOO_SMALL);
  EXPECT_TRUE(log.contains("Value list record is too small, key:"));
  EXPECT_FALSE(key->valueIterator()->next());
}

}  // namespace
}  // namespace hivekit::test
