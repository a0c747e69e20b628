// Every file of the shared test data, and copies of it cut short or with a
// few bytes changed, goes through what a forensic reader does with a hive
// it did not write: a read-only open in each read-only mode (with the logs
// beside it, unchanged or damaged, when there are any), a walk of
// everything the hive serves, and an export as registry text. Nothing may
// crash, hang, trip a sanitizer or throw; whether a variant opens is not
// checked, only that it is handled.
//
// Variants are made in memory from seeds fixed by the file's path, the
// kind of change and its number, so a failure names the variant and the
// same variant comes back in any run that reaches it:
//   HIVEKIT_SWEEP_VARIANTS  variants of each kind per file (default 3; the
//                           full sweep is 100)
//   HIVEKIT_SWEEP_HIVE      only files whose path (below hives/) contains it
//   HIVEKIT_SWEEP_FULL=1    walk and export damaged variants to the end too
//                           (by default they stop after 10,000 objects)
// A step that takes longer than HIVEKIT_SWEEP_HANG seconds (default 10; the
// unchanged files get ten times as long) is a hang: the variant is printed
// and the process aborts.
//
// The tool's reading commands meet the same files as separate processes,
// and a third of the variants (none of files above 1 MiB): each must end
// with status 0 or 1, without a sanitizer report, and what their --json
// forms write must parse as JSON (by /usr/bin/python3, when present).
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <filesystem>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "fuzz/fuzz_walk.h"
#include "hive/format/format.h"
#include "hive/log/marvin32.h"
#include "hive/regfile/reg_file_util.h"
#include "platform/memory_stripe.h"
#include "tests/support/fault_stripe.h"
#include "tests/support/run_tool.h"
#include "tests/support/test_files.h"

namespace Libraries::Files::Hive {
namespace {

namespace fs = std::filesystem;
using Platform::MemoryStripe;
using Bytes = std::vector<u8>;
using hivekit::test::readBytes;
const fs::path hivesDir = hivekit::test::testHives();

u32 envNumber(const char* name, u32 fallback) {
  const char* text = std::getenv(name);
  return text && *text ? static_cast<u32>(std::strtoul(text, nullptr, 10)) : fallback;
}

// One file of the test data and the logs found beside it.
struct Subject {
  fs::path path;
  std::string name;  // below hives/, for messages and seeds
  fs::path logs[3];  // .LOG, .LOG1, .LOG2; empty when absent
  bool hasLogs() const { return !logs[0].empty() || !logs[1].empty() || !logs[2].empty(); }
};

std::vector<Subject> subjects() {
  std::vector<Subject> out;
  const std::string filter = std::getenv("HIVEKIT_SWEEP_HIVE") ? std::getenv("HIVEKIT_SWEEP_HIVE") : "";
  for (const auto& entry : fs::recursive_directory_iterator(hivesDir)) {
    if (!entry.is_regular_file()) continue;
    Subject s;
    s.path = entry.path();
    s.name = fs::relative(entry.path(), hivesDir).string();
    if (s.name.find(filter) == std::string::npos) continue;
    const char* suffixes[3] = {".LOG", ".LOG1", ".LOG2"};
    for (int i = 0; i < 3; ++i) {
      fs::path log = s.path;
      log += suffixes[i];
      if (fs::is_regular_file(log)) s.logs[i] = log;
    }
    out.push_back(s);
  }
  std::sort(out.begin(), out.end(), [](const Subject& a, const Subject& b) { return a.name < b.name; });
  return out;
}

// The seed of one variant: FNV-1a over the file's name, the kind, the number.
u64 seedOf(const std::string& name, const char* kind, u32 number) {
  u64 h = 0xcbf29ce484222325ull;
  auto mix = [&h](u8 b) { h = (h ^ b) * 0x100000001b3ull; };
  for (char c : name) mix(static_cast<u8>(c));
  for (const char* k = kind; *k; ++k) mix(static_cast<u8>(*k));
  for (int i = 0; i < 4; ++i) mix(static_cast<u8>(number >> (8 * i)));
  return h;
}

// ---- Watchdog: a step that does not finish in time is a hang. ----

class Watchdog {
 public:
  Watchdog() : _thread([this] { run(); }) {}
  ~Watchdog() {
    {
      std::lock_guard<std::mutex> lock(_mutex);
      _stop = true;
    }
    _wake.notify_all();
    _thread.join();
  }
  // Starts a step that must end within `seconds`.
  void step(const std::string& what, double seconds) {
    std::lock_guard<std::mutex> lock(_mutex);
    _what = what;
    _deadline = std::chrono::steady_clock::now() +
                std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(seconds));
  }

