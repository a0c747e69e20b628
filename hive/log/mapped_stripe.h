// A stripe over the hive file on which ranges can be mapped to a log.
//
// Reads of a mapped range come from the log (a later mapping of the same
// bytes wins); every access is first offered to the hook, and whatever the
// hook does not take over is performed on the hive file itself. The hive
// in log mode is the hook: it turns writes into new log entries, so the
// hive file is never changed.
#pragma once

#include <map>

#include "platform/stripe.h"
#include "platform/types.h"

namespace Libraries::Files::Hive {
using namespace Platform;

class MappedStripe : public Interfaces::Stripe {
 public:
  class Hook {
   public:
    enum class Action : u32 { Read = 0, Write = 1, Resize = 2 };
    virtual ~Hook() = default;
    // Offered every access first. True when the hook took it over (done =
    // the bytes handled); false leaves the access to the mapped stripe.
    virtual bool handleAction(MappedStripe& stripe, Action action, const void* buffer, u64 offset, u64 size,
                              u64& done) = 0;
  };

  MappedStripe(Ref<Interfaces::Stripe> file, Hook* hook) : _file(std::move(file)), _hook(hook) {}

  // Reads of [offset, offset + size) now come from `log` at `logPosition`.
  void addMapping(u64 offset, u64 size, Ref<Interfaces::Stripe> log, u64 logPosition);
  void setHook(Hook* hook) { _hook = hook; }

  u64 elementCount() override;
  u64 setElementCount(u64 count) override;
  u64 readAt(u64 position, void* buffer, u64 count) override;
  u64 writeAt(u64 position, const void* buffer, u64 count) override;
  bool sync() override { return _file->sync(); }
  Ref<Interfaces::Stripe> file() const { return _file; }
  // Reads as the stripe reads now, bypassing the hook (for the hook itself).
  u64 readMapped(u64 position, void* buffer, u64 count);

 private:
  struct Segment {
    u64 end;
    Ref<Interfaces::Stripe> log;
    u64 logPosition;
  };
  Ref<Interfaces::Stripe> _file;
  Hook* _hook;
  std::map<u64, Segment> _segments;  // by start offset, non-overlapping
  u64 _mappedEnd = 0;                // the end of the highest mapped range
  u64 _virtualSize = 0;              // size the hook took over from resizes
};

}  // namespace Libraries::Files::Hive
