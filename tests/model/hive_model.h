// An in-memory model of a hive's tree, and two readers that turn a hive
// into the same shape for comparison: one through the library's Key and
// Value interfaces, one straight from the file's bytes. The byte reader is
// written from the on-disk layout alone and also checks what the library
// reader does not: hbins fully covered by records, every used record owned
// by exactly one key or value (nothing leaked), list hashes, parent
// offsets, counts, and security record reference counts.
#pragma once

#include <algorithm>
#include <map>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "hive/format/format.h"
#include "hive/interfaces.h"
#include "platform/string.h"
#include "tests/support/hives.h"

namespace hivekit::model {

using Platform::L16;
using Platform::L32;
using Platform::Ref;
using Platform::s32;
using Platform::String;
using Platform::u16;
using Platform::u32;
using Platform::u64;
using Platform::u8;
using test::str;
namespace Cfg = Interfaces::Config::Hive;
namespace Hive = Libraries::Files::Hive;

// Names compare by their upper-cased UTF-16 units, as subkey lists are sorted.
inline int compareNames(const std::u16string& a, const std::u16string& b) {
  for (size_t i = 0; i < a.size() && i < b.size(); ++i) {
    const char16_t x = String::upcase(a[i]), y = String::upcase(b[i]);
    if (x != y) return x < y ? -1 : 1;
  }
  return a.size() == b.size() ? 0 : a.size() < b.size() ? -1 : 1;
}
struct NameOrder {
  bool operator()(const std::u16string& a, const std::u16string& b) const { return compareNames(a, b) < 0; }
};
inline std::string utf8(const std::u16string& s) {
  return Platform::utf16ToUtf8(s);
}

struct MValue {
  std::u16string name;
  u32 type = 0;
  std::vector<u8> data;
};

// Subkeys in list order, values in creation order.
struct MKey {
  std::u16string name;
  std::map<std::u16string, MKey, NameOrder> subkeys;
  std::vector<MValue> values;
};

// The subkey or value with this name (any case), or null.
inline MKey* findKey(MKey& k, const std::u16string& name) {
  auto at = k.subkeys.find(name);
  return at == k.subkeys.end() ? nullptr : &at->second;
}
inline MValue* findValue(MKey& k, const std::u16string& name) {
  for (MValue& v : k.values)
    if (compareNames(v.name, name) == 0) return &v;
  return nullptr;
}
inline MKey& insertKey(MKey& parent, const std::u16string& name) {
  return parent.subkeys.emplace(name, MKey{name, {}, {}}).first->second;
}

// A hive as text, one line per key and value, depth first in list order;
// data as size and hash. The readers below produce the same lines.
using Listing = std::vector<std::string>;

inline size_t hashOf(const std::vector<u8>& d) {
  return std::hash<std::string_view>{}(std::string_view(reinterpret_cast<const char*>(d.data()), d.size()));
}
inline std::string keyLine(const std::string& path, size_t subkeys, size_t values) {
  return "K " + path + " " + std::to_string(subkeys) + " " + std::to_string(values);
}
inline std::string valueLine(const std::string& path, const MValue& v) {
  return "V " + path + " [" + utf8(v.name) + "] " + std::to_string(v.type) + " " +
         std::to_string(v.data.size()) + " " + std::to_string(hashOf(v.data));
}

inline void listing(const MKey& k, const std::string& path, Listing& out) {
  out.push_back(keyLine(path, k.subkeys.size(), k.values.size()));
  for (const MValue& v : k.values) out.push_back(valueLine(path, v));
  for (const auto& [name, s] : k.subkeys) listing(s, path + "\\" + utf8(name), out);
}

// "" when equal, else the first difference.
inline std::string diff(const MKey& expected, const Listing& actual) {
  Listing a;
  listing(expected, "", a);
  for (size_t i = 0; i < std::max(a.size(), actual.size()); ++i) {
    const std::string x = i < a.size() ? a[i] : "<end>", y = i < actual.size() ? actual[i] : "<end>";
    if (x != y) return "line " + std::to_string(i) + ": expected " + x + "\n          actual   " + y;
  }
  return "";
}

// The tree below `key` through the public interfaces.
inline void readListing(const Ref<Cfg::Key>& key, const std::string& path, Listing& out) {
  Ref<Cfg::KeyIterator> keys = key->keyIterator();
  Ref<Cfg::ValueIterator> values = key->valueIterator();
  out.push_back(keyLine(path, keys ? keys->count() : 0, values ? values->count() : 0));
  while (Ref<Cfg::Value> v = values ? values->next() : nullptr) {
    out.push_back(valueLine(path, MValue{v->name()->units(), v->type(), test::dataOf(v)}));
  }
  while (Ref<Cfg::Key> s = keys ? keys->next() : nullptr)
    readListing(s, path + "\\" + utf8(s->name()->units()), out);
}

// "" when the tree below `root` holds what `expected` holds, else the first
// difference.
inline std::string diffTree(const MKey& expected, const Ref<Cfg::Key>& root) {
  Listing read;
  readListing(root, "", read);
  return diff(expected, read);
}

// ------------------------------------------------------------ byte reader

struct RawReport {
  std::string error;                 // first problem found, "" when none
  std::set<std::string> listShapes;  // "lf", "lh", "li", "ri/li", "ri/lh", ...
  std::set<std::string> dataForms;   // "resident", "record", "db"
};

class RawReader {
 public:
  RawReader(const std::vector<u8>& file, RawReport& report) : _f(file), _r(report) {}

