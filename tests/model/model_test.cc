// Random changes to a hive, checked against an in-memory model: after every
// flush through the open hive, through a fresh open of the bytes, and by a
// byte-level walk that also checks the structure (hbin coverage, leaked
// records, hashes, security counts). HIVEKIT_MODEL_SCALE (percent, default
// 100) scales the number of operations; HIVEKIT_MODEL_SEEDS (default 3) is
// the number of seeds per hive version.
#include <gtest/gtest.h>

#include <cstdlib>
#include <random>

#include "hive/format/errors.h"
#include "hive/hive_file.h"
#include "hive/util/util.h"
#include "hive/value/value_obj.h"
#include "platform/error.h"
#include "platform/memory_stripe.h"
#include "tests/model/hive_model.h"

namespace hivekit::model {
namespace {

using Hive::HiveFile;
using Hive::Util;
using Hive::ValueObj;
using Platform::MemoryStripe;
namespace Errors = Hive::Errors;
namespace Error = Platform::Error;
namespace T = Cfg::ValueTypes;
using Path = std::vector<std::u16string>;

u32 scaled(u32 n) {
  const char* s = std::getenv("HIVEKIT_MODEL_SCALE");
  return s ? std::max<u32>(1, n * static_cast<u32>(std::atoi(s)) / 100) : n;
}

u32 countKeys(const MKey& k) {
  u32 n = 1;
  for (const auto& s : k.subkeys) n += countKeys(s.second);
  return n;
}
template <class Map>
auto& nth(Map& m, size_t i) {
  return std::next(m.begin(), i)->second;
}

// A hive whose key S2 has a security record of its own (S1 and the root
// share the other), so that counts of two records must stay right.
std::vector<u8> twoSecurityHive(u32 minor) {
  using Sk = Hive::hive_record_sk;
  test::HiveBuilder b(minor);
  const u32 root = b.root();
  b.key(root, u"S1");
  const u32 s2 = b.key(root, u"S2");
  b.layout();
  const u32 first = L32(b.at(s2) + Hive::hive_record_nk::OFS_SK);
  const u32 second = b.writeSk(test::SkFields{first, first, 1, {}, {}});
  Platform::W32(b.at(first) + Sk::OFS_FLINK, second);
  Platform::W32(b.at(first) + Sk::OFS_BLINK, second);
  Platform::W32(b.at(first) + Sk::OFS_REFCOUNT, 2);
  Platform::W32(b.at(s2) + Hive::hive_record_nk::OFS_SK, second);
  return b.build();
}

// What the checks saw, over all runs of one hive version.
struct Coverage {
  std::set<std::string> shapes, forms;
  std::set<std::pair<int, int>> resizes;  // (old form, new form): 0 resident, 1 record, 2 db
  std::set<u32> errors;
};

class ModelRun {
 public:
  // Odd seeds start from a new hive, even ones from twoSecurityHive().
  ModelRun(u32 minor, u32 seed, Coverage& seen) : _minor(minor), _rng(seed), _seen(seen) {
    _stripe = MemoryStripe::create();
    _hive = HiveFile::create(_stripe, minor, Hive::latin1, {});
    if (seed % 2) return;
    _stripe = MemoryStripe::create(twoSecurityHive(minor));
    _hive = HiveFile::open(_stripe, 0, Hive::latin1, {});
    for (const char16_t* name : {u"S1", u"S2"}) insertKey(_model, name);
    _keys = 3;
  }

  void run(u32 ops) {
    ASSERT_TRUE(_hive);
    for (u32 i = 0, next = 150; i < ops && !::testing::Test::HasFailure(); ++i) {
      step();
      if (i == next) {
        checkpoint();
        next += 100 + below(150);
      }
    }
    if (!::testing::Test::HasFailure()) checkpoint();
  }

 private:
  u32 below(u32 n) { return static_cast<u32>(_rng() % n); }
  bool chance(u32 percent) { return below(100) < percent; }

  std::u16string newName(bool value = false) {
    static const std::u16string alphabet =
        u"abcdefgXYZ0189_-. \u00e4\u00c4\u00f6\u00df\u00ff\u03a9\u03c9\u0416\u0436\u4e2d\u20ac";
    u32 length = 1 + below(8);
    if (chance(2)) length = value ? 16000 + below(384) : 200 + below(56);
    if (value && chance(15)) return u"";
    std::u16string s;
    for (u32 i = 0; i < length; ++i) s += alphabet[below(alphabet.size())];
    return s;
  }
  // The same name in other letter case.
  std::u16string variant(std::u16string s) {
    for (char16_t& c : s) {
      const char16_t lower = c + 0x20;  // for A-Z, Latin-1, Greek and Cyrillic capitals
      if (chance(40))
        c = String::upcase(c);
      else if (chance(40) && c != lower && String::upcase(lower) == c)
        c = lower;
    }
    return s;
  }

