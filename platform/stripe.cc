#include "platform/stripe.h"

#include "platform/error.h"

namespace Interfaces {

u64 Stripe::setElementCount(u64) {
  Platform::Error::set(0x10002);
  return elementCount();
}

}  // namespace Interfaces
