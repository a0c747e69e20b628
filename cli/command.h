// What every hivekit command shares: its description, the parsed command
// line, failure reporting and buffered standard output.
//
// Exit status: 0 success, 1 the operation failed (its cause on standard
// error), 2 the command line was wrong (message and usage line).
#pragma once

#include <hivekit/status.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "options.h"

namespace hivekit::cli {

constexpr int EXIT_OK = 0;
constexpr int EXIT_FAILED = 1;
constexpr int EXIT_USAGE = 2;

struct Context;

enum class Access { read, write };

struct Command {
  const char* name;
  const char* synopsis;  // after "hivekit ": "info [options] HIVE"
  const char* summary;   // one line for the command list
  const char* details;   // what it does, its own options, its output
  const char* options;   // besides COMMON_OPTIONS, as optionSpecs() reads them
  struct {
    size_t min, max;  // max SIZE_MAX: any number
  } operands;
  Access access;  // how it opens the hive
  int (*run)(Context&);

  bool writes() const { return access == Access::write; }
};

struct Context {
  const Command* command = nullptr;
  ParsedArgs args;
  CommonOptions common;

  const std::string& operand(size_t i) const { return args.operands[i]; }
  size_t operandCount() const { return args.operands.size(); }
};

// "hivekit: MESSAGE" on standard error (after what standard output holds so
// far); returns EXIT_FAILED. The Status forms print the library's message,
// which names the cause, after `what` when given.
int fail(const std::string& message);
int fail(const Status& status);
int fail(const std::string& what, const Status& status);
// "hivekit: MESSAGE", the usage line and a pointer to --help; EXIT_USAGE.
int usageError(const Command* command, const std::string& message);
// A warning on standard error that does not change the exit status.
void warn(const std::string& message);
// Text from the command line or a file for a message: in single quotes,
// cut to 200 characters followed by "..." (a message never repeats
// megabytes of input).
std::string quoteInput(std::string_view text);

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
  bool failed() const { return _error != 0; }
  // "hivekit: cannot write to standard output: REASON"; EXIT_FAILED.
  int reportFailure() const;
  // The exit status of a walk that wrote here: EXIT_OK when it was
  // `complete`, else the write failure or `incomplete` reported.
  int finish(bool complete, const std::string& incomplete);

 private:
  int _error = 0;  // errno of the failed write
};

// Writes all of `text` to standard output; EXIT_OK, or the failure reported.
int print(std::string_view text);

}  // namespace hivekit::cli
