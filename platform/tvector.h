// A counted, growable vector that can be handed out as Ref<TVector<T>>.
#pragma once

#include <vector>

#include "platform/object.h"

namespace Platform {

template <class T>
class TVector : public Object {
 public:
  TVector() = default;
  explicit TVector(std::vector<T> v) : _v(std::move(v)) {}
  static Ref<TVector> create() { return makeRef<TVector>(); }
  size_t size() const { return _v.size(); }
  const T& operator[](size_t i) const { return _v[i]; }
  T& operator[](size_t i) { return _v[i]; }
  void push_back(T t) { _v.push_back(std::move(t)); }
  std::vector<T>& items() { return _v; }
  const std::vector<T>& items() const { return _v; }

 private:
  std::vector<T> _v;
};

}  // namespace Platform