 private:
  using Clock = std::chrono::steady_clock;
  void run() {
    std::unique_lock<std::mutex> lock(_mutex);
    while (!_stop) {
      _wake.wait_for(lock, std::chrono::milliseconds(500));
      if (!_stop && Clock::now() > _deadline) {
        std::fprintf(stderr, "HANG: %s\n", _what.c_str());
        std::fflush(stderr);
        std::abort();
      }
    }
  }
  std::mutex _mutex;
  std::condition_variable _wake;
  std::string _what;
  Clock::time_point _deadline = Clock::time_point::max();
  bool _stop = false;
  std::thread _thread;
};

// How far damaged variants are walked.
constexpr hivekit::fuzz::WalkLimits kDamagedWalk = {10000, 65536, 1u << 20};

// ---- Where damage does harm: record headers, hbin headers, log entries. ----

// File offsets of the well-formed hbins of an image and of their used records.
struct Layout {
  std::vector<u32> bins;
  std::vector<u32> records;
};

Layout layoutOf(const Bytes& file) {
  Layout out;
  u64 bin = hive_header::SIZE;
  while (bin + hive_hbin::SIZE <= file.size() && B32(file.data() + bin) == hive_hbin::SIGNATURE) {
    const u32 size = L32(file.data() + bin + hive_hbin::OFS_SIZE);
    if (size < hive_hbin::PAGE || size % hive_hbin::PAGE != 0 || size > file.size() - bin) break;
    out.bins.push_back(static_cast<u32>(bin));
    for (u64 at = bin + hive_hbin::SIZE; at + 4 <= bin + size;) {
      const s32 s = LS32(file.data() + at);
      const u32 length = s < 0 ? static_cast<u32>(-static_cast<s64>(s)) : static_cast<u32>(s);
      if (length < 8 || length % 8 != 0 || length > bin + size - at) break;
      if (s < 0) out.records.push_back(static_cast<u32>(at));
      at += length;
    }
    bin += size;
  }
  return out;
}

// Remembers which bytes of the image the library read.
class RecordingStripe : public MemoryStripe {
 public:
  using MemoryStripe::MemoryStripe;
  u64 readAt(u64 position, void* buffer, u64 count) override {
    if (count) read.push_back({position, position + count});
    return MemoryStripe::readAt(position, buffer, count);
  }
  std::vector<std::pair<u64, u64>> read;
};

// Drops the records of hbins that a walk within `limits` of the unchanged
// image never loads: in the biggest hives damage there would go unseen.
void keepReached(Layout& layout, const Bytes& hive, const hivekit::fuzz::WalkLimits& limits) {
  Ref<RecordingStripe> stripe = makeRef<RecordingStripe>(hive);
  Ref<HiveFile> opened = HiveFile::open(stripe, modeReadOnly | modeAcceptDirty, latin1, {});
  if (!opened) return;
  hivekit::fuzz::walkHive(opened, limits);
  // The ranges read past the base block, merged, against records in file order.
  std::vector<std::pair<u64, u64>> read;
  for (auto [begin, end] : stripe->read)
    if (end > hive_header::SIZE) read.push_back({std::max<u64>(begin, hive_header::SIZE), end});
  std::sort(read.begin(), read.end());
  std::vector<std::pair<u64, u64>> merged;
  for (const auto& r : read) {
    if (!merged.empty() && r.first <= merged.back().second)
      merged.back().second = std::max(merged.back().second, r.second);
    else
      merged.push_back(r);
  }
  std::vector<u32> kept;
  auto range = merged.begin();
  for (u32 at : layout.records) {
    while (range != merged.end() && range->second <= at) ++range;
    if (range == merged.end()) break;
    if (range->first <= at) kept.push_back(at);
  }
  if (!kept.empty()) layout.records = std::move(kept);
}

// Offsets of the 512-byte blocks of a log that start an entry or a dirty vector.
std::vector<u32> logBlocks(const Bytes& log) {
  std::vector<u32> out;
  for (u64 at = 512; at + 512 <= log.size(); at += 512) {
    const u32 sig = B32(log.data() + at);
    if (sig == hive_log_entry::SIGNATURE || sig == hive_log_dirt::SIGNATURE)
      out.push_back(static_cast<u32>(at));
  }
  return out;
}

class Mutator {
 public:
  explicit Mutator(u64 seed) : _rng(seed) {}
  u32 below(u64 n) { return n == 0 ? 0 : static_cast<u32>(_rng() % n); }
  bool chance(u32 percent) { return below(100) < percent; }

