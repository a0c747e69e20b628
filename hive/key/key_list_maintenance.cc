// Subkey list maintenance: room for one more entry (lf -> li conversion,
// a second level, splitting sublists), writing list records, and adding
// and removing single entries. _tree and the cached nk header are kept
// equal to what is on disk after every successful step.
#include <algorithm>

#include "hive/key/key_obj.h"
#include "platform/check.h"
#include "platform/error.h"

namespace Libraries::Files::Hive {

namespace {
using L = hive_record_list;
using N = hive_record_nk;
}  // namespace

bool KeyObj::syncKeyRecord() {
  if (_hive->writeRecord(_offset, _header + 4, 4, N::HEADER_SIZE - 4)) return true;
  HK_LOG(hiveLog, 4) << "Failed to write key record, key: " << _offset;
  return false;
}

void KeyObj::stamp() {
  _lastWriteTime = _hive->now();
  W64(_header + N::OFS_LAST_WRITE, _lastWriteTime);
}

bool KeyObj::touch() {
  stamp();
  return _hive->writeRecord(_offset, _header + N::OFS_LAST_WRITE, N::OFS_LAST_WRITE, 8);
}

bool KeyObj::ensureFreeListPlace(u32 position) {
  if (!initSubkeys()) return false;
  if (_tree.empty()) {
    HK_ASSERT(hiveLog, _numOfKeys == 0, false);
    if (!createEmptyKeyList()) return false;
  }
  for (u64 cycle = 0;;) {
    u32 sublist = 0, first = 0;
    sublistForInsert(position, sublist, first);
    u32 limit = 0;
    switch (_listType) {
      case keyListLI:
        limit = MAX_KEYS_LI_LIST;
        break;
      case keyListLH:
        limit = MAX_KEYS_LH_LIST;
        break;
      case keyListLF:
        limit = MAX_KEYS_LF_LIST;
        break;
      default:
        HK_LOG(hiveLog, 4) << "Invalid list type: " << static_cast<u32>(_listType);
        return false;
    }
    if (_tree[sublist].numOfkeys + 1u <= limit) return true;
    if (cycle > 0) {
      HK_LOG(hiveLog, 2) << "failed to pruduce a free entry in the first cycle, current cycle: " << cycle;
    }
    if (_listType == keyListLF) {
      if (!convertLfToLiList()) {
        HK_LOG(hiveLog, 4) << "Convert to LI list failed, key = " << _offset;
        return false;
      }
    } else {
      if (!_twoLevelList && !addSecTreeLevel()) {
        HK_LOG(hiveLog, 4) << "Add second level failed, key = " << _offset;
        return false;
      }
      if (!splitRISublist(sublist)) {
        HK_LOG(hiveLog, 4) << "Split RI sublist failed, key = " << _offset;
        return false;
      }
    }
    if (++cycle > MAX_FREE_FIND_LOOP_CYCLES) {
      HK_LOG(hiveLog, 4) << "Failed to find produce a free entry, max cycles reached";
      return false;
    }
  }
}

bool KeyObj::createEmptyKeyList() {
  if (!_tree.empty() || _numOfKeys != 0) return false;
  // A loaded list without sublists is an empty ri: give it back first.
  if (_keyListCell != 0 && _subkeysLoaded) freeOwnRecord(_keyListCell, "empty ri list");
  const bool v13 = _hive->versionMajor() == 1 && _hive->versionMinor() < 4;
  const u32 list = _hive->allocateRecord(NEW_LH_LF_ALLOCATE_SIZE);
  if (list == INVALID_RECORD) {
    HK_LOG(hiveLog, 4) << "Failed to allocate new, empty subkey list record for key:" << _offset;
    return false;
  }
  u8 record[4];
  WB16(record, v13 ? L::SIGNATURE_LF : L::SIGNATURE_LH);
  W16(record + 2, 0);
  if (!_hive->writeRecord(list, record, 4, sizeof record)) {
    HK_LOG(hiveLog, 4) << "Failed to write new, empty subkey list record for key:" << _offset;
    _hive->freeRecord(list);
    return false;
  }
  _keyListCell = list;
  setHeader32(N::OFS_KEY_LIST, list);
  _subkeysLoaded = false;
  if (!initSubkeys()) {
    HK_LOG(hiveLog, 4) << "Failed to reload subkey list after creating new list record, key:" << _offset
                       << " list record:" << list;
    return false;
  }
  return syncKeyRecord();
}

bool KeyObj::convertLfToLiList() {
  HK_ASSERT(hiveLog, _listType == keyListLF, false);
  HK_ASSERT(hiveLog, _tree.size() == 1, false);
  HK_ASSERT(hiveLog, _tree[0].numOfkeys == _numOfKeys, false);
  HK_ASSERT(hiveLog, _twoLevelList == false, false);
  _listType = keyListLI;
  // An li entry is half an lf entry: the record never has to grow.
  const u32 newKeyCell = writeKeyListRecord(_keyListCell, 0, _numOfKeys);
  if (newKeyCell == INVALID_RECORD) {
    _listType = keyListLF;
    HK_LOG(hiveLog, 4) << "Failed to convert LF list to LI list, key = " << _offset;
    return false;
  }
  _keyList.forEach([](KeyEntry& e) { e.hash = 0; });
  _hashlessEntries = true;
  HK_ASSERT(hiveLog, newKeyCell == _keyListCell, false);
  return true;
}

bool KeyObj::addSecTreeLevel() {
  HK_ASSERT(hiveLog, _twoLevelList == false, false);
  HK_ASSERT(hiveLog, _tree.size() == 1, false);
  const u32 ri = _hive->allocateRecord(NEW_RI_ALLOCATE_SIZE);
  if (ri == INVALID_RECORD) {
    HK_LOG(hiveLog, 4) << "Failed to allocate ri list, key = " << _offset;
    return false;
  }
  u8 record[8];
  WB16(record, L::SIGNATURE_RI);
  W16(record + 2, 1);
  W32(record + 4, _tree[0].offset);
  if (!_hive->writeRecord(ri, record, 4, sizeof record)) {
    HK_LOG(hiveLog, 4) << "Failed to write ri list, key = " << _offset;
    _hive->freeRecord(ri);
    return false;
  }
  _twoLevelList = true;
  _keyListCell = ri;
  setHeader32(N::OFS_KEY_LIST, ri);
  return syncKeyRecord();
}

bool KeyObj::splitRISublist(u32 sublist) {
  HK_ASSERT(hiveLog, _twoLevelList, false);
  HK_ASSERT(hiveLog, sublist < _tree.size(), false);
  if (_tree.size() >= 0xffff) {
    HK_LOG(hiveLog, 4) << "Too many records to split, key: " << _offset << " list: " << _keyListCell;
    return false;
  }
  const u32 offset = _tree[sublist].offset;
  const u16 expected = _listType == keyListLH   ? L::SIGNATURE_LH
                       : _listType == keyListLI ? L::SIGNATURE_LI
                                                : 0;
  const hive_record* rec = _hive->cacheLoadRecord(offset);
  if (!rec || !rec->used() || rec->length() < L::OFS_ITEMS || rec->signature() != expected ||
      rec->u16At(L::OFS_COUNT) != _tree[sublist].numOfkeys) {
    HK_LOG(hiveLog, 4) << "Unexpected data found on disk (ri sublist), record=" << offset
                       << " List type: " << static_cast<u32>(_listType);
    return false;
  }
  u32 first = 0;
  for (u32 i = 0; i < sublist; ++i) first += _tree[i].numOfkeys;
  const u32 n = _tree[sublist].numOfkeys;
  const u32 keep = n / 2;
  const u32 moved = n - keep;

  const u32 second = writeKeyListRecord(INVALID_RECORD, first + keep, moved);
  if (second == INVALID_RECORD) {
    HK_LOG(hiveLog, 4) << "Failed to create new record to split RI sublist, size=" << moved;
    return false;
  }
  u8 count[2];
  W16(count, static_cast<u16>(keep));
  if (!_hive->writeRecord(offset, count, L::OFS_COUNT, sizeof count)) {
    HK_LOG(hiveLog, 4) << "Failed to set new used counter for first part after split. key record = "
                       << _offset;
    _hive->freeRecord(second);
    return false;
  }
  _tree[sublist].numOfkeys = static_cast<u16>(keep);
  _tree.insert(_tree.begin() + sublist + 1, TreeEntry{second, static_cast<u16>(moved)});
  // The first half's record was sized for the whole list: give the room
  // behind its entries back (it stays where it is), or every split would
  // leave half a list of dead space.
  const u32 width = _listType == keyListLI ? 4 : 8;
  if (_hive->resizeRecord(offset, L::OFS_ITEMS + width * keep, false) != offset)
    HK_LOG(hiveLog, 3) << "Failed to shrink the first part after split, list: " << offset;
  return syncRIList();
}

bool KeyObj::syncRIList() {
  HK_ASSERT(hiveLog, _twoLevelList, false);
  HK_ASSERT(hiveLog, _tree.size() <= 0xffffu, false);
  const u32 size = L::OFS_ITEMS + 4 * static_cast<u32>(_tree.size());
  std::vector<u8> record(size - 4);
  WB16(record.data(), L::SIGNATURE_RI);
  W16(record.data() + 2, static_cast<u16>(_tree.size()));
  for (size_t i = 0; i < _tree.size(); ++i) W32(record.data() + 4 + 4 * i, _tree[i].offset);

  u32 cell = _keyListCell;
  const hive_record* rec = _hive->cacheLoadRecord(cell);
  if (!rec || rec->length() < size) {
    cell = _hive->resizeRecord(cell, size, false, nullptr, true);
    if (cell == INVALID_RECORD) {
      HK_LOG(hiveLog, 4) << "Failed resize ri list, key =" << _offset;
      return false;
    }
  }
  if (!_hive->writeRecord(cell, record.data(), 4, size - 4)) {
    HK_LOG(hiveLog, 4) << "Failed update ri list, key =" << _offset;
    return false;
  }
  if (cell != _keyListCell) {
    _keyListCell = cell;
    setHeader32(N::OFS_KEY_LIST, cell);
    return syncKeyRecord();
  }
  return true;
}

u32 KeyObj::writeKeyListRecord(u32 record, u32 first, u32 count, u32 unchanged) {
  HK_ASSERT(hiveLog, count <= 0xffffu, INVALID_RECORD);
  HK_ASSERT(hiveLog, first + count <= _keyList.size(), INVALID_RECORD);
  u16 signature = 0;
  u32 width = 8;
  switch (_listType) {
    case keyListLF:
      signature = L::SIGNATURE_LF;
      break;
    case keyListLH:
      signature = L::SIGNATURE_LH;
      break;
    case keyListLI:
      signature = L::SIGNATURE_LI;
      width = 4;
      break;
    default:
      HK_LOG(hiveLog, 4) << "Invalid list type: " << static_cast<u32>(_listType);
      return INVALID_RECORD;
  }
  const u32 size = L::OFS_ITEMS + width * count;
  unchanged = std::min(unchanged, count);
  if (width == 8 && _hashlessEntries) {
    // Entries that came from an li record carry no hash yet; one among the
    // unchanged ones gets it written, so the whole list is. (Without such
    // entries there is nothing to look for.)
    _keyList.forRange(first, count, [&](size_t position, KeyEntry& e) {
      if (e.hash != 0) return;
      if (position - first < unchanged) unchanged = 0;
      u32 hash = 0;
      if (subkeyHash(static_cast<u32>(position), hash)) e.hash = hash;
    });
  }

  u32 cell = record;
  if (cell == INVALID_RECORD) {
    cell = _hive->allocateRecord(size);
    if (cell == INVALID_RECORD) {
      HK_LOG(hiveLog, 4) << "Failed to allocate record to write key list. key record =" << _offset;
      return INVALID_RECORD;
    }
  } else {
    const hive_record* rec = _hive->cacheLoadRecord(cell);
    if (!rec || rec->length() < size) {
      // A list that grew grows again: room for a quarter more entries, so
      // that the next insertions find it in place (where the record cannot
      // grow, it moves and is written whole).
      const u32 room = L::OFS_ITEMS + width * std::min<u32>(0xffff, count + count / 4);
      cell = _hive->resizeRecord(cell, std::max(size, room), false, nullptr, true);
      if (cell == INVALID_RECORD) {
        HK_LOG(hiveLog, 4) << "Failed to resize record to write key list. key record = " << _offset;
        return INVALID_RECORD;
      }
    }
  }
  // A record that stayed where it was keeps the unchanged entries.
  const u32 from = cell == record ? unchanged : 0;
  thread_local std::vector<u8> scratch;
  std::vector<u8>& bytes = scratch;
  bytes.resize(4 + width * (count - from));
  WB16(bytes.data(), signature);
  W16(bytes.data() + 2, static_cast<u16>(count));
  u8* item = bytes.data() + 4;
  _keyList.forRange(first + from, count - from, [&](size_t, const KeyEntry& e) {
    W32(item, e.offset);
    if (width == 8) W32(item + 4, e.hash);
    item += width;
  });
  bool written = _hive->writeRecord(cell, bytes.data(), 4, from == 0 ? size - 4 : 4);
  if (written && from != 0 && from < count) {
    const u32 at = L::OFS_ITEMS + width * from;
    written = _hive->writeRecord(cell, bytes.data() + 4, at, width * (count - from));
  }
  if (!written) {
    HK_LOG(hiveLog, 4) << "Failed to write record to write key list. key record = " << _offset;
    return INVALID_RECORD;
  }
  return cell;
}

bool KeyObj::insertKey(u32 position, u32 nkOffset, u32 hash) {
  HK_ASSERT(hiveLog, !_tree.empty(), false);
  if (position > _keyList.size()) {
    HK_LOG(hiveLog, 4) << "Invalid position for key, exceeds ond of list"
                       << " list=" << _keyListCell << " list size=" << _keyList.size() << " pos=" << position
                       << " cur=" << _offset << " _numOfKeys=" << _numOfKeys;
    return false;
  }
  u32 sublist = 0, first = 0;
  sublistForInsert(position, sublist, first);
  HK_ASSERT(hiveLog, _tree[sublist].numOfkeys < 0xffffu, false);

  _keyList.insert(position, KeyEntry{hash, nkOffset, {}});
  if (hash == 0) _hashlessEntries = true;
  ++_tree[sublist].numOfkeys;
  ++_numOfKeys;
  const u32 old = _tree[sublist].offset;
  const u32 cell = writeKeyListRecord(old, first, _tree[sublist].numOfkeys, position - first);
  if (cell == INVALID_RECORD) {
    // Keep memory equal to the disk, which still holds the old list.
    _keyList.erase(position);
    --_tree[sublist].numOfkeys;
    --_numOfKeys;
    return false;
  }
  if (cell != old && !pointAtSublist(sublist, cell)) return false;
  setHeader32(N::OFS_NUM_KEYS, _numOfKeys);
  stamp();
  return syncKeyRecord();
}

bool KeyObj::pointAtSublist(u32 sublist, u32 cell) {
  _tree[sublist].offset = cell;
  if (!_twoLevelList) {
    _keyListCell = cell;
    setHeader32(N::OFS_KEY_LIST, cell);
    return true;
  }
  u8 pointer[4];
  W32(pointer, cell);
  if (_hive->writeRecord(_keyListCell, pointer, L::OFS_ITEMS + 4 * sublist, 4)) return true;
  HK_LOG(hiveLog, 4) << "Failed to update ri pointer for list:" << cell << " Key: " << _offset;
  return false;
}

bool KeyObj::unlinkKey(u32 position) {
  u32 sublist = 0, first = 0;
  if (position >= _keyList.size() || !sublistHolding(position, sublist, first)) {
    HK_LOG(hiveLog, 4) << "Invalid position for key to unlink"
                       << " list=" << _keyListCell << " list size=" << _keyList.size() << " pos=" << position
                       << " cur=" << _offset;
    return false;
  }
  bool ok = true;
  _keyObjects.erase(_keyList[position].offset);
  _keyList.erase(position);
  --_tree[sublist].numOfkeys;

  if (_tree[sublist].numOfkeys > 0) {
    const u32 old = _tree[sublist].offset;
    const u32 cell = writeKeyListRecord(old, first, _tree[sublist].numOfkeys, position - first);
    if (cell == INVALID_RECORD) {
      ok = false;
    } else if (cell != old) {
      ok = pointAtSublist(sublist, cell) && ok;
    }
  } else {
    ok = freeOwnRecord(_tree[sublist].offset, "subkey list") && ok;
    _tree.erase(_tree.begin() + sublist);
    if (_tree.empty()) {
      if (_twoLevelList) ok = freeOwnRecord(_keyListCell, "ri list") && ok;
      _keyListCell = 0;
      setHeader32(N::OFS_KEY_LIST, INVALID_RECORD);
      _twoLevelList = false;
    } else if (_tree.size() == 1 && _twoLevelList) {
      HK_ASSERT(hiveLog, _twoLevelList, false);
      HK_ASSERT(hiveLog, _keyList.size() == _tree[0].numOfkeys, false);
      ok = freeOwnRecord(_keyListCell, "ri list") && ok;
      _keyListCell = _tree[0].offset;
      setHeader32(N::OFS_KEY_LIST, _keyListCell);
      _twoLevelList = false;
    } else if (_twoLevelList) {
      ok = syncRIList() && ok;
    }
  }

  keysRemovedAt(position);
  --_numOfKeys;
  setHeader32(N::OFS_NUM_KEYS, _numOfKeys);
  stamp();
  return syncKeyRecord() && ok;
}

}  // namespace Libraries::Files::Hive
