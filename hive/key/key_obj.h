// KeyObj: one key (nk record) of an open hive.
//
// Holds a copy of the record's fixed part, the decoded name, and, once
// loaded, the subkey list (_keyList, _tree) and the value list (_values).
// The same KeyObj / ValueObj comes back for a position while a caller holds
// it (weak references in the lists), so delete and move can find an object
// by identity. Every public operation holds the hive's monitor.
#pragma once

#include <algorithm>
#include <unordered_map>
#include <vector>

#include "hive/key/child_objects.h"
#include "hive/key/key_record.h"
#include "hive/registry_hive.h"
#include "hive/value/value_owner.h"
#include "platform/chunked_vector.h"

namespace Libraries::Files::Hive {

class ValueObj;
class KeyIteratorObj;
class ValueIteratorObj;

// The live iterators over one list of a key, which the key shifts as its
// entries come and go. There is nearly always one at a time, kept in
// place: a walk makes one of each kind per key.
template <class T>
struct IteratorSlots {
  WeakRef<T> first;
  std::vector<WeakRef<T>> more;
};

using Interfaces::Config::Hive::KeyIterator;
using Interfaces::Config::Hive::ValueIterator;

class KeyObj : public ValueOwner {
 public:
  static constexpr u64 MAX_FREE_FIND_LOOP_CYCLES = 5;
  static constexpr u32 MAX_KEYS_LF_LIST = 400;
  static constexpr u32 MAX_KEYS_LH_LIST = 1200;
  static constexpr u32 MAX_KEYS_LI_LIST = 900;
  static constexpr u32 MAX_KEY_NAME_LENGTH = 255;
  static constexpr u32 NEW_LH_LF_ALLOCATE_SIZE = 64;
  static constexpr u32 NEW_RI_ALLOCATE_SIZE = 64;

  // Always makes the object; valid() tells whether it may be used.
  KeyObj(Ref<RegistryHiveObj> hive, u32 offset, Ref<KeyObj> parent);
  ~KeyObj() override;

  // Key
  Ref<String> name() override;
  Ref<Key> key(Ref<String> name) override;
  Ref<Key> createKey(Ref<String> name) override;
  bool deleteKey(Ref<Key> key) override;
  Ref<KeyIterator> keyIterator() override;
  Ref<Value> value(Ref<String> name) override;
  Ref<Value> createValue(Ref<String> name, ValueType type) override;
  bool deleteValue(Ref<Value> value) override;
  Ref<ValueIterator> valueIterator() override;
  bool move(Ref<Value> value, Ref<String> newName) override;
  bool move(Ref<Key> key, Ref<String> newName) override;
  bool readOnly() override { return _readOnly; }
  u64 lastWriteTime() override { return _lastWriteTime; }

  bool valid() const { return _valid; }
  u32 offset() const { return _offset; }
  // The decoded name, read from the record the first time (callers hold
  // the monitor); "" for the root key.
  const Ref<String>& nameRef();
  u32 binaryNameLength() const { return L16(_header + hive_record_nk::OFS_NAME_LENGTH); }
  u32 sdOffset() const { return L32(_header + hive_record_nk::OFS_SK); }
  u32 keys() const { return _numOfKeys; }
  u32 values() const { return _numOfValues; }
  const Ref<RegistryHiveObj>& hive() const { return _hive; }
  Ref<KeyObj> parent() const { return _parent; }
  void setParent(Ref<KeyObj> parent) { _parent = std::move(parent); }

  // Subkey / value at a list position (loads the list); null on failure.
  Ref<KeyObj> key(u32 index);
  Ref<ValueObj> value(u32 index);

  // Gives the key the self-relative descriptor `bytes`: an sk record that
  // holds exactly these bytes is shared, else a new one joins the ring after
  // the key's old one. The old record loses the key's reference and is
  // freed and unlinked when no key is left using it. False with the error
  // set when the descriptor is too short, or on a failed write; the key
  // then keeps its old descriptor.
  bool setSecurityDescriptor(const u8* bytes, u32 length);

  // Reference count of an sk record (+1 or -1); failures are only logged.
  static bool adjustSecurityCellRefCount(RegistryHiveObj* hive, u32 offset, bool increment);

  // List hash: lf name hint or lh hash of a name.
  bool makeHash(KeyListType type, const Ref<String>& name, bool codepageHash, bool allowUnconvertible,
                u32& hash) const;

 protected:
  friend class KeyIteratorObj;
  friend class ValueIteratorObj;
  friend class ValueObj;

  // The first units of a name, upper-cased as the subkey search compares
  // them and packed so that comparing two prefixes orders the names they
  // begin (a difference in the first eight units decides; equal prefixes
  // decide nothing). Both words 0: not known yet.
  struct NamePrefix {
    u64 high = 0, low = 0;
    bool known() const { return (high | low) != 0; }
    // <0, 0 (undecided), >0.
    int compare(const NamePrefix& o) const {
      if (high != o.high) return high < o.high ? -1 : 1;
      if (low != o.low) return low < o.low ? -1 : 1;
      return 0;
    }
    // Of units that went through String::upcase already.
    static NamePrefix of(std::u16string_view upcased);
  };
  // Trivially copyable, so that inserting into a long list moves bytes
  // within one chunk of it; the objects handed out live in _keyObjects, by
  // nk offset. The prefix is learned the first time the search reads the
  // entry's record, and spares it that read whenever it decides.
  struct KeyEntry {
    u32 hash;
    u32 offset;
    NamePrefix prefix;
  };
  using TreeEntry = SubkeySublist;
  struct ValueEntry {
    WeakRef<ValueObj> object;
    u32 offset;
  };

