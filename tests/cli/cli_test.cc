// The hivekit command-line tool, run as a separate process.
//
// Hives are made with the test builder or copied from ../shared/testdata
// into a temporary folder; nothing under the test data is ever written.
// Hostile hives (loops, deep trees, claimed counts) are met in
// tests/bounds, under limits of time and memory.
#include "hivekit/version.h"
#include "tests/cli/cli_fixture.h"

namespace {

using namespace hivekit::cli_test;

// ---------------------------------------------------------------- usage

TEST_F(CliTest, UsageErrorsExitTwoWithUsageLine) {
  const std::vector<std::vector<std::string>> bad = {
      {},
      {"frobnicate", "x"},
      {"info"},
      {"info", "a", "b", "c"},
      {"info", "--bogus", "x"},
      {"info", "--codepage", "klingon", "x"},
      {"info", "--codepage"},
      {"info", "--dirty", "--dirty", "x"},
      {"ls", "--no-logs", "--log", "x.LOG1", "h"},
      {"new", "--dirty", "h"},
      {"new", "h", "--minor", "4"},
      {"set", "h", "k", "v", "dword", "0x100000000"},
      {"set", "h", "k", "v", "qword", "12x"},
      {"set", "h", "k", "v", "binary", "0g"},
      {"set", "h", "k", "v", "nonsense", "1"},
      {"set", "h", "k", "v", "sz", "a", "b"},
      {"rm", "h", "\\"},
      {"mv", "h", "", "x"},
      {"recover", "h"},  // -o is required
      {"find", "h", "--key", "(a"},
      {"find", "h", "--data", "\\1"},
      {"find", "h", "--since", "yesterday"},
      {"timeline", "h", "--csv", "--tln"},
      {"diff", "a"},
      {"diff", "a", "b", "--json", "--reg"},
      {"get", "h", "k", "--raw", "--json"},
      {"get", "h", "k", "v", "--class"},
      {"set", "h", "k", "v", "binary", "00", "--from-file", "f"},
  };
  for (const auto& args : bad) {
    Result r = hivekit(args);
    std::string shown;
    for (const auto& a : args) shown += a + " ";
    EXPECT_EQ(r.status, 2) << shown << r.err;
    EXPECT_NE(r.err.find("usage: hivekit"), std::string::npos) << shown << r.err;
    EXPECT_TRUE(r.out.empty()) << shown;
  }
}

TEST_F(CliTest, HelpEverywhere) {
  Result r = hivekit({"--help"});
  EXPECT_EQ(r.status, 0);
  EXPECT_NE(r.out.find("hivekit --version"), std::string::npos);
  for (const char* c : {"info", "ls", "get", "find", "timeline", "diff", "export", "dump", "sd", "recover",
                        "new", "mkkey", "set", "rm", "mv", "import"}) {
    EXPECT_NE(r.out.find(std::string("  ") + c + " "), std::string::npos) << c;
    Result h = hivekit({c, "--help"});
    EXPECT_EQ(h.status, 0) << c;
    EXPECT_EQ(h.out.rfind(std::string("usage: hivekit ") + c, 0), 0u) << c << h.out;
    EXPECT_NE(h.out.find("--codepage"), std::string::npos) << c;
  }
  EXPECT_NE(hivekit({"export", "-h"}).out.find("import"), std::string::npos);  // the default heading
  r = hivekit({"--version"});
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out, "hivekit " HIVEKIT_VERSION_STRING "\n");
}

