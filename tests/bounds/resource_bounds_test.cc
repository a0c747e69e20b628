// Hostile hives against every reading path: fields that claim far more than
// the file holds, lists and links that loop, and trees nested 50,000 deep.
// Each path must end quickly with a clean result (data, or an error and a
// diagnostic), use memory in proportion to the file rather than to what its
// fields claim, and never run out of stack.
//
// The command-line tool runs as a child process under ptrace, stopped at
// its exit to read its peak resident set (VmHWM): wait4's ru_maxrss would
// also count the pages of this process that the child inherited at fork.
// A peak may exceed the tool's largest peak on a small clean hive by a
// small multiple of the file size (see allowanceKb), never by what the
// file's fields claim. HIVEKIT_BOUNDS_REPORT=1 prints every run's peak.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/ptrace.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "hive/format/errors.h"
#include "hive/hive_file.h"
#include "hive/key/key_obj.h"
#include "hive/regfile/reg_file_util.h"
#include "hive/util/util.h"
#include "platform/error.h"
#include "platform/memory_stripe.h"
#include "tests/support/hive_builder.h"
#include "tests/support/test_files.h"

namespace {

namespace fs = std::filesystem;
namespace Hive = Libraries::Files::Hive;
using Hive::hive_record_list;
using Hive::hive_record_nk;
using Hive::hive_record_sk;
using Hive::hive_record_vk;
using hivekit::test::HiveBuilder;
using hivekit::test::NkFields;
using hivekit::test::u16;
using hivekit::test::u32;
using hivekit::test::u64;
using hivekit::test::u8;
using hivekit::test::VkFields;
using Interfaces::Config::Hive::Key;
using Interfaces::Config::Hive::Value;
using Platform::Ref;
using Platform::String;
using Platform::W16;
using Platform::W32;

using hivekit::test::LF;
using hivekit::test::LH;
using hivekit::test::LI;
using hivekit::test::RI;

double secondsSince(std::chrono::steady_clock::time_point start) {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

// ---------------------------------------------------------------- the tool

struct CliRun {
  int status = -1;   // exit status, or 128 + the signal that ended it
  long peakKb = -1;  // peak resident set; -1 when it could not be read
  double seconds = 0;
  std::string out, err;
};

using hivekit::test::readFile;

long vmHwmKb(pid_t pid) {
  std::ifstream in("/proc/" + std::to_string(pid) + "/status");
  for (std::string line; std::getline(in, line);)
    if (line.rfind("VmHWM:", 0) == 0) return std::strtol(line.c_str() + 6, nullptr, 10);
  return -1;
}

// CPU seconds after which a run counts as hung (the kernel ends it).
constexpr rlim_t CPU_LIMIT = 30;

// Runs the tool with `args`; `stackBytes`, when given, limits its stack.
CliRun runCli(const fs::path& dir, const std::vector<std::string>& args, rlim_t stackBytes = 0) {
  const fs::path out = dir / ".stdout", err = dir / ".stderr";
  std::vector<std::string> argStore{HIVEKIT_CLI};
  argStore.insert(argStore.end(), args.begin(), args.end());
  std::vector<char*> argv;
  for (std::string& a : argStore) argv.push_back(a.data());
  argv.push_back(nullptr);
  // The sanitizer's leak check stops the process's threads through ptrace,
  // which a process traced by us cannot allow: leave it to the other tests.
  // A small quarantine of freed memory keeps the peak close to what is
  // live, rather than to all that was ever allocated.
  const char* asan = std::getenv("ASAN_OPTIONS");
  const std::string asanOptions = std::string(asan ? asan : "") + ":detect_leaks=0:quarantine_size_mb=4";
  const auto start = std::chrono::steady_clock::now();
  const pid_t pid = fork();
  if (pid == 0) {
    const int fds[3] = {open("/dev/null", O_RDONLY), open(out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600),
                        open(err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600)};
    for (int i = 0; i < 3; ++i) dup2(fds[i], i);
    const rlimit cpu{CPU_LIMIT, CPU_LIMIT + 1}, stack{stackBytes, stackBytes};
    setrlimit(RLIMIT_CPU, &cpu);
    if (stackBytes) setrlimit(RLIMIT_STACK, &stack);
    setenv("ASAN_OPTIONS", asanOptions.c_str(), 1);
    ptrace(PTRACE_TRACEME, 0, nullptr, nullptr);
    execv(argv[0], argv.data());
    _exit(127);
  }
  CliRun r;
  int status = 0;
  waitpid(pid, &status, 0);
  // Traced: stopped at the exec. Go on until the exit event, where the
  // process's memory is still there to be measured.
  if (WIFSTOPPED(status)) {
    ptrace(PTRACE_SETOPTIONS, pid, nullptr, PTRACE_O_TRACEEXIT | PTRACE_O_EXITKILL);
    ptrace(PTRACE_CONT, pid, nullptr, nullptr);
    while (waitpid(pid, &status, 0) == pid && WIFSTOPPED(status)) {
      long signal = WSTOPSIG(status);
      if (signal == SIGTRAP && (status >> 16) == PTRACE_EVENT_EXIT) {
        r.peakKb = vmHwmKb(pid);
        signal = 0;
      }
      ptrace(PTRACE_CONT, pid, nullptr, reinterpret_cast<void*>(signal));
    }
  }
  r.seconds = secondsSince(start);
  r.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  r.out = readFile(out);
  r.err = readFile(err);
  return r;
}

// ---------------------------------------------------------------- hives

// A crafted hive and what to ask of it: keys to list and values to read,
// as KEYPATHs of the tool ("" is the root).
struct Crafted {
  std::string name;
  std::vector<u8> image;
  std::vector<std::string> keys{""};
  std::vector<std::pair<std::string, std::string>> values;
};

u32 field32(HiveBuilder& b, u32 record, u32 offset) {
  return Platform::L32(b.at(record) + offset);
}
void setField32(HiveBuilder& b, u32 record, u32 offset, u32 value) {
  W32(b.at(record) + offset, value);
}

// Points a key at a subkey list and sets its count.
void setSubkeys(HiveBuilder& b, u32 nk, u32 count, u32 list) {
  setField32(b, nk, hive_record_nk::OFS_NUM_KEYS, count);
  setField32(b, nk, hive_record_nk::OFS_KEY_LIST, list);
}

// The root with a few ordinary keys and values, so that hostile parts sit
// among sound ones.
u32 soundPart(HiveBuilder& b) {
  const u32 root = b.root();
  const u32 a = b.key(root, u"Sound");
  b.value(a, u"text", 1, {'o', 0, 'k', 0, 0, 0});
  b.value(a, u"blob", 3, std::vector<u8>(100, 7));
  b.key(a, u"Child");
  return root;
}

// "k" and four letters, distinct for each i below 26^4.
std::u16string nthName(u32 i) {
  std::u16string name = u"k";
  for (u32 n = i; name.size() < 5; n /= 26) name += static_cast<char16_t>(u'a' + n % 26);
  return name;
}

// A clean hive of about `bytes` bytes: the reference for peak memory.
std::vector<u8> cleanHive(u32 bytes) {
  HiveBuilder b;
  const u32 root = soundPart(b);
  for (u32 i = 0; b.hbinsSize() < bytes; ++i)
    b.value(b.key(root, nthName(i)), u"data", 3, std::vector<u8>(4000, static_cast<u8>(i)));
  return b.build();
}

// Values whose size fields claim up to 2 GiB, over data records of a few
// bytes, and big-data records claiming 65535 fragments.
Crafted valueClaims(u32 minor) {
  HiveBuilder b(minor);
  const u32 root = soundPart(b);
  const u32 k = b.key(root, u"V");
  std::vector<std::pair<u32, u32>> sizes;  // vk, claimed size field
  auto claim = [&](const char16_t* name, u32 type, u32 stored, u32 field) {
    sizes.emplace_back(b.value(k, name, type, std::vector<u8>(stored, 0x41)), field);
  };
  claim(u"bin", 3, 16, 0x7fffffff);
  claim(u"sz", 1, 16, 0x7ffffffe);
  claim(u"multi", 7, 16, 0x7ffffffe);
  claim(u"dword", 4, 16, 0x7fffffff);
  claim(u"resident", 3, 4, 0xffffffff);
  // From 1.4 on, big-data records claiming 65535 fragments over a list of
  // three, with sizes from what the three hold to 2 GiB.
  std::vector<u32> dbValues;
  if (minor >= 4) {
    claim(u"dbsize", 3, 40000, 0x7fffffff);
    claim(u"dbbig", 3, 40000, 1000000000);
    dbValues = {sizes[5].first, sizes[6].first, b.value(k, u"dbcount", 3, std::vector<u8>(40000, 0x42))};
  }
  b.layout();
  for (auto [vk, field] : sizes) setField32(b, vk, hive_record_vk::OFS_DATA_SIZE, field);
  for (u32 vk : dbValues) W16(b.at(field32(b, vk, hive_record_vk::OFS_DATA)) + 6, 0xffff);
  Crafted c{"values-1." + std::to_string(minor), b.build(), {"", "V"}, {}};
  for (const char* v : {"bin", "sz", "multi", "dword", "resident", "dbsize", "dbbig", "dbcount"})
    c.values.emplace_back("V", v);
  return c;
}

// Keys whose counts claim 65535 or 2^32 - 1 subkeys or values over lists
// that hold one entry, or over no list at all.
Crafted listClaims(u32 minor) {
  HiveBuilder b(minor);
  const u32 root = soundPart(b);
  const std::vector<std::u16string> names = {
      u"keys-max", u"lf", u"lh", u"li", u"no-lists", u"ri", u"ri-sum", u"values-65535", u"values-max"};
  std::map<std::u16string, u32> keys, targets;
  for (const std::u16string& n : names) {
    keys[n] = b.key(root, n);
    targets[n] = b.key(keys[n], u"t");
    b.value(keys[n], u"v", 4, {1, 2, 3, 4});
  }
  b.layout();
  const u32 hint = HiveBuilder::lfHint(u"t"), hash = HiveBuilder::lhHash(u"t", true);
  auto nk = [&](const char16_t* n) { return keys[n]; };
  auto target = [&](const char16_t* n) { return targets[n]; };
  setField32(b, nk(u"keys-max"), hive_record_nk::OFS_NUM_KEYS, 0xffffffff);
  setSubkeys(b, nk(u"lf"), 0xffff, b.writeList(LF, {target(u"lf")}, {hint}, 0xffff));
  setSubkeys(b, nk(u"lh"), 0xffff, b.writeList(LH, {target(u"lh")}, {hash}, 0xffff));
  setSubkeys(b, nk(u"li"), 0xffff, b.writeList(LI, {target(u"li")}, {}, 0xffff));
  setSubkeys(b, nk(u"no-lists"), 0xffff, hivekit::test::NO_RECORD);
  setField32(b, nk(u"no-lists"), hive_record_nk::OFS_NUM_VALUES, 0xffff);
  setField32(b, nk(u"no-lists"), hive_record_nk::OFS_VALUE_LIST, hivekit::test::NO_RECORD);
  const u32 sub = b.writeList(LH, {target(u"ri")}, {hash});
  setSubkeys(b, nk(u"ri"), 0xffff, b.writeList(RI, {sub}, {}, 0xffff));
  const u32 sub1 = b.writeList(LH, {target(u"ri-sum")}, {hash}, 0xffff);
  const u32 sub2 = b.writeList(LI, {target(u"ri-sum")}, {}, 0xffff);
  setSubkeys(b, nk(u"ri-sum"), 0xfffe, b.writeList(RI, {sub1, sub2}));
  setField32(b, nk(u"values-65535"), hive_record_nk::OFS_NUM_VALUES, 0xffff);
  setField32(b, nk(u"values-max"), hive_record_nk::OFS_NUM_VALUES, 0xffffffff);
  Crafted c{"lists-1." + std::to_string(minor), b.build(), {""}, {}};
  for (const std::u16string& n : names) {
    const std::string key(n.begin(), n.end());
    c.keys.push_back(key);
    c.values.emplace_back(key, "v");
  }
  return c;
}

// Names, class names and security descriptors whose lengths run far past
// their records.
Crafted lengthClaims(bool rootDescriptor) {
  HiveBuilder b;
  const u32 root = soundPart(b);
  const u32 n = b.key(root, u"names");
  const u32 v = b.value(n, u"long", 3, {1, 2, 3, 4, 5, 6});
  const u32 bad = b.key(n, u"aa");  // first in the list: lookups of the other still work
  const u32 classed = b.key(n, u"classed");
  b.layout();
  W16(b.at(bad) + hive_record_nk::OFS_NAME_LENGTH, 0xffff);
  W16(b.at(bad) + hive_record_nk::OFS_CLASS_LENGTH, 0xffff);
  W16(b.at(v) + hive_record_vk::OFS_NAME_LENGTH, 0xffff);
  W16(b.at(classed) + hive_record_nk::OFS_CLASS_LENGTH, 0xffff);
  setField32(b, classed, hive_record_nk::OFS_CLASS, b.writeData({'c', 0}));
  // A second descriptor, linked into the ring after the root's.
  const u32 sk = field32(b, root, hive_record_nk::OFS_SK);
  const u32 other = b.writeSk({sk, sk, 1, {}, 0x7fffffff});
  setField32(b, sk, hive_record_sk::OFS_FLINK, other);
  setField32(b, sk, hive_record_sk::OFS_BLINK, other);
  setField32(b, classed, hive_record_nk::OFS_SK, other);
  if (rootDescriptor) setField32(b, sk, hive_record_sk::OFS_LENGTH, 0xfffffff0);
  return {rootDescriptor ? "lengths-root-sk" : "lengths",
          b.build(),
          {"", "names", "names\\classed"},
          {{"names", "long"}, {"names", ""}}};
}

// Hive bins data sizes and hbin sizes that claim more than the file.
std::vector<Crafted> binClaims() {
  std::vector<Crafted> out;
  {
    HiveBuilder b;
    soundPart(b);
    b.setHbinsSize(0xfffff000);
    out.push_back({"hbins-size", b.build(), {""}, {}});
  }
  {
    HiveBuilder b;
    const u32 root = soundPart(b);
    const u32 far = b.newHbin();
    const u32 k = b.key(root, u"Far");
    b.value(k, u"v", 3, std::vector<u8>(64, 1));
    b.layout();
    setField32(b, far, 8, 0x7ffff000);  // the second hbin's size
    out.push_back({"hbin-size", b.build(), {"", "Far"}, {{"Far", "v"}}});
  }
  {
    // One hbin of 2 MiB, its size true: an hbin bigger than any page of
    // memory is held, and walked, whole.
    HiveBuilder b;
    const u32 root = soundPart(b);
    b.newHbin(2u << 20);
    b.value(b.key(root, u"Big"), u"v", 3, std::vector<u8>(64u << 10, 9));
    out.push_back({"big-hbin", b.build(), {"", "Big"}, {{"Big", "v"}}});
  }
  return out;
}

// Subkey lists that lead back to the key itself or to a key above it, and
// ri records that name themselves or each other.
Crafted keyCycles() {
  HiveBuilder b;
  const u32 root = soundPart(b);
  const u32 self = b.key(root, u"Self");
  b.value(self, u"v", 4, {1, 0, 0, 0});
  const u32 a = b.key(root, u"A");
  const u32 ab = b.key(a, u"B");
  const u32 abc = b.key(ab, u"C");
  const u32 ri = b.key(root, u"RiSelf");
  const u32 pair = b.key(root, u"RiPair");
  b.layout();
  setSubkeys(b, self, 1, b.writeList(LH, {self}, {HiveBuilder::lhHash(u"Self", true)}));
  // C lists A and the root; B lists A besides C.
  setSubkeys(b, abc, 2, b.writeList(LH, {a, root}, {HiveBuilder::lhHash(u"A", true), 0}));
  setSubkeys(b, ab, 2, b.writeList(LH, {a, abc}, {HiveBuilder::lhHash(u"A", true), 0}));
  const u32 riSelf = b.writeList(RI, {0});
  W32(b.at(riSelf) + hive_record_list::OFS_ITEMS, riSelf);
  setSubkeys(b, ri, 1, riSelf);
  const u32 ri1 = b.writeList(RI, {0}), ri2 = b.writeList(RI, {ri1});
  W32(b.at(ri1) + hive_record_list::OFS_ITEMS, ri2);
  setSubkeys(b, pair, 1, ri1);
  return {"key-cycles",
          b.build(),
          {"", "Self", "Self\\Self\\Self", "A\\B\\C", "A\\B\\C\\A\\B", "RiSelf", "RiPair"},
          {{"Self\\Self", "v"}}};
}

// Every key its own parent, the root included.
Crafted ownParents() {
  HiveBuilder b;
  const u32 root = soundPart(b);
  std::vector<u32> keys{root, b.key(root, u"P")};
  keys.push_back(b.key(keys.back(), u"Q"));
  b.value(keys.back(), u"v", 1, {'x', 0, 0, 0});
  b.layout();
  for (u32 k : keys) setField32(b, k, hive_record_nk::OFS_PARENT, k);
  return {"own-parents", b.build(), {"", "P", "P\\Q"}, {{"P\\Q", "v"}}};
}

// A value list naming itself, its key, one value 1000 times, and values
// whose data records are their own vk record, the value list, or a db
// record whose fragment list names the db record and the vk.
Crafted valueLoops() {
  HiveBuilder b;
  const u32 root = soundPart(b);
  const u32 k = b.key(root, u"Loops");
  const u32 ok = b.value(k, u"ok", 3, std::vector<u8>(20, 1));
  const u32 own = b.value(k, u"own", 3, std::vector<u8>(20, 2));
  const u32 toList = b.value(k, u"tolist", 3, std::vector<u8>(20, 3));
  const u32 db = b.value(k, u"db", 3, std::vector<u8>(40000, 4));
  b.layout();
  const u32 list = field32(b, k, hive_record_nk::OFS_VALUE_LIST);
  setField32(b, own, hive_record_vk::OFS_DATA, own);
  setField32(b, toList, hive_record_vk::OFS_DATA, list);
  const u32 dbRecord = field32(b, db, hive_record_vk::OFS_DATA);
  const u32 fragments = field32(b, dbRecord, 8);
  setField32(b, fragments, 4, dbRecord);
  setField32(b, fragments, 8, db);
  std::vector<u32> entries{list, k, own, toList, db};
  entries.insert(entries.end(), 1000, ok);
  const u32 big = b.writeOffsets(entries);
  setField32(b, k, hive_record_nk::OFS_NUM_VALUES, static_cast<u32>(entries.size()));
  setField32(b, k, hive_record_nk::OFS_VALUE_LIST, big);
  return {"value-loops",
          b.build(),
          {"", "Loops"},
          {{"Loops", "ok"}, {"Loops", "own"}, {"Loops", "tolist"}, {"Loops", "db"}}};
}

// Security record lists that never come back to where they started: a
// ring closing into its second record, a chain of 200 closing likewise, a
// record linking to itself, links to a key record and to nothing.
std::vector<Crafted> skRings() {
  std::vector<Crafted> out;
  // Record i links back to record i - 1 and forward to flink(i).
  auto ring = [&](const std::string& name, u32 length,
                  std::function<u32(u32 i, const std::vector<u32>&)> flink) {
    HiveBuilder b;
    const u32 root = soundPart(b);
    b.layout();
    std::vector<u32> sk{field32(b, root, hive_record_nk::OFS_SK)};
    for (u32 i = 1; i < length; ++i) sk.push_back(b.writeSk({1, 1, 1, {}, std::nullopt}));
    for (u32 i = 0; i < length; ++i) {
      setField32(b, sk[i], hive_record_sk::OFS_FLINK, flink(i, sk));
      setField32(b, sk[i], hive_record_sk::OFS_BLINK, sk[(i + length - 1) % length]);
    }
    out.push_back({name, b.build(), {""}, {}});
  };
  ring("sk-subring", 3, [](u32 i, const std::vector<u32>& sk) { return sk[i == 2 ? 1 : i + 1]; });
  ring("sk-chain", 200, [](u32 i, const std::vector<u32>& sk) { return sk[i + 1 == sk.size() ? 1 : i + 1]; });
  ring("sk-self", 2, [](u32, const std::vector<u32>& sk) { return sk[1]; });  // the second names itself
  ring("sk-to-key", 2, [](u32 i, const std::vector<u32>& sk) { return i == 0 ? sk[1] : 0x20u; });
  ring("sk-to-nothing", 2, [](u32 i, const std::vector<u32>& sk) { return i == 0 ? sk[1] : 0u; });
  return out;
}

// A chain of `levels` keys below the root, each the only subkey of the one
// above, the deepest with one value. Laid out with the low-level calls:
// the tree calls search their keys linearly.
std::vector<u8> deepChain(u32 levels) {
  HiveBuilder b;
  const u32 root = b.root();
  b.layout();
  std::vector<u32> nk{root};
  NkFields f;
  f.name = {'k'};
  f.sk = field32(b, root, hive_record_nk::OFS_SK);
  for (u32 i = 0; i < levels; ++i) {
    f.parent = nk.back();
    nk.push_back(b.writeNk(f));
  }
  const u32 hash = HiveBuilder::lhHash(u"k", true);
  for (u32 i = 0; i < levels; ++i) setSubkeys(b, nk[i], 1, b.writeList(LH, {nk[i + 1]}, {hash}));
  VkFields v;
  v.name = {'v'};
  v.type = 4;
  v.dataSize = 4 | hive_record_vk::DATA_RESIDENT;
  v.data = 42;
  setField32(b, nk.back(), hive_record_nk::OFS_NUM_VALUES, 1);
  setField32(b, nk.back(), hive_record_nk::OFS_VALUE_LIST, b.writeOffsets({b.writeVk(v)}));
  setField32(b, field32(b, root, hive_record_nk::OFS_SK), hive_record_sk::OFS_REFCOUNT, levels + 1);
  return b.build();
}

// Lists that name the same records over and over: the root lists A `n`
// times, A lists its subkey `n` times and its value `n` times, and a
// second key's value list names one value of `dataBytes` bytes `n` times.
Crafted repeatedEntries(u32 n, u32 dataBytes) {
  HiveBuilder b;
  const u32 root = b.root();
  const u32 a = b.key(root, u"A");
  const u32 sub = b.key(a, u"B");
  const u32 v = b.value(a, u"v", 4, {1, 2, 3, 4});
  const u32 d = b.key(root, u"D");
  const u32 big = b.value(d, u"big", 3, std::vector<u8>(dataBytes, 5));
  b.layout();
  const u32 hashA = HiveBuilder::lhHash(u"A", true), hashB = HiveBuilder::lhHash(u"B", true);
  const u32 hashD = HiveBuilder::lhHash(u"D", true);
  std::vector<u32> rootList(n, a), rootHashes(n, hashA);
  rootList.push_back(d);
  rootHashes.push_back(hashD);
  setSubkeys(b, root, n + 1, b.writeList(LH, rootList, rootHashes));
  setSubkeys(b, a, n, b.writeList(LH, std::vector<u32>(n, sub), std::vector<u32>(n, hashB)));
  setField32(b, a, hive_record_nk::OFS_NUM_VALUES, n);
  setField32(b, a, hive_record_nk::OFS_VALUE_LIST, b.writeOffsets(std::vector<u32>(n, v)));
  setField32(b, d, hive_record_nk::OFS_NUM_VALUES, n);
  setField32(b, d, hive_record_nk::OFS_VALUE_LIST, b.writeOffsets(std::vector<u32>(n, big)));
  return {"repeated", b.build(), {"", "A", "D"}, {{"D", "big"}}};
}

// `keys` keys, each claiming 65535 subkeys over an lh or li record of one
// entry: cheap to refuse once, so a hive of many must not cost 512 KiB of
// zeroed memory per key.
Crafted manyClaims(u32 keys) {
  HiveBuilder b;
  const u32 root = b.root();
  std::vector<u32> nk;
  for (u32 i = 0; i < keys; ++i) nk.push_back(b.key(root, nthName(i)));
  b.layout();
  for (u32 i = 0; i < keys; ++i)
    setSubkeys(
        b, nk[i], 0xffff,
        b.writeList(i % 2 ? LH : LI, {nk[i]}, i % 2 ? std::vector<u32>{1} : std::vector<u32>{}, 0xffff));
  return {"many-claims", b.build(), {""}, {}};
}

// ---------------------------------------------------------------- the library

Ref<Hive::HiveFile> openImage(const std::vector<u8>& image, u32 mode = Hive::modeReadOnly) {
  return Hive::HiveFile::open(Platform::MemoryStripe::create(image), mode, Hive::latin1, {});
}

u32 recordOf(const Ref<Key>& key) {
  const auto* k = dynamic_cast<const Hive::KeyObj*>(key.get());
  return k ? k->offset() : 0;
}

// Everything a reader can ask of a value; the answers do not matter, only
// that they come.
void readValue(const Ref<Key>& key, const Ref<Value>& v) {
  Ref<String> name = v->name();
  if (name) key->value(name);
  v->type();
  v->string(1u << 24);
  v->strings(1u << 24);
  v->number();
  v->readOnly();
  if (Ref<Interfaces::Stripe> data = v->binary()) {
    std::vector<u8> chunk(1 << 16);
    for (u64 at = 0; at < data->elementCount(); at += chunk.size())
      if (data->readAt(at, chunk.data(), chunk.size()) == 0) break;
  }
}

struct WalkStats {
  size_t keys = 0, values = 0, descriptors = 0, deepest = 0;
};

// Depth first over the public interface, one iterator per level held on a
// stack (the walk itself must not recurse), each subkey also looked up by
// name when `lookups`. A key is entered once: the guard any caller of the
// interface needs.
WalkStats walkApi(const Ref<Hive::HiveFile>& hive, bool lookups = true) {
  WalkStats s;
  struct Level {
    Ref<Key> key;
    Ref<Interfaces::Config::Hive::KeyIterator> it;
  };
  std::set<u32> entered;
  std::vector<Level> stack;
  auto enter = [&](const Ref<Key>& key) {
    ++s.keys;
    key->name();
    key->lastWriteTime();
    if (auto values = key->valueIterator()) {
      for (u32 i = 0; i < values->count(); ++i) {
        Ref<Value> v = values->next();
        if (!v) break;
        ++s.values;
        readValue(key, v);
      }
    }
    stack.push_back({key, key->keyIterator()});
    s.deepest = std::max(s.deepest, stack.size());
  };
  if (Ref<Key> root = hive->root()) enter(root);
  while (!stack.empty()) {
    Level& top = stack.back();
    Ref<Key> sub = top.it ? top.it->next() : nullptr;
    if (!sub) {
      stack.pop_back();
      continue;
    }
    if (Ref<String> name = sub->name(); name && lookups) top.key->key(name);
    if (entered.insert(recordOf(sub)).second) enter(sub);
  }
  if (auto sds = hive->securityDescriptorIterator()) {
    while (Ref<Interfaces::Config::Hive::SecurityDescriptor> sd = sds->next()) {
      sd->get();
      if (++s.descriptors > 1000) break;
    }
  }
  return s;
}

// The registry text export of the whole hive; false when it was refused.
bool exportAll(const Ref<Hive::HiveFile>& hive, size_t* length = nullptr) {
  Ref<Platform::MemoryStripe> out = Platform::MemoryStripe::create();
  const bool ok = Hive::RegFileUtil::exportRegFile(hive->root(), out, String::create("ROOT"), 0,
                                                   [](const std::string&) {});
  if (length) *length = out->bytes().size();
  return ok;
}

// Deletes every subkey of the root of a writable copy, each with its tree.
void deleteAll(const std::vector<u8>& image) {
  Ref<Hive::HiveFile> hive = openImage(image, 0);
  if (!hive) return;
  Ref<Key> root = hive->root();
  std::vector<Ref<Key>> keys;
  if (auto it = root->keyIterator())
    while (Ref<Key> k = it->next()) keys.push_back(k);
  for (const Ref<Key>& k : keys) Hive::Util::recursiveKeyDelete(root, k);
  hive->flush();
}

// Runs `work` on a thread with a stack of `bytes`: a walk that recursed
// once per level of a deep tree would overflow it.
void onSmallStack(size_t bytes, const std::function<void()>& work) {
  pthread_attr_t attr;
  pthread_attr_init(&attr);
  pthread_attr_setstacksize(&attr, bytes);
  pthread_t thread;
  auto run = [](void* w) -> void* {
    (*static_cast<const std::function<void()>*>(w))();
    return nullptr;
  };
  ASSERT_EQ(pthread_create(&thread, &attr, run, const_cast<std::function<void()>*>(&work)), 0);
  pthread_join(thread, nullptr);
  pthread_attr_destroy(&attr);
}

#if defined(__SANITIZE_ADDRESS__)
constexpr long SANITIZER_FACTOR = 2;               // shadow memory, redzones
constexpr long SANITIZER_QUARANTINE_KB = 4 << 10;  // freed, not yet reused
#else
constexpr long SANITIZER_FACTOR = 1;
constexpr long SANITIZER_QUARANTINE_KB = 0;
#endif

// What a run may use beyond the tool's footprint on a small clean hive: a
// small multiple of the file (a key opened 50,000 levels down holds 50,000
// key objects, some 8 times the records they come from), never what the
// file's fields claim.
long allowanceKb(size_t fileBytes) {
  return SANITIZER_FACTOR * (10 * static_cast<long>(fileBytes / 1024) + 4096) + SANITIZER_QUARANTINE_KB;
}

constexpr rlim_t SMALL_STACK = 2u << 20;

// Runs of the tool by label: the command with "HIVE" for the hive's path.
using Runs = std::map<std::string, CliRun>;

// The run `label` exists and ended with `status` (any when -1), its
// diagnostic holding `message`.
void expectRun(const Runs& runs, const std::string& label, int status, const std::string& message = "") {
  const auto it = runs.find(label);
  if (it == runs.end()) return ADD_FAILURE() << "no run " << label;
  EXPECT_TRUE(status < 0 || it->second.status == status) << label << ": status " << it->second.status << "\n"
                                                         << it->second.err;
  EXPECT_NE(it->second.err.find(message), std::string::npos) << label << ": " << it->second.err;
}

class ResourceBounds : public ::testing::Test {
 protected:
  CliRun cli(const std::vector<std::string>& args, rlim_t stack = 0) {
    return runCli(_dir.path(), args, stack);
  }

  std::string copyOf(const Crafted& c, const std::string& suffix) {
    return _dir.write(c.name + suffix, c.image);
  }

  // Every reading command of the tool on the hive.
  Runs readAll(const Crafted& c, rlim_t stack = 0) {
    const std::string file = copyOf(c, "");
    std::vector<std::vector<std::string>> commands = {{"info", file},
                                                      {"dump", file},
                                                      {"dump", "--unsafe", file},
                                                      {"export", file},
                                                      {"sd", file},
                                                      {"dump", "--json", file},
                                                      {"ls", "-r", "-l", file},
                                                      {"find", file, "--data", "A", "--key", "."},
                                                      {"timeline", "--csv", file},
                                                      {"diff", "--json", file, file},
                                                      {"diff", "--reg", file, file}};
    for (const std::string& k : c.keys) {
      commands.push_back({"ls", file, k});
      commands.push_back({"info", "--json", file, k});
    }
    for (const auto& [k, v] : c.values) commands.push_back({"get", file, k, v});
    Runs runs;
    for (std::vector<std::string>& args : commands) {
      std::string label;
      for (const std::string& a : args) {
        if (!label.empty()) label += ' ';
        label += a == file ? std::string("HIVE") : a.substr(0, 40);
      }
      runs[label] = cli(args, stack);
    }
    return runs;
  }

  // The tool's largest peak over the reading commands on a clean 64 KiB hive.
  long basePeakKb() {
    if (_basePeakKb < 0) {
      _basePeakKb = 0;
      for (auto& [label, r] : readAll({"clean", cleanHive(64 << 10), {""}, {}}))
        _basePeakKb = std::max(_basePeakKb, r.peakKb);
    }
    return _basePeakKb;
  }

  // The run ended by itself, without a signal, within its memory allowance.
  void expectBounded(const std::string& label, const CliRun& r, size_t fileBytes) {
    EXPECT_TRUE(r.status == 0 || r.status == 1) << label << ": status " << r.status << "\n" << r.err;
    EXPECT_TRUE(r.peakKb < 0 || r.peakKb <= basePeakKb() + allowanceKb(fileBytes))
        << label << ": peak " << r.peakKb << " KB, base " << basePeakKb() << " KB";
    if (std::getenv("HIVEKIT_BOUNDS_REPORT"))
      std::printf("%-58s %8zu B  peak %6ld KB (base %ld)  %.2f s  status %d\n", label.c_str(), fileBytes,
                  r.peakKb, basePeakKb(), r.seconds, r.status);
  }

  Runs readAllBounded(const Crafted& c, rlim_t stack = 0) {
    Runs runs = readAll(c, stack);
    for (const auto& [label, r] : runs) expectBounded(c.name + " " + label, r, c.image.size());
    return runs;
  }

  // The library's walk, export and delete of every subkey of the root.
  static void throughLibrary(const std::vector<u8>& image) {
    Ref<Hive::HiveFile> hive = openImage(image);
    ASSERT_TRUE(hive);
    walkApi(hive);
    exportAll(hive);
    deleteAll(image);
  }

  static inline long _basePeakKb = -1;
  hivekit::test::TempDir _dir;
};

// Sizes, counts and lengths claiming up to 2^32 - 1 over records of a few
// bytes, met by every reading path: the library, its export and delete,
// and each reading command of the tool, whose peak memory is measured.
TEST_F(ResourceBounds, ClaimedSizesAllocateOnlyWhatTheFileHolds) {
  std::vector<Crafted> hives = {valueClaims(3), valueClaims(5), listClaims(5), lengthClaims(false),
                                lengthClaims(true)};
  for (Crafted& c : binClaims()) hives.push_back(std::move(c));
  for (const Crafted& c : hives) {
    SCOPED_TRACE(c.name);
    const Runs runs = readAllBounded(c);
    if (c.name.rfind("values", 0) == 0)
      for (const auto& [key, value] : c.values) expectRun(runs, "get HIVE " + key + " " + value, 1);
    if (c.name.rfind("lists", 0) == 0) {
      for (const char* key : {"keys-max", "lf", "lh", "li", "ri", "ri-sum", "values-65535", "values-max"})
        expectRun(runs, "ls HIVE " + std::string(key), 1, "could not be read");
      for (const char* key : {"keys-max", "lf", "lh", "li", "ri", "ri-sum"})
        expectRun(runs, "get HIVE " + std::string(key) + " v", 0);
      // Counts that no list backs are reported, not believed.
      expectRun(runs, "dump HIVE", 1, "\\keys-max: 4294967295 subkeys and 0 values could not be read");
      expectRun(runs, "dump HIVE", 1, "\\values-max: 0 subkeys and 4294967295 values could not be read");
      expectRun(runs, "ls HIVE keys-max", 1, "4294967295 subkeys and 0 values");
    }
    if (c.name == "hbins-size") expectRun(runs, "info HIVE", 1);
    if (c.name == "big-hbin") expectRun(runs, "get HIVE Big v", 0);
    if (openImage(c.image)) throughLibrary(c.image);
  }
  throughLibrary(listClaims(3).image);  // lf lists and li sublists of a 1.3 hive

  // Through the interface: the claims are reported, nothing is read.
  Ref<Hive::HiveFile> hive = openImage(valueClaims(5).image);
  Ref<Key> v = hive->root()->key(String::create("V"));
  ASSERT_TRUE(v);
  Ref<Value> bin = v->value(String::create("bin"));
  ASSERT_TRUE(bin);
  Ref<Interfaces::Stripe> data = bin->binary();
  EXPECT_EQ(data->elementCount(), 0x7fffffffu);
  std::vector<u8> buffer(4096);
  EXPECT_EQ(data->readAt(0, buffer.data(), buffer.size()), 0u);
  Platform::Error::set(0);
  EXPECT_FALSE(v->value(String::create("sz"))->string(0x7fffffff));
  EXPECT_EQ(Platform::Error::get(), Hive::Errors::BAD_VALUE_RECORD);
  EXPECT_FALSE(v->value(String::create("multi"))->strings(0x7fffffff));

  // Thousands of keys each claiming 65535 subkeys: memory follows the
  // records, not the claims (the time this takes is a benchmark's matter).
  const Crafted many = manyClaims(6000);
  expectBounded("many-claims dump", cli({"dump", copyOf(many, "")}), many.image.size());
}

// Subkey lists leading back up the tree, ri records naming themselves,
// keys that are their own parents, value lists naming themselves, security
// records that never come back to the first, and lists that name the same
// records thousands of times: every path ends, quickly, with a diagnostic.
TEST_F(ResourceBounds, LoopsAndRepeatsEndQuickly) {
  std::vector<Crafted> hives = {keyCycles(), ownParents(), valueLoops(), repeatedEntries(2000, 64 << 10)};
  for (Crafted& c : skRings()) hives.push_back(std::move(c));
  for (const Crafted& c : hives) {
    SCOPED_TRACE(c.name);
    const Runs runs = readAllBounded(c);
    for (const auto& [label, r] : runs) EXPECT_LT(r.out.size(), 64 * c.image.size()) << label;
    if (c.name == "key-cycles") {
      expectRun(runs, "dump HIVE", 1, "(cycle)");
      expectRun(runs, "export HIVE", -1, "Cycle in key tree");
      expectRun(runs, "get HIVE Self\\Self v", 0);
      // The listing goes on past the cycle: B is listed, its loop back to A is not followed.
      EXPECT_NE(runs.at("dump HIVE").out.find("K\t\\A\\B\t"), std::string::npos) << runs.at("dump HIVE").out;
    }
    if (c.name == "repeated") {
      expectRun(runs, "dump HIVE", -1, "listing stopped");
      expectRun(runs, "dump --unsafe HIVE", -1, "listing stopped");
      expectRun(runs, "export HIVE", -1, "Export stopped");
      expectRun(runs, "ls HIVE D", -1, "values not shown");
      expectRun(runs, "get HIVE D big", 0);
    }
    // At most each security record once, and the one where the list goes wrong again.
    if (c.name.rfind("sk-", 0) == 0) {
      EXPECT_LE(walkApi(openImage(c.image)).descriptors, 201u);
    }
    throughLibrary(c.image);
  }

  // Deleting and moving keys through the loops, on copies.
  const Crafted cycles = keyCycles();
  for (std::vector<std::string> args : {std::vector<std::string>{"rm", "", "Self"},
                                        {"rm", "", "A"},
                                        {"rm", "", "RiPair"},
                                        {"mv", "", "A", "A\\B\\C"}}) {
    args[1] = copyOf(cycles, "-" + args[0] + "-" + args[2]);
    const CliRun r = cli(args);
    EXPECT_EQ(r.status, 1) << args[0] << " " << args[2] << ": " << r.err;
    EXPECT_EQ(cli({"dump", args[1]}).status, 1) << "the cycle is still there";
  }
  const std::string ownCopy = copyOf(ownParents(), "-rm");
  EXPECT_EQ(cli({"mv", ownCopy, "P\\Q", "\\"}).status, 0);
  EXPECT_EQ(cli({"rm", ownCopy, "P"}).status, 0);
  const CliRun after = cli({"dump", ownCopy});
  EXPECT_EQ(after.status, 0) << after.err;
  EXPECT_NE(after.out.find("K\t\\Q\t"), std::string::npos) << after.out;

  // The library refuses a delete through a cycle before touching anything.
  Ref<Hive::HiveFile> writable = openImage(cycles.image, 0);
  Ref<Key> a = writable->root()->key(String::create("A"));
  ASSERT_TRUE(a);
  EXPECT_FALSE(Hive::Util::recursiveKeyDelete(writable->root(), a));
  EXPECT_TRUE(Hive::Util::openPath(writable->root(), String::create("A/B/C")));
}

// 50,000 keys, each the only subkey of the one above: open, walk, list,
// export, delete and look up the deepest key, in the library and the tool,
// on stacks of 2 MiB. Walks that recurse stop at 512 levels with a
// diagnostic; nothing recurses once per level, not even the release of a
// key's chain of parents.
TEST_F(ResourceBounds, DeepTreesNeitherOverflowTheStackNorHang) {
  constexpr u32 LEVELS = 50000;
  Crafted deep{"deep", deepChain(LEVELS), {""}, {}};
  std::string deepest = "k", slashed = "/k";
  for (u32 i = 1; i < LEVELS; ++i) {
    deepest += "\\k";
    slashed += "/k";
  }
  deep.values.emplace_back(deepest, "v");
  const Runs runs = readAllBounded(deep, SMALL_STACK);
  expectRun(runs, "dump HIVE", 1, "deeper than 512 levels");
  const std::string& listed = runs.at("dump HIVE").out;
  EXPECT_EQ(std::count(listed.begin(), listed.end(), '\n'), 512) << "keys listed down to the limit";
  expectRun(runs, "export HIVE", -1, "deeper than 512 levels");
  expectRun(runs, "get HIVE " + deepest.substr(0, 40) + " v", 0);
  EXPECT_EQ(runs.at("get HIVE " + deepest.substr(0, 40) + " v").out, "42 (0x2a)\n");
  EXPECT_EQ(cli({"rm", copyOf(deep, "-rm"), "k"}, SMALL_STACK).status, 1);

  onSmallStack(SMALL_STACK, [&] {
    Ref<Hive::HiveFile> hive = openImage(deep.image);
    ASSERT_TRUE(hive);
    const WalkStats walked = walkApi(hive, false);
    EXPECT_EQ(walked.keys, LEVELS + 1);
    EXPECT_EQ(walked.deepest, LEVELS + 1);
    EXPECT_FALSE(exportAll(hive));
    Ref<Key> last = Hive::Util::openPath(hive->root(), String::create(slashed));
    ASSERT_TRUE(last);
    Ref<Value> v = last->value(String::create("v"));
    ASSERT_TRUE(v);
    EXPECT_EQ(v->number(), 42u);

    // Refused 512 levels down; nothing is deleted.
    Ref<Hive::HiveFile> writable = openImage(deep.image, 0);
    ASSERT_TRUE(writable);
    Ref<Key> top = writable->root()->key(String::create("k"));
    ASSERT_TRUE(top);
    EXPECT_FALSE(Hive::Util::recursiveKeyDelete(writable->root(), top));
    EXPECT_EQ(top->keyIterator()->count(), 1u);
    EXPECT_EQ(writable->root()->keyIterator()->count(), 1u);
  });
}

}  // namespace
