#include "platform/object.h"

namespace Platform {

Object* GcProxy::acquire() {
  std::lock_guard<std::mutex> g(_lock);
  Object* o = _object;
  if (!o) return nullptr;
  u32 c = o->_count.load(std::memory_order_relaxed);
  while (c != 0) {
    if (o->_count.compare_exchange_weak(c, c + 1, std::memory_order_acq_rel)) return o;
  }
  return nullptr;  // the last strong reference is being dropped
}

Object::~Object() {
  GcProxy* p = _proxy.load(std::memory_order_acquire);
  if (p) p->release();
}

void Object::release() const {
  if (_count.fetch_sub(1, std::memory_order_acq_rel) != 1) return;
  GcProxy* p = _proxy.load(std::memory_order_acquire);
  if (p) {
    // Detach under the proxy's lock: a concurrent acquire either saw the
    // count at zero and failed, or has not started and finds no object.
    std::lock_guard<std::mutex> g(p->_lock);
    p->_object = nullptr;
  }
  delete this;
}

GcProxy* Object::gcProxy() const {
  GcProxy* p = _proxy.load(std::memory_order_acquire);
  if (p) return p;
  GcProxy* fresh = new GcProxy(const_cast<Object*>(this));
  if (_proxy.compare_exchange_strong(p, fresh, std::memory_order_acq_rel)) return fresh;
  delete fresh;
  return p;
}

}  // namespace Platform
