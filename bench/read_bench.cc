// Read-path benchmarks on the real hives of the shared test data, side by
// side with hivex's C library when it is installed (Debian libhivex-dev;
// used only through its public header, as a black box).
//
//   Walk/<api>/<hive>   open, every key, every value, every value's full
//                       data, close. api: Api (the public API, the loop of
//                       examples/walk), Objects (the engine's Key / Value /
//                       iterator interfaces) and Hivex (the peer).
//   Deep/<api>/<hive>   open, the key found by name about 10 levels down,
//                       one value of it by name, its data, close.
//
// Times are CPU times of this process. To compare with the peer in one run
// and alternating, repeat with random interleaving (one command line):
//   build/bench/hivekit-bench --benchmark_filter='Walk|Deep'
//     --benchmark_repetitions=9 --benchmark_enable_random_interleaving=true
//     --benchmark_report_aggregates_only=true
// bench/compare.sh runs the same work as separate processes (which adds
// process start-up to both sides) and also reports peak RSS.
//
// The hives are looked for in ../shared/testdata/hives beside the source
// tree, or in $HIVEKIT_TESTDATA; a missing hive skips its benchmarks.
// amcache.hve is dirty without logs: every reader here opens it as stored.
#include <benchmark/benchmark.h>

#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "hive/hive_file.h"
#include "hivekit/hivekit.h"

#ifdef HIVEKIT_BENCH_HIVEX
#include <hivex.h>
#endif

