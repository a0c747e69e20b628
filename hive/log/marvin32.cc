#include "hive/log/marvin32.h"

#include "platform/endian.h"

namespace Libraries::Files::Hive {

namespace {
inline u32 rotl(u32 v, int n) {
  return (v << n) | (v >> (32 - n));
}
}  // namespace

void Marvin32::block(u32 word) {
  _lo += word;
  _hi ^= _lo;
  _lo = rotl(_lo, 20);
  _lo += _hi;
  _hi = rotl(_hi, 9);
  _hi ^= _lo;
  _lo = rotl(_lo, 27);
  _lo += _hi;
  _hi = rotl(_hi, 19);
}

void Marvin32::update(const void* data, u64 length) {
  const u8* p = static_cast<const u8*>(data);
  while (length > 0 && _tailLength > 0) {
    _tail[_tailLength++] = *p++;
    --length;
    if (_tailLength == 4) {
      block(L32(_tail));
      _tailLength = 0;
    }
  }
  while (length >= 4) {
    block(L32(p));
    p += 4;
    length -= 4;
  }
  while (length > 0) {
    _tail[_tailLength++] = *p++;
    --length;
  }
}

u64 Marvin32::finish() {
  u32 last;
  switch (_tailLength) {
    case 0:
      last = 0x80u;
      break;
    case 1:
      last = 0x8000u | _tail[0];
      break;
    case 2:
      last = 0x800000u | L16(_tail);
      break;
    default:
      last = 0x80000000u | (static_cast<u32>(_tail[2]) << 16) | L16(_tail);
      break;
  }
  block(last);
  block(0);
  _tailLength = 0;
  return static_cast<u64>(_lo) | (static_cast<u64>(_hi) << 32);
}

}  // namespace Libraries::Files::Hive
