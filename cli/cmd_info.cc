// hivekit info: the base block and the layout of a hive.
#include <hivekit/hivekit.h>

#include <cstdio>

#include "commands.h"
#include "open_hive.h"
#include "records.h"
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

const char* logModeName(LogMode mode) {
  switch (mode) {
    case LogMode::single:
      return "single";
    case LogMode::dual:
      return "dual";
    case LogMode::none:
      break;
  }
  return "none";
}

std::string hiveJson(const std::string& path, const HiveInfo& info, bool unsafe) {
  std::string out;
  JsonWriter j(out);
  // Most members come in pairs of numbers.
  auto pair = [&j](const char* a, uint64_t x, const char* b, uint64_t y) {
    j.key(a).number(x).key(b).number(y);
  };
  j.beginObject();
  j.key("file").string(path);
  pair("major_version", info.major_version, "minor_version", info.minor_version);
  pair("primary_sequence", info.primary_sequence, "secondary_sequence", info.secondary_sequence);
  j.key("dirty").boolean(info.dirty);
  j.key("last_written")
      .string(to_iso8601(info.timestamp))
      .key("last_written_filetime")
      .number(info.timestamp);
  pair("file_type", info.file_type, "file_format", info.file_format);
  pair("root_offset", info.root_offset, "hive_bins_size", info.hive_bins_size);
  j.key("hbin_count");
  if (unsafe)
    j.null();
  else
    j.number(info.hbin_count);
  j.key("hbins_state").string(info.hbins_state);
  j.key("clustering_factor").number(info.clustering_factor);
  pair("stored_checksum", info.stored_checksum, "computed_checksum", info.computed_checksum);
  j.key("file_name").string(info.file_name);
  j.key("log_mode").string(logModeName(info.log_mode));
  j.key("applied_log");
  if (info.applied_log >= 0 && info.applied_log <= 2)
    j.string(LOG_LABELS[info.applied_log]);
  else
    j.null();
  j.key("applied_sequence").number(info.applied_sequence);
  j.key("logs").beginArray();
  for (int i = 0; i < 3; ++i) {
    const LogInfo& l = info.logs[i];
    j.beginObject().key("slot").string(LOG_LABELS[i]).key("path");
    if (l.path.empty())
      j.null();
    else
      j.string(l.path);
    j.key("usable").boolean(l.usable).key("new_format").boolean(l.new_format);
    pair("primary_sequence", l.primary_sequence, "secondary_sequence", l.secondary_sequence);
    j.key("entries").number(l.entries);
    pair("first_sequence", l.first_sequence, "last_sequence", l.last_sequence);
    j.key("applied").number(l.applied).key("state").string(l.state);
    j.endObject();
  }
  j.endArray().endObject();
  return out + "\n";
}

// One key: path, times, class name, counts, record offset and descriptor.
int keyInfo(Context& ctx, const Hive& hive) {
  Key key;
  std::vector<std::string> names;
  if (!findKey(hive, ctx.operand(1), key, names)) return EXIT_FAILED;
  const FileTime t = key.last_write();
  std::string sddl;
  Result<SecurityDescriptor> sd = key.security_descriptor();
  if (sd) {
    Result<Bytes> bytes = sd->bytes();
    Result<ParsedSecurityDescriptor> parsed = bytes ? parse_security_descriptor(*bytes) : bytes.status();
    sddl = parsed ? to_sddl(*parsed) : "(unreadable: " + parsed.status().message() + ")";
  }
  std::string out;
  if (ctx.args.has("--json")) {
    JsonWriter j(out);
    j.beginObject();
    keyMembers(j, key, rawPath(names));
    j.key("security_offset");
    if (sd)
      j.number(sd->offset());
    else
      j.null();
    j.key("sddl").string(sddl);
    j.endObject();
    return print(out + "\n");
  }
  std::string path;
  for (const std::string& n : names) {
    path += '\\';
    appendEscaped(path, n, Escape::printable);
  }
  std::string name, cls;
  appendEscaped(name, key.name(), Escape::printable);
  appendEscaped(cls, key.class_name(), Escape::printable);
  line(out, "Path:", path.empty() ? "\\" : path);
  line(out, "Name:", name);
  line(out, "Last written:", to_iso8601(t) + " (FILETIME " + hex(t) + ")");
  line(out, "Class name:", cls);
  line(out, "Subkeys:", std::to_string(key.subkey_count()));
  line(out, "Values:", std::to_string(key.value_count()));
  line(out, "Record offset:", hex(key.offset()));
  line(out, "Security record:", sd ? hex(sd->offset()) : "none (" + sd.status().message() + ")");
  line(out, "Security:", sddl);
  return print(out);
}

int runInfo(Context& ctx) {
  const std::string& path = ctx.operand(0);
  Hive hive;
  if (!openHive(ctx, path, hive)) return EXIT_FAILED;
  if (ctx.operandCount() > 1) return keyInfo(ctx, hive);
  const HiveInfo info = hive.info();
  if (ctx.args.has("--json")) return print(hiveJson(path, info, ctx.common.unsafe));
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
    "info [options] HIVE [KEYPATH] [--json]",
    "show the base block and layout of a hive, or one key",
    "Shows the version, the sequence numbers and whether the hive is dirty, the file\n"
    "type and format, the root key offset, the hive bins data size, the number of\n"
    "hive bins (not in --unsafe mode), the clustering factor, the stored and the\n"
    "computed checksum, the file name field, and the state of each transaction log.\n"
    "Values are those of the base block as the hive sees it, after any log was applied.\n"
    "Log mode: none (the hive is clean, or --dirty without a usable log), single\n"
    "log (.LOG) or dual logs (.LOG1/.LOG2), and what was applied. Per log: the\n"
    "file found, its format (old: dirty pages; new: numbered entries), its\n"
    "sequence numbers, what it holds, whether it can serve recovery or why not\n"
    "(stale: older than the hive), and how many entries or pages were applied.\n"
    "With KEYPATH, shows that key instead: its path, name, last write time (to\n"
    "100 ns, and the FILETIME), class name, numbers of subkeys and values, record\n"
    "offset, security record and its descriptor in SDDL.\n"
    "  --json  the same as one JSON object\n",
    "--json",
    {1, 2},
    Access::read,
    runInfo};

}  // namespace hivekit::cli
