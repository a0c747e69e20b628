// Typed access: numbers, strings and string lists, with their byte layouts
// and error codes.
#include <sys/resource.h>

#include "hive/errors.h"
#include "platform/error.h"
#include "tests/value/value_test_util.h"

namespace hivekit::test {
namespace {

namespace Hive = Libraries::Files::Hive;
namespace Errors = Hive::Errors;
namespace Error = Platform::Error;
using Platform::TVector;
using Platform::W32;

std::vector<u8> bytesOf(std::initializer_list<int> v) {
  return std::vector<u8>(v.begin(), v.end());
}

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
  void SetUp() override {
    hive = newHive(5, &stripe);
    ASSERT_TRUE(hive);
  }
  Ref<ValueObj> make(const char* name, u32 type) {
    Ref<ValueObj> v = ValueObj::createValue(hive, nullptr, str(name), type);
    EXPECT_TRUE(v);
    return v;
  }
  Ref<MemoryStripe> stripe;
  Ref<RegistryHiveObj> hive;
};

TEST_F(ValueTyped, Numbers) {
  Ref<ValueObj> d = make("d", 4);
  EXPECT_EQ(d->size(), 4u);
  EXPECT_TRUE(d->resident());
  EXPECT_EQ(d->number(), 0u);
  EXPECT_TRUE(d->setNumber(0x12345678));
  EXPECT_EQ(readAll(*d), bytesOf({0x78, 0x56, 0x34, 0x12}));
  EXPECT_FALSE(d->setNumber(0x100000000ull));
  EXPECT_EQ(Error::get(), Errors::NUMBER_TOO_LARGE);
  EXPECT_EQ(d->number(), 0x12345678u);

  Ref<ValueObj> be = make("be", 5);
  EXPECT_TRUE(be->setNumber(0xA1B2C3D4u));
  EXPECT_EQ(readAll(*be), bytesOf({0xA1, 0xB2, 0xC3, 0xD4}));
  store(*be, {0x12, 0x34, 0x56, 0x78});
  EXPECT_EQ(be->number(), 0x12345678u);
  EXPECT_EQ(Error::get(), 0u);

  Ref<ValueObj> q = make("q", 11);
  EXPECT_EQ(q->size(), 8u);
  EXPECT_EQ(q->number(), 0u);  // a new value starts cleared
  EXPECT_TRUE(q->setNumber(0x1122334455667788ull));
  EXPECT_EQ(q->number(), 0x1122334455667788ull);
  EXPECT_EQ(readAll(*q), bytesOf({0x88, 0x77, 0x66, 0x55, 0x44, 0x33, 0x22, 0x11}));

  // The size must already fit; nothing is resized.
  ASSERT_EQ(q->size(4), 4u);
  EXPECT_EQ(q->number(), ~0ull);
  EXPECT_EQ(Error::get(), Errors::NUMBER_WRONG_SIZE);
  EXPECT_FALSE(q->setNumber(1));
  EXPECT_EQ(Error::get(), Errors::NUMBER_WRONG_SIZE);
  EXPECT_EQ(q->size(), 4u);

  Ref<ValueObj> s = make("s", 1);
  EXPECT_EQ(s->number(), ~0ull);
  EXPECT_EQ(Error::get(), Errors::WRONG_TYPE);
  ASSERT_TRUE(s->selfDelete());
  EXPECT_EQ(s->number(), ~0ull);
  EXPECT_EQ(Error::get(), Errors::OBJECT_INVALID);

  // A type change keeps the data and survives a reopen.
  EXPECT_TRUE(d->setType(5));
  EXPECT_EQ(d->number(), 0x78563412u);
  Ref<RegistryHiveObj> again = reopen(hive, stripe);
  auto fresh = makeRef<ValueObj>(again, d->offset(), nullptr);
  EXPECT_EQ(fresh->type(), 5u);
  EXPECT_EQ(fresh->number(), 0x78563412u);
}

TEST_F(ValueTyped, Strings) {
  Ref<ValueObj> v = make("s", 1);
  EXPECT_EQ(v->string(100)->length(), 0u);
  ASSERT_TRUE(v->setString(str("ab")));
  EXPECT_EQ(readAll(*v), bytesOf({'a', 0, 'b', 0, 0, 0}));
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

  Ref<ValueObj> bin = make("b", 3);
  EXPECT_FALSE(bin->setString(str("x")));
  EXPECT_EQ(Error::get(), Errors::WRONG_TYPE);
}

TEST_F(ValueTyped, StringLists) {
  Ref<ValueObj> v = make("m", 7);
  ASSERT_TRUE(v->setStrings(list({})));
  EXPECT_EQ(readAll(*v), bytesOf({0, 0}));
  EXPECT_TRUE(v->strings(100)->items().empty());

  ASSERT_TRUE(v->setStrings(list({u"a", u"b"})));
  EXPECT_EQ(readAll(*v), bytesOf({'a', 0, 0, 0, 'b', 0, 0, 0, 0, 0}));
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

// Peak resident memory of the process so far, in MiB.
long peakMiB() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  return usage.ru_maxrss / 1024;
}

// A size field is hostile: a string or string list whose vk record claims
// almost 2 GiB of data in records that hold 64 bytes is refused as damaged,
// without first allocating room for what it claims.
TEST(ValueTypedDamaged, SizeBeyondItsRecordsIsRefusedBeforeAllocating) {
  HiveBuilder b(3);  // one data record of any size
  const u32 root = b.root();
  const u32 s = b.value(root, u"s", 1, std::vector<u8>(64, 'a'));
  const u32 m = b.value(root, u"m", 7, std::vector<u8>(64, 'a'));
  b.layout();
  for (u32 vk : {s, m}) W32(b.at(vk) + Hive::hive_record_vk::OFS_DATA_SIZE, 0x7ffffff0u);
  Ref<RegistryHiveObj> hive = openImage(b.build(), Hive::modeReadOnly);
  ASSERT_TRUE(hive);

  const long before = peakMiB();
  auto text = makeRef<ValueObj>(hive, s, nullptr);
  ASSERT_TRUE(text->valid());
  EXPECT_EQ(text->string(0xffffffffu), nullptr);
  EXPECT_EQ(Error::get(), Errors::BAD_VALUE_RECORD);
  auto list = makeRef<ValueObj>(hive, m, nullptr);
  ASSERT_TRUE(list->valid());
  EXPECT_EQ(list->strings(0xffffffffu), nullptr);
  EXPECT_EQ(Error::get(), Errors::BAD_VALUE_RECORD);
  EXPECT_LT(peakMiB() - before, 512);
}

}  // namespace
}  // namespace hivekit::test