  // A length to cut a file of `size` bytes to: anywhere, near the start,
  // or at a page boundary give or take a few bytes.
  u64 cutLength(u64 size) {
    switch (below(4)) {
      case 0:
        return below(std::min<u64>(size, 3 * hive_hbin::PAGE));
      case 1: {
        const u64 page = u64{below(size / hive_hbin::PAGE + 1)} * hive_hbin::PAGE;
        const u64 at = page + below(64) - 32;
        return at < size ? at : below(size);
      }
      default:
        return below(size);
    }
  }

  // Overwrites the byte at `at`, or the word there, with something that
  // tends to matter to a parser: a random byte, a flipped bit, a boundary
  // value or the offset of another record.
  void damage(Bytes& b, u64 at, const std::vector<u32>& records) {
    if (at >= b.size()) return;
    switch (below(4)) {
      case 0:
        b[at] = static_cast<u8>(_rng());
        return;
      case 1:
        b[at] ^= static_cast<u8>(1u << below(8));
        return;
      default:
        break;
    }
    at &= ~3ull;
    if (at + 4 > b.size()) return;
    static const u32 kWords[] = {0,          1,          2,          0x7fffffff, 0x80000000, 0xffffffff,
                                 0xfffffff8, 0x80000004, 0x00004000, 0x3ffc,     0x100000,   0x1000};
    u32 word = kWords[below(std::size(kWords))];
    if (chance(40) && !records.empty()) word = records[below(records.size())] - hive_header::SIZE;
    if (chance(15)) word = L32(b.data() + at) + below(17) - 8;
    W32(b.data() + at, word);
  }

  // A few changes to a hive image; the base block's checksum is made to
  // fit again most of the time so the damage behind it is reached.
  void changeHive(Bytes& b, const Layout& layout) {
    const std::vector<u32>& records = layout.records;
    bool header = false;
    for (u32 n = 1 + below(6); n > 0; --n) {
      const u32 where = below(100);
      if (where < 15) {
        damage(b, chance(60) ? below(0x30) : below(hive_header::BASE_SIZE), records);
        header = true;
      } else if (where < 25 && !layout.bins.empty()) {
        // An hbin header, the first one more often.
        const u32 bin = layout.bins[chance(50) ? 0 : below(layout.bins.size())];
        damage(b, bin + below(hive_hbin::SIZE), records);
      } else if (where < 70 && !records.empty()) {
        // The header or first items of a record, now and then more than one
        // field of it; the first records (root key, its lists) more often.
        const u32 index = chance(30) ? below(std::min<size_t>(records.size(), 16)) : below(records.size());
        for (u32 fields = chance(30) ? 2 + below(3) : 1; fields > 0; --fields)
          damage(b, records[index] + below(96), records);
      } else if (where < 80 && !records.empty()) {
        // A lost or stale sector under a record, as a torn write leaves it.
        const u64 sector = records[below(records.size())] & ~511ull;
        if (sector + 512 > b.size()) continue;
        const u64 from = below(b.size() / 512) * 512ull;
        if (chance(40))
          std::memmove(b.data() + sector, b.data() + from, 512);
        else
          std::memset(b.data() + sector, chance(80) ? 0 : 0xff, 512);
      } else {
        damage(b, below(b.size()), records);
      }
    }
    if (header && b.size() >= hive_header::BASE_SIZE && chance(75))
      W32(b.data() + hive_header::OFS_CHECKSUM, calculateHeaderChecksum(b.data()));
  }