// Every class of failure exits 1 with "hivekit: " and a message naming its
// cause, never a bare error code. The damaged hives are copies of one built
// hive with one fault each.
TEST_F(CliTest, FailuresNameTheirCause) {
  HiveBuilder b(5);
  b.value(b.key(b.root(), u"k"), u"short", 4, {1, 2, 3});  // a REG_DWORD of 3 bytes
  const std::vector<u8> image = b.build();
  const std::string good = path("good").string();
  writeFile(good, image);
  writeFile(path("cut"), std::vector<u8>(image.begin(), image.begin() + 4096 + 512));
  std::vector<u8> other = image;
  std::copy_n("RIFF", 4, other.begin());
  writeFile(path("other"), other);
  b.setSequence(2, 1);
  writeFile(path("dirty"), b.build());
  b.setSequence(1, 1);
  b.corruptChecksum();
  writeFile(path("badsum"), b.build());

  const std::vector<std::pair<std::vector<std::string>, std::vector<std::string>>> cases = {
      {{"info", path("nope").string()}, {"nope", "no such file"}},
      {{"ls", _temp.path().string()}, {"is a directory"}},
      {{"dump", path("other").string()}, {"not a registry hive"}},
      {{"sd", path("cut").string()}, {"truncated"}},
      {{"export", path("badsum").string()}, {"checksum is wrong"}},
      {{"get", path("dirty").string(), "k", "short"}, {"dirty", "--dirty"}},
      {{"mkkey", path("dirty").string(), "new"}, {"dirty", "--log"}},
      {{"ls", good, "k\\nothing"}, {"key not found", "k\\nothing"}},
      {{"get", good, "k", "nothing"}, {"value not found", "nothing"}},
      {{"get", good, "k"}, {"value not found", "default value"}},
      {{"mv", good, "k", "k"}, {"below itself"}},
      {{"import", good, path("nope.reg").string()}, {"nope.reg", "no such file"}},
      {{"recover", good, "-o", good}, {"is the hive itself"}},
  };
  for (const auto& [args, causes] : cases) {
    const Result r = hivekit(args);
    EXPECT_EQ(r.status, 1) << args[0] << " " << args[1] << "\n" << r.err;
    EXPECT_EQ(r.err.rfind("hivekit: ", 0), 0u) << r.err;
    EXPECT_EQ(r.err.find("error 0x"), std::string::npos) << r.err;
    for (const std::string& cause : causes)
      EXPECT_NE(r.err.find(cause), std::string::npos) << cause << ": " << r.err;
  }
  EXPECT_TRUE(readFile(good) == std::string(image.begin(), image.end()));

  // A value whose data does not fit its type is shown as bytes, with why.
  const Result shortDword = hivekit({"get", good, "k", "short"});
  EXPECT_EQ(shortDword.status, 0);
  EXPECT_EQ(shortDword.out.rfind("00000000  01 02 03 ", 0), 0u) << shortDword.out;
  EXPECT_NE(shortDword.err.find("3 bytes instead of 4"), std::string::npos) << shortDword.err;

  // Root may write anything; others may not write a read-only file.
  if (geteuid() != 0) {
    fs::permissions(good, fs::perms::owner_read | fs::perms::group_read | fs::perms::others_read);
    const Result r = hivekit({"set", good, "k", "v", "dword", "1"});
    EXPECT_EQ(r.status, 1);
    EXPECT_NE(r.err.find("permission denied"), std::string::npos) << r.err;
    EXPECT_EQ(r.err.find("error 0x"), std::string::npos) << r.err;
  }
}

// ---------------------------------------------------------------- reading

TEST_F(BuiltHiveTest, DumpEscapesNamesAndDigestsLongData) {
  Result r = hivekit({"dump", path("built").string()});
  ASSERT_EQ(r.status, 0) << r.err;
  const std::string& o = r.out;
  EXPECT_EQ(o.rfind("K\t\\\t01d9c1a2b3c4d5e6\t3\t0\n", 0), 0u) << o.substr(0, 200);
  EXPECT_TRUE(hasLine(o, "K\t\\names\t01d9c1a2b3c4d5e6\t8\t0"));
  for (const char* name : {"ctl%0001name", "back%005Cslash", "per%0025cent", "\xC3\xA4rger",
                           "\xE6\x97\xA5\xE6\x9C\xAC", "pair\xF0\x9F\x98\x80", "lone%D800x", "slash/inside"})
    EXPECT_TRUE(hasLine(o, std::string("K\t\\names\\") + name + "\t01d9c1a2b3c4d5e6\t0\t0")) << name;
  // Values in value-list order, right after their key.
  std::string values =
      "K\t\\data\t01d9c1a2b3c4d5e6\t0\t14\n"
      "V\t\\data\t\t1\t6\t640066000000\n"
      "V\t\\data\tempty\t3\t0\t\n"
      "V\t\\data\tdword\t4\t4\t78563412\n"
      "V\t\\data\tdwordbe\t5\t4\t12345678\n"
      "V\t\\data\tqword\t11\t8\t0100000000000080\n"
      "V\t\\data\tmulti\t7\t12\t610000006200630000000000\n"
      "V\t\\data\texact32\t3\t32\t000102030405060708090a0b0c0d0e0f101112131415161718191a1b1c1d1e1f\n"
      "V\t\\data\ta33\t3\t33\tsha256:852785c805c77e71a22340a54e9d95933ed49121e7d2bf3c2d358854bc1359ea\n"
      "V\t\\data\ta56\t3\t56\tsha256:b35439a4ac6f0948b6d6f9e3c6af0f5f590ce20f1bde7090ef7970686ec6738a\n"
      "V\t\\data\ta64\t32\t64\tsha256:ffe054fe7ae0cb6dc65c3af9b61d5209f439851db43d0ba5997337df154668eb\n"
      "V\t\\data\ta1000\t3\t1000\tsha256:41edece42d63e8d9bf515a9ba6932e1c20cbc9f5a5d134645adb5db1b9737ea3\n"
      "V\t\\data\tbig\t3\t20000\tsha256:93a6015a3874a774dd59fdd5db19414b301525381eb5ddcc265cdcc68bb9d350\n"
      "V\t\\data\ttab%0009name%0025\t1\t4\t78000000\n";
  EXPECT_NE(o.find(values), std::string::npos) << o;
}

