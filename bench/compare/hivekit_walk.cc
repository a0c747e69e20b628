// hivekit's side of bench/compare.sh: the same work as hivex_walk.c through
// the public API (the walk is examples/walk's loop; hives that are dirty
// without logs open as stored).
//
//   hivekit_walk walk HIVE             prints "KEYS VALUES BYTES"
//   hivekit_walk deep HIVE PATH NAME   the key at PATH, its value NAME, its data
//   hivekit_walk pick HIVE DEPTH       "PATH<TAB>NAME" of a value with an ASCII
//                                      name on a key DEPTH levels down (or the
//                                      deepest such key), for the deep runs
#include <hivekit/hivekit.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>
#include <vector>

namespace {

int walk(const hivekit::Hive& hive) {
  std::uint64_t keys = 0, values = 0, bytes = 0;
  std::vector<hivekit::Key> pending{hive.root()};
  while (!pending.empty()) {
    hivekit::Key key = std::move(pending.back());
    pending.pop_back();
    ++keys;
    for (const hivekit::Value& v : key.values()) {
      auto data = v.data();
      bytes += data->size();
      ++values;
    }
    for (const hivekit::Key& sub : key.subkeys()) pending.push_back(sub);
  }
  std::printf("%llu %llu %llu\n", static_cast<unsigned long long>(keys), static_cast<unsigned long long>(values),
              static_cast<unsigned long long>(bytes));
  return 0;
}

int deep(const hivekit::Hive& hive, std::string_view path, std::string_view name) {
  auto key = hive.key(path);
  if (!key) return 1;
  auto value = key->value(name);
  if (!value) return 1;
  auto data = value->data();
  if (!data) return 1;
  std::printf("%zu\n", data->size());
  return 0;
}

// The first key in walk order at `depth` (else the deepest seen) that has a
// value with a plain name.
int pick(const hivekit::Hive& hive, unsigned depth) {
  struct Item {
    hivekit::Key key;
    unsigned level;
  };
  std::vector<Item> pending{{hive.root(), 0}};
  std::string bestPath, bestName;
  unsigned bestLevel = 0;
  while (!pending.empty()) {
    Item item = std::move(pending.back());
    pending.pop_back();
    if (item.level > bestLevel || bestPath.empty()) {
      for (const hivekit::Value& v : item.key.values()) {
        const std::string name = v.name();
        bool plain = !name.empty();
        for (char c : name) plain = plain && c > ' ' && c < 0x7f && c != '\\';
        if (!plain) continue;
        bestPath = item.key.path();
        bestName = name;
        bestLevel = item.level;
        break;
      }
      if (bestLevel >= depth && !bestPath.empty()) break;
    }
    for (const hivekit::Key& sub : item.key.subkeys()) pending.push_back({sub, item.level + 1});
  }
  if (bestPath.empty()) return 1;
  std::printf("%s\t%s\n", bestPath.c_str() + 1, bestName.c_str());
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  const std::string_view mode = argc > 1 ? argv[1] : "";
  const bool usage = mode == "walk" ? argc != 3 : mode == "pick" ? argc != 4 : (mode != "deep" || argc != 5);
  if (usage) {
    std::fprintf(stderr, "usage: hivekit_walk walk HIVE | deep HIVE PATH NAME | pick HIVE DEPTH\n");
    return 2;
  }
  auto hive = hivekit::Hive::open(argv[2], {.accept_dirty = true});
  if (!hive) {
    std::fprintf(stderr, "%s\n", hive.status().message().c_str());
    return 1;
  }
  if (mode == "pick") return pick(*hive, static_cast<unsigned>(std::strtoul(argv[3], nullptr, 10)));
  return mode == "walk" ? walk(*hive) : deep(*hive, argv[3], argv[4]);
}
