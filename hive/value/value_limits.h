// The most bytes of data one value can hold, by the hive's format version:
// what an import or a set must refuse before it changes anything.
#pragma once

#include "hive/format/format.h"

namespace Libraries::Files::Hive {

// A db record counts its fragments in 16 bits.
constexpr u64 MAX_DB_FRAGMENTS = 65535;

// One data record in hives of minor version 3 and below (no db lists);
// a db list of whole fragments above.
constexpr u64 maxValueDataSize(u32 minorVersion) {
  return minorVersion <= 3 ? hive_record_vk::V1_3_MAX_DATA
                           : MAX_DB_FRAGMENTS * hive_record_vk::V1_5_MAX_DATA_WITHOUT_DB;
}

}  // namespace Libraries::Files::Hive
