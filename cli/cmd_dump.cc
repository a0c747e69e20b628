// hivekit dump: the canonical listing of a hive, for comparing readers.
//
//   K <TAB> path <TAB> last write (16 hex digits) <TAB> subkeys <TAB> values
//   V <TAB> path <TAB> value name <TAB> type <TAB> size <TAB> data
//
// Keys in pre-order (a key, its values in value-list order, then its
// subkeys in subkey-list order). Data is lowercase hex up to 32 bytes,
// otherwise "sha256:" and the digest. Names are escaped as Escape::listing
// says.
#include <hivekit/hivekit.h>

#include <algorithm>
#include <unordered_map>

#include "commands.h"
#include "open_hive.h"
#include "sha256.h"
#include "text.h"
#include "walk.h"

namespace hivekit::cli {
namespace {

constexpr size_t MAX_DEPTH = 512;
constexpr size_t MAX_INLINE_DATA = 32;

// One key on the current path: what is left to visit below it.
struct Frame {
  std::vector<Key> subkeys;
  size_t next = 0;
  size_t pathLength = 0;  // of the path string up to this key
  uint32_t offset = 0;    // key record, for the cycle check
};

class Dumper {
 public:
  Dumper(const Hive& hive, const std::string& path) : _budget(hive, path) {}

  // False when something could not be read; the listing then holds
  // everything that could.
  bool run(const Key& root) {
    _path.assign(1, '\\');
    if (!enter(root, nullptr)) return false;
    while (!_stack.empty()) {
      Frame& top = _stack.back();
      if (top.next == top.subkeys.size()) {
        _stack.pop_back();
        continue;
      }
      const Key child = top.subkeys[top.next++];
      const size_t parentLength = top.pathLength;
      _path.resize(parentLength);
      if (parentLength > 1) _path += '\\';
      appendEscaped(_path, child.name(), Escape::listing);
      if (_stack.size() >= MAX_DEPTH) {
        report("key nesting deeper than " + std::to_string(MAX_DEPTH) + " levels at " + _path +
               "; not descending");
        continue;
      }
      const uint32_t offset = child.offset();
      if (std::any_of(_stack.begin(), _stack.end(), [&](const Frame& f) { return f.offset == offset; })) {
        report("subkey " + _path + " leads back to a key above it (cycle); not descending");
        continue;
      }
      // A key listed under several parents (or twice in one list) is
      // listed each time, but its subtree only once: otherwise a chain of
      // lists that each name the next key twice doubles the work per level.
      auto known = _subkeyCounts.find(offset);
      if (!enter(child, known != _subkeyCounts.end() ? &known->second : nullptr)) break;
      _out.maybeFlush();
    }
    return _ok && _out.flush();
  }

  const Output& output() const { return _out; }

 private:
  // A warning, after the listing written so far, so that the two read in
  // order on a terminal.
  void report(const std::string& message) {
    _out.flush();
    warn(message);
    _ok = false;
  }

  // The listing has read more than the hive can hold: it stops here.
  bool overBudget() {
    report(
        "the lists of the hive name keys and values more often than a hive of its size can hold; "
        "listing stopped at " +
        _path);
    return false;
  }

