// Write-path benchmarks: importing registry text into a new hive, creating
// keys through the engine's interfaces (with values; many below one key, in
// name order and shuffled) and many values in one key.
//
// The import benchmarks make the text in memory the way regedit writes it
// (one section per key below ROOT\Software\Vendor, each with a string, a
// dword and 64 bytes of binary data) and time HiveFile::create plus
// RegFileUtil::importRegFile. Counters:
//   file_bytes     size of the hive file after the final flush
//   bytes_per_key  file_bytes / keys (flat when size grows linearly)
//   keys_per_s     throughput (flat when time grows linearly)
// The 1,000 / 10,000 / 100,000 key runs of one family also get a fitted
// O(N) line and its RMS error, which stays small when growth is linear.
//
// Run: build/bench/hivekit-bench [--benchmark_filter=Import]
#include <benchmark/benchmark.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "hive/hive_file.h"
#include "hive/regfile/reg_file_util.h"
#include "platform/memory_stripe.h"

namespace {

namespace Hive = Libraries::Files::Hive;
namespace Api = Interfaces::Config::Hive;
namespace Types = Interfaces::Config::Hive::ValueTypes;
using Platform::MemoryStripe;
using Platform::Ref;
using Platform::String;
using Platform::u32;
using Platform::u64;
using Platform::u8;

enum class Encoding { Utf16, Utf8 };

std::string keyName(u32 i) {
  char buffer[16];
  std::snprintf(buffer, sizeof buffer, "Key%06u", i);
  return buffer;
}

// 64 bytes that differ from key to key.
void blob(u32 i, u8 out[64]) {
  for (u32 b = 0; b < 64; ++b) out[b] = static_cast<u8>((i * 31 + b * 7) & 0xff);
}

// The text of an export of `keys` keys, in regedit's layout: hex lines are
// continued after every 25th byte.
std::string regText(u32 keys) {
  std::string text = "Windows Registry Editor Version 5.00\r\n\r\n";
  text.reserve(keys * 330 + 64);
  static const char HEX[] = "0123456789abcdef";
  for (u32 i = 0; i < keys; ++i) {
    const std::string name = keyName(i);
    text += "[ROOT\\Software\\Vendor\\" + name + "]\r\n";
    text += "\"Description\"=\"Settings of " + name + "\"\r\n";
    char dword[32];
    std::snprintf(dword, sizeof dword, "\"Count\"=dword:%08x\r\n", i);
    text += dword;
    std::string line = "\"Data\"=hex:";
    u8 bytes[64];
    blob(i, bytes);
    for (u32 b = 0; b < 64; ++b) {
      line += HEX[bytes[b] >> 4];
      line += HEX[bytes[b] & 0xf];
      if (b + 1 < 64) {
        line += ',';
        if ((b + 1) % 25 == 0) line += "\\\r\n  ";
      }
    }
    text += line + "\r\n\r\n";
  }
  return text;
}

// The text as a file would hold it: UTF-16LE with a byte order mark, or UTF-8.
const std::vector<u8>& regFile(u32 keys, Encoding encoding) {
  static std::map<std::pair<u32, Encoding>, std::vector<u8>> made;
  std::vector<u8>& bytes = made[{keys, encoding}];
  if (!bytes.empty()) return bytes;
  const std::string text = regText(keys);
  if (encoding == Encoding::Utf8) {
    bytes.assign(text.begin(), text.end());
    return bytes;
  }
  bytes.reserve(2 * text.size() + 2);
  bytes.push_back(0xff);
  bytes.push_back(0xfe);
  for (char c : text) {  // the text is ASCII
    bytes.push_back(static_cast<u8>(c));
    bytes.push_back(0);
  }
  return bytes;
}

void setCounters(benchmark::State& state, u32 keys, u64 fileBytes) {
  state.counters["file_bytes"] = static_cast<double>(fileBytes);
  state.counters["bytes_per_key"] = static_cast<double>(fileBytes) / keys;
  state.counters["keys_per_s"] =
      benchmark::Counter(static_cast<double>(keys), benchmark::Counter::kIsIterationInvariantRate);
  state.SetComplexityN(keys);
}

bool import(const Ref<Hive::HiveFile>& hive, const std::vector<u8>& text) {
  Ref<Interfaces::Stripe> source = MemoryStripe::create(text);
  return Hive::RegFileUtil::importRegFile(hive, source, String::create("ROOT"));
}

// Import into a hive held in memory; the time includes making the hive and
// the final flush.
void BM_ImportMemory(benchmark::State& state, Encoding encoding) {
  const u32 keys = static_cast<u32>(state.range(0));
  const std::vector<u8>& text = regFile(keys, encoding);
  u64 size = 0;
  for (auto _ : state) {
    Ref<MemoryStripe> stripe = MemoryStripe::create();
    Ref<Hive::HiveFile> hive = Hive::HiveFile::create(stripe, 5, Hive::latin1, {});
    if (!hive || !import(hive, text) || !hive->flush()) {
      state.SkipWithError("import failed");
      return;
    }
    size = stripe->elementCount();
  }
  setCounters(state, keys, size);
}

std::string tempHivePath() {
  const char* dir = std::getenv("TMPDIR");
  return std::string(dir && *dir ? dir : "/tmp") + "/hivekit-bench-" + std::to_string(getpid()) + ".hive";
}

// Import into a new hive file, flushed and synced to the disk at the end.
void BM_ImportFile(benchmark::State& state, Encoding encoding) {
  const u32 keys = static_cast<u32>(state.range(0));
  const std::vector<u8>& text = regFile(keys, encoding);
  const std::string path = tempHivePath();
  u64 size = 0;
  for (auto _ : state) {
    Ref<Hive::HiveFile> hive = Hive::HiveFile::create(String::create(path), 5, Hive::latin1);
    if (!hive || !import(hive, text) || !hive->flush()) {
      state.SkipWithError("import failed");
      break;
    }
    hive = nullptr;
    state.PauseTiming();
    std::error_code error;
    size = std::filesystem::file_size(path, error);
    std::filesystem::remove(path, error);
    state.ResumeTiming();
  }
  std::error_code error;
  std::filesystem::remove(path, error);
  setCounters(state, keys, size);
}

// The same content made through the API instead of from text.
void BM_CreateKeysApi(benchmark::State& state) {
  const u32 keys = static_cast<u32>(state.range(0));
  std::vector<Ref<String>> names(keys);
  for (u32 i = 0; i < keys; ++i) names[i] = String::create(keyName(i));
  const Ref<String> description = String::create("Description");
  const Ref<String> count = String::create("Count");
  const Ref<String> data = String::create("Data");
  u64 size = 0;
  for (auto _ : state) {
    Ref<MemoryStripe> stripe = MemoryStripe::create();
    Ref<Hive::HiveFile> hive = Hive::HiveFile::create(stripe, 5, Hive::latin1, {});
    Ref<Api::Key> vendor = hive ? hive->root()->createKey(String::create("Software")) : nullptr;
    if (vendor) vendor = vendor->createKey(String::create("Vendor"));
    if (!vendor) {
      state.SkipWithError("setup failed");
      return;
    }
    bool ok = true;
    u8 bytes[64];
    for (u32 i = 0; i < keys && ok; ++i) {
      Ref<Api::Key> key = vendor->createKey(names[i]);
      Ref<Api::Value> text = key ? key->createValue(description, Types::String) : nullptr;
      Ref<Api::Value> number = key ? key->createValue(count, Types::Dword) : nullptr;
      Ref<Api::Value> binary = key ? key->createValue(data, Types::Binary) : nullptr;
      Ref<Interfaces::Stripe> stripeValue = binary ? binary->binary() : nullptr;
      blob(i, bytes);
      ok = text && number && stripeValue && text->setString(names[i]) && number->setNumber(i) &&
           stripeValue->setElementCount(64) == 64 && stripeValue->writeAt(0, bytes, 64) == 64;
    }
    if (!ok || !hive->flush()) {
      state.SkipWithError("creating keys failed");
      return;
    }
    size = stripe->elementCount();
  }
  setCounters(state, keys, size);
}

// Keys made below one key, their names in order or shuffled. In order,
// every insertion goes to the end of the subkey list; shuffled, it lands
// anywhere inside the sorted list, whose sublists keep filling and
// splitting, and the lookups before each insertion touch name records
// across the whole hive.
enum class Order { Sorted, Random };

void BM_CreateKeysOneParent(benchmark::State& state, Order order) {
  const u32 keys = static_cast<u32>(state.range(0));
  std::vector<u32> sequence(keys);
  for (u32 i = 0; i < keys; ++i) sequence[i] = i;
  if (order == Order::Random) std::shuffle(sequence.begin(), sequence.end(), std::mt19937(7));
  std::vector<Ref<String>> names(keys);
  for (u32 i = 0; i < keys; ++i) names[i] = String::create(keyName(sequence[i]));
  u64 size = 0;
  for (auto _ : state) {
    Ref<MemoryStripe> stripe = MemoryStripe::create();
    Ref<Hive::HiveFile> hive = Hive::HiveFile::create(stripe, 5, Hive::latin1, {});
    Ref<Api::Key> root = hive ? hive->root() : nullptr;
    if (!root) {
      state.SkipWithError("setup failed");
      return;
    }
    for (const Ref<String>& name : names) {
      if (!root->createKey(name)) {
        state.SkipWithError("creating a key failed");
        return;
      }
    }
    if (!hive->flush()) {
      state.SkipWithError("flush failed");
      return;
    }
    size = stripe->elementCount();
  }
  setCounters(state, keys, size);
}

// Many values in one key, made and then each looked up by name: every
// creation and lookup searches the key's values by name.
void BM_ValuesOfOneKey(benchmark::State& state) {
  const u32 values = static_cast<u32>(state.range(0));
  std::vector<Ref<String>> names(values);
  for (u32 i = 0; i < values; ++i) names[i] = String::create(keyName(i));
  u64 size = 0;
  for (auto _ : state) {
    Ref<MemoryStripe> stripe = MemoryStripe::create();
    Ref<Hive::HiveFile> hive = Hive::HiveFile::create(stripe, 5, Hive::latin1, {});
    Ref<Api::Key> key = hive ? hive->root()->createKey(String::create("Many")) : nullptr;
    if (!key) {
      state.SkipWithError("setup failed");
      return;
    }
    for (u32 i = 0; i < values; ++i) {
      Ref<Api::Value> v = key->createValue(names[i], Types::Dword);
      if (!v || !v->setNumber(i)) {
        state.SkipWithError("creating a value failed");
        return;
      }
    }
    for (u32 i = 0; i < values; ++i) {
      if (!key->value(names[i])) {
        state.SkipWithError("a value was not found");
        return;
      }
    }
    if (!hive->flush()) {
      state.SkipWithError("flush failed");
      return;
    }
    size = stripe->elementCount();
  }
  setCounters(state, values, size);
}

}  // namespace

