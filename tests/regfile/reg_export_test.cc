// Export to registry text: the exact text of every value form, the options,
// and the depth limit. Real hives are exported whole by the mutation sweep
// and, imported back, compared by reg_round_trip_test.cc.
#include <gtest/gtest.h>

#include "tests/regfile/reg_test_util.h"

namespace hivekit::test {
namespace {

std::vector<u8> range(u32 n) {
  std::vector<u8> v(n);
  for (u32 i = 0; i < n; ++i) v[i] = static_cast<u8>(i);
  return v;
}

// ROOT: A (empty), Key (every value form) with subkey Sub.
std::vector<u8> sampleHive() {
  HiveBuilder b;
  const u32 root = b.root();
  const u32 key = b.key(root, u"Key");
  b.key(root, u"A");
  b.key(key, u"Sub");
  b.value(key, u"", 1, sz(u"default"));
  b.value(key, u"quote", 1, sz(u"say \"hi\" C:\\dir"));
  b.value(key, u"zero", 4, {0, 0, 0, 0});
  b.value(key, u"dw", 4, {0xCD, 0xAB, 0x34, 0x12});
  b.value(key, u"b25", 3, range(25));
  b.value(key, u"b26", 3, range(26));
  b.value(key, u"empty", 3, {});
  b.value(key, u"q", 11, {1, 2, 3, 4, 5, 6, 7, 8});
  b.value(key, u"exp", 2, sz(u"%X%"));
  b.value(key, u"one", 1, {0x41});    // a string of one byte has no text
  b.value(key, u"short", 4, {1, 2});  // a dword of two bytes has no number
  return b.build();
}

TEST(RegExport, WritesEveryValueFormExactly) {
  Ref<Hive::HiveFile> hive = openImage(sampleHive());
  ASSERT_TRUE(hive);
  Diagnostics d;
  std::vector<u8> bytes = exportKey(hive->root(), "ROOT", &d);
  ASSERT_GE(bytes.size(), 2u);
  EXPECT_EQ(bytes[0], 0xFF);
  EXPECT_EQ(bytes[1], 0xFE);
  EXPECT_EQ(text(bytes),
            "Windows Registry Editor Version 5.00\r\n"
            "\r\n"
            "[ROOT]\r\n"
            "\r\n"
            "[ROOT\\A]\r\n"
            "\r\n"
            "[ROOT\\Key]\r\n"
            "@=\"default\"\r\n"
            "\"quote\"=\"say \\\"hi\\\" C:\\\\dir\"\r\n"
            "\"zero\"=dword:00000000\r\n"
            "\"dw\"=dword:1234abcd\r\n"
            "\"b25\"=hex:00,01,02,03,04,05,06,07,08,09,0a,0b,0c,0d,0e,0f,10,11,12,13,14,15,16,17,18\r\n"
            "\"b26\"=hex:00,01,02,03,04,05,06,07,08,09,0a,0b,0c,0d,0e,0f,10,11,12,13,14,15,16,17,18,\\\r\n"
            "  19\r\n"
            "\"empty\"=hex:\r\n"
            "\"q\"=hex(b):01,02,03,04,05,06,07,08\r\n"
            "\"exp\"=hex(2):25,00,58,00,25,00,00,00\r\n"
            "\"one\"=hex(1):41\r\n"
            "\"short\"=hex(4):01,02\r\n"
            "\r\n"
            "[ROOT\\Key\\Sub]\r\n"
            "\r\n");
  EXPECT_EQ(d.lines,
            (std::vector<std::string>{"Invalid string value: ROOT\\Key/one", "Using binary fallback",
                                      "Invalid dword value: ROOT\\Key/short", "Using binary fallback"}));

  // The raw form writes names and strings as stored, as earlier versions did.
  Ref<MemoryStripe> raw = MemoryStripe::create();
  ASSERT_TRUE(RegFileUtil::exportRegFile(hive->root(), raw, str("ROOT"), RegFileUtil::Raw));
  EXPECT_NE(text(raw->bytes()).find("\r\n\"quote\"=\"say \"hi\" C:\\dir\"\r\n"), std::string::npos);
}

TEST(RegExport, BinaryOnlyPathAndAppend) {
  HiveBuilder b;
  const u32 key = b.key(b.root(), u"Key");
  b.value(key, u"s", 1, sz(u"ab"));
  b.value(key, u"d", 4, {1, 0, 0, 0});
  b.value(key, u"b", 3, {0xFF});
  Ref<Key> k = openImage(b.build())->root()->key(str("Key"));
  ASSERT_TRUE(k);

  const std::string block =
      "[HKLM\\SOFTWARE\\Key]\r\n"
      "\"s\"=hex(1):61,00,62,00,00,00\r\n"
      "\"d\"=hex(4):01,00,00,00\r\n"
      "\"b\"=hex(3):ff\r\n"
      "\r\n";
  // A target holding older, longer content is rewritten from its start.
  Ref<MemoryStripe> out = MemoryStripe::create(std::vector<u8>(10000, 'x'));
  ASSERT_TRUE(RegFileUtil::exportRegFile(k, out, str("HKLM/SOFTWARE"), RegFileUtil::BinaryOnly));
  const std::string first = "Windows Registry Editor Version 5.00\r\n\r\n" + block;
  EXPECT_EQ(text(out->bytes()), first);

  // Appending adds the block alone: no byte order mark, no header.
  const size_t before = out->bytes().size();
  ASSERT_TRUE(RegFileUtil::exportRegFile(k, out, str("/HKLM//SOFTWARE/"),
                                         RegFileUtil::BinaryOnly | RegFileUtil::Append));
  EXPECT_EQ(out->bytes().size(), before + 2 * block.size());
  EXPECT_EQ(text(out->bytes()), first + block);
}

TEST(RegExport, ReportsAFileThatCannotBeOpened) {
  HiveBuilder b;
  b.root();
  Diagnostics d;
  EXPECT_FALSE(RegFileUtil::exportRegFile(openImage(b.build())->root(), str("/nonexistent-dir/x.reg"),
                                          str("R"), 0, d.sink()));
  EXPECT_EQ(d.lines, std::vector<std::string>{"Failed to open: /nonexistent-dir/x.reg"});
}

// Cycles and trees far too deep are resource_bounds_test.cc's; here, the
// exact depth limit and a tree whose paths multiply.
TEST(RegExport, DepthLimitAndKeysListedTwice) {
  Diagnostics d;
  bool ok = true;
  // The root and a chain of 512 keys below it: 513 levels, one too many.
  HiveBuilder b;
  u32 parent = b.root();
  for (int i = 0; i < 512; ++i) parent = b.key(parent, u"k");
  Ref<Hive::HiveFile> deep = openImage(b.build());
  exportKey(deep->root(), "R", &d, &ok);
  EXPECT_FALSE(ok);
  EXPECT_TRUE(d.contains("Key tree deeper than 512 levels at: R\\k\\k")) << d.all();
  exportKey(deep->root()->key(str("k")), "R", &d, &ok);
  EXPECT_TRUE(ok);

  // 40 levels whose lists each name the next key twice: 2^40 paths, but
  // each key's subkeys are written once.
  HiveBuilder dag;
  std::vector<u32> chain{dag.root()};
  for (int i = 0; i < 40; ++i) chain.push_back(dag.key(chain.back(), u"k"));
  std::vector<u32> lists;
  const u32 hash = HiveBuilder::lhHash(u"k", true);
  for (int i = 0; i < 39; ++i)
    lists.push_back(
        dag.writeList(Hive::hive_record_list::SIGNATURE_LH, {chain[i + 1], chain[i + 1]}, {hash, hash}));
  dag.layout();
  for (int i = 0; i < 39; ++i) {
    Platform::W32(dag.at(chain[i]) + Hive::hive_record_nk::OFS_NUM_KEYS, 2);
    Platform::W32(dag.at(chain[i]) + Hive::hive_record_nk::OFS_KEY_LIST, lists[i]);
  }
  d.lines.clear();
  const std::string out = text(exportKey(openImage(dag.build())->root(), "R", &d, &ok));
  EXPECT_TRUE(ok);
  EXPECT_TRUE(d.contains("Key listed twice, subkeys written once only: ")) << d.all();
  EXPECT_LT(out.size(), 200000u);
}

}  // namespace
}  // namespace hivekit::test
