// Storage failures at every point of a write workload. The workload (open,
// keys and values of every data form, growth into new hbins, deletes, a
// rename and a move, flushes; in one start, reading a megabyte of values
// between changes and their flush, which must write nothing) is run once to
// count the reads, writes, resizes and syncs it makes, then once for each
// of them with that call failing or coming back short. Every run must show the failure (a false or
// null result, an error code, a log line), keep the hive usable (the failed
// step succeeds once the fault is gone), keep the bytes in storage
// openable at the moment of the failure, and end, after a flush without the
// fault, in bytes that hold exactly what succeeded.
#include <gtest/gtest.h>

#include <functional>

#include "hive/hive_file.h"
#include "platform/error.h"
#include "platform/log.h"
#include "platform/memory_stripe.h"
#include "tests/log/log_builder.h"
#include "tests/model/hive_model.h"
#include "tests/support/fault_stripe.h"

namespace hivekit::model {
namespace {

using Hive::HiveFile;
using Platform::MemoryStripe;
using test::FAULT_KINDS;
using test::FaultSpec;
using test::FaultStripe;
using test::pattern;
namespace Error = Platform::Error;
namespace Log = Platform::Log;
namespace T = Cfg::ValueTypes;

std::vector<u8>& bytesOf(const Ref<FaultStripe>& s) {
  return s->inner().cast<MemoryStripe>()->bytes();
}

// What storage holds: the hive file and, for a hive written through its
// log, LOG1.
struct Disk {
  std::vector<u8> hive, log1;
};

HiveFile::LogFiles logFiles(Ref<Interfaces::Stripe> log1) {
  return {nullptr, std::move(log1), nullptr, nullptr, str("h.LOG1"), nullptr, {}};
}

// The bytes opened read-only, a dirty hive accepted.
Ref<HiveFile> openDisk(const Disk& disk) {
  return HiveFile::open(MemoryStripe::create(disk.hive),
                        logFiles(disk.log1.empty() ? nullptr : MemoryStripe::create(disk.log1)),
                        Hive::modeReadOnly | Hive::modeAcceptDirty, Hive::latin1, {});
}
// "" when the bytes open and hold what the model holds; with `walk`, they
// must also pass the byte walk (only a file without a log to apply is a
// hive on its own).
std::string opensAs(const Disk& disk, const MKey& model, bool walk = false) {
  Ref<HiveFile> hive = openDisk(disk);
  if (!hive) return "does not open, error " + std::to_string(Error::get());
  const std::string d = diffTree(model, hive->root());
  return d.empty() && walk ? diffBytes(model, disk.hive) : d;
}

// The key at a path of names ("" the root), in the hive or the model.
Ref<Cfg::Key> keyAt(const Ref<HiveFile>& hive, const char* path) {
  return hive->path(*path ? str(path) : nullptr);
}
MKey& modelKey(MKey& root, const std::u16string& path) {
  MKey* k = &root;
  for (size_t i = 0; i < path.size();) {
    const size_t j = std::min(path.find(u'\\', i), path.size());
    k = findKey(*k, path.substr(i, j - i));
    i = j + 1;
  }
  return *k;
}

// One step of the workload: one call that changes the hive (or a flush),
// and its effect on the model on success. A step that sets value data
// names that value: its data is unspecified after a failure.
struct Step {
  const char* what;
  std::function<bool(const Ref<HiveFile>&)> run;
  std::function<void(MKey&)> apply;
  const char* dataKey = nullptr;
  const char* dataValue = nullptr;
};

bool setData(const Ref<HiveFile>& hive, const char* key, const char* value, const std::vector<u8>& data) {
  Ref<Cfg::Key> k = keyAt(hive, key);
  Ref<Cfg::Value> v = k ? k->value(str(value)) : nullptr;
  Ref<Interfaces::Stripe> b = v ? v->binary() : nullptr;
  return b && b->setElementCount(data.size()) == data.size() &&
         b->writeAt(0, data.data(), data.size()) == data.size();
}
std::vector<u8> dataOf(const Ref<HiveFile>& hive, const char* key, const char* value) {
  Ref<Cfg::Key> k = keyAt(hive, key);
  return test::dataOf(k ? k->value(str(value)) : nullptr);
}

const std::vector<u8> BLOB = pattern(20000, 1), MID = pattern(5000, 2);
// Data of the key "big", which some starts have: a megabyte and more, read
// while changes wait for a flush.
constexpr u32 BIG_VALUES = 72;
const std::vector<u8> BIG = pattern(16000, 3);

std::vector<Step> workload() {
  auto flush = Step{"flush", [](const Ref<HiveFile>& h) { return h->flush(); }, [](MKey&) {}};
  auto createKey = [](const char* parent, const char* name) {
    return Step{
        "create key",
        [=](const Ref<HiveFile>& h) {
          Ref<Cfg::Key> p = keyAt(h, parent);
          return p && p->createKey(str(name));
        },
        [=](MKey& m) { insertKey(modelKey(m, Platform::utf8ToUtf16(parent)), Platform::utf8ToUtf16(name)); }};
  };
  auto createValue = [](const char* key, const char* name, u32 type, std::vector<u8> initial) {
    return Step{"create value",
                [=](const Ref<HiveFile>& h) {
                  Ref<Cfg::Key> k = keyAt(h, key);
                  return k && k->createValue(str(name), type);
                },
                [=](MKey& m) {
                  modelKey(m, Platform::utf8ToUtf16(key))
                      .values.push_back({Platform::utf8ToUtf16(name), type, initial});
                }};
  };
  auto data = [](const char* key, const char* name, const std::vector<u8>* bytes) {
    return Step{"set data", [=](const Ref<HiveFile>& h) { return setData(h, key, name, *bytes); },
                [=](MKey& m) {
                  findValue(modelKey(m, Platform::utf8ToUtf16(key)), Platform::utf8ToUtf16(name))->data =
                      *bytes;
                },
                key, name};
  };
  static const std::vector<u8> SEVEN = {7, 0, 0, 0};
  return {
      createKey("", "alpha"),
      createValue("alpha", "n", T::Dword, {0, 0, 0, 0}),
      data("alpha", "n", &SEVEN),
      createValue("alpha", "blob", T::Binary, {}),
      data("alpha", "blob", &BLOB),  // a db record with two fragments, in a new hbin
      createKey("top", "t3"),
      createValue("", "mid", T::Binary, {}),
      data("", "mid", &MID),  // one data record, in another new hbin
      {"read big",
       [](const Ref<HiveFile>& h) {
         Ref<Cfg::Key> big = keyAt(h, "big");
         if (!big) return true;  // a start without it
         for (u32 i = 0; i < BIG_VALUES; ++i)
           if (dataOf(h, "big", std::to_string(i).c_str()) != BIG) return false;
         return true;
       },
       [](MKey&) {}},
      flush,
      {"delete value",
       [](const Ref<HiveFile>& h) {
         Ref<Cfg::Key> k = keyAt(h, "alpha");
         Ref<Cfg::Value> v = k ? k->value(str("n")) : nullptr;
         return v && k->deleteValue(v);
       },
       [](MKey& m) { m.subkeys.at(u"alpha").values.erase(m.subkeys.at(u"alpha").values.begin()); }},
      {"delete key",
       [](const Ref<HiveFile>& h) {
         Ref<Cfg::Key> top = keyAt(h, "top"), k = keyAt(h, "top\\t1");
         return k && top->deleteKey(k);
       },
       [](MKey& m) { m.subkeys.at(u"top").subkeys.erase(u"t1"); }},
      {"rename key",
       [](const Ref<HiveFile>& h) {
         Ref<Cfg::Key> k = keyAt(h, "alpha");
         return k && h->root()->move(k, str("beta"));
       },
       [](MKey& m) {
         MKey k = m.subkeys.at(u"alpha");
         m.subkeys.erase(u"alpha");
         k.name = u"beta";
         m.subkeys.emplace(u"beta", k);
       }},
      {"move key",
       [](const Ref<HiveFile>& h) {
         Ref<Cfg::Key> top = keyAt(h, "top"), k = keyAt(h, "beta");
         return top && k && top->move(k, str("gamma"));
       },
       [](MKey& m) {
         MKey k = m.subkeys.at(u"beta");
         m.subkeys.erase(u"beta");
         k.name = u"gamma";
         m.subkeys.at(u"top").subkeys.emplace(u"gamma", k);
       }},
      flush,
  };
}

// The hive the workload starts from: a root with a key "top" of three
// subkeys and three values of 3000 bytes (hbins of their own), flushed. `logged`:
// the file made dirty, with a new-format LOG1 whose one entry adds the key
// "logged" (logging the pages that changed, so the hbins of the values are
// read from the file); the workload then writes through that log.
struct Start {
  Disk disk;
  MKey model;
};
Start makeStart(bool logged, bool padded, bool big) {
  Start s;
  Ref<MemoryStripe> file = MemoryStripe::create();
  Ref<HiveFile> hive = HiveFile::create(file, 5, Hive::latin1, {});
  Ref<Cfg::Key> top = hive->root()->createKey(str("top"));
  insertKey(s.model, u"top");
  for (const char* name : {"t0", "t1", "t2"}) {
    top->createKey(str(name));
    insertKey(s.model.subkeys.at(u"top"), Platform::utf8ToUtf16(name));
  }
  for (const char* name : {"keep1", "keep2", "keep3"}) {
    const std::vector<u8> keep = pattern(3000, static_cast<u8>(name[4]));
    top->createValue(str(name), T::Binary);
    setData(hive, "top", name, keep);
    s.model.subkeys.at(u"top").values.push_back({Platform::utf8ToUtf16(name), T::Binary, keep});
  }
  if (big) {
    Ref<Cfg::Key> k = hive->root()->createKey(str("big"));
    insertKey(s.model, u"big");
    for (u32 i = 0; i < BIG_VALUES; ++i) {
      const std::string name = std::to_string(i);
      k->createValue(str(name.c_str()), T::Binary);
      setData(hive, "big", name.c_str(), BIG);
      s.model.subkeys.at(u"big").values.push_back({Platform::utf8ToUtf16(name), T::Binary, BIG});
    }
  }
  EXPECT_TRUE(hive->flush());
  hive = nullptr;
  s.disk.hive = file->bytes();
  if (!logged) return s;

  // The logged state: the same hive with one more key, as one entry that
  // carries the pages that changed.
  const std::vector<u8> clean = s.disk.hive;
  hive = HiveFile::open(file, 0, Hive::latin1, {});
  hive->root()->createKey(str("logged"));
  insertKey(s.model, u"logged");
  EXPECT_TRUE(hive->flush());
  hive = nullptr;
  const std::vector<u8>& after = file->bytes();
  namespace H = Hive;
  const u32 length = L32(&clean[H::hive_header::OFS_LENGTH]);
  EXPECT_EQ(after.size(), clean.size()) << "the logged change must not grow the hive";
  std::vector<test::LoggedPage> pages;
  for (u32 page = 0; page < length; page += 4096) {
    auto from = after.begin() + 4096 + page;
    if (!std::equal(from, from + 4096, clean.begin() + 4096 + page))
      pages.push_back({page, {from, from + 4096}});
  }
  const u32 sequence = L32(&clean[H::hive_header::OFS_SECONDARY_SEQ]);
  test::LogBuilder log(clean, sequence);
  log.entry(sequence, length, pages);
  s.disk.log1 = log.bytes;
  // Windows keeps its logs at a size it grows in steps: the entries end in
  // zeros, which new entries overwrite.
  if (padded) s.disk.log1.resize(64 * 1024);
  s.disk.hive = clean;
  Platform::W32(&s.disk.hive[H::hive_header::OFS_PRIMARY_SEQ], sequence + 1);
  Platform::W32(&s.disk.hive[H::hive_header::OFS_CHECKSUM], H::calculateHeaderChecksum(s.disk.hive.data()));
  return s;
}

// How the hive is opened and which stripe the faults hit.
struct Config {
  const char* name;
  u32 mode;
  bool logged;
  bool faultOnLog;
  bool padded;  // the log has zeros behind its entries
  bool big;     // the start holds the values of "big"
};

class FaultSweep : public ::testing::TestWithParam<Config> {
 protected:
  void SetUp() override { start = makeStart(GetParam().logged, GetParam().padded, GetParam().big); }

