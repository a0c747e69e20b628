// Path utilities: the two spellings of a key path, opening and creating keys
// by path, and deleting a key with everything below it.
//
// Two spellings of a path:
//  - slash form (what callers write): names separated by "/", runs of
//    slashes count once; "\" makes the next character literal, so "\/" is a
//    slash inside a name. A backslash itself can never be part of a name.
//  - backslash form (inside the hive and in registry text files): names
//    separated by "\"; "/" is an ordinary character.
//
// Everything here works through the Key interfaces only, so it serves any
// implementation of them. Messages go to the "HiveUtil" log channel.
#pragma once

#include "hive/interfaces.h"
#include "platform/log.h"

namespace Libraries::Files::Hive {

using Interfaces::Config::Hive::Key;
using Platform::Ref;
using Platform::String;
using Platform::u32;
using Platform::u64;

extern const Platform::Log::Channel utilLog;  // "HiveUtil"

class RegistryHiveObj;

class Util {
 public:
  // Recursive walks (recursiveKeyDelete, the registry text export) refuse
  // key trees deeper than this, counting the key they start from as 1.
  static constexpr u32 MAX_TREE_DEPTH = 512;

  // What one walk over a hive (a listing, an export) may read. A sound hive
  // holds each key, value and byte of data once, so reading all of it never
  // takes more than its size allows; lists that name the same records over
  // and over (2 KiB of value list can name one 1 MiB value 500 times) could
  // keep a walk over a small file busy for days. Past twice what the hive
  // can hold, charge() tells the walk to stop.
  class WalkBudget {
   public:
    // Unlimited until limited by the hive being walked.
    void limitBy(const RegistryHiveObj& hive);
    // The same through a key or value object of this library; other
    // objects leave the budget as it is.
    void limitBy(const Platform::Object* keyOrValue);
    bool limited() const { return _maxItems != ~0ull; }
    // Counts `items` keys or values and `bytes` of their data; false once
    // the walk has gone past the budget.
    bool charge(u64 items, u64 bytes = 0) {
      _items += items;
      _bytes += bytes;
      return _items <= _maxItems && _bytes <= _maxBytes;
    }

   private:
    u64 _items = 0, _bytes = 0;
    u64 _maxItems = ~0ull, _maxBytes = ~0ull;
  };

  // Slash form to backslash form: "//a//b/" -> "a\b", "a\/b/c" -> "a/b\c".
  // Leading and trailing separators are dropped. Null gives "".
  static Ref<String> regPathToWindowsStyle(const Ref<String>& path);
  // Backslash form to slash form: "\a\\b/c\" -> "a/b\/c". Null gives "".
  static Ref<String> regPathFromWindowsStyle(const Ref<String>& path);

  // The key `path` (slash form) below `start`; "/" alone is `start` itself.
  // Null on failure with the error code set: 0x8445 a null argument, 0x8446
  // an empty path, 0x1003 a level that does not exist.
  static Ref<Key> openPath(const Ref<Key>& start, const Ref<String>& path);
  // Like openPath, creating missing levels. When a level can neither be
  // opened nor created, the levels created by this call are deleted again
  // and the result is null with 0x8443.
  static Ref<Key> openOrCreatePath(const Ref<Key>& start, const Ref<String>& path);

  // Deletes `key`, a subkey of `parent`, with all its subkeys and values,
  // deepest first. False (with a log line) at the first failure; what was
  // deleted before it stays deleted. A subkey list leading back to a key on
  // the current path, or a tree deeper than MAX_TREE_DEPTH, is refused
  // before anything below the offending key is touched.
  static bool recursiveKeyDelete(const Ref<Key>& parent, const Ref<Key>& key);

  // Identity of a key for cycle detection: the hive and nk record offset of
  // a key of this library (two objects for one record are the same key), or
  // the object itself for any other Key implementation.
  struct KeyId {
    const void* owner;
    u64 id;
    bool operator==(const KeyId&) const = default;
  };
  static KeyId keyId(const Ref<Key>& key);
  // True (and `id` set) for a key of this library, whose identity is stable
  // even after the object is gone.
  static bool recordId(const Ref<Key>& key, KeyId& id);

 private:
  struct DeleteWalk;
  static bool deleteTree(const Ref<Key>& parent, const Ref<Key>& key, DeleteWalk& walk);
};

}  // namespace Libraries::Files::Hive
