// Storage failures while a dirty hive is recovered from its logs: every
// read, write, resize and sync that opening makes, on the hive file and on
// each log, fails (or comes back short) in turn. The open must then either
// fail with an error code and a message, or give exactly what the logs
// recover; and what storage holds afterwards must still recover to that,
// whether the open was read-only (the logs laid over the file) or writable
// (an old-format log copied into the file, its base block rewritten).
#include <gtest/gtest.h>

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
using test::LoggedPage;
namespace Error = Platform::Error;
namespace Log = Platform::Log;
constexpr u32 PAGE = 4096;

// A dirty hive and its logs as bytes: index 0 the hive file, 1 LOG1, 2
// LOG2 (empty: absent).
using Files = std::vector<std::vector<u8>>;

// The hive with key k and dword values v1 (first page) and v2 (second),
// both 1, and its logs, which set v1 to 2 and v2 to 3.
Files dirtyHive(bool oldFormat) {
  test::HiveBuilder b;
  b.setSequence(3, 2);
  const u32 k = b.key(b.root(), u"k");
  const u32 v1 = b.value(k, u"v1", 4, {1, 0, 0, 0});
  b.newHbin();
  const u32 v2 = b.value(k, u"v2", 4, {1, 0, 0, 0});
  const std::vector<u8> image = b.build();
  std::vector<u8> state(image.begin() + PAGE, image.end());
  auto set = [&](u32 vk, u8 n) {
    state[vk + Hive::hive_record_vk::OFS_DATA] = n;
    const u32 start = vk & ~(PAGE - 1);
    return LoggedPage{start, std::vector<u8>(state.begin() + start, state.begin() + start + PAGE)};
  };
  if (oldFormat) {
    const LoggedPage first = set(v1, 2), second = set(v2, 3);
    return {image, {}, test::oldFormatLog(image, 3, {first, second})};
  }
  // The newer entry is in LOG2, the older in LOG1: only both give both.
  test::LogBuilder log1(image, 2), log2(image, 3);
  log1.entry(2, 2 * PAGE, {set(v1, 2)});
  log2.entry(3, 2 * PAGE, {set(v2, 3)});
  return {image, log1.bytes, log2.bytes};
}

// Opens the files, each wrapped so faults can be put on it.
struct Opened {
  std::vector<Ref<FaultStripe>> stripes;  // null for an absent log
  Ref<HiveFile> hive;
};
Opened open(const Files& files, u32 mode, u32 faulted, const FaultStripe::Kind kind, u64 n,
            FaultStripe::Fault fault, bool sticky) {
  Opened o;
  for (const std::vector<u8>& f : files)
    o.stripes.push_back(f.empty() ? nullptr : FaultStripe::wrap(MemoryStripe::create(f)));
  o.stripes[faulted]->arm(kind, n, fault, sticky);
  const HiveFile::LogFiles logs{
      nullptr, o.stripes[1], o.stripes[2], nullptr, String::create("h.LOG1"), String::create("h.LOG2"), {}};
  o.hive = HiveFile::open(o.stripes[0], logs, mode, Hive::latin1, {});
  o.stripes[faulted]->disarm();
  return o;
}
Listing tree(const Ref<HiveFile>& hive) {
  Listing l;
  if (hive) readListing(hive->root(), "", l);
  return l;
}
// What the files hold as a hive opened without faults.
Listing recoveredTree(const Files& files, u32 mode) {
  return tree(open(files, mode, 0, FaultStripe::Read, 0, FaultStripe::Fail, false).hive);
}
Files bytesOf(const Opened& o) {
  Files f;
  for (const Ref<FaultStripe>& s : o.stripes)
    f.push_back(s ? s->inner().cast<MemoryStripe>()->bytes() : std::vector<u8>());
  return f;
}

struct Case {
  const char* name;
  bool oldFormat;
  u32 mode;
};
const Case CASES[] = {
    {"NewFormatReadOnly", false, Hive::modeReadOnly},
    {"NewFormatWritable", false, 0},
    {"OldFormatReadOnly", true, Hive::modeReadOnly},
    {"OldFormatWritable", true, 0},
};

class LogFaultSweep : public ::testing::TestWithParam<Case> {};

TEST_P(LogFaultSweep, EveryCallOfTheOpenFails) {
  const Case& c = GetParam();
  const Files files = dirtyHive(c.oldFormat);
  const Listing recovered = recoveredTree(files, c.mode);
  const Listing stored = tree(HiveFile::open(MemoryStripe::create(files[0]),
                                             Hive::modeReadOnly | Hive::modeAcceptDirty, Hive::latin1, {}));
  ASSERT_FALSE(recovered.empty());
  ASSERT_NE(recovered, stored) << "the logs must change what the hive holds";
  const char* const names[] = {"hive file", "LOG1", "LOG2"};

  for (u32 faulted = 0; faulted < files.size(); ++faulted) {
    if (files[faulted].empty()) continue;
    for (const FaultSpec& f : FAULT_KINDS) {
      const u64 count =
          open(files, c.mode, faulted, f.kind, 0, f.fault, f.sticky).stripes[faulted]->calls(f.kind);
      for (u64 n = 1; n <= count; ++n) {
        SCOPED_TRACE(std::string(names[faulted]) + ": " + f.name + " at call " + std::to_string(n));
        Log::Capture capture(3);
        Error::set(0);
        Opened o = open(files, c.mode, faulted, f.kind, n, f.fault, f.sticky);
        EXPECT_TRUE(o.stripes[faulted]->fired());
        if (o.hive) {
          EXPECT_EQ(tree(o.hive), recovered) << "an open that succeeds gives what the logs hold";
        } else {
          EXPECT_NE(Error::get(), 0u) << "a failed open sets an error code";
          EXPECT_FALSE(capture.messages().empty()) << "a failed open says why";
        }
        o.hive = nullptr;
        // What storage holds now recovers, read-only and writable.
        const Files after = bytesOf(o);
        EXPECT_EQ(recoveredTree(after, Hive::modeReadOnly), recovered) << "storage read-only after the fault";
        EXPECT_EQ(recoveredTree(after, 0), recovered) << "storage writable after the fault";
        if (HasFailure()) return;
      }
    }
  }
}

std::string caseName(const ::testing::TestParamInfo<Case>& info) {
  return info.param.name;
}
INSTANTIATE_TEST_SUITE_P(Logs, LogFaultSweep, ::testing::ValuesIn(CASES), caseName);

}  // namespace
}  // namespace hivekit::model
