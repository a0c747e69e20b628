// The value list of a key: the list record (one vk offset per value, in
// creation order), the cache of value objects, the index of value names,
// and the value operations.
#include "hive/entry_checks.h"
#include "hive/key/key_iterator.h"
#include "hive/key/key_obj.h"
#include "hive/value/value_obj.h"
#include "platform/check.h"
#include "platform/error.h"

namespace Libraries::Files::Hive {

namespace {
using N = hive_record_nk;
using VK = hive_record_vk;
}  // namespace

bool KeyObj::initValues() {
  if (!_valid) return false;
  if (_values.size() == _numOfValues) return true;
  _values.clear();
  dropValueIndex();
  std::vector<u32> offsets;
  if (!loadValueList(*_hive, record(), offsets)) return false;
  _values.resize(offsets.size());
  for (size_t i = 0; i < offsets.size(); ++i) _values[i].offset = offsets[i];
  return true;
}

Ref<ValueObj> KeyObj::value(u32 index) {
  Mon::Lock lock(_hive->mon());
  if (!entryChecks(Entry::read, _readOnly, _valid)) return nullptr;
  if (index >= _numOfValues) return nullptr;
  if (!initValues()) return nullptr;
  HK_ASSERT_AS(hiveLog, "_values.size() == _numOfValues", _values.size() == _numOfValues, nullptr);
  if (Ref<ValueObj> live = _values[index].object.lock()) return live;
  Ref<ValueObj> v = makeRef<ValueObj>(_hive, _values[index].offset, Ref<KeyObj>(this));
  if (!v->valid()) {
    HK_LOG(hiveLog, 4) << "New created ValueObj not valid"
                       << ", key: " << _offset << ", index: " << index;
    return nullptr;
  }
  _values[index].object = WeakRef<ValueObj>(v);
  // A dead object's storage lasts while its entry refers to it: values are
  // mostly taken in order, so let the one before go as this one comes.
  if (index > 0 && _values[index - 1].object.expired()) _values[index - 1].object.clear();
  return v;
}

Ref<Value> KeyObj::value(Ref<String> name) {
  Mon::Lock lock(_hive->mon());
  if (!entryChecks(Entry::read, _readOnly, _valid, name)) return nullptr;
  if (!initValues()) return nullptr;
  if (_numOfValues > VALUE_INDEX_MIN) {
    if (!_valueIndexBuilt) buildValueIndex();
    auto it = _valueIndex.find(name->upperUnits());
    if (it != _valueIndex.end()) {
      if (Ref<ValueObj> v = value(it->second)) return v;
    }
    Error::set(Errors::VALUE_NOT_FOUND);
    return nullptr;
  }
  // A short list is read through: cheaper than an index. The records
  // compare with the name upper-cased twice (as the lists order names).
  std::u16string upcased = name->upperUnits();
  for (char16_t& c : upcased) c = String::upcase(c);
  for (u32 i = 0; i < _numOfValues; ++i) {
    // Most values are told apart by their records alone: an object is
    // made only for a value that may be the one sought.
    int order = 0;
    if (i < _values.size() && compareValueName(*_hive, _values[i].offset, upcased, order) && order != 0)
      continue;
    Ref<ValueObj> v = value(i);
    if (!v) continue;
    Ref<String> vName = v->name();
    if (vName && vName->equalIgnoreCase(*name)) return v;
  }
  Error::set(Errors::VALUE_NOT_FOUND);
  return nullptr;
}

// Every value whose record makes a valid ValueObj, by its name upper-cased
// as value(name) compares it; of equal names the first position.
void KeyObj::buildValueIndex() {
  dropValueIndex();
  _valueIndex.reserve(_values.size());
  for (u32 i = 0; i < _values.size(); ++i) {
    ValueRecord rec;
    std::u16string name;
    if (!readValueRecord(*_hive, _values[i].offset, rec)) continue;
    readValueName(*_hive, rec, name);
    for (char16_t& c : name) c = String::upcase(c);
    if (!_valueIndex.emplace(std::move(name), i).second) _valueIndexDuplicates = true;
  }
  _valueIndexBuilt = true;
}

void KeyObj::dropValueIndex() {
  _valueIndex.clear();
  _valueIndexBuilt = false;
  _valueIndexDuplicates = false;
}

void KeyObj::indexValueAppended(const Ref<ValueObj>& value) {
  if (!_valueIndexBuilt) return;
  const Ref<String> name = value->name();
  if (!name) {
    dropValueIndex();
    return;
  }
  if (!_valueIndex.emplace(name->upperUnits(), _numOfValues - 1).second) _valueIndexDuplicates = true;
}

void KeyObj::indexValueRemoved(u32 index) {
  if (!_valueIndexBuilt) return;
  // With two values of one name, the other one would have to take over.
  if (_valueIndexDuplicates) {
    dropValueIndex();
    return;
  }
  for (auto it = _valueIndex.begin(); it != _valueIndex.end();) {
    if (it->second == index) {
      it = _valueIndex.erase(it);
      continue;
    }
    if (it->second > index) --it->second;
    ++it;
  }
}

Ref<Value> KeyObj::createValue(Ref<String> name, ValueType type) {
  Mon::Lock lock(_hive->mon());
  if (!entryChecks(Entry::change, _readOnly, _valid, name) ||
      Error::setIf(static_cast<bool>(value(name)), Errors::VALUE_EXISTS))
    return nullptr;
  if (_numOfValues > 0 && !initValues()) return nullptr;
  Ref<ValueObj> v = ValueObj::createValue(_hive, Ref<KeyObj>(this), name, type);
  if (!v) return nullptr;
  if (!v->valid() || !linkValue(v)) {
    v->selfDelete();
    return nullptr;
  }
  return v;
}

bool KeyObj::linkValue(const Ref<ValueObj>& value) {
  if (!initValues()) return false;
  const u32 count = _numOfValues;
  u32 list = _valueListCell;
  if (count == 0) {
    list = _hive->allocateRecord(8);
  } else {
    list = _hive->resizeRecord(list, 4 * count + 8, true);
  }
  if (list == INVALID_RECORD) {
    HK_LOG(hiveLog, 4) << "Failed to make room in value list, key:" << _offset;
    return false;
  }
  _valueListCell = list;
  if (count > 0) setHeader32(N::OFS_VALUE_LIST, list);  // the old record may be gone already
  u8 entry[4];
  W32(entry, value->offset());
  if (!_hive->writeRecord(list, entry, 4 * count + 4, sizeof entry)) {
    HK_LOG(hiveLog, 4) << "Failed to write value list, key:" << _offset;
    if (count == 0) {
      _hive->freeRecord(list);
      _valueListCell = 0;
    } else {
      syncKeyRecord();
    }
    return false;
  }
  ++_numOfValues;
  _values.push_back(ValueEntry{WeakRef<ValueObj>(value), value->offset()});
  indexValueAppended(value);
  setHeader32(N::OFS_NUM_VALUES, _numOfValues);
  setHeader32(N::OFS_VALUE_LIST, list);
  // Readers size their buffers by the longest value name.
  if (Ref<String> name = value->name()) {
    const u32 nameBytes = static_cast<u32>(name->length()) * 2;
    if (nameBytes > L32(_header + N::OFS_MAX_VALUE_NAME)) setHeader32(N::OFS_MAX_VALUE_NAME, nameBytes);
  }
  stamp();
  if (!syncKeyRecord()) return false;
  valuesInsertedAt(_numOfValues - 1);
  return true;
}

u32 KeyObj::valueIndex(const ValueObj* value) {
  // Compare live objects only: a dead entry's address may have been reused.
  for (u32 i = 0; i < _values.size(); ++i) {
    Ref<ValueObj> live = _values[i].object.lock();
    if (live && live.get() == value) return i;
  }
  // An object of this value made through another object of this key. A
  // value of another hive is not read: its own monitor guards its parent.
  if (value->hive().get() != _hive.get()) return INVALID_RECORD;
  Ref<KeyObj> parent = value->parent().cast<KeyObj>();
  if (parent && parent->_offset == _offset && parent->_hive.get() == _hive.get()) {
    for (u32 i = 0; i < _values.size(); ++i) {
      if (_values[i].offset == value->offset()) return i;
    }
  }
  return INVALID_RECORD;
}

bool KeyObj::unlinkValue(const Ref<ValueObj>& value) {
  if (!value || !initValues()) return false;
  const u32 index = valueIndex(value.get());
  if (Error::setIf(index == INVALID_RECORD, Errors::INVALID_ARGUMENT)) return false;
  return unlinkValueAt(index);
}

bool KeyObj::unlinkValueAt(u32 index) {
  if (index >= _values.size()) return false;
  const u32 count = _numOfValues - 1;
  _values.erase(_values.begin() + index);
  _numOfValues = count;
  indexValueRemoved(index);
  bool ok = true;
  if (count == 0) {
    ok = freeOwnRecord(_valueListCell, "value list");
    _valueListCell = 0;
  } else {
    const u32 list = _hive->resizeRecord(_valueListCell, 4 * count + 4, true);
    if (list == INVALID_RECORD) {
      HK_LOG(hiveLog, 4) << "Failed to resize value list, key:" << _offset;
      ok = false;
    } else {
      _valueListCell = list;
    }
    if (ok && index < count) {
      std::vector<u8> entries(4 * count);
      for (u32 i = 0; i < count; ++i) W32(entries.data() + 4 * i, _values[i].offset);
      if (!_hive->writeRecord(_valueListCell, entries.data(), 4, 4 * count)) {
        HK_LOG(hiveLog, 4) << "Failed to write value list, key:" << _offset;
        ok = false;
      }
    }
  }
  setHeader32(N::OFS_NUM_VALUES, _numOfValues);
  setHeader32(N::OFS_VALUE_LIST, _valueListCell ? _valueListCell : INVALID_RECORD);
  stamp();
  ok = syncKeyRecord() && ok;
  valuesRemovedAt(index);
  return ok;
}

bool KeyObj::deleteValue(Ref<Value> value) {
  Mon::Lock lock(_hive->mon());
  if (!entryChecks(Entry::change, _readOnly, _valid, value)) return false;
  Ref<ValueObj> v = value.cast<ValueObj>();
  if (Error::setIf(!v, Errors::INVALID_ARGUMENT)) return false;
  if (!unlinkValue(v)) return false;
  return v->selfDelete();
}

bool KeyObj::move(Ref<Value> value, Ref<String> newName) {
  Mon::Lock lock(_hive->mon());
  if (!entryChecks(Entry::change, _readOnly, _valid, value, newName) ||
      Error::setIf(static_cast<bool>(this->value(newName)), Errors::MOVE_VALUE_EXISTS))
    return false;
  // The hive is checked before the parent is read: a value of another hive
  // is guarded by that hive's monitor, which this call does not hold.
  Ref<ValueObj> v = value.cast<ValueObj>();
  Ref<KeyObj> from = v && v->hive().get() == _hive.get() ? v->parent().cast<KeyObj>() : nullptr;
  if (!v || !from || from->_hive.get() != _hive.get()) {
    HK_LOG(hiveLog, 4) << "Attempt to move a value form a different hive";
    Error::set(Errors::INVALID_ARGUMENT);
    return false;
  }
  // A move within this key works on this object's list, even when the
  // value was reached through another object of the same key.
  KeyObj* source = from->_offset == _offset ? this : from.get();
  // Find the old entry while the value still has its old offset.
  if (!source->initValues()) return false;
  const u32 oldIndex = source->valueIndex(v.get());
  if (Error::setIf(oldIndex == INVALID_RECORD, Errors::INVALID_ARGUMENT)) return false;
  if (!v->setName(newName)) return false;
  if (!linkValue(v)) return false;
  if (!source->unlinkValueAt(oldIndex)) return false;
  v->setParent(Ref<KeyObj>(this));
  return true;
}

}  // namespace Libraries::Files::Hive
