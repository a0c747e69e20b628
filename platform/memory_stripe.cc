#include "platform/memory_stripe.h"

#include <cerrno>
#include <cstring>
#include <new>
#include <stdexcept>

#include "platform/error.h"

namespace Platform {

// Memory that cannot be had is a full disk to the caller: a result, not an
// exception through the library.
bool MemoryStripe::grow(u64 count) {
  try {
    if (count > _bytes.max_size()) throw std::length_error("stripe");
    _bytes.resize(count);
    return true;
  } catch (const std::exception&) {
    Error::set(Error::IO_ERROR | ENOSPC);
    return false;
  }
}

u64 MemoryStripe::setElementCount(u64 count) {
  grow(count);
  return _bytes.size();
}

u64 MemoryStripe::readAt(u64 position, void* buffer, u64 count) {
  if (position >= _bytes.size()) return 0;
  u64 n = std::min<u64>(count, _bytes.size() - position);
  std::memcpy(buffer, _bytes.data() + position, n);
  return n;
}

u64 MemoryStripe::writeAt(u64 position, const void* buffer, u64 count) {
  if (position + count < position) {
    Error::set(Error::IO_ERROR | ENOSPC);
    return 0;
  }
  if (position + count > _bytes.size() && !grow(position + count)) return 0;
  if (count) std::memcpy(_bytes.data() + position, buffer, count);
  return count;
}

}  // namespace Platform
