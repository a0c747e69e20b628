// Several threads sharing one hive through the public interfaces.
//
// The hive's monitor serialises every operation (a read-only hive's
// records are read without it through the public API), so whatever the
// threads do at the same time must leave no data race (the tsan build checks),
// must not deadlock (an alarm bounds the run), and must leave the hive as
// running the same work one thread after another does. The work is split
// into phases; within a phase each worker changes only names it owns, and
// readers only check what holds under any interleaving, so the final hive
// does not depend on how the threads were scheduled.
#include <gtest/gtest.h>
#include <hivekit/hivekit.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <functional>
#include <latch>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "hive/format/errors.h"
#include "hive/hive_file.h"
#include "hive/regfile/reg_file_util.h"
#include "hive/util/util.h"
#include "platform/error.h"
#include "platform/log.h"
#include "platform/memory_stripe.h"
#include "tests/support/api_tree.h"
#include "tests/support/hives.h"
#include "tests/support/test_files.h"

namespace hivekit::test {
namespace {

namespace Hive = Libraries::Files::Hive;
namespace Errors = Hive::Errors;
namespace Types = Interfaces::Config::Hive::ValueTypes;
using Hive::HiveFile;
using Hive::Util;
using Interfaces::Config::Hive::Key;
using Interfaces::Config::Hive::KeyIterator;
using Interfaces::Config::Hive::Value;
using Interfaces::Config::Hive::ValueIterator;
using Platform::MemoryStripe;
using Platform::Ref;
using Platform::String;
using Platform::u32;
using Platform::u64;
using Platform::u8;

constexpr u32 WORKERS = 6;
constexpr u32 OWN_KEYS = 12;       // keys below each worker's own key
constexpr u32 SHARED_VALUES = 40;  // values each worker makes under "Shared"
// Subkeys each worker makes under "SharedKeys": together more than one lh
// list holds, so the list becomes two-level while the workers add to it.
constexpr u32 SHARED_KEYS = 210;

// A deadlock would otherwise hold CI until its own limit: SIGALRM ends
// the test binary.
struct Watchdog {
  Watchdog() { alarm(300); }
  ~Watchdog() { alarm(0); }
};

std::string name(const char* prefix, u32 worker, u32 j = 0) {
  char buffer[32];
  std::snprintf(buffer, sizeof buffer, "%s%u_%03u", prefix, worker, j);
  return buffer;
}

std::string utf8(const Ref<String>& s) {
  return s ? s->toUtf8() : "<null>";
}

// Names, types and data of a key tree; values sorted by name (their list
// order is the order of creation), subkeys in list order (sorted by name).
void listKey(const Ref<Key>& key, const std::string& path, std::string& out) {
  out += "[" + path + "]\n";
  std::vector<std::string> values;
  Ref<ValueIterator> vi = key->valueIterator();
  while (Ref<Value> v = vi->next()) {
    std::string line = utf8(v->name()) + " " + std::to_string(v->type()) + " ";
    for (u8 b : dataOf(v)) line += "0123456789abcdef"[b >> 4] + std::string(1, "0123456789abcdef"[b & 15]);
    values.push_back(line + "\n");
  }
  std::sort(values.begin(), values.end());
  for (const std::string& v : values) out += v;
  Ref<KeyIterator> ki = key->keyIterator();
  while (Ref<Key> k = ki->next()) listKey(k, path + "\\" + utf8(k->name()), out);
}

std::string listing(const Ref<HiveFile>& hive) {
  std::string out;
  listKey(hive->root(), "", out);
  return out;
}

std::string exportText(const Ref<Key>& key, const std::string& path) {
  Ref<MemoryStripe> target = MemoryStripe::create();
  if (!Hive::RegFileUtil::exportRegFile(key, target, str(path), 0)) return "<export failed>";
  return std::string(target->bytes().begin(), target->bytes().end());
}

class Workload {
 public:
  Workload(Ref<HiveFile> hive, bool concurrent) : _hive(std::move(hive)), _concurrent(concurrent) {}

