// What every hivekit command shares: its description, the parsed command
// line, failure reporting with the library's logged reasons, and buffered
// standard output.
//
// Exit status: 0 success, 1 the operation failed (message on standard
// error), 2 the command line was wrong (message and usage line).
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "cli/options.h"
#include "platform/types.h"

namespace hivekit::cli {

using Platform::u16;
using Platform::u32;
using Platform::u64;
using Platform::u8;

constexpr int EXIT_OK = 0;
constexpr int EXIT_FAILED = 1;
constexpr int EXIT_USAGE = 2;

struct Context;

struct Command {
  const char* name;
  const char* synopsis;             // after "hivekit ": "info [options] HIVE"
  const char* summary;              // one line for the command list
  const char* details;              // what it does, its own options, its output
  std::vector<OptionSpec> options;  // besides COMMON_OPTIONS
  size_t minOperands;
  size_t maxOperands;  // SIZE_MAX: any number
  bool writes;         // opens the hive read-write
  int (*run)(Context&);
};

// Collects the library's messages of severity 3 and above while the
// command runs, so a failure can say why. Only the latest few are kept.
class Diagnostics {
 public:
  Diagnostics();
  ~Diagnostics();
  Diagnostics(const Diagnostics&) = delete;
  Diagnostics& operator=(const Diagnostics&) = delete;
  // Forgets what was collected (called before each operation, so a failure
  // shows the reasons of that operation only).
  void clear();
  const std::vector<std::string>& messages() const { return _messages; }
  size_t dropped() const { return _dropped; }

 private:
  static constexpr size_t KEEP = 24;
  int _sink;
  std::vector<std::string> _messages;
  size_t _dropped = 0;
};

struct Context {
  const Command* command = nullptr;
  ParsedArgs args;
  CommonOptions common;
  Diagnostics diagnostics;

  const std::string& operand(size_t i) const { return args.operands[i]; }
  size_t operandCount() const { return args.operands.size(); }
  // Resets the error code and the collected messages before an operation.
  void beginOperation();
};

// "hivekit: WHAT (error 0xCODE)" plus the collected reasons, on standard
// error; returns EXIT_FAILED. The code is the thread's current error code
// unless given.
int fail(Context& ctx, const std::string& what);
int failWithCode(Context& ctx, const std::string& what, Platform::u32 code);
// "hivekit: MESSAGE", the usage line and a pointer to --help; EXIT_USAGE.
int usageError(const Command* command, const std::string& message);
// A warning on standard error that does not change the exit status.
void warn(const std::string& message);

// Standard output, buffered in large pieces. Text is appended to `text`
// and written out whenever it passes the threshold.
class Output {
 public:
  static constexpr size_t THRESHOLD = 1 << 20;
  Output() { text.reserve(THRESHOLD + 4096); }
  ~Output() { flush(); }
  std::string text;
  void put(std::string_view s) {
    text.append(s);
    if (text.size() >= THRESHOLD) flush();
  }
  void maybeFlush() {
    if (text.size() >= THRESHOLD) flush();
  }
  // False once a write to standard output has failed.
  bool flush();
  bool failed() const { return _failed; }

 private:
  bool _failed = false;
};

// Writes all bytes to a descriptor, retrying short writes.
bool writeAll(int fd, const void* data, size_t length);

}  // namespace hivekit::cli
