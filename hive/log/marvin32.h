// Marvin32, the keyed hash that protects new-format log entries.
#pragma once

#include "platform/types.h"

namespace Libraries::Files::Hive {
using namespace Platform;

constexpr u64 LOG_HASH_SEED = 0x82EF4D887A4E55C5ull;

// Streaming form: feed bytes in any pieces, then finish(). The result is
// the final pair of state words, the first in the low half (not their XOR),
// which is how log entries store it.
class Marvin32 {
 public:
  explicit Marvin32(u64 seed = LOG_HASH_SEED)
      : _lo(static_cast<u32>(seed)), _hi(static_cast<u32>(seed >> 32)) {}
  void update(const void* data, u64 length);
  u64 finish();

 private:
  void block(u32 word);
  u32 _lo, _hi;
  u8 _tail[4] = {};
  u32 _tailLength = 0;
};

inline u64 marvin32(const void* data, u64 length, u64 seed = LOG_HASH_SEED) {
  Marvin32 m(seed);
  m.update(data, length);
  return m.finish();
}

}  // namespace Libraries::Files::Hive
