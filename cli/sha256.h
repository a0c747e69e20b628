// SHA-256 (FIPS 180-4), enough for the listing's digests of value data.
//
//   Sha256 h;
//   h.update(bytes, n);
//   std::string hex = h.hexDigest();  // 64 lowercase hex digits
//
// After a digest the object starts over, so one object can hash many
// inputs in turn without reallocating.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace hivekit::cli {

class Sha256 {
 public:
  Sha256() { reset(); }
  void reset();
  void update(const void* data, size_t length);
  // Finishes the current input into 32 bytes and resets.
  void digest(uint8_t out[32]);
  // The same as 64 lowercase hexadecimal digits appended to `out`.
  void appendHexDigest(std::string& out);
  std::string hexDigest() {
    std::string s;
    appendHexDigest(s);
    return s;
  }

 private:
  void block(const uint8_t* p);
  // `count` blocks in a row, with the processor's SHA instructions when it
  // has them.
  void blocks(const uint8_t* p, size_t count);

  uint32_t _h[8];
  uint8_t _buffer[64];
  size_t _buffered;
  uint64_t _total;
};

}  // namespace hivekit::cli
