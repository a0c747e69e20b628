#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "platform/char_reader.h"
#include "platform/memory_stripe.h"
#include "platform/text_writer.h"
#include "tests/support/fault_stripe.h"

namespace Platform {
namespace {

std::vector<u8> bytesOf(std::string_view s) {
  return std::vector<u8>(s.begin(), s.end());
}

std::vector<std::u16string> readAll(Ref<MemoryStripe> stripe, CharReader::Encoding* encoding = nullptr) {
  Ref<CharReader> reader = CharReader::create(stripe);
  EXPECT_TRUE(reader);
  if (encoding) *encoding = reader->encoding();
  std::vector<std::u16string> lines;
  std::u16string line;
  while (reader->readLine(line)) lines.push_back(line);
  EXPECT_FALSE(reader->failed());
  return lines;
}

std::vector<std::u16string> readAll(std::string_view bytes, CharReader::Encoding* encoding = nullptr) {
  return readAll(MemoryStripe::create(bytesOf(bytes)), encoding);
}

// Reads return nothing from `_cut` on, although the stripe is longer.
class BrokenStripe : public MemoryStripe {
 public:
  BrokenStripe(std::vector<u8> bytes, u64 cut) : MemoryStripe(std::move(bytes)), _cut(cut) {}
  u64 readAt(u64 position, void* buffer, u64 count) override {
    if (position >= _cut) return 0;
    return MemoryStripe::readAt(position, buffer, std::min(count, _cut - position));
  }

