// Iterators over the subkeys and the values of a key.
//
// An iterator is a position in the key's list. The key shifts the position
// of its live iterators when entries are inserted or removed, so an
// iterator keeps pointing at the same next entry while the list changes.
#pragma once

#include <algorithm>

#include "hive/key/key_obj.h"

namespace Libraries::Files::Hive {

// A position in the list of a key that `List` names: its interface
// (`Base`), the entry type (`Item`), and how the key counts and hands out
// its entries (`size`, `at`).
template <class List>
class ListIteratorObj : public List::Base {
 public:
  explicit ListIteratorObj(Ref<KeyObj> key) : _key(std::move(key)) {}

  u32 seek(u32 position) override {
    Mon::Lock lock(_key->hive()->mon());
    _position = std::min(position, List::size(*_key));
    return _position;
  }
  u32 count() override {
    Mon::Lock lock(_key->hive()->mon());
    return List::size(*_key);
  }
  Ref<typename List::Item> next() override {
    Mon::Lock lock(_key->hive()->mon());
    if (_position >= List::size(*_key)) return nullptr;
    return List::at(*_key, _position++);
  }

  // An entry was inserted / removed at `index`.
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

struct SubkeyEntries {
  using Base = KeyIterator;
  using Item = Key;
  static u32 size(const KeyObj& key) { return key.keys(); }
  static Ref<Key> at(KeyObj& key, u32 index) { return key.key(index); }
};

struct ValueEntries {
  using Base = ValueIterator;
  using Item = Value;
  static u32 size(const KeyObj& key) { return key.values(); }
  static Ref<Value> at(KeyObj& key, u32 index);
};

class KeyIteratorObj final : public ListIteratorObj<SubkeyEntries> {
  using ListIteratorObj::ListIteratorObj;
};

class ValueIteratorObj final : public ListIteratorObj<ValueEntries> {
  using ListIteratorObj::ListIteratorObj;
};

}  // namespace Libraries::Files::Hive