TEST_F(BuiltHiveTest, LsAndGetShowTypedData) {
  std::string hive = path("built").string();
  Result r = hivekit({"ls", hive, "\\data"});
  ASSERT_EQ(r.status, 0) << r.err;
  for (const char* s :
       {"Keys (0):", "Values (14):", "(default)", "REG_DWORD_BIG_ENDIAN", "305419896 (0x12345678)"})
    EXPECT_NE(r.out.find(s), std::string::npos) << s;
  r = hivekit({"ls", hive});
  EXPECT_NE(r.out.find("2023-07-28T22:27:32Z"), std::string::npos) << r.out;  // the builder's FILETIME

  EXPECT_EQ(hivekit({"get", hive, "data"}).out, "df\n");
  EXPECT_EQ(hivekit({"get", hive, "DATA", "DWORD"}).out, "305419896 (0x12345678)\n");  // names ignore case
  EXPECT_EQ(hivekit({"get", hive, "data", "a33"}).out,
            "00000000  61 61 61 61 61 61 61 61  61 61 61 61 61 61 61 61  |aaaaaaaaaaaaaaaa|\n"
            "00000010  61 61 61 61 61 61 61 61  61 61 61 61 61 61 61 61  |aaaaaaaaaaaaaaaa|\n"
            "00000020  61                                                |a|\n");
  EXPECT_EQ(hivekit({"ls", hive, "names\\slash/inside"}).status, 0);  // "/" is part of a name
}

TEST_F(BuiltHiveTest, InfoAndSecurityDescriptors) {
  std::string hive = path("built").string();
  Result r = hivekit({"info", hive});
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(field(r.out, "File name field"), "\\hivekit\\sample.hiv");
  const std::string bins = field(r.out, "Hive bins");  // 20000 bytes of data need more than one hbin
  EXPECT_GE(std::strtoul(bins.c_str(), nullptr, 10), 2u) << bins;
  EXPECT_EQ(field(hivekit({"info", "--unsafe", hive}).out, "Hive bins"), "not counted in unsafe mode");

  r = hivekit({"sd", "--raw", hive});
  ASSERT_EQ(r.status, 0) << r.err;
  std::vector<u8> sd = HiveBuilder::sampleDescriptor();
  EXPECT_NE(r.out.find("references 14  length " + std::to_string(sd.size()) + "\n"), std::string::npos)
      << r.out;
  char first[64];
  std::snprintf(first, sizeof(first), "  0000  %02x %02x %02x %02x", sd[0], sd[1], sd[2], sd[3]);
  EXPECT_NE(r.out.find(first), std::string::npos) << r.out;
  EXPECT_TRUE(hasLine(r.out, "1 security descriptors"));
}

// Subkey lists that each name the next key twice, 16 levels down: 2^16 paths
// through 17 keys (a few more levels would never finish). Every listing of a
// key is written, its subtree once.
TEST_F(CliTest, DumpListsASharedSubtreeOnce) {
  HiveBuilder b(5);
  std::vector<u32> chain{b.root()};
  for (int i = 0; i < 16; ++i) chain.push_back(b.key(chain.back(), u"k"));
  b.layout();
  for (size_t i = 0; i + 1 < chain.size(); ++i) {
    Platform::W32(b.at(chain[i]) + Hive::hive_record_nk::OFS_KEY_LIST,
                  b.writeList(Hive::hive_record_list::SIGNATURE_LI, {chain[i + 1], chain[i + 1]}));
    Platform::W32(b.at(chain[i]) + Hive::hive_record_nk::OFS_NUM_KEYS, 2);
  }
  writeFile(path("shared"), b.build());
  Result r = hivekit({"dump", path("shared").string()});
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.err.find("listed more than once"), std::string::npos) << r.err;
  // The root, then per level the first listing (descended) and the second.
  EXPECT_EQ(countLines(r.out, "K\t"), 1u + 2 * 16);
  EXPECT_TRUE(hasLine(r.out, "K\t\\k\\k\t01d9c1a2b3c4d5e6\t2\t0")) << r.out;
}

