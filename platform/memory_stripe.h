// A growable stripe in memory: data handed to and from the library without
// a file (exports to a string, hives built in memory), and what tests use to
// stand in for files.
#pragma once

#include <vector>

#include "platform/stripe.h"

namespace Platform {

class MemoryStripe : public Interfaces::Stripe {
 public:
  MemoryStripe() = default;
  explicit MemoryStripe(std::vector<u8> bytes) : _bytes(std::move(bytes)) {}
  static Ref<MemoryStripe> create(std::vector<u8> bytes = {}) {
    return makeRef<MemoryStripe>(std::move(bytes));
  }

  u64 elementCount() override { return _bytes.size(); }
  u64 setElementCount(u64 count) override;
  u64 readAt(u64 position, void* buffer, u64 count) override;
  u64 writeAt(u64 position, const void* buffer, u64 count) override;
  bool sync() override { return true; }

  std::vector<u8>& bytes() { return _bytes; }

 private:
  // Resizes to `count` bytes; false (IO_ERROR | ENOSPC) when the memory
  // cannot be had.
  bool grow(u64 count);

  std::vector<u8> _bytes;
};

}  // namespace Platform
