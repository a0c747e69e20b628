#include "platform/string.h"

#include <gtest/gtest.h>

namespace {

using Platform::String;

TEST(StringTest, CreationFromEachEncoding) {
  auto s = String::create("Gr\xC3\xBC\xC3\x9F" "e \xF0\x9F\x98\x80");  // "Grüße 😀"
  EXPECT_EQ(s->length(), 8u);  // the emoji is a surrogate pair
  EXPECT_EQ(s->at(2), u'\u00FC');
  EXPECT_EQ(s->at(6), 0xD83D);
  EXPECT_EQ(s->toUtf8(), "Gr\xC3\xBC\xC3\x9F" "e \xF0\x9F\x98\x80");

  const Platform::u8 latin[] = {'a', 0xE4, 0xFF};
  EXPECT_EQ(String::fromLatin1(latin, 3)->units(), u"a\u00E4\u00FF");
  const char32_t wide[] = {U'x', 0x1F600, 0x110000};
  EXPECT_EQ(String::fromUtf32(wide, 3)->units(), std::u16string(u"x\xD83D\xDE00\xFFFD"));
  // Invalid UTF-8 becomes replacement characters, never a crash.
  EXPECT_EQ(String::create("\xC3")->units(), u"\xFFFD");
  EXPECT_EQ(String::create("\xFF" "a")->units(), u"\xFFFD" u"a");
}

TEST(StringTest, SubstringAndEquality) {
  auto s = String::create("HKEY_LOCAL_MACHINE");
  EXPECT_TRUE(s->sub(5, 5)->equal("LOCAL"));
  EXPECT_TRUE(s->sub(14)->equal("HINE"));
  EXPECT_TRUE(s->sub(100)->isEmpty());
  EXPECT_TRUE(s->startsWith(*String::create("HKEY")));
  EXPECT_FALSE(s->equal(*String::create("hkey_local_machine")));
  EXPECT_TRUE(s->equalIgnoreCase(*String::create("hkey_local_machine")));
}

TEST(StringTest, UpperCaseCoversTheWholeBasicPlane) {
  EXPECT_EQ(String::upcase(u'a'), u'A');
  EXPECT_EQ(String::upcase(u'\u00E4'), u'\u00C4');  // ä
  EXPECT_EQ(String::upcase(u'\u00FF'), u'\u0178');  // ÿ -> Ÿ outside Latin-1
  EXPECT_EQ(String::upcase(u'\u03B1'), u'\u0391');  // Greek alpha
  EXPECT_EQ(String::upcase(u'\u0436'), u'\u0416');  // Cyrillic zhe
  EXPECT_EQ(String::upcase(u'\u0101'), u'\u0100');  // alternating Latin Extended-A
  EXPECT_EQ(String::upcase(u'\uFF41'), u'\uFF21');  // fullwidth a
  EXPECT_EQ(String::upcase(u'\u00DF'), u'\u00DF');  // ß has no one-character upper case
  EXPECT_EQ(String::upcase(0xD800), 0xD800);         // surrogates untouched
  EXPECT_EQ(Platform::utf16ToUtf8(String::create("Stra\xC3\x9F" "e")->upperUnits()), "STRA\xC3\x9F" "E");
}

TEST(StringTest, CaseInsensitiveOrderingIsUnitByUnit) {
  auto a = String::create("abc"), b = String::create("ABD"), c = String::create("ab");
  EXPECT_LT(a->compareIgnoreCase(*b), 0);
  EXPECT_GT(a->compareIgnoreCase(*c), 0);
  EXPECT_EQ(a->compareIgnoreCase(*String::create("ABC")), 0);
  // '_' (0x5F) sorts after upper-case letters, as upper-cased comparison implies.
  EXPECT_GT(String::create("_")->compareIgnoreCase(*String::create("z")), 0);
}

}  // namespace
