#include "hive/deleted/deleted_scan.h"

#include <algorithm>
#include <cstring>

#include "hive/deleted/live_records.h"
#include "hive/deleted/logged_versions.h"
#include "hive/key/key_record.h"
#include "hive/value/value_record.h"

namespace Libraries::Files::Hive {

namespace {

using N = hive_record_nk;
using VK = hive_record_vk;
using SK = hive_record_sk;
using DB = hive_record_db;

constexpr u32 GRANULE = hive_hbin::RECORD_ALIGNMENT;
constexpr u32 MAX_DEPTH = 512;
constexpr u32 CHUNK = VK::V1_5_MAX_DATA_WITHOUT_DB;

// A stretch of the hive bins data scanned on its own: an hbin, or a page
// where no hbin header stands.
struct Region {
  u32 start, end;
  u32 dataStart;  // behind the hbin header
};

class Scanner {
 public:
  Scanner(RegistryHiveObj& hive, const LiveRecords& live,
          const std::function<bool(const DeletedItem&)>& visit)
      : _hive(hive),
        _visit(visit),
        _live(live),
        _length(hive.binsAvailable()),
        _budget(_result.complete, hive.binsAvailable()),
        _claimed(hive.binsAvailable() / GRANULE / 64 + 1, 0) {
    findRegions();
  }

  DeletedScanResult run() {
    if (scanPass(true)) scanPass(false);
    return _result;
  }

 private:
  void findRegions();
  const Region* regionOf(u32 offset) const;
  u32 roomAt(u32 offset) const;
  bool fits(u32 offset, u64 length) const {
    return offset % GRANULE == 0 && length <= roomAt(offset) &&
           !_live.touches(offset, static_cast<u32>(length));
  }
  bool charge(u64 cost) { return _budget.charge(cost); }
  // Candidates: a record of that kind at `offset` that fits.
  bool keyAt(u32 offset, KeyRecord& key, const u8*& bytes) const;
  bool valueAt(u32 offset, ValueRecord& value) const;

  bool scanPass(bool keys);
  // The granules of [from, to), which no live record uses, in `region`
  // (whose bytes are `bytes` when they stand together).
  bool scanFree(const Region& region, const u8* bytes, u32 from, u32 to, bool keys);
  // The record of the pass's kinds that may start at `at`, delivered.
  bool candidate(u32 at, u16 signature, bool keys);
  bool livePath(u32 nk, std::vector<std::u16string>& out);
  void pathTo(u32 parent, DeletedItem& item);
  bool emitKey(u32 offset, const KeyRecord& key, const u8* bytes);
  bool emitValue(const ValueRecord& value, const std::vector<std::u16string>& path, bool orphan);
  bool emitSecurity(u32 offset);
  void recoverData(const ValueRecord& value, DeletedItem& item);
  bool recoverDbData(const ValueRecord& value, DeletedItem& item);
  bool deliver(const DeletedItem& item);

  bool claimed(u32 vk) const { return (_claimed[vk / GRANULE / 64] >> (vk / GRANULE % 64)) & 1; }
  void claim(u32 vk) { _claimed[vk / GRANULE / 64] |= u64{1} << (vk / GRANULE % 64); }

