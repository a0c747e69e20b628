#include "hive/value/stripe_value.h"

#include <algorithm>

#include "platform/error.h"

namespace Libraries::Files::Hive {

namespace {

constexpr u64 U32_LIMIT = 0x100000000ull;

}  // namespace

u64 StripeValue::elementCount() {
  return _value->size();
}

u64 StripeValue::setElementCount(u64 count) {
  if (Error::setIf(count >= U32_LIMIT, Errors::INVALID_ARGUMENT)) return 0;
  if (!_value->resizableAsStripe()) return Interfaces::Stripe::setElementCount(count);
  return _value->size(static_cast<u32>(count));
}

u64 StripeValue::maxElementCount() {
  return _value->resizableAsStripe() ? ValueObj::MAX_VALUE_DATA_SIZE : Interfaces::Stripe::maxElementCount();
}

u64 StripeValue::minElementCount() {
  return _value->resizableAsStripe() ? 0 : Interfaces::Stripe::minElementCount();
}

u64 StripeValue::readAt(u64 position, void* buffer, u64 count) {
  if (Error::setIf(count >= U32_LIMIT, Errors::INVALID_ARGUMENT)) return 0;
  if (position >= U32_LIMIT) return 0;  // past the end of any value
  return _value->read(buffer, static_cast<u32>(position), static_cast<u32>(count));
}

u64 StripeValue::writeAt(u64 position, const void* buffer, u64 count) {
  if (Error::setIf(count >= U32_LIMIT, Errors::INVALID_ARGUMENT)) return 0;
  if (position >= U32_LIMIT) return 0;
  return _value->write(buffer, static_cast<u32>(position), static_cast<u32>(count));
}

u64 StripeValue::seek(u64 position) {
  _position = std::min<u64>(position, _value->size());
  return _position;
}

}  // namespace Libraries::Files::Hive
