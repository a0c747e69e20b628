// A re-entrant monitor: one thread may take it several times.
//
// Calls on a hive nest (an iterator's next() takes the monitor, then the
// key it asks, then the value object it makes), so taking it again is made
// cheap: the owner is recognised by an address unique to its thread and
// only counts; the mutex below is taken once, by the outermost lock.
#pragma once

#include <atomic>
#include <mutex>

#include "platform/object.h"

namespace Platform {

class Mon : public Object {
 public:
  static Ref<Mon> create() { return makeRef<Mon>(); }
  void lock() {
    const void* me = self();
    // Only this thread can have stored its own address here.
    if (_owner.load(std::memory_order_relaxed) == me) {
      ++_depth;
      return;
    }
    _m.lock();
    _owner.store(me, std::memory_order_relaxed);
    _depth = 1;
  }
  void unlock() {
    if (--_depth != 0) return;
    _owner.store(nullptr, std::memory_order_relaxed);
    _m.unlock();
  }

  // Holds the monitor for the lifetime of the guard.
  class Lock {
   public:
    explicit Lock(Mon* m) : _m(m) {
      if (_m) _m->lock();
    }
    explicit Lock(const Ref<Mon>& m) : Lock(m.get()) {}
    ~Lock() {
      if (_m) _m->unlock();
    }
    Lock(const Lock&) = delete;
    Lock& operator=(const Lock&) = delete;

   private:
    Mon* _m;
  };

 private:
  // An address no other living thread has.
  static const void* self() {
    [[gnu::tls_model("initial-exec")]] static thread_local char marker;
    return &marker;
  }

  std::mutex _m;
  std::atomic<const void*> _owner{nullptr};
  u32 _depth = 0;  // the owner's nesting; only the owner touches it
};

}  // namespace Platform
