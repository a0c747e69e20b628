// Key records (nk) read in place: the fields of one record, the offsets its
// subkey and value lists name, its name and its class name.
//
// KeyObj loads itself through these functions, and so does any walk that
// makes no object per key (the public API's handles), so both judge a
// record exactly alike and log the same reasons when they refuse one.
// Every count and offset read here comes from the file: lists are sized by
// what their records can hold, never by a count taken on trust.
//
// Callers hold the hive's monitor.
#pragma once

#include <string>
#include <vector>

#include "hive/registry_hive.h"

namespace Libraries::Files::Hive {

// The kinds of subkey list: lf (name hints), lh (name hashes), li (offsets only).
enum KeyListType : u32 { keyListLI = 0, keyListLH = 1, keyListLF = 2 };

// The fixed part of an nk record that readers use.
struct KeyRecord {
  u32 offset = INVALID_RECORD;
  u16 flags = 0;
  u64 lastWriteTime = 0;
  u32 parent = 0;
  u32 numKeys = 0;
  u32 keyList = 0;  // 0 when the record holds none (0 or all ones)
  u32 numValues = 0;
  u32 valueList = 0;  // 0 when the record holds none
  u32 sk = 0;
  u32 classCell = INVALID_RECORD;
  u16 classLength = 0;  // bytes
  u16 nameLength = 0;   // bytes as stored
  bool compressedName() const { return (flags & hive_record_nk::FLAG_COMP_NAME) != 0; }
};

// One entry of a subkey list and one sublist of a two-level (ri) list.
struct SubkeyEntry {
  u32 hash;  // lf name hint or lh hash; 0 for li entries
  u32 offset;
};
struct SubkeySublist {
  u32 offset;
  u16 numOfkeys;
};

struct SubkeyList {
  std::vector<SubkeyEntry> entries;
  std::vector<SubkeySublist> sublists;
  KeyListType type = keyListLH;
  bool twoLevel = false;
  // Some entry carries hash 0 (an li entry, or one stored so).
  bool hashless = false;
};

// Loads the record at `offset` and checks that it can be a key: an nk
// record in use whose fixed part and name lie inside its cell. False with
// the reason logged (NOT_NK_RECORD set for a record of another kind).
// `record`, when given, receives the record in the store (valid as
// cacheLoadRecord's pointers are).
bool readKeyRecord(RegistryHiveObj& hive, u32 offset, KeyRecord& out, const hive_record** record = nullptr);
// The checks and fields of readKeyRecord on a record given by its bytes
// and the room it may take: its cell's length, or for a record met in free
// space the bytes up to the next live record. The record must carry "nk"
// and hold its fixed part and name within `room`; whether its cell is in
// use is not asked. Logs nothing: a scan of free space refuses many.
// Inline: a walk reads every key's fields two or three times.
inline bool parseKeyRecord(const u8* bytes, u32 room, u32 offset, KeyRecord& out) {
  using N = hive_record_nk;
  if (room < N::HEADER_SIZE || B16(bytes + 4) != N::SIGNATURE) return false;
  const u32 nameLength = L16(bytes + N::OFS_NAME_LENGTH);
  if (nameLength + N::HEADER_SIZE > room) return false;
  out.offset = offset;
  out.flags = L16(bytes + N::OFS_FLAGS);
  out.lastWriteTime = L64(bytes + N::OFS_LAST_WRITE);
  out.parent = L32(bytes + N::OFS_PARENT);
  out.numKeys = L32(bytes + N::OFS_NUM_KEYS);
  out.keyList = L32(bytes + N::OFS_KEY_LIST);
  if (out.keyList == INVALID_RECORD) out.keyList = 0;
  out.numValues = L32(bytes + N::OFS_NUM_VALUES);
  out.valueList = L32(bytes + N::OFS_VALUE_LIST);
  if (out.valueList == INVALID_RECORD) out.valueList = 0;
  out.sk = L32(bytes + N::OFS_SK);
  out.classCell = L32(bytes + N::OFS_CLASS);
  out.classLength = L16(bytes + N::OFS_CLASS_LENGTH);
  out.nameLength = static_cast<u16>(nameLength);
  return true;
}

// The nk record at `offset` when readKeyRecord accepts it and the store
// answers without its full path (RegistryHiveObj::residentRecord); null
// otherwise, nothing logged: readKeyRecord then judges it and says why.
inline const hive_record* acceptedKeyRecord(const RegistryHiveObj& hive, u32 offset) {
  return hive.residentNamedRecord<hive_record_nk>(offset);
}
// The key's stored name decoded (8-bit names through the hive's codepage).
// False, with the Latin-1 reading in `out`, when a byte has no character in
// the codepage; false and empty when the record cannot be loaded.
bool readKeyName(RegistryHiveObj& hive, const KeyRecord& key, std::u16string& out);
// Orders a sought name against the name stored in the nk record at `nk`,
// read in place: `upcased` went through String::upcase unit by unit, and
// the result is that of String::compareIgnoreCase. False, without a
// result, when the record cannot be read that simply (damaged, an empty
// name, a byte the codepage lacks): such a subkey is judged by opening it.
// `prefix`, when given, receives the stored name's first eight units (or
// fewer), upper-cased as compared.
bool compareKeyName(RegistryHiveObj& hive, u32 nk, std::u16string_view upcased, int& order,
                    std::u16string* prefix = nullptr);
// The class name (UTF-16LE in a record of its own); empty when the key has
// none. False when the class record cannot be read or is too small for
// the length the key gives.
bool readKeyClass(RegistryHiveObj& hive, const KeyRecord& key, std::u16string& out);

// The subkey list of `key`, both levels. The list type defaults to the
// hive version's (lf for 1.3 and below, else lh). False with the reason
// logged when a record of the list is damaged or the entries found differ
// from the key's count; `out` is then empty.
bool loadSubkeyList(RegistryHiveObj& hive, const KeyRecord& key, SubkeyList& out);
// A subkey list held in one lf, lh or li record, read in place: entry i's
// nk offset is the little-endian u32 at items + i * stride.
struct SubkeyListView {
  const u8* items = nullptr;
  u32 stride = 0;
  u32 count = 0;
};
// The key's subkey list in place when it is one lf, lh or li record that
// loadSubkeyList accepts (or the key has none). False, with nothing
// logged, for any other list: loadSubkeyList then reads and judges it.
bool viewSubkeyList(RegistryHiveObj& hive, const KeyRecord& key, SubkeyListView& out);
// The key's value list record when it holds the key's count of entries
// (from offset 4 on); null when the key has no values, and null with the
// reason logged (VALUE_LIST_TOO_SMALL set) and `failed` true when it is
// missing or too small.
const hive_record* valueListRecord(RegistryHiveObj& hive, const KeyRecord& key, bool& failed);
// The vk offsets of the key's value list, in list order. False with the
// reason logged (VALUE_LIST_TOO_SMALL set) when the list record is missing
// or too small for the key's count.
bool loadValueList(RegistryHiveObj& hive, const KeyRecord& key, std::vector<u32>& out);

}  // namespace Libraries::Files::Hive
