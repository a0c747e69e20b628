// The value list of a key: its record, held objects, live iterators, and
// a damaged list.
#include <cctype>
#include <random>
#include <set>
#include <string>

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

// The model test covers values coming, going and moving with their
// records and error codes; here, list record sizes and held objects.
TEST(ValueList, ListRecordSizesAndHeldObjects) {
  Ref<RegistryHiveObj> hive = newHive(5);
  ASSERT_TRUE(hive);
  Ref<KeyObj> a = hive->rootObj()->createKey(str("a")).cast<KeyObj>();
  Ref<KeyObj> b = hive->rootObj()->createKey(str("b")).cast<KeyObj>();
  ASSERT_TRUE(a && b);
  Ref<Hive::Value> x = a->createValue(str("x"), 4);
  ASSERT_TRUE(x);
  EXPECT_EQ(hive->cacheLoadRecord(valueListOf(*hive, *a))->length(), 8u);
  ASSERT_TRUE(a->createValue(str("y"), 4));
  EXPECT_EQ(hive->cacheLoadRecord(valueListOf(*hive, *a))->length(), 16u);  // 12 rounded up
  ASSERT_TRUE(a->createValue(str("z"), 4));
  EXPECT_EQ(a->value(str("X")).get(), x.get());
  EXPECT_EQ(a->value(2).get(), a->value(str("z")).get());
  EXPECT_FALSE(a->value(str("w")));
  EXPECT_EQ(Error::get(), Errors::VALUE_NOT_FOUND);

  ASSERT_TRUE(b->createValue(str("x"), 4));
  EXPECT_FALSE(a->deleteValue(b->value(str("x")))) << "not this key's to delete";
  EXPECT_EQ(Error::get(), Errors::INVALID_ARGUMENT);
  EXPECT_EQ(a->values(), 3u);
  EXPECT_EQ(b->values(), 1u);

  ASSERT_TRUE(a->move(x, str("renamed")));
  EXPECT_EQ(a->value(str("RENAMED")).get(), x.get());
  ASSERT_TRUE(b->move(x, str("moved")));
  EXPECT_EQ(x.cast<ValueObj>()->parent().get(), b.get());
}

// Keys of many values find them by name through an index: it must follow
// every value that comes, goes, is renamed or moves to the other key,
// whatever the letter case asked for.
TEST(ValueList, ManyValuesFoundByNameThroughChanges) {
  Ref<RegistryHiveObj> hive = newHive(5);
  ASSERT_TRUE(hive);
  Ref<KeyObj> a = hive->rootObj()->createKey(str("a")).cast<KeyObj>();
  Ref<KeyObj> b = hive->rootObj()->createKey(str("b")).cast<KeyObj>();
  ASSERT_TRUE(a && b);
  auto upper = [](std::string s) {
    for (char& c : s) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    return s;
  };
  std::set<std::pair<KeyObj*, std::string>> present;  // (key, upper-cased name)
  auto check = [&](const char* step) {
    for (u32 i = 0; i < 120; ++i) {
      const std::string n = "Val" + std::to_string(i);
      for (KeyObj* k : {a.get(), b.get()}) {
        Ref<Hive::Value> v = k->value(str((i % 2 ? upper(n) : n).c_str()));
        ASSERT_EQ(static_cast<bool>(v), present.count({k, upper(n)}) == 1) << step << ": " << n;
        if (v) {
          ASSERT_EQ(upper(v->name()->toUtf8()), upper(n)) << step;
        }
      }
    }
  };
  for (u32 i = 0; i < 60; ++i) {
    const std::string n = "Val" + std::to_string(i);
    ASSERT_TRUE(a->createValue(str(n.c_str()), 4));
    present.insert({a.get(), upper(n)});
    EXPECT_FALSE(a->createValue(str(upper(n).c_str()), 4)) << "a name taken in another letter case";
  }
  check("created");
  std::mt19937 rng(11);
  for (u32 step = 0; step < 300; ++step) {
    KeyObj* k = rng() % 2 ? a.get() : b.get();
    KeyObj* other = k == a.get() ? b.get() : a.get();
    const std::string n = "Val" + std::to_string(rng() % 120);
    const std::string m = "Val" + std::to_string(rng() % 120);
    const u32 op = rng() % 3;
    if (!present.count({k, upper(n)})) {
      ASSERT_TRUE(k->createValue(str(n.c_str()), 4)) << step << " " << n;
      present.insert({k, upper(n)});
    } else if (op == 0) {
      ASSERT_TRUE(k->deleteValue(k->value(str(n.c_str())))) << step;
      present.erase({k, upper(n)});
    } else {
      // Renamed in its key, or moved to the other key, under a new name.
      KeyObj* to = op == 1 ? k : other;
      const bool moved = to->move(k->value(str(n.c_str())), str(m.c_str()));
      ASSERT_EQ(moved, !present.count({to, upper(m)})) << step << ": " << n << " -> " << m;
      if (moved) {
        present.erase({k, upper(n)});
        present.insert({to, upper(m)});
      }
    }
  }
  check("changed");
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

// A lookup by name reads the names from the vk records: it must find what
// the value objects would call themselves, in every stored form and
// codepage, and pass over a record whose name cannot be read.
TEST(ValueList, LookupByNameReadsEveryStoredForm) {
  HiveBuilder b(5);
  const u32 k = b.key(b.root(), u"k");
  b.value(k, u"Ab", 4, {1, 0, 0, 0});
  const u32 broken = b.value(k, u"abc", 4, {2, 0, 0, 0});
  b.value(k, u"abc", 4, {3, 0, 0, 0}, NameForm::utf16);
  b.value(k, u"\u0416x", 4, {4, 0, 0, 0});
  b.value(k, u"\u0080e\u00e9", 4, {5, 0, 0, 0}, NameForm::compressed);
  b.value(k, u"\u0081", 4, {6, 0, 0, 0}, NameForm::compressed);  // not in windows-1252
  b.layout();
  Platform::W16(b.at(broken) + Hive::hive_record_vk::OFS_NAME_LENGTH, 0x7FF0);
  const std::vector<u8> image = b.build();
  for (const Hive::HiveCodepage codepage : {Hive::latin1, Hive::windows1252}) {
    SCOPED_TRACE(codepage);
    Ref<Hive::HiveFile> hive = HiveFile::open(MemoryStripe::create(image), Hive::modeReadOnly, codepage, {});
    Ref<Hive::Key> key = hive ? hive->root()->key(str("k")) : nullptr;
    ASSERT_TRUE(key);
    auto numberOf = [&](const std::u16string& name) -> int {
      Ref<Hive::Value> v = key->value(String::fromUtf16(name));
      return v ? static_cast<int>(v->number()) : -1;
    };
    EXPECT_EQ(numberOf(u"aB"), 1);
    EXPECT_EQ(numberOf(u"a"), -1);
    EXPECT_EQ(numberOf(u"AbCd"), -1);
    EXPECT_EQ(numberOf(u"ABC"), 3);
    EXPECT_EQ(numberOf(u"\u0436X"), 4);
    EXPECT_EQ(numberOf(u"\u0080E\u00c9"), codepage == Hive::latin1 ? 5 : -1);
    EXPECT_EQ(numberOf(u"\u20acE\u00c9"), codepage == Hive::latin1 ? -1 : 5);
    EXPECT_EQ(numberOf(u"\u0081"), 6);
  }
}

}  // namespace
}  // namespace hivekit::test
