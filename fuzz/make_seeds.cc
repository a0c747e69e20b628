// make-fuzz-seeds DIR [HIVES]: writes starting inputs for the fuzz targets
// into DIR/open, DIR/log, DIR/regfile and DIR/path (fuzz/run.sh calls it).
// Seeds are made here, with the test hive builder or the library itself,
// so none has to be kept as a binary file. When the shared test hives are
// there (HIVES, by default ../shared/testdata/hives beside the source
// tree) the small ones are added as seeds too; without them the built
// seeds are all there is.
#include <algorithm>
#include <cstdio>
#include <cstring>
#include <deque>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "fuzz/fuzz_hives.h"
#include "hive/regfile/reg_file_util.h"
#include "tests/support/hive_builder.h"

namespace {

namespace Hive = Libraries::Files::Hive;
using hivekit::test::HiveBuilder;
using hivekit::test::NameForm;
using Platform::MemoryStripe;
using Platform::Ref;
using Platform::String;
using Platform::u32;
using Platform::u64;
using Platform::u8;

namespace fs = std::filesystem;

fs::path gDir;
u32 gCount = 0;

void write(const std::string& sub, const std::string& name, const std::vector<u8>& bytes) {
  std::filesystem::create_directories(gDir / sub);
  std::ofstream out(gDir / sub / name, std::ios::binary);
  out.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
  ++gCount;
}

std::vector<u8> prepend(u8 selector, const std::vector<u8>& image) {
  std::vector<u8> out{selector};
  out.insert(out.end(), image.begin(), image.end());
  return out;
}

std::vector<u8> sz(const std::u16string& s) {
  std::vector<u8> out = HiveBuilder::utf16le(s);
  out.insert(out.end(), {0, 0});
  return out;
}

std::vector<u8> pattern(size_t n) {
  std::vector<u8> out(n);
  for (size_t i = 0; i < n; ++i) out[i] = static_cast<u8>(i * 7);
  return out;
}

// Every value storage form and type, names of both forms; with `big`, a
// value just over one record (a db), which makes the hive five times as
// large: only a few seeds carry it, as every run pays for the size.
std::vector<u8> typesHive(bool big) {
  HiveBuilder b(5);
  u32 root = b.root();
  u32 k = b.key(root, u"Types");
  b.value(k, u"", 1, sz(u"default"));
  b.value(k, u"sz", 1, sz(u"text"));
  b.value(k, u"expand", 2, sz(u"%PATH%"));
  b.value(k, u"small", 3, {1, 2});
  b.value(k, u"blob", 3, pattern(100));
  if (big) b.value(k, u"big", 3, pattern(16400));
  b.value(k, u"dword", 4, {1, 0, 0, 0});
  b.value(k, u"be", 5, {0, 0, 0, 1});
  std::vector<u8> multi = sz(u"a");
  for (u8 c : sz(u"bc")) multi.push_back(c);
  multi.insert(multi.end(), {0, 0});
  b.value(k, u"multi", 7, multi);
  b.value(k, u"qword", 11, {1, 2, 3, 4, 5, 6, 7, 8});
  b.value(k, u"\u0416name", 1, sz(u"\u0416"), NameForm::utf16);
  u32 sub = b.key(k, u"Caf\u00e9");
  b.key(sub, u"\u0416", NameForm::utf16);
  return b.build();
}

// Subkey lists split over an ri (lf before 1.4, lh after).
std::vector<u8> riHive(u32 minor) {
  HiveBuilder b(minor);
  b.setMaxListEntries(3);
  u32 root = b.root();
  for (char16_t c = u'a'; c < u'a' + 8; ++c) {
    u32 k = b.key(root, std::u16string(1, c) + u"key");
    b.value(k, u"v", 4, {static_cast<u8>(c), 0, 0, 0});
  }
  return b.build();
}

// An li list made by hand.
std::vector<u8> liHive() {
  HiveBuilder b(5);
  u32 root = b.root();
  u32 a = b.key(root, u"a");
  u32 c = b.key(root, u"c");
  b.layout();
  u32 list = b.writeList(Hive::hive_record_list::SIGNATURE_LI, {a, c});
  Platform::W32(b.at(root) + Hive::hive_record_nk::OFS_KEY_LIST, list);
  return b.build();
}

void openSeeds() {
  const std::vector<u8> types = typesHive(false);
  for (u8 selector : {0, 1, 2, 3, 4, 8, 0x21, 0x63})
    write("open", "types-" + std::to_string(selector), prepend(selector, types));
  const std::vector<u8> withDb = typesHive(true);
  for (u8 selector : {1, 3, 0x21})
    write("open", "types-db-" + std::to_string(selector), prepend(selector, withDb));
  for (u8 selector : {0, 3, 4}) {
    write("open", "ri3-" + std::to_string(selector), prepend(selector, riHive(3)));
    write("open", "ri5-" + std::to_string(selector), prepend(selector, riHive(5)));
  }
  write("open", "li", prepend(0, liHive()));
  write("open", "li-w", prepend(3, liHive()));
  write("open", "dirty", prepend(1, hivekit::fuzz::dirtyHive(true)));
  Ref<MemoryStripe> empty = MemoryStripe::create();
  { Hive::HiveFile::create(empty, 3, Hive::latin1, {}); }
  write("open", "empty-w", prepend(3, empty->bytes()));
}

std::vector<u8> logInput(u8 flags, const std::vector<u8>& log1, const std::vector<u8>& log2) {
  std::vector<u8> out{flags, static_cast<u8>(log1.size()), static_cast<u8>(log1.size() >> 8)};
  if (log1.size() > 0xffff) return {};
  out.insert(out.end(), log1.begin(), log1.end());
  out.insert(out.end(), log2.begin(), log2.end());
  return out;
}

// A new-format log as the library writes it: the dirty hive opened
// writable over a started log with no entries, changed and flushed.
std::vector<u8> writtenLog(bool spread) {
  const std::vector<u8>& hive = hivekit::fuzz::dirtyHive(spread);
  std::vector<u8> header(hive.begin(), hive.begin() + 512);
  Platform::W32(header.data() + Hive::hive_header::OFS_PRIMARY_SEQ, 1);
  Platform::W32(header.data() + Hive::hive_header::OFS_SECONDARY_SEQ, 1);
  Platform::W32(header.data() + Hive::hive_header::OFS_TYPE, 6);
  Platform::W32(header.data() + Hive::hive_header::OFS_CHECKSUM,
                Hive::calculateHeaderChecksum(header.data()));
  Ref<MemoryStripe> log = MemoryStripe::create(header);
  Hive::HiveFile::LogFiles logs;
  logs.log1 = log;
  Ref<Hive::HiveFile> h = Hive::HiveFile::open(MemoryStripe::create(hive), logs, 0, Hive::latin1, {});
  if (!h) return header;
  h->root()->createKey(String::create("logged"));
  h->flush();
  if (Ref<Hive::Key> k = h->root()->key(String::create("beta"))) {
    if (Ref<Hive::Value> v = k->createValue(String::create("w"), 1)) v->setString(String::create("written"));
  }
  h->flush();
  return log->bytes();
}

// An old-format log: a dirty vector marking the first page, then the page.
std::vector<u8> oldLog(bool spread) {
  const std::vector<u8>& hive = hivekit::fuzz::dirtyHive(spread);
  std::vector<u8> log(hive.begin(), hive.begin() + 512);
  Platform::W32(log.data() + Hive::hive_header::OFS_PRIMARY_SEQ, 1);
  Platform::W32(log.data() + Hive::hive_header::OFS_SECONDARY_SEQ, 1);
  Platform::W32(log.data() + Hive::hive_header::OFS_TYPE, 1);
  Platform::W32(log.data() + Hive::hive_header::OFS_CHECKSUM, Hive::calculateHeaderChecksum(log.data()));
  const u32 length = Platform::L32(hive.data() + Hive::hive_header::OFS_LENGTH);
  const size_t vectorSize = ((((length >> 9) + 7) >> 3) + 0x203) & ~size_t{0x1FF};
  std::vector<u8> vector(vectorSize, 0);
  std::memcpy(vector.data(), "DIRT", 4);
  vector[4] = 0xFF;
  log.insert(log.end(), vector.begin(), vector.end());
  log.insert(log.end(), hive.begin() + 4096, hive.begin() + 8192);
  return log;
}

void logSeeds() {
  const std::vector<u8> written = writtenLog(false);
  const std::vector<u8> old = oldLog(false);
  for (u8 mode : {0, 1, 2, 3}) {
    write("log", "new-" + std::to_string(mode), logInput(mode, written, {}));
    write("log", "new-fixed-" + std::to_string(mode), logInput(mode | 0x0C, written, {}));
    write("log", "both-" + std::to_string(mode), logInput(mode, written, written));
    write("log", "old-" + std::to_string(mode), logInput(mode, old, {}));
  }
  write("log", "primary", logInput(0x13, old, {}));
  write("log", "new-diff", logInput(0x4D, written, {}));
  write("log", "new-diff-w", logInput(0x4F, written, {}));
  write("log", "raw", logInput(0x0C, std::vector<u8>(2048, 0), std::vector<u8>(1024, 0)));
  // Beside the hive whose db value spreads over several hbins (flag 0x80).
  const std::vector<u8> spreadWritten = writtenLog(true);
  for (u8 mode : {1, 3}) {
    write("log", "spread-fixed-" + std::to_string(mode), logInput(0x8C | mode, spreadWritten, {}));
    write("log", "spread-old-" + std::to_string(mode), logInput(0x80 | mode, oldLog(true), {}));
  }
}

std::vector<u8> utf16(const std::string& text) {
  std::vector<u8> out{0xFF, 0xFE};
  for (char16_t c : Platform::utf8ToUtf16(text)) {
    out.push_back(static_cast<u8>(c));
    out.push_back(static_cast<u8>(c >> 8));
  }
  return out;
}

void regSeeds() {
  const std::string text =
      "Windows Registry Editor Version 5.00\r\n\r\n"
      "[HKEY_LOCAL_MACHINE\\SOFTWARE\\A]\r\n"
      "@=\"default\"\r\n"
      "\"s\"=\"a \\\"quoted\\\" text\"\r\n"
      "\"d\"=dword:0000002a\r\n"
      "\"b\"=hex:01,02,03,\\\r\n  04\r\n"
      "\"m\"=hex(7):61,00,00,00,00,00\r\n"
      "\"q\"=hex(b):01,00,00,00,00,00,00,00\r\n"
      "\"e\"=hex(2):25,00,00,00\r\n\r\n"
      "[HKEY_LOCAL_MACHINE\\SOFTWARE\\A\\B\\C]\r\n"
      "\"x\"=-\r\n\r\n"
      "[-HKEY_LOCAL_MACHINE\\SOFTWARE\\A\\B]\r\n\r\n"
      "[HKEY_LOCAL_MACHINE\\SOFTWARE]\r\n"
      "\"root\"=\"r\"\r\n";
  write("regfile", "utf16", prepend(0, utf16(text)));
  write("regfile", "utf8", prepend(0xA0, std::vector<u8>(text.begin(), text.end())));
  const std::string plain =
      "REGEDIT4\r\n\r\n[A]\r\n\"v\"=\"w\"\r\n[A\\B]\r\n@=dword:1\r\n[-A\\B]\r\n[A\\\\C]\r\n";
  write("regfile", "prefix-a", prepend(0x22, std::vector<u8>(plain.begin(), plain.end())));
  write("regfile", "prefix-empty", prepend(0x31, utf16(plain)));

  // What the exporter writes for the types hive.
  Ref<Hive::HiveFile> h = Hive::HiveFile::open(MemoryStripe::create(typesHive(true)), 1, Hive::latin1, {});
  if (!h) return;
  Ref<MemoryStripe> out = MemoryStripe::create();
  Hive::RegFileUtil::exportRegFile(h->root(), out, String::create("HKEY_LOCAL_MACHINE/SOFTWARE"), 0);
  // Cut to what the target reads (-max_len), at an even length: UTF-16.
  auto cut = [](std::vector<u8> text) {
    if (text.size() > 16 * 1024 - 2) text.resize(16 * 1024 - 2);
    return text;
  };
  write("regfile", "export", prepend(0x80, cut(out->bytes())));
  out = MemoryStripe::create();
  Hive::RegFileUtil::exportRegFile(h->root(), out, String::create("HKEY_LOCAL_MACHINE/SOFTWARE"), 2);
  write("regfile", "export-binary", prepend(0x88, cut(out->bytes())));
}

void pathSeeds() {
  const char* const paths[] = {"a/b/c",     "//a//b/", "a\\/b/c", "A/B2/new",      "Caf\xc3\xa9/\xd0\x96/x",
                               "x/y\\/z/w", "/",       "",        "sp ace/ tab\t", "%/./../q",
                               "\\\\a\\"};
  u32 n = 0;
  for (const char* path : paths) {
    const std::string text(path);
    write("path", "utf8-" + std::to_string(n), prepend(0, std::vector<u8>(text.begin(), text.end())));
    std::vector<u8> units = HiveBuilder::utf16le(Platform::utf8ToUtf16(text));
    write("path", "utf16-" + std::to_string(n), prepend(static_cast<u8>(1 | (n % 4) << 1), units));
    ++n;
  }
  std::string deep;
  for (int i = 0; i < 20; ++i) deep += "level" + std::to_string(i % 7) + "/";
  write("path", "deep", prepend(0, std::vector<u8>(deep.begin(), deep.end())));
  const std::string longName(150, 'n');
  write("path", "long", prepend(8, std::vector<u8>(longName.begin(), longName.end())));
  write("path", "readonly", prepend(16, {'a', '/', 'z'}));
}

// Patterns with texts to search (selector 0 or 2: letter case counts or
// not), and the sample security descriptor (selector 1).
void patternSeeds() {
  const char* const patterns[][2] = {{"^Run(Once)?$", "RunOnce"},
                                     {"[a-z]+\\d{2,4}", "abc123"},
                                     {"(?:ab|cd)*x", "abcdx"},
                                     {"\\bnet\\b|^$", "a net"},
                                     {"[^\\w.]\\s*\\u00e4", "x \xc3\xa4"},
                                     {"(a|aa)+b", "aaaaaaaaab"},
                                     {"x{", "x{"},
                                     {".*\\x41$", "zzA"}};
  u32 n = 0;
  for (const auto& [pattern, text] : patterns) {
    std::vector<u8> input(pattern, pattern + std::strlen(pattern));
    input.push_back(0);
    input.insert(input.end(), text, text + std::strlen(text));
    write("pattern", "re-" + std::to_string(n), prepend(static_cast<u8>(2 * (n % 2)), input));
    ++n;
  }
  write("pattern", "descriptor", prepend(1, HiveBuilder::sampleDescriptor()));
}

// The shared test hives, cut small so the targets run fast: a hive keeps
// its base block and as many whole hbins as fit in kHbinLimit (its length
// field and checksum set to match; a first hbin larger than that is cut
// raw, a truncated hive), and a log loses its zero tail and is cut to
// kLogLimit at a sector boundary. Keys and values beyond the cut are
// references past the end: damage of the kind the targets look for.
// A run's cost grows with the hive it walks (tree, deleted-record scan,
// diff): two pages of hbins reach the same record kinds as four.
constexpr size_t kHbinLimit = 8 * 1024;
constexpr size_t kLogLimit = 8 * 1024;
constexpr size_t kTopLimit = 16 * 1024;       // a copy of the top of a tree, within -max_len
constexpr size_t kTextLimit = 16 * 1024 - 2;  // with the selector, within -max_len

std::vector<u8> readFile(const fs::path& path) {
  std::ifstream in(path, std::ios::binary);
  return std::vector<u8>(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

std::vector<u8> sliceHive(std::vector<u8> bytes) {
  constexpr size_t kBase = 4096;
  if (bytes.size() < kBase) return bytes;
  const bool checksumOk = Platform::L32(bytes.data() + Hive::hive_header::OFS_CHECKSUM) ==
                          Hive::calculateHeaderChecksum(bytes.data());
  const size_t declared = Platform::L32(bytes.data() + Hive::hive_header::OFS_LENGTH);
  size_t end = kBase;
  while (end + 32 <= bytes.size() && std::memcmp(bytes.data() + end, "hbin", 4) == 0) {
    const size_t size = Platform::L32(bytes.data() + end + 8);
    if (size < 4096 || size % 4096 != 0 || end - kBase + size > kHbinLimit || end + size > bytes.size())
      break;
    end += size;
  }
  if (end == kBase) {
    // No whole hbin fits: the raw start, as a truncated file.
    bytes.resize(std::min(bytes.size(), kBase + kHbinLimit));
    return bytes;
  }
  bytes.resize(end);
  if (end - kBase != declared) {
    Platform::W32(bytes.data() + Hive::hive_header::OFS_LENGTH, static_cast<u32>(end - kBase));
    if (checksumOk)
      Platform::W32(bytes.data() + Hive::hive_header::OFS_CHECKSUM,
                    Hive::calculateHeaderChecksum(bytes.data()));
  }
  return bytes;
}

// The top of a real hive's tree copied into a new hive through the
// library: keys breadth first with their values (data cut to 1 KiB) until
// about kHbinLimit of records. Where a slice keeps the real bytes but
// loses the lists that point past the cut, the copy keeps the real names,
// types, data and shape of the tree in a hive that walks.
std::vector<u8> topOfTree(const std::vector<u8>& full) {
  Ref<Hive::HiveFile> source = Hive::HiveFile::open(MemoryStripe::create(full), 0x11, Hive::latin1, {});
  if (!source || !source->root()) return {};
  Ref<MemoryStripe> out = MemoryStripe::create();
  {
    Ref<Hive::HiveFile> copy = Hive::HiveFile::create(out, 5, Hive::latin1, {});
    if (!copy) return {};
    std::deque<std::pair<Ref<Hive::Key>, Ref<Hive::Key>>> queue{{source->root(), copy->root()}};
    size_t bytes = 0;  // a rough count of the records written
    std::vector<u8> data(1024);
    while (!queue.empty() && bytes < kHbinLimit * 3 / 4) {
      auto [from, to] = queue.front();
      queue.pop_front();
      if (Ref<Interfaces::Config::Hive::ValueIterator> values = from->valueIterator()) {
        for (u32 n = 0; n < 64; ++n) {
          Ref<Hive::Value> v = values->next();
          if (!v || !v->name()) break;
          Ref<Hive::Value> made = to->createValue(v->name(), v->type());
          Ref<Interfaces::Stripe> in = v->binary();
          Ref<Interfaces::Stripe> dest = made ? made->binary() : nullptr;
          if (!in || !dest) continue;
          const u64 length = std::min<u64>(in->elementCount(), data.size());
          if (in->readAt(0, data.data(), length) != length) continue;
          dest->setElementCount(length);
          dest->writeAt(0, data.data(), length);
          bytes += 32 + 2 * v->name()->length() + (length > 4 ? length : 0);
        }
      }
      if (Ref<Interfaces::Config::Hive::KeyIterator> keys = from->keyIterator()) {
        for (u32 n = 0; n < 64; ++n) {
          Ref<Hive::Key> child = keys->next();
          if (!child || !child->name()) break;
          if (Ref<Hive::Key> made = to->createKey(child->name())) queue.emplace_back(child, made);
          bytes += 96 + 2 * child->name()->length();
        }
      }
    }
    if (!copy->flush()) return {};
  }
  return out->bytes();
}

std::vector<u8> trimLog(std::vector<u8> bytes) {
  size_t end = bytes.size();
  while (end >= 512 + 512 &&
         std::all_of(bytes.begin() + static_cast<std::ptrdiff_t>(end - 512),
                     bytes.begin() + static_cast<std::ptrdiff_t>(end), [](u8 b) { return b == 0; }))
    end -= 512;
  bytes.resize(std::min(end, kLogLimit));
  return bytes;
}

bool isLog(const fs::path& path) {
  return path.filename().string().find(".LOG") != std::string::npos;
}

void testdataSeeds(const fs::path& hives) {
  if (!fs::is_directory(hives)) {
    std::printf("no test hives at %s: built seeds only\n", hives.string().c_str());
    return;
  }
  std::vector<fs::path> files;
  for (const auto& entry : fs::recursive_directory_iterator(hives))
    if (entry.is_regular_file()) files.push_back(entry.path());
  std::sort(files.begin(), files.end());
  for (const fs::path& path : files) {
    if (isLog(path)) continue;
    // Unique across folders: "NewDirtyHive1_NewDirtyHive".
    std::string name = fs::relative(path, hives).string();
    std::replace(name.begin(), name.end(), '/', '_');
    const std::vector<u8> full = readFile(path);
    const std::vector<u8> image = sliceHive(full);
    if (image.empty()) continue;
    write("open", "td-" + name, prepend(1, image));
    write("open", "td-w-" + name, prepend(3, image));
    write("open", "td-x-" + name, prepend(0x25, image));
    const std::vector<u8> top = topOfTree(full);
    if (!top.empty() && top.size() < kTopLimit) {
      write("open", "top-" + name, prepend(1, top));
      write("open", "top-w-" + name, prepend(0x43, top));
      write("open", "top-x-" + name, prepend(0x21, top));
    }

    // Beside its logs: the hive in the input, LOG1 and LOG2 after it.
    std::vector<u8> log1, log2;
    for (const fs::path& other : files) {
      if (other.parent_path() != path.parent_path() || !isLog(other)) continue;
      const std::string ext = other.extension().string();
      if (ext == ".LOG1") log1 = trimLog(readFile(other));
      if (ext == ".LOG2") log2 = trimLog(readFile(other));
    }
    // A recovered copy beside the logs is clean: not a hive to replay into.
    if (path.filename().string().rfind("Recovered", 0) == 0) continue;
    if (log1.empty() && log2.empty()) {
      // A regular text export of the hive (the copy of its top, when there
      // is one), for the import target.
      Ref<Hive::HiveFile> h =
          Hive::HiveFile::open(MemoryStripe::create(top.empty() ? image : top), 0x11, Hive::latin1, {});
      if (!h) continue;
      Ref<MemoryStripe> out = MemoryStripe::create();
      (void)Hive::RegFileUtil::exportRegFile(h->root(), out, String::create("HKEY_LOCAL_MACHINE/SOFTWARE"),
                                             0);
      // Cut at an even length: the export is UTF-16.
      std::vector<u8> text = out->bytes();
      if (text.size() > kTextLimit) text.resize(kTextLimit);
      if (text.size() > 64) write("regfile", "td-" + name, prepend(0, text));
      continue;
    }
    for (u8 mode : {0, 1, 3}) {
      std::vector<u8> input{static_cast<u8>(0x20 | mode),       static_cast<u8>(log1.size()),
                            static_cast<u8>(log1.size() >> 8),  static_cast<u8>(image.size()),
                            static_cast<u8>(image.size() >> 8), static_cast<u8>(image.size() >> 16)};
      input.insert(input.end(), image.begin(), image.end());
      input.insert(input.end(), log1.begin(), log1.end());
      input.insert(input.end(), log2.begin(), log2.end());
      write("log", "td-" + name + "-" + std::to_string(mode), input);
    }
  }
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2 && argc != 3) {
    std::fprintf(stderr, "usage: make-fuzz-seeds DIR [HIVES]\n");
    return 2;
  }
  gDir = argv[1];
  openSeeds();
  logSeeds();
  regSeeds();
  pathSeeds();
  patternSeeds();
  testdataSeeds(argc == 3 ? fs::path(argv[2])
                          : fs::path(HIVEKIT_SOURCE_DIR) / ".." / "shared" / "testdata" / "hives");
  std::printf("%u seeds in %s\n", gCount, gDir.string().c_str());
  return 0;
}