TEST_F(CliTest, InfoReportsTheBaseBlock) {
  REQUIRE_TESTDATA();
  using H = Hive::hive_header;
  for (const auto& [hive, listing] : listings(false)) {
    SCOPED_TRACE(hive.string());
    const std::string block = readFile(hive).substr(0, 4096);
    ASSERT_EQ(block.size(), 4096u);
    auto at = [&](u32 offset) { return Platform::L32(reinterpret_cast<const u8*>(block.data()) + offset); };
    const std::string out = hivekit({"info", "--dirty", "--no-logs", hive.string()}).out;
    EXPECT_EQ(field(out, "Primary sequence"), std::to_string(at(H::OFS_PRIMARY_SEQ)));
    EXPECT_EQ(field(out, "Secondary sequence"), std::to_string(at(H::OFS_SECONDARY_SEQ)));
    EXPECT_EQ(field(out, "Version"),
              std::to_string(at(H::OFS_MAJOR)) + "." + std::to_string(at(H::OFS_MINOR)));
    const std::string size = field(out, "Hive bins data size");
    EXPECT_EQ(size.substr(0, size.find(' ')), std::to_string(at(H::OFS_LENGTH)));
    EXPECT_EQ(field(out, "State"), at(H::OFS_PRIMARY_SEQ) == at(H::OFS_SECONDARY_SEQ)
                                       ? "clean"
                                       : "dirty (sequence numbers differ)");
  }
  // Without --dirty a dirty hive without logs is refused, with a hint.
  Result r = hivekit({"info", (testdata() / "hives" / "amcache.hve").string()});
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.err.find("--dirty"), std::string::npos) << r.err;
}

TEST_F(CliTest, DumpMatchesEveryExpectedListing) {
  REQUIRE_TESTDATA();
  const auto all = listings(false);
  EXPECT_GT(all.size(), 40u);
  std::string report;
  for (const auto& [hive, listing] : all) {
    Result r = hivekit({"dump", "--dirty", "--no-logs", hive.string()});
    const std::string want = readFile(listing);
    if (r.status == 0 && r.out == want) continue;
    report += hive.filename().string() + " (exit " + std::to_string(r.status) +
              "): " + hivekit::test::firstDifference(want, r.out) + "\n";
  }
  EXPECT_TRUE(report.empty()) << report;
}

TEST_F(CliTest, ReadingLeavesHiveAndLogsUntouchedAndFindsLogsInAnyCase) {
  REQUIRE_TESTDATA();
  const fs::path src = testdata() / "hives" / "NewDirtyHive1";
  fs::copy_file(src / "NewDirtyHive", path("H"));
  fs::copy_file(src / "NewDirtyHive.LOG1", path("H.log1"));
  fs::copy_file(src / "NewDirtyHive.LOG2", path("H.Log2"));
  auto files = [&] { return readFile(path("H")) + readFile(path("H.log1")) + readFile(path("H.Log2")); };
  const std::string before = files(), h = path("H").string();
  Result r = hivekit({"info", "--dirty", h});
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(field(r.out, "Log (.LOG)"), "none");
  EXPECT_EQ(field(r.out, "Log (.LOG1)").rfind(path("H.log1").string(), 0), 0u) << r.out;
  EXPECT_EQ(field(r.out, "Log (.LOG2)").rfind(path("H.Log2").string(), 0), 0u) << r.out;
  for (const char* cmd : {"dump", "sd", "ls", "find", "timeline"}) hivekit({cmd, "--dirty", h});
  hivekit({"diff", "--dirty", h, h});
  hivekit({"deleted", "--logs", "--json", h});
  hivekit({"export", "--dirty", h, "-o", path("out.reg").string()});
  EXPECT_EQ(files(), before);
  EXPECT_EQ(field(hivekit({"info", "--dirty", "--no-logs", h}).out, "Log (.LOG1)"), "none");
}

