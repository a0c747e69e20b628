// Values of a hive written by Windows: reading and resizing its db lists. The hives live beside the project;
// the tests skip when they are absent.
#include <algorithm>
#include <fstream>
#include <iterator>

#include "tests/value/value_test_util.h"

namespace hivekit::test {
namespace {

std::vector<u8> loadHive(const char* name) {
  const std::string path = std::string(HIVEKIT_SOURCE_DIR) + "/../shared/testdata/hives/" + name;
  std::ifstream in(path, std::ios::binary);
  return std::vector<u8>(std::istreambuf_iterator<char>(in), {});
}

#define LOAD_OR_SKIP(var, name)         \
  std::vector<u8> var = loadHive(name); \
  if (var.empty()) GTEST_SKIP() << "test hive " << name << " not found"

Ref<ValueObj> valueAt(const Ref<RegistryHiveObj>& hive, const char* key, const char* name) {
  Ref<Interfaces::Config::Hive::Key> k = hive->root()->key(String::create(key));
  if (!k) return nullptr;
  Ref<Interfaces::Config::Hive::Value> v = k->value(String::create(name));
  return v.cast<ValueObj>();
}

// Every byte of the data, read through the stripe in pieces, is `fill`.
void expectFilled(ValueObj& v, u32 size, u8 fill) {
  ASSERT_EQ(v.size(), size);
  Ref<Interfaces::Stripe> s = v.binary();
  std::vector<u8> buf(5000);
  u64 total = 0;
  while (u64 n = s->read(buf.data(), buf.size())) {
    ASSERT_TRUE(std::all_of(buf.begin(), buf.begin() + n, [&](u8 b) { return b == fill; })) << total;
    total += n;
  }
  EXPECT_EQ(total, size);
}

TEST(ValueRealHive, DbListsOfWindowsReadAndResize) {
  LOAD_OR_SKIP(image, "BigDataHive");
  Ref<MemoryStripe> stripe;
  Ref<RegistryHiveObj> hive = openImage(image, 0, &stripe);
  ASSERT_TRUE(hive);
  Ref<ValueObj> one = valueAt(hive, "key_with_bigdata", "");
  Ref<ValueObj> two = valueAt(hive, "key_with_bigdata", "v");
  ASSERT_TRUE(one && two);
  expectFilled(*one, 16345, '1');
  expectFilled(*two, 81725, '2');

  ASSERT_EQ(two->size(20000), 20000u);
  ASSERT_EQ(one->size(16344), 16344u);
  Ref<RegistryHiveObj> again = reopen(hive, stripe);
  ASSERT_TRUE(again);
  expectFilled(*valueAt(again, "key_with_bigdata", "v"), 20000, '2');
  expectFilled(*valueAt(again, "key_with_bigdata", ""), 16344, '1');
}

}  // namespace
}  // namespace hivekit::test
