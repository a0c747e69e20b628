#include "hive/readonly_cache.h"

#include <algorithm>
#include <cstring>

#include "hive/format/errors.h"
#include "hive/registry_hive.h"
#include "platform/error.h"

namespace Libraries::Files::Hive {

ReadOnlyCache::ReadOnlyCache(Ref<Interfaces::Stripe> source) {
  if (!source) return;
  if (source->elementSize() != 1) {
    HK_LOG(hiveLog, 4) << "Stripe object with elementsize != 1 not supported";
    return;
  }
  load(*source);
}

bool ReadOnlyCache::load(Interfaces::Stripe& source) {
  const u64 size = source.elementCount();
  Ref<ShMem> mem = ShMem::create(size);
  if (!mem) {
    HK_LOG(hiveLog, 4) << "Failed to allcoate ShMem for readonly cache with size: " << size;
    return false;
  }
  if (source.seek(0) != 0) {
    HK_LOG(hiveLog, 4) << "Failed to seek to " << 0;
    return false;
  }
  u64 got = source.read(mem->map(), size);
  if (got != size) {
    HK_LOG(hiveLog, 4) << "Failed to read data, count=" << got << " expected: " << size;
    return false;
  }
  _mem = mem;
  _data = mem->map();
  _size = size;
  return true;
}

const u8* ReadOnlyCache::at(u64 position, u64 length) const {
  if (!_data || position > _size || length > _size - position) return nullptr;
  return _data + position;
}

u64 ReadOnlyCache::readAt(u64 position, void* buffer, u64 count) {
  if (!_data || position >= _size) return 0;
  u64 n = std::min<u64>(count, _size - position);
  std::memcpy(buffer, _data + position, n);
  return n;
}

u64 ReadOnlyCache::writeAt(u64, const void*, u64) {
  Error::set(Errors::READ_ONLY);
  return 0;
}

}  // namespace Libraries::Files::Hive
