#include "hive/log/mapped_stripe.h"

#include <algorithm>
#include <cstring>

namespace Libraries::Files::Hive {

// Mapped bytes are kept as non-overlapping segments ordered by offset; a
// new mapping cuts away whatever older segments it covers, so a later
// mapping of the same bytes wins and a read visits each byte once.
void MappedStripe::addMapping(u64 offset, u64 size, Ref<Interfaces::Stripe> log, u64 logPosition) {
  if (size == 0 || offset + size < offset) return;
  const u64 end = offset + size;
  auto it = _segments.lower_bound(offset);
  if (it != _segments.begin()) {
    auto prev = std::prev(it);
    if (prev->second.end > offset) it = prev;
  }
  while (it != _segments.end() && it->first < end) {
    const u64 segStart = it->first;
    Segment seg = it->second;
    it = _segments.erase(it);
    if (segStart < offset) _segments.emplace(segStart, Segment{offset, seg.log, seg.logPosition});
    if (seg.end > end) {
      _segments.emplace(end, Segment{seg.end, seg.log, seg.logPosition + (end - segStart)});
      break;
    }
  }
  _segments.emplace(offset, Segment{end, std::move(log), logPosition});
  _mappedEnd = std::max(_mappedEnd, end);
}

u64 MappedStripe::elementCount() {
  return std::max({_file->elementCount(), _mappedEnd, _virtualSize});
}

u64 MappedStripe::setElementCount(u64 count) {
  u64 done = 0;
  if (_hook && _hook->handleAction(*this, Hook::Action::Resize, nullptr, count, 0, done)) {
    _virtualSize = count;
    return elementCount() >= count ? count : elementCount();
  }
  return _file->setElementCount(count);
}

u64 MappedStripe::readAt(u64 position, void* buffer, u64 count) {
  u64 done = 0;
  if (_hook && _hook->handleAction(*this, Hook::Action::Read, buffer, position, count, done)) return done;
  return readMapped(position, buffer, count);
}

u64 MappedStripe::readMapped(u64 position, void* buffer, u64 count) {
  const u64 fileSize = _file->elementCount();
  const u64 size = std::max({fileSize, _mappedEnd, _virtualSize});
  if (position >= size) return 0;
  count = std::min(count, size - position);
  u8* out = static_cast<u8*>(buffer);
  // Beyond the file's end there are only mapped bytes; a file read that
  // stops before it failed, and must not pass for zeros.
  const u64 inFile = position < fileSize ? std::min(count, fileSize - position) : 0;
  if (inFile && _file->readAt(position, out, inFile) != inFile) return 0;
  if (inFile < count) std::memset(out + inFile, 0, count - inFile);
  const u64 end = position + count;
  auto it = _segments.upper_bound(position);
  if (it != _segments.begin()) --it;
  for (; it != _segments.end() && it->first < end; ++it) {
    const u64 a = std::max(position, it->first);
    const u64 b = std::min(end, it->second.end);
    if (a >= b) continue;
    const u64 n = b - a;
    if (it->second.log->readAt(it->second.logPosition + (a - it->first), out + (a - position), n) != n) {
      return a - position;  // a log that cannot be read ends the read here
    }
  }
  return count;
}

u64 MappedStripe::writeAt(u64 position, const void* buffer, u64 count) {
  u64 done = 0;
  if (_hook && _hook->handleAction(*this, Hook::Action::Write, buffer, position, count, done)) return done;
  return _file->writeAt(position, buffer, count);
}

}  // namespace Libraries::Files::Hive
