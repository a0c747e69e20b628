#include "cli/walk.h"

#include <algorithm>

#include "hive/errors.h"
#include "platform/error.h"

namespace hivekit::cli {

namespace {

// `listError` is the code a failed next() leaves when the key's whole list
// cannot be loaded, as opposed to one entry of it.
template <class Iterator, class Item>
void collect(const Platform::Ref<Iterator>& it, u32 listError, std::vector<Item>& out, size_t& unreadable) {
  out.clear();
  unreadable = 0;
  if (!it) {
    ++unreadable;
    return;
  }
  // The count is the key record's, up to 2^32 - 1 whatever its list holds:
  // nothing is reserved for it, and an unreadable list ends the loop.
  const u32 count = it->count();
  for (u32 i = 0; i < count; ++i) {
    Platform::Error::set(0);
    Item item = it->next();
    if (!item) {
      if (Platform::Error::get() == listError) {
        unreadable += count - i;
        break;
      }
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
  collect(key->keyIterator(), Libraries::Files::Hive::Errors::BAD_KEY_LIST, out, unreadable);
}

void listValues(const KeyRef& key, std::vector<ValueRef>& out, size_t& unreadable) {
  collect(key->valueIterator(), Libraries::Files::Hive::Errors::VALUE_LIST_TOO_SMALL, out, unreadable);
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
