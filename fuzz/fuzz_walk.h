// Shared by the fuzz targets: a bounded walk that touches everything an
// open hive serves, and a few writes driven by fuzz bytes.
//
// Every loop is capped by a budget of objects, so a hive whose lists lead
// in circles ends the walk instead of running the target into its timeout
// (a hang inside one library call still does, and is a finding).
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <unordered_set>
#include <vector>

#include "api/core.h"
#include "hive/deleted/deleted_scan.h"
#include "hive/hive_file.h"
#include "hive/registry_hive.h"
#include "hive/util/util.h"
#include "platform/string.h"
#include "platform/tvector.h"

namespace hivekit::fuzz {

using Libraries::Files::Hive::HiveFile;
using Libraries::Files::Hive::Key;
using Libraries::Files::Hive::Value;
using Platform::Ref;
using Platform::String;
using Platform::u32;
using Platform::u64;
using Platform::u8;

// Sets the walk's limits; the defaults keep one run well under a second.
struct WalkLimits {
  u32 objects = 10000;       // keys + values + descriptors visited
  u32 maxString = 65536;     // units handed to string() / strings()
  u64 maxBinary = 1u << 20;  // bytes read through binary()
  // Hives up to this size (hive bins data) are also compared with
  // themselves through the public diff, which walks all of them (0: none).
  u64 maxDiffed = 1u << 20;
  // The checks over the whole hive rather than its tree: the scan for
  // deleted records and the decoding of every security descriptor. A run
  // that walks the same bytes twice (a hive and its reopened or recovered
  // copy) does them once.
  bool wholeHive = true;
  // Of those, the scan for deleted records (the costliest): a target may
  // leave it to some of its runs and spend the others on other checks.
  bool deletedScan = true;
};

// The public diff of the hive against itself: nothing differs, but every
// key and value is read through both sides of its walk, whose own limits
// (depth, cycles, a budget by the hive's size) must end it.
inline void diffWithItself(const Ref<HiveFile>& hive, const WalkLimits& limits) {
  Ref<Libraries::Files::Hive::RegistryHiveObj> obj = hive.cast<Libraries::Files::Hive::RegistryHiveObj>();
  if (!obj || limits.maxDiffed == 0 || obj->hiveLength() > limits.maxDiffed) return;
  namespace d = hivekit::detail;
  // A read-only handle over the same engine object, owning no files:
  // closing it flushes and closes nothing.
  hivekit::Hive api = d::Access::makeHive(
      d::CoreRef::adopt(new d::HiveCore(obj, "", false, std::make_shared<d::OpenFiles>())));
  u32 reported = 0;
  (void)hivekit::diff(api.root(), api.root(), [&](const hivekit::Difference&) { return ++reported < 100; },
                      {.last_write = true});
}

// The scan for deleted and leftover records: every byte of the hive bins
// that no live record uses is read as a candidate, whatever the tree says;
// then every page image of the logs, for previous versions.
inline void scanDeletedRecords(const Ref<HiveFile>& hive, const WalkLimits& limits) {
  Ref<Libraries::Files::Hive::RegistryHiveObj> obj = hive.cast<Libraries::Files::Hive::RegistryHiveObj>();
  if (!obj || !limits.wholeHive || !limits.deletedScan) return;
  u32 seen = 0;
  u64 sum = 0;
  auto visit = [&](const Libraries::Files::Hive::DeletedItem& item) {
    for (const std::u16string& name : item.path) sum += name.size();
    // Every byte handed over must be readable.
    for (u32 i = 0; item.data && i < item.dataSize; i += 512) sum += item.data[i];
    if (item.data && item.dataSize) sum += item.data[item.dataSize - 1];
    return ++seen < limits.objects;
  };
  (void)Libraries::Files::Hive::scanDeleted(*obj, visit, {.logs = true});
  (void)sum;
}

// Reads the whole data of a value through every accessor its type allows
// (and, on purpose, some it does not: those must fail cleanly).
inline void touchValue(const Ref<Value>& v, const WalkLimits& limits) {
  if (!v) return;
  Ref<String> name = v->name();
  if (name) (void)name->toUtf8();
  (void)v->type();
  (void)v->readOnly();
  if (Ref<Interfaces::Stripe> data = v->binary()) {
    u64 n = data->elementCount();
    if (n > limits.maxBinary) n = limits.maxBinary;
    static std::vector<u8> buffer(4096);  // one per process: no allocation per value
    for (u64 at = 0; at < n; at += buffer.size()) {
      u64 want = n - at < buffer.size() ? n - at : buffer.size();
      if (data->readAt(at, buffer.data(), want) != want) break;
    }
    // Reads at and beyond the end must come back short, not fault.
    (void)data->readAt(data->elementCount(), buffer.data(), 16);
    (void)data->readAt(~0ull - 4, buffer.data(), 16);
  }
  if (Ref<String> s = v->string(limits.maxString)) (void)s->toUtf8();
  (void)v->number();
  if (Ref<Platform::TVector<Ref<String>>> list = v->strings(limits.maxString)) {
    for (const Ref<String>& s : list->items())
      if (s) (void)s->toUtf8();
  }
}

// Depth first over keys from the root, then the security descriptors
// (each decoded), then the diff of the hive with itself.
// Returns the number of objects visited.
inline u32 walkHive(const Ref<HiveFile>& hive, const WalkLimits& limits = {}) {
  u32 budget = limits.objects;
  // The names looked up that no input chooses, made once per process.
  static const Ref<String> kNoValue = String::create("no such value");
  static const Ref<String> kNoKey = String::create("zzzz no such key");
  static const Ref<String> kPath = String::create("a/b/c");
  (void)hive->dirty();
  (void)hive->mode();
  std::vector<Ref<Key>> stack;
  // Held to the end: the path looked up after the walk starts from it.
  const Ref<Key> root = hive->root();
  if (root) stack.push_back(root);
  // Each record once: a damaged hive that lists one key under several
  // parents (or one subtree many times) would otherwise have the walk
  // read the same records again until the budget ends it, at no gain.
  std::unordered_set<u64> seen;
  while (!stack.empty() && budget > 0) {
    Ref<Key> key = stack.back();
    stack.pop_back();
    --budget;
    if (!seen.insert(Libraries::Files::Hive::Util::keyId(key).id).second) continue;
    if (Ref<String> name = key->name()) (void)name->toUtf8();
    (void)key->lastWriteTime();
    (void)key->readOnly();
    if (Ref<Interfaces::Config::Hive::ValueIterator> values = key->valueIterator()) {
      (void)values->count();
      Ref<Value> first;
      while (budget > 0) {
        Ref<Value> v = values->next();
        if (!v) break;
        --budget;
        touchValue(v, limits);
        if (!first) first = v;
      }
      // Skipping over entries that fail, as a listing does, from the back.
      const u32 count = values->count();
      for (u32 i = 0; i < 8 && i < count && budget > 0; ++i, --budget) {
        values->seek(count - 1 - i);
        (void)values->next();
      }
      // Look the first value up by name: the search path differs from the walk.
      if (first && first->name()) (void)key->value(first->name());
      (void)key->value(kNoValue);
    }
    if (Ref<Interfaces::Config::Hive::KeyIterator> keys = key->keyIterator()) {
      const u32 count = keys->count();
      (void)keys->seek(count / 2);
      (void)keys->seek(0);
      std::vector<Ref<Key>> children;
      while (budget > children.size()) {
        Ref<Key> child = keys->next();
        if (!child) break;
        children.push_back(child);
      }
      // Search for the middle child by name (binary search over the list).
      if (!children.empty()) {
        Ref<String> name = children[children.size() / 2]->name();
        if (name) (void)key->key(name);
      }
      (void)key->key(kNoKey);
      for (auto it = children.rbegin(); it != children.rend(); ++it) stack.push_back(*it);
    }
  }
  // Twice round the list (the second time after a rewind), decoding each
  // descriptor the first time only.
  if (Ref<Interfaces::Config::Hive::SecurityDescriptorIterator> sds = hive->securityDescriptorIterator()) {
    for (u32 n = 0; n < 2 && budget > 0; ++n) {
      while (budget > 0) {
        Ref<Interfaces::Config::Hive::SecurityDescriptor> sd = sds->next();
        if (!sd) break;
        --budget;
        const std::vector<u8> bytes = sd->get();
        if (n > 0 || !limits.wholeHive) continue;
        Result<hivekit::ParsedSecurityDescriptor> parsed =
            hivekit::parse_security_descriptor(std::as_bytes(std::span<const u8>(bytes)));
        if (parsed) (void)hivekit::to_sddl(*parsed);
      }
      if (!sds->rewind()) break;
    }
  }
  (void)hive->path(kPath);
  diffWithItself(hive, limits);
  scanDeletedRecords(hive, limits);
  return limits.objects - budget;
}

// A little stream of fuzz bytes that drives the write variant.
class ByteSource {
 public:
  ByteSource(const u8* data, size_t size) : _data(data), _size(size) {}
  u8 byte() { return _pos < _size ? _data[_pos++] : 0; }
  u32 u32le() {
    u32 v = 0;
    for (int i = 0; i < 4; ++i) v |= static_cast<u32>(byte()) << (8 * i);
    return v;
  }
  bool more() const { return _pos < _size; }

