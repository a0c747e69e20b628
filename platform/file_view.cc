#include "platform/file_view.h"

#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>

#include "platform/error.h"

namespace Platform {

namespace {
constexpr u64 POPULATE_LIMIT = u64{64} << 20;
}  // namespace

Ref<FileView> FileView::map(int fd, u64 position, u64 length) {
  if (length == 0) {
    Error::set(Error::IO_ERROR | EINVAL);
    return nullptr;
  }
  // mmap wants an offset on a page boundary: map from the page holding
  // `position` and point past the bytes before it.
  const long page = sysconf(_SC_PAGESIZE);
  const u64 skip = page > 0 ? position % static_cast<u64>(page) : 0;
  const u64 mapped = length + skip;
  if (mapped < length || mapped > static_cast<u64>(static_cast<size_t>(-1))) {
    Error::set(Error::IO_ERROR | EINVAL);
    return nullptr;
  }
  // The hive's open reads every hbin header and so touches every page of
  // an ordinary hive (a walk then reads them all again): its pages are
  // mapped in one go rather than by a fault on each run of them. A file of
  // hundreds of megabytes is mostly a few big values, which a reader may
  // never look at: its pages come in as they are read.
  const int populate = mapped <= POPULATE_LIMIT ? MAP_POPULATE : 0;
  void* base =
      mmap(nullptr, mapped, PROT_READ, MAP_PRIVATE | populate, fd, static_cast<off_t>(position - skip));
  if (base == MAP_FAILED) {
    Error::set(Error::IO_ERROR | static_cast<u32>(errno));
    return nullptr;
  }
  return Ref<FileView>(new FileView(base, mapped, static_cast<const u8*>(base) + skip, length));
}

FileView::~FileView() {
  munmap(_base, _mappedLength);
}

}  // namespace Platform
