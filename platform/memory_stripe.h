// A growable stripe in memory. Tests use it to stand in for files, and it
// can be told to fail writes or resizes to simulate a full disk.
#pragma once

#include <vector>

#include "platform/stripe.h"

namespace Platform {

class MemoryStripe : public Interfaces::Stripe {
 public:
  MemoryStripe() = default;
  explicit MemoryStripe(std::vector<u8> bytes) : _bytes(std::move(bytes)) {}
  static Ref<MemoryStripe> create(std::vector<u8> bytes = {}) { return makeRef<MemoryStripe>(std::move(bytes)); }

  u64 elementCount() override { return _bytes.size(); }
  u64 setElementCount(u64 count) override;
  u64 readAt(u64 position, void* buffer, u64 count) override;
  u64 writeAt(u64 position, const void* buffer, u64 count) override;
  bool sync() override { return !_failSync; }

  std::vector<u8>& bytes() { return _bytes; }
  // Writes beyond this many bytes of the stripe fail (a full disk).
  void limitSize(u64 limit) { _limit = limit; }
  void failWrites(bool fail) { _failWrites = fail; }
  void failSync(bool fail) { _failSync = fail; }

 private:
  std::vector<u8> _bytes;
  u64 _limit = ~0ull;
  bool _failWrites = false;
  bool _failSync = false;
};

}  // namespace Platform
