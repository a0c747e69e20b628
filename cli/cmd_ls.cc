// hivekit ls: the subkeys and values of one key, or (-r) of every key of
// its tree.
#include <hivekit/hivekit.h>

#include <algorithm>
#include <cstdio>

#include "commands.h"
#include "open_hive.h"
#include "records.h"
#include "text.h"
#include "tree_walk.h"
#include "walk.h"

namespace hivekit::cli {
namespace {

std::string displayName(const std::string& name, bool isValue) {
  if (isValue && name.empty()) return "(default)";
  std::string s;
  appendEscaped(s, name, Escape::printable);
  return s;
}

std::string quoted(const std::string& text) {
  std::string s;
  // Line breaks and other controls would break the table.
  appendEscaped(s, text, Escape::printable);
  return "\"" + s + "\"";
}

// A value larger than this is previewed from its first bytes only: a line
// of the listing must not read hundreds of megabytes.
constexpr uint32_t WHOLE_PREVIEW = 1u << 20;
constexpr uint32_t PREFIX_PREVIEW = 64;

// "  name  TYPE  size  preview" lines for values, names and types in
// columns. False when the values need more data than the budget allows.
bool valueLines(std::string& out, std::span<const Value> values,
                const std::function<bool(uint64_t)>& charge) {
  std::vector<std::string> names;
  size_t width = 0, typeWidth = 0;
  for (const Value& v : values) {
    names.push_back(displayName(v.name(), true));
    width = std::max(width, names.back().size());
    typeWidth = std::max(typeWidth, typeName(v.type()).size());
  }
  width = std::min<size_t>(width, 40);
  for (size_t i = 0; i < values.size(); ++i) {
    const Value& v = values[i];
    const ValueType type = v.type();
    const bool whole = v.size() <= WHOLE_PREVIEW;
    Result<Bytes> data = whole ? v.data() : v.read(0, PREFIX_PREVIEW);
    if (!charge(data->size())) return false;
    std::string name = names[i];
    // A long name gets a line of its own, so the columns stay aligned.
    if (name.size() > width) {
      out += "  " + name + "\n";
      name.clear();
    }
    char b[160];
    std::snprintf(b, sizeof(b), "  %-*s  %-*s %8zu  ", static_cast<int>(width), name.c_str(),
                  static_cast<int>(typeWidth), typeName(type).c_str(),
                  whole ? data->size() : size_t{v.size()});
    out += b;
    out += data.ok() ? preview(v, *data) : "(data unreadable)";
    out += '\n';
  }
  return true;
}

// The long form of a key: last write (with 100 ns), class name, counts.
std::string keyDetails(const Key& k) {
  char b[96];
  std::snprintf(b, sizeof(b), "  %s  %6u subkeys  %6u values", to_iso8601(k.last_write()).c_str(),
                k.subkey_count(), k.value_count());
  std::string s = b;
  const std::string cls = k.class_name();
  if (!cls.empty()) s += "  class " + quoted(cls);
  return s;
}

int runRecursive(Context& ctx, const Hive& hive, const Key& start, const std::vector<std::string>& names) {
  const bool json = ctx.args.has("--json"), longForm = ctx.args.has("-l");
  Output out;
  TreeWalk walk(hive, ctx.operand(0), out, json ? TreeWalk::PathForm::raw : TreeWalk::PathForm::printable,
                true);
  const bool complete = walk.run(start, walk.pathOf(names), [&](const TreeWalk::Visit& v) {
    std::string& o = out.text;
    if (json) return writeKeyLine(walk, v, o) && !out.failed();
    o += v.path;
    if (longForm) o += keyDetails(v.key);
    o += '\n';
    return valueLines(o, v.values, [&](uint64_t bytes) { return walk.chargeData(bytes); }) && !out.failed();
  });
  return out.finish(complete, "the listing is incomplete: parts of the hive could not be read");
}

int runLs(Context& ctx) {
  const bool json = ctx.args.has("--json"), longForm = ctx.args.has("-l");
  Hive hive;
  Key key;
  std::vector<std::string> names;
  if (!openAt(ctx, hive, key, names)) return EXIT_FAILED;
  if (ctx.args.has("-r")) return runRecursive(ctx, hive, key, names);

  std::vector<Key> keys;
  Subkeys subkeys = key.subkeys();
  for (const Key& k : subkeys) keys.push_back(k);
  const uint64_t badKeys = subkeys.status().ok() ? subkeys.skipped() : key.subkey_count();
  std::vector<Value> values;
  Values valueList = key.values();
  for (const Value& v : valueList) values.push_back(v);
  const uint64_t badValues = valueList.status().ok() ? valueList.skipped() : key.value_count();

  // A value list may name one large value thousands of times.
  WalkBudget budget(hive, ctx.operand(0));
  size_t shown = 0;
  std::string out;
  if (json) {
    const std::string path = rawPath(names);
    JsonWriter j(out);
    j.beginObject().key("key").beginObject();
    keyMembers(j, key, path);
    j.endObject().key("subkeys").beginArray();
    for (const Key& k : keys) {
      j.beginObject();
      keyMembers(j, k, childPath(path, k.name()));
      j.endObject();
    }
    j.endArray().key("values").beginArray();
    for (const Value& v : values) {
      const Result<Bytes> data = v.data();
      if (!budget.charge(1, data->size())) break;
      valueObject(j, v, data);
      ++shown;
    }
    j.endArray().endObject();
    out += '\n';
  } else {
    std::vector<std::string> keyNames;
    size_t width = 0;
    for (const Key& k : keys) {
      keyNames.push_back(displayName(k.name(), false));
      width = std::max(width, keyNames.back().size());
    }
    width = std::min<size_t>(width, 40);
    out += "Keys (" + std::to_string(keys.size()) + "):\n";
    for (size_t i = 0; i < keys.size(); ++i) {
      std::string name = keyNames[i];
      if (name.size() > width) {
        out += "  " + name + "\n";
        name.clear();
      }
      char b[160];
      if (longForm) {
        std::snprintf(b, sizeof(b), "  %-*s", static_cast<int>(width), name.c_str());
        out += b + keyDetails(keys[i]) + "\n";
      } else {
        std::snprintf(b, sizeof(b), "  %-*s  %s  %6u subkeys  %6u values\n", static_cast<int>(width),
                      name.c_str(), fileTimeToIso(keys[i].last_write()).c_str(), keys[i].subkey_count(),
                      keys[i].value_count());
        out += b;
      }
    }
    out += "Values (" + std::to_string(values.size()) + "):\n";
    size_t shownNow = 0;
    valueLines(out, values, [&](uint64_t bytes) {
      if (!budget.charge(1, bytes)) return false;
      ++shownNow;
      return true;
    });
    shown = shownNow;
  }
  if (const int status = print(out)) return status;
  if (shown < values.size()) {
    warn("the value list names more data than a hive of its size can hold; " +
         std::to_string(values.size() - shown) + " values not shown");
    return fail("the key's value list is damaged");
  }
  if (badKeys || badValues) {
    warn(std::to_string(badKeys) + " subkeys and " + std::to_string(badValues) + " values could not be read");
    const Status& why = subkeys.status().ok() ? valueList.status() : subkeys.status();
    return fail("the key's lists are damaged: " +
                (why.ok() ? std::string("they name records that cannot be read") : why.message()));
  }
  return EXIT_OK;
}

}  // namespace

const Command LS_COMMAND = {"ls",
                            "ls [options] HIVE [KEYPATH] [-l] [-r] [--json]",
                            "list the subkeys and values of a key",
                            "Lists the subkeys of KEYPATH (the root key when omitted), in the order of its\n"
                            "subkey list: name, last write time (UTC), numbers of subkeys and values; then\n"
                            "its values in the order of its value list: name ((default) for the unnamed\n"
                            "value), type, data size in bytes, and a short preview of the data.\n"
                            "Control characters and unpaired surrogates in names are shown as %XXXX.\n"
                            "  -l      the long form of keys: last write time to 100 ns, numbers of subkeys\n"
                            "          and values, and the class name when the key has one\n"
                            "  -r      every key of KEYPATH's tree instead, depth first: a line with the\n"
                            "          key's path (and with -l its long form), then its values\n"
                            "  --json  one JSON document {\"key\", \"subkeys\", \"values\"}; with -r, JSON\n"
                            "          Lines, one object per key with its values (as 'dump --json')\n",
                            "-l -r --json",
                            {1, 2},
                            Access::read,
                            runLs};

}  // namespace hivekit::cli
