// Previous versions from the transaction logs against a model: a hive kept
// in log mode (every flush becomes an entry of its .LOG1) is changed flush
// by flush. Every key and value live after a flush whose record that
// flush's entry logged, and that the hive no longer shows, must be listed
// as a previous version with its name, type, data (when its data record
// was logged with it) and path (when every key above it was logged or is
// still live); nothing the hive shows (live, or deleted and listed from the
// hive's own free space) may be listed, and no version twice.
// The files are only read: they keep their bytes.
#include <gtest/gtest.h>

#include <filesystem>
#include <map>
#include <random>

#include "api/core.h"
#include "hive/log/log_pages.h"
#include "hive/value/value_record.h"
#include "hivekit/hivekit.h"
#include "tests/log/log_builder.h"
#include "tests/support/hive_builder.h"
#include "tests/support/test_files.h"

namespace hivekit {
namespace {

namespace fs = std::filesystem;
namespace H = Libraries::Files::Hive;

H::RegistryHiveObj& engine(const Hive& hive) {
  return detail::Access::core(detail::Access::ref(hive))->hive();
}

// A key or value as a snapshot of the live tree holds it.
struct Version {
  std::vector<std::string> path;
  std::string name;
  std::uint32_t type = 0;
  std::string data;
  std::vector<std::uint32_t> records;  // a value's data record; the keys above
};
using Snapshot = std::map<std::pair<bool, std::uint32_t>, Version>;  // (is key, nk or vk)

void snapshot(const Hive& hive, const Key& key, std::vector<std::string> path,
              std::vector<std::uint32_t> above, Snapshot& out) {
  for (const Value& v : key.values()) {
    Version& e = out[{false, detail::Access::offsetOf(v)}];
    e = {path, v.name(), static_cast<std::uint32_t>(v.type()), {}, {}};
    const auto data = *v.data();
    e.data.assign(reinterpret_cast<const char*>(data.data()), data.size());
    H::ValueRecord r;
    EXPECT_TRUE(H::readValueRecord(engine(hive), detail::Access::offsetOf(v), r));
    e.records.push_back(r.resident ? 0 : r.inDbForm() ? H::INVALID_RECORD : r.dataCell());
  }
  above.push_back(key.offset());
  for (const Key& sub : key.subkeys()) {
    std::vector<std::string> p = path;
    p.push_back(sub.name());
    out[{true, sub.offset()}] = {p, sub.name(), 0, {}, above};
    snapshot(hive, sub, p, above, out);
  }
}

Snapshot snapshot(const Hive& hive) {
  Snapshot s;
  snapshot(hive, hive.root(), {}, {}, s);
  return s;
}

// A hive whose base block says dirty, with one entry in .LOG1: opened
// writable, it stays in log mode and every flush appends an entry.
void writeLoggedHive(const fs::path& dir) {
  test::HiveBuilder b(5);
  b.setSequence(3, 2);
  const auto k = b.key(b.root(), u"Logged");
  b.value(k, u"v", 4, {1, 0, 0, 0});
  b.value(b.key(k, u"Sub"), u"text", 1, {'a', 0, 'b', 0, 0, 0});
  const std::vector<test::u8> image = b.build();
  test::writeFile(dir / "hive", image);
  test::writeFile(dir / "hive.LOG1", test::firstPageLog(image));
}

void change(Hive& hive, std::mt19937& rng, int step) {
  std::vector<Key> keys{hive.root()};
  for (size_t i = 0; i < keys.size(); ++i)
    for (const Key& k : keys[i].subkeys()) keys.push_back(k);
  Key key = keys[rng() % keys.size()];
  std::vector<Value> values;
  for (const Value& v : key.values()) values.push_back(v);
  static const size_t sizes[] = {2, 4, 9, 60, 300, 5000};
  switch (rng() % 5) {
    case 0:
    case 1: {  // a new value, or new data for one (of another size, or type)
      std::string data(sizes[rng() % 6], static_cast<char>('a' + step));
      const std::string name = values.empty() || rng() % 3 == 0 ? "v" + std::to_string(step)
                                                                : values[rng() % values.size()].name();
      (void)key.set_value(name, static_cast<ValueType>(rng() % 5),
                          std::as_bytes(std::span(data.data(), data.size())));
      break;
    }
    case 2:
      if (!values.empty()) (void)values[rng() % values.size()].remove();
      break;
    case 3:
      if (key.parent().ok()) (void)(*key.parent()).delete_key(key.name(), true);
      break;
    default:
      (void)key.create_key("k" + std::to_string(step));
  }
}

bool sameVersion(const Version& a, const DeletedItem& item, const std::string& data) {
  return a.name == item.name && a.type == item.type && (!item.data_available || a.data == data);
}

// Returns how many versions it checked.
size_t runModel(std::uint32_t seed) {
  SCOPED_TRACE("seed " + std::to_string(seed));
  const test::TempDir temp;
  const fs::path& dir = temp.path();
  writeLoggedHive(dir);
  std::mt19937 rng(seed);
  std::vector<Snapshot> states;  // after entry 2, 3, ... (a flush with no change adds none)
  {
    Hive hive = *Hive::open((dir / "hive").string(), {.writable = true});
    EXPECT_EQ(hive.info().log_mode, LogMode::dual);
    states.push_back(snapshot(hive));
    for (int step = 0; step < 24; ++step) {
      change(hive, rng, step);
      const std::uint32_t before = hive.info().applied_sequence;
      EXPECT_TRUE(hive.flush().ok());
      if (hive.info().applied_sequence != before) states.push_back(snapshot(hive));
    }
  }
  const std::string files = test::readFile(dir / "hive") + test::readFile(dir / "hive.LOG1");
  Hive hive = *Hive::open((dir / "hive").string());
  const Snapshot now = snapshot(hive);
  // What each entry logged.
  const H::LogFileInfo& log = engine(hive).logFile(1);
  EXPECT_EQ(log.entries.size(), states.size());
  if (log.entries.size() != states.size()) return 0;
  std::vector<std::vector<H::LoggedRange>> ranges(states.size());
  for (size_t i = 0; i < states.size(); ++i)
    EXPECT_TRUE(H::forEachEntryRange(log, log.entries[i], [&](const H::LoggedRange& r) {
      ranges[i].push_back(r);
      return true;
    }));
  auto logged = [&](size_t i, std::uint32_t offset) {
    for (const H::LoggedRange& r : ranges[i])
      if (offset >= r.offset && offset - r.offset < r.length) return true;
    return false;
  };

  struct Found {
    DeletedItem item;
    std::string data;
  };
  std::multimap<std::pair<bool, std::uint32_t>, Found> found;
  std::map<std::pair<bool, std::uint32_t>, std::string> leftovers;  // what the scan of the hive lists
  EXPECT_TRUE(scan_deleted(
                  hive,
                  [&](const DeletedItem& item) {
                    if (item.kind == DeletedItem::Kind::security) return true;
                    if (item.state != DeletedItem::State::previous) {
                      leftovers[{item.kind == DeletedItem::Kind::key, item.cells[0].offset}] = item.name;
                      return true;
                    }
                    EXPECT_EQ(item.log, 1);
                    const std::pair<bool, std::uint32_t> at{item.kind == DeletedItem::Kind::key,
                                                            item.cells[0].offset};
                    const std::string data(reinterpret_cast<const char*>(item.data.data()), item.data.size());
                    // Nothing the hive shows, and no version twice.
                    if (auto live = now.find(at); live != now.end()) {
                      EXPECT_FALSE(at.first ? live->second.path == item.path
                                            : sameVersion(live->second, item, data) && item.data_available)
                          << "current " << item.name;
                    }
                    for (auto [i, end] = found.equal_range(at); i != end; ++i)
                      EXPECT_FALSE(i->second.item.name == item.name && i->second.item.type == item.type &&
                                   i->second.item.size == item.size && i->second.data == data &&
                                   i->second.item.last_write == item.last_write &&
                                   i->second.item.subkeys == item.subkeys &&
                                   i->second.item.values == item.values)
                          << "listed twice: " << item.name << " @" << at.second << " seq " << item.sequence
                          << "/" << i->second.item.sequence << " avail " << item.data_available << " size "
                          << item.size << " " << deleted_path(item) << " / " << deleted_path(i->second.item);
                    found.insert({at, {item, data}});
                    return true;
                  },
                  {.logs = true})
                  .ok());

  size_t checked = 0;
  for (size_t i = 0; i < states.size(); ++i) {
    for (const auto& [at, e] : states[i]) {
      auto live = now.find(at);
      if (!logged(i, at.second) ||
          (live != now.end() && live->second.name == e.name && live->second.path == e.path &&
           live->second.type == e.type && live->second.data == e.data))
        continue;
      // Deleted, and still listed as such from the hive.
      if (auto left = leftovers.find(at); left != leftovers.end() && left->second == e.name) continue;
      ++checked;
      const Found* match = nullptr;
      for (auto [f, end] = found.equal_range(at); f != end; ++f)
        if (sameVersion(e, f->second.item, f->second.data) &&
            f->second.item.sequence <= log.entries[i].sequence())
          match = &f->second;
      EXPECT_NE(match, nullptr) << (at.first ? "key " : "value ") << e.name << " of entry " << i;
      if (!match) continue;
      if (!at.first && e.records[0] != H::INVALID_RECORD && (e.records[0] == 0 || logged(i, e.records[0]))) {
        EXPECT_TRUE(match->item.data_available) << e.name;
      }
      bool reachable = true;
      for (std::uint32_t nk : at.first ? e.records : std::vector<std::uint32_t>{})
        reachable = reachable && (logged(i, nk) || now.count({true, nk}) || nk == engine(hive).rootOffset());
      if (at.first && reachable) {
        EXPECT_EQ(match->item.path, e.path) << e.name;
      }
    }
  }
  hive = Hive();
  EXPECT_TRUE(test::readFile(dir / "hive") + test::readFile(dir / "hive.LOG1") == files);
  return checked;
}

TEST(DeletedLogs, PreviousVersionsMatchTheModel) {
  size_t checked = 0;
  for (std::uint32_t seed = 1; seed <= 4; ++seed) checked += runModel(seed);
  EXPECT_GT(checked, 20u);
}

}  // namespace
}  // namespace hivekit
