// hivekit find: keys and values by name, data, type and last write time.
#include <hivekit/hivekit.h>

#include "commands.h"
#include "open_hive.h"
#include "records.h"
#include "text.h"
#include "tree_walk.h"

namespace hivekit::cli {
namespace {

int runFind(Context& ctx) {
  const bool json = ctx.args.has("--json"), ignoreCase = !ctx.args.has("--case-sensitive");
  SearchCriteria criteria;
  std::string error;
  for (auto [option, slot] :
       {std::pair{"--key", &criteria.key_name}, std::pair{"--value", &criteria.value_name},
        std::pair{"--data", &criteria.data}}) {
    if (!ctx.args.has(option)) continue;
    Result<Pattern> p = Pattern::compile(ctx.args.value(option), ignoreCase);
    if (!p) return usageError(ctx.command, std::string(option) + ": " + p.status().message());
    *slot = std::move(*p);
  }
  for (const std::string& t : ctx.args.values("--type")) {
    ValueType type;
    if (!parse_type(t, type)) return usageError(ctx.command, "unknown type '" + t + "'");
    criteria.types.push_back(type);
  }
  if (!readTimeRange(ctx.args, criteria.since, criteria.until, error)) return usageError(ctx.command, error);

  Hive hive;
  Key start;
  std::vector<std::string> names;
  if (!openAt(ctx, hive, start, names)) return EXIT_FAILED;

  const bool values = criteria.has_value_criteria();
  Output out;
  Progress progress("find");
  TreeWalk walk(hive, ctx.operand(0), out, json ? TreeWalk::PathForm::raw : TreeWalk::PathForm::printable,
                values, &progress);
  uint64_t tooLarge = 0;
  // A match that could not be decided: the search is incomplete.
  auto undecided = [&](const Status& why, const std::string& what) {
    if (why.code() == Code::too_large)
      ++tooLarge;
    else
      walk.report(walk.path() + ": " + what + ": " + why.message());
  };
  const bool complete = walk.run(start, walk.pathOf(names), [&](const TreeWalk::Visit& v) {
    Result<bool> keyMatch = criteria.key_matches(v.key);
    if (!keyMatch) undecided(keyMatch.status(), "the key's name");
    if (!*keyMatch) return true;
    std::string& o = out.text;
    if (!values) {
      if (json) {
        JsonWriter j(o);
        j.beginObject().key("match").string("key");
        keyMembers(j, v.key, v.path);
        j.endObject();
      } else {
        o += v.path;
      }
      o += '\n';
      return !out.failed();
    }
    for (const Value& value : v.values) {
      if (!walk.chargeData(criteria.data ? std::min(value.size(), SearchCriteria::MAX_DATA_BYTES) : 0))
        return false;
      Result<bool> m = criteria.value_matches(value);
      if (!m) undecided(m.status(), "a value");
      if (!*m) continue;
      if (json) {
        JsonWriter j(o);
        j.beginObject().key("match").string("value").key("path").string(v.path);
        valueMembers(j, value, value.data());
        j.endObject();
      } else {
        o += v.path;
        o += '\t';
        const std::string name = value.name();
        if (name.empty())
          o += "(default)";
        else
          appendEscaped(o, name, Escape::printable);
      }
      o += '\n';
    }
    return !out.failed();
  });
  if (tooLarge) {
    warn(std::to_string(tooLarge) + " names or data were too long for the pattern to search completely");
  }
  return out.finish(complete && !tooLarge,
                    "the search is incomplete: parts of the hive could not be read or searched");
}

}  // namespace

const Command FIND_COMMAND = {
    "find",
    "find [options] HIVE [KEYPATH] [--key RE] [--value RE] [--data RE] [--type T]... [--since T] [--until T]",
    "find keys and values by name, data, type or last write time",
    "Walks KEYPATH's tree (the whole hive when omitted) and prints what matches.\n"
    "Without --value, --data or --type it finds keys: those whose name matches\n"
    "--key and whose last write time lies within --since and --until; it prints\n"
    "their paths. With any of them it finds values of such keys: those whose name\n"
    "matches --value, whose data matches --data and whose type is one of --type;\n"
    "it prints the key's path, a TAB and the value's name ((default) for the\n"
    "unnamed value).\n"
    "  --key RE, --value RE  a regular expression matched anywhere in the name\n"
    "  --data RE        matched against the data as text: strings as they are\n"
    "                   (REG_MULTI_SZ string by string), numbers in decimal and\n"
    "                   as 0x-hex, anything else as lowercase hex without blanks;\n"
    "                   the first MiB of data\n"
    "  --type T         REG_SZ, sz, dword, ... or a number; repeatable\n"
    "  --since T, --until T  last write at or after / at or before T, a UTC time\n"
    "                   like 2024-03-01 or 2024-03-01T12:30:00.5\n"
    "  --case-sensitive letter case counts (it is ignored by default)\n"
    "  --json           JSON Lines: {\"match\": \"key\", ...key} or\n"
    "                   {\"match\": \"value\", \"path\", ...value}\n"
    "Expressions: ECMAScript syntax without back-references and lookaround:\n"
    ". [...] [^...] \\d \\w \\s \\D \\W \\S \\b \\B ^ $ ( ) (?: ) | * + ? {n,m}; they run\n"
    "in time linear in the text.\n",
    "--key= --value= --data= --type=* --since= --until= --case-sensitive --json",
    {1, 2},
    Access::read,
    runFind};

}  // namespace hivekit::cli
