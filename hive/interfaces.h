// The interfaces a client of the library sees.
//
// Every object is reference counted and handed out as Ref<T>. References
// run from the leaves to the hive: keys, values and iterators keep their
// hive (and parent key) alive; the hive keeps none of them. Failures are
// results: a null Ref, false, 0 or all ones, with the per-thread error code
// set (hive/format/errors.h) and a message in the system log.
#pragma once

#include <vector>

#include "platform/object.h"
#include "platform/string.h"
#include "platform/stripe.h"
#include "platform/tvector.h"

namespace Interfaces::Config::Hive {
using Platform::Ref;
using Platform::String;
using Platform::TVector;
using Platform::u32;
using Platform::u64;
using Platform::u8;

// Value types known to the typed accessors; any u32 may be stored.
using ValueType = u32;
namespace ValueTypes {
constexpr ValueType None = 0;
constexpr ValueType String = 1;
constexpr ValueType ExpandString = 2;
constexpr ValueType Binary = 3;
constexpr ValueType Dword = 4;
constexpr ValueType DwordBigEndian = 5;
constexpr ValueType Link = 6;
constexpr ValueType MultiString = 7;
constexpr ValueType Qword = 11;
}  // namespace ValueTypes

class Key;
class Value;

class KeyIterator : public Platform::Object {
 public:
  // Sets the position (clamped to count()) and returns it.
  virtual u32 seek(u32 position) = 0;
  virtual u32 count() = 0;
  // The subkey at the position, then advances; null at the end.
  virtual Ref<Key> next() = 0;
};

class ValueIterator : public Platform::Object {
 public:
  virtual u32 seek(u32 position) = 0;
  virtual u32 count() = 0;
  virtual Ref<Value> next() = 0;
};

class Key : public Platform::Object {
 public:
  // "" for the root key.
  virtual Ref<String> name() = 0;
  // Subkey by name, case-insensitive; null (0x1003) when absent.
  virtual Ref<Key> key(Ref<String> name) = 0;
  virtual Ref<Key> createKey(Ref<String> name) = 0;
  // Deletes an empty subkey (0x1010 when it has subkeys or values).
  virtual bool deleteKey(Ref<Key> key) = 0;
  virtual Ref<KeyIterator> keyIterator() = 0;
  // Value by name, case-insensitive; "" is the default value.
  virtual Ref<Value> value(Ref<String> name) = 0;
  virtual Ref<Value> createValue(Ref<String> name, ValueType type) = 0;
  virtual bool deleteValue(Ref<Value> value) = 0;
  virtual Ref<ValueIterator> valueIterator() = 0;
  // Moves a value of this hive into this key under a new name.
  virtual bool move(Ref<Value> value, Ref<String> newName) = 0;
  // Moves a key of this hive below this key under a new name (or renames).
  virtual bool move(Ref<Key> key, Ref<String> newName) = 0;
  virtual bool readOnly() = 0;
  // FILETIME: 100 ns units since 1601-01-01 UTC.
  virtual u64 lastWriteTime() = 0;
};

class Value : public Platform::Object {
 public:
  virtual Ref<String> name() = 0;
  virtual ValueType type() = 0;
  virtual bool setType(ValueType type) = 0;
  // The raw data as a byte stripe (any type).
  virtual Ref<Interfaces::Stripe> binary() = 0;
  // Types 1 and 2; refused (0x1012) when the data holds more than maxLength units.
  virtual Ref<String> string(u32 maxLength) = 0;
  virtual bool setString(Ref<String> text) = 0;
  // Types 4, 5, 11; all ones on failure.
  virtual u64 number() = 0;
  virtual bool setNumber(u64 number) = 0;
  // Type 7.
  virtual Ref<TVector<Ref<String>>> strings(u32 maxLength) = 0;
  virtual bool setStrings(Ref<TVector<Ref<String>>> strings) = 0;
  virtual bool readOnly() = 0;
};

class SecurityDescriptor : public Platform::Object {
 public:
  // The descriptor's bytes; empty when the record is unusable.
  virtual std::vector<u8> get() = 0;
  // Rewrites the descriptor in place; only a descriptor of the same length.
  virtual bool set(const u8* bytes, u32 length) = 0;
};

class SecurityDescriptorIterator : public Platform::Object {
 public:
  virtual Ref<SecurityDescriptor> next() = 0;
  virtual bool rewind() = 0;
};

class RegistryHive : public Platform::Object {
 public:
  virtual Ref<Key> root() = 0;
  // Key by backslash- or slash-separated path from the root; null if absent.
  virtual Ref<Key> path(Ref<String> path) = 0;
};

}  // namespace Interfaces::Config::Hive