BENCHMARK_CAPTURE(BM_ImportMemory, utf16, Encoding::Utf16)
    ->RangeMultiplier(10)
    ->Range(1000, 100000)
    ->Unit(benchmark::kMillisecond)
    ->Complexity(benchmark::oN);
BENCHMARK_CAPTURE(BM_ImportMemory, utf8, Encoding::Utf8)
    ->RangeMultiplier(10)
    ->Range(1000, 100000)
    ->Unit(benchmark::kMillisecond)
    ->Complexity(benchmark::oN);
BENCHMARK_CAPTURE(BM_ImportFile, utf16, Encoding::Utf16)
    ->RangeMultiplier(10)
    ->Range(1000, 100000)
    ->Unit(benchmark::kMillisecond)
    ->Complexity(benchmark::oN);
BENCHMARK(BM_CreateKeysApi)->Arg(10000)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_CreateKeysOneParent, sorted, Order::Sorted)
    ->Arg(10000)
    ->Arg(100000)
    ->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_CreateKeysOneParent, random, Order::Random)
    ->Arg(10000)
    ->Arg(100000)
    ->Unit(benchmark::kMillisecond);
BENCHMARK(BM_ValuesOfOneKey)->Arg(1000)->Arg(10000)->Arg(30000)->Unit(benchmark::kMillisecond);
