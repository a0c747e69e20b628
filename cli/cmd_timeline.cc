// hivekit timeline: every key of a tree by last write time.
//
// The walk keeps one compact record per key (its time, its name in one
// shared buffer, the index of its parent's record and its handle), enough
// to sort and to rebuild paths: some 40 bytes and the name per key, never
// a path or an object per key.
#include <hivekit/hivekit.h>

#include <algorithm>
#include <cstdio>

#include "commands.h"
#include "open_hive.h"
#include "records.h"
#include "text.h"
#include "tree_walk.h"

namespace hivekit::cli {
namespace {

constexpr uint32_t NO_PARENT = ~0u;
constexpr int64_t UNIX_EPOCH = 116444736000000000;  // 1970-01-01 as a FILETIME

struct Entry {
  FileTime time;
  uint32_t parent;
  uint32_t nameStart, nameLength;  // in the shared buffer
  Key key;
};

enum class Format { text, csv, tln, bodyfile, json };

// Whole seconds since 1970 (0 for times before it, which the line formats
// of timeline tools do not take).
uint64_t unixSeconds(FileTime t) {
  return static_cast<int64_t>(t) < UNIX_EPOCH
             ? 0
             : static_cast<uint64_t>(static_cast<int64_t>(t) - UNIX_EPOCH) / 10'000'000;
}

void appendCsv(std::string& out, const std::string& field) {
  if (field.find_first_of(",\"\r\n") == std::string::npos) {
    out += field;
    return;
  }
  out += '"';
  for (char c : field) {
    if (c == '"') out += '"';
    out += c;
  }
  out += '"';
}

// A field of the '|'-separated formats: a '|' inside it would split it.
std::string pipeSafe(const std::string& s) {
  std::string out;
  for (char c : s) {
    if (c == '|')
      out += "%007C";
    else
      out += c;
  }
  return out;
}

int runTimeline(Context& ctx) {
  Format format = Format::text;
  int formats = 0;
  for (auto [option, f] : {std::pair{"--csv", Format::csv}, std::pair{"--tln", Format::tln},
                           std::pair{"--bodyfile", Format::bodyfile}, std::pair{"--json", Format::json}}) {
    if (ctx.args.has(option)) {
      format = f;
      ++formats;
    }
  }
  if (formats > 1) return usageError(ctx.command, "--csv, --tln, --bodyfile and --json exclude each other");
  std::optional<FileTime> since, until;
  std::string error;
  if (!readTimeRange(ctx.args, since, until, error)) return usageError(ctx.command, error);
  const bool oldestFirst = ctx.args.has("--oldest-first");

  Hive hive;
  Key start;
  std::vector<std::string> names;
  if (!openAt(ctx, hive, start, names)) return EXIT_FAILED;

  std::vector<Entry> entries;
  std::string nameBuffer;
  std::vector<uint32_t> atDepth;  // the record of the key at each depth of the current path
  Output out;
  Progress progress("timeline");
  const TreeWalk::PathForm form =
      format == Format::json ? TreeWalk::PathForm::raw : TreeWalk::PathForm::printable;
  TreeWalk walk(hive, ctx.operand(0), out, form, false, &progress);
  // The start key's record carries its whole path; the others their name.
  const std::string startPath = walk.pathOf(names);
  const bool complete = walk.run(start, startPath, [&](const TreeWalk::Visit& v) {
    atDepth.resize(v.depth);
    Entry e{v.key.last_write(), v.depth ? atDepth.back() : NO_PARENT,
            static_cast<uint32_t>(nameBuffer.size()), 0, v.key};
    if (v.depth == 0)
      nameBuffer += startPath;
    else
      walk.appendName(nameBuffer, v.key.name());
    e.nameLength = static_cast<uint32_t>(nameBuffer.size() - e.nameStart);
    atDepth.push_back(static_cast<uint32_t>(entries.size()));
    entries.push_back(std::move(e));
    return true;
  });

  std::vector<uint32_t> order;
  for (uint32_t i = 0; i < entries.size(); ++i)
    if ((!since || entries[i].time >= *since) && (!until || entries[i].time <= *until)) order.push_back(i);
  std::stable_sort(order.begin(), order.end(), [&](uint32_t a, uint32_t b) {
    return oldestFirst ? entries[a].time < entries[b].time : entries[a].time > entries[b].time;
  });

  std::vector<uint32_t> chain;
  auto pathOf = [&](uint32_t i) {
    chain.clear();
    for (uint32_t at = i; at != NO_PARENT; at = entries[at].parent) chain.push_back(at);
    std::string path;
    for (auto it = chain.rbegin(); it != chain.rend(); ++it) {
      if (it != chain.rbegin() && path != "\\") path += '\\';
      path.append(nameBuffer, entries[*it].nameStart, entries[*it].nameLength);
    }
    return path;
  };
  if (format == Format::csv) out.put("last_write,last_write_filetime,path,class_name,subkeys,values\n");
  for (uint32_t i : order) {
    const Entry& e = entries[i];
    const std::string path = pathOf(i);
    std::string& o = out.text;
    switch (format) {
      case Format::text:
        o += to_iso8601(e.time);
        o += "  ";
        o += path;
        o += '\n';
        break;
      case Format::csv: {
        std::string cls;
        appendEscaped(cls, e.key.class_name(), Escape::printable);
        o += to_iso8601(e.time);
        o += ',';
        appendDecimal(o, e.time);
        o += ',';
        appendCsv(o, path);
        o += ',';
        appendCsv(o, cls);
        o += ',';
        appendDecimal(o, e.key.subkey_count());
        o += ',';
        appendDecimal(o, e.key.value_count());
        o += '\n';
        break;
      }
      case Format::tln:
        appendDecimal(o, unixSeconds(e.time));
        o += "|REG|||";
        o += pipeSafe(path);
        o += '\n';
        break;
      case Format::bodyfile:
        o += "0|";
        o += pipeSafe(path);
        o += '|';
        appendDecimal(o, e.key.offset());
        o += "|0|0|0|0|0|";
        appendDecimal(o, unixSeconds(e.time));
        o += "|0|0\n";
        break;
      case Format::json: {
        JsonWriter j(o);
        j.beginObject();
        keyMembers(j, e.key, path);
        j.endObject();
        o += '\n';
        break;
      }
    }
    out.maybeFlush();
    if (out.failed()) break;
  }
  if (!out.flush()) return out.reportFailure();
  return complete ? EXIT_OK : fail("the timeline is incomplete: parts of the hive could not be read");
}

}  // namespace

const Command TIMELINE_COMMAND = {
    "timeline",
    "timeline [options] HIVE [KEYPATH] [--oldest-first] [--since T] [--until T] "
    "[--csv|--tln|--bodyfile|--json]",
    "list every key by last write time",
    "Lists every key of KEYPATH's tree (the whole hive when omitted), newest first:\n"
    "its last write time (ISO 8601 UTC to 100 ns) and its path.\n"
    "  --oldest-first   oldest first instead\n"
    "  --since T, --until T  only keys written at or after / at or before T, a UTC\n"
    "                   time like 2024-03-01 or 2024-03-01T12:30:00\n"
    "  --csv            last_write,last_write_filetime,path,class_name,subkeys,values\n"
    "                   with a header line (RFC 4180 quoting)\n"
    "  --tln            TLN lines Time|Source|Host|User|Description: Unix seconds,\n"
    "                   REG, empty, empty, the key's path\n"
    "  --bodyfile       bodyfile lines (TSK 3) MD5|name|inode|mode|UID|GID|size|atime|\n"
    "                   mtime|ctime|crtime: 0, the path, the key's record offset,\n"
    "                   0, 0, 0, 0, 0, the last write in Unix seconds, 0, 0\n"
    "  --json           JSON Lines, one key object per line\n"
    "Times before 1970 are 0 in TLN and bodyfile lines; a '|' in a path is written\n"
    "%007C there.\n",
    "--oldest-first --since= --until= --csv --tln --bodyfile --json",
    {1, 2},
    Access::read,
    runTimeline};

}  // namespace hivekit::cli
