// hivekit info: the base block and the layout of a hive.
#include <hivekit/hivekit.h>

#include <cstdio>

#include "commands.h"
#include "open_hive.h"
#include "text.h"

namespace hivekit::cli {
namespace {

std::string hex(uint64_t v) {
  char b[24];
  std::snprintf(b, sizeof(b), "0x%llx", static_cast<unsigned long long>(v));
  return b;
}

void line(std::string& out, const char* label, const std::string& value) {
  char b[32];
  std::snprintf(b, sizeof(b), "%-22s", label);
  out += b;
  out += value;
  out += '\n';
}

const char* fileTypeName(uint32_t t) {
  switch (t) {
    case 0:
      return " (primary)";
    case 1:
      return " (old-format log)";
    case 2:
      return " (old-format log, volatile)";
    case 6:
      return " (new-format log)";
    default:
      return "";
  }
}

const char* const LOG_LABELS[3] = {".LOG", ".LOG1", ".LOG2"};

// One log's state: where it was found, its format and sequence numbers,
// what it holds, whether it can serve recovery (or why not) and how much of
// it was replayed when the hive was opened.
std::string logLine(const LogInfo& l) {
  if (l.path.empty()) return "none";
  std::string s = l.path;
  // A log whose base block was refused (bad signature, checksum, ...) has
  // nothing more to show than why.
  const bool read = l.usable || l.new_format || l.primary_sequence || l.secondary_sequence || l.entries;
  if (!read) return s + ": not usable: " + l.state;
  s += l.new_format ? ": new format" : ": old format";
  s += ", sequence " + std::to_string(l.primary_sequence) + "/" + std::to_string(l.secondary_sequence);
  if (l.new_format) {
    s += ", " + std::to_string(l.entries) + (l.entries == 1 ? " entry" : " entries");
    if (l.entries)
      s += " (" + std::to_string(l.first_sequence) + ".." + std::to_string(l.last_sequence) + ")";
  } else {
    s += ", " + std::to_string(l.entries) + " dirty pages";
  }
  s += l.usable ? ", usable" : ", not usable: " + l.state;
  s += ", " + (l.applied ? std::to_string(l.applied) : std::string("none")) + " applied";
  return s;
}

std::string logModeLine(const HiveInfo& info) {
  switch (info.log_mode) {
    case LogMode::none:
      return "none";
    case LogMode::single:
    case LogMode::dual:
      break;
  }
  std::string s = info.log_mode == LogMode::single ? "single log" : "dual logs";
  const int last = info.applied_log;
  if (last < 0 || last > 2) return s + ", nothing applied";
  if (info.logs[last].new_format)
    return s + ", entries applied up to sequence " + std::to_string(info.applied_sequence) + " (" +
           LOG_LABELS[last] + ")";
  return s + ", dirty pages of " + LOG_LABELS[last] + " applied";
}

int runInfo(Context& ctx) {
  const std::string& path = ctx.operand(0);
  Hive hive;
  if (!openHive(ctx, path, hive)) return EXIT_FAILED;
  const HiveInfo info = hive.info();
  std::string out;
  line(out, "File:", path);
  line(out, "Version:", std::to_string(info.major_version) + "." + std::to_string(info.minor_version));
  line(out, "Primary sequence:", std::to_string(info.primary_sequence));
  line(out, "Secondary sequence:", std::to_string(info.secondary_sequence));
  line(out, "State:", info.dirty ? "dirty (sequence numbers differ)" : "clean");
  line(out, "Last written:", fileTimeToIso(info.timestamp));
  line(out, "File type:", std::to_string(info.file_type) + fileTypeName(info.file_type));
  line(out, "File format:",
       std::to_string(info.file_format) + (info.file_format == 1 ? " (direct memory load)" : ""));
  line(out, "Root key offset:", hex(info.root_offset));
  line(out,
       "Hive bins data size:", std::to_string(info.hive_bins_size) + " (" + hex(info.hive_bins_size) + ")");
  if (ctx.common.unsafe) {
    line(out, "Hive bins:", "not counted in unsafe mode");
  } else {
    line(out, "Hive bins:",
         std::to_string(info.hbin_count) +
             (info.hbins_state.empty() ? std::string() : " (scan stopped early: " + info.hbins_state + ")"));
  }
  line(out, "Clustering factor:", std::to_string(info.clustering_factor));
  char sum[80];
  std::snprintf(sum, sizeof(sum), "0x%08x stored, 0x%08x computed%s", info.stored_checksum,
                info.computed_checksum, info.stored_checksum == info.computed_checksum ? "" : " (MISMATCH)");
  line(out, "Checksum:", sum);
  std::string name;
  appendEscaped(name, info.file_name, Escape::printable);
  line(out, "File name field:", name);
  line(out, "Log mode:", logModeLine(info));
  for (int i = 0; i < 3; ++i)
    line(out, (std::string("Log (") + LOG_LABELS[i] + "):").c_str(), logLine(info.logs[i]));
  return print(out);
}

}  // namespace

const Command INFO_COMMAND = {
    "info",
    "info [options] HIVE",
    "show the base block and layout of a hive",
    "Shows the version, the sequence numbers and whether the hive is dirty, the file\n"
    "type and format, the root key offset, the hive bins data size, the number of\n"
    "hive bins (not in --unsafe mode), the clustering factor, the stored and the\n"
    "computed checksum, the file name field, and the state of each transaction log.\n"
    "Values are those of the base block as the hive sees it, after any log was applied.\n"
    "Log mode: none (the hive is clean, or --dirty without a usable log), single\n"
    "log (.LOG) or dual logs (.LOG1/.LOG2), and what was applied. Per log: the\n"
    "file found, its format (old: dirty pages; new: numbered entries), its\n"
    "sequence numbers, what it holds, whether it can serve recovery or why not\n"
    "(stale: older than the hive), and how many entries or pages were applied.\n",
    {},
    1,
    1,
    false,
    runInfo,
};

}  // namespace hivekit::cli
