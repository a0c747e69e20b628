// Subkey lists: loading the lf / lh / li / ri records of a key into
// _keyList and _tree, list hashes, and lookup by name.
#include <algorithm>

#include "hive/entry_checks.h"
#include "hive/key/key_obj.h"
#include "hive/key/subkey_search.h"
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
    u32 h = 0;
    for (size_t i = 0; i < name->length(); ++i) {
      const char16_t c = String::upcase(name->at(i));
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
  std::vector<KeyEntry> entries(list.entries.size());
  for (size_t i = 0; i < entries.size(); ++i)
    entries[i] = KeyEntry{list.entries[i].hash, list.entries[i].offset, {}};
  _keyList.assign(std::move(entries));
  _tree = std::move(list.sublists);
  _twoLevelList = list.twoLevel;
  _hashlessEntries = list.hashless;
  if (!loaded) return false;
  // A key without a list record keeps the type it has.
  if (_keyListCell != 0 || _numOfKeys != 0) _listType = list.type;
  _subkeysLoaded = true;
  return true;
}

// The list's entries as the search reads them: from their records, and
// opened (made into objects) only when that does not do. A live object of
// an entry holds the name its record holds: a rename rewrites the record
// before it changes the object.
class KeyObj::ListNames final : public SubkeyNames {
 public:
  explicit ListNames(KeyObj& key) : _key(key) {}
  bool compare(u32 index, const std::u16string& upcased, int& order) override {
    KeyEntry& entry = _key._keyList[index];
    if (!_sought.known()) _sought = NamePrefix::of(upcased);
    if (entry.prefix.known()) {
      order = _sought.compare(entry.prefix);
      if (order != 0) return true;
    }
    if (!compareKeyName(*_key._hive, entry.offset, upcased, order, &_units)) return false;
    if (!entry.prefix.known()) entry.prefix = NamePrefix::of(_units);
    return true;
  }
  bool name(u32 index, Ref<String>& out) override {
    Ref<KeyObj> probe = _key.key(index);
    if (!probe) return false;
    out = probe->name();
    return true;
  }

 private:
  KeyObj& _key;
  NamePrefix _sought;
  std::u16string _units;  // the first units of a probed name, upper-cased
};

KeyObj::NamePrefix KeyObj::NamePrefix::of(std::u16string_view upcased) {
  NamePrefix p;
  for (size_t i = 0; i < 8 && i < upcased.size(); ++i) {
    u64& word = i < 4 ? p.high : p.low;
    word |= u64{upcased[i]} << (16 * (3 - i % 4));
  }
  return p;
}

bool KeyObj::binaryFindKey(const Ref<String>& name, Ref<KeyObj>& found, u32& position) {
  found = nullptr;
  ListNames names(*this);
  const u32 count = _numOfKeys == 0 ? 0 : static_cast<u32>(_keyList.size());
  if (binaryFindSubkey(*_hive, _offset, count, name, names, position) != SubkeySearch::found) return false;
  found = key(position);
  if (!found) {
    HK_LOG(hiveLog, 4) << "Failed to open sub key for binary search. key: " << _offset;
    position = INVALID_RECORD;
    return false;
  }
  return true;
}

Ref<Key> KeyObj::key(Ref<String> name) {
  Mon::Lock lock(_hive->mon());
  if (!entryChecks(Entry::read, _readOnly, _valid, name)) return nullptr;
  if (!initSubkeys()) return nullptr;
  Ref<KeyObj> found;
  u32 position = 0;
  if (!binaryFindKey(name, found, position)) return nullptr;
  return found;
}

}  // namespace Libraries::Files::Hive
