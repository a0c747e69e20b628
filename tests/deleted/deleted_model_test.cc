// The scan for deleted records against a model: a random tree is built
// through the public API, random keys and values are deleted (and, in some
// runs, new ones written that may take their space), and the scan of the
// file must find every deleted item whose records still hold the bytes the
// deletion left in them: the key or value at that record, with its name,
// type and data, and a key with its path. Nothing it reports may be live.
//
// A key is emptied before it is deleted (its values and subkeys go first),
// so its record no longer names a value list: its values are found as
// values no key lists, under \? or under a live key whose list still
// names them, as are values deleted one by one.
#include <gtest/gtest.h>

#include <filesystem>
#include <map>
#include <random>
#include <set>

#include "api/core.h"
#include "hive/key/key_record.h"
#include "hive/value/value_record.h"
#include "hivekit/hivekit.h"
#include "tests/support/test_files.h"

namespace hivekit {
namespace {

namespace fs = std::filesystem;
namespace H = Libraries::Files::Hive;
using Bytes8 = std::vector<std::uint8_t>;

// Bytes of records (without their size fields) as they stood at deletion.
struct Range {
  std::uint32_t offset, length;
  std::string key = {};  // for a key record: the key's name
};

struct Expected {
  bool key = false;
  std::uint32_t record = 0;  // nk or vk
  std::vector<std::string> path;
  std::string name;
  std::uint32_t type = 0;
  Bytes8 data;
  std::vector<Range> own;  // its records (a value: vk and data)
  // What its path goes through: the key records above (those still live
  // at the end excepted: they are reached as live keys) and its key's list.
  std::vector<Range> reach;
  bool pinned = false;  // its path is known (a key's)
  Bytes8 before;        // the hive bins data right after the deletion
};

H::RegistryHiveObj& engine(const Hive& hive) {
  return detail::Access::core(detail::Access::ref(hive))->hive();
}

// Names from the root down, the key's own last (none for the root).
std::vector<std::string> pathOf(Key key) {
  std::vector<std::string> names;
  for (auto parent = key.parent(); parent.ok(); key = *parent, parent = key.parent())
    names.insert(names.begin(), key.name());
  return names;
}

class Model {
 public:
  Model(Hive& hive, std::mt19937& rng) : _hive(hive), _rng(rng) {}

  void grow(Key parent, int depth) {
    for (int i = 0, n = depth == 0 ? 3 + pick(4) : pick(4); i < n; ++i) {
      Key key = *parent.create_key("k" + std::to_string(_names++));
      for (int v = 0, m = pick(4); v < m; ++v) setValue(key);
      if (depth < 3) grow(key, depth + 1);
    }
  }

  void setValue(Key key) {
    static const std::uint32_t sizes[] = {0, 3, 4, 9, 40, 300, 5000, 20000};
    Bytes8 data(sizes[pick(8)]);
    for (auto& b : data) b = static_cast<std::uint8_t>(_rng());
    const std::string name = pick(5) == 0 ? "" : "v" + std::to_string(_names++);
    (void)key.set_value(name, static_cast<ValueType>(pick(12)), std::as_bytes(std::span(data)));
  }

  // Records what deleting `key` (recursively) loses, then deletes it.
  void deleteKey(Key key) {
    std::vector<Range> above;
    for (auto p = key.parent(); p.ok() && p->parent().ok(); p = p->parent())
      above.push_back(keyRange(p->offset()));
    const size_t first = _expected.size();
    collect(key, above);
    ASSERT_TRUE((*key.parent()).delete_key(key.name(), true).ok());
    settle(first);
  }

  void deleteValue(Key key, Value value) {
    _expected.push_back(valueExpected(key, value));
    ASSERT_TRUE(value.remove().ok());
    settle(_expected.size() - 1);
  }

  std::vector<Expected>& expected() { return _expected; }
  std::uint32_t pick(std::uint32_t n) { return _rng() % n; }

