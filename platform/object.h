// Counted objects, strong references and race-free weak references.
//
// An Object starts with no owner; the first Ref takes it. Weak references
// go through the object's GcProxy, a small control block that outlives the
// object: the object clears the proxy before it is destroyed, and a weak
// reference is turned into a strong one only under the proxy's lock and
// only while the count is still above zero, so it can never revive an
// object that is being destroyed.
#pragma once

#include <atomic>
#include <mutex>
#include <type_traits>
#include <utility>

#include "platform/types.h"

namespace Platform {

class Object;

class GcProxy {
 public:
  // Strong reference to the object, or null once it is gone.
  Object* acquire();
  bool alive() {
    std::lock_guard<std::mutex> g(_lock);
    return _object != nullptr;
  }
  void retain() { _refs.fetch_add(1, std::memory_order_relaxed); }
  void release() {
    if (_refs.fetch_sub(1, std::memory_order_acq_rel) == 1) delete this;
  }

 private:
  friend class Object;
  explicit GcProxy(Object* o) : _object(o) {}
  std::mutex _lock;
  Object* _object;
  std::atomic<u32> _refs{1};  // one for the object itself
};

class Object {
 public:
  Object() = default;
  Object(const Object&) = delete;
  Object& operator=(const Object&) = delete;
  virtual ~Object();

  void retain() const { _count.fetch_add(1, std::memory_order_relaxed); }
  void release() const;
  u32 refCount() const { return _count.load(std::memory_order_relaxed); }
  // The control block for weak references, made on first use.
  GcProxy* gcProxy() const;

 private:
  friend class GcProxy;
  mutable std::atomic<u32> _count{0};
  mutable std::atomic<GcProxy*> _proxy{nullptr};
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
  WeakRef(WeakRef&& o) noexcept : _proxy(std::exchange(o._proxy, nullptr)), _raw(o._raw) {}
  WeakRef& operator=(WeakRef&& o) noexcept {
    if (this != &o) {
      clear();
      _proxy = std::exchange(o._proxy, nullptr);
      _raw = o._raw;
    }
    return *this;
  }
  ~WeakRef() { clear(); }

  // The object as a strong reference, or null when it is gone.
  Ref<T> lock() const {
    if (!_proxy) return nullptr;
    Object* o = _proxy->acquire();
    if (!o) return nullptr;
    return Ref<T>::adopt(_raw);
  }
  bool empty() const { return !_proxy; }
  // True when this refers to exactly the given, still living object. An
  // address alone is not enough: a dead object's address may be reused.
  bool is(const T* p) const { return p && _proxy && _raw == p && _proxy->alive(); }
  void clear() {
    if (_proxy) _proxy->release();
    _proxy = nullptr;
    _raw = nullptr;
  }

 private:
  void reset(T* p) {
    if (!p) return;
    _proxy = p->gcProxy();
    _proxy->retain();
    _raw = p;
  }
  void copyFrom(const WeakRef& o) {
    _proxy = o._proxy;
    _raw = o._raw;
    if (_proxy) _proxy->retain();
  }
  GcProxy* _proxy = nullptr;
  T* _raw = nullptr;
};

}  // namespace Platform