 private:
  u64 _cut;
};

TEST(TextWriter, Utf16WithByteOrderMark) {
  auto stripe = MemoryStripe::create();
  auto w = TextWriter::create(stripe, true);
  ASSERT_TRUE(w);
  EXPECT_TRUE(w->print("A\xC3\xA9"));  // "Aé" given as UTF-8
  EXPECT_TRUE(w->print(*String::create("z")));
  const char16_t odd[] = {0xD83D, 0xDE00, 0xDC00};  // a pair, then a lone low surrogate
  EXPECT_TRUE(w->print(std::u16string_view(odd, 3)));
  EXPECT_TRUE(w->endLine());
  EXPECT_TRUE(w->flush());
  std::vector<u8> want = {0xFF, 0xFE, 'A',  0,    0xE9, 0,    'z', 0,    0x3D,
                          0xD8, 0x00, 0xDE, 0x00, 0xDC, '\r', 0,   '\n', 0};
  EXPECT_EQ(stripe->bytes(), want);
  EXPECT_EQ(stripe->pos(), want.size());
}

TEST(TextWriter, CreationRefusals) {
  EXPECT_FALSE(TextWriter::create(nullptr, false));
  auto failing = hivekit::test::FaultStripe::wrap(MemoryStripe::create());
  failing->arm(hivekit::test::FaultStripe::Write, 1, hivekit::test::FaultStripe::Fail, true);
  EXPECT_FALSE(TextWriter::create(failing, true));
}

TEST(TextWriter, FailedWriteIsReportedAndSticks) {
  auto stripe = MemoryStripe::create();
  auto full = hivekit::test::FaultStripe::wrap(stripe);
  full->limitSize(100000);
  auto w = TextWriter::create(full, true);
  ASSERT_TRUE(w);
  bool ok = true;
  for (int i = 0; i < 10000 && ok; ++i) ok = w->print("0123456789");
  ok = ok && w->flush();
  EXPECT_FALSE(ok);
  EXPECT_TRUE(w->failed());
  EXPECT_FALSE(w->print("x"));
  EXPECT_FALSE(w->flush());
  // Only whole buffers reached the stripe: no gap was papered over.
  EXPECT_LE(stripe->bytes().size(), 100000u);
}

// The encoding by its mark (or by a zero high byte), line ends of every
// kind, and bytes that are no text: each broken sequence becomes U+FFFD
// without swallowing the character that broke it.
TEST(CharReader, EncodingsLineEndsAndBrokenSequences) {
  using E = CharReader::Encoding;
  const struct {
    std::string_view bytes;
    std::vector<std::u16string> lines;
    E encoding;
  } cases[] = {
      {{"\xFF\xFE"
        "A\0B\0",
        6},
       {u"AB"},
       E::Utf16LE},
      {"\xEF\xBB\xBF"
       "AB",
       {u"AB"},
       E::Utf8},
      {{"A\0B\0", 4}, {u"AB"}, E::Utf16LE},
      {"\xEF", {u"\xFFFD"}, E::Utf8},  // too short for a mark
      {"", {}, E::Utf8},
      {"a\r\nb\nc\r\rd\n\ne", {u"a", u"b", u"c", u"", u"d", u"", u"e"}, E::Utf8},
      {"x\r\n", {u"x"}, E::Utf8},  // a final terminator starts no other line
      {"x\r", {u"x"}, E::Utf8},
      {"\n", {u""}, E::Utf8},
      {{"\xFF\xFE"
        "A\0B",
        5},
       {u"A\xFFFD"},
       E::Utf16LE},
      // Stray continuation, overlong form, encoded surrogate, cut sequence.
      {"a\x80"
       "b\xC0\x80"
       "c\xED\xA0\x80"
       "d\xE2\x82",
       {u"a\xFFFD"
        u"b\xFFFD\xFFFD"
        u"c\xFFFD\xFFFD\xFFFD"
        u"d\xFFFD"},
       E::Utf8},
      {"\xE2\x82z\xF0\x9F\x98\x80", {u"\xFFFDz\xD83D\xDE00"}, E::Utf8},
  };
  for (const auto& c : cases) {
    E encoding;
    EXPECT_EQ(readAll(c.bytes, &encoding), c.lines) << c.bytes;
    if (!c.bytes.empty()) {
      EXPECT_EQ(encoding, c.encoding) << c.bytes;
    }
  }
}

TEST(CharReader, SequencesAcrossChunkBoundaries) {
  // Shift a 4-byte sequence and a CR LF over the 64 KiB read boundary.
  for (size_t shift = 0; shift < 4; ++shift) {
    std::string text(65536 - 2 - shift, 'x');
    text += "\xF0\x9F\x98\x80\r\nend";
    auto lines = readAll(text);
    ASSERT_EQ(lines.size(), 2u) << shift;
    EXPECT_EQ(lines[0].size(), 65536 - 2 - shift + 2);
    EXPECT_EQ(lines[0].substr(lines[0].size() - 2), u"\xD83D\xDE00");
    EXPECT_EQ(lines[1], u"end");
  }
  std::string utf16("\xFF\xFE", 2);
  for (int i = 0; i < 32766; ++i) utf16.append("y\0", 2);
  utf16.append("\r\0\n\0z\0", 6);  // the CR ends the first chunk, its LF starts the next
  auto lines = readAll(utf16);
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_EQ(lines[0].size(), 32766u);
  EXPECT_EQ(lines[1], u"z");
}

TEST(CharReader, StartsAtStripePositionAndReportsReadFailure) {
  auto stripe = MemoryStripe::create(bytesOf("skip\nkeep\n"));
  stripe->seek(5);
  EXPECT_EQ(readAll(stripe), std::vector<std::u16string>{u"keep"});
  EXPECT_EQ(stripe->pos(), 5u);

  auto broken = makeRef<BrokenStripe>(bytesOf(std::string(100000, 'a') + "\nb\n"), 70000);
  auto reader = CharReader::create(broken);
  std::u16string line;
  EXPECT_FALSE(reader->readLine(line));
  EXPECT_TRUE(reader->failed());
  EXPECT_FALSE(CharReader::create(nullptr));
}

TEST(TextIo, RoundTripBothEncodings) {
  std::vector<std::u16string> lines = {u"Windows Registry Editor Version 5.00", u"",
                                       u"[HKEY_LOCAL_MACHINE\\Sw\\\x00C4\x4E2D]",
                                       u"\"n\"=\"\xD83D\xDE00 text\""};
  for (int i = 0; i < 20000; ++i)
    lines.push_back(u"\"v" + std::u16string(i % 50, u'k') + u"\"=dword:00000001");
  for (auto enc : {CharReader::Encoding::Utf16LE, CharReader::Encoding::Utf8}) {
    auto stripe = MemoryStripe::create();
    if (enc == CharReader::Encoding::Utf16LE) {
      auto w = TextWriter::create(stripe, true);
      for (auto& l : lines) ASSERT_TRUE(w->print(l) && w->endLine());
      ASSERT_TRUE(w->flush());
    } else {
      std::string text = "\xEF\xBB\xBF";
      for (auto& l : lines) text += Platform::utf16ToUtf8(l) + "\r\n";
      stripe->bytes().assign(text.begin(), text.end());
    }
    stripe->seek(0);
    CharReader::Encoding got;
    EXPECT_EQ(readAll(stripe, &got), lines);
    EXPECT_EQ(static_cast<int>(got), static_cast<int>(enc));
  }
}

}  // namespace
}  // namespace Platform