 private:
  // The bytes the items from `first` on are compared with at the end.
  void settle(size_t first) {
    const Bytes8 now = snapshot();
    for (size_t i = first; i < _expected.size(); ++i) _expected[i].before = now;
  }

  Range keyRange(std::uint32_t nk) {
    H::KeyRecord r;
    EXPECT_TRUE(H::readKeyRecord(engine(_hive), nk, r));
    std::u16string name;
    H::readKeyName(engine(_hive), r, name);
    return {nk + 4, H::hive_record_nk::HEADER_SIZE - 4 + r.nameLength, detail::toUtf8(name)};
  }

  void collect(const Key& key, std::vector<Range> above) {
    Expected e;
    e.key = true;
    e.pinned = true;
    e.record = key.offset();
    e.path = pathOf(key);
    e.name = key.name();
    e.own.push_back(keyRange(key.offset()));
    e.reach = above;
    above.push_back(e.own[0]);
    for (const Value& v : key.values()) _expected.push_back(valueExpected(key, v));
    _expected.push_back(std::move(e));
    for (const Key& sub : key.subkeys()) collect(sub, above);
  }

  Expected valueExpected(const Key& key, const Value& value) {
    H::RegistryHiveObj& hive = engine(_hive);
    Expected e;
    e.record = detail::Access::offsetOf(value);
    e.path = pathOf(key);
    e.name = value.name();
    e.type = static_cast<std::uint32_t>(value.type());
    const auto bytes = *value.data();
    e.data.assign(reinterpret_cast<const std::uint8_t*>(bytes.data()),
                  reinterpret_cast<const std::uint8_t*>(bytes.data()) + bytes.size());
    H::ValueRecord r;
    EXPECT_TRUE(H::readValueRecord(hive, e.record, r));
    e.own.push_back({e.record + 4, H::hive_record_vk::HEADER_SIZE - 4 + r.nameLength});
    H::ValueExtents x;
    if (!r.resident && H::loadValueExtents(hive, r, x)) {
      std::uint32_t left = r.dataSize;
      for (std::uint32_t cell : x.extents) {
        const std::uint32_t n = std::min<std::uint32_t>(left, H::hive_record_vk::V1_5_MAX_DATA_WITHOUT_DB);
        e.own.push_back({cell + 4, n});
        left -= n;
      }
      if (r.inDbForm()) {
        e.own.push_back({r.dataCell() + 4, 8});
        e.own.push_back({x.dbList + 4, 4 * static_cast<std::uint32_t>(x.extents.size())});
      }
    }
    return e;
  }

  Bytes8 snapshot() {
    H::RegistryHiveObj& hive = engine(_hive);
    const std::uint8_t* bins = hive.binsBytes(0, hive.hiveLength());
    return Bytes8(bins, bins + hive.hiveLength());
  }

