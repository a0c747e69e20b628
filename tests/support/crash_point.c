/* Crash points for any program, loaded with LD_PRELOAD: counts the calls
 * that change files (write, pwrite, writev, pwritev, fsync, fdatasync,
 * ftruncate, fallocate, msync, rename) and, as the environment asks, ends
 * the process right before the Nth of them or makes every call from the
 * Nth on fail as a full disk does.
 *
 *   HIVEKIT_CRASH_AT=N     _exit(CRASH_STATUS) before the Nth call (1-based):
 *                          no destructor runs and nothing is flushed, as
 *                          when the power fails at that moment
 *   HIVEKIT_FAIL_FROM=N    the Nth call and all after it fail with ENOSPC
 *   HIVEKIT_CRASH_REPORT=F at a normal exit, the number of calls seen is
 *                          written to F (how many points a workload has)
 *
 * Only calls on regular files count (and every rename), so what a program
 * prints to a terminal or pipe does not move the points. */
#define _GNU_SOURCE
#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

enum { CRASH_STATUS = 86 };

static long crash_at = -1, fail_from = -1, calls = 0;
static const char* report_path = NULL;

static long env_number(const char* name) {
  const char* v = getenv(name);
  return v && *v ? atol(v) : -1;
}

static void write_report(void) {
  if (!report_path) return;
  FILE* f = fopen(report_path, "w");
  if (!f) return;
  fprintf(f, "%ld\n", calls);
  fclose(f);
}

__attribute__((constructor)) static void setup(void) {
  crash_at = env_number("HIVEKIT_CRASH_AT");
  fail_from = env_number("HIVEKIT_FAIL_FROM");
  report_path = getenv("HIVEKIT_CRASH_REPORT");
  if (report_path && *report_path) atexit(write_report);
}

static int regular(int fd) {
  struct stat st;
  return fstat(fd, &st) == 0 && S_ISREG(st.st_mode);
}

/* Counts one call; 1 when it must fail (errno set), else 0. */
static int point(int counts) {
  if (!counts) return 0;
  ++calls;
  if (crash_at > 0 && calls == crash_at) _exit(CRASH_STATUS);
  if (fail_from > 0 && calls >= fail_from) {
    errno = ENOSPC;
    return 1;
  }
  return 0;
}

#define NEXT(name) ((__typeof__(&name))dlsym(RTLD_NEXT, #name))

ssize_t write(int fd, const void* buf, size_t n) {
  if (point(regular(fd))) return -1;
  return NEXT(write)(fd, buf, n);
}
ssize_t pwrite(int fd, const void* buf, size_t n, off_t at) {
  if (point(regular(fd))) return -1;
  return NEXT(pwrite)(fd, buf, n, at);
}
ssize_t pwrite64(int fd, const void* buf, size_t n, off64_t at) {
  if (point(regular(fd))) return -1;
  return NEXT(pwrite64)(fd, buf, n, at);
}
ssize_t writev(int fd, const struct iovec* v, int n) {
  if (point(regular(fd))) return -1;
  return NEXT(writev)(fd, v, n);
}
ssize_t pwritev(int fd, const struct iovec* v, int n, off_t at) {
  if (point(regular(fd))) return -1;
  return NEXT(pwritev)(fd, v, n, at);
}
int fsync(int fd) {
  if (point(regular(fd))) return -1;
  return NEXT(fsync)(fd);
}
int fdatasync(int fd) {
  if (point(regular(fd))) return -1;
  return NEXT(fdatasync)(fd);
}
int ftruncate(int fd, off_t length) {
  if (point(regular(fd))) return -1;
  return NEXT(ftruncate)(fd, length);
}
int ftruncate64(int fd, off64_t length) {
  if (point(regular(fd))) return -1;
  return NEXT(ftruncate64)(fd, length);
}
int fallocate(int fd, int mode, off_t at, off_t length) {
  if (point(regular(fd))) return -1;
  return NEXT(fallocate)(fd, mode, at, length);
}
int msync(void* addr, size_t length, int flags) {
  if (point(1)) return -1;
  return NEXT(msync)(addr, length, flags);
}
int rename(const char* from, const char* to) {
  if (point(1)) return -1;
  return NEXT(rename)(from, to);
}
int renameat(int fromDir, const char* from, int toDir, const char* to) {
  if (point(1)) return -1;
  return NEXT(renameat)(fromDir, from, toDir, to);
}
