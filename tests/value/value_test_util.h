// Shared helpers of the value tests: data patterns and a look at the
// records behind a value (hives in memory come from the key tests' helpers).
#pragma once

#include "hive/value/value_obj.h"
#include "tests/key/key_test_util.h"

namespace hivekit::test {

using Hive::ValueObj;
using Platform::makeRef;

// Bytes that differ from one position and one seed to the next.
inline std::vector<u8> pattern(u32 n, u32 seed) {
  std::vector<u8> v(n);
  u32 x = seed * 2654435761u + 1;
  for (u32 i = 0; i < n; ++i) {
    x = x * 1103515245u + 12345u;
    v[i] = static_cast<u8>(x >> 16);
  }
  return v;
}

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
