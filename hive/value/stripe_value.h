// A value's data as a byte stripe, for generic copying, dumping and the
// registry text writer and reader. Forwards to ValueObj::read, write and
// size; keeps only a position (one user at a time).
#pragma once

#include "hive/value/value_obj.h"

namespace Libraries::Files::Hive {

class StripeValue : public Interfaces::Stripe {
 public:
  explicit StripeValue(Ref<ValueObj> value) : _value(std::move(value)) {}
  u64 elementCount() override;
  u64 setElementCount(u64 count) override;
  u64 maxElementCount() override;
  u64 minElementCount() override;
  u64 readAt(u64 position, void* buffer, u64 count) override;
  u64 writeAt(u64 position, const void* buffer, u64 count) override;
  // Position becomes min(position, size).
  u64 seek(u64 position) override;

 private:
  Ref<ValueObj> _value;
};

}  // namespace Libraries::Files::Hive