  void run() {
    Ref<Key> root = _hive->root();
    check(root->createKey(str("Shared")) && root->createKey(str("SharedKeys")), "setup");
    phase([this](u32 w) { build(w); });
    phase([this](u32 w) { grab(w); });
    // Looked up on different threads at once, one key is one object.
    for (const Ref<Key>& k : _shared) check(k && k == _shared[0], "one object for Shared");
    for (Ref<Key>& k : _shared) k = nullptr;
    gatherWatched();
    phase([this](u32 w) { mutate(w); }, true);
    _watchedKeys.clear();
    _watchedValues.clear();
    _watchedIterator = nullptr;
    phase([this](u32 w) { afterDelete(w); });
    phase([this](u32 w) { finish(w); });
  }
  // Failures seen on any thread, for the test's own thread to report.
  std::vector<std::string> problems() {
    std::lock_guard<std::mutex> g(_lock);
    return _problems;
  }
  const std::vector<std::string>& exports() const { return _exports; }

 private:
  // Takes the lock only on failure: an extra lock on every check would
  // order the threads and hide races from the sanitizer.
  void check(bool ok, const std::string& what) {
    if (ok) return;
    std::lock_guard<std::mutex> g(_lock);
    if (_problems.size() < 20) _problems.push_back(what);
  }
  void note(const std::string& what) { check(false, what); }

  // fn(w) for every worker: on one thread each, started together, or one
  // after another on this thread. A watcher reads while concurrent workers
  // run; it changes nothing, so the serial run goes without.
  void phase(const std::function<void(u32)>& fn, bool watched = false) {
    if (!_concurrent) {
      for (u32 w = 0; w < WORKERS; ++w) fn(w);
      return;
    }
    std::latch start(WORKERS);
    std::atomic<bool> stop{false};
    std::thread watcher;
    if (watched) watcher = std::thread([this, &stop] { watch(stop); });
    std::vector<std::thread> threads;
    for (u32 w = 0; w < WORKERS; ++w)
      threads.emplace_back([&start, &fn, w] {
        start.arrive_and_wait();
        fn(w);
      });
    for (std::thread& t : threads) t.join();
    stop = true;
    if (watcher.joinable()) watcher.join();
  }

  Ref<Value> makeValue(const Ref<Key>& key, const std::string& n, u32 type) {
    Ref<Value> v = key->createValue(str(n), type);
    check(v != nullptr, "createValue " + n);
    return v;
  }

  void setBinary(const Ref<Value>& v, u32 size, u8 seed) {
    std::vector<u8> bytes(size);
    for (u32 i = 0; i < size; ++i) bytes[i] = static_cast<u8>(seed + i * 7);
    Ref<Interfaces::Stripe> s = v ? v->binary() : nullptr;
    check(s && s->setElementCount(size) == size && s->writeAt(0, bytes.data(), size) == size, "binary data");
  }

  // The values under "Shared" as a reader sees them while others change
  // them: whatever an iterator hands out is the object a lookup by name
  // finds, unless it was renamed or deleted in between.
  void scanShared(u32 w) {
    Ref<Key> shared = _hive->path(str("Shared"));  // often a new object: others drop theirs
    if (!shared) return note("path Shared");
    check(_hive->root()->key(str("shared")) == shared, "two objects for key Shared");
    Ref<ValueIterator> it = shared->valueIterator();
    check(it->count() <= WORKERS * SHARED_VALUES, "value count");
    u32 seen = 0;
    while (Ref<Value> v = it->next()) {
      // A value renamed behind the iterator's position moves to the list's
      // end and comes again; nothing else can lengthen the walk.
      if (++seen > 2 * WORKERS * SHARED_VALUES) return note("value iterator runs on");
      Ref<String> n = v->name();
      const u64 number = v->number();
      if (seen % 8 != w) continue;  // a lookup by name walks the list
      Ref<Value> again = shared->value(n);
      check(!again || again == v, "two objects for value " + utf8(n));
      if (again) check(number != ~0ull, "number of live value " + utf8(n));
    }
    Ref<KeyIterator> keys = Util::openPath(_hive->root(), str("SharedKeys"))->keyIterator();
    for (u32 i = 0; i < 50 + w && keys->next(); ++i) {
    }
  }

