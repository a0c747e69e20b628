#include "platform/file_stripe.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "platform/error.h"
#include "platform/file_view.h"

namespace Platform {

namespace {
void setErrno(int e) {
  Error::set(e == ENOENT ? Error::FILE_NOT_FOUND : (Error::IO_ERROR | static_cast<u32>(e)));
}

// Repeats `step(done)`, a pread or pwrite of what is left after `done`
// bytes, until `count` bytes are done, the call moves nothing or fails
// (the error set); returns the bytes done. Interrupted calls are retried.
template <typename Step>
u64 transfer(u64 count, Step step) {
  u64 done = 0;
  while (done < count) {
    const ssize_t n = step(done);
    if (n < 0) {
      if (errno == EINTR) continue;
      setErrno(errno);
      break;
    }
    if (n == 0) break;
    done += static_cast<u64>(n);
  }
  return done;
}
}  // namespace

Ref<FileStripe> FileStripe::open(const std::string& path, u32 flags) {
  bool writable = (flags & Write) != 0;
  int oflags = writable ? O_RDWR : O_RDONLY;
  if (writable && (flags & Create)) oflags |= O_CREAT;
  if (writable && (flags & Truncate)) oflags |= O_TRUNC;
  int fd = ::open(path.c_str(), oflags | O_CLOEXEC, 0644);
  if (fd < 0) {
    setErrno(errno);
    return nullptr;
  }
  struct stat st;
  if (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) {
    int e = S_ISDIR(st.st_mode) ? EISDIR : EINVAL;
    ::close(fd);
    setErrno(e);
    return nullptr;
  }
  return Ref<FileStripe>(new FileStripe(fd, path, writable));
}

FileStripe::~FileStripe() {
  close();
}

void FileStripe::close() {
  if (_fd < 0) return;
  if (_locked) {
    // A mapping of the file keeps its open file description, and with it
    // the lock, alive past close(): let the lock go first.
    struct flock l = {};
    l.l_type = F_UNLCK;
    l.l_whence = SEEK_SET;
    (void)fcntl(_fd, F_OFD_SETLK, &l);
    _locked = false;
  }
  ::close(_fd);
  _fd = -1;
}

u64 FileStripe::elementCount() {
  struct stat st;
  if (fstat(_fd, &st) != 0) {
    setErrno(errno);
    return 0;
  }
  return static_cast<u64>(st.st_size);
}

u64 FileStripe::setElementCount(u64 count) {
  if (!_writable) {
    Error::set(Error::IO_ERROR | EBADF);
    return elementCount();
  }
  if (ftruncate(_fd, static_cast<off_t>(count)) != 0) setErrno(errno);
  return elementCount();
}

u64 FileStripe::readAt(u64 position, void* buffer, u64 count) {
  return transfer(count, [&](u64 done) {
    return pread(_fd, static_cast<u8*>(buffer) + done, count - done, static_cast<off_t>(position + done));
  });
}

u64 FileStripe::writeAt(u64 position, const void* buffer, u64 count) {
  if (!_writable) {
    Error::set(Error::IO_ERROR | EBADF);
    return 0;
  }
  return transfer(count, [&](u64 done) {
    return pwrite(_fd, static_cast<const u8*>(buffer) + done, count - done,
                  static_cast<off_t>(position + done));
  });
}

Ref<FileView> FileStripe::view(u64 position, u64 count) {
  return FileView::map(_fd, position, count);
}

bool FileStripe::sync() {
  if (!_writable) return true;
  if (fsync(_fd) != 0) {
    setErrno(errno);
    return false;
  }
  return true;
}

bool FileStripe::lock(Lock kind, bool wait) {
  struct flock l = {};
  l.l_type = kind == Lock::Exclusive ? F_WRLCK : F_RDLCK;
  l.l_whence = SEEK_SET;
  l.l_start = 0;
  l.l_len = 0;  // the whole file, however it grows
  while (fcntl(_fd, wait ? F_OFD_SETLKW : F_OFD_SETLK, &l) != 0) {
    if (errno == EINTR) continue;
    setErrno(errno == EACCES ? EAGAIN : errno);
    return false;
  }
  _locked = true;
  return true;
}

}  // namespace Platform
