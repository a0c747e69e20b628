#include "platform/object.h"

#include <new>

namespace Platform {

static_assert(sizeof(ObjectHeader) == 16, "the header keeps the object 16-byte aligned");

void* Object::operator new(size_t size) {
  void* raw = ::operator new(sizeof(ObjectHeader) + size);
  return new (raw) ObjectHeader + 1;
}

void Object::operator delete(void* object) noexcept {
  if (object) releaseStorage(static_cast<ObjectHeader*>(object) - 1);
}

void Object::releaseStorage(ObjectHeader* header) noexcept {
  if (header->weak.fetch_sub(1, std::memory_order_acq_rel) != 1) return;
  header->~ObjectHeader();
  ::operator delete(header);
}

ObjectHeader* Object::header() const {
  // The storage starts with the most derived object, whatever the place of
  // this Object within it.
  return static_cast<ObjectHeader*>(const_cast<void*>(dynamic_cast<const void*>(this))) - 1;
}

}  // namespace Platform
