// Two processes at one hive: while a long import holds it, a second writer
// fails with "in use by another process" (or, with --wait, runs after it),
// readers are turned away rather than shown a tree half written, and
// nothing either writer did is lost.
#include <hivekit/hivekit.h>

#include <chrono>
#include <thread>

#include "tests/cli/cli_fixture.h"

namespace hivekit::cli_test {
namespace {

class TwoProcesses : public CliTest {
 protected:
  // Starts the tool without waiting for it.
  pid_t start(const std::vector<std::string>& args, const std::string& name) {
    const fs::path out = path(name + ".out");
    const pid_t pid = fork();
    if (pid == 0) {
      const int fd = open(out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
      dup2(fd, 1);
      dup2(fd, 2);
      std::vector<char*> argv{const_cast<char*>(HIVEKIT_CLI)};
      for (const std::string& a : args) argv.push_back(const_cast<char*>(a.c_str()));
      argv.push_back(nullptr);
      execv(HIVEKIT_CLI, argv.data());
      _exit(127);
    }
    return pid;
  }
  // Whether the process still runs; when it has ended, its exit status
  // goes to `status`.
  static bool running(pid_t pid, int& status) {
    int s = 0;
    if (waitpid(pid, &s, WNOHANG) == 0) return true;
    status = WIFEXITED(s) ? WEXITSTATUS(s) : 128 + WTERMSIG(s);
    return false;
  }

  void SetUp() override {
    CliTest::SetUp();
    std::string reg = "Windows Registry Editor Version 5.00\r\n\r\n";
    for (int i = 0; i < KEYS; ++i)
      reg += "[ROOT\\Big\\K" + std::to_string(i) + "]\r\n\"v\"=dword:00000001\r\n\r\n";
    writeFile(path("big.reg"), reg);
    ASSERT_EQ(hivekit({"new", path("h").string()}).status, 0);
    ASSERT_EQ(hivekit({"mkkey", path("h").string(), "Small"}).status, 0);
  }
  static constexpr int KEYS = 12000;
};

// What a reader sees: "in use" while the writer holds the hive, else a
// whole tree, before the import or after it.
TEST_F(TwoProcesses, ASecondWriterFailsOrWaitsAndReadersSeeNoTornTree) {
  // The importer waits for the readers below rather than fail for them.
  const pid_t importer = start({"import", "--wait", path("h").string(), path("big.reg").string()}, "import");
  int turnedAway = 0, status = -1;
  bool tried = false;
  while (running(importer, status)) {
    hivekit::Result<hivekit::Hive> reader = hivekit::Hive::open(path("h").string());
    if (!reader) {
      ASSERT_EQ(reader.status().code(), hivekit::Code::in_use) << reader.status().to_string();
      ++turnedAway;
      if (!tried) {
        // The importer holds the hive: a writer now fails at once.
        tried = true;
        const Result r = hivekit({"set", path("h").string(), "Small", "n", "dword", "7"});
        EXPECT_EQ(r.status, 1);
        EXPECT_NE(r.err.find("in use by another process"), std::string::npos) << r.err;
      }
      continue;
    }
    hivekit::Result<hivekit::Key> big = reader->key("Big");
    EXPECT_TRUE(!big || big->subkeys().size() == KEYS) << "a reader saw part of an import";
    reader = hivekit::Hive();
    std::this_thread::sleep_for(std::chrono::milliseconds(5));  // room for the writer to take the hive
  }
  EXPECT_EQ(status, 0) << readFile(path("import.out"));
  EXPECT_TRUE(tried) << "the import ended before a second writer could try";
  EXPECT_GT(turnedAway, 0);

  // --wait: the second writer waits for the first, and both changes stay.
  const pid_t again = start({"import", "--wait", path("h").string(), path("big.reg").string()}, "again");
  while (running(again, status) && hivekit::Hive::open(path("h").string()).ok())
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  const Result waited = hivekit({"set", "--wait", path("h").string(), "Small", "n", "dword", "8"});
  EXPECT_EQ(waited.status, 0) << waited.err;
  while (running(again, status)) std::this_thread::sleep_for(std::chrono::milliseconds(1));
  EXPECT_EQ(status, 0) << readFile(path("again.out"));
  hivekit::Result<hivekit::Hive> hive = hivekit::Hive::open(path("h").string());
  ASSERT_TRUE(hive.ok()) << hive.status().to_string();
  EXPECT_EQ(hive->key("Big")->subkeys().size(), static_cast<size_t>(KEYS));
  EXPECT_EQ(hive->key("Small")->value("n")->dword().value(), 8u);
}

}  // namespace
}  // namespace hivekit::cli_test
