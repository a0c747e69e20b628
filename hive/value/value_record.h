// Value records (vk) read in place: the fields of one record, its name, the
// records that hold its data, and the data itself.
//
// ValueObj loads itself through these functions, and so does any walk that
// makes no object per value (the public API's handles): both judge a record
// and its data records exactly alike.
//
// Data lives in one of three forms, chosen by size and hive version:
// resident in the vk record (0-4 bytes), one data record, or a db list of
// 16344-byte fragments (above 16344 bytes in hives of minor version 4 and
// up; minor version 3 keeps up to 1048572 bytes in one record).
//
// Callers hold the hive's monitor.
#pragma once

#include <algorithm>
#include <string>
#include <vector>

#include "hive/registry_hive.h"

namespace Libraries::Files::Hive {

struct ValueRecord {
  u32 offset = INVALID_RECORD;
  u32 type = 0;
  u32 dataSize = 0;  // without the resident bit
  bool resident = false;
  bool v13 = false;  // the hive's minor version is 3 or less: no db lists
  u16 nameLength = 0;
  bool compressedName = false;
  u8 fixed[hive_record_vk::HEADER_SIZE] = {};  // the fixed part as stored

  u32 dataCell() const { return L32(fixed + hive_record_vk::OFS_DATA); }
  // The data lies in a db list.
  bool inDbForm() const { return !v13 && !resident && dataSize > hive_record_vk::V1_5_MAX_DATA_WITHOUT_DB; }
  // Bytes one data record can give.
  u32 extentCapacity() const {
    return v13 ? hive_record_vk::V1_3_MAX_DATA : hive_record_vk::V1_5_MAX_DATA_WITHOUT_DB;
  }
};

// The records holding a value's data: one data record, or the fragments of
// a db list with the db record and its fragment list.
struct ValueExtents {
  std::vector<u32> extents;
  u32 dbList = INVALID_RECORD;  // the fragment list record, in db form
};

// Loads the record at `offset` and checks that it can be a value: a vk
// record whose name lies inside its cell and whose resident data is at most
// 4 bytes. False with the reason logged (BAD_VALUE_RECORD for a malformed
// resident size).
bool readValueRecord(RegistryHiveObj& hive, u32 offset, ValueRecord& out);
// The checks and fields of readValueRecord on a record given by its bytes
// and the room it may take (see parseKeyRecord); `v13` is the hive's
// version rule. Logs nothing; the cell's state is not asked.
bool parseValueRecord(const u8* bytes, u32 room, u32 offset, bool v13, ValueRecord& out);
// The vk record at `offset` when readValueRecord accepts it and the store
// answers without its full path (RegistryHiveObj::residentRecord); null
// otherwise, nothing logged: readValueRecord then judges it and says why.
// A walk asks this of every value, and again for its data.
inline const hive_record* acceptedValueRecord(const RegistryHiveObj& hive, u32 offset) {
  using VK = hive_record_vk;
  const hive_record* hr = hive.residentNamedRecord<VK>(offset);
  if (!hr) return nullptr;
  const u32 sizeField = hr->u32At(VK::OFS_DATA_SIZE);
  if ((sizeField & VK::DATA_RESIDENT) != 0 && (sizeField & ~VK::DATA_RESIDENT) > 4) return nullptr;
  return hr;
}
// The data record named by a vk record acceptedValueRecord gave, or
// INVALID_RECORD when the data is resident.
inline u32 valueDataCell(const hive_record* vk) {
  using VK = hive_record_vk;
  const u32 sizeField = vk->u32At(VK::OFS_DATA_SIZE);
  const bool resident = (sizeField & VK::DATA_RESIDENT) != 0 || sizeField == 0;
  return resident ? INVALID_RECORD : vk->u32At(VK::OFS_DATA);
}
// The data of the vk record at `offset` (as acceptedValueRecord gave it)
// where locateValueData finds it in place, without its full path; false
// for data in fragments and for anything the full path must judge.
inline bool valueDataInPlace(const RegistryHiveObj& hive, u32 offset, const hive_record* vk, const u8*& data,
                             u32& size) {
  using VK = hive_record_vk;
  const u32 sizeField = vk->u32At(VK::OFS_DATA_SIZE);
  size = sizeField & ~VK::DATA_RESIDENT;
  if ((sizeField & VK::DATA_RESIDENT) != 0 || size == 0) {
    data = vk->bytes() + VK::OFS_DATA;
    return true;
  }
  if (hive.versionMinor() > 3 && size > VK::V1_5_MAX_DATA_WITHOUT_DB) return false;
  const u32 cell = vk->u32At(VK::OFS_DATA);
  const hive_record* hr = cell == offset ? nullptr : hive.residentRecord(cell);
  if (!hr || hr->length() < u64{size} + 4) return false;
  data = hr->bytes() + 4;
  return true;
}

// The stored name decoded (8-bit names through the hive's codepage, a byte
// it lacks standing for itself). False when such a byte was met.
bool readValueName(RegistryHiveObj& hive, const ValueRecord& value, std::u16string& out);
// Orders a sought name against the name stored in the vk record at `vk`,
// read in place and decoded as readValueName decodes it: `upcased` went
// through String::upcase unit by unit, and the result is that of
// String::compareIgnoreCase. False, without a result, when the record is
// no vk record in use holding its name.
bool compareValueName(RegistryHiveObj& hive, u32 vk, std::u16string_view upcased, int& order);
// Finds and checks the records holding the data of a value that is not
// resident: the data record is large enough, or the db record, its list
// and every fragment are sound and are records of their own. False with the
// reason logged and BAD_VALUE_RECORD set.
bool loadValueExtents(RegistryHiveObj& hive, const ValueRecord& value, ValueExtents& out);

// Where a value's data lies. inPlace: in one piece, in the vk record
// (resident) or in one data record; `data` points at it, valid as record
// pointers are (cacheLoadRecord). fragments: in a db list, to be read with
// loadValueExtents and readValueData. damaged: the data record is not
// sound (the reason logged, BAD_VALUE_RECORD set).
enum class ValueDataPlace { inPlace, fragments, damaged };
ValueDataPlace locateValueData(RegistryHiveObj& hive, const ValueRecord& value, const u8*& data);

// Walks the extents from `offset` for `count` bytes, handing each piece to
// `piece(extent, record, position in extent, bytes done, length)`, which
// returns false to stop. Every fragment of a db list but the last holds
// exactly 16344 bytes (checked by loadValueExtents), so the walk starts at
// the right fragment without loading the ones before it. Returns the bytes
// handed over.
template <class Piece>
u32 walkValueExtents(RegistryHiveObj& hive, const ValueRecord& value, const std::vector<u32>& extents,
                     u32 offset, u32 count, Piece piece) {
  constexpr u32 CHUNK = hive_record_vk::V1_5_MAX_DATA_WITHOUT_DB;
  const u32 limit = value.extentCapacity();
  size_t index = 0;
  u64 start = 0;  // offset in the data of the current extent's first byte
  if (extents.size() > 1) {
    index = std::min<size_t>(offset / CHUNK, extents.size() - 1);
    start = static_cast<u64>(index) * CHUNK;
  }
  u32 done = 0;
  for (; index < extents.size() && done < count; ++index) {
    const u32 extent = extents[index];
    const hive_record* hr = hive.cacheLoadRecord(extent);
    if (!hr) break;
    const u32 capacity = std::min(hr->length() - 4, limit);
    const u64 at = static_cast<u64>(offset) + done;
    if (start + capacity <= at) {
      start += capacity;
      continue;
    }
    const u32 position = static_cast<u32>(at - start);
    const u32 n = std::min(count - done, capacity - position);
    if (!piece(extent, hr, position, done, n)) break;
    done += n;
    start += capacity;
  }
  return done;
}

// Copies up to `size` bytes of the value's data from `offset` into
// `buffer`; `extents` are the value's (unused for resident data). Returns
// the bytes copied: fewer than asked only past the end of the data or when
// a data record cannot be loaded.
u32 readValueData(RegistryHiveObj& hive, const ValueRecord& value, const std::vector<u32>& extents,
                  u32 offset, void* buffer, u32 size);

}  // namespace Libraries::Files::Hive
