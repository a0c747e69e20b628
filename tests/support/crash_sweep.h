// Crash sweeps: a writing workload run in a child process that stops (or
// finds the disk full) right before its Nth write-class call, for every N
// of the workload or an even sample of them. The child is this test
// program again, with the crash-point module preloaded (see
// crash_point.c); it runs the workload named by HIVEKIT_SWEEP_WORKLOAD and
// tells the parent on standard output (a pipe, which the module does not
// count) each time a flush has completed.
#pragma once

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

namespace hivekit::test {

struct CrashRun {
  int status = -1;     // exit status; CRASH_STATUS when it stopped at the point
  int flushes = 0;     // "flushed" lines the child wrote
  std::string output;  // all it wrote to standard output and error
};
constexpr int CRASH_STATUS = 86;

// Where the crash point falls: stop before call `at`, or fail every call
// from `failFrom` on (0: neither); `reportTo` receives the number of calls.
struct CrashPoint {
  long at = 0;
  long failFrom = 0;
  std::string reportTo;
};

// Runs this program's child test DISABLED_SweepChild.Run for `workload` in
// `dir` under the crash-point module.
inline CrashRun runSweepChild(const std::string& workload, const std::filesystem::path& dir,
                              const CrashPoint& point) {
  int pipeFds[2];
  if (pipe(pipeFds) != 0) return {};
  const pid_t pid = fork();
  if (pid == 0) {
    dup2(pipeFds[1], 1);
    dup2(pipeFds[1], 2);
    close(pipeFds[0]);
    setenv("LD_PRELOAD", HIVEKIT_CRASHPOINT, 1);
    // A sanitizer runtime need not come first for what the module does.
    setenv("ASAN_OPTIONS", "verify_asan_link_order=0:detect_leaks=0", 1);
    setenv("HIVEKIT_SWEEP_WORKLOAD", workload.c_str(), 1);
    setenv("HIVEKIT_SWEEP_DIR", dir.c_str(), 1);
    unsetenv("HIVEKIT_CRASH_AT");
    unsetenv("HIVEKIT_FAIL_FROM");
    unsetenv("HIVEKIT_CRASH_REPORT");
    if (point.at) setenv("HIVEKIT_CRASH_AT", std::to_string(point.at).c_str(), 1);
    if (point.failFrom) setenv("HIVEKIT_FAIL_FROM", std::to_string(point.failFrom).c_str(), 1);
    if (!point.reportTo.empty()) setenv("HIVEKIT_CRASH_REPORT", point.reportTo.c_str(), 1);
    execl("/proc/self/exe", "hivekit-tests", "--gtest_filter=DISABLED_SweepChild.Run",
          "--gtest_also_run_disabled_tests", "--gtest_brief=1", static_cast<char*>(nullptr));
    _exit(127);
  }
  close(pipeFds[1]);
  CrashRun run;
  char buffer[4096];
  ssize_t n;
  while ((n = read(pipeFds[0], buffer, sizeof buffer)) > 0) run.output.append(buffer, static_cast<size_t>(n));
  close(pipeFds[0]);
  int status = 0;
  waitpid(pid, &status, 0);
  run.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  for (size_t at = 0; (at = run.output.find("\nflushed\n", at)) != std::string::npos; ++at) ++run.flushes;
  if (run.output.rfind("flushed\n", 0) == 0) ++run.flushes;
  return run;
}

// The points of a workload of `count` calls to try: all of them when they
// are at most `limit` + `tail`, else `limit` of them spread evenly (first
// and last included) and the last `tail` (where a workload that flushes
// once at its end makes its flush). HIVEKIT_CRASH_SWEEP=full tries all,
// or 400 spread evenly when there are more.
inline std::vector<long> sweepPoints(long count, long limit, long tail = 0) {
  if (const char* full = std::getenv("HIVEKIT_CRASH_SWEEP"); full && std::string(full) == "full") {
    limit = 400;
    tail = 0;
  }
  std::vector<long> points;
  if (count <= limit + tail) {
    for (long n = 1; n <= count; ++n) points.push_back(n);
    return points;
  }
  for (long i = 0; i < limit; ++i) {
    const long n = 1 + i * (count - 1) / (limit - 1);
    if (n <= count - tail) points.push_back(n);
  }
  for (long n = count - tail + 1; n <= count; ++n) points.push_back(n);
  return points;
}

}  // namespace hivekit::test
