#include "tests/support/fault_stripe.h"

#include <cerrno>

#include "platform/error.h"

namespace hivekit::test {

Ref<FaultStripe> FaultStripe::wrap(Ref<Interfaces::Stripe> inner) {
  return Platform::makeRef<FaultStripe>(std::move(inner));
}

void FaultStripe::arm(Kind kind, u64 n, Fault fault, bool sticky) {
  _armed = n != 0;
  _kind = kind;
  _fault = fault;
  _sticky = sticky;
  _at = n;
  _seen = 0;
  _fired = 0;
}

u64 FaultStripe::calls() const {
  u64 total = 0;
  for (u64 n : _calls) total += n;
  return total;
}

void FaultStripe::resetCounts() {
  for (u64& n : _calls) n = 0;
}

bool FaultStripe::faulted(Kind kind) {
  ++_calls[kind];
  if (!_armed || kind != _kind) return false;
  const u64 n = ++_seen;
  if (n < _at || (n > _at && !_sticky)) return false;
  ++_fired;
  Platform::Error::set(Platform::Error::IO_ERROR | EIO);
  return true;
}

namespace {
u64 diskFull() {
  Platform::Error::set(Platform::Error::IO_ERROR | ENOSPC);
  return 0;
}
}  // namespace

u64 FaultStripe::setElementCount(u64 count) {
  if (faulted(Resize)) return _inner->elementCount();
  if (count > _limit) return diskFull() + _inner->elementCount();
  return _inner->setElementCount(count);
}

u64 FaultStripe::readAt(u64 position, void* buffer, u64 count) {
  if (!faulted(Read)) return _inner->readAt(position, buffer, count);
  if (_fault == Fail) return 0;
  const u64 n = _inner->readAt(position, buffer, count / 2);
  Platform::Error::set(Platform::Error::IO_ERROR | EIO);
  return n;
}

u64 FaultStripe::writeAt(u64 position, const void* buffer, u64 count) {
  if (count > _limit || position > _limit - count) return diskFull();
  if (!faulted(Write)) return _inner->writeAt(position, buffer, count);
  if (_fault == Fail) return 0;
  const u64 n = _inner->writeAt(position, buffer, count / 2);
  Platform::Error::set(Platform::Error::IO_ERROR | EIO);
  return n;
}

bool FaultStripe::sync() {
  if (faulted(Sync)) return false;
  return _inner->sync();
}

}  // namespace hivekit::test
