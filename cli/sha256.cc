#include "sha256.h"

#include <algorithm>
#include <cstring>

#if defined(__x86_64__) && (defined(__GNUC__) || defined(__clang__))
#include <cpuid.h>
#include <immintrin.h>
#define HK_SHA_NI 1
#endif

namespace hivekit::cli {
namespace {

constexpr uint32_t K[64] = {
    0x428a2f98, 0x71374491, 0xb5c0fbcf, 0xe9b5dba5, 0x3956c25b, 0x59f111f1, 0x923f82a4, 0xab1c5ed5,
    0xd807aa98, 0x12835b01, 0x243185be, 0x550c7dc3, 0x72be5d74, 0x80deb1fe, 0x9bdc06a7, 0xc19bf174,
    0xe49b69c1, 0xefbe4786, 0x0fc19dc6, 0x240ca1cc, 0x2de92c6f, 0x4a7484aa, 0x5cb0a9dc, 0x76f988da,
    0x983e5152, 0xa831c66d, 0xb00327c8, 0xbf597fc7, 0xc6e00bf3, 0xd5a79147, 0x06ca6351, 0x14292967,
    0x27b70a85, 0x2e1b2138, 0x4d2c6dfc, 0x53380d13, 0x650a7354, 0x766a0abb, 0x81c2c92e, 0x92722c85,
    0xa2bfe8a1, 0xa81a664b, 0xc24b8b70, 0xc76c51a3, 0xd192e819, 0xd6990624, 0xf40e3585, 0x106aa070,
    0x19a4c116, 0x1e376c08, 0x2748774c, 0x34b0bcb5, 0x391c0cb3, 0x4ed8aa4a, 0x5b9cca4f, 0x682e6ff3,
    0x748f82ee, 0x78a5636f, 0x84c87814, 0x8cc70208, 0x90befffa, 0xa4506ceb, 0xbef9a3f7, 0xc67178f2};

inline uint32_t rotr(uint32_t x, int n) {
  return (x >> n) | (x << (32 - n));
}

#ifdef HK_SHA_NI
// Processors with the SHA extensions run the rounds in hardware, about
// five times faster than the code below: a listing of a large hive hashes
// megabytes of value data.
bool haveShaNi() {
  unsigned a, b, c, d;
  if (!__get_cpuid(1, &a, &b, &c, &d) || !(c & bit_SSSE3) || !(c & bit_SSE4_1)) return false;
  if (!__get_cpuid_count(7, 0, &a, &b, &c, &d)) return false;
  return (b & (1u << 29)) != 0;  // SHA
}

const bool SHA_NI = haveShaNi();

// `count` blocks from `p` into the state h[0..7]. The instructions keep
// the state as the two halves ABEF and CDGH, and take the message four
// words at a time with the round constants added.
[[gnu::target("sha,ssse3,sse4.1")]] void blocksShaNi(uint32_t h[8], const uint8_t* p, size_t count) {
  const __m128i BYTE_SWAP = _mm_set_epi64x(0x0c0d0e0f08090a0bll, 0x0405060700010203ll);
  __m128i dcba = _mm_loadu_si128(reinterpret_cast<const __m128i*>(h));
  __m128i hgfe = _mm_loadu_si128(reinterpret_cast<const __m128i*>(h + 4));
  const __m128i cdab = _mm_shuffle_epi32(dcba, 0xB1);
  const __m128i efgh = _mm_shuffle_epi32(hgfe, 0x1B);
  __m128i abef = _mm_alignr_epi8(cdab, efgh, 8);
  __m128i cdgh = _mm_blend_epi16(efgh, cdab, 0xF0);
  for (; count; --count, p += 64) {
    const __m128i abefStart = abef, cdghStart = cdgh;
    __m128i w[4];
    for (int i = 0; i < 4; ++i)
      w[i] = _mm_shuffle_epi8(_mm_loadu_si128(reinterpret_cast<const __m128i*>(p + 16 * i)), BYTE_SWAP);
    for (int r = 0; r < 16; ++r) {
      __m128i m = _mm_add_epi32(w[r & 3], _mm_loadu_si128(reinterpret_cast<const __m128i*>(K + 4 * r)));
      cdgh = _mm_sha256rnds2_epu32(cdgh, abef, m);
      m = _mm_shuffle_epi32(m, 0x0E);
      abef = _mm_sha256rnds2_epu32(abef, cdgh, m);
      if (r < 12) {
        // Words 4r+16.. from those 16, 7, 15 and 2 places back.
        __m128i next = _mm_sha256msg1_epu32(w[r & 3], w[(r + 1) & 3]);
        next = _mm_add_epi32(next, _mm_alignr_epi8(w[(r + 3) & 3], w[(r + 2) & 3], 4));
        w[r & 3] = _mm_sha256msg2_epu32(next, w[(r + 3) & 3]);
      }
    }
    abef = _mm_add_epi32(abef, abefStart);
    cdgh = _mm_add_epi32(cdgh, cdghStart);
  }
  const __m128i feba = _mm_shuffle_epi32(abef, 0x1B);
  const __m128i dchg = _mm_shuffle_epi32(cdgh, 0xB1);
  dcba = _mm_blend_epi16(feba, dchg, 0xF0);
  hgfe = _mm_alignr_epi8(dchg, feba, 8);
  _mm_storeu_si128(reinterpret_cast<__m128i*>(h), dcba);
  _mm_storeu_si128(reinterpret_cast<__m128i*>(h + 4), hgfe);
}
#endif

}  // namespace

void Sha256::reset() {
  static constexpr uint32_t init[8] = {0x6a09e667, 0xbb67ae85, 0x3c6ef372, 0xa54ff53a,
                                       0x510e527f, 0x9b05688c, 0x1f83d9ab, 0x5be0cd19};
  std::memcpy(_h, init, sizeof(_h));
  _buffered = 0;
  _total = 0;
}

// One 64-byte block. The rounds are unrolled eight at a time with the
// working variables renamed instead of shifted, and the message schedule
// kept in a 16-word ring: this runs about three times faster than the
// textbook loop, which matters when a listing hashes megabytes of data.
void Sha256::block(const uint8_t* p) {
  uint32_t w[16];
  for (int i = 0; i < 16; ++i) {
    w[i] = (uint32_t(p[4 * i]) << 24) | (uint32_t(p[4 * i + 1]) << 16) | (uint32_t(p[4 * i + 2]) << 8) |
           uint32_t(p[4 * i + 3]);
  }
  uint32_t a = _h[0], b = _h[1], c = _h[2], d = _h[3], e = _h[4], f = _h[5], g = _h[6], h = _h[7];

#define HK_SHA_ROUND(a, b, c, d, e, f, g, h, i, wi)                                                  \
  do {                                                                                               \
    uint32_t t1 = h + (rotr(e, 6) ^ rotr(e, 11) ^ rotr(e, 25)) + ((e & f) ^ (~e & g)) + K[i] + (wi); \
    uint32_t t2 = (rotr(a, 2) ^ rotr(a, 13) ^ rotr(a, 22)) + ((a & b) ^ (a & c) ^ (b & c));          \
    d += t1;                                                                                         \
    h = t1 + t2;                                                                                     \
  } while (0)
#define HK_SHA_W(i)                                                                                 \
  (w[(i)&15] += (rotr(w[((i)-2) & 15], 17) ^ rotr(w[((i)-2) & 15], 19) ^ (w[((i)-2) & 15] >> 10)) + \
                w[((i)-7) & 15] +                                                                   \
                (rotr(w[((i)-15) & 15], 7) ^ rotr(w[((i)-15) & 15], 18) ^ (w[((i)-15) & 15] >> 3)))

  for (int i = 0; i < 16; i += 8) {
    HK_SHA_ROUND(a, b, c, d, e, f, g, h, i + 0, w[i + 0]);
    HK_SHA_ROUND(h, a, b, c, d, e, f, g, i + 1, w[i + 1]);
    HK_SHA_ROUND(g, h, a, b, c, d, e, f, i + 2, w[i + 2]);
    HK_SHA_ROUND(f, g, h, a, b, c, d, e, i + 3, w[i + 3]);
    HK_SHA_ROUND(e, f, g, h, a, b, c, d, i + 4, w[i + 4]);
    HK_SHA_ROUND(d, e, f, g, h, a, b, c, i + 5, w[i + 5]);
    HK_SHA_ROUND(c, d, e, f, g, h, a, b, i + 6, w[i + 6]);
    HK_SHA_ROUND(b, c, d, e, f, g, h, a, i + 7, w[i + 7]);
  }
  for (int i = 16; i < 64; i += 8) {
    HK_SHA_ROUND(a, b, c, d, e, f, g, h, i + 0, HK_SHA_W(i + 0));
    HK_SHA_ROUND(h, a, b, c, d, e, f, g, i + 1, HK_SHA_W(i + 1));
    HK_SHA_ROUND(g, h, a, b, c, d, e, f, i + 2, HK_SHA_W(i + 2));
    HK_SHA_ROUND(f, g, h, a, b, c, d, e, i + 3, HK_SHA_W(i + 3));
    HK_SHA_ROUND(e, f, g, h, a, b, c, d, i + 4, HK_SHA_W(i + 4));
    HK_SHA_ROUND(d, e, f, g, h, a, b, c, i + 5, HK_SHA_W(i + 5));
    HK_SHA_ROUND(c, d, e, f, g, h, a, b, i + 6, HK_SHA_W(i + 6));
    HK_SHA_ROUND(b, c, d, e, f, g, h, a, i + 7, HK_SHA_W(i + 7));
  }
#undef HK_SHA_ROUND
#undef HK_SHA_W

  _h[0] += a;
  _h[1] += b;
  _h[2] += c;
  _h[3] += d;
  _h[4] += e;
  _h[5] += f;
  _h[6] += g;
  _h[7] += h;
}

void Sha256::blocks(const uint8_t* p, size_t count) {
#ifdef HK_SHA_NI
  if (SHA_NI) {
    if (count) blocksShaNi(_h, p, count);
    return;
  }
#endif
  for (; count; --count, p += 64) block(p);
}

void Sha256::update(const void* data, size_t length) {
  const uint8_t* p = static_cast<const uint8_t*>(data);
  _total += length;
  if (_buffered) {
    size_t take = std::min(length, sizeof(_buffer) - _buffered);
    std::memcpy(_buffer + _buffered, p, take);
    _buffered += take;
    p += take;
    length -= take;
    if (_buffered < sizeof(_buffer)) return;
    blocks(_buffer, 1);
    _buffered = 0;
  }
  blocks(p, length / 64);
  p += length - length % 64;
  length %= 64;
  if (length) {
    std::memcpy(_buffer, p, length);
    _buffered = length;
  }
}

void Sha256::digest(uint8_t out[32]) {
  uint64_t bits = _total * 8;
  uint8_t pad[72] = {0x80};
  // Pad to 56 bytes mod 64, then the message length in bits, big-endian.
  size_t padLength = (_buffered < 56 ? 56 : 120) - _buffered;
  for (int i = 0; i < 8; ++i) pad[padLength + i] = static_cast<uint8_t>(bits >> (56 - 8 * i));
  update(pad, padLength + 8);
  for (int i = 0; i < 8; ++i) {
    out[4 * i] = static_cast<uint8_t>(_h[i] >> 24);
    out[4 * i + 1] = static_cast<uint8_t>(_h[i] >> 16);
    out[4 * i + 2] = static_cast<uint8_t>(_h[i] >> 8);
    out[4 * i + 3] = static_cast<uint8_t>(_h[i]);
  }
  reset();
}

void Sha256::appendHexDigest(std::string& out) {
  static constexpr char digits[] = "0123456789abcdef";
  uint8_t d[32];
  digest(d);
  char hex[64];
  for (int i = 0; i < 32; ++i) {
    hex[2 * i] = digits[d[i] >> 4];
    hex[2 * i + 1] = digits[d[i] & 15];
  }
  out.append(hex, sizeof hex);
}

}  // namespace hivekit::cli
