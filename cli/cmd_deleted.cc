// hivekit deleted: keys, values and security descriptors the hive still
// holds but no longer links, in the listing form of `dump` with a state
// and the records each came from; or JSON Lines; or a registry text file.
//
//   K  path  last-write  subkeys  values  state  cells
//   V  path  name  type  size  data  state  cells
//   S  \?  references  length  data  state  cells
#include <hivekit/hivekit.h>

#include <cctype>
#include <cstdio>
#include <fstream>

#include "commands.h"
#include "json.h"
#include "open_hive.h"
#include "sha256.h"
#include "text.h"

namespace hivekit::cli {
namespace {

constexpr size_t MAX_INLINE_DATA = 32;

const char* stateName(DeletedItem::State state) {
  static const char* const names[] = {"intact", "partial", "previous"};
  return names[static_cast<int>(state)];
}

const char* logName(int log) {
  static const char* const names[] = {".LOG", ".LOG1", ".LOG2"};
  return log >= 0 && log < 3 ? names[log] : "";
}

const char* cellName(DeletedCell::Kind kind) {
  static const char* const names[] = {"nk", "vk", "sk", "list", "data", "db", "fraglist"};
  return names[static_cast<int>(kind)];
}

// The listing's path: names escaped, below "\?" for orphans.
std::string listingPath(const DeletedItem& item) {
  std::string path = item.orphan ? "\\?" : "";
  for (const std::string& name : item.path) {
    path += '\\';
    appendEscaped(path, name, Escape::listing);
  }
  return path.empty() ? "\\" : path;
}

bool sameName(const std::string& a, const std::string& b) {
  if (a.size() != b.size()) return false;
  for (size_t i = 0; i < a.size(); ++i) {
    const unsigned char x = static_cast<unsigned char>(a[i]), y = static_cast<unsigned char>(b[i]);
    if (x != y && !(x < 0x80 && y < 0x80 && std::toupper(x) == std::toupper(y))) return false;
  }
  return true;
}

// KEYPATH's parts ("?" first for the placeholder root) against the item's.
bool below(const DeletedItem& item, const std::vector<std::string>& parts) {
  if (item.kind == DeletedItem::Kind::security) return parts.empty();
  size_t skip = 0;
  if (!parts.empty() && parts[0] == "?") {
    if (!item.orphan) return false;
    skip = 1;
  } else if (item.orphan && !parts.empty()) {
    return false;
  }
  if (item.path.size() < parts.size() - skip) return false;
  for (size_t i = skip; i < parts.size(); ++i)
    if (!sameName(item.path[i - skip], parts[i])) return false;
  return true;
}

void appendData(std::string& o, const DeletedItem& item) {
  if (!item.data_available) {
    o += "unavailable";
  } else if (item.data.size() <= MAX_INLINE_DATA) {
    appendHexBytes(o, item.data.data(), item.data.size());
  } else {
    Sha256 sha;
    o += "sha256:";
    sha.update(item.data.data(), item.data.size());
    sha.appendHexDigest(o);
  }
}

void appendLine(std::string& o, const DeletedItem& item) {
  const std::string path = listingPath(item);
  if (item.kind == DeletedItem::Kind::key) {
    o += "K\t" + path + '\t';
    appendHexFixed(o, item.last_write, 16);
    o += '\t';
    appendDecimal(o, item.subkeys);
    o += '\t';
    appendDecimal(o, item.values);
  } else if (item.kind == DeletedItem::Kind::value) {
    o += "V\t" + path + '\t';
    appendEscaped(o, item.name, Escape::listing);
    o += '\t';
    appendDecimal(o, item.type);
    o += '\t';
    appendDecimal(o, item.size);
    o += '\t';
    appendData(o, item);
  } else {
    o += "S\t" + path + '\t';
    appendDecimal(o, item.references);
    o += '\t';
    appendDecimal(o, item.size);
    o += '\t';
    appendData(o, item);
  }
  o += '\t';
  o += stateName(item.state);
  if (item.state == DeletedItem::State::previous) {
    char from[64];
    std::snprintf(from, sizeof from, " %s entry %u @0x%llx", logName(item.log),
                  static_cast<unsigned>(item.sequence), static_cast<unsigned long long>(item.log_offset));
    o += from;
  }
  o += '\t';
  for (size_t i = 0; i < item.cells.size(); ++i) {
    o += i ? " " : "";
    o += cellName(item.cells[i].kind);
    char offset[16];
    std::snprintf(offset, sizeof offset, "@0x%x", static_cast<unsigned>(item.cells[i].offset));
    o += offset;
    if (!item.cells[i].intact) o += '!';
  }
  o += '\n';
}

void appendJson(std::string& o, const DeletedItem& item) {
  static const char* const kinds[] = {"key", "value", "security"};
  JsonWriter j(o);
  j.beginObject().key("kind").string(kinds[static_cast<int>(item.kind)]);
  j.key("state").string(stateName(item.state));
  if (item.state == DeletedItem::State::previous)
    j.key("log")
        .string(logName(item.log))
        .key("sequence")
        .number(item.sequence)
        .key("log_offset")
        .number(item.log_offset);
  j.key("path").string(deleted_path(item)).key("orphan").boolean(item.orphan);
  if (item.kind == DeletedItem::Kind::key) {
    j.key("name").string(item.name).key("last_write").string(fileTimeToIso(item.last_write));
    j.key("last_write_filetime").number(item.last_write);
    j.key("subkeys").number(item.subkeys).key("values").number(item.values);
  } else {
    if (item.kind == DeletedItem::Kind::value) {
      j.key("name").string(item.name).key("type").number(item.type);
      const std::string type = typeName(static_cast<ValueType>(item.type));
      if (type.rfind("REG_", 0) == 0)
        j.key("type_name").string(type);
      else
        j.key("type_name").null();
    } else {
      j.key("references").number(item.references);
    }
    j.key("size").number(item.size).key("data_available").boolean(item.data_available);
    j.key("raw");
    if (item.data_available)
      j.hex(item.data.data(), item.data.size());
    else
      j.null();
  }
  j.key("cells").beginArray();
  for (const DeletedCell& cell : item.cells)
    j.beginObject()
        .key("kind")
        .string(cellName(cell.kind))
        .key("offset")
        .number(cell.offset)
        .key("intact")
        .boolean(cell.intact)
        .endObject();
  j.endArray().endObject();
  o += '\n';
}

// Writes keys and values as registry text under `prefix`; values without
// data are left out and counted.
class RegExport {
 public:
  explicit RegExport(std::string prefix) : _prefix(std::move(prefix)) { _w.header(); }
  void add(const DeletedItem& item) {
    if (item.kind == DeletedItem::Kind::security) return;
    std::string path = _prefix + (item.orphan ? "\\?" : "");
    for (const std::string& name : item.path) path += "\\" + name;
    if (item.kind == DeletedItem::Kind::key || path != _section) {
      _w.key(path);
      _section = path;
    }
    if (item.kind != DeletedItem::Kind::value) return;
    if (item.data_available)
      _w.value(item.name, static_cast<ValueType>(item.type), item.data);
    else
      ++_skipped;
  }
  std::string finish() {
    _w.finish();
    return _w.text();
  }
  size_t skipped() const { return _skipped; }

