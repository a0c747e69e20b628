#include "hive/key/key_obj.h"

#include <cstring>

#include "hive/entry_checks.h"
#include "platform/check.h"
#include "platform/error.h"

namespace Libraries::Files::Hive {

KeyObj::KeyObj(Ref<RegistryHiveObj> hive, u32 offset, Ref<KeyObj> parent)
    : _hive(std::move(hive)), _parent(std::move(parent)), _offset(offset) {
  _codepage = _hive->codepage();
  _readOnly = _hive->readonly();
  KeyRecord rec;
  const hive_record* hr = nullptr;
  if (!readKeyRecord(*_hive, offset, rec, &hr)) return;
  std::memcpy(_header, hr->bytes(), hive_record_nk::HEADER_SIZE);
  // The name is decoded when first asked for (nameRef): a walk never asks.
  if (!_parent) _name = String::empty();
  _numOfKeys = rec.numKeys;
  _keyListCell = rec.keyList;
  _numOfValues = rec.numValues;
  _valueListCell = rec.valueList;
  _lastWriteTime = rec.lastWriteTime;
  _listType = (_hive->versionMajor() == 1 && _hive->versionMinor() < 4) ? keyListLF : keyListLH;
  _valid = true;
}

// A key holds its parent, so a key opened 50,000 levels down holds a chain
// of 50,000 objects; released naively, each destructor would release the
// next from inside itself, one stack frame per level. Instead the outermost
// destruction on a thread collects the parents that the inner ones let go
// and releases them one after the other.
KeyObj::~KeyObj() {
  thread_local std::vector<Ref<KeyObj>>* releasing = nullptr;
  if (releasing) {
    if (_parent) releasing->push_back(std::move(_parent));
    return;
  }
  std::vector<Ref<KeyObj>> pending;
  releasing = &pending;
  Ref<KeyObj> next = std::move(_parent);
  while (next) {
    next = nullptr;  // may destroy it, which queues its parent in `pending`
    if (!pending.empty()) {
      next = std::move(pending.back());
      pending.pop_back();
    }
  }
  releasing = nullptr;
}

Ref<String> KeyObj::name() {
  // A rename replaces _name and a delete clears _valid, both under the monitor.
  Mon::Lock lock(_hive->mon());
  return _valid ? nameRef() : nullptr;
}

const Ref<String>& KeyObj::nameRef() {
  if (_name) return _name;
  KeyRecord rec;
  std::u16string name;
  if (readKeyRecord(*_hive, _offset, rec) && !readKeyName(*_hive, rec, name) && rec.compressedName())
    HK_LOG(hiveLog, 3) << "Name of key could not be converted from codepaged name to Ref<String>. key:"
                       << _offset;
  _name = String::fromUtf16(std::move(name));
  return _name;
}

Ref<KeyObj> KeyObj::key(u32 index) {
  Mon::Lock lock(_hive->mon());
  if (!entryChecks(Entry::read, _readOnly, _valid)) return nullptr;
  if (!initSubkeys()) return nullptr;
  HK_ASSERT_AS(hiveLog, "_keyList.size() == _numOfKeys", _keyList.size() == _numOfKeys, nullptr);
  if (index >= _keyList.size()) return nullptr;
  const u32 nk = _keyList[index].offset;
  if (Ref<KeyObj> live = _keyObjects.find(nk)) return live;
  Ref<KeyObj> k = makeRef<KeyObj>(_hive, nk, Ref<KeyObj>(this));
  if (!k->valid()) {
    HK_LOG(hiveLog, 4) << "New created KeyObj not valid"
                       << ", key: " << _offset << ", index: " << index;
    return nullptr;
  }
  _keyObjects.put(nk, k);
  return k;
}

void KeyObj::setHeader32(u32 fieldOffset, u32 value) {
  W32(_header + fieldOffset, value);
}

void KeyObj::sublistForInsert(u32 position, u32& sublist, u32& first) const {
  // The first sublist whose running total reaches the position, else the last.
  u32 total = 0;
  for (u32 i = 0; i < _tree.size(); ++i) {
    if (total + _tree[i].numOfkeys >= position) {
      sublist = i;
      first = total;
      return;
    }
    total += _tree[i].numOfkeys;
  }
  sublist = static_cast<u32>(_tree.size()) - 1;
  first = total - _tree.back().numOfkeys;
}

bool KeyObj::sublistHolding(u32 position, u32& sublist, u32& first) const {
  u32 total = 0;
  for (u32 i = 0; i < _tree.size(); ++i) {
    if (position < total + _tree[i].numOfkeys) {
      sublist = i;
      first = total;
      return true;
    }
    total += _tree[i].numOfkeys;
  }
  return false;
}

u32 KeyObj::positionOfSubkey(const KeyObj* k) {
  if (!initSubkeys()) return INVALID_RECORD;
  // The list is sorted by name: look there first, then walk the offsets
  // (a damaged list need not be sorted).
  if (const Ref<String>& name = const_cast<KeyObj*>(k)->nameRef()) {
    Ref<KeyObj> found;
    u32 position = INVALID_RECORD;
    if (binaryFindKey(name, found, position) && position < _keyList.size() &&
        _keyList[position].offset == k->_offset)
      return position;
  }
  for (u32 i = 0; i < _keyList.size(); ++i) {
    if (_keyList[i].offset == k->_offset) return i;
  }
  return INVALID_RECORD;
}

bool KeyObj::subkeyHash(u32 position, u32& hash) {
  hash = 0;
  if (position >= _keyList.size()) return false;
  // Read the subkey's name straight from its record: this runs while the
  // list is being changed, when key(index) may not be used.
  const u32 nk = _keyList[position].offset;
  const hive_record* rec = _hive->cacheLoadRecord(nk);
  if (!rec || rec->signature() != hive_record_nk::SIGNATURE || rec->length() < hive_record_nk::HEADER_SIZE)
    return false;
  const u32 nameLength = rec->u16At(hive_record_nk::OFS_NAME_LENGTH);
  if (nameLength + hive_record_nk::HEADER_SIZE > rec->length()) return false;
  const bool compressed = (rec->u16At(hive_record_nk::OFS_FLAGS) & hive_record_nk::FLAG_COMP_NAME) != 0;
  Ref<String> name;
  _hive->regNameToString(rec->bytes() + hive_record_nk::OFS_NAME, nameLength, compressed, name);
  if (!name) return false;
  return makeHash(_listType, name, compressed, true, hash);
}

bool KeyObj::freeOwnRecord(u32 offset, const char* what) {
  if (_hive->freeRecord(offset)) return true;
  HK_LOG(hiveLog, 4) << "Failed to free " << what << " record: " << offset << ", key: " << _offset;
  return false;
}

}  // namespace Libraries::Files::Hive
