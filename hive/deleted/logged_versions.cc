#include "hive/deleted/logged_versions.h"

#include <algorithm>
#include <cstring>
#include <string_view>
#include <unordered_map>
#include <unordered_set>

#include "hive/key/key_record.h"
#include "hive/log/log_pages.h"
#include "hive/value/value_record.h"

namespace Libraries::Files::Hive {

namespace {

using N = hive_record_nk;
using VK = hive_record_vk;
using DB = hive_record_db;

constexpr u32 GRANULE = hive_hbin::RECORD_ALIGNMENT;
constexpr u32 SECTOR = 512;
constexpr u32 MAX_DEPTH = 512;
constexpr u32 CHUNK = VK::V1_5_MAX_DATA_WITHOUT_DB;

// The page images of one entry, by 512-byte sector: a sector the entry
// logs twice reads as the later reference gives it. Adjacent sectors form
// one run, so a record may span pages.
class EntryImage {
 public:
  struct Run {
    u32 offset;
    std::vector<u8> bytes;
    std::vector<u64> positions;  // of each sector in the log
    u64 end() const { return offset + u64{bytes.size()}; }
  };

  void clear() {
    std::vector<Run>().swap(_runs);
    std::vector<std::vector<u8>>().swap(_chunks);
    std::vector<Sector>().swap(_sectors);
  }
  // Reads a range from the log; false when the read fails.
  bool add(Interfaces::Stripe& log, const LoggedRange& range) {
    std::vector<u8>& chunk = _chunks.emplace_back(range.length);
    if (log.readAt(range.position, chunk.data(), range.length) != range.length) return false;
    const u32 chunkIndex = static_cast<u32>(_chunks.size() - 1);
    for (u32 s = 0; s < range.length / SECTOR; ++s)
      _sectors.push_back({range.offset / SECTOR + s, static_cast<u32>(_sectors.size()), chunkIndex,
                          s * SECTOR, range.position + u64{s} * SECTOR});
    return true;
  }
  // Lays the sectors read into runs.
  void finish() {
    std::sort(_sectors.begin(), _sectors.end(), [](const Sector& a, const Sector& b) {
      return a.index != b.index ? a.index < b.index : a.order < b.order;
    });
    for (size_t i = 0; i < _sectors.size(); ++i) {
      const Sector& s = _sectors[i];
      if (i + 1 < _sectors.size() && _sectors[i + 1].index == s.index) continue;  // a later copy wins
      if (_runs.empty() || _runs.back().end() != u64{s.index} * SECTOR)
        _runs.push_back({s.index * SECTOR, {}, {}});
      Run& run = _runs.back();
      const u8* from = _chunks[s.chunk].data() + s.at;
      run.bytes.insert(run.bytes.end(), from, from + SECTOR);
      run.positions.push_back(s.position);
    }
    std::vector<std::vector<u8>>().swap(_chunks);
    std::vector<Sector>().swap(_sectors);
  }

  const std::vector<Run>& runs() const { return _runs; }
  const Run* runOf(u32 offset) const {
    auto it = std::upper_bound(_runs.begin(), _runs.end(), offset,
                               [](u32 o, const Run& r) { return o < r.offset; });
    if (it == _runs.begin()) return nullptr;
    --it;
    return offset < it->end() ? &*it : nullptr;
  }
  // The `length` bytes at `offset` when one run holds them all.
  const u8* bytes(u32 offset, u64 length) const {
    const Run* run = runOf(offset);
    if (!run || length > run->end() - offset) return nullptr;
    return run->bytes.data() + (offset - run->offset);
  }
  u64 logPosition(const Run& run, u32 offset) const {
    return run.positions[(offset - run.offset) / SECTOR] + offset % SECTOR;
  }

 private:
  struct Sector {
    u32 index, order, chunk, at;
    u64 position;
  };
  std::vector<std::vector<u8>> _chunks;
  std::vector<Sector> _sectors;
  std::vector<Run> _runs;
};

// Where a data record of a previous version may be read: the entry's
// images (else, for an offset they do not cover, the hive where no live
// record is), or the hive as it reads now.
enum class From { logged, hive };

struct Source {
  u32 log;
  const LogEntryInfo* entry;  // null: the dirty pages of an old-format log
  u32 sequence;
};

class VersionScanner {
 public:
  VersionScanner(RegistryHiveObj& hive, const LiveRecords& live,
                 const std::function<bool(const DeletedItem&)>& visit, DeletedScanResult& result)
      : _hive(hive), _live(live), _visit(visit), _result(result) {}