  bool read(Listing& out) {
    if (_f.size() < 4096 || std::string(_f.begin(), _f.begin() + 4) != "regf") return fail("no base block");
    if (Hive::calculateHeaderChecksum(_f.data()) != L32(&_f[Hive::hive_header::OFS_CHECKSUM]))
      return fail("base block checksum");
    if (L32(&_f[4]) != L32(&_f[8])) return fail("sequence numbers differ");
    _minor = L32(&_f[Hive::hive_header::OFS_MINOR]);
    const u64 length = L32(&_f[Hive::hive_header::OFS_LENGTH]);
    if (length == 0 || length % 4096 || 4096 + length > _f.size()) return fail("hbins data size");
    for (u32 pos = 0; pos < length;) {
      const u32 size = u32At(4096 + pos + 8);
      if (sigAt(4096ull + pos) != "hbin" || u32At(4096 + pos + 4) != pos || size < 4096 || size % 4096 ||
          pos + u64{size} > length)
        return fail("bad hbin at " + std::to_string(pos));
      u32 at = pos + 32;
      while (at < pos + size) {
        const s32 raw = static_cast<s32>(u32At(4096 + at));
        const u32 len = raw < 0 ? 0u - static_cast<u32>(raw) : static_cast<u32>(raw);
        if (len < 8 || len % 8 || at + u64{len} > pos + size)
          return fail("record walk breaks at " + std::to_string(at));
        if (raw < 0) _used[at] = len;
        at += len;
      }
      pos += size;
    }
    const u32 root = L32(&_f[Hive::hive_header::OFS_ROOT]);
    if (!key(root, 0, "", out, 0)) return false;
    if (!securityChain(sdOf(root))) return false;
    for (const auto& [offset, length] : _used)
      if (!_owned.count(offset))
        return fail("leaked record " + std::to_string(offset) + " of " + std::to_string(length) + " bytes (" +
                    sig(offset) + ")");
    return true;
  }

 private:
  using N = Hive::hive_record_nk;
  using VK = Hive::hive_record_vk;

  bool fail(const std::string& what) {
    if (_r.error.empty()) _r.error = what;
    return false;
  }
  u32 u32At(u64 fileOffset) const { return fileOffset + 4 <= _f.size() ? L32(&_f[fileOffset]) : 0; }
  u16 u16At(u64 fileOffset) const { return fileOffset + 2 <= _f.size() ? L16(&_f[fileOffset]) : 0; }
  // Field of the record at `offset` (offsets count from the first hbin).
  u32 f32(u32 offset, u32 field) const { return u32At(4096ull + offset + field); }
  u16 f16(u32 offset, u32 field) const { return u16At(4096ull + offset + field); }
  std::string sigAt(u64 fileOffset) const {
    return fileOffset + 4 <= _f.size() ? std::string(&_f[fileOffset], &_f[fileOffset] + 4) : "";
  }
  std::string sig(u32 offset) const {
    const u16 s = f16(offset, 4);
    return std::string{static_cast<char>(s & 0xff), static_cast<char>(s >> 8)};
  }
  u32 sdOf(u32 nk) const { return f32(nk, N::OFS_SK); }
  // Takes ownership of a used record of at least `min` bytes; a record may
  // have one owner only (sk records are shared and claimed once).
  bool claim(u32 offset, u32 min, const char* what) {
    auto it = _used.find(offset);
    if (it == _used.end()) return fail(std::string(what) + " is no used record: " + std::to_string(offset));
    if (it->second < min) return fail(std::string(what) + " record too small: " + std::to_string(offset));
    if (!_owned.insert(offset).second)
      return fail(std::string(what) + " owned twice: " + std::to_string(offset));
    return true;
  }
  std::u16string name(u32 offset, u32 at, u32 length, bool compressed) const {
    std::u16string s;
    const u64 base = 4096ull + offset + at;
    if (base + length > _f.size()) return u"<out of file>";
    for (u32 i = 0; i < length; i += compressed ? 1 : 2)
      s += compressed ? char16_t(_f[base + i]) : char16_t(L16(&_f[base + i]));
    return s;
  }