  void walkSecurity() {
    auto it = _hive->securityDescriptorIterator();
    u32 n = 0;
    while (auto sd = it->next()) {
      check(!sd->get().empty(), "security descriptor bytes");
      if (++n > 100) return note("security descriptor list runs on");
    }
    check(n >= 1, "no security descriptor");
  }

  void build(u32 w) {
    Ref<Key> own = _hive->root()->createKey(str(name("W", w)));
    if (!own) return note("create own key");
    for (u32 j = 0; j < OWN_KEYS; ++j) {
      Ref<Key> k = own->createKey(str(name("K", w, j)));
      if (!k) return note("create key");
      makeValue(k, "str", Types::String)->setString(str("text " + name("", w, j)));
      makeValue(k, "dw", Types::Dword)->setNumber(w * 1000 + j);
      makeValue(k, "qw", Types::Qword)->setNumber((u64{w} << 40) | j);
      auto list = Platform::TVector<Ref<String>>::create();
      list->push_back(str(name("a", w)));
      list->push_back(str(name("b", j)));
      makeValue(k, "multi", Types::MultiString)->setStrings(list);
      setBinary(makeValue(k, "bin", Types::Binary), 37 * j, static_cast<u8>(w));
      // Above one record's worth: a db list in this hive version.
      if (j % 4 == 0) setBinary(makeValue(k, "big", Types::Binary), 20000 + j, static_cast<u8>(j));
      if (Ref<Key> sub = k->createKey(str("sub"))) makeValue(sub, "leaf", Types::Dword)->setNumber(j);
    }
    Ref<Key> shared = _hive->path(str("Shared"));
    Ref<Key> sharedKeys = Util::openPath(_hive->root(), str("SharedKeys"));
    for (u32 j = 0; j < SHARED_VALUES; ++j) {
      makeValue(shared, name("T", w, j), Types::Dword)->setNumber(w * 100000 + j);
      if (j % 8 == w % 8) scanShared(w);
    }
    for (u32 j = 0; j < SHARED_KEYS; ++j) {
      check(sharedKeys->createKey(str(name("T", w, j))) != nullptr, "shared subkey");
      if (j % 50 == 0) check(_hive->flush(), "flush");
    }
    // A subtree another worker takes references into and this one deletes.
    Ref<Key> doomed = Util::openOrCreatePath(_hive->root(), str(name("D", w) + "/a/b"));
    if (!doomed) return note("create doomed subtree");
    makeValue(doomed, "x", Types::Dword)->setNumber(w);
    makeValue(_hive->path(str(name("D", w) + "\\a")), "y", Types::String)->setString(str("y"));
    walkSecurity();
  }

  // Takes references into the next worker's doomed subtree, kept across
  // phases while that worker deletes it.
  void grab(u32 w) {
    const std::string other = name("D", (w + 1) % WORKERS);
    Held& held = _held[w];
    _shared[w] = _hive->path(str("Shared"));
    Ref<Key> top = _hive->root()->key(str(other));
    Ref<Key> a = Util::openPath(top, str("a"));
    Ref<Key> b = _hive->path(str(other + "\\a\\b"));
    if (!top || !a || !b) return note("grab " + other);
    held = {{top, a, b}, {a->value(str("y")), b->value(str("x"))}, a->keyIterator(), b->valueIterator()};
    check(held.values[0] && held.values[1], "grab values");
  }

