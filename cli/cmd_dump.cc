// hivekit dump: the canonical listing of a hive, for comparing readers.
//
//   K <TAB> path <TAB> last write (16 hex digits) <TAB> subkeys <TAB> values
//   V <TAB> path <TAB> value name <TAB> type <TAB> size <TAB> data
//
// Keys in pre-order (a key, its values in value-list order, then its
// subkeys in subkey-list order). Data is lowercase hex up to 32 bytes,
// otherwise "sha256:" and the digest. Names are escaped as in
// appendEscapedName.
#include <algorithm>
#include <unordered_map>

#include "cli/commands.h"
#include "cli/open_hive.h"
#include "cli/sha256.h"
#include "cli/text.h"
#include "cli/walk.h"
#include "hive/key/key_obj.h"
#include "hive/util/util.h"

namespace hivekit::cli {
namespace {

using Libraries::Files::Hive::KeyObj;
using Libraries::Files::Hive::Util;

constexpr size_t MAX_DEPTH = 512;
constexpr size_t MAX_INLINE_DATA = 32;

// One key on the current path: what is left to visit below it.
struct Frame {
  std::vector<KeyRef> subkeys;
  size_t next = 0;
  size_t pathLength = 0;  // of the path string up to this key
  u32 offset = 0;         // nk record, for the cycle check
};

class Dumper {
 public:
  explicit Dumper(const RegistryHiveObj& hive) { _budget.limitBy(hive); }

  // False when something could not be read; the listing then holds
  // everything that could.
  bool run(const KeyRef& root) {
    _path.assign(1, '\\');
    if (!enter(root, 0, nullptr)) return false;
    while (!_stack.empty()) {
      Frame& top = _stack.back();
      if (top.next == top.subkeys.size()) {
        _stack.pop_back();
        continue;
      }
      // Take the subkey out of the list: its objects (and their loaded
      // lists) are released as soon as its subtree is done.
      KeyRef child = std::move(top.subkeys[top.next++]);
      size_t parentLength = top.pathLength;
      _path.resize(parentLength);
      if (parentLength > 1) _path += '\\';
      Ref<String> name = child->name();
      if (name) appendEscapedName(_path, name->units());
      if (_stack.size() >= MAX_DEPTH) {
        report("key nesting deeper than " + std::to_string(MAX_DEPTH) + " levels at " + _path +
               "; not descending");
        continue;
      }
      u32 offset = offsetOf(child);
      if (offset != 0 &&
          std::any_of(_stack.begin(), _stack.end(), [&](const Frame& f) { return f.offset == offset; })) {
        report("subkey " + _path + " leads back to a key above it (cycle); not descending");
        continue;
      }
      // A key listed under several parents (or twice in one list) is
      // listed each time, but its subtree only once: otherwise a chain of
      // lists that each name the next key twice doubles the work per level.
      auto known = offset != 0 ? _subkeyCounts.find(offset) : _subkeyCounts.end();
      if (!enter(child, offset, known != _subkeyCounts.end() ? &known->second : nullptr)) break;
      _out.maybeFlush();
    }
    return _ok && _out.flush();
  }

  bool outputFailed() const { return _out.failed(); }

 private:
  // A warning, after the listing written so far, so that the two read in
  // order on a terminal.
  void report(const std::string& message) {
    _out.flush();
    warn(message);
    _ok = false;
  }

  static u32 offsetOf(const KeyRef& key) {
    KeyObj* k = dynamic_cast<KeyObj*>(key.get());
    return k ? k->offset() : 0;
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
  bool enter(const KeyRef& key, u32 offset, const size_t* listedBefore) {
    if (!_budget.charge(1)) return overBudget();
    Frame frame;
    frame.offset = offset ? offset : offsetOf(key);
    frame.pathLength = _path.size();
    size_t badKeys = 0, badValues = 0;
    if (!listedBefore) {
      listSubkeys(key, frame.subkeys, badKeys);
      if (frame.offset != 0) _subkeyCounts[frame.offset] = frame.subkeys.size();
    }
    const size_t subkeys = listedBefore ? *listedBefore : frame.subkeys.size();
    listValues(key, _values, badValues);
    std::string& o = _out.text;
    o += "K\t";
    o += _path;
    o += '\t';
    appendHexFixed(o, key->lastWriteTime(), 16);
    o += '\t';
    appendDecimal(o, subkeys);
    o += '\t';
    appendDecimal(o, _values.size());
    o += '\n';
    if (badKeys || badValues) {
      report(_path + ": " + std::to_string(badKeys) + " subkeys and " + std::to_string(badValues) +
             " values could not be read");
    }
    for (const ValueRef& v : _values) {
      bool complete = readValueData(v, _data);
      if (!_budget.charge(1, _data.size())) {
        _values.clear();
        return overBudget();
      }
      if (!complete) {
        report(_path + ": the data of a value could not be read completely");
      }
      o += "V\t";
      o += _path;
      o += '\t';
      Ref<String> name = v->name();
      if (name) appendEscapedName(o, name->units());
      o += '\t';
      appendDecimal(o, v->type());
      o += '\t';
      appendDecimal(o, _data.size());
      o += '\t';
      if (_data.size() <= MAX_INLINE_DATA) {
        appendHexBytes(o, _data.data(), _data.size());
      } else {
        o += "sha256:";
        _sha.update(_data.data(), _data.size());
        _sha.appendHexDigest(o);
      }
      o += '\n';
    }
    _values.clear();
    if (listedBefore && subkeys != 0)
      report("subkey " + _path + " is listed more than once; its subkeys are listed the first time only");
    _stack.push_back(std::move(frame));
    return true;
  }

  Output _out;
  std::string _path;
  std::vector<Frame> _stack;
  std::vector<ValueRef> _values;
  // Number of subkeys of each key (by nk offset) whose subtree has been listed.
  std::unordered_map<u32, size_t> _subkeyCounts;
  Util::WalkBudget _budget;
  std::vector<u8> _data;
  Sha256 _sha;
  bool _ok = true;
};

int runDump(Context& ctx) {
  OpenedHive h;
  if (!openHive(ctx, ctx.operand(0), h)) return EXIT_FAILED;
  ctx.beginOperation();
  KeyRef root = h.file->root();
  if (!root) return fail(ctx, "cannot read the root key");
  Dumper dumper(*h.hive);
  if (dumper.run(root)) return EXIT_OK;
  if (dumper.outputFailed()) return failWithCode(ctx, "cannot write to standard output", 0);
  return fail(ctx, "the listing is incomplete: parts of the hive could not be read");
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
