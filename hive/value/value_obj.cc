#include "hive/value/value_obj.h"

#include <algorithm>
#include <cstring>

#include "hive/allocation_rollback.h"
#include "hive/entry_checks.h"
#include "platform/check.h"
#include "platform/error.h"

namespace Libraries::Files::Hive {

namespace {

using VK = hive_record_vk;
using DB = hive_record_db;

constexpr u32 CHUNK = VK::V1_5_MAX_DATA_WITHOUT_DB;  // data bytes per fragment
constexpr u32 FRAGMENT_RECORD = CHUNK + 4;           // requested size of one fragment
constexpr u32 MAX_FRAGMENTS = 0xffff;                // the db record counts them in 16 bits

u32 fragmentsFor(u32 size) {
  return (size - 1) / CHUNK + 1;
}

}  // namespace

ValueObj::ValueObj(Ref<RegistryHiveObj> hive, u32 offset, Ref<ValueOwner> parent)
    : _hive(std::move(hive)), _parent(std::move(parent)), _offset(offset) {
  _readOnly = _hive->readonly();
  Mon::Lock lock(_hive->mon());
  ValueRecord rec;
  if (!readValueRecord(*_hive, offset, rec)) return;
  _isV13 = rec.v13;
  _type = rec.type;
  _dataResident = rec.resident;
  _dataSize = rec.dataSize;
  std::memcpy(_recordData, rec.fixed, VK::HEADER_SIZE);
  _resizable =
      (_hive->mode() & modeResizableValues) != 0 || _type == Interfaces::Config::Hive::ValueTypes::Binary;
  _valid = true;
}

ValueObj::~ValueObj() = default;

Ref<String> ValueObj::name() {
  Mon::Lock lock(_hive->mon());
  return nameRef();
}

const Ref<String>& ValueObj::nameRef() {
  if (_name) return _name;
  // Decoded when first asked for: a walk never asks.
  const ValueRecord rec = asRecord();
  std::u16string name;
  if (!readValueName(*_hive, rec, name) && rec.compressedName)
    HK_LOG(hiveLog, 3) << "Name of value could not be converted from codepaged name to Ref<String>. value:"
                       << Log::hex(_offset);
  _name = String::fromUtf16(std::move(name));
  return _name;
}

u32 ValueObj::datasizeFormType(ValueType type) {
  namespace T = Interfaces::Config::Hive::ValueTypes;
  switch (type) {
    case T::Dword:
    case T::DwordBigEndian:
      return 4;
    case T::Qword:
      return 8;
    default:
      return 0;
  }
}

Ref<ValueObj> ValueObj::createValue(Ref<RegistryHiveObj> hive, Ref<ValueOwner> parent, Ref<String> name,
                                    ValueType type) {
  if (Error::setIf(!hive || !name, Errors::NULL_ARGUMENT)) return nullptr;
  Mon::Lock lock(hive->mon());
  if (Error::setIf(name->length() > MAX_VALUE_NAME_LENGTH, Errors::VALUE_NAME_TOO_LONG)) return nullptr;
  std::vector<u8> stored;
  u64 length = 0;
  bool ascii = false;
  if (Error::setIf(!hive->stringToRegName(name, stored, length, ascii), Errors::VALUE_NAME_TOO_LONG))
    return nullptr;
  HK_ASSERT(hiveLog, length <= 0xffff && length <= stored.size(), nullptr);

  std::vector<u8> record(VK::HEADER_SIZE + length, 0);
  WB16(record.data() + 4, VK::SIGNATURE);
  W16(record.data() + VK::OFS_NAME_LENGTH, static_cast<u16>(length));
  W32(record.data() + VK::OFS_DATA_SIZE, VK::DATA_RESIDENT);
  W32(record.data() + VK::OFS_TYPE, type);
  W16(record.data() + VK::OFS_FLAGS, ascii ? VK::FLAG_COMP_NAME : 0);
  if (length) std::memcpy(record.data() + VK::OFS_NAME, stored.data(), length);

  const u32 offset = hive->allocateRecord(static_cast<u32>(record.size()));
  if (offset == INVALID_RECORD) return nullptr;
  if (!hive->writeRecord(offset, record.data() + 4, 4, static_cast<u32>(record.size() - 4))) {
    HK_LOG(hiveLog, 4) << "Failed to write new value record, record = " << Log::hex(offset);
    hive->freeRecord(offset);
    return nullptr;
  }
  Ref<ValueObj> value = makeRef<ValueObj>(hive, offset, parent);
  if (!value->valid()) {
    HK_LOG(hiveLog, 4) << "New initialized value is not valid, record = " << Log::hex(offset);
    hive->freeRecord(offset);
    return nullptr;
  }
  const u32 initial = datasizeFormType(type);
  if (initial) {
    const u8 zeros[8] = {};
    if (value->size(initial) != initial || value->write(zeros, 0, initial) != initial)
      HK_LOG(hiveLog, 4) << "Failed to initial resize new record, record = " << Log::hex(offset);
  }
  return value;
}

// ---------------------------------------------------------------- extents

ValueRecord ValueObj::asRecord() const {
  ValueRecord r;
  r.offset = _offset;
  r.type = _type;
  r.dataSize = _dataSize;
  r.resident = _dataResident;
  r.v13 = _isV13;
  r.nameLength = L16(_recordData + VK::OFS_NAME_LENGTH);
  r.compressedName = (L16(_recordData + VK::OFS_FLAGS) & VK::FLAG_COMP_NAME) != 0;
  std::memcpy(r.fixed, _recordData, VK::HEADER_SIZE);
  return r;
}

bool ValueObj::inDbForm() const {
  return asRecord().inDbForm();
}

u32 ValueObj::extentCapacity() const {
  return _isV13 ? MAX_VALUE_DATA_SIZE : CHUNK;
}

bool ValueObj::initExtents() {
  if (!_valid) return false;
  if (!_extents.empty()) return true;
  ValueExtents found;
  if (!loadValueExtents(*_hive, asRecord(), found)) return false;
  _extents = std::move(found.extents);
  if (found.dbList != INVALID_RECORD) _dbListDataRecord = found.dbList;
  return true;
}

bool ValueObj::storageRecords(std::vector<u32>& records) {
  records.clear();
  if (_dataResident) return true;
  if (!initExtents()) return false;
  records = _extents;
  if (inDbForm()) {
    HK_CHECK_AS(hiveLog, "_dbListDataRecord != INVALID_RECORD", _dbListDataRecord != INVALID_RECORD);
    records.push_back(L32(_recordData + VK::OFS_DATA));
    if (_dbListDataRecord != INVALID_RECORD) records.push_back(_dbListDataRecord);
  }
  return true;
}

bool ValueObj::freeRecords(const std::vector<u32>& records) {
  bool ok = true;
  for (u32 r : records) {
    if (_hive->freeRecord(r)) continue;
    HK_LOG(hiveLog, 3) << "Failed to free data record: " << Log::hex(r) << " value: " << Log::hex(_offset);
    ok = false;
  }
  return ok;
}

bool ValueObj::freeAllExtents() {
  std::vector<u32> records;
  return storageRecords(records) && freeRecords(records);
}

// ---------------------------------------------------------------- data

namespace {

// Clamps a request at `offset` to the data: 0 at or past the end.
u32 clampCount(u32 dataSize, u32 offset, u32 size) {
  if (offset >= dataSize) return 0;
  return std::min(size, dataSize - offset);
}

}  // namespace

template <class Piece>
u32 ValueObj::walkExtents(u32 offset, u32 count, Piece piece) {
  return walkValueExtents(*_hive, asRecord(), _extents, offset, count, piece);
}

u32 ValueObj::read(void* buffer, u32 offset, u32 size) {
  Mon::Lock lock(_hive->mon());
  if (!entryChecks(Entry::read, _readOnly, _valid)) return 0;
  const u32 count = clampCount(_dataSize, offset, size);
  if (count == 0) return 0;
  if (!_dataResident && _extents.empty() && !inDbForm()) {
    // Data in one record is read in place, without loading the extent list.
    const u8* data = nullptr;
    if (locateValueData(*_hive, asRecord(), data) != ValueDataPlace::inPlace) return 0;
    std::memcpy(buffer, data + offset, count);
    return count;
  }
  if (!_dataResident && !initExtents()) return 0;
  return readValueData(*_hive, asRecord(), _extents, offset, buffer, size);
}

u32 ValueObj::write(const void* buffer, u32 offset, u32 size) {
  Mon::Lock lock(_hive->mon());
  if (!entryChecks(Entry::change, _readOnly, _valid)) return 0;
  const u32 count = clampCount(_dataSize, offset, size);
  if (count == 0) return 0;
  const u8* in = static_cast<const u8*>(buffer);
  if (_dataResident) {
    std::memcpy(_recordData + VK::OFS_DATA + offset, in, count);
    if (!writeRecordData()) {
      HK_LOG(hiveLog, 4) << "Failed to update vk record for write resident. record:" << Log::hex(_offset);
      return 0;
    }
    return count;
  }
  if (!initExtents()) return 0;
  if (_parent) _parent->touch();
  return walkExtents(offset, count, [&](u32 extent, const hive_record*, u32 position, u32 done, u32 n) {
    if (_hive->writeRecord(extent, in + done, 4 + position, n)) return true;
    HK_LOG(hiveLog, 4) << "Failed to write data record: " << Log::hex(extent);
    return false;
  });
}

// Every change of the value's type, size or resident data passes here:
// its key's last write time follows.
bool ValueObj::writeRecordData() {
  if (_parent) _parent->touch();
  return _hive->writeRecord(_offset, _recordData + 4, 4, VK::OFS_NAME - 4);
}

// ---------------------------------------------------------------- resizing
//
// Every change of form follows one order: the new storage is made and
// filled, the vk record is pointed at it, and only then are the old records
// freed. A failure before the switch gives back what it made and leaves the
// value as it was; a failure to free afterwards only leaks records.

u32 ValueObj::size(u32 newSize) {
  Mon::Lock lock(_hive->mon());
  if (!entryChecks(Entry::change, _readOnly, _valid)) return 0;
  if (newSize == _dataSize) return _dataSize;
  // Bit 31 of the size field is the resident flag; hives of minor version
  // 3 have no db lists to hold more than one record; a db list counts its
  // fragments in 16 bits.
  if ((newSize & VK::DATA_RESIDENT) || (_isV13 && newSize > MAX_VALUE_DATA_SIZE) ||
      (newSize > CHUNK && fragmentsFor(newSize) > MAX_FRAGMENTS)) {
    HK_LOG(hiveLog, 4) << "Value data size too large: " << newSize << " record: " << Log::hex(_offset);
    Error::set(Errors::INVALID_ARGUMENT);
    return _dataSize;
  }
  const u32 keep = std::min(_dataSize, newSize);

  if (newSize <= 4) return resizeToResident(newSize, keep);
  if (!_isV13 && newSize > CHUNK) return resizeDbList(newSize);

  if (_dataResident || inDbForm()) return moveToOneRecord(newSize, keep);
  if (!initExtents() || _extents.size() != 1) {
    HK_LOG(hiveLog, 4) << "Failed to initExtents() for resize to single extent. record: "
                       << Log::hex(_offset);
    return _dataSize;
  }
  const u32 record = _hive->resizeRecord(_extents[0], newSize + 4, true);
  if (record == INVALID_RECORD) {
    HK_LOG(hiveLog, 4) << "Failed to resizeRecord for resize to single extent. record: " << Log::hex(_offset);
    return _dataSize;
  }
  _extents[0] = record;
  W32(_recordData + VK::OFS_DATA, record);
  return commitSize(newSize, "Failed to update vk record for resize. record: ");
}

// Data of at most 4 bytes moves into the vk record; the records that held
// it are freed.
u32 ValueObj::resizeToResident(u32 newSize, u32 keep) {
  std::vector<u32> old;
  u8 bytes[4] = {};
  if (keep && read(bytes, 0, keep) != keep) {
    HK_LOG(hiveLog, 4) << "Read data for resize to resident failed. record: " << Log::hex(_offset);
    return _dataSize;
  }
  if (!storageRecords(old)) {
    HK_LOG(hiveLog, 4) << "Failed to free some data reords for resize to resident. record: "
                       << Log::hex(_offset);
    return _dataSize;
  }
  _extents.clear();
  _dbListDataRecord = INVALID_RECORD;
  _dataResident = true;
  std::memcpy(_recordData + VK::OFS_DATA, bytes, 4);
  return commitSize(newSize, "Failed to update vk record for resize. record: ", old);
}

// Resident data, or a db list, moves into one data record of `newSize`.
u32 ValueObj::moveToOneRecord(u32 newSize, u32 keep) {
  std::vector<u32> old;
  if (!storageRecords(old)) {
    HK_LOG(hiveLog, 4) << "Failed to free some data records for resize to single extent. record: "
                       << Log::hex(_offset);
    return _dataSize;
  }
  const u32 record = _hive->allocateRecord(newSize + 4);
  if (record == INVALID_RECORD) {
    HK_LOG(hiveLog, 4) << "Failed to allocate new record for resize to single extent. record: "
                       << Log::hex(_offset);
    return _dataSize;
  }
  if (keep) {
    std::vector<u8> data(keep);
    const u32 got = read(data.data(), 0, keep);
    if (got != keep)
      HK_LOG(hiveLog, 4) << "Read data for resize to single extent failed. record: " << Log::hex(_offset);
    if (got && !_hive->writeRecord(record, data.data(), 4, got))
      HK_LOG(hiveLog, 4) << "Restore data for resize to single extent failed. record: " << Log::hex(_offset);
  }
  _extents.assign(1, record);
  _dbListDataRecord = INVALID_RECORD;
  _dataResident = false;
  W32(_recordData + VK::OFS_DATA, record);
  return commitSize(newSize, "Failed to update vk record for resize. record: ", old);
}

u32 ValueObj::commitSize(u32 newSize, const char* failure, const std::vector<u32>& retired) {
  _dataSize = newSize;
  W32(_recordData + VK::OFS_DATA_SIZE, newSize | (_dataResident ? VK::DATA_RESIDENT : 0));
  if (!writeRecordData()) HK_LOG(hiveLog, 4) << failure << Log::hex(_offset);
  freeRecords(retired);
  return _dataSize;
}

bool ValueObj::writeDbList(u32 dbRecord, u32 listRecord, const std::vector<u32>& fragments) {
  const u32 count = static_cast<u32>(fragments.size());
  std::vector<u8> entries(4 * fragments.size());
  for (u32 i = 0; i < count; ++i) W32(entries.data() + 4 * i, fragments[i]);
  if (!_hive->writeRecord(listRecord, entries.data(), 4, 4 * count)) {
    HK_LOG(hiveLog, 4) << "Failed to write fragment list during resize of db list";
    return false;
  }
  u8 db[8];
  WB16(db, DB::SIGNATURE);
  W16(db + 2, static_cast<u16>(count));
  W32(db + 4, listRecord);
  if (!_hive->writeRecord(dbRecord, db, 4, sizeof db)) {
    HK_LOG(hiveLog, 4) << "Failed to write db record during resize of db list";
    return false;
  }
  return true;
}

u32 ValueObj::resizeDbList(u32 newSize) {
  HK_ASSERT(hiveLog, !_isV13, _dataSize);
  HK_ASSERT(hiveLog, newSize > CHUNK, _dataSize);
  if (inDbForm()) return resizeDbForm(newSize);
  return convertToDbForm(newSize);
}

// Grows or shrinks a db list in place: fragments added or retired, the
// last one made full before data grows into it, the fragment list moved
// when it is too small.
u32 ValueObj::resizeDbForm(u32 newSize) {
  const u32 needed = fragmentsFor(newSize);
  AllocationRollback made(*_hive);
  std::vector<u32> retire;  // records to free once nothing points to them
  if (!initExtents()) {
    HK_LOG(hiveLog, 4) << "Failed to initExtents() during resize of db list";
    return _dataSize;
  }
  const u32 db = L32(_recordData + VK::OFS_DATA);
  std::vector<u32> fragments = _extents;
  const size_t have = fragments.size();
  const char* noFragment = "Failed to allocate new fragment data record for existing db list.";
  // The last fragment may have been made for less data; once data grows
  // into it or past it, it must be a full fragment.
  if (newSize > _dataSize) {
    const hive_record* last = _hive->cacheLoadRecord(fragments.back());
    if (!last) return _dataSize;
    if (last->length() != VK::FRAGMENT_CELL) {
      std::vector<u8> data(last->bytes() + 4, last->bytes() + 4 + std::min(last->length() - 4, CHUNK));
      const u32 r = made.allocate(FRAGMENT_RECORD, noFragment);
      if (r == INVALID_RECORD) return _dataSize;
      if (!_hive->writeRecord(r, data.data(), 4, static_cast<u32>(data.size()))) return _dataSize;
      retire.push_back(fragments.back());
      fragments.back() = r;
    }
  }
  for (size_t i = have; i < needed; ++i) {
    const u32 r = made.allocate(FRAGMENT_RECORD, noFragment);
    if (r == INVALID_RECORD) return _dataSize;
    fragments.push_back(r);
  }
  if (needed < have) {
    retire.insert(retire.end(), fragments.begin() + needed, fragments.end());
    fragments.resize(needed);
  }
  u32 list = _dbListDataRecord;
  if (fragments.size() > have) {
    const hive_record* hr = _hive->cacheLoadRecord(list);
    if (!hr || hr->length() < 4 * needed + 4) {
      list = made.allocate(4 * needed + 4, "Failed to resize fragment list during resize of db list");
      if (list == INVALID_RECORD) return _dataSize;
      retire.push_back(_dbListDataRecord);
    }
  }
  if ((fragments != _extents || list != _dbListDataRecord) && !writeDbList(db, list, fragments))
    return _dataSize;
  made.keep();
  // A shorter list shrinks in place.
  if (fragments.size() < have && list == _dbListDataRecord) _hive->resizeRecord(list, 4 * needed + 4, false);
  _extents = std::move(fragments);
  _dbListDataRecord = list;
  return commitSize(newSize, "Failed to update vk record for resize to db list. record: ", retire);
}

// Moves data of up to one fragment (resident or in one record) into a new
// db list.
u32 ValueObj::convertToDbForm(u32 newSize) {
  HK_ASSERT(hiveLog, _dataSize <= CHUNK, _dataSize);
  HK_ASSERT(hiveLog, _dataSize < newSize, _dataSize);
  std::vector<u32> old;
  if (!storageRecords(old)) {
    HK_LOG(hiveLog, 4) << "Failed to initExtents() during resize to db list. record: " << Log::hex(_offset);
    return _dataSize;
  }
  const u32 needed = fragmentsFor(newSize);
  AllocationRollback made(*_hive);
  const u32 db = made.allocate(DB::SIZE, "Failed to allocate record for new db list.");
  if (db == INVALID_RECORD) return _dataSize;
  const u32 list = made.allocate(4 * needed + 4, "Failed to allocate fragment list record for new db list.");
  if (list == INVALID_RECORD) return _dataSize;
  std::vector<u32> fragments;
  fragments.reserve(needed);
  for (u32 i = 0; i < needed; ++i) {
    const u32 r = made.allocate(FRAGMENT_RECORD, "Failed to allocate fragment data record for new db list.");
    if (r == INVALID_RECORD) return _dataSize;
    fragments.push_back(r);
  }
  if (_dataSize) {
    std::vector<u8> data(_dataSize);
    const u32 got = read(data.data(), 0, _dataSize);
    if (got != _dataSize)
      HK_LOG(hiveLog, 4) << "Failed to read old data during resize to db list (from single or resident)";
    if (got && !_hive->writeRecord(fragments[0], data.data(), 4, got))
      HK_LOG(hiveLog, 4) << "Failed to restore old data during resize to db list (from single or resident)";
  }
  if (!writeDbList(db, list, fragments)) return _dataSize;
  made.keep();
  _extents = std::move(fragments);
  _dbListDataRecord = list;
  _dataResident = false;
  W32(_recordData + VK::OFS_DATA, db);
  return commitSize(newSize, "Failed to update vk record for resize to db list. record: ", old);
}

// ---------------------------------------------------------------- record

bool ValueObj::selfDelete() {
  Mon::Lock lock(_hive->mon());
  if (!entryChecks(Entry::change, _readOnly, _valid)) return false;
  if (!freeAllExtents()) return false;
  nameRef();  // the object keeps its name when its record is gone
  _extents.clear();
  _dbListDataRecord = INVALID_RECORD;
  _valid = false;
  const bool freed = _hive->freeRecord(_offset);
  _offset = 0;
  return freed;
}

bool ValueObj::setName(const Ref<String>& name) {
  Mon::Lock lock(_hive->mon());
  if (!entryChecks(Entry::change, _readOnly, _valid)) return false;
  std::vector<u8> stored;
  u64 length = 0;
  bool ascii = false;
  if (!name || name->length() > MAX_VALUE_NAME_LENGTH ||
      !_hive->stringToRegName(name, stored, length, ascii)) {
    Error::set(Errors::VALUE_NEW_NAME_INVALID);
    return false;
  }
  HK_ASSERT(hiveLog, length < 0x10000 && length <= stored.size(), false);

  std::vector<u8> record(VK::HEADER_SIZE + length);
  std::memcpy(record.data(), _recordData, VK::HEADER_SIZE);
  W16(record.data() + VK::OFS_NAME_LENGTH, static_cast<u16>(length));
  u16 flags = L16(record.data() + VK::OFS_FLAGS);
  flags = ascii ? (flags | VK::FLAG_COMP_NAME) : (flags & ~VK::FLAG_COMP_NAME);
  W16(record.data() + VK::OFS_FLAGS, flags);
  if (length) std::memcpy(record.data() + VK::OFS_NAME, stored.data(), length);

  const u32 moved = _hive->resizeRecord(_offset, static_cast<u32>(record.size()), true);
  if (moved == INVALID_RECORD) {
    HK_LOG(hiveLog, 4) << "Failed to resize vk record for new name. record: " << Log::hex(_offset);
    return false;
  }
  // The old place is gone once the record moved, whatever happens next.
  _offset = moved;
  if (!_hive->writeRecord(moved, record.data() + 4, 4, static_cast<u32>(record.size() - 4))) {
    HK_LOG(hiveLog, 4) << "Failed to write vk record for new name. record: " << Log::hex(moved);
    return false;
  }
  std::memcpy(_recordData, record.data(), VK::HEADER_SIZE);
  _name = name;
  if (_parent) _parent->touch();
  return true;
}

}  // namespace Libraries::Files::Hive
