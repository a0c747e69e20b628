#include "hive/value/value_record.h"

#include <cstring>

#include "platform/check.h"
#include "platform/error.h"

namespace Libraries::Files::Hive {

namespace {

using VK = hive_record_vk;
using DB = hive_record_db;

constexpr u32 CHUNK = VK::V1_5_MAX_DATA_WITHOUT_DB;  // data bytes per fragment

bool badRecord() {
  Error::set(Errors::BAD_VALUE_RECORD);
  return false;
}

// A db list: the db record at `dataCell`, its fragment list and fragments.
bool loadDbExtents(RegistryHiveObj& hive, const ValueRecord& value, const hive_record* hr,
                   ValueExtents& out) {
  const u32 dataCell = value.dataCell();
  if (hr->length() < DB::SIZE) {
    HK_LOG(hiveLog, 4) << "Size too small for db record: " << hr->length();
    return badRecord();
  }
  if (hr->signature() != DB::SIGNATURE) {
    HK_LOG(hiveLog, 4) << "Invalid record type: Expected db, is: " << Log::hex(hr->signature());
    return badRecord();
  }
  const u32 count = hr->u16At(DB::OFS_COUNT);
  const u32 listCell = hr->u32At(DB::OFS_LIST);
  if (static_cast<u64>(count) * CHUNK < value.dataSize) {
    HK_LOG(hiveLog, 4) << "Size of all fragments smaller than length of data"
                       << " num of fragments: " << count << " length of data: " << value.dataSize
                       << " data_cell: " << Log::hex(dataCell);
    return badRecord();
  }
  const hive_record* list = hive.cacheLoadRecord(listCell);
  if (!list) {
    HK_LOG(hiveLog, 4) << "Failed to load fragment list: " << Log::hex(listCell);
    return badRecord();
  }
  if (list->length() < 4 * count + 4) {
    HK_LOG(hiveLog, 4) << "Size of fragment list is smaller than size of expected entries"
                       << " minimum expected size: " << 4 * count + 4 << " size of list: " << list->length()
                       << " data_cell: " << Log::hex(dataCell) << " fragment_list: " << Log::hex(listCell);
    return badRecord();
  }
  // The entries, copied out to be checked as a set.
  std::vector<u32> fragments(count);
  for (u32 i = 0; i < count; ++i) fragments[i] = list->u32At(4 + 4 * i);

  // A fragment must be a record of its own: writing or freeing one that is
  // also the vk, db or list record (or another fragment) would damage them.
  std::vector<u32> sorted(fragments);
  sorted.push_back(value.offset);
  sorted.push_back(dataCell);
  sorted.push_back(listCell);
  std::sort(sorted.begin(), sorted.end());
  if (std::adjacent_find(sorted.begin(), sorted.end()) != sorted.end()) {
    HK_LOG(hiveLog, 4) << "Fragment list shares records with its value: " << Log::hex(value.offset)
                       << " fragment_list: " << Log::hex(listCell);
    return badRecord();
  }

  out.extents.reserve(count);
  for (u32 i = 0; i < count; ++i) {
    const hive_record* fragment = hive.cacheLoadRecord(fragments[i]);
    if (!fragment) {
      HK_LOG(hiveLog, 4) << "Failed to load fragment: " << Log::hex(fragments[i]);
      out.extents.clear();
      return badRecord();
    }
    if (i + 1 < count && fragment->length() != VK::FRAGMENT_CELL) {
      HK_LOG(hiveLog, 4) << "Invalid size for non-last fragment: " << fragment->length()
                         << " value: " << Log::hex(value.offset) << " extent: " << Log::hex(fragments[i]);
      out.extents.clear();
      return badRecord();
    }
    out.extents.push_back(fragments[i]);
  }
  out.dbList = listCell;
  return true;
}

}  // namespace

bool readValueRecord(RegistryHiveObj& hive, u32 offset, ValueRecord& out) {
  const hive_record* hr = hive.cacheLoadRecord(offset);
  if (!hr) {
    HK_LOG(hiveLog, 4) << "Failed to get hive record for value:" << Log::hex(offset);
    return false;
  }
  if (hr->signature() != VK::SIGNATURE) {
    HK_LOG(hiveLog, 4) << "Value record is no vk record:" << Log::hex(hr->signature());
    return false;
  }
  HK_CHECK(hiveLog, hr->used());
  if (hr->u16At(VK::OFS_NAME_LENGTH) + VK::HEADER_SIZE > hr->length()) {
    HK_LOG(hiveLog, 4) << "Name of value exceeds length of record";
    return false;
  }
  if (!parseValueRecord(hr->bytes(), hr->length(), offset, hive.versionMinor() <= 3, out)) {
    HK_LOG(hiveLog, 4) << "Invalid length of data! Data is resident, size is:"
                       << (hr->u32At(VK::OFS_DATA_SIZE) & ~VK::DATA_RESIDENT);
    Error::set(Errors::BAD_VALUE_RECORD);
    return false;
  }
  return true;
}

bool parseValueRecord(const u8* bytes, u32 room, u32 offset, bool v13, ValueRecord& out) {
  if (room < VK::HEADER_SIZE || B16(bytes + 4) != VK::SIGNATURE) return false;
  const u32 nameLength = L16(bytes + VK::OFS_NAME_LENGTH);
  if (nameLength + VK::HEADER_SIZE > room) return false;
  const u32 sizeField = L32(bytes + VK::OFS_DATA_SIZE);
  const bool resident = (sizeField & VK::DATA_RESIDENT) != 0 || (sizeField & ~VK::DATA_RESIDENT) == 0;
  if (resident && (sizeField & ~VK::DATA_RESIDENT) > 4) return false;
  out.offset = offset;
  out.v13 = v13;
  out.nameLength = static_cast<u16>(nameLength);
  out.compressedName = (L16(bytes + VK::OFS_FLAGS) & VK::FLAG_COMP_NAME) != 0;
  out.type = L32(bytes + VK::OFS_TYPE);
  out.resident = resident;
  out.dataSize = sizeField & ~VK::DATA_RESIDENT;
  std::memcpy(out.fixed, bytes, VK::HEADER_SIZE);
  return true;
}

bool readValueName(RegistryHiveObj& hive, const ValueRecord& value, std::u16string& out) {
  out.clear();
  const hive_record* hr = hive.cacheLoadRecord(value.offset);
  if (!hr || hr->length() < VK::HEADER_SIZE + value.nameLength) return false;
  return decodeRecordName(hive.codepage(), hr->bytes() + VK::OFS_NAME, value.nameLength, value.compressedName,
                          out);
}

bool compareValueName(RegistryHiveObj& hive, u32 vk, std::u16string_view upcased, int& order) {
  const hive_record* rec = hive.cacheLoadRecord(vk);
  if (!rec || rec->signature() != VK::SIGNATURE || !rec->used()) return false;
  const u32 nameLength = rec->u16At(VK::OFS_NAME_LENGTH);
  if (nameLength + VK::HEADER_SIZE > rec->length()) return false;
  const u8* name = rec->bytes() + VK::OFS_NAME;
  if ((rec->u16At(VK::OFS_FLAGS) & VK::FLAG_COMP_NAME) == 0) {
    order = String::compareUpcased(upcased, nameLength / 2,
                                   [&](size_t i) { return static_cast<char16_t>(L16(name + 2 * i)); });
    return true;
  }
  const HiveCodepage codepage = hive.codepage();
  order = String::compareUpcased(upcased, nameLength, [&](size_t i) {
    char16_t c;
    return codepageToChar(codepage, name[i], c) ? c : static_cast<char16_t>(name[i]);
  });
  return true;
}

namespace {

// The record named as the data of a value that is not resident; null
// with the reason logged and BAD_VALUE_RECORD set.
const hive_record* loadDataCell(RegistryHiveObj& hive, const ValueRecord& value) {
  const u32 dataCell = value.dataCell();
  if (dataCell == value.offset) {
    HK_LOG(hiveLog, 4) << "Data record of value is its vk record: " << Log::hex(dataCell);
    badRecord();
    return nullptr;
  }
  const hive_record* hr = hive.cacheLoadRecord(dataCell);
  if (!hr) {
    HK_LOG(hiveLog, 4) << "Failed to load data record of value: " << Log::hex(value.offset)
                       << " data_cell: " << Log::hex(dataCell);
    badRecord();
  }
  return hr;
}

// A data record holding all of the data (a value not in db form).
bool singleRecordHolds(const hive_record* hr, const ValueRecord& value) {
  if (static_cast<u64>(hr->length()) >= static_cast<u64>(value.dataSize) + 4) return true;
  HK_LOG(hiveLog, 4) << "Size of data element is smaller than size value in vk record"
                     << " size in vk: " << value.dataSize << " size of data element: " << hr->length()
                     << " data_cell: " << Log::hex(value.dataCell());
  return badRecord();
}

}  // namespace

bool loadValueExtents(RegistryHiveObj& hive, const ValueRecord& value, ValueExtents& out) {
  out = ValueExtents{};
  HK_ASSERT(hiveLog, !value.resident, false);
  const hive_record* hr = loadDataCell(hive, value);
  if (!hr) return false;
  if (value.inDbForm()) return loadDbExtents(hive, value, hr, out);
  if (!singleRecordHolds(hr, value)) return false;
  out.extents.push_back(value.dataCell());
  return true;
}

ValueDataPlace locateValueData(RegistryHiveObj& hive, const ValueRecord& value, const u8*& data) {
  data = nullptr;
  if (value.inDbForm()) return ValueDataPlace::fragments;
  const hive_record* hr = value.resident ? hive.cacheLoadRecord(value.offset) : loadDataCell(hive, value);
  if (!hr) return ValueDataPlace::damaged;
  if (value.resident) {
    data = hr->bytes() + VK::OFS_DATA;
    return ValueDataPlace::inPlace;
  }
  if (!singleRecordHolds(hr, value)) return ValueDataPlace::damaged;
  data = hr->bytes() + 4;
  return ValueDataPlace::inPlace;
}

u32 readValueData(RegistryHiveObj& hive, const ValueRecord& value, const std::vector<u32>& extents,
                  u32 offset, void* buffer, u32 size) {
  if (offset >= value.dataSize) return 0;
  const u32 count = std::min(size, value.dataSize - offset);
  u8* out = static_cast<u8*>(buffer);
  if (value.resident) {
    std::memcpy(out, value.fixed + VK::OFS_DATA + offset, count);
    return count;
  }
  return walkValueExtents(hive, value, extents, offset, count,
                          [&](u32, const hive_record* hr, u32 position, u32 done, u32 n) {
                            std::memcpy(out + done, hr->bytes() + 4 + position, n);
                            return true;
                          });
}

}  // namespace Libraries::Files::Hive
