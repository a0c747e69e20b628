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

// Bytes that differ from one position and one seed to the next.
inline std::vector<u8> pattern(size_t n, u32 seed) {
  std::vector<u8> v(n);
  u32 x = seed * 2654435761u + 1;
  for (size_t i = 0; i < n; ++i) {
    x = x * 1103515245u + 12345u;
    v[i] = static_cast<u8>(x >> 16);
  }
  return v;
}

// A string as a value stores it: UTF-16LE units and a terminating zero.
inline std::vector<u8> sz(std::u16string_view s) {
  std::vector<u8> out;
  for (char16_t c : s) out.insert(out.end(), {static_cast<u8>(c), static_cast<u8>(c >> 8)});
  out.insert(out.end(), {0, 0});
  return out;
}

// A value's data, read whole through its stripe; empty when it has none.
inline std::vector<u8> dataOf(const Platform::Ref<Interfaces::Config::Hive::Value>& v) {
  Platform::Ref<Interfaces::Stripe> s = v ? v->binary() : nullptr;
  std::vector<u8> out(s ? s->elementCount() : 0);
  out.resize(s ? s->readAt(0, out.data(), out.size()) : 0);
  return out;
}

// Flushes the hive and opens what reached the stripe as a new hive.
inline Platform::Ref<Libraries::Files::Hive::RegistryHiveObj> reopen(
    const Platform::Ref<Libraries::Files::Hive::RegistryHiveObj>& hive,
    const Platform::Ref<Platform::MemoryStripe>& stripe, u32 mode = 0) {
  EXPECT_TRUE(hive->flush());
  return openImage(stripe->bytes(), mode);
}

}  // namespace hivekit::test