 private:
  RegTextWriter _w;
  std::string _prefix, _section;
  size_t _skipped = 0;
};

int runDeleted(Context& ctx) {
  const bool json = ctx.args.has("--json");
  const bool toReg = ctx.args.has("--export");
  const bool logs = ctx.args.has("--logs");
  if (logs && ctx.args.has("--no-logs"))
    return usageError(ctx.command, "--logs and --no-logs exclude each other");
  if (ctx.args.has("--prefix") && !toReg) return usageError(ctx.command, "--prefix needs --export");
  const std::string prefix = ctx.args.value("--prefix", "ROOT");
  if (prefix.empty()) return usageError(ctx.command, "--prefix needs a non-empty path");
  std::vector<std::string> parts;
  if (!splitKeyPath(ctx.operandCount() > 1 ? ctx.operand(1) : "", parts))
    return usageError(ctx.command, "a KEYPATH with an empty name in it");
  Hive hive;
  if (!openHive(ctx, ctx.operand(0), hive)) return EXIT_FAILED;
  Output out;
  RegExport reg(prefix);
  auto visit = [&](const DeletedItem& item) {
    if (!below(item, parts)) return true;
    if (toReg) {
      reg.add(item);
      return true;
    }
    json ? appendJson(out.text, item) : appendLine(out.text, item);
    out.maybeFlush();
    return !out.failed();
  };
  const Result<DeletedScanSummary> summary = scan_deleted(hive, visit, {.logs = logs});
  if (toReg) {
    const std::string target = ctx.args.value("--export");
    const std::string text = reg.finish();
    std::ofstream file(target, std::ios::binary | std::ios::trunc);
    if (!file.write(text.data(), static_cast<std::streamsize>(text.size())) || !file.flush())
      return fail("cannot write '" + target + "'");
    if (reg.skipped() != 0)
      warn(std::to_string(reg.skipped()) + " values whose data is unavailable were left out of '" + target +
           "'");
  }
  if (!out.flush()) return out.reportFailure();
  if (!summary.ok()) return fail(summary.status());
  return EXIT_OK;
}

}  // namespace

const Command DELETED_COMMAND = {
    "deleted",
    "deleted [options] HIVE [KEYPATH] [--logs] [--json] [--export OUT.reg [--prefix P]]",
    "list deleted and leftover keys, values and security descriptors",
    "Finds the keys, values and security descriptors whose records HIVE still\n"
    "holds but no longer links: in free space, in the slack behind live records,\n"
    "in allocated records nothing reaches, in unused tails of hive bins. Each is\n"
    "read with the checks a live record passes; nothing live is listed. With\n"
    "KEYPATH only what lies at or below it (\\? for the placeholder root; letter\n"
    "case of ASCII letters aside). Lines are those of 'dump' with two more fields:\n"
    "  K  path  last-write-time  number-of-subkeys  number-of-values  state  cells\n"
    "  V  path  value-name  type  data-size  data  state  cells\n"
    "  S  \\?  references  length  descriptor  state  cells\n"
    "A key's path is rebuilt from the parent each record names; when that chain\n"
    "breaks the key goes below the placeholder root \\? with the keys below it.\n"
    "Values follow their key; values no recovered key lists come later, under\n"
    "the live key that still names them behind the end of its value list, or\n"
    "below \\?. The state is 'intact' when every record the item came from is\n"
    "free of the live tree and sound, 'partial' when some are lost: a value's data\n"
    "is then 'unavailable'. cells: the records it came from, kind@0xOFFSET (offsets\n"
    "in the hive bins data), with '!' after those that were lost.\n"
    "  --logs          also list, last, the previous versions of keys and values\n"
    "                  that the transaction logs hold: records in the pages of\n"
    "                  older log entries that the hive as it reads now no longer\n"
    "                  shows (a key gone, renamed or moved; a value gone or with\n"
    "                  another name, type or data). Their state is 'previous' and\n"
    "                  names the log, the entry's sequence number and where the\n"
    "                  record stands in the log: 'previous .LOG1 entry 5 @0x1c28'.\n"
    "                  A value's data comes from the same entry, else from hive\n"
    "                  records nothing live uses, else it is 'unavailable'. A\n"
    "                  version several entries hold is listed once, from the\n"
    "                  oldest. The logs are only read.\n"
    "  --json          JSON Lines: one object per item (see the README)\n"
    "  --export FILE   write the keys and values as registry text to FILE instead,\n"
    "                  for 'hivekit import' into a fresh hive; values whose data\n"
    "                  is unavailable are left out (and counted on standard error)\n"
    "  --prefix P      the path the exported keys go below (default ROOT, where\n"
    "                  'hivekit import' puts them back at their old places)\n",
    "--json --export= --prefix= --logs",
    {1, 2},
    Access::read,
    runDeleted};

}  // namespace hivekit::cli
