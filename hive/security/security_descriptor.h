// Security descriptors: sk records, shared by keys through a reference
// count and linked in a circular list (flink / blink).
#pragma once

#include "hive/registry_hive.h"

namespace Libraries::Files::Hive {

using Interfaces::Config::Hive::SecurityDescriptor;

extern const Platform::Log::Channel sdLog;          // "HIVE SD"
extern const Platform::Log::Channel sdIteratorLog;  // "HIVE SD Iterator"

class SecurityDescriptorObj : public SecurityDescriptor {
 public:
  SecurityDescriptorObj(Ref<RegistryHiveObj> hive, u32 offset) : _hive(std::move(hive)), _offset(offset) {}
  std::vector<u8> get() override;
  bool set(const u8* bytes, u32 length) override;
  u32 offset() const { return _offset; }
  // Fields of the record as stored (0 when it cannot be loaded).
  u32 referenceCount();
  u32 descriptorLength();

 private:
  Ref<RegistryHiveObj> _hive;
  u32 _offset;
};

class SecurityDescriptorIteratorObj : public SecurityDescriptorIterator {
 public:
  SecurityDescriptorIteratorObj(Ref<RegistryHiveObj> hive, u32 start)
      : _hive(std::move(hive)), _start(start), _current(start) {}
  // Null at the end; a damaged link ends the walk after the record where it
  // was found.
  Ref<SecurityDescriptor> next() override;
  // One step of the walk over the ring of sk records: the record at
  // `current` (INVALID_RECORD: the walk is over) is checked and given in
  // `out`, and `current` and `previous` move on. False when there is no
  // record to give (the walk is over, or `current` is not an sk record).
  // `damaged` is set when the walk ends early on a broken link.
  // Every record's blink must name the one given before it: besides
  // catching damage, this bounds the walk, since a record can only be
  // reached again through the same predecessor, so any loop passes `start`.
  static bool step(RegistryHiveObj& hive, u32 start, u32& current, u32& previous, u32& out, bool& damaged);
  bool rewind() override;

 private:
  Ref<RegistryHiveObj> _hive;
  u32 _start;
  u32 _current;
  u32 _previous = INVALID_RECORD;
};

}  // namespace Libraries::Files::Hive
