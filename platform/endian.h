// Byte-order-safe access to little-endian (and a few big-endian) fields.
//
// Every on-disk integer is read and written through these helpers, so the
// library behaves the same on hosts of either byte order and never depends
// on the alignment of the buffer it reads from. A little-endian host copies
// the bytes as they are (one unaligned move); any other host assembles
// them byte by byte.
#pragma once

#include <bit>
#include <cstddef>
#include <cstring>

#include "platform/types.h"

namespace Platform {

constexpr bool HOST_LITTLE_ENDIAN = std::endian::native == std::endian::little;

namespace endian_detail {
// An N-byte integer stored least (little) or most significant byte first.
template <typename T, bool little>
inline T load(const void* p) {
  if constexpr (little == HOST_LITTLE_ENDIAN) {
    T v;
    std::memcpy(&v, p, sizeof v);
    return v;
  }
  const u8* b = static_cast<const u8*>(p);
  T v = 0;
  for (std::size_t i = 0; i < sizeof(T); ++i) v |= static_cast<T>(b[little ? i : sizeof(T) - 1 - i]) << (8 * i);
  return v;
}
template <typename T, bool little>
inline void store(void* p, T v) {
  if constexpr (little == HOST_LITTLE_ENDIAN) {
    std::memcpy(p, &v, sizeof v);
    return;
  }
  u8* b = static_cast<u8*>(p);
  for (std::size_t i = 0; i < sizeof(T); ++i) b[little ? i : sizeof(T) - 1 - i] = static_cast<u8>(v >> (8 * i));
}
}  // namespace endian_detail

inline u16 L16(const void* p) {
  return endian_detail::load<u16, true>(p);
}
inline u32 L32(const void* p) {
  return endian_detail::load<u32, true>(p);
}
inline u64 L64(const void* p) {
  return endian_detail::load<u64, true>(p);
}
inline s32 LS32(const void* p) {
  return static_cast<s32>(L32(p));
}
// Big-endian 16-bit read: record signatures ("nk", "vk", ...) compare this way.
inline u16 B16(const void* p) {
  return endian_detail::load<u16, false>(p);
}
inline u32 B32(const void* p) {
  return endian_detail::load<u32, false>(p);
}

inline void W16(void* p, u16 v) {
  endian_detail::store<u16, true>(p, v);
}
inline void W32(void* p, u32 v) {
  endian_detail::store<u32, true>(p, v);
}
inline void W64(void* p, u64 v) {
  endian_detail::store<u64, true>(p, v);
}
inline void WB16(void* p, u16 v) {
  endian_detail::store<u16, false>(p, v);
}

// Two-character signature as the big-endian value of its stored bytes.
constexpr u16 sig2(char a, char b) {
  return static_cast<u16>((static_cast<u8>(a) << 8) | static_cast<u8>(b));
}
constexpr u32 sig4(char a, char b, char c, char d) {
  return (static_cast<u32>(static_cast<u8>(a)) << 24) | (static_cast<u32>(static_cast<u8>(b)) << 16) |
         (static_cast<u32>(static_cast<u8>(c)) << 8) | static_cast<u32>(static_cast<u8>(d));
}

}  // namespace Platform
