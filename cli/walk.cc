#include "cli/walk.h"

#include <algorithm>

namespace hivekit::cli {

namespace {

template <class Iterator, class Item>
void collect(const Platform::Ref<Iterator>& it, std::vector<Item>& out, size_t& unreadable) {
  out.clear();
  unreadable = 0;
  if (!it) {
    ++unreadable;
    return;
  }
  u32 count = it->count();
  out.reserve(count);
  for (u32 i = 0; i < count; ++i) {
    Item item = it->next();
    if (!item) {
      // Whatever the iterator did with its position, go on after the entry.
      ++unreadable;
      if (it->seek(i + 1) != i + 1) break;
      continue;
    }
    out.push_back(std::move(item));
  }
}

}  // namespace

void listSubkeys(const KeyRef& key, std::vector<KeyRef>& out, size_t& unreadable) {
  collect(key->keyIterator(), out, unreadable);
}

void listValues(const KeyRef& key, std::vector<ValueRef>& out, size_t& unreadable) {
  collect(key->valueIterator(), out, unreadable);
}

bool readValueData(const ValueRef& value, std::vector<u8>& out) {
  out.clear();
  Ref<Interfaces::Stripe> data = value->binary();
  if (!data) return false;
  u64 size = data->elementCount();
  // The size comes from the hive: grow the buffer with what actually
  // arrives, so a false size cannot make us allocate gigabytes.
  constexpr u64 CHUNK = 1 << 20;
  u64 done = 0;
  while (done < size) {
    u64 want = std::min(CHUNK, size - done);
    out.resize(static_cast<size_t>(done + want));
    u64 n = data->readAt(done, out.data() + done, want);
    done += n;
    if (n < want) {
      out.resize(static_cast<size_t>(done));
      return false;
    }
  }
  return true;
}

}  // namespace hivekit::cli
