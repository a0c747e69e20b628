// A stripe that passes every call on to another stripe and can make one of
// them go wrong: storage failures on demand, for tests of how the library
// handles them.
//
// Calls are counted per kind and in total. A test runs its workload once to
// learn how many calls of a kind it makes, then once for every N from 1 to
// that count with the N-th call of the kind armed to go wrong:
//
//   Ref<FaultStripe> file = FaultStripe::wrap(MemoryStripe::create(image));
//   file->arm(FaultStripe::Write, n);          // counts from this call on
//   ... open a hive on `file`, change it, flush ...
//   if (file->fired()) { ... the failure must show ... }
//
// What goes wrong:
//   Read, Write   fail: nothing moves, 0 is returned.
//                 short: the first half of the elements (rounded down) move
//                 and their number is returned, as a disk that stops part
//                 way does; the part moved is real.
//   Resize        the size stays as it was, and is returned.
//   Sync          false is returned.
// Every faulted call sets the error code IO_ERROR | EIO. An armed fault
// fires once; a sticky one fires on that call and every later call of its
// kind until disarm(): for writes, how a crash looks from the storage side
// (nothing written after the failure arrives), for resizes a full disk.
#pragma once

#include "platform/stripe.h"

namespace hivekit::test {

using Platform::Ref;
using Platform::u32;
using Platform::u64;

class FaultStripe : public Interfaces::Stripe {
 public:
  enum Kind { Read, Write, Resize, Sync, KINDS };
  enum Fault { Fail, Short };

  explicit FaultStripe(Ref<Interfaces::Stripe> inner) : _inner(std::move(inner)) {}
  static Ref<FaultStripe> wrap(Ref<Interfaces::Stripe> inner);

  // The n-th call of `kind` from now on goes wrong as `fault` says (Short
  // applies to reads and writes only); n = 0 arms nothing, so a counting
  // run can share the code of the faulted ones. Replaces any armed fault.
  void arm(Kind kind, u64 n, Fault fault = Fail, bool sticky = false);
  void disarm() { _armed = false; }
  // Faults fired since the last arm().
  u64 fired() const { return _fired; }

  // Calls made since creation or resetCounts().
  u64 calls(Kind kind) const { return _calls[kind]; }
  u64 calls() const;
  void resetCounts();

  // Writes and resizes that would take the stripe past `limit` elements
  // fail as on a full disk (nothing moves, IO_ERROR | ENOSPC); they are
  // not counted as faults.
  void limitSize(u64 limit) { _limit = limit; }

  const Ref<Interfaces::Stripe>& inner() const { return _inner; }

  u32 elementSize() const override { return _inner->elementSize(); }
  u64 elementCount() override { return _inner->elementCount(); }
  u64 setElementCount(u64 count) override;
  u64 maxElementCount() override { return _inner->maxElementCount(); }
  u64 minElementCount() override { return _inner->minElementCount(); }
  u64 readAt(u64 position, void* buffer, u64 count) override;
  u64 writeAt(u64 position, const void* buffer, u64 count) override;
  bool sync() override;

 private:
  // Counts the call; true when it is to go wrong.
  bool faulted(Kind kind);

  Ref<Interfaces::Stripe> _inner;
  u64 _calls[KINDS] = {};
  bool _armed = false;
  Kind _kind = Read;
  Fault _fault = Fail;
  bool _sticky = false;
  u64 _at = 0;    // the call of _kind, counted from arm(), that goes wrong
  u64 _seen = 0;  // calls of _kind since arm()
  u64 _fired = 0;
  u64 _limit = ~u64{0};
};

// One way for calls to go wrong, named for test output; FAULT_KINDS lists
// every one the sweeps try.
struct FaultSpec {
  const char* name;
  FaultStripe::Kind kind;
  FaultStripe::Fault fault;
  bool sticky;
};
inline constexpr FaultSpec FAULT_KINDS[] = {
    {"read fails", FaultStripe::Read, FaultStripe::Fail, false},
    {"read short", FaultStripe::Read, FaultStripe::Short, false},
    {"write fails", FaultStripe::Write, FaultStripe::Fail, false},
    {"write short", FaultStripe::Write, FaultStripe::Short, false},
    {"writes fail from then on", FaultStripe::Write, FaultStripe::Fail, true},
    {"resize fails", FaultStripe::Resize, FaultStripe::Fail, false},
    {"resizes fail from then on", FaultStripe::Resize, FaultStripe::Fail, true},
    {"sync fails", FaultStripe::Sync, FaultStripe::Fail, false},
};

}  // namespace hivekit::test
