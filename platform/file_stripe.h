// A stripe over a POSIX file: positional reads and writes (pread/pwrite),
// resizing with ftruncate, and a sync that reaches the disk (fsync).
#pragma once

#include <string>

#include "platform/stripe.h"

namespace Platform {

class FileStripe : public Interfaces::Stripe {
 public:
  enum Flags : u32 {
    Read = 0x1,
    Write = 0x2,
    Create = 0x10,    // create a missing file (with Write)
    Truncate = 0x100  // start empty (with Write)
  };
  // Null on failure; the error code is FILE_NOT_FOUND for a missing file,
  // IO_ERROR | errno otherwise (a directory is refused with EISDIR).
  static Ref<FileStripe> open(const std::string& path, u32 flags);
  ~FileStripe() override;

  u64 elementCount() override;
  u64 setElementCount(u64 count) override;
  u64 readAt(u64 position, void* buffer, u64 count) override;
  u64 writeAt(u64 position, const void* buffer, u64 count) override;
  bool sync() override;
  // A mapping of the file's pages (see FileView for what it shows when the
  // file changes).
  Ref<FileView> view(u64 position, u64 count) override;
  bool writable() const { return _writable; }

  // Advisory lock on the whole file, held by this open (an open file
  // description lock: two opens in one process conflict as two processes
  // do) until it is closed. Shared locks coexist; an exclusive one
  // excludes every other. Without `wait`, a conflicting lock makes it fail
  // at once with IO_ERROR | EAGAIN.
  enum class Lock { Shared, Exclusive };
  bool lock(Lock kind, bool wait);
  // Closes the file now (and so drops its lock) while others may still
  // hold this object: every later call fails with IO_ERROR | EBADF. The
  // caller makes sure no call on it runs at the same time.
  void close();
  const std::string& path() const { return _path; }

 private:
  FileStripe(int fd, std::string path, bool writable) : _fd(fd), _path(std::move(path)), _writable(writable) {}
  int _fd;
  bool _locked = false;
  std::string _path;
  bool _writable;
};

}  // namespace Platform
