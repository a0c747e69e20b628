// An independent reader agrees with what the library writes: after a
// series of changes and a flush, `hivekit dump` and the peer listing tool
// (python3-hivex) print the same text, timestamps included. Skipped where
// python3-hivex or the tool is missing. (Names with an unpaired surrogate
// are left out: the peer reader cannot decode them.)
#include <gtest/gtest.h>

#include <cstdio>
#include <filesystem>
#include <string>

#include "hive/hive_file.h"
#include "hive/util/util.h"
#include "hive/value/value_obj.h"
#include "tests/support/hives.h"
#include "tests/support/test_files.h"

namespace {

namespace fs = std::filesystem;
namespace Hive = Libraries::Files::Hive;
using Hive::Key;
using Hive::Util;
using Hive::ValueObj;
using hivekit::test::str;
using Platform::Ref;
using Platform::String;
using Platform::u32;
using Platform::u8;

const fs::path kTool = fs::path(HIVEKIT_SOURCE_DIR) / ".." / "shared" / "tools" / "hive-listing";

std::string run(const std::string& command) {
  int status = 0;
  const std::string out = hivekit::test::commandOutput(command + " 2>/dev/null", &status);
  return status == 0 ? out : out + "<exit status " + std::to_string(status) + ">";
}

Ref<ValueObj> setData(const Ref<Key>& key, const std::u16string& name, u32 type, u32 size) {
  Ref<Hive::Value> made = key->value(str(name));
  if (!made) made = key->createValue(str(name), type);
  Ref<ValueObj> v = made.cast<ValueObj>();
  EXPECT_TRUE(v) << size;
  if (!v) return v;
  std::vector<u8> data(size);
  for (u32 i = 0; i < size; ++i) data[i] = static_cast<u8>(i * 7 + size);
  EXPECT_EQ(v->size(size), size);
  EXPECT_EQ(v->write(data.data(), 0, size), size);
  return v;
}

// Values of every storage form and of odd names, ri lists, names in 8-bit
// and UTF-16 form, and trees that were deleted, moved and renamed.
void change(Hive::HiveFile& hive) {
  Ref<Key> root = hive.root();
  for (u32 size : {0u, 4u, 5u, 32u, 33u, 16344u, 16345u, 40000u})
    setData(root, u"bin" + Platform::utf8ToUtf16(std::to_string(size)), 3, size);
  setData(root, u"shrunk", 0x20, 40000)->size(16345);
  setData(root, u"gone to 2", 3, 40000)->size(2);
  root->createValue(str(u""), 1)->setString(str(u"default \u00e4\u0416"));
  root->createValue(str(u"d"), 4)->setNumber(0x12345678);
  root->createValue(str(u"be"), 5)->setNumber(0x12345678);
  root->createValue(str(u"q"), 11)->setNumber(0x123456789abcdefull);
  for (const char16_t* odd : {u"back\\slash", u"per%cent", u"tab\t", u"del\x7f", u"pair \U0001F600",
                              u"\u00e4\u00f6\u00fc\u00df\u00ff", u"\u4e2d\u6587"})
    ASSERT_TRUE(root->createValue(str(odd), 1)) << Platform::utf16ToUtf8(odd);

  Ref<Key> many = root->createKey(str(u"Many"));
  for (u32 i = 0; i < 1300; ++i) {
    const std::u16string prefix = i % 3 == 0 ? u"\u00c4" : i % 3 == 1 ? u"\u0416" : u"k";
    ASSERT_TRUE(many->createKey(str(prefix + Platform::utf8ToUtf16(std::to_string(i * 7919 % 10000)))));
  }
  for (const char16_t* odd : {u"per%cent", u"a/b", u"ctl\x01", u"\u00ff\u00e4", u"\u03a9mega"})
    ASSERT_TRUE(root->createKey(str(odd)));

  for (const char* path : {"Tmp/A/B/C", "Tmp/A/D", "From/Sub/Deep/Deeper", "From/Other", "To"})
    ASSERT_TRUE(Util::openOrCreatePath(root, String::create(path)));
  setData(Util::openPath(root, String::create("Tmp/A/B")), u"x", 3, 40000);
  setData(Util::openPath(root, String::create("From/Sub/Deep")), u"y", 3, 20000);
  setData(Util::openPath(root, String::create("From/Sub")), u"z", 3, 100);
  ASSERT_TRUE(Util::recursiveKeyDelete(root, root->key(String::create("Tmp"))));
  Ref<Key> from = root->key(String::create("From")), to = root->key(String::create("To"));
  ASSERT_TRUE(to->move(from->key(String::create("Sub")), str(u"Moved \u0416")));
  ASSERT_TRUE(root->move(from, str(u"Renamed")));
  Ref<Key> moved = to->key(str(u"moved \u0436"));
  ASSERT_TRUE(moved && moved->move(moved->value(String::create("z")), str(u"z renamed")));
  ASSERT_TRUE(to->move(moved->value(String::create("z renamed")), str(u"z moved")));
  for (u32 i = 2; i < 1300; i += 3)
    ASSERT_TRUE(many->deleteKey(
        many->key(String::create(std::string("k").append(std::to_string(i * 7919 % 10000))))));
  EXPECT_TRUE(hive.flush());
}

TEST(PeerListing, AgreesAfterChanges) {
  if (system("/usr/bin/python3 -c 'import hivex' 2>/dev/null") != 0 || !fs::exists(kTool))
    GTEST_SKIP() << "python3-hivex or the listing tool is missing";
  hivekit::test::TempDir dir;
  for (u32 minor : {3u, 5u}) {
    SCOPED_TRACE("minor " + std::to_string(minor));
    const std::string file = dir.path("hive" + std::to_string(minor)).string();
    {
      Ref<Hive::HiveFile> hive = Hive::HiveFile::create(String::create(file), minor, Hive::latin1);
      ASSERT_TRUE(hive);
      change(*hive);
    }
    const std::string ours = run(std::string(HIVEKIT_CLI) + " dump " + file);
    EXPECT_GT(ours.size(), 30000u);  // the whole tree, not an error message
    EXPECT_EQ(hivekit::test::firstDifference(run("/usr/bin/python3 " + kTool.string() + " " + file), ours),
              "");
  }
}

}  // namespace