  void run();

 private:
  struct ImageKey {
    KeyRecord record;
    const u8* bytes;
    u64 logPosition;
  };
  struct ImageValue {
    ValueRecord record;
    const u8* bytes;
    u64 logPosition;
  };

  bool charge(u64 cost) { return _budget.charge(cost); }
  void load(const Source& source);
  u32 roomAt(const EntryImage::Run& run, u32 offset) const;
  void collect();
  bool currentKey(const ImageKey& key, KeyRecord& now) const;
  bool keyShown(const ImageKey& key) const;
  bool valueShown(const ImageValue& value, const std::vector<u8>* old);
  const u8* cell(u32 offset, u64 length, From from) const;
  bool gatherData(const ValueRecord& value, From from, std::vector<u8>& out, std::vector<DeletedCell>* cells);
  bool livePath(u32 nk, std::vector<std::u16string>& out);
  void pathTo(u32 parent, DeletedItem& item);
  void ownerPath(u32 vk, DeletedItem& item);
  bool emitKey(const Source& source, const ImageKey& key);
  bool emitValue(const Source& source, const ImageValue& value);
  bool deliver(DeletedItem& item, const Source& source, u64 logPosition, std::string version,
               const std::vector<u8>* data);

  RegistryHiveObj& _hive;
  const LiveRecords& _live;
  const std::function<bool(const DeletedItem&)>& _visit;
  DeletedScanResult& _result;
  ScanBudget _budget{_result.complete};
  EntryImage _image;
  // What the current entry's images hold.
  std::unordered_map<u32, ImageKey> _keys;
  std::vector<u32> _keyOrder;
  std::vector<ImageValue> _values;
  std::unordered_map<u32, u32> _owners;  // vk -> an image key whose list names it
  std::unordered_set<u64> _listed;       // versions handed out
  std::vector<u8> _data, _current;
};

void VersionScanner::run() {
  std::vector<Source> sources;
  u64 logBytes = 0;
  for (u32 i = 0; i < 3; ++i) {
    const LogFileInfo& log = _hive.logFile(i);
    if (!log.stripe || !log.present()) continue;
    logBytes += log.stripe->elementCount();
    if (log.newFormat()) {
      for (const LogEntryInfo& e : log.entries) sources.push_back({i, &e, e.sequence()});
    } else if (!log.pages.empty()) {
      sources.push_back({i, nullptr, log.primarySequence()});
    }
  }
  _budget.allow(logBytes);
  std::stable_sort(sources.begin(), sources.end(),
                   [](const Source& a, const Source& b) { return a.sequence < b.sequence; });
  for (const Source& source : sources) {
    load(source);
    collect();
    for (u32 nk : _keyOrder)
      if (!emitKey(source, _keys.at(nk))) return;
    for (const ImageValue& value : _values)
      if (!emitValue(source, value)) return;
  }
  _image.clear();
}

// Reads the entry's ranges; a damaged reference or a failed read ends the
// entry there, and what was read before is still looked at.
void VersionScanner::load(const Source& source) {
  _image.clear();
  const LogFileInfo& log = _hive.logFile(source.log);
  auto add = [&](const LoggedRange& range) { return _image.add(*log.stripe, range); };
  (void)(source.entry ? forEachEntryRange(log, *source.entry, add) : forEachDirtyRun(log, add));
  _image.finish();
}

u32 VersionScanner::roomAt(const EntryImage::Run& run, u32 offset) const {
  u64 end = run.end();
  // A record never reaches into the next hbin.
  const u64 page = (u64{offset} / hive_hbin::PAGE + 1) * hive_hbin::PAGE;
  if (page + 4 <= end && B32(run.bytes.data() + (page - run.offset)) == hive_hbin::SIGNATURE) end = page;
  const u32 room = static_cast<u32>(end - offset);
  const s32 s = LS32(run.bytes.data() + (offset - run.offset));
  const u32 length = s < 0 ? static_cast<u32>(-static_cast<s64>(s)) : static_cast<u32>(s);
  return length >= GRANULE && length % GRANULE == 0 && length <= room ? length : room;
}

void VersionScanner::collect() {
  _keys.clear();
  _keyOrder.clear();
  _values.clear();
  _owners.clear();
  const bool v13 = _hive.versionMinor() <= 3;
  for (const EntryImage::Run& run : _image.runs()) {
    for (u64 at = run.offset; at + GRANULE <= run.end(); at += GRANULE) {
      const u8* p = run.bytes.data() + (at - run.offset);
      const u16 signature = B16(p + 4);
      if (signature != N::SIGNATURE && signature != VK::SIGNATURE) continue;
      const u32 offset = static_cast<u32>(at);
      const u32 room = roomAt(run, offset);
      if (signature == N::SIGNATURE) {
        KeyRecord key;
        if (parseKeyRecord(p, room, offset, key) && key.nameLength != 0) {
          _keys.emplace(offset, ImageKey{key, p, _image.logPosition(run, offset)});
          _keyOrder.push_back(offset);
        }
      } else {
        ValueRecord value;
        if (parseValueRecord(p, room, offset, v13, value))
          _values.push_back({value, p, _image.logPosition(run, offset)});
      }
    }
  }
  // Which key of the entry lists each value.
  for (u32 nk : _keyOrder) {
    const KeyRecord& key = _keys.at(nk).record;
    if (key.numValues == 0 || key.valueList == 0) continue;
    const u8* list = _image.bytes(key.valueList, 4 + 4 * u64{key.numValues});
    if (!list || !charge(ScanBudget::ENTRY * key.numValues)) continue;
    for (u32 i = 0; i < key.numValues; ++i) _owners.emplace(L32(list + 4 + 4 * i), nk);
  }
}

// The hive's record at the version's offset, read as a record of the
// version's length, when it has the version's name.
bool VersionScanner::currentKey(const ImageKey& key, KeyRecord& now) const {
  const KeyRecord& old = key.record;
  const u32 length = N::HEADER_SIZE + old.nameLength;
  const u8* p = _hive.binsBytes(old.offset, length);
  return p && parseKeyRecord(p, length, old.offset, now) && now.nameLength == old.nameLength &&
         now.compressedName() == old.compressedName() &&
         std::memcmp(p + N::OFS_NAME, key.bytes + N::OFS_NAME, old.nameLength) == 0;
}

bool VersionScanner::keyShown(const ImageKey& key) const {
  const KeyRecord& old = key.record;
  KeyRecord now;
  if (!currentKey(key, now) || now.parent != old.parent) return false;
  // A live key shows it whatever its counts and time now; a deleted one is
  // listed by the hive's own scan as it stands there.
  return _live.isKey(old.offset) || (now.lastWriteTime == old.lastWriteTime && now.numKeys == old.numKeys &&
                                     now.numValues == old.numValues);
}

// Whether the hive shows the value, live or deleted, at its offset: the
// same name, type and size, and the same data unless `old` (the version's
// data) is null (unavailable).
bool VersionScanner::valueShown(const ImageValue& value, const std::vector<u8>* old) {
  const ValueRecord& v = value.record;
  const u32 length = VK::HEADER_SIZE + v.nameLength;
  const u8* p = _hive.binsBytes(v.offset, length);
  ValueRecord now;
  if (!p || !parseValueRecord(p, length, v.offset, v.v13, now) || now.type != v.type ||
      now.dataSize != v.dataSize || now.nameLength != v.nameLength ||
      now.compressedName != v.compressedName ||
      std::memcmp(p + VK::OFS_NAME, value.bytes + VK::OFS_NAME, v.nameLength) != 0)
    return false;
  return !old || (gatherData(now, From::hive, _current, nullptr) && _current == *old);
}

const u8* VersionScanner::cell(u32 offset, u64 length, From from) const {
  if (offset % GRANULE != 0 || length > 0xffffffffull) return nullptr;
  const u8* p = nullptr;
  if (from == From::logged && _image.runOf(offset)) {
    p = _image.bytes(offset, length);
  } else if (from == From::hive || !_live.touches(offset, static_cast<u32>(length))) {
    p = _hive.binsBytes(offset, static_cast<u32>(length));
  }
  if (!p) return nullptr;
  const s32 s = LS32(p);
  const u64 size = s < 0 ? static_cast<u64>(-static_cast<s64>(s)) : static_cast<u64>(s);
  return size >= length ? p : nullptr;
}

bool VersionScanner::gatherData(const ValueRecord& value, From from, std::vector<u8>& out,
                                std::vector<DeletedCell>* cells) {
  auto note = [&](DeletedCell::Kind kind, u32 offset, bool ok) {
    if (cells) cells->push_back({kind, offset, ok});
    return ok;
  };
  if (value.resident) {
    out.assign(value.fixed + VK::OFS_DATA, value.fixed + VK::OFS_DATA + value.dataSize);
    return true;
  }
  const u32 at = value.dataCell();
  if (!charge(value.dataSize)) return false;
  if (!value.inDbForm()) {
    const u8* p = cell(at, 4 + u64{value.dataSize}, from);
    if (!note(DeletedCell::data, at, p != nullptr)) return false;
    out.assign(p + 4, p + 4 + value.dataSize);
    return true;
  }
  const u32 count = (value.dataSize - 1) / CHUNK + 1;
  const u8* db = cell(at, DB::SIZE, from);
  if (!note(DeletedCell::db, at, db && B16(db + 4) == DB::SIGNATURE && L16(db + DB::OFS_COUNT) == count))
    return false;
  const u32 listCell = L32(db + DB::OFS_LIST);
  const u8* list = charge(ScanBudget::ENTRY * count) ? cell(listCell, 4 + 4 * u64{count}, from) : nullptr;
  if (!note(DeletedCell::fragmentList, listCell, list != nullptr)) return false;
  // Fragments are records of their own, as a live value's are.
  std::vector<u32> fragments(count);
  for (u32 i = 0; i < count; ++i) fragments[i] = L32(list + 4 + 4 * i);
  std::vector<u32> sorted(fragments);
  sorted.push_back(at);
  sorted.push_back(listCell);
  std::sort(sorted.begin(), sorted.end());
  if (std::adjacent_find(sorted.begin(), sorted.end()) != sorted.end()) return false;
  out.clear();
  u32 left = value.dataSize;
  for (u32 fragment : fragments) {
    const u32 n = std::min(left, CHUNK);
    const u8* p = cell(fragment, 4 + u64{n}, from);
    if (!note(DeletedCell::data, fragment, p != nullptr)) return false;
    out.insert(out.end(), p + 4, p + 4 + n);
    left -= n;
  }
  return true;
}

bool VersionScanner::livePath(u32 nk, std::vector<std::u16string>& out) {
  return _live.pathTo(
      nk, MAX_DEPTH, [this] { return charge(ScanBudget::PATH_STEP); }, out);
}

// Up from `parent` through live keys and the keys of the entry's images.
void VersionScanner::pathTo(u32 parent, DeletedItem& item) {
  const auto imaged = [this](u32 nk, KeyRecord& key, const u8*& bytes) {
    auto it = _keys.find(nk);
    if (it == _keys.end()) return false;
    key = it->second.record;
    bytes = it->second.bytes;
    return true;
  };
  if (!_live.pathThrough(
          parent, MAX_DEPTH, [this] { return charge(ScanBudget::PATH_STEP); }, imaged, item.path))
    item.orphan = true;
}

// A value's key: one of the entry whose list names it, else the live key
// that lists it or names it behind its count.
void VersionScanner::ownerPath(u32 vk, DeletedItem& item) {
  if (auto it = _owners.find(vk); it != _owners.end()) {
    const ImageKey& key = _keys.at(it->second);
    pathTo(key.record.parent, item);
    item.path.emplace_back();
    decodeRecordName(_hive.codepage(), key.bytes + N::OFS_NAME, key.record.nameLength,
                     key.record.compressedName(), item.path.back());
    return;
  }
  u32 owner = _live.ownerOf(vk);
  if (owner == INVALID_RECORD) owner = _live.formerOwner(vk);
  if (owner != INVALID_RECORD && _live.isKey(owner) && livePath(owner, item.path)) return;
  item.orphan = true;
  item.path.clear();
}

bool VersionScanner::emitKey(const Source& source, const ImageKey& key) {
  if (!charge(ScanBudget::PATH_STEP)) return false;
  if (keyShown(key)) return true;
  const KeyRecord& k = key.record;
  DeletedItem item;
  item.kind = DeletedItem::Kind::key;
  pathTo(k.parent, item);
  if (!_result.complete) return false;
  decodeRecordName(_hive.codepage(), key.bytes + N::OFS_NAME, k.nameLength, k.compressedName(), item.name);
  item.path.push_back(item.name);
  item.lastWriteTime = k.lastWriteTime;
  item.subkeys = k.numKeys;
  item.values = k.numValues;
  item.cells.push_back({DeletedCell::nk, k.offset, true});
  // What the listing shows of it, for the check against older entries.
  std::string version(reinterpret_cast<const char*>(item.name.data()), 2 * item.name.size());
  for (u64 field : {u64{k.parent}, k.lastWriteTime, u64{k.numKeys}, u64{k.numValues}})
    version.append(reinterpret_cast<const char*>(&field), sizeof field);
  return deliver(item, source, key.logPosition, std::move(version), nullptr);
}

bool VersionScanner::emitValue(const Source& source, const ImageValue& value) {
  const ValueRecord& v = value.record;
  DeletedItem item;
  item.kind = DeletedItem::Kind::value;
  item.cells.push_back({DeletedCell::vk, v.offset, true});
  const bool available = gatherData(v, From::logged, _data, &item.cells);
  if (!_result.complete) return false;
  if (valueShown(value, available ? &_data : nullptr)) return _result.complete;
  if (!_result.complete) return false;
  ownerPath(v.offset, item);
  if (!_result.complete) return false;
  decodeRecordName(_hive.codepage(), value.bytes + VK::OFS_NAME, v.nameLength, v.compressedName, item.name);
  item.type = v.type;
  item.dataSize = v.dataSize;
  item.dataAvailable = available;
  item.intact = available;
  item.data = available ? _data.data() : nullptr;
  std::string version(reinterpret_cast<const char*>(item.name.data()), 2 * item.name.size());
  for (u64 field : {u64{v.type}, u64{v.dataSize}})
    version.append(reinterpret_cast<const char*>(&field), sizeof field);
  return deliver(item, source, value.logPosition, std::move(version), available ? &_data : nullptr);
}

// Hands the item over unless the same version was listed from an older
// entry: the same kind of record at the same offset showing the same
// (`version`: what a listing shows of it, the data aside; record bytes a
// listing does not show, such as a data record's offset, may differ). A
// value whose data is unavailable is the same as one listed with data.
bool VersionScanner::deliver(DeletedItem& item, const Source& source, u64 logPosition, std::string version,
                             const std::vector<u8>* data) {
  const u32 offset = item.cells[0].offset;
  version.append(reinterpret_cast<const char*>(&offset), sizeof offset);
  version.push_back(item.kind == DeletedItem::Kind::key ? 'k' : 'v');
  const u64 seen = std::hash<std::string>{}(version);
  if (data) version.append(reinterpret_cast<const char*>(data->data()), data->size());
  const u64 full = data ? std::hash<std::string>{}(version) ^ 0x9e3779b97f4a7c15ull : seen;
  const bool listed = _listed.count(full) != 0 || (!data && _listed.count(seen) != 0);
  _listed.insert(seen);
  _listed.insert(full);
  if (listed) return true;
  item.previous = true;
  item.log = source.log;
  item.sequence = source.sequence;
  item.logPosition = logPosition;
  if (!_visit(item)) {
    _result.stopped = true;
    _result.complete = false;
    return false;
  }
  ++(item.kind == DeletedItem::Kind::key ? _result.previousKeys : _result.previousValues);
  return true;
}

}  // namespace

void scanLoggedVersions(RegistryHiveObj& hive, const LiveRecords& live,
                        const std::function<bool(const DeletedItem&)>& visit, DeletedScanResult& result) {
  VersionScanner(hive, live, visit, result).run();
}

}  // namespace Libraries::Files::Hive
