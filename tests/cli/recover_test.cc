// hivekit recover and the log report of hivekit info, run as a separate
// process on the dirty hives of the shared test data. Anything written goes
// to a temporary folder; the test data is only read.
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

namespace {

namespace fs = std::filesystem;

std::string readFile(const fs::path& p) {
  std::ifstream in(p, std::ios::binary);
  std::stringstream s;
  s << in.rdbuf();
  return s.str();
}

fs::path testdata() {
  return fs::path(HIVEKIT_SOURCE_DIR) / ".." / "shared" / "testdata";
}

struct Result {
  int status;
  std::string out, err;
};

class Recover : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!fs::is_directory(testdata() / "expected")) GTEST_SKIP() << "no ../shared/testdata";
    std::string tmpl = (fs::temp_directory_path() / "hivekit-recover-XXXXXX").string();
    ASSERT_NE(mkdtemp(tmpl.data()), nullptr);
    dir = tmpl;
  }
  void TearDown() override {
    if (!dir.empty()) fs::remove_all(dir);
  }
  // `args` go through the shell: paths here have no blanks.
  Result hivekit(const std::string& args) {
    const fs::path out = dir / ".out", err = dir / ".err";
    const std::string cmd =
        std::string(HIVEKIT_CLI) + " " + args + " >" + out.string() + " 2>" + err.string();
    const int status = std::system(cmd.c_str());
    return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, readFile(out), readFile(err)};
  }
  // The value after "Label:" on a line of `info` output.
  static std::string field(const std::string& text, const std::string& label) {
    const size_t at = ("\n" + text).find("\n" + label + ":");
    if (at == std::string::npos) return "<missing " + label + ">";
    const size_t start = text.find_first_not_of(' ', at + label.size() + 1);
    return text.substr(start, text.find('\n', start) - start);
  }
  fs::path dir;
};

TEST_F(Recover, CopiesDumpAsTheRecoveredListings) {
  const fs::path expected = testdata() / "expected";
  const std::string suffix = ".recovered.lst";
  size_t checked = 0;
  for (const auto& e : fs::recursive_directory_iterator(expected)) {
    const std::string name = e.path().filename().string();
    if (name.size() <= suffix.size() || name.compare(name.size() - suffix.size(), suffix.size(), suffix) != 0)
      continue;
    const fs::path folder = testdata() / "hives" / fs::relative(e.path(), expected).parent_path();
    const fs::path hive = folder / name.substr(0, name.size() - suffix.size());
    SCOPED_TRACE(hive.string());
    ++checked;
    std::string before;
    for (const auto& f : fs::directory_iterator(folder)) before += readFile(f.path());
    const std::string copy = (dir / "copy").string();
    Result r = hivekit("recover " + hive.string() + " -o " + copy);
    ASSERT_EQ(r.status, 0) << r.err;
    const std::string info = hivekit("info --no-logs " + copy).out;
    EXPECT_EQ(field(info, "State"), "clean");
    EXPECT_EQ(field(info, "Checksum").find("MISMATCH"), std::string::npos);
    EXPECT_TRUE(hivekit("dump --no-logs " + copy).out == readFile(e.path())) << "the copy's listing differs";
    std::string after;
    for (const auto& f : fs::directory_iterator(folder)) after += readFile(f.path());
    EXPECT_TRUE(before == after) << "the hive or a log changed";
  }
  EXPECT_GE(checked, 4u);
}

// A change made through the logs stays out of the hive file and shows when
// reading through the logs; the recovered copy reads the same; the copy may
// not replace an input.
TEST_F(Recover, WritingThroughTheLogsThenRecovering) {
  for (const auto& e : fs::directory_iterator(testdata() / "hives" / "NewDirtyHive1")) {
    fs::copy_file(e.path(), dir / e.path().filename());
    fs::permissions(dir / e.path().filename(), fs::perms::owner_write, fs::perm_options::add);
  }
  const std::string hive = (dir / "NewDirtyHive").string(), log1 = hive + ".LOG1";
  const std::string file = readFile(hive);
  ASSERT_EQ(hivekit("set " + hive + " Key3 added dword 7").status, 0);
  EXPECT_TRUE(readFile(hive) == file);
  const std::string info = hivekit("info " + hive).out;
  EXPECT_EQ(field(info, "Log mode"), "dual logs, entries applied up to sequence 6 (.LOG2)");
  EXPECT_EQ(field(info, "Log (.LOG2)"),
            hive + ".LOG2: new format, sequence 3/3, 4 entries (3..6), usable, 4 applied");
  EXPECT_EQ(field(info, "Log (.LOG1)"),
            log1 + ": new format, sequence 2/2, 1 entry (2..2), usable, 1 applied");

  Result through = hivekit("dump " + hive);
  ASSERT_EQ(through.status, 0) << through.err;
  EXPECT_NE(through.out.find("V\t\\Key3\tadded\t4\t4\t07000000\n"), std::string::npos) << through.out;
  ASSERT_EQ(hivekit("recover " + hive + " -o " + (dir / "copy").string()).status, 0);
  EXPECT_EQ(hivekit("dump " + (dir / "copy").string()).out, through.out);

  const std::string inputs = readFile(hive) + readFile(log1);
  for (const std::string& target : {hive, log1}) {
    Result r = hivekit("recover " + hive + " -o " + target);
    EXPECT_EQ(r.status, 1);
    EXPECT_NE(r.err.find("is the hive or one of its logs"), std::string::npos) << r.err;
  }
  EXPECT_TRUE(readFile(hive) + readFile(log1) == inputs);
  EXPECT_EQ(hivekit("recover " + hive).status, 2) << "-o is required";
}

TEST_F(Recover, InfoTellsWhyALogIsNotUsed) {
  Result r = hivekit("info --dirty " + (testdata() / "hives" / "BadLogHive1" / "BadLogHive").string());
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_NE(field(r.out, "Log (.LOG1)").find(": not usable: bad checksum"), std::string::npos) << r.out;
  EXPECT_EQ(field(r.out, "Log mode"), "none");
  r = hivekit("info " + (testdata() / "hives" / "NewDirtyHive2" / "NewDirtyHive").string());
  EXPECT_NE(
      field(r.out, "Log (.LOG1)").find("0 entries, not usable: stale (older than the hive), none applied"),
      std::string::npos)
      << r.out;
}

}  // namespace