// ---------------------------------------------------------------- writing

TEST_F(CliTest, WriteCommandsChangeAHive) {
  std::string h = path("w.hiv").string();
  ASSERT_EQ(hivekit({"new", h}).status, 0);
  EXPECT_EQ(hivekit({"new", h}).status, 1);  // exists
  EXPECT_EQ(field(hivekit({"info", h}).out, "Version"), "1.5");
  ASSERT_EQ(hivekit({"mkkey", h, "A\\B\\C"}).status, 0);
  ASSERT_EQ(hivekit({"mkkey", h, "\\A\\B"}).status, 0);  // exists: fine
  const std::vector<std::pair<std::vector<std::string>, std::string>> cases = {
      {{"s", "sz", "h\xC3\xA9llo"}, "h\xC3\xA9llo\n"},
      {{"e", "expand_sz", "%PATH%"}, "%PATH%\n"},
      {{"m", "multi_sz", "one", "two\nthree"}, "one\ntwo\nthree\n"},
      {{"d", "dword", "0x12345678"}, "305419896 (0x12345678)\n"},
      {{"be", "dword_be", "7"}, "7 (0x7)\n"},
      {{"q", "REG_QWORD", "18446744073709551615"}, "18446744073709551615 (0xffffffffffffffff)\n"},
      {{"b", "binary", "00 01,ff"}, "00000000  00 01 ff                                          |...|\n"},
      {{"", "sz", "default"}, "default\n"},
      {{"n", "0x20", "abcd"}, "00000000  ab cd                                             |..|\n"},
      {{"d", "sz", "retyped"}, "retyped\n"},
      {{"s", "dword", "9"}, "9 (0x9)\n"},
  };
  for (const auto& [set, get] : cases) {
    std::vector<std::string> args = {"set", h, "A"};
    args.insert(args.end(), set.begin(), set.end());
    Result r = hivekit(args);
    ASSERT_EQ(r.status, 0) << set[0] << r.err;
    EXPECT_EQ(hivekit({"get", h, "A", set[0]}).out, get) << set[0];
  }
  ASSERT_EQ(hivekit({"set", h, "A", "in", "sz", "--stdin"}, "piped\n").status, 0);
  EXPECT_EQ(hivekit({"get", h, "A", "in"}).out, "piped\n");
  EXPECT_EQ(hivekit({"set", h, "missing", "x", "sz", "y"}).status, 1);

  ASSERT_EQ(hivekit({"rm", h, "A", "be"}).status, 0);
  EXPECT_EQ(hivekit({"get", h, "A", "be"}).status, 1);
  EXPECT_EQ(hivekit({"get", h, "A", "s"}).out, "9 (0x9)\n");  // its neighbour is intact
  ASSERT_EQ(hivekit({"mv", h, "A\\B", "\\", "B2"}).status, 0);
  EXPECT_EQ(hivekit({"ls", h, "B2\\C"}).status, 0);
  EXPECT_EQ(hivekit({"ls", h, "A\\B"}).status, 1);
  ASSERT_EQ(hivekit({"rm", h, "B2"}).status, 0);
  EXPECT_EQ(hivekit({"ls", h, "B2"}).status, 1);
  Result d = hivekit({"dump", h});
  EXPECT_EQ(d.status, 0) << d.err;
  EXPECT_EQ(countLines(d.out, "K\t"), 2u) << d.out;  // root and A
}

