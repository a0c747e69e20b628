// Fuzz target: key paths from an untrusted source.
//
// Input: one selector byte, then the path text. Selector bits:
//   0    the text is UTF-16LE code units (any, lone surrogates too), else UTF-8
//   1-2  the hive's codepage
//   3    hive version 1.3 (lf lists) instead of 1.5 (lh lists)
//   4    open the populated hive read-only, so every creation fails
//   5    after the changes, flush and open the result again
//
// Beyond "no crash", the conversions and lookups must agree with each
// other; a disagreement traps, so it is reported as a finding:
//   - from backslash form and back gives the backslash form with runs of
//     separators collapsed and the ends trimmed, for the text itself and
//     for its conversion to backslash form;
//   - a key that openOrCreatePath hands back is what openPath finds next;
//   - an openOrCreatePath that fails leaves the tree as it was (counted
//     below the deepest existing key: creation changes nothing else);
//   - deleting the first level it created restores the tree;
//   - the hive's own path lookup finds what openPath finds, whenever no
//     name of the path holds a slash.
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "hive/hive_file.h"
#include "hive/util/util.h"
#include "platform/error.h"
#include "platform/memory_stripe.h"

namespace {

namespace Hive = Libraries::Files::Hive;
using Hive::HiveFile;
using Hive::Util;
using Interfaces::Config::Hive::Key;
using Platform::MemoryStripe;
using Platform::Ref;
using Platform::String;
using Platform::u32;
using Platform::u8;

void check(bool condition) {
  if (!condition) __builtin_trap();
}

// Backslash form with separator runs collapsed and the ends trimmed: what
// a round trip through the slash form must give.
std::u16string collapse(const std::u16string& path) {
  std::u16string out;
  bool separator = false;
  for (char16_t c : path) {
    if (c == u'\\') {
      separator = true;
      continue;
    }
    if (separator && !out.empty()) out += u'\\';
    out += c;
    separator = false;
  }
  return out;
}

void checkRoundTrip(const Ref<String>& windows) {
  Ref<String> slash = Util::regPathFromWindowsStyle(windows);
  check(slash != nullptr);
  Ref<String> back = Util::regPathToWindowsStyle(slash);
  check(back != nullptr && back->units() == collapse(windows->units()));
}

// Keys reachable from the root, up to a bound well above what a run makes.
u32 countKeys(const Ref<Key>& root) {
  u32 count = 0;
  std::vector<Ref<Key>> stack{root};
  while (!stack.empty() && count < 100000) {
    Ref<Key> key = stack.back();
    stack.pop_back();
    ++count;
    Ref<Interfaces::Config::Hive::KeyIterator> it = key->keyIterator();
    while (it) {
      Ref<Key> child = it->next();
      if (!child) break;
      stack.push_back(child);
    }
  }
  return count;
}

// A small hive with names holding the characters the conversions treat
// specially; made once per codepage and version, copied for every run.
const std::vector<u8>& populatedHive(u32 minor, Hive::HiveCodepage codepage) {
  static std::vector<u8> images[2][4];
  std::vector<u8>& image = images[minor == 3][codepage & 3];
  if (!image.empty()) return image;
  Ref<MemoryStripe> stripe = MemoryStripe::create();
  {
    Ref<HiveFile> hive = HiveFile::create(stripe, minor, codepage, {});
    if (!hive) __builtin_trap();
    Ref<Key> root = hive->root();
    for (const char* path : {"a/b/c", "A/B2", "Caf\xc3\xa9/\xd0\x96", "x/y\\/z/w", "sp ace/ tab\t", "%/./.."})
      if (!Util::openOrCreatePath(root, String::create(path))) __builtin_trap();
    if (!hive->flush()) __builtin_trap();
  }
  image = stripe->bytes();
  return image;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 1 || size > 4096) return 0;
  const u8 selector = data[0];
  ++data;
  --size;
  Ref<String> path;
  if (selector & 1) {
    std::u16string units(size / 2, u'\0');
    for (size_t i = 0; i < units.size(); ++i)
      units[i] = static_cast<char16_t>(data[2 * i] | data[2 * i + 1] << 8);
    path = String::fromUtf16(std::move(units));
  } else {
    path = String::create(std::string_view(reinterpret_cast<const char*>(data), size));
  }
  const auto codepage = static_cast<Hive::HiveCodepage>((selector >> 1) & 3);
  const u32 minor = (selector & 8) ? 3 : 5;

