// Security descriptor handles and the walk over a hive's sk records.
#include "api/core.h"
#include "hive/security/security_descriptor.h"

namespace hivekit {

using namespace detail;
using Libraries::Files::Hive::SecurityDescriptorIteratorObj;
using Libraries::Files::Hive::SecurityDescriptorObj;
using SK = Libraries::Files::Hive::hive_record_sk;

std::uint32_t SecurityDescriptor::reference_count() const {
  Call call(core_);
  if (!call.ok()) return 0;
  return SecurityDescriptorObj(Ref<RegistryHiveObj>(&call.hive()), offset_).referenceCount();
}

Result<Bytes> SecurityDescriptor::bytes() const {
  Call call(core_);
  if (!call.ok()) return call.status();
  const Libraries::Files::Hive::hive_record* rec = call.hive().cacheLoadRecord(offset_);
  if (!rec || rec->signature() != SK::SIGNATURE || rec->length() < SK::OFS_DESCRIPTOR)
    return engineStatus("cannot read the security record", Code::corrupt);
  std::vector<u8> raw = SecurityDescriptorObj(Ref<RegistryHiveObj>(&call.hive()), offset_).get();
  if (raw.empty()) return Status(Code::corrupt, "the security descriptor does not fit its record");
  const auto* begin = reinterpret_cast<const std::byte*>(raw.data());
  return Bytes(std::vector<std::byte>(begin, begin + raw.size()));
}

Status SecurityDescriptor::overwrite(std::span<const std::byte> descriptor) {
  Call call(core_);
  if (!call.writable()) return call.status();
  SecurityDescriptorObj sd(Ref<RegistryHiveObj>(&call.hive()), offset_);
  if (sd.descriptorLength() != descriptor.size())
    return Status(Code::invalid_argument, "a descriptor is overwritten in place only by one of the same length (" +
                                              std::to_string(sd.descriptorLength()) + " bytes)");
  if (!sd.set(reinterpret_cast<const u8*>(descriptor.data()), static_cast<u32>(descriptor.size())))
    return engineStatus("cannot write the security descriptor", Code::io_error);
  return Status();
}

SecurityDescriptors::iterator SecurityDescriptors::begin() {
  iterator it;
  if (!status_.ok()) return it;
  it.owner_ = this;
  it.done_ = false;
  next_ = start_;
  previous_ = Libraries::Files::Hive::INVALID_RECORD;
  advance(it);
  return it;
}

void SecurityDescriptors::advance(iterator& it) {
  Call call(core_);
  u32 offset = 0;
  bool damaged = false;
  // Every record takes at least 24 bytes: a walk longer than the hive can
  // hold has gone round a loop the links did not reveal.
  const bool more = call.ok() && it.count_ <= call.hive().hiveLength() / SK::OFS_DESCRIPTOR &&
                    SecurityDescriptorIteratorObj::step(call.hive(), start_, next_, previous_, offset, damaged);
  if (damaged) status_ = Status(Code::corrupt, "the list of security records is broken; the walk stopped early");
  if (!more) {
    if (!call.ok()) status_ = call.status();
    it.done_ = true;
    it.current_ = SecurityDescriptor();
    return;
  }
  ++it.count_;
  it.current_ = Access::makeSecurityDescriptor(core_, offset);
}

}  // namespace hivekit
