#include "platform/shmem.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>

#include "platform/error.h"

namespace Platform {

namespace {
constexpr u64 PAGE = 4096;

// An unlinked file of `size` bytes in the temporary directory, or -1.
int temporaryFile(u64 size) {
  const char* dir = std::getenv("TMPDIR");
  std::string path = dir && *dir ? dir : "/tmp";
  int fd = open(path.c_str(), O_TMPFILE | O_RDWR | O_CLOEXEC, 0600);
  if (fd < 0) {
    std::string name = path + "/hivekit-XXXXXX";
    fd = mkostemp(name.data(), O_CLOEXEC);
    if (fd < 0) return -1;
    unlink(name.c_str());
  }
  if (ftruncate(fd, static_cast<off_t>(size)) != 0) {
    close(fd);
    return -1;
  }
  return fd;
}
}  // namespace

Ref<ShMem> ShMem::create(u64 size) {
  if (size == 0) size = 1;
  if (size < HEAP_LIMIT) {
    void* p = std::calloc(size, 1);
    if (!p) {
      Error::set(Error::IO_ERROR | ENOMEM);
      return nullptr;
    }
    return Ref<ShMem>(new ShMem(static_cast<u8*>(p), size, -1, true));
  }
  void* p = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (p == MAP_FAILED) {
    Error::set(Error::IO_ERROR | static_cast<u32>(errno));
    return nullptr;
  }
  return Ref<ShMem>(new ShMem(static_cast<u8*>(p), size, -1, false));
}

Ref<ShMem> ShMem::createSpilling(u64 size) {
  if (size == 0) size = 1;
  const int fd = temporaryFile(size);
  if (fd < 0) return create(size);
  void* p = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
  if (p == MAP_FAILED) {
    close(fd);
    return create(size);
  }
  return Ref<ShMem>(new ShMem(static_cast<u8*>(p), size, fd, false));
}

bool ShMem::resize(u64 size) {
  if (size == 0) size = 1;
  if (size == _size) return true;
  if (_heap) return resizeHeap(size);
  // A spilling block's file grows before its mapping and shrinks after it:
  // no mapped page ever lies beyond the file's end.
  if (_fd >= 0 && size > _size && ftruncate(_fd, static_cast<off_t>(size)) != 0) {
    Error::set(Error::IO_ERROR | static_cast<u32>(errno));
    return false;
  }
  void* p = mremap(_data, _size, size, MREMAP_MAYMOVE);
  if (p == MAP_FAILED) {
    Error::set(Error::IO_ERROR | static_cast<u32>(errno));
    if (_fd >= 0 && size > _size && ftruncate(_fd, static_cast<off_t>(_size)) != 0) {
      // The file stays longer than the mapping: harmless.
    }
    return false;
  }
  if (_fd >= 0 && size < _size && ftruncate(_fd, static_cast<off_t>(size)) != 0) {
    // The file stays longer than the mapping: harmless.
  }
  _data = static_cast<u8*>(p);
  _size = size;
  return true;
}

bool ShMem::resizeHeap(u64 size) {
  if (size < HEAP_LIMIT) {
    void* p = std::realloc(_data, size);
    if (!p) {
      Error::set(Error::IO_ERROR | ENOMEM);
      return false;
    }
    if (size > _size) std::memset(static_cast<u8*>(p) + _size, 0, size - _size);
    _data = static_cast<u8*>(p);
    _size = size;
    return true;
  }
  void* p = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (p == MAP_FAILED) {
    Error::set(Error::IO_ERROR | static_cast<u32>(errno));
    return false;
  }
  std::memcpy(p, _data, _size);
  std::free(_data);
  _data = static_cast<u8*>(p);
  _size = size;
  _heap = false;
  return true;
}

void ShMem::giveBack(const void* data, u64 length) {
  if (_fd < 0) return;
  const u8* from = static_cast<const u8*>(data);
  if (from < _data || from >= _data + _size) return;
  u64 begin = static_cast<u64>(from - _data);
  u64 end = begin + std::min(length, _size - begin);
  begin = (begin + PAGE - 1) & ~(PAGE - 1);
  end &= ~(PAGE - 1);
  // A shared file mapping's pages come back from the file when touched
  // again: dropping them loses nothing.
  if (begin < end) madvise(_data + begin, end - begin, MADV_DONTNEED);
}

ShMem::~ShMem() {
  if (_heap) {
    std::free(_data);
    return;
  }
  munmap(_data, _size);
  if (_fd >= 0) close(_fd);
}

}  // namespace Platform