  bool key(u32 nk, u32 parent, const std::string& path, Listing& out, u32 depth) {
    if (depth > 600 || !claim(nk, N::HEADER_SIZE, "nk") || sig(nk) != "nk")
      return fail("bad nk " + std::to_string(nk));
    if (parent && f32(nk, N::OFS_PARENT) != parent) return fail("wrong parent in nk at " + path);
    const u32 count = f32(nk, N::OFS_NUM_KEYS), list = f32(nk, N::OFS_KEY_LIST);
    const u32 values = f32(nk, N::OFS_NUM_VALUES), vlist = f32(nk, N::OFS_VALUE_LIST);
    ++_skUsers[sdOf(nk)];
    out.push_back(keyLine(path, count, values));
    // Values.
    if (values && !claim(vlist, 4 + 4 * values, "value list")) return false;
    if (!values && vlist != Hive::INVALID_RECORD) return fail("no values but a value list at " + path);
    for (u32 i = 0; i < values; ++i) {
      MValue v;
      if (!value(f32(vlist, 4 + 4 * i), v)) return false;
      out.push_back(valueLine(path, v));
    }
    // Subkeys, in strictly increasing name order.
    std::vector<u32> subkeys;
    if (count && !subkeyList(list, subkeys, "")) return false;
    if (!count && list != Hive::INVALID_RECORD) return fail("no subkeys but a subkey list at " + path);
    if (subkeys.size() != count) return fail("subkey count at " + path);
    std::u16string previous;
    for (u32 s : subkeys) {
      const std::u16string name = keyName(s);
      if (!previous.empty() && compareNames(previous, name) >= 0)
        return fail("subkeys out of order at " + path);
      previous = name;
      if (!key(s, nk, path + "\\" + utf8(name), out, depth + 1)) return false;
    }
    return true;
  }
  std::u16string keyName(u32 nk) {
    const u32 length = f16(nk, N::OFS_NAME_LENGTH);
    if (_used.count(nk) && N::HEADER_SIZE + length > _used[nk]) return u"<name beyond record>";
    return name(nk, N::OFS_NAME, length, f16(nk, N::OFS_FLAGS) & N::FLAG_COMP_NAME);
  }

  // Collects the nk offsets of a subkey list, checking hashes against the
  // names they stand for.
  bool subkeyList(u32 list, std::vector<u32>& out, const std::string& outer) {
    if (!claim(list, 8, "subkey list")) return false;
    const std::string s = sig(list);
    const u32 n = f16(list, 6);
    const u32 width = (s == "lf" || s == "lh") ? 8 : 4;
    if (_used[list] < 8 + width * n) return fail("list record too small");
    if (s == "ri") {
      if (!outer.empty()) return fail("ri inside ri");
      for (u32 i = 0; i < n; ++i) {
        const u32 sub = f32(list, 8 + 4 * i);
        if (!subkeyList(sub, out, "ri/")) return false;
      }
      return true;
    }
    if (s != "lf" && s != "lh" && s != "li") return fail("unknown list " + s);
    if (n == 0) return fail("empty list record");
    // The most entries the library puts in one list record before it
    // converts (lf to li) or splits it.
    if (n > (s == "lf" ? 400u : s == "li" ? 900u : 1200u)) return fail(s + " list of " + std::to_string(n));
    _r.listShapes.insert(outer + s);
    if ((s == "lf" && _minor >= 4) || (s == "lh" && _minor < 4))
      return fail(s + " list in a hive of minor version " + std::to_string(_minor));
    for (u32 i = 0; i < n; ++i) {
      const u32 nk = f32(list, 8 + width * i);
      out.push_back(nk);
      if (width == 4) continue;
      const u32 stored = f32(list, 12 + 8 * i);
      const bool compressed = f16(nk, N::OFS_FLAGS) & N::FLAG_COMP_NAME;
      const std::u16string nm = keyName(nk);
      const u32 want = s == "lh" ? test::HiveBuilder::lhHash(nm, compressed) : test::HiveBuilder::lfHint(nm);
      if (stored != want) return fail(s + " hash of " + utf8(nm) + " is " + std::to_string(stored));
    }
    return true;
  }

