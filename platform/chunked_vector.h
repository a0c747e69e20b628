// A sequence of trivially copyable elements with insertion and removal at
// any position in time bounded by a chunk, not by the length.
//
// A subkey list of 100,000 entries filled in random name order inserts in
// the middle every time: in one flat vector each insertion moves half the
// list. Here the elements lie in chunks of at most MAX_CHUNK; an insertion
// moves the rest of one chunk (and splits it when full), and finds its
// chunk by a search over the chunks' first positions, which the chunks
// after it then shift. Reading by position remembers the chunk it used
// last, so a walk in order finds each element in constant time.
#pragma once

#include <algorithm>
#include <type_traits>
#include <vector>

#include "platform/types.h"

namespace Platform {

template <class T>
class ChunkedVector {
  static_assert(std::is_trivially_copyable_v<T>, "ChunkedVector moves elements as bytes");

 public:
  static constexpr size_t MAX_CHUNK = 256;

  ChunkedVector() = default;
  explicit ChunkedVector(std::vector<T> elements) { assign(std::move(elements)); }

  size_t size() const { return _size; }
  bool empty() const { return _size == 0; }

  // Requires i < size().
  T& operator[](size_t i) {
    const size_t c = chunkOf(i);
    return _chunks[c][i - _starts[c]];
  }
  const T& operator[](size_t i) const {
    const size_t c = chunkOf(i);
    return _chunks[c][i - _starts[c]];
  }

  void clear() {
    _chunks.clear();
    _starts.clear();
    _size = 0;
    _hint = 0;
  }

  void assign(std::vector<T> elements) {
    clear();
    _size = elements.size();
    if (_size <= MAX_CHUNK) {
      if (_size) {
        _chunks.push_back(std::move(elements));
        _starts.push_back(0);
      }
      return;
    }
    for (size_t at = 0; at < _size; at += MAX_CHUNK / 2) {
      const size_t n = std::min(MAX_CHUNK / 2, _size - at);
      _chunks.emplace_back(elements.begin() + at, elements.begin() + at + n);
      _starts.push_back(at);
    }
  }

  // Inserts before position i (i == size() appends).
  void insert(size_t i, const T& value) {
    if (_chunks.empty()) {
      _chunks.emplace_back(1, value);
      _starts.push_back(0);
      _size = 1;
      return;
    }
    // An insertion at a chunk boundary goes to the end of the chunk before.
    size_t c = i == _size ? _chunks.size() - 1 : chunkOf(i);
    if (c > 0 && i == _starts[c]) --c;
    std::vector<T>& chunk = _chunks[c];
    chunk.insert(chunk.begin() + (i - _starts[c]), value);
    ++_size;
    for (size_t k = c + 1; k < _starts.size(); ++k) ++_starts[k];
    if (chunk.size() > MAX_CHUNK) split(c);
  }

  // Removes the element at position i (< size()).
  void erase(size_t i) {
    const size_t c = chunkOf(i);
    std::vector<T>& chunk = _chunks[c];
    chunk.erase(chunk.begin() + (i - _starts[c]));
    --_size;
    for (size_t k = c + 1; k < _starts.size(); ++k) --_starts[k];
    if (chunk.empty()) {
      _chunks.erase(_chunks.begin() + c);
      _starts.erase(_starts.begin() + c);
      _hint = 0;
    }
  }

  // Calls f(element) for every element in order.
  template <class F>
  void forEach(F f) {
    for (std::vector<T>& chunk : _chunks)
      for (T& e : chunk) f(e);
  }
  // Calls f(position, element) for the elements [first, first + count),
  // which must lie within the sequence, in order.
  template <class F>
  void forRange(size_t first, size_t count, F f) {
    if (count == 0) return;
    size_t c = chunkOf(first);
    size_t at = first - _starts[c];
    for (size_t i = first, end = first + count; i < end; ++c, at = 0) {
      std::vector<T>& chunk = _chunks[c];
      for (; at < chunk.size() && i < end; ++at, ++i) f(i, chunk[at]);
    }
  }

 private:
  size_t chunkOf(size_t i) const {
    if (_hint < _chunks.size() && i >= _starts[_hint] && i - _starts[_hint] < _chunks[_hint].size()) return _hint;
    _hint = static_cast<size_t>(std::upper_bound(_starts.begin(), _starts.end(), i) - _starts.begin()) - 1;
    return _hint;
  }

  void split(size_t c) {
    std::vector<T>& chunk = _chunks[c];
    const size_t keep = chunk.size() / 2;
    std::vector<T> tail(chunk.begin() + keep, chunk.end());
    chunk.resize(keep);
    _chunks.insert(_chunks.begin() + c + 1, std::move(tail));
    _starts.insert(_starts.begin() + c + 1, _starts[c] + keep);
  }

  std::vector<std::vector<T>> _chunks;
  std::vector<size_t> _starts;  // position of each chunk's first element
  size_t _size = 0;
  mutable size_t _hint = 0;  // the chunk found last
};

}  // namespace Platform
