// FirstFitIndex: finds the first slot, in order, whose value reaches a
// bound, in time logarithmic in the number of slots.
//
// The allocator keeps one value per hbin (the length of its largest free
// record) and asks for the first hbin in file order that can hold a new
// record; a walk over all hbins would make every allocation cost as much as
// the hive is large. This is a max tree over the slots: changing a slot and
// finding the first one at or above a bound both touch one path.
#pragma once

#include <cstddef>
#include <vector>

#include "platform/types.h"

namespace Libraries::Files::Hive {

using Platform::u32;

class FirstFitIndex {
 public:
  static constexpr size_t NONE = ~size_t{0};

  size_t size() const { return _size; }
  void clear();
  // Adds a slot at the end.
  void push(u32 value);
  // Removes the last slot; requires size() > 0.
  void pop();
  // Requires index < size().
  void set(size_t index, u32 value);
  u32 get(size_t index) const { return _tree[_capacity + index]; }
  // The first slot at or after `from` whose value is at least `atLeast`
  // (which must be above 0), or NONE.
  size_t findFirst(size_t from, u32 atLeast) const;

 private:
  void grow();

  size_t _size = 0;
  size_t _capacity = 0;  // leaves: a power of two, 0 before the first push
  // Node i covers the leaves below it; node 1 is the root and leaf k is
  // node _capacity + k. Leaves past _size hold 0.
  std::vector<u32> _tree;
};

}  // namespace Libraries::Files::Hive
