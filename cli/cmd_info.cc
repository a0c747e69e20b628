// hivekit info: the base block and the layout of a hive.
#include <cstdio>

#include "cli/commands.h"
#include "cli/open_hive.h"
#include "cli/text.h"

namespace hivekit::cli {
namespace {

using namespace Libraries::Files::Hive;

std::string hex(u64 v) {
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

const char* fileTypeName(u32 t) {
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
std::string logLine(const LogFileInfo& l, const std::string& found) {
  if (found.empty()) return "none";
  std::string s = found;
  if (!l.present()) return s + ": not usable: " + (l.state.empty() ? std::string("not read") : l.state);
  s += l.newFormat() ? ": new format" : ": old format";
  s += ", sequence " + std::to_string(l.primarySequence()) + "/" + std::to_string(l.secondarySequence());
  if (l.newFormat()) {
    s += ", " + std::to_string(l.entries.size()) + (l.entries.size() == 1 ? " entry" : " entries");
    if (!l.entries.empty())
      s += " (" + std::to_string(l.entries.front().sequence()) + ".." +
           std::to_string(l.entries.back().sequence()) + ")";
  } else {
    s += ", " + std::to_string(l.pages.size()) + " dirty pages";
  }
  s += l.state.empty() ? ", usable" : ", not usable: " + l.state;
  s += ", " + (l.applied ? std::to_string(l.applied) : std::string("none")) + " applied";
  return s;
}

std::string logModeLine(const RegistryHiveObj& hive) {
  static const char* const modes[] = {"none", "single log", "dual logs"};
  u32 mode = static_cast<u32>(hive.logMode());
  std::string s = mode < 3 ? modes[mode] : std::to_string(mode);
  if (mode == 0) return s;
  u32 last = hive.appliedLog();
  if (last == RegistryHiveObj::NO_LOG) return s + ", nothing applied";
  if (hive.logFile(last).newFormat())
    return s + ", entries applied up to sequence " + std::to_string(hive.appliedSequence()) + " (" +
           LOG_LABELS[last] + ")";
  return s + ", dirty pages of " + LOG_LABELS[last] + " applied";
}

int runInfo(Context& ctx) {
  const std::string& path = ctx.operand(0);
  OpenedHive h;
  if (!openHive(ctx, path, h)) return EXIT_FAILED;
  RegistryHiveObj& hive = *h.hive;
  const u8* b = hive.header();
  std::string out;
  u32 primary = L32(b + hive_header::OFS_PRIMARY_SEQ), secondary = L32(b + hive_header::OFS_SECONDARY_SEQ);

  line(out, "File:", path);
  line(out, "Version:", std::to_string(hive.versionMajor()) + "." + std::to_string(hive.versionMinor()));
  line(out, "Primary sequence:", std::to_string(primary));
  line(out, "Secondary sequence:", std::to_string(secondary));
  line(out, "State:", primary == secondary ? "clean" : "dirty (sequence numbers differ)");
  line(out, "Last written:", fileTimeToIso(L64(b + hive_header::OFS_TIMESTAMP)));
  u32 type = L32(b + hive_header::OFS_TYPE), format = L32(b + hive_header::OFS_FORMAT);
  line(out, "File type:", std::to_string(type) + fileTypeName(type));
  line(out, "File format:", std::to_string(format) + (format == 1 ? " (direct memory load)" : ""));
  line(out, "Root key offset:", hex(L32(b + hive_header::OFS_ROOT)));
  u32 length = hive.hiveLength();
  line(out, "Hive bins data size:", std::to_string(length) + " (" + hex(length) + ")");

  if (hive.mode() & modeUnsafe) {
    line(out, "Hive bins:", "not counted in unsafe mode");
  } else {
    // The hbin table grows as records are reached; asking for the last
    // bytes makes it scan to the end.
    ctx.beginOperation();
    u32 last = length >= 5 ? hive.hbinFromOffset(length - 5) : RegistryHiveObj::INVALID_HBIN;
    std::string n = std::to_string(hive.hbinCount());
    if (length >= 5 && last == RegistryHiveObj::INVALID_HBIN) {
      n += " (scan stopped early";
      if (!ctx.diagnostics.messages().empty()) n += ": " + ctx.diagnostics.messages().back();
      n += ")";
    }
    line(out, "Hive bins:", n);
  }
  line(out, "Clustering factor:", std::to_string(L32(b + hive_header::OFS_CLUSTER)));
  u32 stored = L32(b + hive_header::OFS_CHECKSUM), computed = calculateHeaderChecksum(b);
  char sum[80];
  std::snprintf(sum, sizeof(sum), "0x%08x stored, 0x%08x computed%s", stored, computed,
                stored == computed ? "" : " (MISMATCH)");
  line(out, "Checksum:", sum);
  std::u16string name;
  for (u32 i = 0; i < hive_header::FILENAME_UNITS; ++i) {
    char16_t u = static_cast<char16_t>(L16(b + hive_header::OFS_FILENAME + 2 * i));
    if (!u) break;
    name.push_back(u);
  }
  std::string nameText;
  appendPrintable(nameText, name);
  line(out, "File name field:", nameText);

  line(out, "Log mode:", logModeLine(hive));
  line(out, "Log (.LOG):", logLine(hive.logFile(0), h.logs.primary));
  line(out, "Log (.LOG1):", logLine(hive.logFile(1), h.logs.log1));
  line(out, "Log (.LOG2):", logLine(hive.logFile(2), h.logs.log2));
  Output o;
  o.put(out);
  return o.flush() ? EXIT_OK : failWithCode(ctx, "cannot write to standard output", 0);
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