  // A random key of the model, walking down from the root.
  MKey* pick(Path& path) {
    MKey* k = &_model;
    path.clear();
    while (!k->subkeys.empty() && !chance(30)) {
      k = &nth(k->subkeys, below(k->subkeys.size()));
      path.push_back(k->name);
    }
    return k;
  }
  MKey* resolve(const Path& path) {
    MKey* k = &_model;
    for (const std::u16string& n : path) k = findKey(*k, n);
    return k;
  }
  // The key through the library, looked up in a random letter case.
  Ref<Cfg::Key> open(const Path& path) {
    Ref<Cfg::Key> k = _hive->root();
    for (const std::u16string& n : path) {
      if (!k) break;
      k = k->key(str(variant(n)));
      pin(k);
    }
    EXPECT_TRUE(k) << "cannot open " << utf8(path.empty() ? u"\\" : path.back());
    return k;
  }
  // Objects held for a while make the hive hand out the same objects
  // again, and keep objects of deleted and moved keys and values alive.
  template <class Obj>
  void pin(const Ref<Obj>& o) {
    if (!o || !chance(10)) return;
    if (_pins.size() < 40)
      _pins.push_back(o);
    else
      _pins[below(40)] = o;
  }
  void expectError(bool ok, u32 code, const char* what) {
    EXPECT_FALSE(ok) << what;
    EXPECT_EQ(Error::get(), code) << what;
    _seen.errors.insert(code);
  }

  void step() {
    const u32 op = below(100);
    if (op < 22) return createKey();
    if (op < 30) return deleteKey();
    if (op < 46) return createValue();
    if (op < 52) return deleteValue();
    if (op < 68) return resizeValue();
    if (op < 75) return setTyped();
    if (op < 83) return moveKey();
    if (op < 90) return moveValue();
    if (op < 92) return createPath();
    if (op < 93) return bulkValues();
    if (op < 96) return bulkCreate();
    return bulkDelete();
  }

  void createKey() {
    Path path;
    MKey* mk = pick(path);
    std::u16string nm = newName();
    if (chance(15) && !mk->subkeys.empty()) nm = variant(nth(mk->subkeys, below(mk->subkeys.size())).name);
    Ref<Cfg::Key> k = open(path);
    if (!k) return;
    if (findKey(*mk, nm))
      return expectError(bool(k->createKey(str(nm))), Errors::KEY_EXISTS, "create existing key");
    if (_keys > 6000) return;
    EXPECT_FALSE(k->key(str(nm)));
    EXPECT_EQ(Error::get(), Errors::KEY_NOT_FOUND);
    Ref<Cfg::Key> made = k->createKey(str(nm));
    ASSERT_TRUE(made) << utf8(nm) << " error " << Error::get();
    EXPECT_TRUE(made->name()->units() == nm);
    insertKey(*mk, nm);
    ++_keys;
  }

  void deleteKey() {
    Path path;
    MKey* mk = pick(path);
    if (path.empty()) return;
    Ref<Cfg::Key> k = open(path);
    Path up(path.begin(), path.end() - 1);
    Ref<Cfg::Key> parent = open(up);
    if (!k || !parent) return;
    const bool empty = mk->subkeys.empty() && mk->values.empty();
    if (!empty && chance(60))
      return expectError(parent->deleteKey(k), Errors::KEY_NOT_EMPTY, "delete full key");
    const u32 gone = countKeys(*mk);
    if (gone > 400 && chance(80)) return;
    ASSERT_TRUE(empty ? parent->deleteKey(k) : Util::recursiveKeyDelete(parent, k)) << Error::get();
    resolve(up)->subkeys.erase(path.back());
    _keys -= gone;
  }

  // A value of a random key with values; null when none was found.
  MValue* pickValue(Path& path) {
    for (int tries = 0; tries < 10; ++tries) {
      MKey* mk = pick(path);
      if (!mk->values.empty()) return &mk->values[below(mk->values.size())];
    }
    return nullptr;
  }
  Ref<ValueObj> openValue(const Path& path, const MValue& mv) {
    Ref<Cfg::Key> k = open(path);
    Ref<Cfg::Value> v = k ? k->value(str(variant(mv.name))) : nullptr;
    EXPECT_TRUE(v) << "cannot open value " << utf8(mv.name);
    pin(v);
    return v.cast<ValueObj>();
  }

