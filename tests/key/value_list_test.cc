// The value list of a key: its record, held objects, lookups by name, and
// a damaged list. Live iterators are key_write_test.cc's.
#include <string>

#include "hive/value/value_obj.h"
#include "platform/log.h"
#include "tests/key/key_test_util.h"

namespace hivekit::test {
namespace {

namespace Error = Platform::Error;
using Hive::ValueObj;
using Platform::W32;

// The model test covers values coming, going and moving with their
// records and error codes, in keys of hundreds of values (found by name
// through an index); here, the objects held for them.
TEST(ValueList, HeldObjectsFollowTheirValues) {
  Ref<RegistryHiveObj> hive = newHive(5);
  ASSERT_TRUE(hive);
  Ref<KeyObj> a = hive->rootObj()->createKey(str("a")).cast<KeyObj>();
  Ref<KeyObj> b = hive->rootObj()->createKey(str("b")).cast<KeyObj>();
  ASSERT_TRUE(a && b);
  Ref<Hive::Value> x = a->createValue(str("x"), 4);
  ASSERT_TRUE(x);
  ASSERT_TRUE(a->createValue(str("y"), 4));
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
    Ref<Hive::HiveFile> hive = openImage(image, Hive::modeReadOnly, nullptr, codepage);
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
