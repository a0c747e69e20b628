// A read-only view of a range of a file, mapped into memory.
//
// The bytes are the file's own pages (nothing is copied); the view stays
// valid as long as this object lives. The mapping shows the file as it is:
// a file changed or cut short by someone else while it is mapped changes
// under the view (reads of pages cut off would fault), so views are for
// files nobody else writes while they are in use.
#pragma once

#include "platform/object.h"

namespace Platform {

class FileView : public Object {
 public:
  // Maps [position, position + length) of the open file `fd`; null (error
  // code set) when the system refuses or length is 0.
  static Ref<FileView> map(int fd, u64 position, u64 length);
  ~FileView() override;

  const u8* data() const { return _data; }
  u64 size() const { return _size; }

 private:
  FileView(void* base, u64 mappedLength, const u8* data, u64 size)
      : _base(base), _mappedLength(mappedLength), _data(data), _size(size) {}
  void* _base;  // the mapping, from the page holding `position`
  u64 _mappedLength;
  const u8* _data;
  u64 _size;
};

}  // namespace Platform