  void createValue() {
    static const u32 types[] = {T::None,           T::String,      T::ExpandString, T::Binary, T::Dword,
                                T::DwordBigEndian, T::MultiString, T::Qword,        0x20};
    Path path;
    MKey* mk = pick(path);
    std::u16string nm = newName(true);
    if (chance(10) && !mk->values.empty()) nm = variant(mk->values[below(mk->values.size())].name);
    const u32 type = types[below(std::size(types))];
    Ref<Cfg::Key> k = open(path);
    if (!k) return;
    if (findValue(*mk, nm))
      return expectError(bool(k->createValue(str(nm), type)), Errors::VALUE_EXISTS, "value exists");
    Ref<Cfg::Value> v = k->createValue(str(nm), type);
    ASSERT_TRUE(v) << Error::get();
    mk->values.push_back(MValue{nm, type, std::vector<u8>(ValueObj::datasizeFormType(type), 0)});
  }

  void deleteValue() {
    Path path;
    MValue* mv = pickValue(path);
    if (!mv) return;
    Ref<Cfg::Key> k = open(path);
    ASSERT_TRUE(k && k->deleteValue(openValue(path, *mv))) << Error::get();
    MKey* mk = resolve(path);
    mk->values.erase(mk->values.begin() + (mv - mk->values.data()));
  }

  int form(size_t size) const { return size <= 4 ? 0 : (_minor >= 4 && size > 16344) ? 2 : 1; }

  // Resizes across the storage forms: the kept part must survive, then a
  // range reaching the end is overwritten.
  void resizeValue() {
    static const u32 sizes[] = {0, 1, 4, 5, 8, 100, 4096, 16343, 16344, 16345, 16352, 32688, 32689, 40000};
    Path path;
    MValue* mv = pickValue(path);
    if (!mv) return;
    Ref<ValueObj> v = openValue(path, *mv);
    if (!v) return;
    const u32 size = chance(85) ? sizes[below(std::size(sizes))] : below(50000);
    ASSERT_EQ(v->size(size), size) << Error::get();
    const u32 keep = std::min<u32>(size, mv->data.size());
    std::vector<u8> kept(keep);
    EXPECT_EQ(v->read(kept.data(), 0, keep), keep);
    ASSERT_TRUE(std::equal(kept.begin(), kept.end(), mv->data.begin()))
        << "data lost resizing " << mv->data.size() << " -> " << size;
    _seen.resizes.insert({form(mv->data.size()), form(size)});
    mv->data.resize(size);
    const u32 from = keep ? below(keep + 1) : 0;
    for (u32 i = from; i < size; ++i) mv->data[i] = static_cast<u8>(_rng());
    EXPECT_EQ(v->write(mv->data.data() + from, from, size - from), size - from);
  }

  void setTyped() {
    Path path;
    MValue* mv = pickValue(path);
    if (!mv) return;
    Ref<ValueObj> v = openValue(path, *mv);
    if (!v) return;
    if (chance(25)) {
      const u32 type = chance(50) ? T::MultiString : below(12);
      ASSERT_TRUE(v->setType(type));
      mv->type = type;
      return;
    }
    const std::u16string text = chance(5) ? std::u16string(9000, u'\u0416') : newName();
    switch (mv->type) {
      case T::String:
      case T::ExpandString:
        ASSERT_TRUE(v->setString(str(text))) << Error::get();
        mv->data = test::sz(text);
        return;
      case T::MultiString: {
        auto list = Platform::TVector<Ref<String>>::create();
        mv->data.clear();
        for (u32 i = below(4); i > 0; --i) {
          const std::u16string part = newName();
          list->push_back(str(part));
          const std::vector<u8> z = test::sz(part);
          mv->data.insert(mv->data.end(), z.begin(), z.end());
        }
        ASSERT_TRUE(v->setStrings(list)) << Error::get();
        mv->data.insert(mv->data.end(), {0, 0});
        return;
      }
      case T::Dword:
      case T::DwordBigEndian:
      case T::Qword: {
        const u32 width = mv->type == T::Qword ? 8 : 4;
        const u64 n = (u64{_rng()} << 32) | _rng();
        if (mv->data.size() != width) return expectError(v->setNumber(1), Errors::NUMBER_WRONG_SIZE, "width");
        if (width == 4 && n > 0xffffffffu)
          return expectError(v->setNumber(n), Errors::NUMBER_TOO_LARGE, "dword");
        ASSERT_TRUE(v->setNumber(n));
        for (u32 i = 0; i < width; ++i)
          mv->data[i] = static_cast<u8>(n >> (8 * (mv->type == T::DwordBigEndian ? 3 - i : i)));
        return;
      }
      default:
        return expectError(v->setString(str(text)), Errors::WRONG_TYPE, "string of another type");
    }
  }

