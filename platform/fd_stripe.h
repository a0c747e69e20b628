// A write-only stripe over a file descriptor that cannot seek (standard
// output): writes must follow one another; reading is not possible.
#pragma once

#include <unistd.h>

#include <cerrno>

#include "platform/error.h"
#include "platform/stripe.h"

namespace Platform {

class SequentialFdStripe : public Interfaces::Stripe {
 public:
  explicit SequentialFdStripe(int fd) : _fd(fd) {}
  u64 elementCount() override { return _written; }
  u64 readAt(u64, void*, u64) override { return 0; }
  // Only at the current end; anything else writes nothing.
  u64 writeAt(u64 position, const void* buffer, u64 count) override {
    if (_failed || position != _written) return 0;
    const char* p = static_cast<const char*>(buffer);
    u64 done = 0;
    while (done < count) {
      const ssize_t n = ::write(_fd, p + done, count - done);
      if (n < 0 && errno == EINTR) continue;
      if (n <= 0) {
        Error::set(Error::IO_ERROR | static_cast<u32>(n < 0 ? errno : EIO));
        _failed = true;
        return 0;
      }
      done += static_cast<u64>(n);
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

}  // namespace Platform
