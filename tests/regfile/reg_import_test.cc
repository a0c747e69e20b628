// Import of registry text: refusal of malformed files, every accepted data
// form, deleting sections and entries, regedit's escapes, and the round
// trip export -> import -> export.
#include <gtest/gtest.h>

#include "hive/format/errors.h"
#include "hive/regfile/reg_file_reader.h"
#include "tests/regfile/reg_test_util.h"

namespace hivekit::test {
namespace {

using Hive::Util;

const std::string HEADER = "Windows Registry Editor Version 5.00\r\n\r\n";

// Every error names the first line of its entry, once, and leaves the
// hive exactly as it was: the whole file is checked before anything
// changes, so the bad line may come last.
TEST(RegImport, RefusesMalformedFilesAndChangesNothing) {
  struct Case {
    std::string tail;  // from line 5, after a valid first part
    std::string message;
  };
  const std::string huge(100000, 'x');
  const std::vector<Case> cases = {
      {"[OTHER\\A]\r\n", "line 5: Prefix mismatch while importing reg file"},
      {"[ROOTX\\A]\r\n", "line 5: Prefix mismatch while importing reg file"},
      {"[ROOT\\A\\\\B]\r\n", "line 5: Invalid path: ROOT\\A\\\\B"},
      {"[-ROOT\\A]\r\n\"v\"=dword:1\r\n", "line 6: Invalid regfile, first value before first key"},
      {"[ROOT\\A]\r\n\"v\"=hex:01,\\\r\n  0g\r\n", "line 6: Invalid hex value: v"},
      {"[ROOT\\A]\r\n\"v\"=hex:01,,02\r\n", "line 6: Invalid hex value: v"},
      {"[ROOT\\A]\r\n\"v\"=hex:01,\r\n", "line 6: Invalid hex value: v"},
      {"[ROOT\\A]\r\n\"v\"=hex(123456789):01\r\n", "line 6: Invalid hex value: v"},
      {"[ROOT\\A]\r\n\"v\"=dword:123456789\r\n", "line 6: Invalid dword value: v"},
      {"[ROOT\\A]\r\n\"v\"=\"abc\" x\r\n", "line 6: Invalid string value: v"},
      {"[ROOT\\A]\r\n\"v\"=\"abc\r\n\"\r\n", "line 6: Invalid string value, no closing quote: v"},
      {"[ROOT\\A]\r\n\"v\"=sz:abc\r\n", "line 6: Invalid value: v"},
      {"[ROOT\\A]\r\n\"v\"=\r\n", "line 6: Found empty value in regfile, name = v"},
      {"[ROOT\\A]\r\n\"v\"=hex:01,02,03,04,05,06,07,08,09\r\n",
       "line 6: Value data larger than the hive allows (8 bytes): v"},
      {"[-ROOT]\r\n", "line 5: Failed to delete key: "},
      {"[ROOT\\A]\r\n" + huge + "\r\n", "line 6: Invalid line: " + huge.substr(0, 200) + "...\n"},
      {"[ROOT\\" + huge + "]\r\n",
       "line 5: Key name longer than 255 characters: " + huge.substr(0, 200) + "...\n"},
      {"[ROOT\\A]\r\nv=1\r\n", "line 6: Invalid line: v=1"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.tail.substr(0, 80));
    Ref<MemoryStripe> image = MemoryStripe::create();
    Ref<Hive::HiveFile> hive = Hive::HiveFile::create(image, 5, Hive::latin1, {});
    ASSERT_TRUE(hive);
    ASSERT_TRUE(hive->flush());
    const std::vector<u8> before = image->bytes();
    const std::string file = HEADER + "[ROOT\\Early]\r\n\"x\"=\"y\"\r\n" + c.tail;
    Diagnostics d;
    RegFileUtil::ImportControl control;
    control.maxDataSize = 8;
    EXPECT_FALSE(RegFileUtil::importRegFile(hive, MemoryStripe::create(utf16(file)), str("ROOT"), d.sink(),
                                            false, control));
    ASSERT_EQ(d.lines.size(), 1u) << d.all();
    EXPECT_TRUE(d.contains(c.message)) << d.all();
    EXPECT_FALSE(hive->root()->key(str("Early")));
    ASSERT_TRUE(hive->flush());
    EXPECT_EQ(image->bytes(), before);
  }
  Diagnostics d;
  EXPECT_FALSE(importText(newHive(), utf16("[ROOT\\A]\r\n"), "ROOT", &d));
  EXPECT_EQ(d.all(), "line 1: Invalid regfile, section before version string\n");
}

// Data of a megabyte and more is written into the value a piece at a time
// as it is read: pieces end at every boundary (a value of exactly one
// piece, several pieces and a partial one, a list continued over lines),
// and a value replaced by one written that way keeps nothing of the old.
TEST(RegImport, LargeDataArrivesWholeFromPieces) {
  const size_t piece = Hive::RegFileReader::DATA_PIECE;
  const std::string exact(piece / 2 - 1, 'e');  // and the zero unit: one piece
  std::string many;
  for (size_t i = 0; i < piece + piece / 2; ++i) many += static_cast<char>('a' + i % 26);
  std::string hex = "\"h\"=hex:";
  std::vector<u8> hexBytes;
  for (size_t i = 0; i < 2 * piece + 3; ++i) {
    hexBytes.push_back(static_cast<u8>(i * 7));
    hex += "0123456789abcdef"[hexBytes.back() >> 4];
    hex += "0123456789abcdef"[hexBytes.back() & 15];
    hex += i + 1 == 2 * piece + 3 ? "\r\n" : i % 100000 == 99999 ? ",\\\r\n  " : ",";
  }
  const std::string file = HEADER + "[ROOT\\A]\r\n\"m\"=dword:1\r\n\"x\"=\"" + exact + "\"\r\n\"m\"=\"" +
                           many + "\"\r\n" + hex + "\"after\"=dword:2\r\n";
  Ref<Hive::HiveFile> hive = newHive();
  Diagnostics d;
  ASSERT_TRUE(importText(hive, std::vector<u8>(file.begin(), file.end()), "ROOT", &d)) << d.all();
  Ref<Key> a = hive->root()->key(str("A"));
  ASSERT_TRUE(a);
  EXPECT_EQ(dataOf(a->value(str("x"))), sz(std::u16string(exact.begin(), exact.end())));
  Ref<Value> m = a->value(str("m"));
  EXPECT_EQ(m->type(), 1u);
  EXPECT_EQ(dataOf(m), sz(std::u16string(many.begin(), many.end())));
  EXPECT_EQ(dataOf(a->value(str("h"))), hexBytes);
  EXPECT_EQ(a->value(str("after"))->number(), 2u);
  ASSERT_TRUE(hive->flush());
}

// A file as regedit writes it (UTF-16, escapes, continued hex lists,
// deleting sections and entries, the default value) imports as regedit
// would import it, and so do the looser forms it accepts (letter case,
// spaces in hex lists, any type number); so does a REGEDIT4 file in 8-bit
// text.
TEST(RegImport, ReadsRegeditFiles) {
  Ref<Hive::HiveFile> hive = newHive();
  ASSERT_TRUE(hive);
  const std::string file =
      HEADER +
      "[HKEY_LOCAL_MACHINE\\SOFTWARE\\Test]\r\n"
      "@=\"default\"\r\n"
      "\"Path\"=\"C:\\\\Windows\\\\System32\"\r\n"  // C:\Windows\System32
      "\"Quote\"=\"say \\\"hi\\\"\"\r\n"            // say "hi"
      "\"\\\\\\\\vm\\\\share\\\"=\"=\"\\\\\"\r\n"   // name \\vm\share"= , text \ (backslash)
      "\"Multi\"=hex(7):61,00,00,00,62,00,00,\\\r\n"
      "  00,00,00\r\n"
      "\"Gone\"=dword:00000001\r\n"
      "\"Gone\"=-\r\n"
      "  ; a comment\r\n"
      "\r\n"
      "[HKEY_LOCAL_MACHINE\\SOFTWARE\\Test\\Sub\\Deep]\r\n"
      "[-HKEY_LOCAL_MACHINE\\SOFTWARE\\Test\\Sub]\r\n"
      "[-HKEY_LOCAL_MACHINE\\SOFTWARE\\Missing\\Key]\r\n"
      "[HKEY_LOCAL_MACHINE\\SOFTWARE\\Test\\Kept]\r\n"
      "[hkey_local_machine\\software\\Test\\Loose]\r\n"
      "\"s\"=\"text\"\r\n"
      "\"d\"=DWORD:ABCDEF01\r\n"
      "\"h\"=hex:01, 02 ,03,\\\r\n"
      "  04,5\r\n"
      "\"e\"=hex:\r\n"
      "\"odd\"=hex(1a2B):ff\r\n"
      "\"never\"=-\r\n"
      "[HKEY_LOCAL_MACHINE\\SOFTWARE\\Test\\Loose]\r\n"
      "\"s\"=dword:5\r\n";
  Diagnostics d;
  ASSERT_TRUE(importText(hive, utf16(file), "hkey_local_machine/software", &d)) << d.all();
  Ref<Key> k = Util::openPath(hive->root(), str("Test"));
  ASSERT_TRUE(k);
  auto textOf = [&](const char* name) {
    Ref<Value> v = k->value(str(name));
    return v ? v->string(1000)->toUtf8() : std::string("<none>");
  };
  EXPECT_EQ(textOf(""), "default");
  EXPECT_EQ(textOf("Path"), "C:\\Windows\\System32");
  EXPECT_EQ(textOf("Quote"), "say \"hi\"");
  EXPECT_EQ(textOf("\\\\vm\\share\"="), "\\");
  EXPECT_EQ(dataOf(k->value(str("Multi"))), (std::vector<u8>{'a', 0, 0, 0, 'b', 0, 0, 0, 0, 0}));
  EXPECT_FALSE(k->value(str("Gone")));
  EXPECT_FALSE(k->key(str("Sub")));
  EXPECT_TRUE(k->key(str("Kept")));
  Ref<Key> loose = k->key(str("Loose"));
  ASSERT_TRUE(loose);
  EXPECT_EQ(loose->value(str("s"))->type(), 4u) << "imported again with another type";
  EXPECT_EQ(loose->value(str("s"))->number(), 5u);
  EXPECT_EQ(loose->value(str("d"))->number(), 0xABCDEF01u);
  EXPECT_EQ(dataOf(loose->value(str("h"))), (std::vector<u8>{1, 2, 3, 4, 5}));
  EXPECT_EQ(loose->value(str("e"))->type(), 3u);
  EXPECT_TRUE(dataOf(loose->value(str("e"))).empty());
  EXPECT_EQ(loose->value(str("odd"))->type(), 0x1a2bu);
  EXPECT_EQ(dataOf(loose->value(str("odd"))), std::vector<u8>{0xFF});

  std::vector<u8> ansi;
  for (char c : std::string("REGEDIT4\r\n\r\n[ROOT\\Alt]\r\n\"N\xE4me\"=\"\x80\"\r\n"))
    ansi.push_back(static_cast<u8>(c));
  ASSERT_TRUE(importText(hive, ansi, "ROOT", &d)) << d.all();
  Ref<Value> v = Util::openPath(hive->root(), str("Alt"))->value(str("N\xC3\xA4me"));
  ASSERT_TRUE(v);
  EXPECT_EQ(v->string(10)->toUtf8(), "\xE2\x82\xAC");  // the euro sign of Windows-1252
  EXPECT_TRUE(d.lines.empty()) << d.all();
}

TEST(RegImport, RoundTripGivesTheSameText) {
  HiveBuilder b;
  const u32 root = b.root();
  const u32 sw = b.key(root, u"Software");
  const u32 deep = b.key(b.key(sw, u"Vendor Name"), u"\u00C4pp \u4E2D");
  b.key(root, u"Empty");
  b.value(root, u"", 1, sz(u"root"));
  b.value(sw, u"path", 1, sz(u"C:\\Program Files\\x\\"));
  b.value(sw, u"unc", 1, sz(u"\\\\server\\\\share"));
  b.value(sw, u"quote", 1, sz(u"a \"b\" c"));
  b.value(sw, u"dir\\", 1, sz(u"name ending in a backslash"));
  b.value(sw, u"a=b", 4, {0x78, 0x56, 0x34, 0x12});
  b.value(deep, u"multi", 7, sz(std::u16string_view(u"one\0two\0", 8)));
  b.value(deep, u"qword", 11, {1, 2, 3, 4, 5, 6, 7, 8});
  std::vector<u8> blob(100);
  for (u32 i = 0; i < blob.size(); ++i) blob[i] = static_cast<u8>(i * 7);
  b.value(deep, u"blob", 3, blob);
  b.value(deep, u"nothing", 3, {});
  b.value(deep, u"none", 0, {0xAA});
  // Strings that quotes cannot carry as they are, and names that need
  // escapes: all must come back byte for byte.
  const u32 esc = b.key(root, u"escapes");
  b.value(esc, u"\\\\vmware-host\\Shared Folders\\", 1, sz(u"\\\\fileserver"));
  b.value(esc, u"\"=", 1, sz(u"say \\\"x\\\""));
  b.value(esc, u"crlf", 1, sz(u"one\r\ntwo"));
  b.value(esc, u"lf", 1, sz(u"one\n"));
  b.value(esc, u"nul inside", 1, sz(std::u16string_view(u"a\0b", 3)));
  b.value(esc, u"odd", 1, {'a', 0, 'b'});
  b.value(esc, u"no terminator", 1, {'a', 0});
  b.value(esc, u"two terminators", 1, {'a', 0, 0, 0, 0, 0});
  b.value(esc, u"lone surrogate", 1, sz(u"x\xD800y"));
  b.value(esc, u"pair", 1, sz(u"x\xD83D\xDE00y"));
  b.value(esc, u"lone\xDC00name", 4, {1, 2, 3, 4});
  Ref<Hive::HiveFile> source = openImage(b.build());
  ASSERT_TRUE(source);
  const std::vector<u8> first = exportKey(source->root(), "ROOT");
  const std::string firstText = text(first);
  for (const char* line :
       {"\"\\\\\\\\vmware-host\\\\Shared Folders\\\\\"=\"\\\\\\\\fileserver\"\r\n",
        "\"\\\"=\"=\"say \\\\\\\"x\\\\\\\"\"\r\n", "\"crlf\"=hex(1):6f,00,6e,00,65,00,0d,00,0a,00,",
        "\"two terminators\"=hex(1):61,00,00,00,00,00\r\n",
        "\"lone surrogate\"=hex(1):", "\"pair\"=\"x\xF0\x9F\x98\x80y\"\r\n"})
    EXPECT_NE(firstText.find(line), std::string::npos) << line;

  Ref<Hive::HiveFile> target = newHive();
  ASSERT_TRUE(target);
  Diagnostics d;
  ASSERT_TRUE(importText(target, first, "ROOT", &d)) << d.all();
  const std::vector<u8> second = exportKey(target->root(), "ROOT");
  EXPECT_EQ(text(second), text(first));
  EXPECT_EQ(second, first);
}

}  // namespace
}  // namespace hivekit::test