  // Keys and values that mutate renames, deletes, rewrites or resizes.
  void gatherWatched() {
    Ref<Key> shared = _hive->path(str("Shared"));
    Ref<Key> sharedKeys = _hive->path(str("SharedKeys"));
    for (u32 w = 0; w < WORKERS; ++w) {
      Ref<Key> own = _hive->path(str(name("W", w)));
      for (u32 j = 0; j < 6; ++j) _watchedValues.push_back(shared->value(str(name("T", w, j))));
      for (u32 j = 3; j < OWN_KEYS; j += 4) {
        _watchedValues.push_back(Util::openPath(own, str(name("K", w, j)))->value(str("bin")));
        _watchedKeys.push_back(own->key(str(name("K", w, j - 2))));
      }
      for (u32 j = 0; j < 15; j += 3) _watchedKeys.push_back(sharedKeys->key(str(name("T", w, j))));
    }
    _watchedIterator = shared->valueIterator();
    for (const Ref<Value>& v : _watchedValues) check(v != nullptr, "watched value");
    for (const Ref<Key>& k : _watchedKeys) check(k != nullptr, "watched key");
  }

  // Reads the watched objects over and over while the workers change them:
  // each call sees an object either before or after a change. None of
  // these calls has another way to synchronise with the writers than the
  // monitor, so the sanitizer sees any of them that skips it.
  void watch(const std::atomic<bool>& stop) {
    while (!stop) {
      for (const Ref<Value>& v : _watchedValues) {
        v->name();
        v->type();
        v->readOnly();
        if (Ref<Interfaces::Stripe> data = v->binary()) data->elementCount();
      }
      for (const Ref<Key>& k : _watchedKeys) {
        k->name();
        Util::keyId(k);
      }
      _watchedIterator->count();
      std::this_thread::sleep_for(std::chrono::microseconds(200));
    }
  }

  // Uses what this worker holds while its owner deletes it: each call
  // either works or fails cleanly with the object marked invalid.
  void poke(u32 w) {
    for (const Ref<Key>& k : _held[w].keys) {
      k->name();
      k->value(str("x"));
      if (Ref<KeyIterator> it = k->keyIterator()) it->next();
    }
    for (const Ref<Value>& v : _held[w].values) {
      if (!v) continue;
      // A value deleted by now; or "y", a string, which refuses a number.
      if (!v->setNumber(7)) {
        const u32 error = Platform::Error::get();
        check(error == Errors::OBJECT_INVALID || error == Errors::WRONG_TYPE, "setNumber error");
      }
      dataOf(v);
    }
  }

  void mutate(u32 w) {
    poke(w);
    Ref<Key> root = _hive->root();
    check(Util::recursiveKeyDelete(root, root->key(str(name("D", w)))), "delete doomed");

    // Own keys: deleted, renamed, a value deleted and one rewritten, or
    // values resized and one moved in from the previous key.
    Ref<Key> own = root->key(str(name("W", w)));
    if (!own) return note("own key");
    for (u32 j = 0; j < OWN_KEYS; ++j) {
      Ref<Key> k = own->key(str(name("K", w, j)));
      if (!k) return note("own subkey");
      if (j % 4 == 0) {
        check(Util::recursiveKeyDelete(own, k), "delete own subtree");
      } else if (j % 4 == 1) {
        check(own->move(k, str(name("R", w, j))), "rename own key");
      } else if (j % 4 == 2) {
        check(k->deleteValue(k->value(str("str"))), "delete own value");
        check(k->value(str("dw"))->setNumber(j + 1), "setNumber");
      } else {
        check(k->value(str("str"))->setString(str(std::string(300 + j, 'z'))), "setString");
        setBinary(k->value(str("bin")), 5000, 3);
        Ref<Key> previous = own->key(str(name("K", w, j - 1)));
        check(previous && k->move(previous->value(str("multi")), str("moved")), "move value");
      }
      poke(w);
      // Another worker's subtree while it changes: only must not crash.
      if (j % 4 == 1) exportText(_hive->path(str(name("W", (w + 1) % WORKERS))), "Other");
    }

    Ref<Key> shared = _hive->path(str("Shared"));
    for (u32 j = 0; j < SHARED_VALUES; ++j) {
      Ref<Value> v = shared->value(str(name("T", w, j)));
      if (!v) return note("own shared value");
      if (j % 3 == 0)
        check(shared->deleteValue(v), "delete shared value");
      else if (j % 3 == 1)
        check(v->setNumber(w * 100000 + j + 7), "shared setNumber");
      else
        check(shared->move(v, str(name("M", w, j))), "rename shared value");
      if (j % 10 == 0) {
        scanShared(w);
        exportText(shared, "Shared");  // changing under it: only must not crash
      }
    }

    Ref<Key> sharedKeys = _hive->path(str("SharedKeys"));
    for (u32 j = 0; j < SHARED_KEYS; j += 3) {
      Ref<Key> k = sharedKeys->key(str(name("T", w, j)));
      if (!k) return note("own shared subkey");
      if (j % 5 == 0)
        check(sharedKeys->deleteKey(k), "delete shared subkey");
      else if (j % 5 == 1)
        check(sharedKeys->move(k, str(name("R", w, j))), "rename shared subkey");
      else
        makeValue(k, "v", Types::Dword)->setNumber(j);
      if (j % 60 == 0) check(_hive->flush(), "flush");
    }
    walkSecurity();
  }

