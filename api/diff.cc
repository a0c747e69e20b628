// diff: two key trees walked side by side.
//
// One frame per level of the walk holds the subkeys of the pair of keys
// being compared, sorted by upper-cased name, and merges them like two
// sorted lists: memory is one key's lists per level, never a tree.
#include "hivekit/diff.h"

#include <algorithm>
#include <cstring>
#include <unordered_map>
#include <vector>

#include "api/core.h"
#include "hive/util/util.h"
#include "platform/string.h"

namespace hivekit {

using namespace detail;
using Libraries::Files::Hive::Util;

namespace {

std::u16string upper(std::u16string name) {
  for (char16_t& c : name) c = Platform::String::upcase(c);
  return name;
}

// A subkey in the merge: its upper-cased name and its place in its list,
// which breaks ties between duplicate names.
struct Entry {
  std::u16string upper;
  Key key;
  std::uint32_t index;
};

struct Frame {
  std::vector<Entry> a, b;  // a stays empty below an added key
  size_t i = 0, j = 0;
  std::string path;
  std::uint32_t aOffset = 0, bOffset = 0;
};

// What the walk may read of a hive: like the listings, one key or value
// per 8 bytes of what the reader can reach, and twice its bytes of data.
std::uint64_t reach(const Key& key) {
  Call call(Access::ref(key));
  if (!call.ok()) return 0;
  return std::max<std::uint64_t>(call.hive().hiveLength(), call.hive().fileLength());
}

class DiffWalk {
 public:
  DiffWalk(const Key& a, const Key& b, const DiffCallback& each, const DiffOptions& options)
      : _each(each), _options(options) {
    const std::uint64_t la = reach(a), lb = reach(b);
    _maxItems = (la + lb) / 8 + 8192;
    _maxBytes = 2 * (la + lb) + (2u << 20);
  }

  Status run(const Key& a, const Key& b) {
    if (!a || !b) return Status(Code::invalid_handle, "diff of a null key");
    if (!visitPair(a, b, "")) return result();
    while (!_stack.empty() && !_stopped) {
      Frame& top = _stack.back();
      const bool aLeft = top.i < top.a.size(), bLeft = top.j < top.b.size();
      if (!aLeft && !bLeft) {
        _stack.pop_back();
        continue;
      }
      int order = !aLeft ? 1 : !bLeft ? -1 : top.a[top.i].upper.compare(top.b[top.j].upper);
      bool go = true;
      // The same key renamed in letter case: removed, then added.
      if (order == 0 && _options.exact_names && top.a[top.i].key.name_utf16() != top.b[top.j].key.name_utf16())
        order = -1;
      if (order < 0) {
        const Key removed = top.a[top.i++].key;
        Difference d;
        d.kind = Difference::Kind::key_removed;
        d.path = childPath(top.path, removed);
        d.a_key = removed;
        go = charge(1) && emit(d);
      } else if (order > 0) {
        const Key added = top.b[top.j++].key;
        go = visitAdded(added, childPath(top.path, added));
      } else {
        const Key ka = top.a[top.i++].key, kb = top.b[top.j++].key;
        go = visitPair(ka, kb, childPath(top.path, kb));
      }
      if (!go) break;
    }
    return result();
  }

 private:
  Status result() const {
    if (_budgetExceeded)
      return Status(Code::corrupt, "diff stopped at " + quoted(_budgetPath) +
                                       ": the lists name keys and values more often than the hives can hold");
    return _problem;
  }

  void problem(const std::string& message) {
    if (_problem.ok()) _problem = Status(Code::corrupt, message);
  }

  static std::string childPath(const std::string& parent, const Key& key) {
    return parent.empty() ? key.name() : parent + "\\" + key.name();
  }

  bool charge(std::uint64_t items, std::uint64_t bytes = 0, const std::string* where = nullptr) {
    _items += items;
    _bytes += bytes;
    if (_items <= _maxItems && _bytes <= _maxBytes) return true;
    _budgetExceeded = true;
    if (where) _budgetPath = *where;
    return false;
  }

  bool emit(const Difference& d) {
    if (!_each(d)) _stopped = true;
    return !_stopped;
  }

  // The subkeys of `key` sorted by upper-cased name.
  std::vector<Entry> sortedSubkeys(const Key& key, const std::string& path) {
    std::vector<Entry> out;
    Subkeys list = key.subkeys();
    std::uint32_t index = 0;
    for (const Key& k : list) out.push_back({upper(k.name_utf16()), k, index++});
    if (!list.status().ok() || list.skipped())
      problem("subkeys of " + quoted(path.empty() ? "\\" : path) + " could not be read" +
              (list.status().ok() ? std::string() : ": " + list.status().message()));
    std::sort(out.begin(), out.end(), [](const Entry& x, const Entry& y) {
      return x.upper != y.upper ? x.upper < y.upper : x.index < y.index;
    });
    return out;
  }

  // Whether a frame for these keys may go on the stack: not 512 levels
  // down, not a key already on the path (a cycle in a damaged hive).
  bool mayDescend(std::uint32_t aOffset, std::uint32_t bOffset, const std::string& path) {
    if (_stack.size() >= Util::MAX_TREE_DEPTH) {
      problem("key tree deeper than 512 levels at " + quoted(path) + "; not compared below it");
      return false;
    }
    for (const Frame& f : _stack)
      if ((aOffset && f.aOffset == aOffset) || (bOffset && f.bOffset == bOffset)) {
        problem("subkey " + quoted(path) + " leads back to a key above it (cycle); not compared below it");
        return false;
      }
    return true;
  }

