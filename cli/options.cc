#include "options.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <chrono>
#include <cstdlib>

namespace hivekit::cli {

const char* const COMMON_OPTIONS =
    "--dirty --unsafe --codepage= --verbose --no-logs --log=* --help -h --wait --time=";

std::vector<OptionSpec> optionSpecs(std::string_view list) {
  std::vector<OptionSpec> parsed;
  while (!list.empty()) {
    const size_t end = std::min(list.find(' '), list.size());
    std::string_view word = list.substr(0, end);
    list.remove_prefix(std::min(end + 1, list.size()));
    if (word.empty()) continue;
    OptionSpec option;
    option.repeatable = word.ends_with("=*");
    if (option.repeatable) word.remove_suffix(1);
    option.takesValue = word.ends_with('=');
    if (option.takesValue) word.remove_suffix(1);
    option.name = word;
    parsed.push_back(std::move(option));
  }
  return parsed;
}

std::string ParsedArgs::value(const std::string& name, const std::string& fallback) const {
  auto it = options.find(name);
  return it == options.end() || it->second.empty() ? fallback : it->second.back();
}

const std::vector<std::string>& ParsedArgs::values(const std::string& name) const {
  static const std::vector<std::string> none;
  auto it = options.find(name);
  return it == options.end() ? none : it->second;
}

bool parseArgs(const std::vector<std::string>& args, const std::vector<OptionSpec>& optionList,
               ParsedArgs& out, std::string& error) {
  auto find = [&](const std::string& name) -> const OptionSpec* {
    for (const OptionSpec& s : optionList)
      if (name == s.name) return &s;
    return nullptr;
  };
  bool optionsEnded = false;
  for (size_t i = 0; i < args.size(); ++i) {
    const std::string& arg = args[i];
    // "-" alone is an operand (standard input or output where a file goes).
    if (optionsEnded || arg.size() < 2 || arg[0] != '-') {
      out.operands.push_back(arg);
      continue;
    }
    if (arg == "--") {
      optionsEnded = true;
      continue;
    }
    std::string name = arg, value;
    bool inlineValue = false;
    size_t eq = arg.find('=');
    if (arg.compare(0, 2, "--") == 0 && eq != std::string::npos) {
      name = arg.substr(0, eq);
      value = arg.substr(eq + 1);
      inlineValue = true;
    }
    const OptionSpec* option = find(name);
    if (!option) {
      error = "unknown option " + name;
      return false;
    }
    if (option->takesValue && !inlineValue) {
      if (i + 1 >= args.size()) {
        error = "option " + name + " needs a value";
        return false;
      }
      value = args[++i];
    } else if (!option->takesValue && inlineValue) {
      error = "option " + name + " takes no value";
      return false;
    }
    std::vector<std::string>& slot = out.options[name];
    if (!slot.empty() && !option->repeatable) {
      error = "option " + name + " given more than once";
      return false;
    }
    slot.push_back(value);
  }
  return true;
}

bool parseCodepage(const std::string& text, Codepage& out) {
  std::string t = text;
  std::transform(t.begin(), t.end(), t.begin(), [](unsigned char c) { return std::tolower(c); });
  if (t == "ascii") {
    out = Codepage::ascii;
  } else if (t == "latin1" || t == "iso-8859-1" || t == "iso8859-1") {
    out = Codepage::latin1;
  } else if (t == "windows1250" || t == "windows-1250" || t == "cp1250" || t == "1250") {
    out = Codepage::windows1250;
  } else if (t == "windows1252" || t == "windows-1252" || t == "cp1252" || t == "1252") {
    out = Codepage::windows1252;
  } else {
    return false;
  }
  return true;
}

namespace {

// --time, else SOURCE_DATE_EPOCH; 0 when neither is given.
bool readFixedTime(const ParsedArgs& parsed, FileTime& time, std::string& error) {
  if (parsed.has("--time")) {
    if (!parse_iso8601(parsed.value("--time"), time) || time == 0) {
      error = "--time takes a UTC time: 2024-03-01, 2024-03-01T12:00:00, 2024-03-01T12:00:00.5Z";
      return false;
    }
    return true;
  }
  const char* epoch = std::getenv("SOURCE_DATE_EPOCH");
  if (!epoch || !*epoch) return true;
  char* end = nullptr;
  errno = 0;
  const unsigned long long seconds = std::strtoull(epoch, &end, 10);
  constexpr unsigned long long MAX_SECONDS = 100000000000ull;  // year 5138: beyond any date worth stamping
  if (!std::isdigit(static_cast<unsigned char>(*epoch)) || *end != '\0' || errno != 0 ||
      seconds > MAX_SECONDS) {
    error = "SOURCE_DATE_EPOCH is not a number of seconds since 1970: '" + std::string(epoch).substr(0, 200) +
            "'";
    return false;
  }
  time = to_filetime(std::chrono::system_clock::time_point(std::chrono::seconds(seconds)));
  return true;
}

}  // namespace

bool readCommonOptions(const ParsedArgs& parsed, bool writes, CommonOptions& out, std::string& error) {
  out.dirty = parsed.has("--dirty");
  out.unsafe = parsed.has("--unsafe");
  out.verbose = parsed.has("--verbose");
  out.noLogs = parsed.has("--no-logs");
  out.help = parsed.has("--help") || parsed.has("-h");
  out.logs = parsed.values("--log");
  if (parsed.has("--codepage") && !parseCodepage(parsed.value("--codepage"), out.codepage)) {
    error = "unknown codepage '" + parsed.value("--codepage") + "' (ascii, latin1, windows1250, windows1252)";
    return false;
  }
  out.wait = parsed.has("--wait");
  if (!writes && parsed.has("--time")) {
    error = "--time is for writing commands only";
    return false;
  }
  if (writes && !readFixedTime(parsed, out.time, error)) return false;
  if (out.noLogs && !out.logs.empty()) {
    error = "--no-logs and --log exclude each other";
    return false;
  }
  if (out.logs.size() > 3) {
    error = "at most three --log files (.LOG, .LOG1, .LOG2)";
    return false;
  }
  return true;
}

bool readTimeRange(const ParsedArgs& parsed, std::optional<FileTime>& since, std::optional<FileTime>& until,
                   std::string& error) {
  for (auto [option, slot] : {std::pair{"--since", &since}, std::pair{"--until", &until}}) {
    if (!parsed.has(option)) continue;
    FileTime t;
    if (!parse_iso8601(parsed.value(option), t)) {
      error =
          std::string(option) + " takes a UTC time: 2024-03-01, 2024-03-01T12:00:00, 2024-03-01T12:00:00.5Z";
      return false;
    }
    *slot = t;
  }
  return true;
}

}  // namespace hivekit::cli
