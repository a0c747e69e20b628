// Subkey lists: loading the lf / lh / li / ri records of a key into
// _keyList and _tree, list hashes, and lookup by name.
#include <algorithm>

#include "hive/key/key_obj.h"
#include "platform/check.h"
#include "platform/error.h"

namespace Libraries::Files::Hive {

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

KeyRecord KeyObj::record() const {
  KeyRecord r;
  r.offset = _offset;
  r.flags = L16(_header + hive_record_nk::OFS_FLAGS);
  r.numKeys = _numOfKeys;
  r.keyList = _keyListCell;
  r.numValues = _numOfValues;
  r.valueList = _valueListCell;
  return r;
}

bool KeyObj::initSubkeys() {
  if (!_valid) return false;
  if (_subkeysLoaded) return true;
  _keyObjects.clear();
  SubkeyList list;
  const bool loaded = loadSubkeyList(*_hive, record(), list);
  _keyList = std::move(list.entries);
  _tree = std::move(list.sublists);
  _twoLevelList = list.twoLevel;
  _hashlessEntries = list.hashless;
  if (!loaded) {
    _keyList.shrink_to_fit();
    return false;
  }
  // A key without a list record keeps the type it has.
  if (_keyListCell != 0 || _numOfKeys != 0) _listType = list.type;
  _subkeysLoaded = true;
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
