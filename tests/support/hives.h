// Hives in memory for the tests of the engine: new ones, ones opened from
// bytes (the builder's or a copy of a file's), and ones flushed and opened
// again; and names as the engine takes them.
#pragma once

#include <gtest/gtest.h>

#include <string>
#include <string_view>
#include <vector>

#include "hive/registry_hive.h"
#include "platform/memory_stripe.h"
#include "platform/string.h"
#include "tests/support/hive_builder.h"

namespace hivekit::test {

inline Platform::Ref<Platform::String> str(std::string_view utf8) {
  return Platform::String::create(utf8);
}
inline Platform::Ref<Platform::String> str(const std::u16string& units) {
  return Platform::String::fromUtf16(units);
}

// `stripe`, when given, receives the stripe the hive lives on.
inline Platform::Ref<Libraries::Files::Hive::RegistryHiveObj> openImage(
    std::vector<u8> image, u32 mode = 0, Platform::Ref<Platform::MemoryStripe>* stripe = nullptr,
    Libraries::Files::Hive::HiveCodepage codepage = Libraries::Files::Hive::latin1) {
  Platform::Ref<Platform::MemoryStripe> s = Platform::MemoryStripe::create(std::move(image));
  if (stripe) *stripe = s;
  return Libraries::Files::Hive::HiveFile::open(s, mode, codepage, {})
      .cast<Libraries::Files::Hive::RegistryHiveObj>();
}

inline Platform::Ref<Libraries::Files::Hive::RegistryHiveObj> newHive(
    u32 minor = 5, Platform::Ref<Platform::MemoryStripe>* stripe = nullptr) {
  Platform::Ref<Platform::MemoryStripe> s = Platform::MemoryStripe::create();
  if (stripe) *stripe = s;
  return Libraries::Files::Hive::HiveFile::create(s, minor, Libraries::Files::Hive::latin1, {})
      .cast<Libraries::Files::Hive::RegistryHiveObj>();
}

// Flushes the hive and opens what reached the stripe as a new hive.
inline Platform::Ref<Libraries::Files::Hive::RegistryHiveObj> reopen(
    const Platform::Ref<Libraries::Files::Hive::RegistryHiveObj>& hive,
    const Platform::Ref<Platform::MemoryStripe>& stripe, u32 mode = 0) {
  EXPECT_TRUE(hive->flush());
  return openImage(stripe->bytes(), mode);
}

}  // namespace hivekit::test
