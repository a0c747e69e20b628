// Key and value iterators, and the bookkeeping that keeps their positions
// on the same next entry while the key's lists change.
#include "hive/key/key_iterator.h"

#include "hive/value/value_obj.h"

namespace Libraries::Files::Hive {

namespace {

// Shifts the live iterators of a list for an entry inserted or removed.
template <class T>
void shiftIterators(IteratorSlots<T>& slots, u32 index, bool inserted) {
  auto shift = [&](WeakRef<T>& slot) {
    if (Ref<T> it = slot.lock()) inserted ? it->insertedAt(index) : it->removedAt(index);
  };
  shift(slots.first);
  for (WeakRef<T>& slot : slots.more) shift(slot);
}

// A new iterator over a list of `key`, kept in the first of `slots` whose
// iterator is gone so that the key can shift it.
template <class T>
Ref<T> newIterator(KeyObj* key, IteratorSlots<T>& slots) {
  Ref<T> it = makeRef<T>(Ref<KeyObj>(key));
  if (slots.first.expired()) {
    slots.first = WeakRef<T>(it);
    return it;
  }
  for (WeakRef<T>& slot : slots.more) {
    if (slot.expired()) {
      slot = WeakRef<T>(it);
      return it;
    }
  }
  slots.more.push_back(WeakRef<T>(it));
  return it;
}

}  // namespace

Ref<Value> ValueEntries::at(KeyObj& key, u32 index) {
  return key.value(index);
}

Ref<KeyIterator> KeyObj::keyIterator() {
  Mon::Lock lock(_hive->mon());
  return _valid ? newIterator(this, _keyIterators) : nullptr;
}

Ref<ValueIterator> KeyObj::valueIterator() {
  Mon::Lock lock(_hive->mon());
  return _valid ? newIterator(this, _valueIterators) : nullptr;
}

void KeyObj::keysInsertedAt(u32 index) {
  shiftIterators(_keyIterators, index, true);
}
void KeyObj::keysRemovedAt(u32 index) {
  shiftIterators(_keyIterators, index, false);
}
void KeyObj::valuesInsertedAt(u32 index) {
  shiftIterators(_valueIterators, index, true);
}
void KeyObj::valuesRemovedAt(u32 index) {
  shiftIterators(_valueIterators, index, false);
}

}  // namespace Libraries::Files::Hive
