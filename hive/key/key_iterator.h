// Iterators over the subkeys and the values of a key.
//
// An iterator is a position in the key's list. The key shifts the position
// of its live iterators when entries are inserted or removed, so an
// iterator keeps pointing at the same next entry while the list changes.
#pragma once

#include "hive/key/key_obj.h"

namespace Libraries::Files::Hive {

class KeyIteratorObj : public KeyIterator {
 public:
  explicit KeyIteratorObj(Ref<KeyObj> key) : _key(std::move(key)) {}
  u32 seek(u32 position) override;
  u32 count() override;
  Ref<Key> next() override;
  // An entry was inserted / removed at index.
  void insertedAt(u32 index) {
    if (index <= _position) ++_position;
  }
  void removedAt(u32 index) {
    if (index < _position) --_position;
  }
  u32 position() const { return _position; }

 private:
  Ref<KeyObj> _key;
  u32 _position = 0;
};

class ValueIteratorObj : public ValueIterator {
 public:
  explicit ValueIteratorObj(Ref<KeyObj> key) : _key(std::move(key)) {}
  u32 seek(u32 position) override;
  u32 count() override;
  Ref<Value> next() override;
  void insertedAt(u32 index) {
    if (index <= _position) ++_position;
  }
  void removedAt(u32 index) {
    if (index < _position) --_position;
  }
  u32 position() const { return _position; }

 private:
  Ref<KeyObj> _key;
  u32 _position = 0;
};

}  // namespace Libraries::Files::Hive