TEST_F(CliTest, ExportHeadingsAndImportRoundTrip) {
  std::string h = path("src.hiv").string();
  ASSERT_EQ(hivekit({"new", h, "--minor", "3"}).status, 0);
  ASSERT_EQ(hivekit({"mkkey", h, "Top\\Sub"}).status, 0);
  ASSERT_EQ(hivekit({"set", h, "Top\\Sub", "v", "dword", "1"}).status, 0);
  ASSERT_EQ(hivekit({"set", h, "Top", "bin", "binary", std::string(60, 'a')}).status, 0);

  auto utf16 = [](const std::string& ascii) {
    std::string s;
    for (char c : ascii) s += std::string{c, '\0'};
    return s;
  };
  Result r = hivekit({"export", h, "Top"});
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.out.rfind("\xFF\xFE" + utf16("Windows Registry Editor Version 5.00\r\n\r\n[ROOT\\Top]\r\n"), 0),
            0u);
  EXPECT_NE(r.out.find(utf16("[ROOT\\Top\\Sub]\r\n\"v\"=dword:00000001\r\n")), std::string::npos);
  r = hivekit({"export", h, "Top\\Sub", "--as", "HKEY_LOCAL_MACHINE\\SOFTWARE\\X"});
  EXPECT_NE(r.out.find(utf16("\r\n[HKEY_LOCAL_MACHINE\\SOFTWARE\\X]\r\n")), std::string::npos);
  r = hivekit({"export", h, "--as", "HKLM\\S", "--append", "--binary-only"});
  EXPECT_EQ(r.out.rfind(utf16("[HKLM\\S]\r\n\r\n[HKLM\\S\\Top]\r\n\"bin\"=hex(3):aa,aa,"), 0), 0u);
  EXPECT_NE(r.out.find(utf16("\"v\"=hex(4):01,00,00,00")), std::string::npos);

  std::string before = readFile(h);
  EXPECT_EQ(hivekit({"export", h, "-o", h}).status, 1);  // would empty the hive it reads
  EXPECT_EQ(readFile(h), before);

  // An --as export imports with the matching --prefix (the text's round
  // trip is reg_import_test.cc's and reg_round_trip_test.cc's).
  std::string reg = path("a.reg").string(), copy = path("copy.hiv").string();
  ASSERT_EQ(hivekit({"new", copy}).status, 0);
  ASSERT_EQ(hivekit({"export", h, "Top", "--as", "HKLM\\Soft", "-o", reg}).status, 0);
  EXPECT_EQ(hivekit({"import", copy, reg}).status, 1);  // outside ROOT
  r = hivekit({"import", copy, reg, "--prefix", "HKLM\\Soft"});
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(hivekit({"get", copy, "Sub", "v"}).out, "1 (0x1)\n");
  // UTF-8 text from standard input, LF line ends.
  r = hivekit({"import", copy, "-"}, "Windows Registry Editor Version 5.00\n\n[ROOT\\New]\n\"t\"=\"x\"\n");
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(hivekit({"get", copy, "New", "t"}).out, "x\n");
  // An error late in the file: the hive stays byte for byte as it was, the
  // message names the line; --dry-run checks and changes nothing.
  before = readFile(copy);
  const std::string late =
      "Windows Registry Editor Version 5.00\n\n[ROOT\\Bad]\n\"t\"=dword:1\n\"u\"=dword:xyz\n";
  r = hivekit({"import", copy, "-"}, late);
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.err.find("line 5: Invalid dword value: u"), std::string::npos) << r.err;
  EXPECT_EQ(readFile(copy), before);
  EXPECT_EQ(hivekit({"import", "--dry-run", copy, "-"}, late).status, 1);
  ASSERT_EQ(hivekit({"export", h, "-o", reg}).status, 0);
  EXPECT_EQ(hivekit({"import", "--dry-run", copy, reg}).status, 0);
  EXPECT_EQ(readFile(copy), before);

  // --append to a new file starts it like any export; --raw writes names
  // as stored.
  const std::string fresh = path("fresh.reg").string();
  ASSERT_EQ(hivekit({"set", h, "Top", "a\\b", "sz", "c:\\d"}).status, 0);
  ASSERT_EQ(hivekit({"export", h, "Top", "--append", "-o", fresh}).status, 0);
  EXPECT_EQ(
      readFile(fresh).rfind("\xFF\xFE" + utf16("Windows Registry Editor Version 5.00\r\n\r\n[ROOT\\Top]"), 0),
      0u);
  EXPECT_NE(readFile(fresh).find(utf16("\"a\\\\b\"=\"c:\\\\d\"")), std::string::npos);
  EXPECT_NE(hivekit({"export", h, "Top", "--raw"}).out.find(utf16("\"a\\b\"=\"c:\\d\"")), std::string::npos);
  // Data beyond what a value of this 1.3 hive holds is refused before
  // anything changes.
  const std::string big = path("big.bin").string();
  writeFile(big, std::string(1048573, 'x'));
  before = readFile(h);
  r = hivekit({"set", h, "Top", "a\\b", "binary", "--from-file", big});
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.err.find("1048572"), std::string::npos) << r.err;
  EXPECT_EQ(readFile(h), before);
}

// ---------------------------------------------------------------- logs

