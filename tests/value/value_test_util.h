// Shared helpers of the value tests: hives in memory, data patterns, and a
// look at the records behind a value.
#pragma once

#include <gtest/gtest.h>

#include <vector>

#include "hive/key/key_obj.h"
#include "hive/registry_hive.h"
#include "hive/value/value_obj.h"
#include "platform/memory_stripe.h"
#include "tests/support/hive_builder.h"

namespace hivekit::test {

using Libraries::Files::Hive::HiveFile;
using Libraries::Files::Hive::RegistryHiveObj;
using Libraries::Files::Hive::ValueObj;
using Platform::makeRef;
using Platform::MemoryStripe;
using Platform::Ref;
using Platform::String;

// Opens a hive image; the stripe stays reachable for reopening.
inline Ref<RegistryHiveObj> openImage(std::vector<u8> image, u32 mode = 0,
                                      Ref<MemoryStripe>* stripe = nullptr) {
  Ref<MemoryStripe> s = MemoryStripe::create(std::move(image));
  if (stripe) *stripe = s;
  Ref<HiveFile> h = HiveFile::open(s, mode, Libraries::Files::Hive::latin1, {});
  return h.cast<RegistryHiveObj>();
}

inline Ref<RegistryHiveObj> newHive(u32 minor, Ref<MemoryStripe>* stripe = nullptr) {
  Ref<MemoryStripe> s = MemoryStripe::create();
  if (stripe) *stripe = s;
  Ref<HiveFile> h = HiveFile::create(s, minor, Libraries::Files::Hive::latin1, {});
  return h.cast<RegistryHiveObj>();
}

// Flushes the hive and opens what reached the stripe as a new hive.
inline Ref<RegistryHiveObj> reopen(const Ref<RegistryHiveObj>& hive, const Ref<MemoryStripe>& stripe,
                                   u32 mode = 0) {
  EXPECT_TRUE(hive->flush());
  return openImage(stripe->bytes(), mode);
}

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

inline Ref<String> str(const char* s) {
  return String::create(s);
}

// The record the vk's data field points to (null when resident or absent).
inline const Libraries::Files::Hive::hive_record* dataRecord(RegistryHiveObj& hive, ValueObj& v) {
  if (v.resident()) return nullptr;
  const auto* vk = hive.cacheLoadRecord(v.offset());
  if (!vk) return nullptr;
  return hive.cacheLoadRecord(vk->u32At(Libraries::Files::Hive::hive_record_vk::OFS_DATA));
}

}  // namespace hivekit::test
