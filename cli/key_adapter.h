// A key shown under another name: everything is the wrapped key's, except
// name(), which is empty. The registry text export writes a key with an
// empty name (like a root key) as the path it is given, so wrapping lets
// any key head an export with exactly the path the user chose.
#pragma once

#include "hive/interfaces.h"

namespace hivekit::cli {

class UnnamedKey : public Interfaces::Config::Hive::Key {
 public:
  using Key = Interfaces::Config::Hive::Key;
  using Value = Interfaces::Config::Hive::Value;
  template <class T>
  using Ref = Platform::Ref<T>;
  using String = Platform::String;

  explicit UnnamedKey(Ref<Key> key) : _key(std::move(key)) {}

  Ref<String> name() override { return String::empty(); }
  Ref<Key> key(Ref<String> name) override { return _key->key(std::move(name)); }
  Ref<Key> createKey(Ref<String> name) override { return _key->createKey(std::move(name)); }
  bool deleteKey(Ref<Key> key) override { return _key->deleteKey(std::move(key)); }
  Ref<Interfaces::Config::Hive::KeyIterator> keyIterator() override { return _key->keyIterator(); }
  Ref<Value> value(Ref<String> name) override { return _key->value(std::move(name)); }
  Ref<Value> createValue(Ref<String> name, Interfaces::Config::Hive::ValueType type) override {
    return _key->createValue(std::move(name), type);
  }
  bool deleteValue(Ref<Value> value) override { return _key->deleteValue(std::move(value)); }
  Ref<Interfaces::Config::Hive::ValueIterator> valueIterator() override { return _key->valueIterator(); }
  bool move(Ref<Value> value, Ref<String> newName) override {
    return _key->move(std::move(value), std::move(newName));
  }
  bool move(Ref<Key> key, Ref<String> newName) override {
    return _key->move(std::move(key), std::move(newName));
  }
  bool readOnly() override { return _key->readOnly(); }
  Platform::u64 lastWriteTime() override { return _key->lastWriteTime(); }

 private:
  Ref<Key> _key;
};

}  // namespace hivekit::cli