  void afterDelete(u32 w) {
    Held& held = _held[w];
    for (const Ref<Key>& k : held.keys) {
      Platform::Error::set(0);
      check(!k->value(str("x")) && Platform::Error::get() == Errors::OBJECT_INVALID,
            "value of a deleted key");
      check(!k->createKey(str("new")) && !k->keyIterator(), "use of a deleted key");
    }
    for (const Ref<Value>& v : held.values) {
      Platform::Error::set(0);
      check(!v->setString(str("late")) && Platform::Error::get() == Errors::OBJECT_INVALID,
            "setString on a deleted value");
      check(v->number() == ~0ull && !v->binary(), "read of a deleted value");
    }
    check(!held.keyIterator->next() && !held.valueIterator->next(), "iterator of a deleted key");
    held = Held();  // the last references go on this thread
  }

  void finish(u32 w) {
    check(_hive->flush(), "final flush");
    std::string text = exportText(_hive->path(str(name("W", w))), name("W", w));
    std::lock_guard<std::mutex> g(_lock);
    _exports.resize(WORKERS);
    _exports[w] = std::move(text);
  }

  struct Held {
    std::vector<Ref<Key>> keys;
    std::vector<Ref<Value>> values;
    Ref<KeyIterator> keyIterator;
    Ref<ValueIterator> valueIterator;
  };

