// A limit on the work of a listing, by the size of the hive.
//
// Damaged lists can name the same keys and values over and over (a value
// list naming one large value thousands of times, subkey lists that each
// name the next key twice): a listing stops once it has read more keys,
// values or data than a hive of its size can hold.
#pragma once

#include <hivekit/hive.h>

#include <cstdint>
#include <string>

namespace hivekit::cli {

class WalkBudget {
 public:
  // L, the larger of the hive bins size and the size of the file at `path`,
  // allows L/8 + 4096 keys and values and 2L + 1 MiB bytes of their data.
  WalkBudget(const Hive& hive, const std::string& path);
  // Counts `items` keys or values and `bytes` of their data; false once the
  // walk has gone past the budget.
  bool charge(uint64_t items, uint64_t bytes = 0) {
    return (_items += items) <= _maxItems && (_bytes += bytes) <= _maxBytes;
  }

 private:
  uint64_t _items = 0, _bytes = 0;
  uint64_t _maxItems, _maxBytes;
};

}  // namespace hivekit::cli
