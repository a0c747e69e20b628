// Writes that cannot be done: a disk that stays full while the hive grows
// under a large workload, names beyond the limits, and a hive opened
// read-only. Each must fail with its error code and leave a hive that opens
// and holds exactly what succeeded. Single failing calls of every kind, at
// every point of a workload, are swept in fault_sweep_test.cc.
#include <gtest/gtest.h>

#include <functional>

#include "hive/format/errors.h"
#include "hive/hive_file.h"
#include "hive/util/util.h"
#include "hive/value/value_obj.h"
#include "platform/error.h"
#include "platform/memory_stripe.h"
#include "tests/model/hive_model.h"

namespace hivekit::model {
namespace {

using Hive::HiveFile;
using Hive::ValueObj;
using Platform::MemoryStripe;
namespace Errors = Hive::Errors;
namespace Error = Platform::Error;
namespace T = Cfg::ValueTypes;

// "" when hive bytes open and hold what the model holds.
std::string opensAs(const std::vector<u8>& bytes, const MKey& model) {
  Ref<HiveFile> hive = HiveFile::open(MemoryStripe::create(bytes), Hive::modeReadOnly, Hive::latin1, {});
  if (!hive) return "does not open, error " + std::to_string(Error::get());
  return diffTree(model, hive->root());
}
// The same, and the bytes pass the byte walk: a valid hive for any reader.
std::string check(const std::vector<u8>& bytes, const MKey& model) {
  const std::string d = opensAs(bytes, model);
  return d.empty() ? diffBytes(model, bytes) : d;
}

// One step of a workload that allocates every kind of record: keys (and
// their list growing past 400), values, value lists, data records and db
// lists, with names long enough that any step may need a new hbin. False
// when the library refused it; the model changes on success only.
bool workStep(Cfg::Key& root, MKey& model, u32 i) {
  static const u32 sizes[] = {3, 100, 5000, 16345, 40000, 16344};
  const std::u16string name = Platform::utf8ToUtf16("k" + std::to_string(i));
  Ref<Cfg::Key> top = root.key(str(u"top"));
  switch (i % 4) {
    case 0: {
      const std::u16string longName = name + std::u16string(200 + i % 55, u'x');
      if (!root.createKey(str(longName))) return false;
      insertKey(model, longName);
      return true;
    }
    case 1: {
      // Fill the busy key in batches, so its list reshapes under pressure.
      for (u32 j = 0; j < 40; ++j) {
        const std::u16string sub = name + u"." + Platform::utf8ToUtf16(std::to_string(j));
        if (findKey(model.subkeys.at(u"top"), sub)) continue;  // made before a failure
        if (!top->createKey(str(sub))) return false;
        insertKey(model.subkeys.at(u"top"), sub);
      }
      return true;
    }
    case 2: {
      const std::u16string longName = name + std::u16string(i * 97 % 2000, u'\u0416');
      if (!top->createValue(str(longName), T::Binary)) return false;
      model.subkeys.at(u"top").values.push_back(MValue{longName, T::Binary, {}});
      return true;
    }
    default: {
      MValue& mv = model.subkeys.at(u"top").values.back();
      Ref<ValueObj> v = top->value(str(mv.name)).cast<ValueObj>();
      const u32 size = sizes[i / 4 % std::size(sizes)];
      if (v->size(size) != size) return false;
      std::vector<u8> data = test::HiveBuilder::utf16le(std::u16string(size / 2 + 1, char16_t(i)));
      data.resize(size);
      if (v->write(data.data(), 0, size) != size) return false;
      mv.data = data;
      return true;
    }
  }
}

class WriteFailure : public ::testing::TestWithParam<u32> {
 protected:
  void SetUp() override {
    stripe = MemoryStripe::create();
    hive = HiveFile::create(stripe, GetParam(), Hive::latin1, {});
    ASSERT_TRUE(hive);
    ASSERT_TRUE(hive->root()->createKey(str(u"top")));
    insertKey(model, u"top");
  }
  Ref<MemoryStripe> stripe;
  Ref<HiveFile> hive;
  MKey model;
};

// 255 characters are the most a key name may have, 16383 a value name,
// in 8-bit and in UTF-16 form alike.
TEST_P(WriteFailure, NameLengthLimits) {
  Ref<Cfg::Key> root = hive->root(), top = root->key(str(u"top"));
  for (char16_t c : {u'k', u'\u0416'}) {
    const std::u16string longest(255, c), tooLong(256, c);
    EXPECT_FALSE(root->createKey(str(tooLong)));
    EXPECT_EQ(Error::get(), Errors::KEY_NAME_INVALID);
    ASSERT_TRUE(root->createKey(str(longest)));
    insertKey(model, longest);
    EXPECT_FALSE(root->move(top, str(tooLong)));
    EXPECT_EQ(Error::get(), Errors::MOVE_NAME_TOO_LONG);

    const std::u16string longestValue(16383, c), tooLongValue(16384, c);
    EXPECT_FALSE(top->createValue(str(tooLongValue), T::String));
    EXPECT_EQ(Error::get(), Errors::VALUE_NAME_TOO_LONG);
    Ref<Cfg::Value> v = top->createValue(str(longestValue), T::Dword);
    ASSERT_TRUE(v);
    model.subkeys.at(u"top").values.push_back(MValue{longestValue, T::Dword, {0, 0, 0, 0}});
    EXPECT_FALSE(top->move(v, str(tooLongValue)));
    EXPECT_EQ(Error::get(), Errors::VALUE_NEW_NAME_INVALID);
  }
  ASSERT_TRUE(hive->flush());
  EXPECT_EQ(check(stripe->bytes(), model), "");
}

// Every writing call of a read-only hive fails with 0x1000 and changes
// nothing; a value or key reached through it is read-only too.
TEST_P(WriteFailure, ReadOnlyHiveRefusesEveryChange) {
  for (u32 i = 0; i < 8; ++i) ASSERT_TRUE(workStep(*hive->root(), model, i));
  for (u32 type : {T::String, T::Dword, T::MultiString})
    ASSERT_TRUE(hive->root()->key(str(u"top"))->createValue(str(std::to_string(type).c_str()), type));
  ASSERT_TRUE(hive->flush());
  const std::vector<u8> before = stripe->bytes();
  stripe = MemoryStripe::create(before);
  hive = HiveFile::open(stripe, Hive::modeReadOnly, Hive::latin1, {});
  ASSERT_TRUE(hive);
  Ref<Cfg::Key> root = hive->root(), top = root->key(str(u"top")),
                k0 = root->key(str(u"k0" + std::u16string(200, u'x')));
  Ref<ValueObj> data = top->value(str(model.subkeys.at(u"top").values[0].name)).cast<ValueObj>();
  Ref<Cfg::Value> text = top->value(str("1")), number = top->value(str("4")), list = top->value(str("7"));
  ASSERT_TRUE(top && k0 && data && text && number && list);
  EXPECT_TRUE(top->readOnly() && data->readOnly());

  auto strings = Platform::TVector<Ref<String>>::create();
  strings->push_back(str("x"));
  const u8 byte = 1;
  Ref<Interfaces::Stripe> bytes = data->binary();
  Ref<Cfg::SecurityDescriptor> sd = hive->securityDescriptorIterator()->next();
  ASSERT_TRUE(sd);
  const std::vector<u8> descriptor = sd->get();
  const std::vector<std::pair<const char*, std::function<bool()>>> writes = {
      {"createKey", [&] { return bool(root->createKey(str("new"))); }},
      {"deleteKey", [&] { return root->deleteKey(k0); }},
      {"move key", [&] { return top->move(k0, str("moved")); }},
      {"rename key", [&] { return root->move(k0, str("renamed")); }},
      {"createValue", [&] { return bool(top->createValue(str("new"), T::String)); }},
      {"deleteValue", [&] { return top->deleteValue(text); }},
      {"move value", [&] { return k0->move(text, str("moved")); }},
      {"setType", [&] { return text->setType(T::Binary); }},
      {"setString", [&] { return text->setString(str("x")); }},
      {"setNumber", [&] { return number->setNumber(1); }},
      {"setStrings", [&] { return list->setStrings(strings); }},
      {"size", [&] { return data->size(20000) == 20000; }},
      {"write", [&] { return data->write(&byte, 0, 1) == 1; }},
      {"stripe write", [&] { return bytes->writeAt(0, &byte, 1) == 1; }},
      {"stripe resize", [&] { return bytes->setElementCount(7) == 7; }},
      {"security set", [&] { return sd->set(descriptor.data(), static_cast<u32>(descriptor.size())); }},
      {"recursive delete", [&] { return Hive::Util::recursiveKeyDelete(root, top); }},
  };
  for (const auto& [what, write] : writes) {
    Error::set(0);
    EXPECT_FALSE(write()) << what;
    EXPECT_EQ(Error::get(), Errors::READ_ONLY) << what;
  }
  EXPECT_FALSE(Hive::Util::openOrCreatePath(root, str("a/b")));
  EXPECT_TRUE(hive->flush());
  hive = nullptr;
  EXPECT_TRUE(stripe->bytes() == before);
}

INSTANTIATE_TEST_SUITE_P(Minor, WriteFailure, ::testing::Values(3u, 5u));

}  // namespace
}  // namespace hivekit::model
