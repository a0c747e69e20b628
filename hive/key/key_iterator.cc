// Key and value iterators, and the bookkeeping that keeps their positions
// on the same next entry while the key's lists change.
#include "hive/key/key_iterator.h"

#include "hive/value/value_obj.h"

namespace Libraries::Files::Hive {

namespace {

// Registers an iterator in the first slot whose iterator is gone.
template <class T>
void registerIterator(std::vector<WeakRef<T>>& slots, const Ref<T>& it) {
  for (WeakRef<T>& slot : slots) {
    if (!slot.lock()) {
      slot = WeakRef<T>(it);
      return;
    }
  }
  slots.push_back(WeakRef<T>(it));
}

}  // namespace

u32 KeyIteratorObj::seek(u32 position) {
  Mon::Lock lock(_key->hive()->mon());
  const u32 n = _key->keys();
  _position = position > n ? n : position;
  return _position;
}

u32 KeyIteratorObj::count() {
  Mon::Lock lock(_key->hive()->mon());
  return _key->keys();
}

Ref<Key> KeyIteratorObj::next() {
  Mon::Lock lock(_key->hive()->mon());
  if (_position >= _key->keys()) return nullptr;
  Ref<KeyObj> k = _key->key(_position);
  ++_position;
  return k;
}

u32 ValueIteratorObj::seek(u32 position) {
  Mon::Lock lock(_key->hive()->mon());
  const u32 n = _key->values();
  _position = position > n ? n : position;
  return _position;
}

u32 ValueIteratorObj::count() {
  Mon::Lock lock(_key->hive()->mon());
  return _key->values();
}

Ref<Value> ValueIteratorObj::next() {
  Mon::Lock lock(_key->hive()->mon());
  if (_position >= _key->values()) return nullptr;
  Ref<ValueObj> v = _key->value(_position);
  ++_position;
  return v;
}

Ref<KeyIterator> KeyObj::keyIterator() {
  Mon::Lock lock(_hive->mon());
  if (!_valid) return nullptr;
  Ref<KeyIteratorObj> it = makeRef<KeyIteratorObj>(Ref<KeyObj>(this));
  registerIterator(_keyIterators, it);
  return it;
}

Ref<ValueIterator> KeyObj::valueIterator() {
  Mon::Lock lock(_hive->mon());
  if (!_valid) return nullptr;
  Ref<ValueIteratorObj> it = makeRef<ValueIteratorObj>(Ref<KeyObj>(this));
  registerIterator(_valueIterators, it);
  return it;
}

void KeyObj::keysInsertedAt(u32 index) {
  for (WeakRef<KeyIteratorObj>& slot : _keyIterators) {
    if (Ref<KeyIteratorObj> it = slot.lock()) it->insertedAt(index);
  }
}

void KeyObj::keysRemovedAt(u32 index) {
  for (WeakRef<KeyIteratorObj>& slot : _keyIterators) {
    if (Ref<KeyIteratorObj> it = slot.lock()) it->removedAt(index);
  }
}

void KeyObj::valuesInsertedAt(u32 index) {
  for (WeakRef<ValueIteratorObj>& slot : _valueIterators) {
    if (Ref<ValueIteratorObj> it = slot.lock()) it->insertedAt(index);
  }
}

void KeyObj::valuesRemovedAt(u32 index) {
  for (WeakRef<ValueIteratorObj>& slot : _valueIterators) {
    if (Ref<ValueIteratorObj> it = slot.lock()) it->removedAt(index);
  }
}

}  // namespace Libraries::Files::Hive
