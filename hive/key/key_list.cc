// Subkey lists: loading the lf / lh / li / ri records of a key into
// _keyList and _tree, list hashes, and lookup by name.
#include <algorithm>

#include "hive/key/key_obj.h"
#include "platform/check.h"
#include "platform/error.h"

namespace Libraries::Files::Hive {

namespace {

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

}  // namespace

bool KeyObj::makeHash(KeyListType type, const Ref<String>& name, bool codepageHash, bool allowUnconvertible,
                      u32& hash) const {
  hash = 0;
  if (!name) return false;
  if (type == keyListLF) {
    u8 hint[4] = {0, 0, 0, 0};
    for (size_t i = 0; i < name->length() && i < 4; ++i) {
      u8 byte = 0;
      if (!charToCodepage(_codepage, name->at(i), byte)) {
        if (!allowUnconvertible) return false;
        byte = 0;
      }
      hint[i] = byte;
    }
    hash = L32(hint);
    return true;
  }
  if (type == keyListLH) {
    Ref<String> upper = name->upper();
    u32 h = 0;
    for (char16_t c : upper->units()) {
      u32 unit = c;
      if (codepageHash) {
        u8 byte = 0;
        if (!charToCodepage(_codepage, c, byte)) {
          if (!allowUnconvertible) return false;
          byte = 0;
        }
        unit = byte;
      }
      h = h * 37 + unit;
    }
    hash = h;
    return true;
  }
  HK_LOG(hiveLog, 4) << "Can't calculate hash for hash type: " << static_cast<u32>(type);
  return false;
}

u32 KeyObj::loadList(const hive_record* record, u32 recordOffset, u32 position, u16 signature, u32 width,
                     const char* letters) {
  if (!record || record->signature() != signature) return 0;
  HK_ASSERT_AS(hiveLog, "-static_cast<s32>(L32ToHost(record->size)) >= 0", record->used(), 0);
  const u32 recordSize = record->length();
  const u32 count = record->u16At(L::OFS_COUNT);
  if (static_cast<u64>(count) * width + L::OFS_ITEMS > recordSize) {
    HK_LOG(hiveLog, 4) << "Size of items of " << letters << " list exceeds size of record"
                       << ", record = " << recordOffset << ", recsize = " << recordSize
                       << ", num of items = " << count;
    Error::set(Errors::BAD_KEY_LIST);
    return 0;
  }
  if (static_cast<u64>(position) + count > _numOfKeys || position + count > _keyList.size()) {
    HK_LOG(hiveLog, 4) << "More items in " << letters << " list than expected"
                       << ", record = " << recordOffset << ", num of items = " << count
                       << ", offset = " << position << ", _numOfKeys = " << _numOfKeys;
    Error::set(Errors::BAD_KEY_LIST);
    return 0;
  }
  const u8* items = record->bytes() + L::OFS_ITEMS;
  for (u32 i = 0; i < count; ++i) {
    KeyEntry& e = _keyList[position + i];
    e.offset = L32(items + i * width);
    e.hash = width == 8 ? L32(items + i * width + 4) : 0;
    if (e.hash == 0) _hashlessEntries = true;
  }
  return count;
}

u32 KeyObj::loadLf(const hive_record* record, u32 recordOffset, u32 position) {
  return loadList(record, recordOffset, position, L::SIGNATURE_LF, 8, "lf");
}

u32 KeyObj::loadLh(const hive_record* record, u32 recordOffset, u32 position) {
  return loadList(record, recordOffset, position, L::SIGNATURE_LH, 8, "lh");
}

u32 KeyObj::loadLi(const hive_record* record, u32 recordOffset, u32 position) {
  return loadList(record, recordOffset, position, L::SIGNATURE_LI, 4, "li");
}

bool KeyObj::initSubkeys() {
  if (!_valid) return false;
  if (_subkeysLoaded) return true;
  _keyList.clear();
  _keyObjects.clear();
  _tree.clear();
  _twoLevelList = false;
  _hashlessEntries = false;
  if (_keyListCell == 0 && _numOfKeys == 0) {
    _subkeysLoaded = true;
    return true;
  }
  if (!loadKeyList()) {
    Error::set(Errors::BAD_KEY_LIST);
    _keyList.clear();
    _keyList.shrink_to_fit();
    _tree.clear();
    _twoLevelList = false;
    return false;
  }
  _subkeysLoaded = true;
  return true;
}

bool KeyObj::loadKeyList() {
  const hive_record* rec = _keyListCell ? _hive->cacheLoadRecord(_keyListCell) : nullptr;
  if (!rec) {
    HK_LOG(hiveLog, 4) << "Failed to get key list record, key: " << _offset << ", list: " << _keyListCell;
    return false;
  }
  const u16 signature = rec->signature();

  if (signature == L::SIGNATURE_LF || signature == L::SIGNATURE_LH || signature == L::SIGNATURE_LI) {
    const char* failure = signature == L::SIGNATURE_LF   ? "Failed to load lf key list, list:"
                          : signature == L::SIGNATURE_LH ? "Failed to load lh key list, list:"
                                                         : "Failed to load li (top level) key list: ";
    if (_numOfKeys > 0xffff) {
      HK_LOG(hiveLog, 4) << failure << _keyListCell;
      return false;
    }
    _keyList.resize(std::min(_numOfKeys, entryRoom(rec, signature == L::SIGNATURE_LI ? 4 : 8)));
    const u32 count = rec->u16At(L::OFS_COUNT);
    const u32 read = signature == L::SIGNATURE_LF   ? loadLf(rec, _keyListCell, 0)
                     : signature == L::SIGNATURE_LH ? loadLh(rec, _keyListCell, 0)
                                                    : loadLi(rec, _keyListCell, 0);
    if (read != count || read != _numOfKeys) {
      HK_LOG(hiveLog, 4) << failure << _keyListCell;
      return false;
    }
    _tree.push_back(TreeEntry{_keyListCell, static_cast<u16>(read)});
    _listType = signature == L::SIGNATURE_LF   ? keyListLF
                : signature == L::SIGNATURE_LH ? keyListLH
                                               : keyListLI;
    return true;
  }

  if (signature != L::SIGNATURE_RI) {
    HK_LOG(hiveLog, 4) << "Invalid list type for key list: " << signatureText(signature)
                       << ", key: " << _offset;
    return false;
  }

  const u32 count = rec->u16At(L::OFS_COUNT);
  if (static_cast<u64>(count) * 4 + L::OFS_ITEMS > rec->length()) {
    HK_LOG(hiveLog, 4) << "Size of items of ri list exceeds size of record"
                       << ", record = " << _keyListCell << ", recsize = " << rec->length()
                       << ", num of items = " << count;
    return false;
  }
  // An ri may name the same sublist many times; every distinct key needs
  // an nk record of its own, which bounds what a sane count can be.
  if (static_cast<u64>(_numOfKeys) * hive_record_nk::HEADER_SIZE > _hive->hiveLength()) {
    HK_LOG(hiveLog, 4) << "Wrong number of items in sublists of ri list"
                       << ", key: " << _offset << ", _numOfKeys = " << _numOfKeys;
    return false;
  }
  std::vector<u32> sublists(count);
  for (u32 i = 0; i < count; ++i) sublists[i] = rec->u32At(L::OFS_ITEMS + 4 * i);
  // `rec` is not used past this point: loading the sublists may empty the cache.
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
    const hive_record* sr = _hive->cacheLoadRecord(sub);
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
    _keyList.resize(
        std::min<u64>(_numOfKeys, u64{position} + entryRoom(sr, subSignature == L::SIGNATURE_LH ? 8 : 4)));
    const u32 read = subSignature == L::SIGNATURE_LH ? loadLh(sr, sub, position) : loadLi(sr, sub, position);
    if (read != subCount) {
      HK_LOG(hiveLog, 4) << "Failed to load sub list of ri list: " << sub;
      return false;
    }
    (subSignature == L::SIGNATURE_LH ? anyLh : anyLi) = true;
    _tree.push_back(TreeEntry{sub, static_cast<u16>(read)});
    position += read;
  }
  if (position != _numOfKeys) {
    HK_LOG(hiveLog, 4) << "Wrong number of items in sublists of ri list"
                       << ", key: " << _offset;
    return false;
  }
  _twoLevelList = true;
  const bool v13 = _hive->versionMajor() == 1 && _hive->versionMinor() < 4;
  if (anyLh && !anyLi) {
    _listType = keyListLH;
  } else if (anyLi && !anyLh) {
    _listType = keyListLI;
  } else if (anyLh && anyLi) {
    _listType = v13 ? keyListLI : keyListLH;
  } else {
    _listType = v13 ? keyListLI : keyListLH;  // an ri without sublists
  }
  return true;
}