  Ref<HiveFile> _hive;
  bool _concurrent;
  std::mutex _lock;
  std::vector<std::string> _problems, _exports;
  Held _held[WORKERS];
  Ref<Key> _shared[WORKERS];
  // Read by the watcher thread while the workers change them.
  std::vector<Ref<Key>> _watchedKeys;
  std::vector<Ref<Value>> _watchedValues;
  Ref<ValueIterator> _watchedIterator;
};

struct Outcome {
  std::string listing;
  std::vector<std::string> exports;
  std::vector<u8> image;  // the flushed hive file
};

Outcome runOn(const Ref<HiveFile>& hive, bool concurrent) {
  Watchdog watchdog;
  Platform::Log::Capture capture(1);  // every message is built and reaches a sink, from any thread
  Workload work(hive, concurrent);
  work.run();
  for (const std::string& p : work.problems()) ADD_FAILURE() << p;
  return Outcome{listing(hive), work.exports(), {}};
}

// The serial run, made once for all tests.
const Outcome& serial() {
  static const Outcome outcome = [] {
    Ref<MemoryStripe> stripe = MemoryStripe::create();
    Ref<HiveFile> hive = HiveFile::create(stripe, 5, Hive::latin1, {});
    Outcome o = runOn(hive, false);
    EXPECT_TRUE(hive->flush());
    o.image = stripe->bytes();
    return o;
  }();
  return outcome;
}

// The concurrent run on `hive` ends as the serial one, and so does the file
// once the last reference has flushed it.
void expectSerialOutcome(Ref<HiveFile> hive, const std::function<Ref<HiveFile>()>& reopen) {
  ASSERT_TRUE(hive);
  const Outcome& expected = serial();
  ASSERT_NE(expected.listing.find("[\\SharedKeys\\T5_209]"), std::string::npos);
  const Outcome got = runOn(hive, true);
  EXPECT_EQ(got.listing, expected.listing);
  EXPECT_EQ(got.exports, expected.exports);
  hive = nullptr;
  Ref<HiveFile> reopened = reopen();
  ASSERT_TRUE(reopened);
  EXPECT_EQ(listing(reopened), expected.listing);
}

TEST(ConcurrencyTest, MemoryHiveEndsAsSerialRun) {
  Ref<MemoryStripe> stripe = MemoryStripe::create();
  expectSerialOutcome(HiveFile::create(stripe, 5, Hive::latin1, {}), [&] {
    return HiveFile::open(MemoryStripe::create(stripe->bytes()), Hive::modeReadOnly, Hive::latin1, {});
  });
}

TEST(ConcurrencyTest, FileHiveEndsAsSerialRun) {
  namespace fs = std::filesystem;
  const fs::path dir = fs::temp_directory_path() / ("hivekit-threads-" + std::to_string(::getpid()));
  fs::create_directories(dir);
  const std::string path = (dir / "hive").string();
  expectSerialOutcome(HiveFile::create(str(path), 5, Hive::latin1),
                      [&] { return HiveFile::open(str(path), Hive::modeReadOnly, Hive::latin1); });
  fs::remove_all(dir);
}

// Readers only, on the hive the serial run left, opened read-only and in
// unsafe mode (which serves records from its own copy of the file): every
// thread's walk sees the whole hive.
TEST(ConcurrencyTest, ReadersOfOneHiveAgree) {
  const Outcome& expected = serial();
  for (u32 mode : {u32{Hive::modeReadOnly}, u32{Hive::modeReadOnly | Hive::modeUnsafe}}) {
    Ref<HiveFile> hive = HiveFile::open(MemoryStripe::create(expected.image), mode, Hive::latin1, {});
    ASSERT_TRUE(hive) << mode;
    Watchdog watchdog;
    std::vector<std::string> listings(WORKERS);
    std::vector<std::thread> threads;
    for (u32 w = 0; w < WORKERS; ++w)
      threads.emplace_back(
          [&, w] { listings[w] = listing(hive) + exportText(hive->path(str(name("W", w))), name("W", w)); });
    for (std::thread& t : threads) t.join();
    for (u32 w = 0; w < WORKERS; ++w)
      EXPECT_EQ(listings[w], expected.listing + expected.exports[w]) << "mode " << mode << ", reader " << w;
  }
}

// Readers of a read-only file through the public API, which takes no lock
// for them: each builds the record-start bits of whatever hbin it reaches
// first, racing the others, and finds its keys by name.
TEST(ConcurrencyTest, ApiReadersOfOneFileAgree) {
  const Outcome& expected = serial();
  TempDir dir;
  const std::string path = dir.write("hive", expected.image);
  std::string reference;
  {
    auto hive = hivekit::Hive::open(path);
    ASSERT_TRUE(hive) << hive.status().message();
    reference = apiTree(hive->root());
  }
  auto hive = hivekit::Hive::open(path);
  ASSERT_TRUE(hive);
  Watchdog watchdog;
  std::vector<std::string> listings(WORKERS), found(WORKERS);
  std::vector<std::thread> threads;
  for (u32 w = 0; w < WORKERS; ++w)
    threads.emplace_back([&, w] {
      auto own = hive->key(name("W", w));
      found[w] = own ? own->path() : own.status().message();
      listings[w] = apiTree(hive->root());
    });
  for (std::thread& t : threads) t.join();
  for (u32 w = 0; w < WORKERS; ++w) {
    EXPECT_EQ(found[w], "\\" + name("W", w)) << "reader " << w;
    EXPECT_EQ(listings[w], reference) << "reader " << w;
  }
}

}  // namespace
}  // namespace hivekit::test
