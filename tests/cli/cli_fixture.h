// What the tests that run the tool share: running it as a process with its
// output collected, the shared test data, and hives of known content made
// with the test builder. Nothing under the test data is ever written.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <numeric>
#include <sstream>
#include <string>
#include <vector>

#include "hive/format/format.h"
#include "tests/support/hive_builder.h"
#include "tests/support/run_tool.h"
#include "tests/support/test_files.h"

namespace hivekit::cli_test {

namespace fs = std::filesystem;
namespace Hive = Libraries::Files::Hive;
using hivekit::test::HiveBuilder;
using hivekit::test::u16;
using hivekit::test::u32;
using hivekit::test::u64;
using hivekit::test::u8;

using Result = hivekit::test::ToolRun;
using hivekit::test::runTool;
using hivekit::test::TempDir;

using hivekit::test::readFile;
using hivekit::test::testdata;
using hivekit::test::writeFile;

#define REQUIRE_TESTDATA() \
  if (!fs::is_directory(testdata() / "expected")) GTEST_SKIP() << "no ../shared/testdata"

// expected/D/X.lst lists hives/D/X read with --dirty --no-logs, and
// expected/D/X.recovered.lst lists it read through its logs.
inline std::vector<std::pair<fs::path, fs::path>> listings(bool recovered) {
  const fs::path expected = testdata() / "expected";
  std::vector<std::pair<fs::path, fs::path>> out;
  for (const auto& e : fs::recursive_directory_iterator(expected)) {
    std::string name = e.path().filename().string();
    const size_t mark = name.find(".recovered.");
    if (!e.is_regular_file() || e.path().extension() != ".lst" || (mark != std::string::npos) != recovered)
      continue;
    name.resize(recovered ? mark : name.size() - 4);
    out.emplace_back(testdata() / "hives" / fs::relative(e.path(), expected).parent_path() / name, e.path());
  }
  std::sort(out.begin(), out.end());
  return out;
}

// The value after "Label:" on a line of `info` output.
inline std::string field(const std::string& text, const std::string& label) {
  const size_t at = ("\n" + text).find("\n" + label + ":");
  if (at == std::string::npos) return "<missing " + label + ">";
  const size_t start = text.find_first_not_of(' ', at + label.size() + 1);
  return text.substr(start, text.find('\n', start) - start);
}

inline bool hasLine(const std::string& text, const std::string& line) {
  return ("\n" + text).find("\n" + line + "\n") != std::string::npos;
}

inline size_t countLines(const std::string& text, const std::string& prefix) {
  size_t n = 0;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) n += line.rfind(prefix, 0) == 0;
  return n;
}

class CliTest : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_FALSE(_temp.path().empty()); }

  fs::path path(const std::string& name) const { return _temp.path(name); }

  // Runs the tool with the given standard input.
  Result hivekit(const std::vector<std::string>& args, const std::string& input = "") {
    writeFile(path(".stdin"), input);
    return runTool(args, path(".stdout"), path(".stderr"), path(".stdin"));
  }

  TempDir _temp;
};

// A hive of known content: names of every kind below \names, values of
// every type in \data, and below \times two keys of their own last write
// times (\times\new has the class name "Skew1").
class BuiltHiveTest : public CliTest {
 protected:
  static constexpr u64 OLD_TIME = 126227808000000000;  // 2001-01-01T00:00:00Z
  static constexpr u64 NEW_TIME = 133537680001234567;  // 2024-03-01T12:00:00.1234567Z

  // Gives a laid-out key its last write time and class name.
  static void setKey(HiveBuilder& b, u32 nk, u64 time, const std::u16string& cls) {
    Platform::W64(b.at(nk) + Hive::hive_record_nk::OFS_LAST_WRITE, time);
    if (cls.empty()) return;
    const u32 record = b.writeData(HiveBuilder::utf16le(cls));
    Platform::W32(b.at(nk) + Hive::hive_record_nk::OFS_CLASS, record);
    Platform::W16(b.at(nk) + Hive::hive_record_nk::OFS_CLASS_LENGTH, static_cast<u16>(2 * cls.size()));
  }

  void SetUp() override {
    CliTest::SetUp();
    HiveBuilder b(5);
    const u32 root = b.root(), names = b.key(root, u"names");
    for (const char16_t* n : {u"ctl\x01name", u"back\\slash", u"per%cent", u"\x00e4rger", u"\x65e5\x672c",
                              u"pair\xD83D\xDE00", u"lone\xD800x", u"slash/inside"})
      b.key(names, n);
    const u32 data = b.key(root, u"data");
    b.value(data, u"", 1, {'d', 0, 'f', 0, 0, 0});
    b.value(data, u"empty", 3, {});
    b.value(data, u"dword", 4, {0x78, 0x56, 0x34, 0x12});
    b.value(data, u"dwordbe", 5, {0x12, 0x34, 0x56, 0x78});
    b.value(data, u"qword", 11, {1, 0, 0, 0, 0, 0, 0, 0x80});
    b.value(data, u"multi", 7, {'a', 0, 0, 0, 'b', 0, 'c', 0, 0, 0, 0, 0});
    std::vector<u8> exact32(32), big(20000);
    std::iota(exact32.begin(), exact32.end(), 0);
    for (size_t i = 0; i < big.size(); ++i) big[i] = static_cast<u8>(i % 251);
    b.value(data, u"exact32", 3, exact32);
    b.value(data, u"a33", 3, std::vector<u8>(33, 'a'));
    b.value(data, u"a56", 3, std::vector<u8>(56, 'a'));
    b.value(data, u"a64", 0x20, std::vector<u8>(64, 'a'));
    b.value(data, u"a1000", 3, std::vector<u8>(1000, 'a'));
    b.value(data, u"big", 3, big);  // a db record in a 1.5 hive
    b.value(data, u"tab\tname%", 1, {'x', 0, 0, 0});
    b.value(data, u"multiempty", 7, {'a', 0, 0, 0, 0, 0, 'b', 0, 0, 0, 0, 0});
    // Keys with their own last write times and class names.
    const u32 times = b.key(root, u"times"), old = b.key(times, u"old"), young = b.key(times, u"new");
    b.value(young, u"v", 4, {5, 0, 0, 0});
    b.layout();
    setKey(b, old, OLD_TIME, u"");
    setKey(b, young, NEW_TIME, u"Skew1");
    writeFile(path("built"), b.build());
  }
};

}  // namespace hivekit::cli_test