  // Writes the key's line and its values, then pushes it with its subkeys
  // (none when its subtree was listed before: `listedBefore` is then the
  // number of subkeys it had, which is all that is shown again). False
  // when the listing must stop.
  bool enter(const Key& key, const size_t* listedBefore) {
    if (!_budget.charge(1)) return overBudget();
    Frame frame;
    frame.offset = key.offset();
    frame.pathLength = _path.size();
    uint64_t badKeys = 0, badValues = 0;
    if (!listedBefore) {
      Subkeys subkeys = key.subkeys();
      for (const Key& k : subkeys) frame.subkeys.push_back(k);
      // A list that cannot be read at all leaves every subkey the key's
      // record counts unread.
      badKeys = subkeys.status().ok() ? subkeys.skipped() : key.subkey_count();
      _subkeyCounts[frame.offset] = frame.subkeys.size();
    }
    const size_t subkeys = listedBefore ? *listedBefore : frame.subkeys.size();
    Values values = key.values();
    _values.clear();
    for (const Value& v : values) _values.push_back(v);
    badValues = values.status().ok() ? values.skipped() : key.value_count();

    std::string& o = _out.text;
    o += "K\t";
    o += _path;
    o += '\t';
    appendHexFixed(o, key.last_write(), 16);
    o += '\t';
    appendDecimal(o, subkeys);
    o += '\t';
    appendDecimal(o, _values.size());
    o += '\n';
    if (badKeys || badValues) {
      report(_path + ": " + std::to_string(badKeys) + " subkeys and " + std::to_string(badValues) +
             " values could not be read");
    }
    for (const Value& v : _values) {
      // On failure the data holds what could be read.
      Result<Bytes> data = v.data();
      if (!_budget.charge(1, data->size())) return overBudget();
      if (!data.ok()) report(_path + ": the data of a value could not be read completely");
      o += "V\t";
      o += _path;
      o += '\t';
      appendEscaped(o, v.name(), Escape::listing);
      o += '\t';
      appendDecimal(o, static_cast<uint32_t>(v.type()));
      o += '\t';
      appendDecimal(o, data->size());
      o += '\t';
      if (data->size() <= MAX_INLINE_DATA) {
        appendHexBytes(o, data->data(), data->size());
      } else {
        o += "sha256:";
        _sha.update(data->data(), data->size());
        _sha.appendHexDigest(o);
      }
      o += '\n';
    }
    if (listedBefore && subkeys != 0)
      report("subkey " + _path + " is listed more than once; its subkeys are listed the first time only");
    _stack.push_back(std::move(frame));
    return true;
  }

  Output _out;
  std::string _path;
  std::vector<Frame> _stack;
  std::vector<Value> _values;
  // Number of subkeys of each key (by record offset) whose subtree has been listed.
  std::unordered_map<uint32_t, size_t> _subkeyCounts;
  WalkBudget _budget;
  Sha256 _sha;
  bool _ok = true;
};

int runDump(Context& ctx) {
  Hive hive;
  if (!openHive(ctx, ctx.operand(0), hive)) return EXIT_FAILED;
  Dumper dumper(hive, ctx.operand(0));
  if (dumper.run(hive.root())) return EXIT_OK;
  if (dumper.output().failed()) return dumper.output().reportFailure();
  return fail("the listing is incomplete: parts of the hive could not be read");
}

}  // namespace

const Command DUMP_COMMAND = {
    "dump",
    "dump [options] HIVE",
    "write the canonical listing of every key and value",
    "Writes one line per key and per value, fields separated by a TAB, for\n"
    "comparing with the listing of another reader:\n"
    "  K  path  last-write-time  number-of-subkeys  number-of-values\n"
    "  V  path  value-name  type  data-size  data\n"
    "Keys come depth first: a key, its values in value-list order, then its subkeys\n"
    "in subkey-list order. The root's path is \\, below it \\Name\\Name. The last\n"
    "write time is the FILETIME in 16 lowercase hex digits; the type and size are\n"
    "decimal; data up to 32 bytes is lowercase hex, longer data 'sha256:' and the\n"
    "hex digest. In names, characters below U+0020, U+007F, \\, % and unpaired\n"
    "surrogates are written %XXXX; all text is UTF-8.\n"
    "A cycle in the key tree or nesting beyond 512 levels is reported and not\n"
    "followed, and a key listed more than once has its subkeys listed the first\n"
    "time only; lists that name keys and values more often than a hive of its\n"
    "size can hold stop the listing; anything unreadable makes the exit status 1\n"
    "after the listing.\n",
    {},
    1,
    1,
    false,
    runDump,
};

}  // namespace hivekit::cli