// `recover` and the log report of `info`, on the dirty hives of the test data.
class Recover : public CliTest {
 protected:
  void SetUp() override {
    REQUIRE_TESTDATA();
    CliTest::SetUp();
  }
};

// Dirty hives read through the logs found beside them, and copies recovered
// from them, list as expected; neither reading nor recovering changes a file.
TEST_F(Recover, ReadThroughLogsAndRecoveredCopiesMatchTheListings) {
  const auto all = listings(true);
  EXPECT_GE(all.size(), 4u);
  for (const auto& [hive, listing] : all) {
    SCOPED_TRACE(hive.string());
    auto folder = [&, &hive = hive] {
      std::string s;
      for (const auto& f : fs::directory_iterator(hive.parent_path())) s += readFile(f.path());
      return s;
    };
    const std::string before = folder(), want = readFile(listing), copy = path("copy").string();
    Result r = hivekit({"dump", hive.string()});
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_TRUE(r.out == want) << "the listing through the logs differs";
    r = hivekit({"recover", hive.string(), "-o", copy});
    ASSERT_EQ(r.status, 0) << r.err;
    const std::string info = hivekit({"info", "--no-logs", copy}).out;
    EXPECT_EQ(field(info, "State"), "clean");
    EXPECT_EQ(field(info, "Checksum").find("MISMATCH"), std::string::npos);
    EXPECT_TRUE(hivekit({"dump", "--no-logs", copy}).out == want) << "the copy's listing differs";
    EXPECT_TRUE(folder() == before) << "the hive or a log changed";
  }
}

// A change made through the logs stays out of the hive file and shows when
// reading through the logs; the recovered copy reads the same; the copy may
// not replace an input.
TEST_F(Recover, WritingThroughTheLogsThenRecovering) {
  for (const auto& e : fs::directory_iterator(testdata() / "hives" / "NewDirtyHive1")) {
    fs::copy_file(e.path(), path(e.path().filename()));
    fs::permissions(path(e.path().filename()), fs::perms::owner_write, fs::perm_options::add);
  }
  const std::string hive = path("NewDirtyHive").string(), log1 = hive + ".LOG1", copy = path("copy").string();
  const std::string file = readFile(hive);
  ASSERT_EQ(hivekit({"set", hive, "Key3", "added", "dword", "7"}).status, 0);
  EXPECT_TRUE(readFile(hive) == file);
  const std::string info = hivekit({"info", hive}).out;
  EXPECT_EQ(field(info, "Log mode"), "dual logs, entries applied up to sequence 6 (.LOG2)");
  EXPECT_EQ(field(info, "Log (.LOG2)"),
            hive + ".LOG2: new format, sequence 3/3, 4 entries (3..6), usable, 4 applied");
  EXPECT_EQ(field(info, "Log (.LOG1)"),
            log1 + ": new format, sequence 2/2, 1 entry (2..2), usable, 1 applied");

  Result through = hivekit({"dump", hive});
  ASSERT_EQ(through.status, 0) << through.err;
  EXPECT_NE(through.out.find("V\t\\Key3\tadded\t4\t4\t07000000\n"), std::string::npos) << through.out;
  ASSERT_EQ(hivekit({"recover", hive, "-o", copy}).status, 0);
  EXPECT_EQ(hivekit({"dump", copy}).out, through.out);

  const std::string inputs = readFile(hive) + readFile(log1);
  for (const std::string& target : {hive, log1}) {
    Result r = hivekit({"recover", hive, "-o", target});
    EXPECT_EQ(r.status, 1);
    EXPECT_NE(r.err.find(target == hive ? "is the hive itself" : "is one of the hive's logs"),
              std::string::npos)
        << r.err;
  }
  EXPECT_TRUE(readFile(hive) + readFile(log1) == inputs);
}

TEST_F(Recover, InfoTellsWhyALogIsNotUsed) {
  Result r = hivekit({"info", "--dirty", (testdata() / "hives" / "BadLogHive1" / "BadLogHive").string()});
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_NE(field(r.out, "Log (.LOG1)").find(": not usable: bad checksum"), std::string::npos) << r.out;
  EXPECT_EQ(field(r.out, "Log mode"), "none");
  r = hivekit({"info", (testdata() / "hives" / "NewDirtyHive2" / "NewDirtyHive").string()});
  EXPECT_NE(
      field(r.out, "Log (.LOG1)").find("0 entries, not usable: stale (older than the hive), none applied"),
      std::string::npos)
      << r.out;
}

}  // namespace
