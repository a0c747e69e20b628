// hivekit diff: keys and values added, removed and changed between two
// hives, as text, JSON Lines, or a registry text patch that 'hivekit
// import' applies to the first hive to make it equal the second.
#include <hivekit/hivekit.h>

#include <atomic>

#include "commands.h"
#include "open_hive.h"
#include "progress.h"
#include "records.h"
#include "text.h"

namespace hivekit::cli {
namespace {

enum class Format { text, json, reg };

const char* changeName(Difference::Kind k) {
  switch (k) {
    case Difference::Kind::key_added:
    case Difference::Kind::value_added:
      return "added";
    case Difference::Kind::key_removed:
    case Difference::Kind::value_removed:
      return "removed";
    default:
      return "changed";
  }
}

bool isValueKind(Difference::Kind k) {
  return k == Difference::Kind::value_added || k == Difference::Kind::value_removed ||
         k == Difference::Kind::value_changed;
}

std::string printable(const std::string& s) {
  std::string out;
  appendEscaped(out, s, Escape::printable);
  return out;
}

// "REG_SZ "text"", for a line of the text form.
std::string shown(const Value& v) {
  Result<Bytes> data = v.data();
  return typeName(v.type()) + " " + (data ? preview(v, *data) : "(data unreadable)");
}

class DiffPrinter {
 public:
  DiffPrinter(Format format, Output& out, std::string prefix, std::string regPrefix)
      : _format(format), _out(out), _prefix(std::move(prefix)), _regPrefix(std::move(regPrefix)) {
    if (_format == Format::reg) _reg.header();
  }

  bool operator()(const Difference& d) {
    ++count;
    const std::string path = d.path.empty() ? _prefix : childPath(_prefix, d.path);
    switch (_format) {
      case Format::text:
        text(d, path);
        break;
      case Format::json:
        json(d, path);
        break;
      case Format::reg:
        reg(d);
        break;
    }
    _out.maybeFlush();
    return !_out.failed();
  }

  void finish() {
    if (_format != Format::reg) return;
    _reg.finish();
    _out.put(_reg.text());
    _reg.clear();
  }

  std::atomic<uint64_t> count{0};
  uint64_t keyOnlyChanges = 0;  // what registry text cannot carry

 private:
  void text(const Difference& d, const std::string& path) {
    std::string& o = _out.text;
    const char mark = d.kind == Difference::Kind::key_added || d.kind == Difference::Kind::value_added ? '+'
                      : d.kind == Difference::Kind::key_removed || d.kind == Difference::Kind::value_removed
                          ? '-'
                          : '~';
    o += mark;
    o += isValueKind(d.kind) ? " value " : " key   ";
    o += printable(path);
    if (d.kind == Difference::Kind::key_changed) {
      if (d.last_write_changed) {
        o += "  last write ";
        o += to_iso8601(d.a_key.last_write());
        o += " -> ";
        o += to_iso8601(d.b_key.last_write());
      }
      if (d.class_name_changed) {
        o += "  class \"";
        o += printable(d.a_key.class_name());
        o += "\" -> \"";
        o += printable(d.b_key.class_name());
        o += '"';
      }
    } else if (isValueKind(d.kind)) {
      const std::string name = (d.b_value ? d.b_value : d.a_value).name();
      if (name.empty()) {
        o += "  (default)";
      } else {
        o += "  \"";
        o += printable(name);
        o += '"';
      }
      if (d.kind != Difference::Kind::value_removed) {
        o += "  ";
        if (d.kind == Difference::Kind::value_changed) {
          o += shown(d.a_value);
          o += " -> ";
        }
        o += shown(d.b_value);
      }
    }
    o += '\n';
  }

  void json(const Difference& d, const std::string& path) {
    std::string& o = _out.text;
    JsonWriter j(o);
    const bool value = isValueKind(d.kind);
    j.beginObject().key("change").string(changeName(d.kind)).key("kind").string(value ? "value" : "key");
    j.key("path").string(path);
    if (value) {
      j.key("name").string((d.b_value ? d.b_value : d.a_value).name());
      if (d.kind == Difference::Kind::value_changed) {
        j.key("changed").beginArray();
        if (d.type_changed) j.string("type");
        if (d.data_changed) j.string("data");
        j.endArray();
      }
      if (d.a_value) valueObject(j.key("a"), d.a_value, d.a_value.data());
      if (d.b_value) valueObject(j.key("b"), d.b_value, d.b_value.data());
    } else {
      if (d.kind == Difference::Kind::key_changed) {
        j.key("changed").beginArray();
        if (d.last_write_changed) j.string("last_write");
        if (d.class_name_changed) j.string("class_name");
        j.endArray();
      }
      if (d.kind != Difference::Kind::key_added) {
        j.key("a").beginObject();
        keyMembers(j, d.a_key, path);
        j.endObject();
      }
      if (d.kind != Difference::Kind::key_removed) {
        j.key("b").beginObject();
        keyMembers(j, d.b_key, path);
        j.endObject();
      }
    }
    j.endObject();
    o += '\n';
  }