bool KeyObj::compareSubkeyName(u32 position, const std::u16string& sought, int& order) {
  const u32 nk = _keyList[position].offset;
  auto known = _keyObjects.find(nk);
  if (known != _keyObjects.end()) {
    if (Ref<KeyObj> live = known->second.lock()) {
      // The object key(position) would hand out: its name, as it holds it.
      const Ref<String> name = live->name();
      if (!name || name->isEmpty()) return false;
      order = compareUpper(sought, name->length(), [&](size_t i) { return name->at(i); });
      return true;
    }
  }
  // The checks of the KeyObj constructor, without its messages: a record
  // failing them is left to key(position), which reports it.
  const hive_record* rec = _hive->cacheLoadRecord(nk);
  if (!rec || rec->signature() != hive_record_nk::SIGNATURE || !rec->used() ||
      rec->length() < hive_record_nk::HEADER_SIZE)
    return false;
  const u32 nameLength = rec->u16At(hive_record_nk::OFS_NAME_LENGTH);
  if (nameLength + hive_record_nk::HEADER_SIZE > rec->length()) return false;
  const u8* name = rec->bytes() + hive_record_nk::OFS_NAME;
  if ((rec->u16At(hive_record_nk::OFS_FLAGS) & hive_record_nk::FLAG_COMP_NAME) == 0) {
    if (nameLength / 2 == 0) return false;
    order = compareUpper(sought, nameLength / 2,
                         [&](size_t i) { return static_cast<char16_t>(L16(name + 2 * i)); });
    return true;
  }
  if (nameLength == 0) return false;
  // Every byte must have a character (Latin-1 has one for each).
  char16_t c = 0;
  if (_codepage != latin1) {
    for (u32 i = 0; i < nameLength; ++i)
      if (!codepageToChar(_codepage, name[i], c)) return false;
  }
  order = compareUpper(sought, nameLength, [&](size_t i) {
    codepageToChar(_codepage, name[i], c);
    return c;
  });
  return true;
}

