#include "platform/memory_stripe.h"

#include <cstring>

#include "platform/error.h"

namespace Platform {

namespace {
constexpr u32 NO_SPACE = Error::IO_ERROR | 28;  // ENOSPC
}

u64 MemoryStripe::setElementCount(u64 count) {
  if (count > _limit || _failWrites) {
    Error::set(NO_SPACE);
    return _bytes.size();
  }
  _bytes.resize(count);
  return _bytes.size();
}

u64 MemoryStripe::readAt(u64 position, void* buffer, u64 count) {
  if (position >= _bytes.size()) return 0;
  u64 n = std::min<u64>(count, _bytes.size() - position);
  std::memcpy(buffer, _bytes.data() + position, n);
  return n;
}

u64 MemoryStripe::writeAt(u64 position, const void* buffer, u64 count) {
  if (_failWrites || position + count > _limit || position + count < position) {
    Error::set(NO_SPACE);
    return 0;
  }
  if (position + count > _bytes.size()) _bytes.resize(position + count);
  if (count) std::memcpy(_bytes.data() + position, buffer, count);
  return count;
}

}  // namespace Platform
