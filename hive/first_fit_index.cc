#include "hive/first_fit_index.h"

#include <algorithm>

namespace Libraries::Files::Hive {

void FirstFitIndex::clear() {
  _size = 0;
  _capacity = 0;
  _tree.clear();
}

void FirstFitIndex::grow() {
  const size_t capacity = _capacity == 0 ? 64 : 2 * _capacity;
  std::vector<u32> tree(2 * capacity, 0);
  for (size_t i = 0; i < _size; ++i) tree[capacity + i] = _tree[_capacity + i];
  for (size_t i = capacity - 1; i >= 1; --i) tree[i] = std::max(tree[2 * i], tree[2 * i + 1]);
  _tree = std::move(tree);
  _capacity = capacity;
}

void FirstFitIndex::push(u32 value) {
  if (_size == _capacity) grow();
  ++_size;
  set(_size - 1, value);
}

void FirstFitIndex::pop() {
  set(_size - 1, 0);
  --_size;
}

void FirstFitIndex::set(size_t index, u32 value) {
  size_t node = _capacity + index;
  _tree[node] = value;
  for (node /= 2; node >= 1; node /= 2) {
    const u32 top = std::max(_tree[2 * node], _tree[2 * node + 1]);
    if (_tree[node] == top) break;  // nothing above changes either
    _tree[node] = top;
  }
}

size_t FirstFitIndex::findFirst(size_t from, u32 atLeast) const {
  if (from >= _size) return NONE;
  size_t node = _capacity + from;
  if (_tree[node] < atLeast) {
    // Climb until a subtree to the right of everything seen may hold a
    // match; every subtree passed over lies left of `from` or was seen.
    for (;;) {
      while (node & 1) {
        if (node == 1) return NONE;
        node /= 2;
      }
      ++node;
      if (_tree[node] >= atLeast) break;
    }
    // Descend to its first matching leaf.
    while (node < _capacity) {
      node *= 2;
      if (_tree[node] < atLeast) ++node;
    }
  }
  const size_t index = node - _capacity;
  return index < _size ? index : NONE;
}

}  // namespace Libraries::Files::Hive
