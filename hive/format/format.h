// On-disk layouts of a registry hive.
//
// A hive file is a 4096-byte base block followed by hive bins. Record
// offsets count from the first hive bin (file offset - 4096). Every record
// starts with a signed 32-bit size (negative = in use) and its length is a
// multiple of 8. Field offsets below count from the start of the record,
// size field included, so a two-character signature stands at offset 4.
//
// Fields are read and written only through platform/endian.h helpers.
#pragma once

#include <string>

#include "platform/endian.h"
#include "platform/types.h"

namespace Libraries::Files::Hive {
using namespace Platform;

constexpr u32 INVALID_RECORD = 0xffffffffu;

// Base block (hive_header), 4096 bytes; the first 512 are checksummed.
//   0x000 "regf"            0x004 primary seq     0x008 secondary seq
//   0x00C timestamp (8)     0x014 major           0x018 minor
//   0x01C file type         0x020 file format     0x024 root key offset
//   0x028 hbins data size   0x02C clustering      0x030 file name (64)
//   0x1FC checksum = XOR of the 127 words before it
struct hive_header {
  static constexpr u32 SIZE = 4096;
  static constexpr u32 BASE_SIZE = 512;
  static constexpr u32 SIGNATURE = sig4('r', 'e', 'g', 'f');
  static constexpr u32 OFS_SIGNATURE = 0x000;
  static constexpr u32 OFS_PRIMARY_SEQ = 0x004;
  static constexpr u32 OFS_SECONDARY_SEQ = 0x008;
  static constexpr u32 OFS_TIMESTAMP = 0x00C;
  static constexpr u32 OFS_MAJOR = 0x014;
  static constexpr u32 OFS_MINOR = 0x018;
  static constexpr u32 OFS_TYPE = 0x01C;
  static constexpr u32 OFS_FORMAT = 0x020;
  static constexpr u32 OFS_ROOT = 0x024;
  static constexpr u32 OFS_LENGTH = 0x028;
  static constexpr u32 OFS_CLUSTER = 0x02C;
  static constexpr u32 OFS_FILENAME = 0x030;
  static constexpr u32 FILENAME_UNITS = 32;
  static constexpr u32 OFS_CHECKSUM = 0x1FC;
};

// XOR of the first 127 little-endian words of a base block.
inline u32 calculateHeaderChecksum(const u8* block) {
  u32 x = 0;
  for (u32 i = 0; i < 127; ++i) x ^= L32(block + 4 * i);
  return x;
}

// The base block's file name field: all 32 units up to the first zero.
inline std::u16string baseBlockFileName(const u8* block) {
  std::u16string name;
  for (u32 i = 0; i < hive_header::FILENAME_UNITS; ++i) {
    const char16_t c = L16(block + hive_header::OFS_FILENAME + 2 * i);
    if (c == 0) break;
    name.push_back(c);
  }
  return name;
}

// Hive bin header (hive_hbin), 32 bytes.
//   0x00 "hbin"  0x04 offset of this hbin  0x08 size  0x0C 16 reserved
//   0x1C "last hbin offset pointer"
struct hive_hbin {
  static constexpr u32 SIZE = 32;
  static constexpr u32 SIGNATURE = sig4('h', 'b', 'i', 'n');
  static constexpr u32 OFS_OFFSET = 0x04;
  static constexpr u32 OFS_SIZE = 0x08;
  static constexpr u32 OFS_LAST = 0x1C;
  static constexpr u32 RECORD_ALIGNMENT = 8;
  static constexpr u32 PAGE = 4096;
};

// A request of n bytes becomes a record of n rounded up to a multiple of 8.
inline u32 roundRecordSize(u32 n) {
  return ((n - 1) & ~7u) + 8;
}

// A record in the record store. The type is opaque: it only gives typed
// access to the bytes it starts, so pointers into the store read as records.
struct hive_record {
  const u8* bytes() const { return reinterpret_cast<const u8*>(this); }
  s32 size() const { return LS32(bytes()); }
  // Length of the record whatever its state (used or free).
  u32 length() const {
    s32 s = size();
    return s < 0 ? static_cast<u32>(-static_cast<s64>(s)) : static_cast<u32>(s);
  }
  bool used() const { return size() < 0; }
  u16 signature() const { return B16(bytes() + 4); }
  u16 u16At(u32 ofs) const { return L16(bytes() + ofs); }
  u32 u32At(u32 ofs) const { return L32(bytes() + ofs); }
  u64 u64At(u32 ofs) const { return L64(bytes() + ofs); }
};

// Key record (nk). Name starts at 80.
struct hive_record_nk {
  static constexpr u16 SIGNATURE = sig2('n', 'k');
  static constexpr u32 OFS_FLAGS = 6;
  static constexpr u32 OFS_LAST_WRITE = 8;
  static constexpr u32 OFS_ACCESS = 16;
  static constexpr u32 OFS_PARENT = 20;
  static constexpr u32 OFS_NUM_KEYS = 24;
  static constexpr u32 OFS_NUM_VOLATILE_KEYS = 28;
  static constexpr u32 OFS_KEY_LIST = 32;
  static constexpr u32 OFS_VOLATILE_KEY_LIST = 36;
  static constexpr u32 OFS_NUM_VALUES = 40;
  static constexpr u32 OFS_VALUE_LIST = 44;
  static constexpr u32 OFS_SK = 48;
  static constexpr u32 OFS_CLASS = 52;
  static constexpr u32 OFS_MAX_NAME = 56;
  static constexpr u32 OFS_MAX_CLASS = 60;
  static constexpr u32 OFS_MAX_VALUE_NAME = 64;
  static constexpr u32 OFS_MAX_VALUE_DATA = 68;
  static constexpr u32 OFS_WORK = 72;
  static constexpr u32 OFS_NAME_LENGTH = 76;
  static constexpr u32 OFS_CLASS_LENGTH = 78;
  static constexpr u32 OFS_NAME = 80;
  static constexpr u32 HEADER_SIZE = 80;
  static constexpr u16 FLAG_ROOT = 0x0004;
  static constexpr u16 FLAG_NO_DELETE = 0x0008;
  static constexpr u16 FLAG_COMP_NAME = 0x0020;
};

// Subkey lists: lf/lh hold (nk offset, hash) pairs, li/ri plain offsets.
struct hive_record_list {
  static constexpr u16 SIGNATURE_LF = sig2('l', 'f');
  static constexpr u16 SIGNATURE_LH = sig2('l', 'h');
  static constexpr u16 SIGNATURE_LI = sig2('l', 'i');
  static constexpr u16 SIGNATURE_RI = sig2('r', 'i');
  static constexpr u32 OFS_COUNT = 6;
  static constexpr u32 OFS_ITEMS = 8;
};

// Value record (vk). Name starts at 24.
struct hive_record_vk {
  static constexpr u16 SIGNATURE = sig2('v', 'k');
  static constexpr u32 OFS_NAME_LENGTH = 6;
  static constexpr u32 OFS_DATA_SIZE = 8;
  static constexpr u32 OFS_DATA = 12;
  static constexpr u32 OFS_TYPE = 16;
  static constexpr u32 OFS_FLAGS = 20;
  static constexpr u32 OFS_SPARE = 22;
  static constexpr u32 OFS_NAME = 24;
  static constexpr u32 HEADER_SIZE = 24;
  static constexpr u32 DATA_RESIDENT = 0x80000000u;
  static constexpr u16 FLAG_COMP_NAME = 0x0001;
  static constexpr u32 V1_5_MAX_DATA_WITHOUT_DB = 16344;
  static constexpr u32 V1_3_MAX_DATA = 1048572;
  // Cell length of every fragment but the last: 16344 + 4 rounded to 8.
  static constexpr u32 FRAGMENT_CELL = 16352;
};

// Big-data record (db), 12 bytes: count of fragments, fragment list offset.
struct hive_record_db {
  static constexpr u16 SIGNATURE = sig2('d', 'b');
  static constexpr u32 OFS_COUNT = 6;
  static constexpr u32 OFS_LIST = 8;
  static constexpr u32 SIZE = 12;
};

// Security record (sk).
struct hive_record_sk {
  static constexpr u16 SIGNATURE = sig2('s', 'k');
  static constexpr u32 OFS_FLINK = 8;
  static constexpr u32 OFS_BLINK = 12;
  static constexpr u32 OFS_REFCOUNT = 16;
  static constexpr u32 OFS_LENGTH = 20;
  static constexpr u32 OFS_DESCRIPTOR = 24;
};

// Log entry header of new-format logs ("HvLE"), 40 bytes.
struct hive_log_entry {
  static constexpr u32 SIGNATURE = sig4('H', 'v', 'L', 'E');
  static constexpr u32 OFS_SIZE = 0x04;
  static constexpr u32 OFS_FLAGS = 0x08;
  static constexpr u32 OFS_SEQ = 0x0C;
  static constexpr u32 OFS_LENGTH = 0x10;
  static constexpr u32 OFS_COUNT = 0x14;
  static constexpr u32 OFS_HASH1 = 0x18;
  static constexpr u32 OFS_HASH2 = 0x20;
  static constexpr u32 SIZE = 0x28;
};

// Dirty vector of old-format logs ("DIRT") at offset 512.
struct hive_log_dirt {
  static constexpr u32 SIGNATURE = sig4('D', 'I', 'R', 'T');
};

}  // namespace Libraries::Files::Hive