bool KeyObj::binaryFindKey(const Ref<String>& name, Ref<KeyObj>& found, u32& position) {
  found = nullptr;
  if (_numOfKeys == 0 || _keyList.empty()) {
    position = 0;
    Error::set(Errors::KEY_NOT_FOUND);
    return false;
  }
  const Ref<String> sought = name->upper();
  // compareIgnoreCase upper-cases both sides once more.
  std::u16string upperName(sought->units());
  for (char16_t& c : upperName) c = String::upcase(c);

  // Orders the name against the entry at `index`: false when the search
  // has ended (a probe that cannot be opened, or the linear fallback) and
  // `result` is its outcome.
  bool result = false;
  auto compareAt = [&](u32 index, int& order) {
    if (compareSubkeyName(index, upperName, order)) return true;
    Ref<KeyObj> probe = key(index);
    if (!probe) {
      HK_LOG(hiveLog, 4) << "Failed to open sub key for binary search. key: " << _offset;
      position = INVALID_RECORD;
      return false;
    }
    Ref<String> probeName = probe->name();
    if ((!probeName || probeName->isEmpty()) && (_hive->mode() & modeLinearFallback)) {
      HK_LOG(hiveLog, 2) << "Can't get name of other key for binary search, using linear fallback";
      result = linearFindKey(name, found, position);
      return false;
    }
    if (!probeName) probeName = String::empty();
    order = sought->compareIgnoreCase(*probeName);
    return true;
  };

  u32 low = 0, high = static_cast<u32>(_keyList.size());  // the name lies in [low, high)
  // Names added in order go to the end: one look at the last entry (when it
  // reads simply) spares the search.
  int last = 0;
  if (compareSubkeyName(high - 1, upperName, last) && last > 0) low = high;
  while (low < high) {
    const u32 mid = low + (high - low) / 2;
    int c = 0;
    if (!compareAt(mid, c)) return result;
    if (c == 0) {
      found = key(mid);
      if (!found) {
        HK_LOG(hiveLog, 4) << "Failed to open sub key for binary search. key: " << _offset;
        position = INVALID_RECORD;
        return false;
      }
      position = mid;
      return true;
    }
    if (c < 0) {
      high = mid;
    } else {
      low = mid + 1;
    }
  }
  position = low;
  Error::set(Errors::KEY_NOT_FOUND);
  return false;
}

bool KeyObj::linearFindKey(const Ref<String>& name, Ref<KeyObj>& found, u32& position) {
  found = nullptr;
  u32 before = 0;  // entries ordered before the name: where it would go
  for (u32 i = 0; i < _keyList.size(); ++i) {
    Ref<KeyObj> k = key(i);
    if (!k) {
      HK_LOG(hiveLog, 3) << "Failed to get key with index: " << i;
      continue;
    }
    Ref<String> kName = k->name();
    const int c = kName ? kName->compareIgnoreCase(*name) : -1;
    if (c == 0) {
      found = k;
      position = i;
      return true;
    }
    if (c < 0) before = i + 1;
  }
  position = before;
  Error::set(Errors::KEY_NOT_FOUND);
  return false;
}

Ref<Key> KeyObj::key(Ref<String> name) {
  Mon::Lock lock(_hive->mon());
  if (!_valid) {
    Error::set(Errors::OBJECT_INVALID);
    return nullptr;
  }
  if (!name) {
    Error::set(Errors::NULL_ARGUMENT);
    return nullptr;
  }
  if (!initSubkeys()) return nullptr;
  Ref<KeyObj> found;
  u32 position = 0;
  if (!binaryFindKey(name, found, position)) return nullptr;
  return found;
}

}  // namespace Libraries::Files::Hive
