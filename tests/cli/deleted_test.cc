// hivekit deleted on the shared hives made for recovery: what each holds,
// checked once by hand against the bytes of the hive (record by record:
// its cell, its parent or list, its data record) and pinned here.
#include "tests/cli/cli_fixture.h"

namespace hivekit::cli_test {
namespace {

struct Pinned {
  const char* hive;
  const char* listing;
};

// How each item was checked:
// DeletedDataHive: the root's lf list (0x2a0) still names nk 0x230 "456"
//   behind its count; that nk lies in free cell 0x218, its parent is the
//   root and its value list 0x2e8 (in free cell 0x2c8) names vk 0x2c8 "v",
//   whose data record 0x160 (free) holds "123456" in UTF-16. The live key
//   123's value list (0x290) names vk 0x188 "v2" behind its count; 0x188
//   lies in free cell 0x160 and its data 0x218 holds "456".
// DeletedTreeHive: free cells 0x2a0 (nk "3", parent 0x230 = live \1\2),
//   inside it 0x310 ("4", parent 0x2a0) and 0x380 ("5", parent 0x310); free
//   cell 0x140 is "New Key #1" with parent 0x310: the key's name before it
//   was renamed to 5 (lf 0x208, free, still names it).
// ReallocValueHive: free nk 0x2e8 "2" (parent the root) names value list
//   0x2e0, whose entry 0x340 is now the live value of \1: partial. Its old
//   default value, vk 0x2c8 with data 0x140 ("2222"), no list names: \?.
// ReallocValueDataHive: the same key, whose list names vk 0x2c8; that
//   value's data record 0x258 is the live data of \1's value: unavailable.
// HealedHive: nk 0x2c8 "cccc" is allocated but the root's lf (0x378) holds
//   it only behind its count of 3; its list 0x218 names vk 0x168 "123",
//   data 0x140 = "test".
// SlackHive: free cell 0x76e38 holds nk "New Key #1", parent 0x32180 = the
//   live key 2119.
// RemnantsHive: no record outside the live tree inside its hive bins.
const Pinned PINNED[] = {
    {"DeletedDataHive",
     "K\t\\456\t01d2a1bf1f1a3740\t0\t1\tintact\tnk@0x230 list@0x2e8\n"
     "V\t\\456\tv\t1\t14\t3100320033003400350036000000\tintact\tvk@0x2c8 data@0x160\n"
     "V\t\\123\tv2\t1\t8\t3400350036000000\tintact\tvk@0x188 data@0x218\n"},
    {"DeletedTreeHive",
     "K\t\\1\\2\\3\\4\\New Key #1\t01d2a1bff150c6ed\t0\t0\tintact\tnk@0x140\n"
     "K\t\\1\\2\\3\t01d2a1bff415fa9d\t0\t0\tintact\tnk@0x2a0\n"
     "K\t\\1\\2\\3\\4\t01d2a1bff415fa9d\t0\t0\tintact\tnk@0x310\n"
     "K\t\\1\\2\\3\\4\\5\t01d2a1bff1ba17ed\t0\t0\tintact\tnk@0x380\n"},
    {"ReallocValueHive",
     "K\t\\2\t01d32a7e67a86fbc\t0\t1\tpartial\tnk@0x2e8 list@0x2e0\n"
     "V\t\\?\t\t1\t10\t32003200320032000000\tintact\tvk@0x2c8 data@0x140\n"},
    {"ReallocValueDataHive",
     "K\t\\2\t01d32a7e67a86fbc\t0\t1\tintact\tnk@0x2e8 list@0x2e0\n"
     "V\t\\2\t\t1\t10\tunavailable\tpartial\tvk@0x2c8 data@0x258!\n"},
    {"HealedHive",
     "K\t\\cccc\t01d2a0e52529d9b6\t0\t1\tintact\tnk@0x2c8 list@0x218\n"
     "V\t\\cccc\t123\t1\t10\t74006500730074000000\tintact\tvk@0x168 data@0x140\n"},
    {"SlackHive",
     "K\t\\key_with_many_subkeys\\2119\\New Key #1\t01d294f6bcee3720\t0\t0\tintact\tnk@0x76e38\n"},
    {"RemnantsHive", ""},
};

TEST_F(CliTest, DeletedFindsWhatTheRecoveryHivesHold) {
  REQUIRE_TESTDATA();
  for (const Pinned& p : PINNED) {
    const Result r = hivekit({"deleted", (testdata() / "hives" / p.hive).string()});
    EXPECT_EQ(r.status, 0) << p.hive << r.err;
    EXPECT_EQ(r.out, p.listing) << p.hive;
  }
  // KEYPATH keeps what lies below it; \? the orphans.
  const std::string tree = (testdata() / "hives" / "DeletedTreeHive").string();
  EXPECT_EQ(countLines(hivekit({"deleted", tree, "1\\2\\3\\4"}).out, "K\t"), 3u);
  EXPECT_EQ(hivekit({"deleted", (testdata() / "hives" / "ReallocValueHive").string(), "\\?"}).out,
            "V\t\\?\t\t1\t10\t32003200320032000000\tintact\tvk@0x2c8 data@0x140\n");
}

// What --export writes imports into a fresh hive, which then lists the
// recovered keys and values as live ones.
TEST_F(CliTest, DeletedExportImportsIntoAFreshHive) {
  REQUIRE_TESTDATA();
  const std::string reg = path("out.reg").string(), fresh = path("fresh.hiv").string();
  ASSERT_EQ(hivekit({"deleted", (testdata() / "hives" / "DeletedDataHive").string(), "--export", reg,
                     "--prefix", "ROOT\\Recovered"})
                .status,
            0);
  ASSERT_EQ(hivekit({"new", fresh}).status, 0);
  const Result imported = hivekit({"import", fresh, reg});
  ASSERT_EQ(imported.status, 0) << imported.err;
  const std::string dump = hivekit({"dump", fresh, "Recovered"}).out;
  EXPECT_TRUE(hasLine(dump, "V\t\\Recovered\\456\tv\t1\t14\t3100320033003400350036000000")) << dump;
  EXPECT_TRUE(hasLine(dump, "V\t\\Recovered\\123\tv2\t1\t8\t3400350036000000")) << dump;
  // On the built hive, which has nothing deleted, nothing is found.
  writeFile(path("empty.hiv"), HiveBuilder(5).build());
  EXPECT_EQ(hivekit({"deleted", "--json", path("empty.hiv").string()}).out, "");
}

// Previous versions from the logs of the shared dirty hives. Checked by
// hand in NewDirtyHive1.LOG1 (one entry, sequence 2, logging hive bins data
// 0x0-0x5000 from log offset 0x230): nk 0x268 "Key1" (log 0x498, parent
// the root 0x20) is gone from the hive (another record covers 0x268 now);
// its value list 0x258 names vk 0x2c0, the default value of 12002 bytes at
// 0x1020. vk 0x430 "v" of Key2 (log 0x660) has its data record 0x3b0 in the
// entry ("testTEST" in UTF-16), which the hive has reused: its own scan
// lists that value with its data unavailable. The .LOG2 entries 3 to 5 then
// delete Key2's subkeys (entry 4 holds Key2 without them) and Key2.
TEST_F(CliTest, DeletedListsPreviousVersionsFromTheLogs) {
  REQUIRE_TESTDATA();
  const fs::path hives = testdata() / "hives";
  const Result r = hivekit({"deleted", "--logs", (hives / "NewDirtyHive1" / "NewDirtyHive").string()});
  ASSERT_EQ(r.status, 0) << r.err;
  std::string previous;
  for (size_t at = 0, end; (end = r.out.find('\n', at)) != std::string::npos; at = end + 1)
    if (r.out.find("\tprevious ", at) < end) previous += r.out.substr(at, end + 1 - at);
  EXPECT_EQ(previous,
            "K\t\\Key1\t01d295292d661d02\t0\t1\tprevious .LOG1 entry 2 @0x498\tnk@0x268\n"
            "K\t\\Key2\t01d295293715acb1\t2\t1\tprevious .LOG1 entry 2 @0x588\tnk@0x358\n"
            "V\t\\Key1\t\t1\t12002\tsha256:ad5c911105652040930cc4c510646710bd5fdd01dd31b020149667c57979966f\t"
            "previous .LOG1 entry 2 @0x4f0\tvk@0x2c0 data@0x1020\n"
            "V\t\\Key2\tv\t1\t18\t740065007300740054004500530054000000\tprevious .LOG1 entry 2 @0x660\t"
            "vk@0x430 data@0x3b0\n"
            "K\t\\Key2\t01d2952975e238b0\t0\t1\tprevious .LOG2 entry 4 @0x2388\tnk@0x358\n");
  // The others by count: an old-format log whose pages are all applied
  // holds nothing older; KEYPATH and --export take previous versions too.
  const struct {
    const char* hive;
    size_t keys, values;
  } counts[] = {{"NewDirtyHive2/NewDirtyHive", 3, 2},
                {"OldDirtyHive/OldDirtyHive", 0, 0},
                {"UsrClass/UsrClass.dat", 61, 168}};
  for (const auto& c : counts) {
    const std::string out = hivekit({"deleted", "--logs", (hives / c.hive).string()}).out;
    size_t keys = 0, values = 0;
    for (size_t at = 0, end; (end = out.find('\n', at)) != std::string::npos; at = end + 1)
      if (out.find("\tprevious ", at) < end) ++(out[at] == 'K' ? keys : values);
    EXPECT_EQ(keys, c.keys) << c.hive;
    EXPECT_EQ(values, c.values) << c.hive;
  }
  const std::string reg = path("prev.reg").string();
  ASSERT_EQ(hivekit({"deleted", "--logs", (hives / "NewDirtyHive1" / "NewDirtyHive").string(), "Key2",
                     "--export", reg})
                .status,
            0);
  std::string want;  // the file is UTF-16
  for (char c : std::string("\"v\"=\"testTEST\"")) want += {c, '\0'};
  EXPECT_NE(readFile(reg).find(want), std::string::npos);
}

}  // namespace
}  // namespace hivekit::cli_test