  // The pure conversions, both ways.
  Ref<String> windows = Util::regPathToWindowsStyle(path);
  check(windows != nullptr);
  checkRoundTrip(path);
  checkRoundTrip(windows);
  (void)path->toUtf8();
  Hive::HiveFile::LogFileNames names;
  (void)Hive::HiveFile::getLogFileNames(path, names);

  // Lookups and creation on a small hive.
  Ref<MemoryStripe> stripe = MemoryStripe::create(populatedHive(minor, codepage));
  Ref<HiveFile> hive = HiveFile::open(stripe, (selector & 16) ? 0x1 : 0x0, codepage, {});
  check(hive != nullptr);
  Ref<Key> root = hive->root();
  check(root != nullptr);
  Ref<Key> opened = Util::openPath(root, path);
  const bool slashFree = windows->units().find(u'/') == std::u16string::npos;
  if (!path->isEmpty() && slashFree) {
    // The hive's lookup trims blanks at the ends; only compare without them.
    const std::u16string& w = windows->units();
    const bool blankEnds =
        !w.empty() && (w.front() == u' ' || w.front() == u'\t' || w.back() == u' ' || w.back() == u'\t');
    if (!blankEnds) {
      Ref<Key> viaHive = hive->path(windows);
      check((viaHive == nullptr) == (opened == nullptr));
      if (opened) check(Util::keyId(viaHive) == Util::keyId(opened));
    }
  }

  // How many leading levels exist already: the first one beyond them is
  // what openOrCreatePath makes, and what deleting it takes back.
  std::vector<Ref<String>> parts;
  for (size_t begin = 0; begin < windows->length();) {
    size_t end = windows->units().find(u'\\', begin);
    if (end == std::u16string::npos) end = windows->length();
    parts.push_back(windows->sub(begin, end - begin));
    begin = end + 1;
  }
  Ref<Key> lastExisting = root;
  size_t existing = 0;
  while (existing < parts.size()) {
    Ref<Key> next = lastExisting->key(parts[existing]);
    if (!next) break;
    lastExisting = next;
    ++existing;
  }
  if (!path->isEmpty()) check((existing == parts.size()) == (opened != nullptr));

  // Creation only adds below the deepest key that exists, so counting that
  // subtree tells whether the tree changed: only when the path is not
  // there yet.
  const u32 before = opened ? 0 : countKeys(lastExisting);
  Ref<Key> created = Util::openOrCreatePath(root, path);
  if (!created) {
    check(opened == nullptr && countKeys(lastExisting) == before);
    return 0;
  }
  if (opened) {
    check(Util::keyId(created) == Util::keyId(opened));
    return 0;
  }
  Ref<Key> again = Util::openPath(root, path);
  check(again && Util::keyId(again) == Util::keyId(created));
  check(countKeys(lastExisting) == before + (parts.size() - existing));

  Ref<Key> first = lastExisting->key(parts[existing]);
  check(first != nullptr);
  check(Util::recursiveKeyDelete(lastExisting, first));
  check(countKeys(lastExisting) == before && !Util::openPath(root, path));
  if (selector & 32) {
    // What the writer left must open again with the same keys.
    const u32 all = countKeys(root);
    check(hive->flush());
    Ref<HiveFile> reopened = HiveFile::open(MemoryStripe::create(stripe->bytes()), 0x1, codepage, {});
    check(reopened && countKeys(reopened->root()) == all);
  }
  return 0;
}
