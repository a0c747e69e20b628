#include "platform/shmem.h"

#include <sys/mman.h>

#include <cerrno>

#include "platform/error.h"

namespace Platform {

Ref<ShMem> ShMem::create(u64 size) {
  if (size == 0) size = 1;
  void* p = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (p == MAP_FAILED) {
    Error::set(Error::IO_ERROR | static_cast<u32>(errno));
    return nullptr;
  }
  return Ref<ShMem>(new ShMem(static_cast<u8*>(p), size));
}

bool ShMem::resize(u64 size) {
  if (size == 0) size = 1;
  if (size == _size) return true;
  void* p = mremap(_data, _size, size, MREMAP_MAYMOVE);
  if (p == MAP_FAILED) {
    Error::set(Error::IO_ERROR | static_cast<u32>(errno));
    return false;
  }
  _data = static_cast<u8*>(p);
  _size = size;
  return true;
}

ShMem::~ShMem() { munmap(_data, _size); }

}  // namespace Platform
