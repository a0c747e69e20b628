#include "hive/key/key_record.h"

#include <algorithm>

#include "platform/check.h"
#include "platform/error.h"

namespace Libraries::Files::Hive {

namespace {

using N = hive_record_nk;
using L = hive_record_list;

// Entries of `width` bytes that fit in the record: a list is sized by what
// its record can hold, never by a count taken on trust (a tiny record
// claiming 65535 entries, met once per key, must not cost 512 KiB each).
u32 entryRoom(const hive_record* record, u32 width) {
  return record->length() > L::OFS_ITEMS ? (record->length() - L::OFS_ITEMS) / width : 0;
}

// The two signature bytes, printable or not, for messages.
std::string signatureText(u16 signature) {
  std::string s;
  s += static_cast<char>(signature >> 8);
  s += static_cast<char>(signature & 0xff);
  return s;
}

bool isV13(const RegistryHiveObj& hive) {
  return hive.versionMajor() == 1 && hive.versionMinor() < 4;
}

// Reads the entries of one lf, lh or li record into out.entries from
// `position` on. `width` is 8 for lf/lh, 4 for li. Returns the entries
// read, 0 when the record is not of that kind or its count does not fit.
u32 loadList(const hive_record* record, u32 recordOffset, u32 position, u16 signature, u32 width,
             const char* letters, u32 numKeys, SubkeyList& out) {
  if (!record || record->signature() != signature) return 0;
  HK_ASSERT(hiveLog, record->used(), 0);
  const u32 recordSize = record->length();
  const u32 count = record->u16At(L::OFS_COUNT);
  if (static_cast<u64>(count) * width + L::OFS_ITEMS > recordSize) {
    HK_LOG(hiveLog, 4) << "Size of items of " << letters << " list exceeds size of record"
                       << ", record = " << recordOffset << ", recsize = " << recordSize
                       << ", num of items = " << count;
    Error::set(Errors::BAD_KEY_LIST);
    return 0;
  }
  if (static_cast<u64>(position) + count > numKeys || position + count > out.entries.size()) {
    HK_LOG(hiveLog, 4) << "More items in " << letters << " list than expected"
                       << ", record = " << recordOffset << ", num of items = " << count
                       << ", offset = " << position << ", _numOfKeys = " << numKeys;
    Error::set(Errors::BAD_KEY_LIST);
    return 0;
  }
  const u8* items = record->bytes() + L::OFS_ITEMS;
  for (u32 i = 0; i < count; ++i) {
    SubkeyEntry& e = out.entries[position + i];
    e.offset = L32(items + i * width);
    e.hash = width == 8 ? L32(items + i * width + 4) : 0;
    if (e.hash == 0) out.hashless = true;
  }
  return count;
}

u32 loadAnyList(const hive_record* record, u32 recordOffset, u32 position, u32 numKeys, SubkeyList& out) {
  switch (record->signature()) {
    case L::SIGNATURE_LF:
      return loadList(record, recordOffset, position, L::SIGNATURE_LF, 8, "lf", numKeys, out);
    case L::SIGNATURE_LH:
      return loadList(record, recordOffset, position, L::SIGNATURE_LH, 8, "lh", numKeys, out);
    default:
      return loadList(record, recordOffset, position, L::SIGNATURE_LI, 4, "li", numKeys, out);
  }
}

// One-level list: a single lf, lh or li record.
bool loadFlatList(RegistryHiveObj& hive, const KeyRecord& key, const hive_record* rec, SubkeyList& out) {
  const u16 signature = rec->signature();
  const char* failure = signature == L::SIGNATURE_LF   ? "Failed to load lf key list, list:"
                        : signature == L::SIGNATURE_LH ? "Failed to load lh key list, list:"
                                                       : "Failed to load li (top level) key list: ";
  if (key.numKeys > 0xffff) {
    HK_LOG(hiveLog, 4) << failure << key.keyList;
    return false;
  }
  out.entries.resize(std::min(key.numKeys, entryRoom(rec, signature == L::SIGNATURE_LI ? 4 : 8)));
  const u32 count = rec->u16At(L::OFS_COUNT);
  const u32 read = loadAnyList(rec, key.keyList, 0, key.numKeys, out);
  if (read != count || read != key.numKeys) {
    HK_LOG(hiveLog, 4) << failure << key.keyList;
    return false;
  }
  out.sublists.push_back(SubkeySublist{key.keyList, static_cast<u16>(read)});
  out.type = signature == L::SIGNATURE_LF ? keyListLF : signature == L::SIGNATURE_LH ? keyListLH : keyListLI;
  (void)hive;
  return true;
}

// Two-level list: an ri record naming lh or li sublists.
bool loadRiList(RegistryHiveObj& hive, const KeyRecord& key, const hive_record* rec, SubkeyList& out) {
  const u32 count = rec->u16At(L::OFS_COUNT);
  if (static_cast<u64>(count) * 4 + L::OFS_ITEMS > rec->length()) {
    HK_LOG(hiveLog, 4) << "Size of items of ri list exceeds size of record"
                       << ", record = " << key.keyList << ", recsize = " << rec->length()
                       << ", num of items = " << count;
    return false;
  }
  // An ri may name the same sublist many times; every distinct key needs
  // an nk record of its own, which bounds what a sane count can be.
  if (static_cast<u64>(key.numKeys) * N::HEADER_SIZE > hive.hiveLength()) {
    HK_LOG(hiveLog, 4) << "Wrong number of items in sublists of ri list"
                       << ", key: " << key.offset << ", _numOfKeys = " << key.numKeys;
    return false;
  }
  std::vector<u32> sublists(count);
  for (u32 i = 0; i < count; ++i) sublists[i] = rec->u32At(L::OFS_ITEMS + 4 * i);
  // The offsets are copied out so that the checks below need not hold `rec`.
  // A sublist named twice would be changed through one entry behind the
  // other's back.
  std::vector<u32> sorted = sublists;
  std::sort(sorted.begin(), sorted.end());
  const auto twice = std::adjacent_find(sorted.begin(), sorted.end());
  if (twice != sorted.end()) {
    HK_LOG(hiveLog, 4) << "Failed to load sub list of ri list: " << *twice << ", named twice";
    return false;
  }

  u32 position = 0;
  bool anyLh = false, anyLi = false;
  for (u32 sub : sublists) {
    const hive_record* sr = hive.cacheLoadRecord(sub);
    if (!sr) {
      HK_LOG(hiveLog, 4) << "Failed to load sub list of ri list: " << sub;
      return false;
    }
    const u16 subSignature = sr->signature();
    if (subSignature != L::SIGNATURE_LH && subSignature != L::SIGNATURE_LI) {
      HK_LOG(hiveLog, 4) << "Invalid list type for key sub list: " << signatureText(subSignature);
      return false;
    }
    const u32 subCount = sr->u16At(L::OFS_COUNT);
    out.entries.resize(
        std::min<u64>(key.numKeys, u64{position} + entryRoom(sr, subSignature == L::SIGNATURE_LH ? 8 : 4)));
    const u32 read = loadAnyList(sr, sub, position, key.numKeys, out);
    if (read != subCount) {
      HK_LOG(hiveLog, 4) << "Failed to load sub list of ri list: " << sub;
      return false;
    }
    (subSignature == L::SIGNATURE_LH ? anyLh : anyLi) = true;
    out.sublists.push_back(SubkeySublist{sub, static_cast<u16>(read)});
    position += read;
  }
  if (position != key.numKeys) {
    HK_LOG(hiveLog, 4) << "Wrong number of items in sublists of ri list"
                       << ", key: " << key.offset;
    return false;
  }
  out.twoLevel = true;
  // Sublists of one kind give the list's type; a mix (or none) takes the
  // version's own.
  if (anyLh != anyLi)
    out.type = anyLh ? keyListLH : keyListLI;
  else
    out.type = isV13(hive) ? keyListLI : keyListLH;
  return true;
}

}  // namespace

bool readKeyRecord(RegistryHiveObj& hive, u32 offset, KeyRecord& out, const hive_record** record) {
  const hive_record* hr = hive.cacheLoadRecord(offset);
  if (!hr) {
    HK_LOG(hiveLog, 4) << "Failed to get hive record for key:" << offset;
    return false;
  }
  if (hr->signature() != N::SIGNATURE) {
    HK_LOG(hiveLog, 4) << "Key record is no nk record: " << offset;
    Error::set(Errors::NOT_NK_RECORD);
    return false;
  }
  HK_ASSERT(hiveLog, hr->used(), false);
  if (!parseKeyRecord(hr->bytes(), hr->length(), offset, out)) {
    HK_LOG(hiveLog, 4) << "Name of key exceeds length of record";
    return false;
  }
  if (record) *record = hr;
  return true;
}

bool readKeyName(RegistryHiveObj& hive, const KeyRecord& key, std::u16string& out) {
  out.clear();
  const hive_record* hr = hive.cacheLoadRecord(key.offset);
  if (!hr || hr->length() < N::HEADER_SIZE + key.nameLength) return false;
  return decodeRecordName(hive.codepage(), hr->bytes() + N::OFS_NAME, key.nameLength, key.compressedName(),
                          out);
}

bool compareKeyName(RegistryHiveObj& hive, u32 nk, std::u16string_view upcased, int& order,
                    std::u16string* prefix) {
  // The checks of readKeyRecord, without its messages: a record failing
  // them is left to the caller's way of opening a key, which reports it.
  const hive_record* rec = hive.cacheLoadRecord(nk);
  if (!rec || rec->signature() != N::SIGNATURE || !rec->used() || rec->length() < N::HEADER_SIZE)
    return false;
  const u32 nameLength = rec->u16At(N::OFS_NAME_LENGTH);
  if (nameLength + N::HEADER_SIZE > rec->length()) return false;
  const u8* name = rec->bytes() + N::OFS_NAME;
  if ((rec->u16At(N::OFS_FLAGS) & N::FLAG_COMP_NAME) == 0) {
    if (nameLength / 2 == 0) return false;
    auto unitAt = [&](size_t i) { return static_cast<char16_t>(L16(name + 2 * i)); };
    order = String::compareUpcased(upcased, nameLength / 2, unitAt);
    if (prefix) {
      prefix->clear();
      for (size_t i = 0; i < 8 && i < nameLength / 2; ++i) prefix->push_back(String::upcase(unitAt(i)));
    }
    return true;
  }
  if (nameLength == 0) return false;
  // Every byte must have a character (Latin-1 has one for each).
  const HiveCodepage codepage = hive.codepage();
  char16_t c = 0;
  if (codepage != latin1) {
    for (u32 i = 0; i < nameLength; ++i)
      if (!codepageToChar(codepage, name[i], c)) return false;
  }
  auto unitAt = [&](size_t i) {
    codepageToChar(codepage, name[i], c);
    return c;
  };
  order = String::compareUpcased(upcased, nameLength, unitAt);
  if (prefix) {
    prefix->clear();
    for (size_t i = 0; i < 8 && i < nameLength; ++i) prefix->push_back(String::upcase(unitAt(i)));
  }
  return true;
}

bool readKeyClass(RegistryHiveObj& hive, const KeyRecord& key, std::u16string& out) {
  out.clear();
  if (key.classLength == 0 || key.classCell == INVALID_RECORD || key.classCell == 0) return true;
  const hive_record* hr = hive.cacheLoadRecord(key.classCell);
  if (!hr || static_cast<u64>(hr->length()) < 4ull + key.classLength) {
    HK_LOG(hiveLog, 3) << "Class name record of key " << key.offset << " is missing or too small";
    return false;
  }
  out.resize(key.classLength / 2);
  for (u32 i = 0; i < out.size(); ++i) out[i] = static_cast<char16_t>(L16(hr->bytes() + 4 + 2 * i));
  return true;
}

namespace {
// Empties a list, keeping its storage for the next load.
void clearList(SubkeyList& list) {
  list.entries.clear();
  list.sublists.clear();
  list.type = keyListLH;
  list.twoLevel = false;
  list.hashless = false;
}
}  // namespace

bool loadSubkeyList(RegistryHiveObj& hive, const KeyRecord& key, SubkeyList& out) {
  clearList(out);
  out.type = isV13(hive) ? keyListLF : keyListLH;
  if (key.keyList == 0 && key.numKeys == 0) return true;
  const hive_record* rec = key.keyList ? hive.cacheLoadRecord(key.keyList) : nullptr;
  if (!rec) {
    HK_LOG(hiveLog, 4) << "Failed to get key list record, key: " << key.offset << ", list: " << key.keyList;
  } else {
    const u16 signature = rec->signature();
    bool loaded = false;
    if (signature == L::SIGNATURE_LF || signature == L::SIGNATURE_LH || signature == L::SIGNATURE_LI) {
      loaded = loadFlatList(hive, key, rec, out);
    } else if (signature == L::SIGNATURE_RI) {
      loaded = loadRiList(hive, key, rec, out);
    } else {
      HK_LOG(hiveLog, 4) << "Invalid list type for key list: " << signatureText(signature)
                         << ", key: " << key.offset;
    }
    if (loaded) return true;
  }
  Error::set(Errors::BAD_KEY_LIST);
  clearList(out);
  return false;
}

bool viewSubkeyList(RegistryHiveObj& hive, const KeyRecord& key, SubkeyListView& out) {
  out = SubkeyListView{};
  if (key.keyList == 0) return key.numKeys == 0;
  const hive_record* rec = hive.cacheLoadRecord(key.keyList);
  if (!rec) return false;
  // loadFlatList's judgement: the record's count is the key's, and its
  // entries lie inside it.
  const u16 signature = rec->signature();
  if (signature != L::SIGNATURE_LF && signature != L::SIGNATURE_LH && signature != L::SIGNATURE_LI)
    return false;
  const u32 width = signature == L::SIGNATURE_LI ? 4 : 8;
  const u32 count = rec->u16At(L::OFS_COUNT);
  if (!rec->used() || count != key.numKeys || u64{count} * width + L::OFS_ITEMS > rec->length()) return false;
  out.items = rec->bytes() + L::OFS_ITEMS;
  out.stride = width;
  out.count = count;
  return true;
}

const hive_record* valueListRecord(RegistryHiveObj& hive, const KeyRecord& key, bool& failed) {
  failed = false;
  if (key.numValues == 0) return nullptr;
  failed = true;
  const hive_record* rec = key.valueList ? hive.cacheLoadRecord(key.valueList) : nullptr;
  if (!rec) {
    HK_LOG(hiveLog, 4) << "Failed to get value list record, key:" << key.offset
                       << ", list: " << key.valueList;
    Error::set(Errors::VALUE_LIST_TOO_SMALL);
    return nullptr;
  }
  // The record bounds the count, and so what is allocated for it.
  if (static_cast<u64>(key.numValues) * 4 + 4 > rec->length()) {
    HK_LOG(hiveLog, 4) << "Value list record is too small, key:" << key.offset;
    Error::set(Errors::VALUE_LIST_TOO_SMALL);
    return nullptr;
  }
  failed = false;
  return rec;
}

bool loadValueList(RegistryHiveObj& hive, const KeyRecord& key, std::vector<u32>& out) {
  out.clear();
  bool failed = false;
  const hive_record* rec = valueListRecord(hive, key, failed);
  if (!rec) return !failed;
  out.resize(key.numValues);
  for (u32 i = 0; i < key.numValues; ++i) out[i] = rec->u32At(4 + 4 * i);
  return true;
}

}  // namespace Libraries::Files::Hive
