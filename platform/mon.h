// A re-entrant monitor: one thread may take it several times.
#pragma once

#include <mutex>

#include "platform/object.h"

namespace Platform {

class Mon : public Object {
 public:
  static Ref<Mon> create() { return makeRef<Mon>(); }
  void lock() { _m.lock(); }
  void unlock() { _m.unlock(); }

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
  std::recursive_mutex _m;
};

}  // namespace Platform
