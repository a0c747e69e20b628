#include "hive/security/security_descriptor.h"

#include "platform/check.h"
#include "platform/error.h"

namespace Libraries::Files::Hive {

const Platform::Log::Channel sdLog("HIVE SD");
const Platform::Log::Channel sdIteratorLog("HIVE SD Iterator");

namespace {

// The sk record at `offset` when it is one and its fixed part fits in the
// cell; null otherwise. The descriptor bytes may still exceed the cell.
const hive_record* loadSk(RegistryHiveObj& hive, u32 offset) {
  const hive_record* rec = hive.cacheLoadRecord(offset);
  if (rec == nullptr || rec->signature() != hive_record_sk::SIGNATURE ||
      rec->length() < hive_record_sk::OFS_DESCRIPTOR)
    return nullptr;
  return rec;
}

// The stored descriptor fits in the cell. Computed in 64 bits: the length
// field is hostile and may be close to 2^32.
bool descriptorFits(const hive_record* rec) {
  return static_cast<u64>(hive_record_sk::OFS_DESCRIPTOR) + rec->u32At(hive_record_sk::OFS_LENGTH) <=
         rec->length();
}

}  // namespace

std::vector<u8> SecurityDescriptorObj::get() {
  Mon::Lock lock(_hive->mon());
  const hive_record* rec = _hive->cacheLoadRecord(_offset);
  HK_ASSERT(sdLog, rec != nullptr, {});
  HK_ASSERT(sdLog, rec->signature() == hive_record_sk::SIGNATURE, {});
  HK_ASSERT(sdLog, rec->length() >= hive_record_sk::OFS_DESCRIPTOR, {});
  if (!descriptorFits(rec)) {
    HK_LOG(sdLog, 3) << "Descriptor exceeds its record at " << Log::hex(_offset);
    return {};
  }
  const u8* begin = rec->bytes() + hive_record_sk::OFS_DESCRIPTOR;
  return std::vector<u8>(begin, begin + rec->u32At(hive_record_sk::OFS_LENGTH));
}

bool SecurityDescriptorObj::set(const u8* bytes, u32 length) {
  if (Error::setIf(bytes == nullptr && length != 0, Errors::NULL_ARGUMENT)) return false;
  Mon::Lock lock(_hive->mon());
  if (Error::setIf(_hive->readonly(), Errors::READ_ONLY)) return false;
  const hive_record* rec = _hive->cacheLoadRecord(_offset);
  HK_ASSERT(sdLog, rec != nullptr, false);
  HK_ASSERT(sdLog, rec->signature() == hive_record_sk::SIGNATURE, false);
  HK_ASSERT(sdLog, rec->length() >= hive_record_sk::OFS_DESCRIPTOR, false);
  // The record is never resized or moved here: keys point at it by offset
  // and the list links it by offset, so only a same-length rewrite is safe.
  if (rec->u32At(hive_record_sk::OFS_LENGTH) != length || !descriptorFits(rec)) {
    HK_LOG(sdLog, 3) << "Descriptor length " << length << " does not match the record at "
                     << Log::hex(_offset);
    Error::set(Errors::INVALID_ARGUMENT);
    return false;
  }
  if (length == 0) return true;
  return _hive->writeRecord(_offset, bytes, hive_record_sk::OFS_DESCRIPTOR, length);
}

u32 SecurityDescriptorObj::referenceCount() {
  Mon::Lock lock(_hive->mon());
  const hive_record* rec = loadSk(*_hive, _offset);
  return rec ? rec->u32At(hive_record_sk::OFS_REFCOUNT) : 0;
}

u32 SecurityDescriptorObj::descriptorLength() {
  Mon::Lock lock(_hive->mon());
  const hive_record* rec = loadSk(*_hive, _offset);
  return rec ? rec->u32At(hive_record_sk::OFS_LENGTH) : 0;
}

bool SecurityDescriptorIteratorObj::step(RegistryHiveObj& hive, u32 start, u32& current, u32& previous,
                                         u32& out, bool& damaged) {
  if (current == INVALID_RECORD) return false;
  const u32 offset = current;
  const hive_record* rec = loadSk(hive, offset);
  if (rec == nullptr) {
    HK_LOG(sdIteratorLog, 3) << "Invalid sk record at " << Log::hex(offset);
    current = INVALID_RECORD;
    damaged = true;
    return false;
  }
  out = offset;
  const bool linked = previous == INVALID_RECORD || rec->u32At(hive_record_sk::OFS_BLINK) == previous;
  previous = offset;
  if (!linked) {
    HK_LOG(sdIteratorLog, 3) << "Incorrect back offset at " << Log::hex(offset);
    current = INVALID_RECORD;
    damaged = true;
    return true;
  }
  const u32 flink = rec->u32At(hive_record_sk::OFS_FLINK);
  if (flink == 0 || flink == INVALID_RECORD) {
    HK_LOG(sdIteratorLog, 3) << "Invalid offset in sk at " << Log::hex(offset);
    current = INVALID_RECORD;
    damaged = true;
  } else {
    current = flink == start ? INVALID_RECORD : flink;
  }
  return true;
}

Ref<SecurityDescriptor> SecurityDescriptorIteratorObj::next() {
  if (_current == INVALID_RECORD) return nullptr;
  Mon::Lock lock(_hive->mon());
  u32 offset = INVALID_RECORD;
  bool damaged = false;
  if (!step(*_hive, _start, _current, _previous, offset, damaged)) return nullptr;
  return makeRef<SecurityDescriptorObj>(_hive, offset);
}

bool SecurityDescriptorIteratorObj::rewind() {
  _current = _start;
  _previous = INVALID_RECORD;
  return true;
}

}  // namespace Libraries::Files::Hive
