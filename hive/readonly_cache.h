// ReadOnlyCache: the whole hive file in memory, for unsafe mode.
//
// Unsafe mode serves damaged or partly valid hives: instead of learning
// hbins one by one, the file is read once at open and records are taken
// from this copy by position, without any hbin checks. The copy never
// changes after it is made; writes are refused.
#pragma once

#include "platform/shmem.h"
#include "platform/stripe.h"

namespace Libraries::Files::Hive {
using namespace Platform;

class ReadOnlyCache : public Interfaces::Stripe {
 public:
  // Reads the whole of `source`; valid() tells whether that worked (the
  // reason is in the log).
  explicit ReadOnlyCache(Ref<Interfaces::Stripe> source);

  bool valid() const { return _data != nullptr; }
  u64 size() const { return _size; }
  // The bytes [position, position + length) of the copy, or null when any
  // of them lies outside it.
  const u8* at(u64 position, u64 length) const;

  u64 elementCount() override { return _size; }
  u64 readAt(u64 position, void* buffer, u64 count) override;
  // The copy is read-only: always 0 (error 0x1000).
  u64 writeAt(u64 position, const void* buffer, u64 count) override;

 private:
  bool load(Interfaces::Stripe& source);

  Ref<ShMem> _mem;
  const u8* _data = nullptr;
  u64 _size = 0;
};

}  // namespace Libraries::Files::Hive