  void moveKey() {
    Path from, to;
    MKey* mk = pick(from);
    if (from.empty()) return;
    if (chance(40)) {
      to.assign(from.begin(), from.end() - 1);  // a rename
    } else if (chance(10)) {
      to = from;  // into itself or below
      for (MKey* d = mk; !d->subkeys.empty() && chance(50);) {
        d = &nth(d->subkeys, below(d->subkeys.size()));
        to.push_back(d->name);
      }
    } else {
      pick(to);
    }
    MKey* dest = resolve(to);
    std::u16string nm = chance(30) ? mk->name : newName();
    if (chance(10) && !dest->subkeys.empty())
      nm = variant(nth(dest->subkeys, below(dest->subkeys.size())).name);
    Ref<Cfg::Key> k = open(from), d = open(to);
    if (!k || !d) return;
    const bool nested = to.size() >= from.size() && std::equal(from.begin(), from.end(), to.begin());
    if (nested) return expectError(d->move(k, str(nm)), Errors::MOVE_NESTED, "move below itself");
    if (findKey(*dest, nm))
      return expectError(d->move(k, str(nm)), Errors::MOVE_NAME_EXISTS, "move onto name");
    ASSERT_TRUE(d->move(k, str(nm))) << Error::get();
    EXPECT_TRUE(k->name()->units() == nm);
    auto node = resolve(Path(from.begin(), from.end() - 1))->subkeys.extract(mk->name);
    node.key() = node.mapped().name = nm;
    resolve(to)->subkeys.insert(std::move(node));
  }

  void moveValue() {
    Path from, to;
    MValue* mv = pickValue(from);
    if (!mv) return;
    if (chance(50))
      to = from;  // a rename
    else
      pick(to);
    MKey* dest = resolve(to);
    std::u16string nm = chance(20) ? variant(mv->name) : newName(true);
    Ref<ValueObj> v = openValue(from, *mv);
    Ref<Cfg::Key> d = open(to);
    if (!v || !d) return;
    if (findValue(*dest, nm))
      return expectError(d->move(v, str(nm)), Errors::MOVE_VALUE_EXISTS, "value onto name");
    ASSERT_TRUE(d->move(v, str(nm))) << Error::get();
    MValue moved = std::move(*mv);
    MKey* src = resolve(from);
    src->values.erase(src->values.begin() + (mv - src->values.data()));
    moved.name = nm;
    resolve(to)->values.push_back(std::move(moved));
  }

  void createPath() {
    Path path;
    MKey* mk = pick(path);
    Ref<Cfg::Key> k = open(path);
    std::u16string slashed;
    for (u32 n = 1 + below(3); n > 0; --n) {
      std::u16string nm =
          chance(30) && !mk->subkeys.empty() ? nth(mk->subkeys, below(mk->subkeys.size())).name : newName();
      if (nm.size() > 100) nm.resize(100);
      slashed += nm + u"/";
      MKey* next = findKey(*mk, nm);
      if (!next) {
        next = &insertKey(*mk, nm);
        ++_keys;
      }
      mk = next;
    }
    ASSERT_TRUE(k && Util::openOrCreatePath(k, str(slashed))) << Error::get();
  }