 private:
  const u8* _data;
  size_t _size;
  size_t _pos = 0;
};

// Applies up to `steps` changes chosen by `ops` to a writable hive: creating,
// setting, renaming and deleting keys and values at the root and at the
// first subkeys it finds. Every call may fail; none may crash.
inline void mutateHive(const Ref<HiveFile>& hive, ByteSource& ops, u32 steps) {
  Ref<Key> root = hive->root();
  if (!root) return;
  static const char* const kNames[] = {"fuzz", "Fuzz", "a", "", "B\xc3\xa9", "long name of a key here"};
  auto pickName = [&]() { return String::create(kNames[ops.byte() % 6]); };
  auto pickKey = [&]() -> Ref<Key> {
    Ref<Key> k = root;
    u8 depth = ops.byte() % 3;
    for (u8 d = 0; d < depth && k; ++d) {
      Ref<Interfaces::Config::Hive::KeyIterator> it = k->keyIterator();
      if (!it || it->count() == 0) break;
      it->seek(ops.byte() % it->count());
      Ref<Key> next = it->next();
      if (!next) break;
      k = next;
    }
    return k;
  };
  for (u32 step = 0; step < steps && ops.more(); ++step) {
    Ref<Key> k = pickKey();
    switch (ops.byte() % 13) {
      case 0:
        (void)k->createKey(pickName());
        break;
      case 1:
        if (Ref<Key> child = k->key(pickName())) (void)k->deleteKey(child);
        break;
      case 2: {
        Ref<Value> v = k->value(pickName());
        if (!v) v = k->createValue(pickName(), Interfaces::Config::Hive::ValueTypes::String);
        if (v) (void)v->setString(String::create("some text"));
        break;
      }
      case 3: {
        Ref<Value> v = k->createValue(pickName(), ops.byte() % 12);
        if (v) (void)v->setNumber(ops.u32le());
        break;
      }
      case 4: {
        Ref<Interfaces::Config::Hive::ValueIterator> it = k->valueIterator();
        if (it && it->count() > 0) {
          it->seek(ops.byte() % it->count());
          if (Ref<Value> v = it->next()) (void)k->deleteValue(v);
        }
        break;
      }
      case 5: {
        Ref<Value> v = k->createValue(pickName(), Interfaces::Config::Hive::ValueTypes::Binary);
        if (v) {
          if (Ref<Interfaces::Stripe> data = v->binary()) {
            // Sizes across the resident / record / db boundaries.
            static const u32 kSizes[] = {0, 3, 4, 5, 100, 16344, 16345, 40000};
            u64 size = kSizes[ops.byte() % 8];
            data->setElementCount(size);
            std::vector<u8> bytes(size, ops.byte());
            data->writeAt(0, bytes.data(), bytes.size());
          }
        }
        break;
      }
      case 6: {
        Ref<Value> v = k->createValue(pickName(), Interfaces::Config::Hive::ValueTypes::MultiString);
        if (v) {
          auto list = Platform::TVector<Ref<String>>::create();
          list->push_back(String::create("one"));
          list->push_back(String::create("two"));
          (void)v->setStrings(list);
        }
        break;
      }
      case 7: {
        Ref<Key> other = pickKey();
        if (other && other != root) (void)k->move(other, pickName());
        break;
      }
      case 8: {
        Ref<Interfaces::Config::Hive::ValueIterator> it = k->valueIterator();
        if (it && it->count() > 0) {
          if (Ref<Value> v = it->next()) {
            (void)root->move(v, pickName());
          }
        }
        break;
      }
      case 9:
        (void)hive->flush();
        break;
      case 10: {
        // Whole subtrees of a damaged hive: cycles and shared keys below.
        Ref<Interfaces::Config::Hive::KeyIterator> it = k->keyIterator();
        if (it && it->count() > 0) {
          it->seek(ops.byte() % it->count());
          if (Ref<Key> child = it->next()) (void)Libraries::Files::Hive::Util::recursiveKeyDelete(k, child);
        }
        break;
      }
      case 11:
        (void)Libraries::Files::Hive::Util::openOrCreatePath(
            k, String::create(ops.byte() & 1 ? "x/y/z" : "a//b\\/c"));
        break;
      case 12:
        // A descriptor written back in place, unchanged or with one byte
        // flipped (the record's checks decide whether that is accepted).
        if (Ref<Interfaces::Config::Hive::SecurityDescriptorIterator> sds =
                hive->securityDescriptorIterator()) {
          if (Ref<Interfaces::Config::Hive::SecurityDescriptor> sd = sds->next()) {
            std::vector<u8> bytes = sd->get();
            if (!bytes.empty() && (ops.byte() & 1)) bytes[ops.byte() % bytes.size()] ^= 0xFF;
            (void)sd->set(bytes.data(), static_cast<u32>(bytes.size()));
          }
        }
        break;
    }
  }
}

}  // namespace hivekit::fuzz
