// Import of registry text: refusal of malformed files, every accepted data
// form, deleting sections and entries, regedit's escapes, and the round
// trip export -> import -> export.
#include <gtest/gtest.h>

#include "hive/errors.h"
#include "tests/regfile/reg_test_util.h"

namespace hivekit::test {
namespace {

using Hive::Util;

const std::string HEADER = "Windows Registry Editor Version 5.00\r\n\r\n";

std::vector<u8> bytesOf(const Ref<Value>& v) {
  Ref<Interfaces::Stripe> s = v->binary();
  std::vector<u8> out(s->elementCount());
  out.resize(s->readAt(0, out.data(), out.size()));
  return out;
}

TEST(RegImport, RefusesMalformedFiles) {
  struct Case {
    std::string file;
    std::string message;
  };
  const std::vector<Case> cases = {
      {"[ROOT\\A]\r\n", "Invalid regfile, section before version string"},
      {HEADER + "[OTHER\\A]\r\n", "Prefix mismatch while importing reg file"},
      {HEADER + "[ROOTX\\A]\r\n", "Prefix mismatch while importing reg file"},
      {HEADER + "[ROOT\\A\\\\B]\r\n", "Invalid path: ROOT\\A\\\\B"},
      {HEADER + "\"v\"=dword:1\r\n[ROOT\\A]\r\n", "Invalid regfile, first value before first key"},
      {HEADER + "[ROOT\\A]\r\n\"v\"=hex:0g\r\n", "Invalid hex value: v"},
      {HEADER + "[ROOT\\A]\r\n\"v\"=hex:01,,02\r\n", "Invalid hex value: v"},
      {HEADER + "[ROOT\\A]\r\n\"v\"=hex(123456789):01\r\n", "Invalid hex value: v"},
      {HEADER + "[ROOT\\A]\r\n\"v\"=dword:123456789\r\n", "Invalid dword value: v"},
      {HEADER + "[ROOT\\A]\r\n\"v\"=\"abc\" x\r\n", "Invalid string value: v"},
      {HEADER + "[ROOT\\A]\r\n\"v\"=sz:abc\r\n", "Invalid value: v"},
      {HEADER + "[ROOT\\A]\r\n\"v\"=\r\n", "Found empty value in regfile, name = v"},
      {HEADER + "[-ROOT]\r\n", "Failed to delete key: "},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.file);
    Ref<Hive::HiveFile> hive = newHive();
    ASSERT_TRUE(hive);
    Diagnostics d;
    EXPECT_FALSE(importText(hive, utf16(c.file), "ROOT", &d));
    EXPECT_TRUE(d.contains(c.message)) << d.all();
    ASSERT_FALSE(d.lines.empty());
    EXPECT_EQ(d.lines.back().rfind("Regfile import failed: ", 0), 0u) << d.all();
  }
}

TEST(RegImport, AppliesEveryDataFormAndDeletion) {
  Ref<Hive::HiveFile> hive = newHive();
  ASSERT_TRUE(hive);
  Ref<Key> root = hive->root();
  const std::string file = HEADER +
                           "[root]\r\n"
                           "@=\"root default\"\r\n"
                           "\r\n"
                           "; a comment\r\n"
                           "[Root\\A\\B]\r\n"
                           "\"s\"=\"text\"\r\n"
                           "\"d\"=dword:ABCDEF01\r\n"
                           "\"d2\"=DWORD:7\r\n"
                           "\"h\"=hex:01, 02 ,03,\\\r\n"
                           "  04,5\r\n"
                           "\"e\"=hex:\r\n"
                           "\"t\"=hex(7):61,00,00,00,00,00\r\n"
                           "\"odd\"=hex(1a2B):ff\r\n"
                           "\"gone\"=dword:1\r\n"
                           "\"gone\"=-\r\n"
                           "\"never\"=-\r\n"
                           "[ROOT\\C\\D]\r\n"
                           "\"x\"=dword:1\r\n"
                           "[ROOT\\A\\B]\r\n"
                           "\"s\"=dword:5\r\n"
                           "[-ROOT\\C]\r\n"
                           "[-ROOT\\Missing\\Key]\r\n";
  Diagnostics d;
  ASSERT_TRUE(importText(hive, utf16(file), "ROOT", &d)) << d.all();

  EXPECT_EQ(root->value(String::empty())->string(100)->toUtf8(), "root default");
  Ref<Key> b = Util::openPath(root, str("A/B"));
  ASSERT_TRUE(b);
  Ref<Value> s = b->value(str("s"));  // re-imported with another type
  ASSERT_TRUE(s);
  EXPECT_EQ(s->type(), 4u);
  EXPECT_EQ(s->number(), 5u);
  EXPECT_EQ(b->value(str("d"))->number(), 0xABCDEF01u);
  EXPECT_EQ(b->value(str("d2"))->number(), 7u);
  EXPECT_EQ(bytesOf(b->value(str("h"))), (std::vector<u8>{1, 2, 3, 4, 5}));
  EXPECT_EQ(b->value(str("e"))->type(), 3u);
  EXPECT_TRUE(bytesOf(b->value(str("e"))).empty());
  EXPECT_EQ(b->value(str("t"))->type(), 7u);
  Ref<Value> odd = b->value(str("odd"));
  ASSERT_TRUE(odd);
  EXPECT_EQ(odd->type(), 0x1a2bu);
  EXPECT_EQ(bytesOf(odd), std::vector<u8>{0xFF});
  EXPECT_FALSE(b->value(str("gone")));
  EXPECT_FALSE(root->key(str("C")));
  EXPECT_TRUE(d.lines.empty()) << d.all();
}

TEST(RegImport, ReadsRegeditStyleEscapesInUtf16) {
  Ref<Hive::HiveFile> hive = newHive();
  ASSERT_TRUE(hive);
  const std::string file = HEADER +
                           "[HKEY_LOCAL_MACHINE\\SOFTWARE\\Test]\r\n"
                           "\"Path\"=\"C:\\\\Windows\\\\System32\"\r\n"  // "C:\\Windows\\System32"
                           "\"Quote\"=\"say \\\"hi\\\"\"\r\n"            // "say \"hi\""
                           "\"na\\\"me\"=\"v\"\r\n"                      // an escaped quote in a name
                           "\"\xC3\x9C\x6E\xC3\xAF\"=\"\xE2\x82\xAC\"\r\n";
  Diagnostics d;
  ASSERT_TRUE(importText(hive, utf16(file), "hkey_local_machine/software", &d)) << d.all();
  Ref<Key> k = Util::openPath(hive->root(), str("Test"));
  ASSERT_TRUE(k);
  auto textOf = [&](const char* name) {
    Ref<Value> v = k->value(str(name));
    return v ? v->string(1000)->toUtf8() : std::string("<none>");
  };
  EXPECT_EQ(textOf("Path"), "C:\\Windows\\System32");
  EXPECT_EQ(textOf("Quote"), "say \"hi\"");

  // One string whose backslashes are not all escapes marks the file as
  // written raw (as our export writes it): no string of it is unescaped.
  const std::string raw = HEADER +
                          "[ROOT]\r\n"
                          "\"unc\"=\"\\\\server\\\\share\"\r\n"  // "\\server\\share": escapes only
                          "\"dir\"=\"C:\\Windows\\\"\r\n";       // "C:\Windows\": raw
  ASSERT_TRUE(importText(hive, utf16(raw), "ROOT", &d)) << d.all();
  EXPECT_EQ(hive->root()->value(str("unc"))->string(100)->toUtf8(), "\\\\server\\\\share");
  EXPECT_EQ(hive->root()->value(str("dir"))->string(100)->toUtf8(), "C:\\Windows\\");
  EXPECT_EQ(textOf("na\"me"), "v");
  EXPECT_EQ(textOf("\xC3\x9C\x6E\xC3\xAF"), "\xE2\x82\xAC");
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
  Ref<Hive::HiveFile> source = openImage(b.build());
  ASSERT_TRUE(source);
  const std::vector<u8> first = exportKey(source->root(), "ROOT");

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
