// A block of zero-initialised memory that can be mapped and handed out.
//
// The hive bins of a hive held in memory, the unsafe-mode copy and log
// buffers live in such blocks. Allocation failure is a result (null), never
// an exception.
#pragma once

#include "platform/object.h"

namespace Platform {

class ShMem : public Object {
 public:
  // Null when the memory cannot be had (error code set).
  static Ref<ShMem> create(u64 size);
  ~ShMem() override;
  // Start of the block; the same address until the next resize().
  u8* map() { return _data; }
  u64 size() const { return _size; }
  // Grows or shrinks the block, keeping its bytes (new bytes are zero); it
  // may move. False (error code set) when the memory cannot be had: the
  // block is then as it was.
  bool resize(u64 size);

 private:
  ShMem(u8* data, u64 size) : _data(data), _size(size) {}
  u8* _data;
  u64 _size;
};

}  // namespace Platform
