#include "platform/stripe.h"

#include "platform/error.h"
#include "platform/file_view.h"

namespace Interfaces {

u64 Stripe::setElementCount(u64) {
  Platform::Error::set(0x10002);
  return elementCount();
}

}  // namespace Interfaces

namespace Interfaces {

Platform::Ref<Platform::FileView> Stripe::view(u64, u64) {
  return nullptr;
}

}  // namespace Interfaces