  bool value(u32 vk, MValue& out) {
    if (!claim(vk, VK::HEADER_SIZE, "vk") || sig(vk) != "vk") return fail("bad vk " + std::to_string(vk));
    const u32 nameLength = f16(vk, VK::OFS_NAME_LENGTH);
    if (VK::HEADER_SIZE + nameLength > _used[vk]) return fail("vk name beyond record");
    out.name = name(vk, VK::OFS_NAME, nameLength, f16(vk, VK::OFS_FLAGS) & VK::FLAG_COMP_NAME);
    out.type = f32(vk, VK::OFS_TYPE);
    const u32 sizeField = f32(vk, VK::OFS_DATA_SIZE), size = sizeField & ~VK::DATA_RESIDENT;
    const u32 data = f32(vk, VK::OFS_DATA);
    if ((sizeField & VK::DATA_RESIDENT) || size == 0) {
      if (size > 4) return fail("resident data of " + std::to_string(size) + " bytes");
      _r.dataForms.insert("resident");
      for (u32 i = 0; i < size; ++i) out.data.push_back(_f[4096ull + vk + VK::OFS_DATA + i]);
      return true;
    }
    if (size <= 4) return fail("data of " + std::to_string(size) + " bytes not resident: " + utf8(out.name));
    if (_minor < 4 || size <= VK::V1_5_MAX_DATA_WITHOUT_DB) {
      if (!claim(data, size + 4, "data")) return false;
      _r.dataForms.insert("record");
      out.data.assign(&_f[4096ull + data + 4], &_f[4096ull + data + 4 + size]);
      return true;
    }
    const u32 count = f16(data, 6), list = f32(data, 8);
    const u32 needed = (size - 1) / VK::V1_5_MAX_DATA_WITHOUT_DB + 1;
    if (!claim(data, 12, "db") || sig(data) != "db" || count != needed ||
        !claim(list, 4 + 4 * count, "db list"))
      return fail("bad db record of " + utf8(out.name));
    _r.dataForms.insert("db");
    for (u32 i = 0; i < count; ++i) {
      const u32 fragment = f32(list, 4 + 4 * i);
      const u32 take = std::min(size - i * VK::V1_5_MAX_DATA_WITHOUT_DB, VK::V1_5_MAX_DATA_WITHOUT_DB);
      if (!claim(fragment, take + 4, "fragment")) return false;
      if (i + 1 < count && _used[fragment] != VK::FRAGMENT_CELL) return fail("fragment length");
      out.data.insert(out.data.end(), &_f[4096ull + fragment + 4], &_f[4096ull + fragment + 4 + take]);
    }
    return true;
  }

  // The sk records form a ring from the root's; each count must equal the
  // number of keys that use it.
  bool securityChain(u32 first) {
    u32 sk = first;
    for (u32 steps = 0; steps < 100000; ++steps) {
      if (!claim(sk, 24, "sk") || sig(sk) != "sk") return fail("bad sk " + std::to_string(sk));
      if (f32(sk, 16) != _skUsers[sk])
        return fail("sk " + std::to_string(sk) + " counts " + std::to_string(f32(sk, 16)) + " users, has " +
                    std::to_string(_skUsers[sk]));
      const u32 next = f32(sk, 8);
      if (f32(next, 12) != sk) return fail("sk ring links differ at " + std::to_string(sk));
      _skUsers.erase(sk);
      sk = next;
      if (sk == first) break;
    }
    if (!_skUsers.empty())
      return fail("key uses sk outside the ring: " + std::to_string(_skUsers.begin()->first));
    return true;
  }

  const std::vector<u8>& _f;
  RawReport& _r;
  u32 _minor = 0;
  std::map<u32, u32> _used;  // offset -> length of every used record
  std::set<u32> _owned;
  std::map<u32, u32> _skUsers;
};

// The same for hive bytes, which must also pass the byte walk.
inline std::string diffBytes(const MKey& expected, const std::vector<u8>& bytes,
                             RawReport* report = nullptr) {
  RawReport own;
  RawReport& r = report ? *report : own;
  Listing raw;
  if (!RawReader(bytes, r).read(raw)) return "byte walk: " + r.error;
  return diff(expected, raw);
}

}  // namespace hivekit::model
