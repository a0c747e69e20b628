// The builder makes the hives of most other tests, and a wrong image mostly
// shows there as a refusal. What would not show: hashes computed the same
// wrong way here and in the model test's byte walk, and a storage form the
// builder fails to choose, which would quietly take a reading path out of
// every test that relies on it. Those are checked here; the byte walk
// checks the rest of the image (records, lists, counts, security).
#include "tests/support/hive_builder.h"

#include <gtest/gtest.h>

#include "tests/model/hive_model.h"

namespace hivekit::test {
namespace {

using Libraries::Files::Hive::hive_record_nk;

TEST(HiveBuilderTest, HashesByHand) {
  // Upper-cased units, h * 37 + c; Latin-1 letters fold too.
  EXPECT_EQ(HiveBuilder::lhHash(u"ab", true), 65u * 37 + 66);
  EXPECT_EQ(HiveBuilder::lhHash(u"\u00e9", true), 0xC9u);
  EXPECT_EQ(HiveBuilder::lfHint(u"ab"), 0x6261u);
}

TEST(HiveBuilderTest, ImagesTakeTheWindowsForms) {
  for (u32 minor : {3u, 5u}) {
    SCOPED_TRACE(minor);
    HiveBuilder b(minor);
    b.setMaxListEntries(4);  // 9 subkeys of the root: an ri over sublists
    const u32 root = b.root();
    for (const char16_t* n : {u"delta", u"Alpha", u"charlie", u"Bravo", u"echo", u"x", u"Fox", u"golf"})
      b.key(root, n);
    const u32 small = b.key(root, u"small");
    const u32 latin = b.key(small, u"\u00e9t\u00e9");
    const u32 wide = b.key(small, u"\u0416");
    b.value(small, u"r", 4, {1, 2, 3});
    b.value(small, u"e", 3, std::vector<u8>(16344, 1));
    b.value(small, u"", 3, std::vector<u8>(40000, 2));  // beyond 16344 bytes a 1.4+ hive uses a db list
    const std::vector<u8> image = b.build();
    model::RawReport report;
    model::Listing listing;
    ASSERT_TRUE(model::RawReader(image, report).read(listing)) << report.error;
    const bool lh = minor >= 4;
    EXPECT_EQ(report.listShapes, (std::set<std::string>{lh ? "ri/lh" : "ri/li", lh ? "lh" : "lf"}));
    EXPECT_EQ(report.dataForms.count("db"), lh ? 1u : 0u);
    EXPECT_EQ(report.dataForms.size(), lh ? 3u : 2u);
    EXPECT_EQ(Platform::L16(b.at(latin) + hive_record_nk::OFS_FLAGS), hive_record_nk::FLAG_COMP_NAME)
        << "stored 8-bit";
    EXPECT_EQ(Platform::L16(b.at(latin) + hive_record_nk::OFS_NAME_LENGTH), 3u);
    EXPECT_EQ(Platform::L16(b.at(wide) + hive_record_nk::OFS_FLAGS), 0u) << "stored UTF-16";
  }
}

}  // namespace
}  // namespace hivekit::test
