// Random-access data objects ("stripes"): files, memory, value data, logs.
//
// The positional calls are the primitive ones; the stream calls (seek,
// read, write) keep a position in the stripe and are built on them. A
// stripe has an element size; everything in this library uses bytes.
#pragma once

#include "platform/object.h"

namespace Platform {
class FileView;
}

namespace Interfaces {
using Platform::u32;
using Platform::u64;

class Stripe : public Platform::Object {
 public:
  virtual u32 elementSize() const { return 1; }
  // Current size in elements.
  virtual u64 elementCount() = 0;
  // Resizes; returns the size that holds afterwards. The default refuses
  // (error 0x10002) and reports the current size.
  virtual u64 setElementCount(u64 count);
  virtual u64 maxElementCount() { return ~0ull; }
  virtual u64 minElementCount() { return 0; }
  // Positional access: the number of elements moved (short at the end).
  virtual u64 readAt(u64 position, void* buffer, u64 count) = 0;
  virtual u64 writeAt(u64 position, const void* buffer, u64 count) = 0;
  // Makes written data durable (reaches the storage device for files).
  virtual bool sync() { return true; }
  // The bytes [position, position + count) in memory without copying them,
  // valid while the view lives and showing later changes of the stripe;
  // null when the stripe cannot show them so (the default), and callers
  // read them instead.
  virtual Platform::Ref<Platform::FileView> view(u64 position, u64 count);

  // Stream view over the positional calls.
  virtual u64 seek(u64 position) {
    _position = position;
    return _position;
  }
  u64 pos() const { return _position; }
  u64 read(void* buffer, u64 count) {
    u64 n = readAt(_position, buffer, count);
    _position += n;
    return n;
  }
  u64 write(const void* buffer, u64 count) {
    u64 n = writeAt(_position, buffer, count);
    _position += n;
    return n;
  }

 protected:
  u64 _position = 0;
};

}  // namespace Interfaces