  // The bytes in storage now.
  Disk disk() const { return {bytesOf(file), log1 ? bytesOf(log1) : std::vector<u8>()}; }

  // One run of the workload with the n-th call of the fault's kind armed
  // (none when n is 0). Returns the number of calls of that kind made on
  // the faulted stripe.
  u64 run(const FaultSpec& f, u64 n) {
    const Config& config = GetParam();
    file = FaultStripe::wrap(MemoryStripe::create(start.disk.hive));
    log1 = config.logged ? FaultStripe::wrap(MemoryStripe::create(start.disk.log1)) : nullptr;
    const Ref<FaultStripe> target = config.faultOnLog ? log1 : file;
    const Ref<FaultStripe> f1 = file, l1 = log1;
    HiveFile::SyncCallback sync = [f1, l1] {
      const bool logSynced = !l1 || l1->sync();
      return f1->sync() && logSynced;
    };
    Log::Capture capture(3);
    // A step or open that fails must say so: an error code and a message.
    auto failureShows = [&](const char* what) {
      EXPECT_TRUE(target->fired()) << what << " failed without a fault";
      EXPECT_NE(Error::get(), 0u) << what;
      EXPECT_FALSE(capture.messages().empty()) << what << " failed without a message";
    };
    MKey model = start.model, flushed = start.model;
    Disk flushedDisk = start.disk;
    // Storage after a failure still opens. Where the hbins already in the
    // file were not touched, it holds what the last flush wrote, or, when
    // only a sync failed, what the failed flush wrote.
    auto storageOpens = [&](const char* what) {
      const Disk now = disk();
      const u32 length = L32(&flushedDisk.hive[Hive::hive_header::OFS_LENGTH]);
      const bool untouched =
          config.logged || (now.hive.size() >= 4096 + length &&
                            std::equal(now.hive.begin() + 4096, now.hive.begin() + 4096 + length,
                                       flushedDisk.hive.begin() + 4096));
      if (f.kind == FaultStripe::Sync && opensAs(now, model) == "") return;
      if (untouched && !(config.mode & Hive::modeWriteThrough)) {
        EXPECT_EQ(opensAs(now, flushed), "") << "storage after a failure in " << what;
        return;
      }
      EXPECT_TRUE(openDisk(now)) << "storage after a failure in " << what;
    };

    Error::set(0);
    target->arm(f.kind, n, f.fault, f.sticky);
    Ref<HiveFile> hive = HiveFile::open(file, logFiles(log1), config.mode, Hive::latin1, sync);
    if (!hive) {
      failureShows("open");
      target->disarm();
      hive = HiveFile::open(file, logFiles(log1), config.mode, Hive::latin1, sync);
      if (!hive) {
        ADD_FAILURE() << "no open after a failed open";
        return target->calls(f.kind);
      }
    }
    for (const Step& step : workload()) {
      SCOPED_TRACE(step.what);
      capture.clear();
      Error::set(0);
      const u64 before = target->fired();
      const u64 writesBefore = file->calls(FaultStripe::Write) + (log1 ? log1->calls(FaultStripe::Write) : 0);
      bool ok = step.run(hive);
      // Changes reach storage only through a flush (or write-through).
      if (std::string(step.what) == "read big") {
        EXPECT_EQ(file->calls(FaultStripe::Write) + (log1 ? log1->calls(FaultStripe::Write) : 0),
                  writesBefore);
      }
      if (!ok) failureShows(step.what);
      if (target->fired() > before) {
        EXPECT_FALSE(capture.messages().empty()) << "a fault in " << step.what << " without a message";
        storageOpens(step.what);
        target->disarm();
        if (!ok) {
          if (step.dataKey) {
            findValue(modelKey(model, Platform::utf8ToUtf16(step.dataKey)),
                      Platform::utf8ToUtf16(step.dataValue))
                ->data = dataOf(hive, step.dataKey, step.dataValue);
          }
          EXPECT_EQ(diffTree(model, hive->root()), "") << "the hive after a failed " << step.what;
          ok = step.run(hive);
          EXPECT_TRUE(ok) << step.what << " once the fault is gone";
        }
      }
      if (!ok) return target->calls(f.kind);
      step.apply(model);
      if (std::string(step.what) == "flush") {
        flushed = model;
        flushedDisk = disk();
      }
    }
    target->disarm();
    EXPECT_TRUE(hive->flush());
    hive = nullptr;
    EXPECT_EQ(opensAs(disk(), model, !config.logged), "") << "storage at the end";
    if (config.logged) {
      EXPECT_EQ(bytesOf(file), start.disk.hive) << "a hive written through its log";
    }
    return target->calls(f.kind);
  }

