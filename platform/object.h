// Counted objects, strong references and race-free weak references.
//
// An Object starts with no owner; the first Ref takes it. Weak references
// need no lock and no block of their own: every Object made with `new`
// carries a small header in front of it with the count of weak references
// (plus one while the object lives). When the last strong reference goes
// the object is destroyed as usual, but its memory is given back only when
// no weak reference is left, so a weak reference can always look at the
// strong count (through the count's own address, never through the object):
// it turns into a strong one only by raising a count that is still above
// zero, and a count that reached zero never rises again.
//
// Objects are made with new (makeRef); one on the stack or inside another
// object must never get a Ref that drops it, nor a weak reference.
#pragma once

#include <atomic>
#include <cstddef>
#include <type_traits>
#include <utility>

#include "platform/types.h"

namespace Platform {

class Object;

// In front of every Object made with new.
struct alignas(16) ObjectHeader {
  // Weak references, plus one while the object lives.
  std::atomic<u32> weak{1};
};

class Object {
 public:
  Object() = default;
  Object(const Object&) = delete;
  Object& operator=(const Object&) = delete;
  virtual ~Object() = default;

  // Storage with an ObjectHeader in front; delete keeps it while weak
  // references remain.
  static void* operator new(size_t size);
  static void operator delete(void* object) noexcept;

  void retain() const { _count.fetch_add(1, std::memory_order_relaxed); }
  void release() const {
    if (_count.fetch_sub(1, std::memory_order_acq_rel) == 1) delete this;
  }
  u32 refCount() const { return _count.load(std::memory_order_relaxed); }
  // The header of this (living) object's storage.
  ObjectHeader* header() const;
  // Drops one weak share of a storage; the last one frees it.
  static void releaseStorage(ObjectHeader* header) noexcept;

 private:
  template <class T>
  friend class WeakRef;
  mutable std::atomic<u32> _count{0};
};

template <class T>
class Ref {
 public:
  Ref() = default;
  Ref(std::nullptr_t) {}
  Ref(T* p) : _p(p) {
    if (_p) _p->retain();
  }
  Ref(const Ref& o) : Ref(o._p) {}
  Ref(Ref&& o) noexcept : _p(std::exchange(o._p, nullptr)) {}
  template <class U, class = std::enable_if_t<std::is_convertible_v<U*, T*>>>
  Ref(const Ref<U>& o) : Ref(static_cast<T*>(o.get())) {}
  ~Ref() {
    if (_p) _p->release();
  }
  Ref& operator=(Ref o) noexcept {
    std::swap(_p, o._p);
    return *this;
  }
  T* get() const { return _p; }
  T* operator->() const { return _p; }
  T& operator*() const { return *_p; }
  explicit operator bool() const { return _p != nullptr; }
  bool operator==(const Ref& o) const { return _p == o._p; }
  bool operator==(std::nullptr_t) const { return _p == nullptr; }
  template <class U>
  Ref<U> cast() const {
    return Ref<U>(dynamic_cast<U*>(_p));
  }
  // Takes over a pointer that already carries one count.
  static Ref adopt(T* p) {
    Ref r;
    r._p = p;
    return r;
  }

 private:
  T* _p = nullptr;
};

template <class T, class... A>
Ref<T> makeRef(A&&... a) {
  return Ref<T>(new T(std::forward<A>(a)...));
}

// A non-owning reference that yields a strong one while the object lives.
template <class T>
class WeakRef {
 public:
  WeakRef() = default;
  WeakRef(const Ref<T>& r) { reset(r.get()); }
  WeakRef(const WeakRef& o) { copyFrom(o); }
  WeakRef& operator=(const WeakRef& o) {
    if (this != &o) {
      clear();
      copyFrom(o);
    }
    return *this;
  }
  WeakRef(WeakRef&& o) noexcept
      : _header(std::exchange(o._header, nullptr)),
        _count(std::exchange(o._count, nullptr)),
        _raw(std::exchange(o._raw, nullptr)) {}
  WeakRef& operator=(WeakRef&& o) noexcept {
    if (this != &o) {
      clear();
      _header = std::exchange(o._header, nullptr);
      _count = std::exchange(o._count, nullptr);
      _raw = std::exchange(o._raw, nullptr);
    }
    return *this;
  }
  ~WeakRef() { clear(); }

  // The object as a strong reference, or null when it is gone.
  Ref<T> lock() const {
    if (!_count) return nullptr;
    u32 c = _count->load(std::memory_order_relaxed);
    while (c != 0) {
      if (_count->compare_exchange_weak(c, c + 1, std::memory_order_acq_rel, std::memory_order_relaxed))
        return Ref<T>::adopt(_raw);
    }
    return nullptr;  // the last strong reference is gone
  }
  bool empty() const { return !_raw; }
  // The object is gone (or there never was one).
  bool expired() const { return !_count || _count->load(std::memory_order_relaxed) == 0; }
  // True when this refers to exactly the given, still living object. An
  // address alone is not enough: a dead object's address may be reused.
  bool is(const T* p) const { return p && _raw == p && !expired(); }
  void clear() {
    if (_header) Object::releaseStorage(_header);
    _header = nullptr;
    _count = nullptr;
    _raw = nullptr;
  }

 private:
  void reset(T* p) {
    if (!p) return;
    _header = p->header();
    _header->weak.fetch_add(1, std::memory_order_relaxed);
    _count = &static_cast<const Object*>(p)->_count;
    _raw = p;
  }
  void copyFrom(const WeakRef& o) {
    _header = o._header;
    _count = o._count;
    _raw = o._raw;
    if (_header) _header->weak.fetch_add(1, std::memory_order_relaxed);
  }
  ObjectHeader* _header = nullptr;
  std::atomic<u32>* _count = nullptr;  // the object's strong count, in storage this keeps
  T* _raw = nullptr;
};

}  // namespace Platform
