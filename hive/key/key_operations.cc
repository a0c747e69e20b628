// Key operations that change the tree: create, delete, move / rename, and
// the security reference counts that go with them.
#include "hive/entry_checks.h"
#include "hive/key/key_obj.h"
#include "hive/value/value_obj.h"
#include "platform/check.h"
#include "platform/error.h"

namespace Libraries::Files::Hive {

namespace {
using N = hive_record_nk;
using S = hive_record_sk;

// A key name in the form its nk record stores.
struct StoredName {
  std::vector<u8> bytes;
  u64 length = 0;
  bool compressed = false;
};

// `name` as a record stores it; false with `code` set when it cannot be.
bool storeName(RegistryHiveObj& hive, const Ref<String>& name, u32 code, StoredName& out) {
  return !Error::setIf(
      !hive.stringToRegName(name, out.bytes, out.length, out.compressed) || out.length > out.bytes.size(),
      code);
}
}  // namespace

bool KeyObj::adjustSecurityCellRefCount(RegistryHiveObj* hive, u32 offset, bool increment) {
  if (!hive || offset == 0 || offset == INVALID_RECORD) return true;
  Mon::Lock lock(hive->mon());
  const hive_record* rec = hive->cacheLoadRecord(offset);
  if (!rec) {
    HK_LOG(hiveLog, 3) << "security record not found: " << offset;
    return true;
  }
  if (rec->signature() != S::SIGNATURE) {
    HK_LOG(hiveLog, 3) << "invalid type for security record: " << offset;
    return true;
  }
  if (rec->length() < S::OFS_DESCRIPTOR) {
    HK_LOG(hiveLog, 3) << "too small security record with size: " << rec->length();
    return true;
  }
  const u32 count = rec->u32At(S::OFS_REFCOUNT);
  if (count == 0) {
    HK_LOG(hiveLog, 3) << "security record ref counter is already zero, record: " << offset;
    return true;
  }
  if (increment && count == 0xffffffffu) return true;
  u8 bytes[4];
  W32(bytes, increment ? count + 1 : count - 1);
  if (!hive->writeRecord(offset, bytes, S::OFS_REFCOUNT, sizeof bytes)) {
    HK_LOG(hiveLog, 3) << "failed to update the security record, error=" << Error::get();
  }
  return true;
}

// A new nk record under this key, its name stored as given, linked to
// nothing yet; INVALID_RECORD when it could not be allocated or written.
u32 KeyObj::writeNewKeyRecord(const u8* storedName, u32 nameLength, bool compressed) {
  const u32 recordSize = N::HEADER_SIZE + nameLength;
  // Names are at most 255 units of two bytes: the record fits on the stack
  // (a longer one, which no caller makes, goes to the heap).
  u8 small[N::HEADER_SIZE + 2 * MAX_KEY_NAME_LENGTH] = {};
  std::vector<u8> large;
  if (recordSize > sizeof small) large.resize(recordSize, 0);
  u8* r = large.empty() ? small : large.data();
  WB16(r + 4, N::SIGNATURE);
  W16(r + N::OFS_FLAGS, compressed ? N::FLAG_COMP_NAME : 0);
  W32(r + N::OFS_PARENT, _offset);
  W32(r + N::OFS_KEY_LIST, INVALID_RECORD);
  W32(r + N::OFS_VOLATILE_KEY_LIST, INVALID_RECORD);
  W32(r + N::OFS_VALUE_LIST, INVALID_RECORD);
  W32(r + N::OFS_SK, sdOffset());
  W32(r + N::OFS_CLASS, INVALID_RECORD);
  W64(r + N::OFS_LAST_WRITE, _hive->now());
  W16(r + N::OFS_NAME_LENGTH, static_cast<u16>(nameLength));
  std::copy(storedName, storedName + nameLength, r + N::OFS_NAME);

  const u32 nk = _hive->allocateRecord(recordSize);
  if (nk == INVALID_RECORD) return INVALID_RECORD;
  if (!_hive->writeRecord(nk, r + 4, 4, recordSize - 4)) {
    _hive->freeRecord(nk);
    return INVALID_RECORD;
  }
  return nk;
}

Ref<Key> KeyObj::createKey(Ref<String> name) {
  Mon::Lock lock(_hive->mon());
  if (!entryChecks(Entry::change, _readOnly, _valid, name) ||
      Error::setIf(name->isEmpty(), Errors::INVALID_ARGUMENT))
    return nullptr;
  if (!initSubkeys()) return nullptr;
  if (Error::setIf(name->length() > MAX_KEY_NAME_LENGTH, Errors::KEY_NAME_INVALID)) return nullptr;
  Ref<KeyObj> existing;
  u32 position = INVALID_RECORD;
  if (Error::setIf(binaryFindKey(name, existing, position), Errors::KEY_EXISTS) ||
      Error::setIf(position == INVALID_RECORD, Errors::NO_INSERT_POSITION) ||
      Error::setIf(!ensureFreeListPlace(position), Errors::KEY_LIST_FULL))
    return nullptr;
  StoredName stored;
  if (!storeName(*_hive, name, Errors::KEY_NAME_INVALID, stored)) return nullptr;
  HK_ASSERT(hiveLog, stored.length <= 0xffffu, nullptr);
  // Characters without a codepage byte hash as 0, as the lists of other
  // writers do; a hash is a hint and never a reason to refuse a name.
  u32 hash = 0;
  if (Error::setIf(_listType != keyListLI && !makeHash(_listType, name, stored.compressed, true, hash),
                   Errors::HASH_FAILED))
    return nullptr;

  const u32 nk = writeNewKeyRecord(stored.bytes.data(), static_cast<u32>(stored.length), stored.compressed);
  if (nk == INVALID_RECORD) return nullptr;
  // Readers size their buffers by the longest subkey name.
  const u32 nameBytes = static_cast<u32>(name->length()) * 2;
  if (nameBytes > L32(_header + N::OFS_MAX_NAME)) setHeader32(N::OFS_MAX_NAME, nameBytes);
  if (!insertKey(position, nk, hash)) {
    HK_LOG(hiveLog, 4) << "insertKey failed, newKey=" << nk << " current=" << _offset << "pos=" << position;
    _hive->freeRecord(nk);
    return nullptr;
  }
  if (!adjustSecurityCellRefCount(_hive.get(), sdOffset(), true)) {
    HK_LOG(hiveLog, 3) << "Could not update security cell ref count after creating new key";
  }
  keysInsertedAt(position);
  return key(position);
}

bool KeyObj::canBeDeleted() {
  Mon::Lock lock(_hive->mon());
  return _valid && !_readOnly && _numOfKeys == 0 && _numOfValues == 0;
}

bool KeyObj::deleteKey(Ref<Key> key) {
  Mon::Lock lock(_hive->mon());
  if (!entryChecks(Entry::change, _readOnly, _valid, key)) return false;
  Ref<KeyObj> k = key.cast<KeyObj>();
  if (Error::setIf(!k || k->_hive.get() != _hive.get(), Errors::INVALID_ARGUMENT) ||
      Error::setIf(!k->_valid, Errors::OBJECT_INVALID) ||
      Error::setIf(!k->canBeDeleted(), Errors::KEY_NOT_EMPTY))
    return false;
  if (!initSubkeys()) return false;
  const u32 position = positionOfSubkey(k.get());
  if (Error::setIf(position == INVALID_RECORD, Errors::INVALID_ARGUMENT)) return false;
  if (!unlinkKey(position)) return false;
  return k->selfDelete();
}

bool KeyObj::selfDelete() {
  Mon::Lock lock(_hive->mon());
  if (!_valid) return false;
  bool ok = true;
  // Only list records that loaded as this key's lists are given back: a
  // damaged offset must not free somebody else's record.
  if (initSubkeys() && _keyListCell != 0) {
    if (_twoLevelList) {
      for (const TreeEntry& t : _tree) ok = freeOwnRecord(t.offset, "subkey list") && ok;
    }
    ok = freeOwnRecord(_keyListCell, "subkey list") && ok;
  }
  // Likewise a value list only when the count says it is in use.
  if (_valueListCell != 0 && _numOfValues > 0 && initValues()) {
    ok = freeOwnRecord(_valueListCell, "value list") && ok;
  }
  ok = freeOwnRecord(_offset, "key") && ok;
  adjustSecurityCellRefCount(_hive.get(), sdOffset(), false);
  _valid = false;
  _keyList.clear();
  _keyObjects.clear();
  _tree.clear();
  _values.clear();
  _keyListCell = 0;
  _valueListCell = 0;
  _numOfKeys = 0;
  _numOfValues = 0;
  return ok;
}

u32 KeyObj::setName(const Ref<String>& name, KeyListType type, u32 newParent, u32& hash) {
  hash = 0;
  StoredName stored;
  if (!storeName(*_hive, name, Errors::MOVE_NAME_TOO_LONG, stored)) return INVALID_RECORD;
  HK_ASSERT(hiveLog, stored.length <= 0xffffu, INVALID_RECORD);
  if (Error::setIf(type != keyListLI && !makeHash(type, name, stored.compressed, true, hash),
                   Errors::HASH_FAILED))
    return INVALID_RECORD;
  const u16 nameLength = static_cast<u16>(stored.length);
  const u32 recordSize = N::HEADER_SIZE + nameLength;
  std::vector<u8> record(recordSize, 0);
  u8* r = record.data();
  std::copy(_header, _header + N::HEADER_SIZE, r);
  u16 flags = L16(r + N::OFS_FLAGS);
  flags = stored.compressed ? (flags | N::FLAG_COMP_NAME) : (flags & ~N::FLAG_COMP_NAME);
  W16(r + N::OFS_FLAGS, flags);
  W32(r + N::OFS_PARENT, newParent);
  W16(r + N::OFS_NAME_LENGTH, nameLength);
  std::copy(stored.bytes.begin(), stored.bytes.begin() + nameLength, r + N::OFS_NAME);
  const u64 now = _hive->now();
  W64(r + N::OFS_LAST_WRITE, now);

  const u32 oldOffset = _offset;
  const u32 newOffset = _hive->resizeRecord(oldOffset, recordSize, false);
  if (newOffset == INVALID_RECORD) return INVALID_RECORD;
  if (!_hive->writeRecord(newOffset, r + 4, 4, recordSize - 4)) return INVALID_RECORD;
  std::copy(r, r + N::HEADER_SIZE, _header);
  _name = name;
  _offset = newOffset;
  _lastWriteTime = now;

  if (newOffset != oldOffset && initSubkeys()) {
    u8 parent[4];
    W32(parent, newOffset);
    _keyList.forEach([&](KeyEntry& e) {
      if (Ref<KeyObj> child = _keyObjects.find(e.offset)) child->setHeader32(N::OFS_PARENT, newOffset);
      const hive_record* rec = _hive->cacheLoadRecord(e.offset);
      if (!rec || rec->signature() != N::SIGNATURE || rec->length() < N::HEADER_SIZE ||
          !_hive->writeRecord(e.offset, parent, N::OFS_PARENT, sizeof parent)) {
        HK_LOG(hiveLog, 3) << "Failed to update parent of subkey:" << e.offset << " Old parent:" << oldOffset
                           << " New parent:" << newOffset;
      }
    });
  }
  return newOffset;
}

// The key `key` stands for when it may move under this key: a valid key
// of this hive, not the root, not this key nor one above it. Null with the
// error set otherwise.
Ref<KeyObj> KeyObj::keyToMove(const Ref<Key>& key) {
  Ref<KeyObj> k = key.cast<KeyObj>();
  if (Error::setIf(!k, Errors::INVALID_ARGUMENT)) return nullptr;
  if (k->_hive.get() != _hive.get()) {
    HK_LOG(hiveLog, 4) << "Attempt to move a key form a different hive";
    Error::set(Errors::INVALID_ARGUMENT);
    return nullptr;
  }
  if (Error::setIf(!k->_valid, Errors::OBJECT_INVALID)) return nullptr;
  if (!k->_parent) {
    HK_LOG(hiveLog, 4) << "Attempt to move root key";
    Error::set(Errors::MOVE_ROOT);
    return nullptr;
  }
  for (KeyObj* up = this; up; up = up->_parent.get()) {
    if (up == k.get() || up->_offset == k->_offset) {
      HK_LOG(hiveLog, 4) << "Nested move";
      Error::set(Errors::MOVE_NESTED);
      return nullptr;
    }
  }
  return k;
}

bool KeyObj::move(Ref<Key> key, Ref<String> newName) {
  Mon::Lock lock(_hive->mon());
  if (!entryChecks(Entry::change, _readOnly, _valid, key, newName)) return false;
  Ref<KeyObj> k = keyToMove(key);
  if (!k) return false;
  Ref<KeyObj> oldParent = k->_parent;
  if (!initSubkeys()) return false;
  if (Error::setIf(newName->isEmpty(), Errors::INVALID_ARGUMENT) ||
      Error::setIf(newName->length() > MAX_KEY_NAME_LENGTH, Errors::MOVE_NAME_TOO_LONG))
    return false;
  Ref<KeyObj> existing;
  u32 position = INVALID_RECORD;
  if (Error::setIf(binaryFindKey(newName, existing, position), Errors::MOVE_NAME_EXISTS) ||
      Error::setIf(position == INVALID_RECORD, Errors::NO_MOVE_POSITION))
    return false;
  // A rename keeps the key in this very list: take this object as the old
  // parent even when the key was reached through another object of it.
  KeyObj* from = oldParent->_offset == _offset ? this : oldParent.get();
  if (!from->initSubkeys()) return false;
  u32 oldPosition = from->positionOfSubkey(k.get());
  if (Error::setIf(oldPosition == INVALID_RECORD, Errors::INVALID_ARGUMENT) ||
      Error::setIf(!ensureFreeListPlace(position), Errors::KEY_LIST_FULL))
    return false;
  u32 hash = 0;
  const u32 moved = k->setName(newName, _listType, _offset, hash);
  if (moved == INVALID_RECORD) {
    HK_LOG(hiveLog, 4) << "Failed to rename record";
    return false;
  }
  const u32 nameBytes = static_cast<u32>(newName->length()) * 2;
  if (nameBytes > L32(_header + N::OFS_MAX_NAME)) setHeader32(N::OFS_MAX_NAME, nameBytes);
  if (!insertKey(position, moved, hash)) {
    HK_LOG(hiveLog, 4) << "insertKey failed for move, newKey=" << moved << " current=" << _offset
                       << "pos=" << position;
    return false;
  }
  keysInsertedAt(position);
  if (from == this && oldPosition >= position) ++oldPosition;
  const bool unlinked = from->unlinkKey(oldPosition);
  // After the unlink: a rename in place leaves the nk offset as it was, and
  // the unlink forgets the object kept for it.
  _keyObjects.put(moved, k);
  if (!unlinked) {
    HK_LOG(hiveLog, 4) << "unlinkKey failed for move, movedRec=" << moved;
    return false;
  }
  k->setParent(Ref<KeyObj>(this));
  return true;
}

}  // namespace Libraries::Files::Hive
