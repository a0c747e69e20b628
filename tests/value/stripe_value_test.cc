// A value's data as a byte stripe: positions, stream reads that reach the
// end, resizing through the element count, and the refused operations.
#include "hive/value/stripe_value.h"

#include "tests/value/value_test_util.h"

namespace hivekit::test {
namespace {

namespace Error = Platform::Error;
using Hive::StripeValue;

Ref<ValueObj> valueWith(const Ref<RegistryHiveObj>& hive, u32 type, const std::vector<u8>& data) {
  Ref<ValueObj> v = ValueObj::createValue(hive, nullptr, str("v"), type);
  EXPECT_TRUE(v);
  EXPECT_EQ(v->size(static_cast<u32>(data.size())), data.size());
  EXPECT_EQ(v->write(data.data(), 0, static_cast<u32>(data.size())), data.size());
  return v;
}

// Reads the stripe from its position to the end in pieces of `piece`.
std::vector<u8> drain(Interfaces::Stripe& s, u32 piece) {
  std::vector<u8> out, buf(piece);
  for (int guard = 0; guard < 100000; ++guard) {
    const u64 n = s.read(buf.data(), piece);
    if (n == 0) break;
    out.insert(out.end(), buf.begin(), buf.begin() + n);
  }
  return out;
}

TEST(StripeValue, StreamsReachTheEnd) {
  Ref<RegistryHiveObj> hive = newHive(5);
  ASSERT_TRUE(hive);
  const std::vector<u8> six = pattern(6, 1);
  Ref<Interfaces::Stripe> s = valueWith(hive, 3, six)->binary();
  ASSERT_TRUE(s);
  EXPECT_EQ(s->elementSize(), 1u);
  EXPECT_EQ(s->elementCount(), 6u);
  u8 buf[4];
  EXPECT_EQ(s->read(buf, 4), 4u);
  EXPECT_EQ(s->read(buf, 4), 2u);
  EXPECT_EQ(buf[1], six[5]);
  EXPECT_EQ(s->read(buf, 4), 0u);
  EXPECT_EQ(s->seek(1000), 6u);
  EXPECT_EQ(s->seek(2), 2u);
  EXPECT_EQ(drain(*s, 3), std::vector<u8>(six.begin() + 2, six.end()));

  // Resident data: a position inside it reads from there, then stops.
  const std::vector<u8> three = pattern(3, 2);
  Ref<Interfaces::Stripe> r = valueWith(hive, 3, three)->binary();
  EXPECT_EQ(drain(*r, 2), three);

  Error::set(0);
  EXPECT_EQ(s->readAt(0, buf, 0x100000000ull), 0u);
  EXPECT_EQ(Error::get(), Errors::INVALID_ARGUMENT);
  EXPECT_EQ(s->readAt(0x100000000ull, buf, 4), 0u);
}

TEST(StripeValue, WritesAndResizes) {
  Ref<RegistryHiveObj> hive = newHive(5);
  ASSERT_TRUE(hive);
  Ref<ValueObj> v = valueWith(hive, 3, pattern(10, 4));
  Ref<StripeValue> s = v->binary().cast<StripeValue>();
  ASSERT_TRUE(s);

  // Writing never grows the data; the element count does.
  const std::vector<u8> data = pattern(20000, 5);
  EXPECT_EQ(s->write(data.data(), 20000), 10u);
  EXPECT_EQ(s->setElementCount(20000), 20000u);
  EXPECT_EQ(v->size(), 20000u);
  EXPECT_EQ(s->writeAt(0, data.data(), 20000), 20000u);
  s->seek(0);
  EXPECT_EQ(drain(*s, 20000), data);

  Error::set(0);
  EXPECT_EQ(s->setElementCount(0x100000000ull), 0u);
  EXPECT_EQ(Error::get(), Errors::INVALID_ARGUMENT);

  // A string value keeps its size through the stripe; it becomes
  // resizable when its type turns binary.
  Ref<ValueObj> text = ValueObj::createValue(hive, nullptr, str("t"), 1);
  ASSERT_TRUE(text->setString(String::create("abc")));
  Ref<Interfaces::Stripe> ts = text->binary();
  Error::set(0);
  EXPECT_EQ(ts->setElementCount(100), 8u);
  EXPECT_EQ(Error::get(), Errors::NOT_SUPPORTED);
  EXPECT_EQ(text->size(), 8u);
  ASSERT_TRUE(text->setType(3));
  EXPECT_EQ(ts->setElementCount(100), 100u);
}

}  // namespace
}  // namespace hivekit::test
