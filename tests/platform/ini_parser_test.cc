#include "platform/ini_parser.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "platform/memory_stripe.h"
#include "platform/string.h"

namespace Platform {
namespace {

// Records every call as text; refuses the call numbered `refuseAt` (1-based).
class Recorder : public IniParserInterface {
 public:
  explicit Recorder(size_t refuseAt = 0) : _refuseAt(refuseAt) {}
  bool section(const std::u16string& text) override { return add("S " + utf16ToUtf8(text)); }
  bool entry(const std::u16string& name, bool quoted, const std::u16string& data) override {
    return add(std::string(quoted ? "Q " : "E ") + utf16ToUtf8(name) + " | " + utf16ToUtf8(data));
  }
  bool other(const std::u16string& line) override { return add("O " + utf16ToUtf8(line)); }
  std::vector<std::string> calls;

 private:
  bool add(std::string s) {
    calls.push_back(std::move(s));
    return calls.size() != _refuseAt;
  }
  size_t _refuseAt;
};

struct Result {
  int code;
  u64 line;
  std::vector<std::string> calls;
};

Result parse(std::string_view text, size_t refuseAt = 0) {
  auto reader = CharReader::create(MemoryStripe::create(std::vector<u8>(text.begin(), text.end())));
  Recorder rec(refuseAt);
  u64 line = 0;
  int code = IniParser::parse(*reader, rec, &line);
  return {code, line, rec.calls};
}

using Calls = std::vector<std::string>;

TEST(IniParser, ExportedFileShape) {
  auto r = parse(
      "Windows Registry Editor Version 5.00\r\n"
      "\r\n"
      "[HKEY_LOCAL_MACHINE\\Soft]\r\n"
      "@=\"default\"\r\n"
      "\"Count\"=dword:0000002a\r\n"
      "\"Bin\"=hex:01,02,\\\r\n"
      "  03,04\r\n"
      "\r\n"
      "; a comment = with an equals sign\r\n"
      "  [-HKEY_LOCAL_MACHINE\\Soft\\Old]  \r\n"
      "\t plain = value \t\r\n"
      "[a]b]\r\n");
  EXPECT_EQ(r.code, IniParser::OK);
  EXPECT_EQ(r.calls, (Calls{"O Windows Registry Editor Version 5.00", "S HKEY_LOCAL_MACHINE\\Soft",
                            "E @ | \"default\"", "Q Count | dword:0000002a", "Q Bin | hex:01,02,03,04",
                            "S -HKEY_LOCAL_MACHINE\\Soft\\Old", "E plain | value", "S a]b"}));
}

TEST(IniParser, QuotedNames) {
  auto r = parse(
      "\"back\\\\slash\"=1\n"     // "back\\slash"  -> back\slash
      "\"say \\\"hi\\\"\" = 2\n"  // "say \"hi\""   -> say "hi"
      "\"keep\\n\"=3\n"           // other escapes stay as written
      "\"dir\\\"=\"C:\\\\\"\n"    // "dir\"="C:\\"  -> name dir\ (written without escapes)
      "\"a=b\"=\"x\"=y\"\n");     // '=' inside the name and in the data
  EXPECT_EQ(r.code, IniParser::OK);
  EXPECT_EQ(r.calls, (Calls{"Q back\\slash | 1", "Q say \"hi\" | 2", "Q keep\\n | 3", "Q dir\\ | \"C:\\\\\"",
                            "Q a=b | \"x\"=y\""}));
}

TEST(IniParser, Continuation) {
  // Ends at the input's end inside a run; a quoted data's backslash is not a continuation.
  auto r = parse(
      "\"s\"=\"C:\\dir\\\n"
      "\"h\"=hex(7):41,\\\n"
      "\t 42,\\\n"
      "   \\\n"
      "  43,\\");
  EXPECT_EQ(r.code, IniParser::OK);
  EXPECT_EQ(r.calls, (Calls{"Q s | \"C:\\dir\\", "Q h | hex(7):41,42,43,"}));

  // Megabytes of continued hex stay linear.
  std::string big = "\"big\"=hex:";
  for (int i = 0; i < 100000; ++i)
    big += "00,01,02,03,04,05,06,07,08,09,0a,0b,0c,0d,0e,0f,10,11,12,13,\\\r\n  ";
  big += "ff\r\n[next]\r\n";
  r = parse(big);
  EXPECT_EQ(r.code, IniParser::OK);
  ASSERT_EQ(r.calls.size(), 2u);
  EXPECT_EQ(r.calls[0].size(), std::string("Q big | hex:").size() + 100000 * 60 + 2);
  EXPECT_EQ(r.calls[1], "S next");
}

TEST(IniParser, MalformedLines) {
  struct Case {
    const char* text;
    u64 line;
  } cases[] = {
      {"ok\n\"unterminated=1\n", 2},
      {"\"name\" 1\n", 1},
      {"\n\n[no end\n", 3},
      {"; c\n = 5\n", 2},
      {"\"\"\n", 1},
  };
  for (auto& c : cases) {
    auto r = parse(c.text);
    EXPECT_EQ(r.code, IniParser::MALFORMED) << c.text;
    EXPECT_EQ(r.line, c.line) << c.text;
  }
  // Items before the bad line were delivered, nothing after it.
  EXPECT_EQ(parse("[a]\n\"x\n[b]\n").calls, Calls{"S a"});
}

TEST(IniParser, RefusedCallbackStopsParse) {
  const char* text = "header\n[k]\n\"v\"=hex:01,\\\n  02\n[z]\n";
  auto r = parse(text, 3);
  EXPECT_EQ(r.code, IniParser::CALLBACK_FAILED);
  EXPECT_EQ(r.line, 3u);  // where the continued entry starts
  EXPECT_EQ(r.calls.size(), 3u);
  r = parse(text, 4);
  EXPECT_EQ(r.code, IniParser::CALLBACK_FAILED);
  EXPECT_EQ(r.line, 5u);
}

TEST(IniParser, ReadErrorIsReported) {
  class Broken : public MemoryStripe {
   public:
    using MemoryStripe::MemoryStripe;
    u64 readAt(u64 position, void* buffer, u64 count) override {
      return position == 0 ? MemoryStripe::readAt(0, buffer, std::min<u64>(count, 8)) : 0;
    }
  };
  std::string text = "[a]\n[b]\n[c]\n";
  auto reader = CharReader::create(makeRef<Broken>(std::vector<u8>(text.begin(), text.end())));
  Recorder rec;
  u64 line = 0;
  EXPECT_EQ(IniParser::parse(*reader, rec, &line), IniParser::READ_ERROR);
  EXPECT_EQ(line, 3u);
  EXPECT_EQ(rec.calls, (Calls{"S a", "S b"}));
}

}  // namespace
}  // namespace Platform
