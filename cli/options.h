// Command-line parsing for hivekit: options may stand anywhere among the
// operands ("--" ends them), as "--name value", "--name=value" or, for
// one-letter options, "-o value". Everything else is an operand.
#pragma once

#include <hivekit/hive.h>

#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace hivekit::cli {

struct OptionSpec {
  std::string name;  // "--codepage", "-o"
  bool takesValue = false;
  bool repeatable = false;
};

// The options a list such as "--json -o= --type=*" names, separated by
// spaces: a name alone is a flag, "NAME=" takes a value, "NAME=*" takes a
// value and may be given more than once.
std::vector<OptionSpec> optionSpecs(std::string_view list);

struct ParsedArgs {
  std::vector<std::string> operands;
  // Every occurrence of each option given, in order ("" for flags).
  std::map<std::string, std::vector<std::string>> options;

  bool has(const std::string& name) const { return options.count(name) != 0; }
  // The last value given, or `fallback`.
  std::string value(const std::string& name, const std::string& fallback = "") const;
  const std::vector<std::string>& values(const std::string& name) const;
};

// Parses args[0..] against `optionList`. False with a message in `error` for an
// unknown option, a missing value, a value given to a flag, or an option
// repeated that may appear only once.
bool parseArgs(const std::vector<std::string>& args, const std::vector<OptionSpec>& optionList,
               ParsedArgs& out, std::string& error);

// The options every command shares, in optionSpecs() form.
extern const char* const COMMON_OPTIONS;

struct CommonOptions {
  bool dirty = false;
  bool unsafe = false;
  bool verbose = false;
  bool noLogs = false;
  bool help = false;
  Codepage codepage = Codepage::latin1;
  std::vector<std::string> logs;  // --log, in order
  bool wait = false;              // --wait: for a lock another process holds
  FileTime time = 0;              // --time, else SOURCE_DATE_EPOCH; 0: the clock
};

// Reads the shared options out of parsed arguments; false with a message
// for an unknown codepage, a time that does not read or contradicting
// choices. The time changes are stamped with comes from --time, else from
// the SOURCE_DATE_EPOCH environment variable (seconds since 1970, as
// reproducible builds set it), for a writing command (`writes`) only.
bool readCommonOptions(const ParsedArgs& parsed, bool writes, CommonOptions& out, std::string& error);

// --since and --until (UTC times in ISO 8601 form) when given; false with a
// message for a time that does not read.
bool readTimeRange(const ParsedArgs& parsed, std::optional<FileTime>& since, std::optional<FileTime>& until,
                   std::string& error);

// "ascii", "latin1", "windows1250", "windows1252" (also "1250", "1252",
// "cp1252", any case).
bool parseCodepage(const std::string& text, Codepage& out);

}  // namespace hivekit::cli
