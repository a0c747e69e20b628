// Runs the command-line tool as a child process, as a user would.
#pragma once

#include <fcntl.h>
#include <stdlib.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <string>
#include <vector>

#include "tests/support/test_files.h"

namespace hivekit::test {

struct ToolRun {
  int status = -1;  // exit status, or 128 + the signal that ended it
  std::string out, err;
};

// Standard input comes from `in`, output and errors go to files (no pipe
// can fill up). Sanitizer reports exit with 86, outside the tool's own
// statuses; a run past a minute of CPU is ended by the kernel.
inline ToolRun runTool(const std::vector<std::string>& args, const std::filesystem::path& out,
                       const std::filesystem::path& err, const std::filesystem::path& in = "/dev/null") {
  std::vector<std::string> store{HIVEKIT_CLI};
  store.insert(store.end(), args.begin(), args.end());
  std::vector<char*> argv;
  for (std::string& a : store) argv.push_back(a.data());
  argv.push_back(nullptr);
  const pid_t pid = fork();
  if (pid == 0) {
    const int fds[3] = {open(in.c_str(), O_RDONLY), open(out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600),
                        open(err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600)};
    for (int i = 0; i < 3; ++i) dup2(fds[i], i);
    const rlimit cpu{60, 61};
    setrlimit(RLIMIT_CPU, &cpu);
    setenv("ASAN_OPTIONS", "exitcode=86:detect_leaks=1", 1);
    setenv("UBSAN_OPTIONS", "exitcode=86:print_stacktrace=1", 1);
    execv(argv[0], argv.data());
    _exit(127);
  }
  int status = 0;
  waitpid(pid, &status, 0);
  return {WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status), readFile(out), readFile(err)};
}

}  // namespace hivekit::test
