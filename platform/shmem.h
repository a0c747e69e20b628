// A block of zero-initialised memory that can be mapped and handed out.
//
// The hive bins of a hive held in memory, the unsafe-mode copy and log
// buffers live in such blocks. Allocation failure is a result (null), never
// an exception.
//
// Blocks under HEAP_LIMIT bytes come from the heap: a small hive opened
// many times over (a fuzzer, a test) costs no mapping and no fresh pages
// per open. Larger ones are mappings, which grow without a copy.
//
// A spilling block is backed by an unlinked temporary file instead of
// anonymous memory: its pages can be given back (giveBack) and come back
// from the file, unchanged, on the next touch. On a machine without swap
// that is what keeps a block of hundreds of megabytes from staying
// resident as a whole while it is written and read once, front to back.
#pragma once

#include "platform/object.h"

namespace Platform {

class ShMem : public Object {
 public:
  static constexpr u64 HEAP_LIMIT = u64{1} << 20;
  // Null when the memory cannot be had (error code set).
  static Ref<ShMem> create(u64 size);
  // A spilling block; an anonymous one when no temporary file can be made
  // (in $TMPDIR, else /tmp). Null when neither can be had.
  static Ref<ShMem> createSpilling(u64 size);
  ~ShMem() override;
  // Start of the block; the same address until the next resize().
  u8* map() { return _data; }
  u64 size() const { return _size; }
  bool spilling() const { return _fd >= 0; }
  // Grows or shrinks the block, keeping its bytes (new bytes are zero); it
  // may move. False (error code set) when the memory cannot be had: the
  // block is then as it was.
  bool resize(u64 size);
  // Gives the whole pages inside [data, data + length) of a spilling block
  // back to its file; their bytes stay as they are. Nothing for an
  // anonymous block, or for bytes outside the block.
  void giveBack(const void* data, u64 length);

 private:
  ShMem(u8* data, u64 size, int fd, bool heap) : _data(data), _size(size), _fd(fd), _heap(heap) {}
  // A heap block's resize; it becomes a mapping when it grows past
  // HEAP_LIMIT.
  bool resizeHeap(u64 size);
  u8* _data;
  u64 _size;
  int _fd;     // the spilling block's file, or -1
  bool _heap;  // from calloc, else a mapping
};

}  // namespace Platform
