// ValueObj: one value (vk record) of an open hive and its data.
//
// Data lives in one of three forms, chosen by size and hive version:
// resident in the vk record (0-4 bytes), one data record, or a db list of
// 16344-byte fragments (size above 16344, hives of minor version >= 4;
// minor version 3 keeps up to 1048572 bytes in one record). read, write
// and size(newSize) move data between the forms as the size changes.
#pragma once

#include <vector>

#include "hive/entry_checks.h"
#include "hive/registry_hive.h"
#include "hive/value/value_owner.h"
#include "hive/value/value_record.h"

namespace Libraries::Files::Hive {

class ValueObj : public Value {
 public:
  static constexpr u32 MAX_VALUE_DATA_SIZE = 1048572;
  static constexpr u32 MAX_VALUE_NAME_LENGTH = 16383;

  // Always makes the object; valid() tells whether it may be used.
  ValueObj(Ref<RegistryHiveObj> hive, u32 offset, Ref<ValueOwner> parent);
  ~ValueObj() override;

  // Makes a new vk record (not yet linked into a key's list); null on failure.
  static Ref<ValueObj> createValue(Ref<RegistryHiveObj> hive, Ref<ValueOwner> parent, Ref<String> name,
                                   ValueType type);
  // Initial data size of a new value of this type (4, 8 or 0).
  static u32 datasizeFormType(ValueType type);

  // Value
  // Reads of the fields a rename, setType or delete changes take the
  // monitor too: another thread may hold the same object.
  Ref<String> name() override;
  ValueType type() override {
    Mon::Lock lock(_hive->mon());
    return _type;
  }
  bool setType(ValueType type) override;
  Ref<Interfaces::Stripe> binary() override;
  Ref<String> string(u32 maxLength) override;
  bool setString(Ref<String> text) override;
  u64 number() override;
  bool setNumber(u64 number) override;
  Ref<TVector<Ref<String>>> strings(u32 maxLength) override;
  bool setStrings(Ref<TVector<Ref<String>>> strings) override;
  bool readOnly() override {
    Mon::Lock lock(_hive->mon());
    return !_valid || _readOnly;
  }

  // Bytes moved from / to the data at `offset`; never grows the value.
  u32 read(void* buffer, u32 offset, u32 size);
  u32 write(const void* buffer, u32 offset, u32 size);
  u32 size() const {
    Mon::Lock lock(_hive->mon());
    return _dataSize;
  }
  // Resizes the data; returns the size that holds afterwards.
  u32 size(u32 newSize);
  bool selfDelete();
  bool setName(const Ref<String>& name);

  bool valid() const { return _valid; }
  u32 offset() const { return _offset; }
  // The decoded name, read from the record the first time (callers hold
  // the monitor).
  const Ref<String>& nameRef();
  bool resident() const { return _dataResident; }
  bool resizableAsStripe() const {
    Mon::Lock lock(_hive->mon());
    return _resizable;
  }
  const Ref<RegistryHiveObj>& hive() const { return _hive; }
  const Ref<ValueOwner>& parent() const { return _parent; }
  void setParent(Ref<ValueOwner> parent) { _parent = std::move(parent); }

 private:
  bool initExtents();
  // The object's fields as the record readers take them.
  ValueRecord asRecord() const;
  // The data's records are loaded and hold _dataSize bytes (true when
  // resident); sets the error otherwise. Call before allocating for the data.
  bool storageHolds();
  // Makes the data exactly `bytes` (sized, then written); `what` names the
  // data in the log. Clears the error on success.
  bool replaceData(const std::vector<u8>& bytes, const char* what);
  // The first `units` UTF-16 units of the data; false (error set) when they
  // cannot all be read.
  bool readText(u32 units, std::u16string& text);
  // The width of a number value's data (4 or 8) after the entry checks; 0
  // (error set) when a check fails or the data is not that wide.
  u32 numberWidth(Entry entry);
  bool freeAllExtents();
  u32 resizeDbList(u32 newSize);
  // The two cases of resizeDbList: a db list already, or data of at most
  // one fragment moving into one.
  u32 resizeDbForm(u32 newSize);
  u32 convertToDbForm(u32 newSize);
  // The other cases of size(newSize); `keep` bytes of data carry over.
  u32 resizeToResident(u32 newSize, u32 keep);
  u32 moveToOneRecord(u32 newSize, u32 keep);
  bool writeRecordData();  // the 20 bytes from offset 4 of the vk record
  u32 extentCapacity() const;
  // The data lies in a db list (minor version 4 and up, above 16344 bytes).
  bool inDbForm() const;
  // Every record of the current storage (extents, then db and fragment list
  // records); false when the storage cannot be loaded.
  bool storageRecords(std::vector<u32>& records);
  // Frees each record; false when any could not be freed.
  bool freeRecords(const std::vector<u32>& records);
  // Sets the data size (and resident bit), rewrites the vk record, then
  // frees the records the old storage no longer needs; returns the size.
  u32 commitSize(u32 newSize, const char* failure, const std::vector<u32>& retired = {});
  bool writeDbList(u32 dbRecord, u32 listRecord, const std::vector<u32>& fragments);
  template <class Piece>
  u32 walkExtents(u32 offset, u32 count, Piece piece);

  std::vector<u32> _extents;
  Ref<RegistryHiveObj> _hive;
  Ref<ValueOwner> _parent;
  Ref<String> _name;
  u8 _recordData[hive_record_vk::HEADER_SIZE] = {};  // the fixed part as on disk
  u32 _offset;
  u32 _dataSize = 0;
  u32 _type = 0;
  u32 _dbListDataRecord = INVALID_RECORD;
  bool _dataResident = false, _valid = false, _isV13 = false, _readOnly = false, _resizable = false;
};

}  // namespace Libraries::Files::Hive