  // The key with the most subkeys (or a random one) gets hundreds more, so
  // lists cross 400, 900 and 1200 entries.
  MKey* busiest(Path& path, MKey& k, Path& at, u32& best) {
    MKey* found = nullptr;
    if (k.subkeys.size() >= best) {
      best = static_cast<u32>(k.subkeys.size());
      path = at;
      found = &k;
    }
    for (auto& [name, s] : k.subkeys) {
      at.push_back(name);
      if (MKey* f = busiest(path, s, at, best)) found = f;
      at.pop_back();
    }
    return found;
  }
  void bulkCreate() {
    Path path, at;
    u32 best = 0;
    MKey* mk = chance(60) ? busiest(path, _model, at, best) : pick(path);
    Ref<Cfg::Key> k = open(path);
    if (!k || _keys > 5000) return;
    const std::u16string prefix = newName().substr(0, 3);
    for (u32 n = 100 + below(700); n > 0; --n) {
      const std::u16string nm = prefix + Platform::utf8ToUtf16(std::to_string(_rng() % 100000));
      if (findKey(*mk, nm)) continue;
      ASSERT_TRUE(k->createKey(str(nm))) << Error::get() << " at " << mk->subkeys.size();
      insertKey(*mk, nm);
      ++_keys;
    }
  }
  void bulkValues() {
    Path path;
    MKey* mk = pick(path);
    Ref<Cfg::Key> k = open(path);
    if (!k || mk->values.size() > 1000) return;
    for (u32 n = 50 + below(250); n > 0; --n) {
      const std::u16string nm = newName().substr(0, 4) + Platform::utf8ToUtf16(std::to_string(_rng()));
      if (findValue(*mk, nm)) continue;
      ASSERT_TRUE(k->createValue(str(nm), T::Dword)) << Error::get();
      mk->values.push_back(MValue{nm, T::Dword, {0, 0, 0, 0}});
    }
  }
  void bulkDelete() {
    Path path, at;
    u32 best = 0;
    MKey* mk = busiest(path, _model, at, best);
    Ref<Cfg::Key> k = open(path);
    if (!k) return;
    for (u32 n = below(mk->subkeys.size() / 2 + 1); n > 0; --n) {
      auto victim = std::next(mk->subkeys.begin(), below(mk->subkeys.size()));
      Ref<Cfg::Key> s = k->key(str(victim->first));
      ASSERT_TRUE(s && Util::recursiveKeyDelete(k, s)) << Error::get();
      _keys -= countKeys(victim->second);
      mk->subkeys.erase(victim);
    }
  }

  void checkpoint() {
    // Writing through, the file must be complete without a flush.
    if (!(_hive->mode() & Hive::modeWriteThrough)) {
      ASSERT_TRUE(_hive->flush());
    }
    ASSERT_EQ(diffTree(_model, _hive->root()), "") << "open hive after flush";
    const std::vector<u8> bytes = _stripe->bytes();
    RawReport report;
    ASSERT_EQ(diffBytes(_model, bytes, &report), "");
    _seen.shapes.insert(report.listShapes.begin(), report.listShapes.end());
    _seen.forms.insert(report.dataForms.begin(), report.dataForms.end());

    Ref<HiveFile> again = HiveFile::open(MemoryStripe::create(bytes), Hive::modeReadOnly, Hive::latin1, {});
    ASSERT_TRUE(again);
    ASSERT_EQ(diffTree(_model, again->root()), "") << "reopened";
    // Carry on with a hive opened from the file now and then, sometimes
    // writing through to the file.
    if (chance(40)) {
      _pins.clear();
      _hive = nullptr;
      _hive = HiveFile::open(_stripe, chance(30) ? u32{Hive::modeWriteThrough} : 0, Hive::latin1, {});
      ASSERT_TRUE(_hive);
    }
  }

  u32 _minor;
  std::mt19937 _rng;
  Coverage& _seen;
  Ref<MemoryStripe> _stripe;
  Ref<HiveFile> _hive;
  MKey _model;
  u32 _keys = 1;
  std::vector<Ref<Platform::Object>> _pins;
};

// Runs the seeds on hives of `minor`; at full scale they must have made the
// list shapes, data forms, resizes between forms and refusals meant.
void runSeeds(u32 minor, std::vector<const char*> shapes, std::set<std::string> forms, size_t resizes) {
  Coverage seen;
  const char* seeds = std::getenv("HIVEKIT_MODEL_SEEDS");
  for (u32 seed = 1, last = seeds ? std::atoi(seeds) : 3; seed <= last; ++seed) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    ModelRun(minor, seed, seen).run(scaled(1000));
    if (::testing::Test::HasFailure()) return;
  }
  if (scaled(100) < 100) return;
  for (const char* s : shapes) EXPECT_TRUE(seen.shapes.count(s)) << s;
  EXPECT_EQ(seen.forms, forms);
  EXPECT_EQ(seen.resizes.size(), resizes);
  EXPECT_EQ(seen.errors.size(), 9u);
}

TEST(HiveModel, RandomChangesMinor3) {
  runSeeds(3, {"lf", "li", "ri/li"}, {"resident", "record"}, 4);
}

TEST(HiveModel, RandomChangesMinor5) {
  runSeeds(5, {"lh", "ri/lh"}, {"resident", "record", "db"}, 9);
}

}  // namespace
}  // namespace hivekit::model