  // A few changes to a log: its base block, its entry headers and page
  // references (whose hash is then fixed most of the time), anywhere.
  void changeLog(Bytes& b, const std::vector<u32>& blocks) {
    bool header = false;
    std::vector<u32> entries;
    for (u32 n = 1 + below(4); n > 0; --n) {
      const u32 where = below(100);
      if (where < 25 || blocks.empty()) {
        damage(b, chance(60) ? below(0x30) : below(hive_header::BASE_SIZE), {});
        header = true;
      } else if (where < 80) {
        const u32 block = blocks[chance(50) ? 0 : below(blocks.size())];
        damage(b, block + below(chance(50) ? hive_log_entry::SIZE : 96), {});
        entries.push_back(block);
      } else {
        damage(b, below(b.size()), {});
      }
    }
    if (header && b.size() >= hive_header::BASE_SIZE && chance(75))
      W32(b.data() + hive_header::OFS_CHECKSUM, calculateHeaderChecksum(b.data()));
    for (u32 at : entries)
      if (B32(b.data() + at) == hive_log_entry::SIGNATURE && chance(75))
        W64(b.data() + at + hive_log_entry::OFS_HASH2, marvin32(b.data() + at, 32));
  }

 private:
  std::mt19937_64 _rng;
};

// ---- Running one variant ----

struct Tally {
  u32 runs = 0, opened = 0;
  double slowest = 0;
  std::string slowestLabel;
};

class TestdataMutation : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!fs::is_directory(hivesDir)) GTEST_SKIP() << "no shared test data at " << hivesDir;
    _variants = envNumber("HIVEKIT_SWEEP_VARIANTS", 3);
    _hang = envNumber("HIVEKIT_SWEEP_HANG", 10);
    _fullWalk = envNumber("HIVEKIT_SWEEP_FULL", 0) != 0;
  }

  // Opens `hive` (with `logs` unless all are null) in each read-only mode a
  // reader uses, walks and exports it. `full`: the unchanged file, walked
  // and exported to the end; damaged variants stay within a budget, which
  // still reaches every record of all but the biggest hives. `number`
  // picks the codepage, the export options and the linear fallback.
  void run(const std::string& what, const Bytes& hive, const Bytes* logs[3], bool full, u32 number) {
    // A walk to the end still stops where the bytes hold no more distinct
    // records (one per 8 bytes): a damaged list may name a subtree again
    // and again, and the walk, like any caller of the interface, would
    // then visit it without end.
    u64 bytes = hive.size();
    for (int i = 0; logs && i < 3; ++i) bytes += logs[i] ? logs[i]->size() : 0;
    const u32 objects = static_cast<u32>(std::min<u64>(bytes / 8 + 4096, ~0u));
    const WalkLimitsFor limits = full || _fullWalk ? WalkLimitsFor{{objects, 1u << 24, 1u << 26}, ~0ull}
                                                   : WalkLimitsFor{kDamagedWalk, 1u << 20};
    // On a clean file accepting a dirty one changes nothing: the full walk
    // of the big hives is spent once per distinct open. A dirty one is
    // also served unsafe, as a reader does who wants what is left of it.
    const bool dirty =
        hive.size() >= hive_header::BASE_SIZE &&
        L32(hive.data() + hive_header::OFS_PRIMARY_SEQ) != L32(hive.data() + hive_header::OFS_SECONDARY_SEQ);
    std::vector<u32> modes = {modeReadOnly, modeReadOnly | modeUnsafe};
    if (dirty || !full) modes.push_back(modeReadOnly | modeAcceptDirty);
    if (dirty) modes.push_back(modeReadOnly | modeUnsafe | modeAcceptDirty);
    for (u32 mode : modes) {
      if (number % 2) mode |= modeLinearFallback;
      const std::string label = what + " mode 0x" + hex(mode);
      _watchdog.step(label, full || _fullWalk ? 10.0 * _hang : _hang);
      ++_tally.runs;
      const auto start = std::chrono::steady_clock::now();
      step(label, hive, logs, mode, number, limits);
      const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
      if (seconds > _tally.slowest) {
        _tally.slowest = seconds;
        _tally.slowestLabel = label;
      }
    }
  }

  struct WalkLimitsFor {
    hivekit::fuzz::WalkLimits walk;
    u64 exportBytes;
  };

  // One open, walk and export; an exception out of the library is a failure.
  void step(const std::string& label, const Bytes& hive, const Bytes* logs[3], u32 mode, u32 number,
            const WalkLimitsFor& limits) {
    try {
      Ref<MemoryStripe> stripe = MemoryStripe::create(hive);
      HiveFile::LogFiles files;
      Ref<Interfaces::Stripe>* slots[3] = {&files.primary, &files.log1, &files.log2};
      Ref<String>* names[3] = {&files.primaryName, &files.log1Name, &files.log2Name};
      for (int i = 0; i < 3; ++i) {
        if (!logs || !logs[i]) continue;
        *slots[i] = MemoryStripe::create(*logs[i]);
        *names[i] = String::create("hive.LOG" + std::string(i ? std::to_string(i) : ""));
      }
      const auto codepage = static_cast<HiveCodepage>(number % 4);
      Ref<HiveFile> opened = HiveFile::open(stripe, files, mode, codepage, {});
      if (!opened) return;
      ++_tally.opened;
      hivekit::fuzz::walkHive(opened, limits.walk);
      if (Ref<Key> root = opened->root()) {
        Ref<hivekit::test::FaultStripe> text = hivekit::test::FaultStripe::wrap(MemoryStripe::create());
        text->limitSize(limits.exportBytes);
        (void)RegFileUtil::exportRegFile(root, text, String::create("HKEY_LOCAL_MACHINE/X"), number % 4,
                                         [](const std::string&) {});
      }
    } catch (const std::exception& e) {
      ADD_FAILURE() << label << ": exception " << e.what();
    } catch (...) {
      ADD_FAILURE() << label << ": exception";
    }
  }

  static std::string hex(u32 v) {
    char buffer[16];
    std::snprintf(buffer, sizeof buffer, "%x", v);
    return buffer;
  }

  // Runs `body(subject, hive bytes, log bytes)` for every file, printing
  // a line per file with what it cost.
  template <class Body>
  void forEachFile(const Body& body) {
    const auto all = subjects();
    ASSERT_FALSE(all.empty());
    for (const Subject& s : all) {
      const auto start = std::chrono::steady_clock::now();
      _tally = {};
      const Bytes hive = readBytes(s.path);
      Bytes logBytes[3];
      const Bytes* logs[3] = {};
      for (int i = 0; i < 3; ++i) {
        if (s.logs[i].empty()) continue;
        logBytes[i] = readBytes(s.logs[i]);
        logs[i] = &logBytes[i];
      }
      body(s, hive, logs);
      const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
      std::printf("  %-40s %5u runs %5u opened %7.2f s, slowest %.2f s: %s\n", s.name.c_str(), _tally.runs,
                  _tally.opened, seconds, _tally.slowest, _tally.slowestLabel.c_str());
    }
    _watchdog.step("idle", 1e9);
  }

  u32 _variants = 0;
  u32 _hang = 10;
  bool _fullWalk = false;
  Tally _tally;
  Watchdog _watchdog;
};