  Start start;
  Ref<FaultStripe> file, log1;
};

TEST_P(FaultSweep, EveryCallOfTheWorkloadFails) {
  for (const FaultSpec& f : FAULT_KINDS) {
    const u64 count = run(f, 0);
    ASSERT_FALSE(HasFailure()) << "the workload fails without a fault";
    for (u64 n = 1; n <= count; ++n) {
      SCOPED_TRACE(std::string(f.name) + " at call " + std::to_string(n) + " of " + std::to_string(count));
      run(f, n);
      if (HasFailure()) return;  // the first broken point tells most
    }
  }
}

const Config CONFIGS[] = {
    {"Cached", 0, false, false, false, false},
    {"CachedReadingBetweenChanges", 0, false, false, false, true},
    {"WriteThrough", Hive::modeWriteThrough, false, false, false, false},
    {"LoggedFaultsOnFile", 0, true, false, false, false},
    {"LoggedFaultsOnLog", 0, true, true, false, false},
    {"PaddedLogFaultsOnLog", 0, true, true, true, false},
};
std::string configName(const ::testing::TestParamInfo<Config>& info) {
  return info.param.name;
}
INSTANTIATE_TEST_SUITE_P(Modes, FaultSweep, ::testing::ValuesIn(CONFIGS), configName);

}  // namespace
}  // namespace hivekit::model
