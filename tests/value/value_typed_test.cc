// Typed reads of numbers, strings and string lists, from the layouts real
// hives hold, and their error codes.
#include "tests/value/value_test_util.h"

namespace hivekit::test {
namespace {

namespace Error = Platform::Error;
using Platform::TVector;

std::vector<u8> utf16(const std::u16string& s) {
  return HiveBuilder::utf16le(s);
}

Ref<TVector<Ref<String>>> list(std::initializer_list<const char16_t*> items) {
  auto v = TVector<Ref<String>>::create();
  for (const char16_t* s : items) v->push_back(String::fromUtf16(std::u16string(s)));
  return v;
}

std::vector<std::u16string> unitsOf(const Ref<TVector<Ref<String>>>& v) {
  std::vector<std::u16string> out;
  for (const auto& s : v->items()) out.push_back(s->units());
  return out;
}

// Replaces the value's data with exactly these bytes.
void store(ValueObj& v, const std::vector<u8>& bytes) {
  const u32 n = static_cast<u32>(bytes.size());
  ASSERT_EQ(v.size(n), n);
  ASSERT_EQ(v.write(bytes.data(), 0, n), n);
}

class ValueTyped : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_TRUE(hive); }
  Ref<ValueObj> make(const char* name, u32 type) {
    Ref<ValueObj> v = ValueObj::createValue(hive, nullptr, str(name), type);
    EXPECT_TRUE(v);
    return v;
  }
  Ref<RegistryHiveObj> hive = newHive(5);
};

// Writing numbers, their layouts and refusals are the model test's; here,
// reading them back.
TEST_F(ValueTyped, Numbers) {
  Ref<ValueObj> d = make("d", 4);
  store(*d, {0x78, 0x56, 0x34, 0x12});
  EXPECT_EQ(d->number(), 0x12345678u);
  ASSERT_TRUE(d->setType(5));
  EXPECT_EQ(d->number(), 0x78563412u);
  Ref<ValueObj> q = make("q", 11);
  store(*q, {0x88, 0x77, 0x66, 0x55, 0x44, 0x33, 0x22, 0x11});
  EXPECT_EQ(q->number(), 0x1122334455667788ull);

  ASSERT_EQ(q->size(4), 4u);
  EXPECT_EQ(q->number(), ~0ull);
  EXPECT_EQ(Error::get(), Errors::NUMBER_WRONG_SIZE);
  EXPECT_EQ(d->number(), 0x78563412u);
  EXPECT_EQ(Error::get(), 0u) << "a success clears the error";
  Ref<ValueObj> s = make("s", 1);
  EXPECT_EQ(s->number(), ~0ull);
  EXPECT_EQ(Error::get(), Errors::WRONG_TYPE);
}

TEST_F(ValueTyped, Strings) {
  Ref<ValueObj> v = make("s", 1);
  EXPECT_EQ(v->string(100)->length(), 0u);
  ASSERT_TRUE(v->setString(str("ab")));
  EXPECT_EQ(v->string(100)->toUtf8(), "ab");
  EXPECT_EQ(v->string(2), nullptr);
  EXPECT_EQ(Error::get(), Errors::DATA_TOO_LONG);

  // Text after a zero unit is not stored; a long string goes to a db list.
  ASSERT_TRUE(v->setString(String::fromUtf16(std::u16string(u"x\0y", 3))));
  EXPECT_EQ(v->size(), 4u);
  const std::u16string longText(20000, u'\u00e9');
  ASSERT_TRUE(v->setString(String::fromUtf16(longText)));
  EXPECT_EQ(v->string(20001)->units(), longText);

  // What real hives hold: slack after the terminator, an odd size, one byte.
  store(*v, utf16(std::u16string(u"abc\0junk", 8)));
  EXPECT_EQ(v->string(100)->toUtf8(), "abc");
  std::vector<u8> odd = utf16(u"hi");
  odd.push_back('!');
  store(*v, odd);
  EXPECT_EQ(v->string(100)->toUtf8(), "hi");
  store(*v, {'!'});
  EXPECT_EQ(v->string(100), nullptr);
  EXPECT_EQ(Error::get(), Errors::STRING_ONE_BYTE);
}

TEST_F(ValueTyped, StringLists) {
  Ref<ValueObj> v = make("m", 7);
  ASSERT_TRUE(v->setStrings(list({})));
  EXPECT_TRUE(v->strings(100)->items().empty());
  ASSERT_TRUE(v->setStrings(list({u"a", u"b"})));
  EXPECT_EQ(unitsOf(v->strings(100)), (std::vector<std::u16string>{u"a", u"b"}));
  EXPECT_EQ(v->strings(4), nullptr);
  EXPECT_EQ(Error::get(), Errors::DATA_TOO_LONG);

  // Lists without their final zero unit, or without any, still come back;
  // an empty string ends the list.
  store(*v, utf16(std::u16string(u"one\0two\0", 8)));
  EXPECT_EQ(unitsOf(v->strings(100)), (std::vector<std::u16string>{u"one", u"two"}));
  store(*v, utf16(std::u16string(u"one\0tw", 6)));
  EXPECT_EQ(unitsOf(v->strings(100)), (std::vector<std::u16string>{u"one", u"tw"}));
  store(*v, utf16(std::u16string(u"a\0\0b\0\0", 6)));
  EXPECT_EQ(unitsOf(v->strings(100)), (std::vector<std::u16string>{u"a"}));

  Ref<ValueObj> s = make("s", 1);
  EXPECT_EQ(s->strings(100), nullptr);
  EXPECT_EQ(Error::get(), Errors::WRONG_TYPE);
}

}  // namespace
}  // namespace hivekit::test