TEST_F(TestdataMutation, UnchangedFiles) {
  forEachFile([&](const Subject& s, const Bytes& hive, const Bytes* logs[3]) {
    run(s.name + " unchanged", hive, nullptr, true, 0);
    if (s.hasLogs()) run(s.name + " unchanged, with logs", hive, logs, true, 0);
  });
}

TEST_F(TestdataMutation, CutShort) {
  forEachFile([&](const Subject& s, const Bytes& hive, const Bytes* logs[3]) {
    for (u32 k = 0; k < _variants; ++k) {
      Mutator m(seedOf(s.name, "cut", k));
      const u64 length = m.cutLength(hive.size());
      const Bytes cut(hive.begin(), hive.begin() + static_cast<std::ptrdiff_t>(length));
      const std::string what = s.name + " cut #" + std::to_string(k) + " to " + std::to_string(length);
      run(what, cut, nullptr, false, k);
      if (s.hasLogs()) run(what + ", with logs", cut, logs, false, k);
    }
  });
}

TEST_F(TestdataMutation, BytesChanged) {
  forEachFile([&](const Subject& s, const Bytes& hive, const Bytes* logs[3]) {
    Layout layout = layoutOf(hive);
    if (!_fullWalk) keepReached(layout, hive, kDamagedWalk);
    for (u32 k = 0; k < _variants; ++k) {
      Mutator m(seedOf(s.name, "bytes", k));
      Bytes changed = hive;
      m.changeHive(changed, layout);
      const std::string what = s.name + " bytes #" + std::to_string(k);
      run(what, changed, nullptr, false, k);
      if (s.hasLogs()) run(what + ", with logs", changed, logs, false, k);
    }
  });
}

