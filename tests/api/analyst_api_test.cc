// The library's analyst calls: patterns, security descriptors decoded,
// ISO 8601 times, and diff. Registry text written piece by piece is met by
// the tool's diff --reg, whose patches cli/analyst_test.cc imports back.
#include <hivekit/hivekit.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "gtest/gtest.h"
#include "tests/support/hive_builder.h"
#include "tests/support/test_files.h"

namespace hivekit {
namespace {

namespace fs = std::filesystem;
using test::HiveBuilder;
using test::u8;

TEST(PatternTest, MatchesLikeECMAScriptWithoutBacktracking) {
  struct Case {
    const char* pattern;
    const char* text;
    bool ignoreCase, match;
  };
  const Case cases[] = {
      {"run", "CurrentVersion\\Run", true, true},
      {"^run$", "RunOnce", true, false},
      {"^Run(Once)?$", "runonce", true, true},
      {"^Run(Once)?$", "runonce", false, false},
      {"\xC3\xA4rger", "\xC3\x84RGER", true, true},
      {"^[a-c]+$", "ABCA", true, true},
      {"^[^a]$", "A", true, false},
      {"^\\d{3,4}$", "12345", true, false},
      {"^\\d{3,4}$", "1234", true, true},
      {"\\bnet\\b", "a net b", true, true},
      {"\\bnet\\b", "internet", true, false},
      {"^a.c$", "a\nc", true, false},
      {"^(?:ab|cd)*$", "abcdab", true, true},
      {"x{", "x{", true, true},
      {"^\\x41\\u00e4$", "A\xC3\xA4", false, true},
      {"^[\\w.]+@", "john.doe@host", true, true},
      {"^$", "", true, true},
      {"a|", "zzz", true, true},
      {"^\xF0\x9F\x98\x80.$", "\xF0\x9F\x98\x80x", false, true},  // by character, not byte
      {"^.$", "\xED\xA0\x80", false, true},                       // a lone surrogate is one character
  };
  for (const Case& c : cases) {
    Result<Pattern> p = Pattern::compile(c.pattern, c.ignoreCase);
    ASSERT_TRUE(p) << c.pattern << ": " << p.status().message();
    Result<bool> m = p->search(c.text);
    ASSERT_TRUE(m) << c.pattern;
    EXPECT_EQ(*m, c.match) << c.pattern << " on " << c.text;
  }
  for (const char* bad : {"(a", "a)", "[a", "\\1", "(?=a)", "*a", "a{2,1}", "a{1001}", "\\q", "^*"})
    EXPECT_EQ(Pattern::compile(bad).status().code(), Code::invalid_argument) << bad;
  EXPECT_EQ(Pattern::compile("(((a{1000}){1000}){1000})").status().code(), Code::too_large);
  // Patterns that make backtracking matchers run for ever end here: by a
  // match, a miss, or too_large once the work passes its bound.
  const std::string as(1 << 16, 'a');
  for (const char* hard : {"(a|a)*b", "(a*)*b", "^(a|aa)+b$", "(.*a){20}x"}) {
    Result<bool> m = Pattern::compile(hard)->search(as);
    EXPECT_TRUE(!m ? m.status().code() == Code::too_large : !*m) << hard;
  }
}

TEST(TimeTest, Iso8601ReadsWhatToIso8601Writes) {
  for (FileTime t : {FileTime{0}, FileTime{126227808000000000}, FileTime{133537680001234567}}) {
    FileTime back = 1;
    ASSERT_TRUE(parse_iso8601(to_iso8601(t), back)) << to_iso8601(t);
    EXPECT_EQ(back, t);
  }
  FileTime t = 0;
  EXPECT_TRUE(parse_iso8601("2024-03-01 12:00", t));
  EXPECT_EQ(t, 133537680000000000u);
  EXPECT_TRUE(parse_iso8601("2024-02-29", t));
  for (const char* bad : {"2023-02-29", "2024-13-01", "1600-12-31", "2024-03-01T25:00", "2024-03-01+01:00",
                          "2024-03-01T12:00:00.12345678", "2024-3-1", ""})
    EXPECT_FALSE(parse_iso8601(bad, t)) << bad;
}

// ---- Security descriptors: bytes laid out by hand.

using ByteList = std::vector<u8>;

void put16(ByteList& b, size_t at, unsigned v) {
  b[at] = static_cast<u8>(v);
  b[at + 1] = static_cast<u8>(v >> 8);
}
void put32(ByteList& b, size_t at, uint32_t v) {
  for (int i = 0; i < 4; ++i) b[at + i] = static_cast<u8>(v >> (8 * i));
}
ByteList sid(u8 authority, std::vector<uint32_t> subs) {
  ByteList b(8 + 4 * subs.size());
  b[0] = 1;
  b[1] = static_cast<u8>(subs.size());
  b[7] = authority;
  for (size_t i = 0; i < subs.size(); ++i) put32(b, 8 + 4 * i, subs[i]);
  return b;
}
ByteList ace(u8 type, u8 flags, uint32_t mask, const ByteList& body) {
  ByteList b(8);
  b[0] = type;
  b[1] = flags;
  put16(b, 2, static_cast<unsigned>(8 + body.size()));
  put32(b, 4, mask);
  b.insert(b.end(), body.begin(), body.end());
  return b;
}
ByteList acl(const std::vector<ByteList>& aces) {
  ByteList b(8);
  b[0] = 2;
  for (const ByteList& a : aces) b.insert(b.end(), a.begin(), a.end());
  put16(b, 2, static_cast<unsigned>(b.size()));
  put16(b, 4, static_cast<unsigned>(aces.size()));
  return b;
}
// Header, then each part in turn; an empty part gets offset 0.
ByteList descriptor(unsigned control, const ByteList& owner, const ByteList& group, const ByteList& sacl,
                    const ByteList& dacl) {
  ByteList b(20);
  b[0] = 1;
  put16(b, 2, control);
  const ByteList* parts[] = {&owner, &group, &sacl, &dacl};
  for (int i = 0; i < 4; ++i) {
    if (parts[i]->empty()) continue;
    put32(b, 4 + 4 * i, static_cast<uint32_t>(b.size()));
    b.insert(b.end(), parts[i]->begin(), parts[i]->end());
  }
  return b;
}
Result<ParsedSecurityDescriptor> parse(const ByteList& b) {
  return parse_security_descriptor(std::as_bytes(std::span<const u8>(b)));
}

TEST(SddlTest, DecodesEntriesNamesWellKnownSidsAndRefusesWhatDoesNotFit) {
  Result<ParsedSecurityDescriptor> sample = parse(HiveBuilder::sampleDescriptor());
  ASSERT_TRUE(sample) << sample.status().message();
  EXPECT_EQ(to_sddl(*sample), "O:BAG:SYD:(A;CI;KA;;;WD)");
  EXPECT_EQ(sid_name(*sample->owner), "Administrators");

  ByteList guidAce = {1,    0,    0,    0,    0x53, 0x1a, 0x72, 0xab, 0x2f, 0x1e,
                      0xd0, 0x11, 0x98, 0x19, 0x00, 0xaa, 0x00, 0x40, 0x52, 0x9b};
  const ByteList everyone = sid(1, {0}), user = sid(5, {21, 1, 2, 3, 500});
  guidAce.insert(guidAce.end(), everyone.begin(), everyone.end());
  const ByteList rich = descriptor(0x9414, sid(5, {18}), user, acl({ace(0x11, 0, 1, sid(16, {12288}))}),
                                   acl({ace(0, 0x13, 0xF003F, sid(5, {32, 544})), ace(1, 0, 0x10001, user),
                                        ace(5, 0, 0x100, guidAce), ace(0, 0, 0x200000, sid(5, {11}))}));
  Result<ParsedSecurityDescriptor> sd = parse(rich);
  ASSERT_TRUE(sd) << sd.status().message();
  EXPECT_EQ(to_sddl(*sd),
            "O:SYG:S-1-5-21-1-2-3-500D:PAI(A;OICIID;KA;;;BA)(D;;CCSD;;;S-1-5-21-1-2-3-500)"
            "(OA;;CR;ab721a53-1e2f-11d0-9819-00aa0040529b;;WD)(A;;0x200000;;;AU)S:(ML;;NW;;;HI)");
  EXPECT_EQ(sid_name(*sd->group), "Administrator");
  EXPECT_EQ(to_sddl(*parse(descriptor(0x8004, {}, {}, {}, {}))), "D:NO_ACCESS_CONTROL");

  // Every cut and many single-byte changes: a result, never a fault.
  size_t refused = 0;
  for (size_t n = 0; n < rich.size(); ++n) {
    Result<ParsedSecurityDescriptor> cut = parse(ByteList(rich.begin(), rich.begin() + n));
    refused += !cut;
    if (cut) (void)to_sddl(*cut);
  }
  EXPECT_GT(refused, rich.size() / 2);
  for (size_t at = 0; at < rich.size(); ++at)
    for (u8 v : {0x00, 0x01, 0x0F, 0x7F, 0x80, 0xFF}) {
      ByteList changed = rich;
      changed[at] = v;
      if (Result<ParsedSecurityDescriptor> r = parse(changed))
        (void)to_sddl(*r);
      else
        EXPECT_EQ(r.status().code(), Code::corrupt);
    }
}

// ---- Diff over hives made in a temporary folder.

class HiveFiles : public ::testing::Test {
 protected:
  std::string file(const std::string& name, const std::vector<u8>& bytes) const {
    return _dir.write(name, bytes);
  }
  test::TempDir _dir;
};

TEST_F(HiveFiles, DiffReportsClassNamesAndTimesAndStopsWhenAsked) {
  auto image = [](const std::u16string& cls) {
    HiveBuilder b(5);
    const test::u32 k = b.key(b.root(), u"JD"), sub = b.key(k, u"Sub");
    b.value(sub, u"v", 4, {1, 0, 0, 0});
    b.layout();
    Platform::W64(b.at(sub) + Libraries::Files::Hive::hive_record_nk::OFS_LAST_WRITE, cls.size());
    if (!cls.empty()) {
      Platform::W32(b.at(k) + Libraries::Files::Hive::hive_record_nk::OFS_CLASS,
                    b.writeData(HiveBuilder::utf16le(cls)));
      Platform::W16(b.at(k) + Libraries::Files::Hive::hive_record_nk::OFS_CLASS_LENGTH,
                    static_cast<test::u16>(2 * cls.size()));
    }
    return b.build();
  };
  Result<Hive> a = Hive::open(file("a", image(u""))), b = Hive::open(file("b", image(u"8a2b7c1d")));
  ASSERT_TRUE(a && b);
  EXPECT_EQ(b->key("JD")->class_name(), "8a2b7c1d");
  std::vector<Difference> seen;
  auto collect = [&](const Difference& d) {
    seen.push_back(d);
    return true;
  };
  ASSERT_TRUE(diff(a->root(), b->root(), collect));
  ASSERT_EQ(seen.size(), 1u);
  EXPECT_EQ(seen[0].kind, Difference::Kind::key_changed);
  EXPECT_EQ(seen[0].path, "JD");
  EXPECT_TRUE(seen[0].class_name_changed);
  seen.clear();
  ASSERT_TRUE(diff(a->root(), b->root(), collect, {.last_write = true, .class_names = false}));
  ASSERT_EQ(seen.size(), 1u);
  EXPECT_EQ(seen[0].path, "JD\\Sub");
  EXPECT_TRUE(seen[0].last_write_changed);
  seen.clear();
  // Everything of a, against an empty key: stopped after the first.
  ASSERT_TRUE(diff(*b->key("JD\\Sub"), a->root(), [&](const Difference& d) {
    seen.push_back(d);
    return false;
  }));
  EXPECT_EQ(seen.size(), 1u);
}

}  // namespace
}  // namespace hivekit
