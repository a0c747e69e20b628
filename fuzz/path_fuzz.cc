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
//   - an openOrCreatePath that fails leaves the deepest existing key with
//     the subkeys it had; one that succeeds adds a single chain of keys
//     there, one per missing level;
//   - deleting the first level it created restores the subkey count;
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

// Direct subkeys of a key (0 when it has no list).
u32 subkeyCount(const Ref<Key>& key) {
  Ref<Interfaces::Config::Hive::KeyIterator> it = key->keyIterator();
  return it ? it->count() : 0;
}

// Levels below `top` that each have exactly one subkey, down to a key with
// none: what one creation of a path makes. Returns that last key and its
// depth (1 for `top` itself), or null when some level branches.
Ref<Key> singleChain(Ref<Key> top, size_t& depth) {
  depth = 1;
  while (top && depth <= 4096) {
    Ref<Interfaces::Config::Hive::KeyIterator> it = top->keyIterator();
    const u32 count = it ? it->count() : 0;
    if (count == 0) return top;
    if (count != 1) return nullptr;
    top = it->next();
    ++depth;
  }
  return nullptr;
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

  // Creation only adds below the deepest key that exists, and only one
  // chain of new keys: that key's subkey count and the chain below it tell
  // whether the tree changed, without walking the rest.
  const u32 before = subkeyCount(lastExisting);
  Ref<Key> created = Util::openOrCreatePath(root, path);
  if (!created) {
    check(opened == nullptr && subkeyCount(lastExisting) == before);
    return 0;
  }
  if (opened) {
    check(Util::keyId(created) == Util::keyId(opened));
    return 0;
  }
  Ref<Key> again = Util::openPath(root, path);
  check(again && Util::keyId(again) == Util::keyId(created));
  check(subkeyCount(lastExisting) == before + 1);

  Ref<Key> first = lastExisting->key(parts[existing]);
  check(first != nullptr);
  size_t depth = 0;
  Ref<Key> last = singleChain(first, depth);
  check(last && depth == parts.size() - existing && Util::keyId(last) == Util::keyId(created));
  check(Util::recursiveKeyDelete(lastExisting, first));
  check(subkeyCount(lastExisting) == before && !Util::openPath(root, path));
  if (selector & 32) {
    // What the writer left must open again: the keys above the path are
    // there, the path is not, and the deepest existing key has as many
    // subkeys as before.
    check(hive->flush());
    Ref<HiveFile> reopened = HiveFile::open(MemoryStripe::create(stripe->bytes()), 0x1, codepage, {});
    check(reopened != nullptr);
    Ref<Key> k = reopened->root();
    for (size_t i = 0; k && i < existing; ++i) k = k->key(parts[i]);
    check(k && subkeyCount(k) == before && !Util::openPath(reopened->root(), path));
  }
  return 0;
}