TEST_F(TestdataMutation, LogsDamaged) {
  forEachFile([&](const Subject& s, const Bytes& hive, const Bytes* logs[3]) {
    std::vector<int> present;
    for (int i = 0; i < 3; ++i)
      if (logs[i] && !logs[i]->empty()) present.push_back(i);
    if (present.empty()) return;
    for (u32 k = 0; k < 2 * _variants; ++k) {
      Mutator m(seedOf(s.name, "log", k));
      const int which = present[m.below(present.size())];
      Bytes changed = *logs[which];
      static const char* const kLogNames[3] = {".LOG", ".LOG1", ".LOG2"};
      std::string what = s.name + " log #" + std::to_string(k) + " (" + kLogNames[which] + ")";
      if (k % 2) {
        changed.resize(m.cutLength(changed.size()));
        what += " cut to " + std::to_string(changed.size());
      } else {
        m.changeLog(changed, logBlocks(changed));
      }
      const Bytes* mixed[3] = {logs[0], logs[1], logs[2]};
      mixed[which] = &changed;
      run(what, hive, mixed, false, k / 2);
    }
  });
}

// ---- The tool on the same files ----

using hivekit::test::runTool;
using hivekit::test::ToolRun;

TEST_F(TestdataMutation, ToolReadingCommands) {
  const hivekit::test::TempDir temp;
  const fs::path& dir = temp.path();
  bool noPython = false;
  forEachFile([&](const Subject& s, const Bytes& hive, const Bytes* logs[3]) {
    const fs::path original = dir / "original";
    hivekit::test::writeFile(original, hive);
    std::vector<std::pair<std::string, Bytes>> variants = {{"unchanged", hive}};
    // A third of the sweep's variants of each kind (at least one), none of
    // the biggest files, whose unchanged form costs most.
    const u32 count = hive.size() > (1u << 20) ? 0 : std::max<u32>(1, _variants / 3);
    Layout layout = layoutOf(hive);
    for (u32 k = 0; k < count; ++k) {
      Mutator cut(seedOf(s.name, "cut", k)), bytes(seedOf(s.name, "bytes", k));
      const u64 length = cut.cutLength(hive.size());
      variants.push_back({"cut #" + std::to_string(k),
                          Bytes(hive.begin(), hive.begin() + static_cast<std::ptrdiff_t>(length))});
      variants.push_back({"bytes #" + std::to_string(k), hive});
      bytes.changeHive(variants.back().second, layout);
    }
    std::vector<std::pair<fs::path, bool>> json;
    for (size_t v = 0; v < variants.size(); ++v) {
      const fs::path file = dir / ("hive" + std::to_string(v));
      hivekit::test::writeFile(file, variants[v].second);
      // The unchanged file reads through its logs; the rest as stored.
      const char* suffixes[3] = {".LOG", ".LOG1", ".LOG2"};
      for (int i = 0; i < 3 && v == 0; ++i)
        if (logs[i]) {
          fs::path log = file;
          log += suffixes[i];
          hivekit::test::writeFile(log, *logs[i]);
        }
      // Every other variant is also read whole into memory (--unsafe).
      const std::string h = file.string(), mode = v % 2 ? "--unsafe" : "--codepage=latin1";
      // The form of each command's output: 0 text, 1 a JSON document, 2 JSON Lines.
      const std::vector<std::pair<std::vector<std::string>, int>> commands = {
          {{"info", "--json", "--dirty", mode, h}, 1},
          {{"info", "--json", "--dirty", mode, h, "\\"}, 1},
          {{"ls", "--json", "--dirty", mode, h}, 1},
          {{"ls", "-r", "-l", "--dirty", mode, h}, 0},
          {{"dump", "--json", "--dirty", mode, h}, 2},
          {{"sd", "--json", "--dirty", mode, h}, 2},
          {{"find", "--json", "--dirty", mode, h, "--data", "^[0-9a-f]{8}", "--key", "e"}, 2},
          {{"timeline", "--json", "--dirty", mode, h}, 2},
          {{"deleted", "--json", "--dirty", mode, h}, 2},
          {{"diff", "--json", "--times", "--dirty", original.string(), h}, 2},
          {{"diff", "--reg", "--dirty", original.string(), h}, 0}};
      // Against itself, the patch is the same walk as the JSON form.
      for (size_t c = 0; c < commands.size() - (v == 0); ++c) {
        const auto& [args, form] = commands[c];
        const std::string label = s.name + " " + variants[v].first + ": " + args[0] + " " + args[1];
        _watchdog.step(label, 20.0 * _hang);
        const fs::path out = dir / ("out" + std::to_string(v) + "-" + std::to_string(c));
        const ToolRun r = runTool(args, out, dir / "err");
        ++_tally.runs;
        _tally.opened += r.status == 0;
        EXPECT_TRUE(r.status == 0 || r.status == 1) << label << ": status " << r.status << "\n" << r.err;
        EXPECT_EQ(r.err.find("Sanitizer"), std::string::npos) << label << "\n" << r.err;
        EXPECT_EQ(r.err.find("runtime error"), std::string::npos) << label << "\n" << r.err;
        if (form != 0 && fs::file_size(out) > 0) json.emplace_back(out, form == 2);
      }
      for (int i = 0; i < 3 && v == 0; ++i) {
        fs::path log = file;
        log += suffixes[i];
        fs::remove(log);
      }
    }
    if (noPython) return;
    const std::string problems = hivekit::test::jsonProblems(json);
    noPython = problems == "no python";
    EXPECT_TRUE(noPython || problems.empty()) << s.name << ": " << problems;
  });
  if (noPython) GTEST_SKIP() << "no /usr/bin/python3: the JSON was not parsed";
}

}  // namespace
}  // namespace Libraries::Files::Hive
