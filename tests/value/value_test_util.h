// Shared helpers of the value tests: a value's data and the records behind
// it (hives in memory and data patterns come from tests/support/hives.h).
#pragma once

#include "hive/value/value_obj.h"
#include "tests/key/key_test_util.h"

namespace hivekit::test {

using Hive::ValueObj;
using Platform::makeRef;

inline std::vector<u8> readAll(ValueObj& v) {
  std::vector<u8> out(v.size());
  out.resize(v.read(out.data(), 0, v.size()));
  return out;
}

// The record the vk's data field points to (null when resident or absent).
inline const hive_record* dataRecord(RegistryHiveObj& hive, ValueObj& v) {
  if (v.resident()) return nullptr;
  const hive_record* vk = hive.cacheLoadRecord(v.offset());
  return vk ? hive.cacheLoadRecord(vk->u32At(Hive::hive_record_vk::OFS_DATA)) : nullptr;
}

}  // namespace hivekit::test