  // Subkey lists (loading and lookup).
  bool initSubkeys();
  // The fields the list and value loaders read (see key_record.h).
  KeyRecord record() const;
  // The subkey search (subkey_search.h) over this key's list; found: the
  // subkey's object. `position` as binaryFindSubkey gives it.
  bool binaryFindKey(const Ref<String>& name, Ref<KeyObj>& key, u32& position);
  class ListNames;

  // Subkey list maintenance.
  bool ensureFreeListPlace(u32 position);
  bool createEmptyKeyList();
  bool convertLfToLiList();
  bool addSecTreeLevel();
  bool splitRISublist(u32 sublist);
  bool syncRIList();
  // Writes _keyList[first, first + count) as one list record at `record`
  // (INVALID_RECORD: allocate). Returns the record's offset or INVALID_RECORD.
  // The first `unchanged` entries are on disk at `record` as this would
  // write them: when the record need not move they are left alone.
  u32 writeKeyListRecord(u32 record, u32 first, u32 count, u32 unchanged = 0);
  bool syncKeyRecord();
  // The last write time becomes the hive's now: in the header copy only
  // (stamp, for callers that write the header next) or on disk too.
  void stamp();
  bool touch() override;
  bool insertKey(u32 position, u32 nkOffset, u32 hash);
  u32 writeNewKeyRecord(const u8* storedName, u32 nameLength, bool compressed);
  Ref<KeyObj> keyToMove(const Ref<Key>& key);
  bool unlinkKey(u32 position);
  // Sublist `sublist` of the subkey list now lives at `cell`: points the ri
  // list at it, or the key itself when the list has one level.
  bool pointAtSublist(u32 sublist, u32 cell);

  // Key operations.
  bool canBeDeleted();
  bool selfDelete();
  u32 setName(const Ref<String>& name, KeyListType type, u32 newParent, u32& hash);

  // Value list.
  bool initValues();
  bool linkValue(const Ref<ValueObj>& value);
  bool unlinkValue(const Ref<ValueObj>& value);

  // Iterators.
  void keysInsertedAt(u32 index);
  void keysRemovedAt(u32 index);
  void valuesInsertedAt(u32 index);
  void valuesRemovedAt(u32 index);

  // Helpers.
  // The sublist (index into _tree) that takes an insertion at `position`,
  // and the _keyList index of its first entry.
  void sublistForInsert(u32 position, u32& sublist, u32& first) const;
  // The sublist that holds the entry at `position`; false when beyond the end.
  bool sublistHolding(u32 position, u32& sublist, u32& first) const;
  // The list position of a subkey given by its nk offset, or INVALID_RECORD.
  u32 positionOfSubkey(const KeyObj* key);
  // The list hash of the subkey at `position`, recomputed from its name
  // (entries loaded from li records carry none).
  bool subkeyHash(u32 position, u32& hash);
  void setHeader32(u32 fieldOffset, u32 value);
  // The cache position of a value (by identity, else by vk offset), or
  // INVALID_RECORD.
  u32 valueIndex(const ValueObj* value);
  // The index of value names (see _valueIndex).
  void buildValueIndex();
  void dropValueIndex();
  void indexValueAppended(const Ref<ValueObj>& value);
  void indexValueRemoved(u32 index);
  bool unlinkValueAt(u32 index);
  // Frees a record this key owns; logs and returns false on failure.
  bool freeOwnRecord(u32 offset, const char* what);

  Ref<RegistryHiveObj> _hive;
  Ref<KeyObj> _parent;
  u32 _offset;
  ChunkedVector<KeyEntry> _keyList;
  ChildObjects<KeyObj> _keyObjects;
  std::vector<TreeEntry> _tree;
  std::vector<ValueEntry> _values;
  // Value lookup by name in a key of more than VALUE_INDEX_MIN values:
  // each name upper-cased as value(name) compares it, to the first list
  // position holding it; built on the first lookup, kept in step by
  // linkValue and unlinkValueAt, dropped when the list is reloaded (and by
  // a removal while two values share a name).
  static constexpr u32 VALUE_INDEX_MIN = 16;
  std::unordered_map<std::u16string, u32> _valueIndex;
  bool _valueIndexBuilt = false;
  bool _valueIndexDuplicates = false;
  Ref<String> _name;
  u32 _numOfKeys = 0;
  u32 _keyListCell = 0;
  u32 _numOfValues = 0;
  u32 _valueListCell = 0;
  u64 _lastWriteTime = 0;
  u8 _header[hive_record_nk::HEADER_SIZE] = {};
  HiveCodepage _codepage;
  KeyListType _listType = keyListLH;
  bool _twoLevelList = false;
  bool _valid = false;
  bool _readOnly = false;
  bool _subkeysLoaded = false;
  // Some entry of _keyList may carry hash 0 (loaded from an li record or
  // stored so): writing a list must then look for entries to hash.
  bool _hashlessEntries = false;
  IteratorSlots<KeyIteratorObj> _keyIterators;
  IteratorSlots<ValueIteratorObj> _valueIterators;
};

}  // namespace Libraries::Files::Hive