namespace {

namespace Engine = Libraries::Files::Hive;
namespace Api = Interfaces::Config::Hive;
using Platform::Ref;
using Platform::String;
using Platform::u64;
using Platform::u8;

std::string hivePath(const char* name) {
  if (const char* dir = std::getenv("HIVEKIT_TESTDATA")) return std::string(dir) + "/" + name;
  return std::string(HIVEKIT_SOURCE_DIR) + "/../shared/testdata/hives/" + name;
}

bool present(benchmark::State& state, const std::string& path) {
  std::error_code error;
  if (std::filesystem::is_regular_file(path, error)) return true;
  state.SkipWithError(("no hive at " + path).c_str());
  return false;
}

struct Count {
  u64 keys = 0, values = 0, bytes = 0;
};

void report(benchmark::State& state, const Count& count) {
  state.counters["keys"] = static_cast<double>(count.keys);
  state.counters["values"] = static_cast<double>(count.values);
  state.counters["data_bytes"] = static_cast<double>(count.bytes);
}

// A key about ten levels down in each hive, and one of its values.
struct DeepValue {
  const char* hive;
  const char* path;
  const char* value;
};
constexpr DeepValue DEEP[] = {
    {"SYSTEM",
     "ControlSet002\\Hardware Profiles\\0001\\System\\CurrentControlSet\\Control\\VIDEO\\"
     "{556D78CA-9A79-4D05-B305-7358B9BF431A}\\0000\\Mon12345678",
     "Attach.ToDesktop"},
    {"NTUSER.DAT",
     "Software\\Microsoft\\Windows\\CurrentVersion\\Explorer\\Discardable\\PostSetup\\"
     "Component Categories\\{56FFCC30-D398-11D0-B2AE-00A0C908FA49}\\Enum",
     "Implementing"},
};

const DeepValue* deepValueOf(const char* hive) {
  for (const DeepValue& d : DEEP)
    if (std::string(d.hive) == hive) return &d;
  return nullptr;
}

// ------------------------------------------------------------ public API

void WalkApi(benchmark::State& state, const char* name) {
  const std::string path = hivePath(name);
  if (!present(state, path)) return;
  Count count;
  std::vector<hivekit::Key> pending;
  for (auto _ : state) {
    auto hive = hivekit::Hive::open(path, {.accept_dirty = true});
    if (!hive) {
      state.SkipWithError(hive.status().message().c_str());
      return;
    }
    count = Count();
    pending.assign(1, hive->root());
    while (!pending.empty()) {
      hivekit::Key key = std::move(pending.back());
      pending.pop_back();
      ++count.keys;
      for (const hivekit::Value& v : key.values()) {
        auto data = v.data();
        count.bytes += data->size();
        ++count.values;
      }
      for (const hivekit::Key& sub : key.subkeys()) pending.push_back(sub);
    }
  }
  report(state, count);
}

void DeepApi(benchmark::State& state, const char* name) {
  const std::string path = hivePath(name);
  const DeepValue* deep = deepValueOf(name);
  if (!deep || !present(state, path)) return;
  for (auto _ : state) {
    auto hive = hivekit::Hive::open(path, {.accept_dirty = true});
    auto key = hive ? hive->key(deep->path) : hivekit::Result<hivekit::Key>(hive.status());
    auto value = key ? key->value(deep->value) : hivekit::Result<hivekit::Value>(key.status());
    auto data = value ? value->data() : hivekit::Result<hivekit::Bytes>(value.status());
    if (!data) {
      state.SkipWithError(data.status().message().c_str());
      return;
    }
    benchmark::DoNotOptimize(data->size());
  }
}

// ------------------------------------------------- the engine's interfaces

void walkObjects(const Ref<Api::Key>& root, Count& count, std::vector<u8>& buffer) {
  std::vector<Ref<Api::Key>> pending{root};
  while (!pending.empty()) {
    Ref<Api::Key> key = std::move(pending.back());
    pending.pop_back();
    ++count.keys;
    Ref<Api::ValueIterator> values = key->valueIterator();
    while (Ref<Api::Value> value = values ? values->next() : nullptr) {
      ++count.values;
      Ref<Interfaces::Stripe> data = value->binary();
      if (!data) continue;
      const u64 size = data->elementCount();
      buffer.resize(size);
      count.bytes += data->readAt(0, buffer.data(), size);
    }
    Ref<Api::KeyIterator> keys = key->keyIterator();
    while (Ref<Api::Key> sub = keys ? keys->next() : nullptr) pending.push_back(std::move(sub));
  }
}

constexpr Platform::u32 READ_MODE = Engine::modeReadOnly | Engine::modeAcceptDirty;

void WalkObjects(benchmark::State& state, const char* name) {
  const std::string path = hivePath(name);
  if (!present(state, path)) return;
  Count count;
  std::vector<u8> buffer;
  for (auto _ : state) {
    Ref<Engine::HiveFile> hive = Engine::HiveFile::open(String::create(path), READ_MODE, Engine::latin1);
    Ref<Api::Key> root = hive ? hive->root() : nullptr;
    if (!root) {
      state.SkipWithError("the hive did not open");
      return;
    }
    count = Count();
    walkObjects(root, count, buffer);
  }
  report(state, count);
}

// ------------------------------------------------------------------ hivex

#ifdef HIVEKIT_BENCH_HIVEX
void WalkHivex(benchmark::State& state, const char* name) {
  const std::string path = hivePath(name);
  if (!present(state, path)) return;
  Count count;
  std::vector<hive_node_h> pending;
  for (auto _ : state) {
    hive_h* h = hivex_open(path.c_str(), 0);
    if (!h) {
      state.SkipWithError("hivex could not open the hive");
      return;
    }
    count = Count();
    pending.assign(1, hivex_root(h));
    while (!pending.empty()) {
      const hive_node_h node = pending.back();
      pending.pop_back();
      ++count.keys;
      hive_value_h* values = hivex_node_values(h, node);
      for (size_t i = 0; values && values[i]; ++i) {
        hive_type type;
        size_t length = 0;
        char* data = hivex_value_value(h, values[i], &type, &length);
        if (data) count.bytes += length;
        std::free(data);
        ++count.values;
      }
      std::free(values);
      hive_node_h* children = hivex_node_children(h, node);
      for (size_t i = 0; children && children[i]; ++i) pending.push_back(children[i]);
      std::free(children);
    }
    hivex_close(h);
  }
  report(state, count);
}

void DeepHivex(benchmark::State& state, const char* name) {
  const std::string path = hivePath(name);
  const DeepValue* deep = deepValueOf(name);
  if (!deep || !present(state, path)) return;
  for (auto _ : state) {
    hive_h* h = hivex_open(path.c_str(), 0);
    hive_node_h node = h ? hivex_root(h) : 0;
    std::string parts = deep->path;
    for (size_t begin = 0; node && begin < parts.size();) {
      size_t end = parts.find('\\', begin);
      if (end == std::string::npos) end = parts.size();
      node = hivex_node_get_child(h, node, parts.substr(begin, end - begin).c_str());
      begin = end + 1;
    }
    hive_value_h value = node ? hivex_node_get_value(h, node, deep->value) : 0;
    hive_type type;
    size_t length = 0;
    char* data = value ? hivex_value_value(h, value, &type, &length) : nullptr;
    if (h) hivex_close(h);
    if (!data) {
      state.SkipWithError("hivex could not read the value");
      return;
    }
    benchmark::DoNotOptimize(length);
    std::free(data);
  }
}
#endif

}  // namespace

#define HIVE_BENCHMARKS(fn, label)                                                        \
  BENCHMARK_CAPTURE(fn, label##_SYSTEM, "SYSTEM")->Unit(benchmark::kMillisecond);         \
  BENCHMARK_CAPTURE(fn, label##_NTUSER, "NTUSER.DAT")->Unit(benchmark::kMillisecond);     \
  BENCHMARK_CAPTURE(fn, label##_amcache, "amcache.hve")->Unit(benchmark::kMillisecond)

HIVE_BENCHMARKS(WalkApi, Walk_Api);
HIVE_BENCHMARKS(WalkObjects, Walk_Objects);
BENCHMARK_CAPTURE(DeepApi, Deep_Api_SYSTEM, "SYSTEM")->Unit(benchmark::kMicrosecond);
BENCHMARK_CAPTURE(DeepApi, Deep_Api_NTUSER, "NTUSER.DAT")->Unit(benchmark::kMicrosecond);
#ifdef HIVEKIT_BENCH_HIVEX
HIVE_BENCHMARKS(WalkHivex, Walk_Hivex);
BENCHMARK_CAPTURE(DeepHivex, Deep_Hivex_SYSTEM, "SYSTEM")->Unit(benchmark::kMicrosecond);
BENCHMARK_CAPTURE(DeepHivex, Deep_Hivex_NTUSER, "NTUSER.DAT")->Unit(benchmark::kMicrosecond);
#endif
