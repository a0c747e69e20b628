// The live objects of a key's subkeys, by the offset of their nk record:
// one object per record while a caller holds it, however often a damaged
// list names the record.
//
// An open-addressed table in one array. A hash map made a node for every
// child opened and a bucket array for every key whose children were: a walk
// opens each key once, so those allocations were most of its cost. Here a
// key with a few children holds one small array, and opening a child
// allocates nothing of its own. Entries whose object is gone are dropped
// when the table would grow, so its size follows the live objects, not all
// the children ever opened.
#pragma once

#include <cstddef>
#include <utility>
#include <vector>

#include "platform/object.h"
#include "platform/types.h"

namespace Libraries::Files::Hive {

template <class T>
class ChildObjects {
 public:
  // The living object kept for record `nk`, or null.
  Platform::Ref<T> find(Platform::u32 nk) const {
    if (_slots.empty()) return nullptr;
    for (size_t i = home(nk);; i = next(i)) {
      const Slot& s = _slots[i];
      if (s.object.empty()) return nullptr;
      if (s.nk == nk) return s.object.lock();
    }
  }

  // Keeps `object` (not null) as the object of record `nk`.
  void put(Platform::u32 nk, const Platform::Ref<T>& object) {
    if (!object) return;
    if (4 * (_used + 1) > 3 * _slots.size()) rebuild();
    place(Slot{nk, Platform::WeakRef<T>(object)});
  }

  void erase(Platform::u32 nk) {
    if (_slots.empty()) return;
    size_t i = home(nk);
    while (!_slots[i].object.empty() && _slots[i].nk != nk) i = next(i);
    if (_slots[i].object.empty()) return;
    _slots[i] = Slot{};
    --_used;
    // The entries after it in its run may have been placed past it: place
    // them again, so that no search stops early at the hole.
    for (size_t j = next(i); !_slots[j].object.empty(); j = next(j)) {
      Slot s = std::move(_slots[j]);
      _slots[j] = Slot{};
      --_used;
      place(std::move(s));
    }
  }

  void clear() {
    _slots.clear();
    _used = 0;
    _shift = 29;
  }

 private:
  struct Slot {
    Platform::u32 nk = 0;
    Platform::WeakRef<T> object;  // empty: a free slot
  };

  // Fibonacci hashing: offsets are multiples of 8 and cluster.
  size_t home(Platform::u32 nk) const { return static_cast<Platform::u32>(nk * 2654435769u) >> _shift; }
  size_t next(size_t i) const { return (i + 1) & (_slots.size() - 1); }

  // Into the slot of the same record or the first free one; the table has
  // room (put keeps it at most three quarters full).
  void place(Slot s) {
    size_t i = home(s.nk);
    while (!_slots[i].object.empty() && _slots[i].nk != s.nk) i = next(i);
    if (_slots[i].object.empty()) ++_used;
    _slots[i] = std::move(s);
  }

  // A table twice the size of the living entries (at least 8 slots) with
  // only those in it.
  void rebuild() {
    size_t live = 0;
    for (const Slot& s : _slots) live += !s.object.empty() && !s.object.expired();
    size_t size = 8;
    unsigned bits = 3;
    while (size < 2 * (live + 1)) {
      size *= 2;
      ++bits;
    }
    std::vector<Slot> old = std::exchange(_slots, std::vector<Slot>(size));
    _used = 0;
    _shift = 32 - bits;
    for (Slot& s : old)
      if (!s.object.empty() && !s.object.expired()) place(std::move(s));
  }

  std::vector<Slot> _slots;  // a power of two in size, or empty
  size_t _used = 0;
  unsigned _shift = 29;  // 32 less the bits of the size
};

}  // namespace Libraries::Files::Hive