  RegistryHiveObj& _hive;
  const std::function<bool(const DeletedItem&)>& _visit;
  const LiveRecords& _live;
  u32 _length;
  DeletedScanResult _result;
  ScanBudget _budget;
  std::vector<u64> _claimed;  // vk records a recovered key lists
  std::vector<Region> _regions;
  std::vector<u8> _buffer;  // data gathered from fragments
};

void Scanner::findRegions() {
  for (u64 pos = 0; pos < _length;) {
    const u32 at = static_cast<u32>(pos);
    const u8* h = _hive.binsBytes(at, hive_hbin::SIZE);
    const u32 size = h ? L32(h + hive_hbin::OFS_SIZE) : 0;
    if (h && B32(h) == hive_hbin::SIGNATURE && L32(h + hive_hbin::OFS_OFFSET) == at && size != 0 &&
        size % hive_hbin::PAGE == 0 && pos + size <= _length) {
      _regions.push_back({at, at + size, at + hive_hbin::SIZE});
      pos += size;
    } else {
      const u32 end = static_cast<u32>(std::min<u64>(pos + hive_hbin::PAGE, _length));
      _regions.push_back({at, end, at});
      pos = end;
    }
  }
}

const Region* Scanner::regionOf(u32 offset) const {
  auto it = std::upper_bound(_regions.begin(), _regions.end(), offset,
                             [](u32 o, const Region& r) { return o < r.start; });
  if (it == _regions.begin()) return nullptr;
  --it;
  return offset >= it->dataStart && offset < it->end ? &*it : nullptr;
}

u32 Scanner::roomAt(u32 offset) const {
  const Region* region = regionOf(offset);
  if (!region || region->end - offset < 8) return 0;
  const u32 room = region->end - offset;
  // The size field the record had, when it still reads as one.
  const u8* size = _hive.binsBytes(offset, 4);
  if (!size) return 0;
  const s32 s = LS32(size);
  const u32 length = s < 0 ? static_cast<u32>(-static_cast<s64>(s)) : static_cast<u32>(s);
  if (length >= GRANULE && length % GRANULE == 0 && length <= room) return length;
  return room;
}

bool Scanner::keyAt(u32 offset, KeyRecord& key, const u8*& bytes) const {
  const u32 room = offset % GRANULE == 0 ? roomAt(offset) : 0;
  if (room < N::HEADER_SIZE) return false;
  bytes = _hive.binsBytes(offset, room);
  return bytes && parseKeyRecord(bytes, room, offset, key) && key.nameLength != 0 &&
         !_live.touches(offset, N::HEADER_SIZE + key.nameLength);
}

bool Scanner::valueAt(u32 offset, ValueRecord& value) const {
  const u32 room = offset % GRANULE == 0 ? roomAt(offset) : 0;
  if (room < VK::HEADER_SIZE) return false;
  const u8* bytes = _hive.binsBytes(offset, room);
  return bytes && parseValueRecord(bytes, room, offset, _hive.versionMinor() <= 3, value) &&
         !_live.touches(offset, VK::HEADER_SIZE + value.nameLength);
}

bool Scanner::scanPass(bool keys) {
  for (const Region& region : _regions) {
    // The region's bytes at once; only candidates read more.
    const u8* bytes = _hive.binsBytes(region.start, region.end - region.start);
    for (u32 at = _live.nextUnused(region.dataStart, region.end); at + GRANULE <= region.end;) {
      const u32 to = _live.nextUsed(at, region.end);
      if (!scanFree(region, bytes, at, to, keys)) return false;
      at = _live.nextUnused(to, region.end);
    }
  }
  return true;
}

bool Scanner::scanFree(const Region& region, const u8* bytes, u32 from, u32 to, bool keys) {
  const u32 limit = std::min(to, region.end - GRANULE + 1);  // granules that fit in the region
  for (u32 at = from; at < limit; at += GRANULE) {
    if (bytes) {
      // Every signature looked for ends in 'k' (nk, vk, sk): skip to the
      // next one at a granule's sixth byte without testing each granule,
      // which is most of the scan on a hive with much free space.
      const void* k = std::memchr(bytes + (at - region.start) + 5, 'k', limit - at);
      if (!k) return true;
      at = region.start + static_cast<u32>(static_cast<const u8*>(k) - bytes) - 5;
      if (at % GRANULE != 0) {
        at -= at % GRANULE;  // not at a granule's signature: on from the next
        continue;
      }
    }
    const u8* sig = bytes ? bytes + (at - region.start) + 4 : _hive.binsBytes(at + 4, 2);
    if (sig && !candidate(at, B16(sig), keys)) return false;
  }
  return true;
}

bool Scanner::candidate(u32 at, u16 signature, bool keys) {
  if (keys && signature == N::SIGNATURE) {
    KeyRecord key;
    const u8* bytes = nullptr;
    return !keyAt(at, key, bytes) || emitKey(at, key, bytes);
  }
  if (!keys && signature == VK::SIGNATURE && !claimed(at)) {
    ValueRecord value;
    if (!valueAt(at, value)) return true;
    std::vector<std::u16string> path;
    const u32 owner = _live.formerOwner(at);
    const bool orphan = owner == INVALID_RECORD || !livePath(owner, path);
    return emitValue(value, orphan ? std::vector<std::u16string>{} : path, orphan);
  }
  if (!keys && signature == SK::SIGNATURE) return emitSecurity(at);
  return true;
}

bool Scanner::livePath(u32 nk, std::vector<std::u16string>& out) {
  return _live.pathTo(
      nk, MAX_DEPTH, [this] { return charge(ScanBudget::PATH_STEP); }, out);
}

void Scanner::pathTo(u32 parent, DeletedItem& item) {
  const auto deleted = [this](u32 nk, KeyRecord& key, const u8*& bytes) { return keyAt(nk, key, bytes); };
  if (!_live.pathThrough(
          parent, MAX_DEPTH, [this] { return charge(ScanBudget::PATH_STEP); }, deleted, item.path))
    item.orphan = true;
}

bool Scanner::emitKey(u32 offset, const KeyRecord& key, const u8* bytes) {
  DeletedItem item;
  item.kind = DeletedItem::Kind::key;
  pathTo(key.parent, item);
  decodeRecordName(_hive.codepage(), bytes + N::OFS_NAME, key.nameLength, key.compressedName(), item.name);
  item.path.push_back(item.name);
  item.lastWriteTime = key.lastWriteTime;
  item.subkeys = key.numKeys;
  item.values = key.numValues;
  item.cells.push_back({DeletedCell::nk, offset, true});
  // The values its list still names, when the list is outside the live
  // records; each entry must still hold a value record.
  std::vector<ValueRecord> values;
  if (key.numValues != 0) {
    const bool listFits = key.valueList != 0 && fits(key.valueList, 4 + 4 * u64{key.numValues});
    item.cells.push_back({DeletedCell::valueList, key.valueList, listFits});
    item.intact = listFits;
    const u8* list = listFits ? _hive.binsBytes(key.valueList + 4, 4 * key.numValues) : nullptr;
    for (u32 i = 0; list && i < key.numValues; ++i) {
      if (!charge(ScanBudget::ENTRY)) return false;
      const u32 vk = L32(list + 4 * i);
      ValueRecord value;
      if (!valueAt(vk, value)) {
        item.intact = false;
        continue;
      }
      claim(vk);
      values.push_back(value);
    }
  }
  if (!deliver(item)) return false;
  ++_result.keys;
  for (const ValueRecord& value : values)
    if (!emitValue(value, item.path, item.orphan)) return false;
  return true;
}

bool Scanner::emitValue(const ValueRecord& value, const std::vector<std::u16string>& path, bool orphan) {
  DeletedItem item;
  item.kind = DeletedItem::Kind::value;
  item.path = path;
  item.orphan = orphan;
  const u8* name = _hive.binsBytes(value.offset + VK::OFS_NAME, value.nameLength);
  if (name) decodeRecordName(_hive.codepage(), name, value.nameLength, value.compressedName, item.name);
  item.type = value.type;
  item.dataSize = value.dataSize;
  item.cells.push_back({DeletedCell::vk, value.offset, true});
  recoverData(value, item);
  if (_result.complete == false) return false;
  item.intact = item.dataAvailable;
  if (!deliver(item)) return false;
  ++_result.values;
  return true;
}

void Scanner::recoverData(const ValueRecord& value, DeletedItem& item) {
  if (value.resident) {
    item.dataAvailable = true;
    item.data = value.fixed + VK::OFS_DATA;
    return;
  }
  const u32 cell = value.dataCell();
  if (value.inDbForm()) {
    item.dataAvailable = recoverDbData(value, item);
    return;
  }
  const bool fit = fits(cell, 4 + u64{value.dataSize}) && charge(value.dataSize);
  item.cells.push_back({DeletedCell::data, cell, fit});
  if (!fit) return;
  item.data = _hive.binsBytes(cell + 4, value.dataSize);
  item.dataAvailable = item.data != nullptr;
}

bool Scanner::recoverDbData(const ValueRecord& value, DeletedItem& item) {
  const u32 cell = value.dataCell();
  const u32 count = (value.dataSize - 1) / CHUNK + 1;
  const u8* db = fits(cell, DB::SIZE) ? _hive.binsBytes(cell, DB::SIZE) : nullptr;
  const bool dbFits = db && B16(db + 4) == DB::SIGNATURE && L16(db + DB::OFS_COUNT) == count;
  item.cells.push_back({DeletedCell::db, cell, dbFits});
  if (!dbFits) return false;
  const u32 listCell = L32(db + DB::OFS_LIST);
  const bool listFits = fits(listCell, 4 + 4 * u64{count}) && charge(ScanBudget::ENTRY * count);
  item.cells.push_back({DeletedCell::fragmentList, listCell, listFits});
  if (!listFits) return false;
  const u8* list = _hive.binsBytes(listCell + 4, 4 * count);
  // Fragments must be records of their own, as a live value's are.
  std::vector<u32> fragments(count);
  for (u32 i = 0; i < count; ++i) fragments[i] = L32(list + 4 * i);
  std::vector<u32> sorted(fragments);
  sorted.push_back(cell);
  sorted.push_back(listCell);
  std::sort(sorted.begin(), sorted.end());
  if (std::adjacent_find(sorted.begin(), sorted.end()) != sorted.end()) return false;
  u32 left = value.dataSize;
  bool all = true;
  for (u32 fragment : fragments) {
    const u32 n = std::min(left, CHUNK);
    const bool fit = fits(fragment, 4 + u64{n});
    item.cells.push_back({DeletedCell::data, fragment, fit});
    all = all && fit;
    left -= n;
  }
  if (!all || !charge(value.dataSize)) return false;
  _buffer.resize(value.dataSize);
  left = value.dataSize;
  for (u32 i = 0; i < count; ++i) {
    const u32 n = std::min(left, CHUNK);
    std::memcpy(_buffer.data() + (value.dataSize - left), _hive.binsBytes(fragments[i] + 4, n), n);
    left -= n;
  }
  item.data = _buffer.data();
  return true;
}

bool Scanner::emitSecurity(u32 offset) {
  const u32 room = roomAt(offset);
  const u8* bytes = room >= SK::OFS_DESCRIPTOR ? _hive.binsBytes(offset, room) : nullptr;
  if (!bytes) return true;
  const u32 length = L32(bytes + SK::OFS_LENGTH);
  // A descriptor has a header of 20 bytes at least.
  if (length < 20 || !fits(offset, u64{SK::OFS_DESCRIPTOR} + length)) return true;
  DeletedItem item;
  item.kind = DeletedItem::Kind::security;
  item.orphan = true;
  item.dataSize = length;
  item.dataAvailable = true;
  item.data = bytes + SK::OFS_DESCRIPTOR;
  item.references = L32(bytes + SK::OFS_REFCOUNT);
  item.cells.push_back({DeletedCell::sk, offset, true});
  if (!charge(length) || !deliver(item)) return false;
  ++_result.security;
  return true;
}

bool Scanner::deliver(const DeletedItem& item) {
  if (_visit(item)) return true;
  _result.stopped = true;
  _result.complete = false;
  return false;
}

}  // namespace

DeletedScanResult scanDeleted(RegistryHiveObj& hive, const std::function<bool(const DeletedItem&)>& visit,
                              const DeletedScanOptions& options) {
  const LiveRecords live(hive);
  DeletedScanResult result = Scanner(hive, live, visit).run();
  if (options.logs && result.complete) scanLoggedVersions(hive, live, visit, result);
  return result;
}

}  // namespace Libraries::Files::Hive