  struct NamedValue {
    std::u16string upper;  // the name as values pair up by
    Value value;
  };

  std::vector<NamedValue> readValues(const Key& key, const std::string& path) {
    std::vector<NamedValue> out;
    Values list = key.values();
    for (const Value& v : list) out.push_back({_options.exact_names ? v.name_utf16() : upper(v.name_utf16()), v});
    if (!list.status().ok() || list.skipped())
      problem("values of " + quoted(path.empty() ? "\\" : path) + " could not be read" +
              (list.status().ok() ? std::string() : ": " + list.status().message()));
    return out;
  }

  // Reports the key's own change and its values' differences, then stacks
  // its subkeys for the merge.
  bool visitPair(const Key& a, const Key& b, const std::string& path) {
    if (!charge(2, 0, &path)) return false;
    Difference d;
    d.kind = Difference::Kind::key_changed;
    d.path = path;
    d.a_key = a;
    d.b_key = b;
    d.last_write_changed = _options.last_write && a.last_write() != b.last_write();
    d.class_name_changed = _options.class_names && a.class_name() != b.class_name();
    if ((d.last_write_changed || d.class_name_changed) && !emit(d)) return false;

    const std::vector<NamedValue> va = readValues(a, path), vb = readValues(b, path);
    std::unordered_map<std::u16string, size_t> inA, inB;
    for (size_t i = 0; i < va.size(); ++i) inA.emplace(va[i].upper, i);
    for (size_t i = 0; i < vb.size(); ++i) inB.emplace(vb[i].upper, i);
    for (size_t i = 0; i < va.size(); ++i) {
      if (!charge(1, 0, &path)) return false;
      if (inA.at(va[i].upper) != i) continue;  // a duplicate name: the first one counts
      Difference v;
      v.path = path;
      v.a_key = a;
      v.b_key = b;
      v.a_value = va[i].value;
      const auto other = inB.find(va[i].upper);
      if (other == inB.end()) {
        v.kind = Difference::Kind::value_removed;
        if (!emit(v)) return false;
        continue;
      }
      v.kind = Difference::Kind::value_changed;
      v.b_value = vb[other->second].value;
      if (!compareValues(v, path)) return false;
      if ((v.type_changed || v.data_changed) && !emit(v)) return false;
    }
    for (size_t j = 0; j < vb.size(); ++j) {
      if (!charge(1, 0, &path)) return false;
      if (inB.at(vb[j].upper) != j || inA.count(vb[j].upper)) continue;
      Difference v;
      v.kind = Difference::Kind::value_added;
      v.path = path;
      v.a_key = a;
      v.b_key = b;
      v.b_value = vb[j].value;
      if (!emit(v)) return false;
    }

    if (!mayDescend(a.offset(), b.offset(), path)) return true;
    Frame f;
    f.a = sortedSubkeys(a, path);
    f.b = sortedSubkeys(b, path);
    f.path = path;
    f.aOffset = a.offset();
    f.bOffset = b.offset();
    _stack.push_back(std::move(f));
    return true;
  }

  bool compareValues(Difference& v, const std::string& path) {
    v.type_changed = v.a_value.type() != v.b_value.type();
    Result<Bytes> da = v.a_value.data(), db = v.b_value.data();
    if (!charge(0, da->size() + db->size(), &path)) return false;
    if (!da.ok() || !db.ok()) {
      problem("the data of value " + quoted((da.ok() ? v.b_value : v.a_value).name()) + " of " +
              quoted(path.empty() ? "\\" : path) + " could not be read");
      return true;
    }
    v.data_changed = da->size() != db->size() || (da->size() && std::memcmp(da->data(), db->data(), da->size()));
    return true;
  }

  // A key only in b: it, its values, and (through its frame) everything
  // below it.
  bool visitAdded(const Key& b, const std::string& path) {
    if (!charge(1, 0, &path)) return false;
    Difference d;
    d.kind = Difference::Kind::key_added;
    d.path = path;
    d.b_key = b;
    if (!emit(d)) return false;
    for (const NamedValue& v : readValues(b, path)) {
      if (!charge(1, 0, &path)) return false;
      Difference a;
      a.kind = Difference::Kind::value_added;
      a.path = path;
      a.b_key = b;
      a.b_value = v.value;
      if (!emit(a)) return false;
    }
    if (!mayDescend(0, b.offset(), path)) return true;
    Frame f;
    f.b = sortedSubkeys(b, path);
    f.path = path;
    f.bOffset = b.offset();
    _stack.push_back(std::move(f));
    return true;
  }

  const DiffCallback& _each;
  const DiffOptions& _options;
  std::vector<Frame> _stack;
  std::uint64_t _items = 0, _bytes = 0, _maxItems = 0, _maxBytes = 0;
  bool _budgetExceeded = false, _stopped = false;
  std::string _budgetPath;
  Status _problem;
};

}  // namespace

Status diff(const Key& a, const Key& b, const DiffCallback& each, const DiffOptions& options) {
  DiffWalk walk(a, b, each, options);
  return walk.run(a, b);
}

}  // namespace hivekit
