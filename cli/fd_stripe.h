// A write-only stripe over a file descriptor that cannot seek (standard
// output): writes must follow one another; reading is not possible.
#pragma once

#include "cli/command.h"
#include "platform/stripe.h"

namespace hivekit::cli {

class SequentialFdStripe : public Interfaces::Stripe {
 public:
  explicit SequentialFdStripe(int fd) : _fd(fd) {}
  u64 elementCount() override { return _written; }
  u64 readAt(u64, void*, u64) override { return 0; }
  // Only at the current end; anything else writes nothing.
  u64 writeAt(u64 position, const void* buffer, u64 count) override {
    if (_failed || position != _written) return 0;
    if (!writeAll(_fd, buffer, count)) {
      _failed = true;
      return 0;
    }
    _written += count;
    return count;
  }
  bool failed() const { return _failed; }

 private:
  int _fd;
  u64 _written = 0;
  bool _failed = false;
};

}  // namespace hivekit::cli