  void reg(const Difference& d) {
    const std::string path = d.path.empty() ? _regPrefix : _regPrefix + "\\" + d.path;
    switch (d.kind) {
      case Difference::Kind::key_removed:
        _reg.deleted_key(path);
        _section.clear();
        _inSection = false;
        break;
      case Difference::Kind::key_added:
        _reg.key(path);
        _section = path;
        _inSection = true;
        break;
      case Difference::Kind::key_changed:
        ++keyOnlyChanges;
        break;
      default: {
        if (!_inSection || _section != path) {
          _reg.key(path);
          _section = path;
          _inSection = true;
        }
        if (d.kind == Difference::Kind::value_removed) {
          _reg.deleted_value(d.a_value.name());
        } else {
          Result<Bytes> data = d.b_value.data();
          _reg.value(d.b_value.name(), d.b_value.type(), *data);
        }
      }
    }
    _out.put(_reg.text());
    _reg.clear();
  }

  Format _format;
  Output& _out;
  std::string _prefix, _regPrefix;
  RegTextWriter _reg;
  std::string _section;
  bool _inSection = false;
};

int runDiff(Context& ctx) {
  Format format = Format::text;
  if (ctx.args.has("--json") && ctx.args.has("--reg"))
    return usageError(ctx.command, "--json or --reg, not both");
  if (ctx.args.has("--json")) format = Format::json;
  if (ctx.args.has("--reg")) format = Format::reg;
  DiffOptions options;
  options.last_write = ctx.args.has("--times");
  // A patch gives a key renamed in letter case its new name by removing
  // and adding it; registry text has no rename.
  options.exact_names = format == Format::reg;

  Hive a, b;
  if (!openHive(ctx, ctx.operand(0), a) || !openHive(ctx, ctx.operand(1), b)) return EXIT_FAILED;
  const std::string keyPath = ctx.operandCount() > 2 ? ctx.operand(2) : "";
  Key ka, kb;
  std::vector<std::string> names, namesB;
  if (!findKey(a, keyPath, ka, names) || !findKey(b, keyPath, kb, namesB)) return EXIT_FAILED;
  std::string regPrefix = "ROOT";
  for (const std::string& n : names) regPrefix += "\\" + n;

  Output out;
  DiffPrinter printer(format, out, rawPath(names), regPrefix);
  Status compared;
  {
    ProgressThread progress("diff", [&] { return std::to_string(printer.count.load()) + " differences"; });
    compared = diff(
        ka, kb, [&](const Difference& d) { return printer(d); }, options);
  }
  printer.finish();
  if (!out.flush()) return out.reportFailure();
  if (printer.keyOnlyChanges)
    warn(std::to_string(printer.keyOnlyChanges) +
         " keys differ only in class name or last write time, which registry text cannot carry");
  return compared ? EXIT_OK : fail("the comparison is incomplete", compared);
}

}  // namespace

const Command DIFF_COMMAND = {
    "diff",
    "diff [options] A B [KEYPATH] [--times] [--json | --reg]",
    "compare two hives: keys and values added, removed and changed",
    "Compares the tree of KEYPATH (the root when omitted) in hive A with the same\n"
    "key's tree in hive B. Keys and values pair up by name, letter case aside.\n"
    "Reported: keys added (with everything below them), keys removed (once, for\n"
    "all below them), keys whose class name changed, values added, removed, and\n"
    "changed in type or data. One line each, in the order of a walk of both trees\n"
    "(subkeys in name order):\n"
    "  + key   PATH                  - key   PATH\n"
    "  + value PATH  NAME  TYPE DATA  - value PATH  NAME\n"
    "  ~ value PATH  NAME  TYPE DATA -> TYPE DATA\n"
    "  ~ key   PATH  class \"A\" -> \"B\"   (and last write A -> B with --times)\n"
    "  --times  also report keys whose last write times differ\n"
    "  --json   JSON Lines: {\"change\": added|removed|changed, \"kind\": key|value,\n"
    "           \"path\", \"name\" (values), \"changed\": [...], \"a\", \"b\"}\n"
    "  --reg    a registry text patch instead, as 'hivekit export' writes (UTF-16LE):\n"
    "           [-PATH] for removed keys, \"name\"=- for removed values, the full\n"
    "           value for added and changed ones, under ROOT\\KEYPATH; 'hivekit\n"
    "           import A PATCH' then makes A's tree equal B's (but for class names\n"
    "           and last write times, which registry text cannot carry); a key or\n"
    "           value renamed in letter case alone is removed and added again\n"
    "The exit status is 0 when both trees were compared completely, differences\n"
    "or not; 1 when parts could not be read (what could be compared is shown).\n",
    "--times --json --reg",
    {2, 3},
    Access::read,
    runDiff};

}  // namespace hivekit::cli