  Hive& _hive;
  std::mt19937& _rng;
  int _names = 0;
  std::vector<Expected> _expected;
};

bool unchanged(const Expected& e, const std::vector<Range>& ranges, const Bytes8& after,
               const std::map<std::uint32_t, std::string>& liveKeys = {}) {
  for (const Range& r : ranges)
    if (auto live = liveKeys.find(r.offset - 4); live != liveKeys.end() && live->second == r.key)
      continue;
    else if (r.offset + r.length > after.size() ||
             !std::equal(after.begin() + r.offset, after.begin() + r.offset + r.length,
                         e.before.begin() + r.offset))
      return false;
  return true;
}

// Every key and value the live tree holds, by record.
void liveRecords(const Key& key, std::map<std::uint32_t, std::string>& keys,
                 std::set<std::uint32_t>& values) {
  keys.emplace(key.offset(), key.name());
  for (const Value& v : key.values()) values.insert(detail::Access::offsetOf(v));
  for (const Key& sub : key.subkeys()) liveRecords(sub, keys, values);
}

void runModel(std::uint32_t seed, std::uint32_t minor, bool reuse) {
  SCOPED_TRACE("seed " + std::to_string(seed) + " minor " + std::to_string(minor) + (reuse ? " reuse" : ""));
  const test::TempDir temp;
  const fs::path file = temp.path("hive");
  std::mt19937 rng(seed);
  Bytes8 after;
  std::vector<Expected> expected;
  {
    Hive hive = *Hive::create(file.string(), {.minor_version = minor, .overwrite = true});
    Model model(hive, rng);
    model.grow(hive.root(), 0);
    ASSERT_TRUE(hive.flush().ok());
    for (int step = 0; step < 25; ++step) {
      std::vector<Key> keys;
      for (const Key& k : hive.root().subkeys()) keys.push_back(k);
      for (size_t i = 0; i < keys.size() && keys.size() < 60; ++i)
        for (const Key& k : keys[i].subkeys()) keys.push_back(k);
      if (keys.empty()) break;
      Key key = keys[model.pick(static_cast<std::uint32_t>(keys.size()))];
      std::vector<Value> values;
      for (const Value& v : key.values()) values.push_back(v);
      if (model.pick(2) == 0 && !values.empty()) {
        model.deleteValue(key, values[model.pick(static_cast<std::uint32_t>(values.size()))]);
      } else {
        model.deleteKey(key);
      }
      if (reuse && model.pick(2) == 0) model.setValue(hive.root());
      if (reuse && model.pick(3) == 0) (void)hive.root().create_key("new" + std::to_string(step));
    }
    ASSERT_TRUE(hive.close().ok());
    expected = std::move(model.expected());
  }
  Hive hive = *Hive::open(file.string());
  {
    H::RegistryHiveObj& e = engine(hive);
    after.assign(e.binsBytes(0, e.hiveLength()), e.binsBytes(0, e.hiveLength()) + e.hiveLength());
  }
  std::map<std::uint32_t, std::string> liveKeys;  // names are unique in the model
  std::set<std::uint32_t> live;
  liveRecords(hive.root(), liveKeys, live);
  for (const auto& k : liveKeys) live.insert(k.first);
  struct Found {
    DeletedItem item;
    std::string data;  // "" when unavailable
  };
  std::map<std::uint32_t, Found> found;  // by nk or vk record
  const auto summary = scan_deleted(hive, [&](const DeletedItem& item) {
    if (item.kind == DeletedItem::Kind::security) return true;
    EXPECT_EQ(live.count(item.cells[0].offset), 0u) << "live record reported: " << item.cells[0].offset;
    Found& f = found[item.cells[0].offset];
    f.item = item;
    f.item.data = {};
    f.data.assign(reinterpret_cast<const char*>(item.data.data()), item.data.size());
    return true;
  });
  ASSERT_TRUE(summary.ok()) << summary.status().to_string();
  size_t checked = 0;
  for (const Expected& e : expected) {
    if (!unchanged(e, e.own, after) || live.count(e.record)) continue;
    ++checked;
    auto it = found.find(e.record);
    ASSERT_NE(it, found.end()) << (e.key ? "key " : "value ") << e.name << " not found";
    const DeletedItem& item = it->second.item;
    EXPECT_EQ(item.name, e.name);
    if (!e.key) {
      EXPECT_TRUE(item.data_available) << e.name;
      EXPECT_EQ(item.type, e.type) << e.name;
      EXPECT_EQ(it->second.data, std::string(e.data.begin(), e.data.end())) << e.name;
    }
    if (e.pinned && unchanged(e, e.reach, after, liveKeys)) {
      EXPECT_FALSE(item.orphan) << e.name;
      EXPECT_EQ(item.path, e.path) << e.name;
    } else if (!e.key && !item.orphan) {
      EXPECT_EQ(item.path, e.path) << e.name;  // under its key, found through the list's slack
    }
  }
  EXPECT_GT(checked, reuse ? 0u : 10u);
}

TEST(DeletedModel, EveryUnreusedItemIsFoundExactly) {
  for (std::uint32_t seed = 1; seed <= 3; ++seed)
    for (std::uint32_t minor : {3u, 5u})
      for (bool reuse : {false, true}) runModel(seed, minor, reuse);
}

}  // namespace
}  // namespace hivekit
