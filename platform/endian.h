// Byte-order-safe access to little-endian (and a few big-endian) fields.
//
// Every on-disk integer is read and written through these helpers, so the
// library behaves the same on hosts of either byte order and never depends
// on the alignment of the buffer it reads from. A little-endian host copies
// the bytes as they are (one unaligned move); any other host assembles
// them byte by byte.
#pragma once

#include <bit>
#include <cstring>

#include "platform/types.h"

namespace Platform {

constexpr bool HOST_LITTLE_ENDIAN = std::endian::native == std::endian::little;

inline u16 L16(const void* p) {
  if constexpr (HOST_LITTLE_ENDIAN) {
    u16 v;
    std::memcpy(&v, p, sizeof v);
    return v;
  }
  const u8* b = static_cast<const u8*>(p);
  return static_cast<u16>(b[0] | (b[1] << 8));
}
inline u32 L32(const void* p) {
  if constexpr (HOST_LITTLE_ENDIAN) {
    u32 v;
    std::memcpy(&v, p, sizeof v);
    return v;
  }
  const u8* b = static_cast<const u8*>(p);
  return static_cast<u32>(b[0]) | (static_cast<u32>(b[1]) << 8) | (static_cast<u32>(b[2]) << 16) |
         (static_cast<u32>(b[3]) << 24);
}
inline u64 L64(const void* p) {
  const u8* b = static_cast<const u8*>(p);
  return static_cast<u64>(L32(b)) | (static_cast<u64>(L32(b + 4)) << 32);
}
inline s32 LS32(const void* p) { return static_cast<s32>(L32(p)); }
// Big-endian 16-bit read: record signatures ("nk", "vk", ...) compare this way.
inline u16 B16(const void* p) {
  const u8* b = static_cast<const u8*>(p);
  return static_cast<u16>((b[0] << 8) | b[1]);
}
inline u32 B32(const void* p) {
  const u8* b = static_cast<const u8*>(p);
  return (static_cast<u32>(b[0]) << 24) | (static_cast<u32>(b[1]) << 16) | (static_cast<u32>(b[2]) << 8) |
         static_cast<u32>(b[3]);
}

inline void W16(void* p, u16 v) {
  if constexpr (HOST_LITTLE_ENDIAN) {
    std::memcpy(p, &v, sizeof v);
    return;
  }
  u8* b = static_cast<u8*>(p);
  b[0] = static_cast<u8>(v);
  b[1] = static_cast<u8>(v >> 8);
}
inline void W32(void* p, u32 v) {
  if constexpr (HOST_LITTLE_ENDIAN) {
    std::memcpy(p, &v, sizeof v);
    return;
  }
  u8* b = static_cast<u8*>(p);
  b[0] = static_cast<u8>(v);
  b[1] = static_cast<u8>(v >> 8);
  b[2] = static_cast<u8>(v >> 16);
  b[3] = static_cast<u8>(v >> 24);
}
inline void W64(void* p, u64 v) {
  W32(p, static_cast<u32>(v));
  W32(static_cast<u8*>(p) + 4, static_cast<u32>(v >> 32));
}
inline void WB16(void* p, u16 v) {
  u8* b = static_cast<u8*>(p);
  b[0] = static_cast<u8>(v >> 8);
  b[1] = static_cast<u8>(v);
}

// Two-character signature as the big-endian value of its stored bytes.
constexpr u16 sig2(char a, char b) { return static_cast<u16>((static_cast<u8>(a) << 8) | static_cast<u8>(b)); }
constexpr u32 sig4(char a, char b, char c, char d) {
  return (static_cast<u32>(static_cast<u8>(a)) << 24) | (static_cast<u32>(static_cast<u8>(b)) << 16) |
         (static_cast<u32>(static_cast<u8>(c)) << 8) | static_cast<u32>(static_cast<u8>(d));
}

}  // namespace Platform
