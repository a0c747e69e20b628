// Key handles: reads straight from the key's record (no object per key),
// changes through the engine's key objects.
#include "api/core.h"
#include "api/value_data.h"
#include "hive/format/errors.h"
#include "hive/key/key_record.h"
#include "hive/key/subkey_search.h"
#include "hive/util/util.h"
#include "hive/value/value_record.h"
#include "platform/string.h"

namespace hivekit {

using namespace detail;
using Libraries::Files::Hive::KeyRecord;
using Libraries::Files::Hive::SubkeyEntry;
using Libraries::Files::Hive::SubkeyList;
using Libraries::Files::Hive::SubkeySearch;
using Libraries::Files::Hive::Util;
using Libraries::Files::Hive::ValueRecord;
using Platform::String;
namespace Errors = Libraries::Files::Hive::Errors;

namespace {

// The key's record, read under `call`; false with `why` set.
bool readKey(const Call& call, u32 offset, KeyRecord& rec, Status* why = nullptr) {
  if (const Libraries::Files::Hive::hive_record* nk = acceptedKeyRecord(call.hive(), offset))
    return parseKeyRecord(nk->bytes(), nk->length(), offset, rec);
  if (readKeyRecord(call.hive(), offset, rec)) return true;
  if (why) *why = engineStatus("cannot read the key", Code::corrupt);
  return false;
}

std::u16string nameOf(const Call& call, u32 offset) {
  if (offset == call.hive().rootOffset()) return {};
  KeyRecord rec;
  std::u16string name;
  if (readKey(call, offset, rec)) readKeyName(call.hive(), rec, name);
  return name;
}

Ref<String> engineName(std::string_view name) {
  return String::fromUtf16(toUtf16(name));
}

// The subkey `name` of `key`, through the engine's own search (binary
// search by upper-cased name, the linear fallback when asked for).
Result<Ref<KeyObj>> lookup(const Ref<KeyObj>& key, std::string_view name, const std::string& walked) {
  Platform::Error::clear();
  Ref<KeyObj> found = key->key(engineName(name)).cast<KeyObj>();
  if (found) return found;
  if (Platform::Error::get() == Errors::KEY_NOT_FOUND || Platform::Error::get() == 0)
    return Status(Code::key_not_found, "key not found: " + quoted(walked));
  return engineStatus("cannot look up " + quoted(walked), Code::corrupt);
}

// A read-only hive is searched in its records, with the engine's one search
// and its one reading of names, but without a key object per level: the
// entries of one subkey list as the search reads them.
class RecordNames final : public Libraries::Files::Hive::SubkeyNames {
 public:
  RecordNames(RegistryHiveObj& hive, const std::vector<SubkeyEntry>& entries)
      : _hive(hive), _entries(entries) {}
  bool compare(u32 index, const std::u16string& upcased, int& order) override {
    return compareKeyName(_hive, _entries[index].offset, upcased, order);
  }
  // As a key object made for the entry would name it.
  bool name(u32 index, Ref<String>& out) override {
    KeyRecord rec;
    if (!readKeyRecord(_hive, _entries[index].offset, rec)) return false;
    std::u16string name;
    readKeyName(_hive, rec, name);
    out = String::fromUtf16(std::move(name));
    return true;
  }

 private:
  RegistryHiveObj& _hive;
  const std::vector<SubkeyEntry>& _entries;
};

// The subkey `name` of the key at `parent` of a read-only hive, as
// lookup() finds it through the key objects of a writable one.
Result<u32> lookupInRecords(RegistryHiveObj& hive, u32 parent, std::string_view name,
                            const std::string& walked) {
  Platform::Error::clear();
  KeyRecord rec;
  SubkeyList list;
  if (!readKeyRecord(hive, parent, rec) || !loadSubkeyList(hive, rec, list))
    return engineStatus("cannot look up " + quoted(walked), Code::corrupt);
  RecordNames names(hive, list.entries);
  u32 position = 0;
  const u32 count = rec.numKeys == 0 ? 0 : static_cast<u32>(list.entries.size());
  if (binaryFindSubkey(hive, parent, count, engineName(name), names, position) == SubkeySearch::found) {
    KeyRecord found;
    if (readKeyRecord(hive, list.entries[position].offset, found)) return found.offset;
    HK_LOG(Libraries::Files::Hive::hiveLog, 4) << "Failed to open sub key for binary search. key: " << parent;
  }
  if (Platform::Error::get() == Errors::KEY_NOT_FOUND || Platform::Error::get() == 0)
    return Status(Code::key_not_found, "key not found: " + quoted(walked));
  return engineStatus("cannot look up " + quoted(walked), Code::corrupt);
}

// The value `name` of the key at `key` of a read-only hive, as
// KeyObj::value finds it: the first in list order whose record makes a
// value and whose name equals it, letter case aside.
Result<u32> valueInRecords(RegistryHiveObj& hive, u32 key, std::string_view name) {
  KeyRecord rec;
  std::vector<u32> offsets;
  if (!readKeyRecord(hive, key, rec)) return engineStatus("cannot read the key", Code::corrupt);
  if (!loadValueList(hive, rec, offsets))
    return engineStatus("cannot look up value " + quoted(name), Code::corrupt);
  const std::u16string sought = engineName(name)->upperUnits();
  std::u16string upcased(sought);
  for (char16_t& c : upcased) c = String::upcase(c);
  for (u32 vk : offsets) {
    int order = 0;
    if (compareValueName(hive, vk, upcased, order) && order != 0) continue;
    ValueRecord value;
    std::u16string valueName;
    if (!readValueRecord(hive, vk, value)) continue;
    readValueName(hive, value, valueName);
    for (char16_t& c : valueName) c = String::upcase(c);
    if (valueName == sought) return vk;
  }
  return Status(Code::value_not_found, "value not found: " + quoted(name));
}

// The records a list names, which an iteration reads one after the other:
// loads started together overlap their cache misses.
constexpr u32 PREFETCHED = 32;  // records of a list loaded ahead

// `span` bytes of each: the fixed part of an nk record (80 bytes) most
// often spans two cache lines, that of a vk record (24) one.
void prefetchEntries(const RegistryHiveObj& hive, const u8* items, u32 stride, u32 count, u32 span) {
  for (u32 i = 0; i < count && i < PREFETCHED; ++i) {
    const u32 offset = Platform::L32(items + i * stride);
    for (u32 at = 0; at < span; at += 64) hive.prefetchRecord(offset + at);
  }
}

// Deletes the keys this call created, deepest first (a failed create_key
// leaves the hive as it was).
}  // namespace

std::string Key::name() const {
  Call call(core_);
  if (!call.ok() || offset_ == call.hive().rootOffset()) return {};
  KeyRecord rec;
  const Libraries::Files::Hive::hive_record* record = acceptedKeyRecord(call.hive(), offset_);
  if (record ? !parseKeyRecord(record->bytes(), record->length(), offset_, rec)
             : !readKeyRecord(call.hive(), offset_, rec, &record))
    return {};
  std::string out;
  if (rec.compressedName() &&
      asciiName(record->bytes() + Libraries::Files::Hive::hive_record_nk::OFS_NAME, rec.nameLength, out))
    return out;
  std::u16string name;
  readKeyName(call.hive(), rec, name);
  return toUtf8(name);
}

std::u16string Key::name_utf16() const {
  Call call(core_);
  return call.ok() ? nameOf(call, offset_) : std::u16string();
}

std::string Key::path() const {
  Call call(core_);
  if (!call.ok()) return {};
  RegistryHiveObj& hive = call.hive();
  std::vector<std::u16string> names;
  std::vector<u32> seen;
  bool broken = false;
  for (u32 at = offset_; at != hive.rootOffset();) {
    KeyRecord rec;
    if (seen.size() >= Util::MAX_TREE_DEPTH || std::find(seen.begin(), seen.end(), at) != seen.end() ||
        !readKeyRecord(hive, at, rec)) {
      broken = true;
      break;
    }
    seen.push_back(at);
    std::u16string name;
    readKeyName(hive, rec, name);
    names.push_back(std::move(name));
    at = rec.parent;
  }
  std::string out = broken ? "\\?" : "";
  for (auto it = names.rbegin(); it != names.rend(); ++it) {
    out.push_back('\\');
    out.append(toUtf8(*it));
  }
  return out.empty() ? "\\" : out;
}

FileTime Key::last_write() const {
  Call call(core_);
  KeyRecord rec;
  return call.ok() && readKey(call, offset_, rec) ? rec.lastWriteTime : 0;
}

std::string Key::class_name() const {
  Call call(core_);
  KeyRecord rec;
  std::u16string text;
  if (call.ok() && readKey(call, offset_, rec)) readKeyClass(call.hive(), rec, text);
  return toUtf8(text);
}

std::uint32_t Key::subkey_count() const {
  Call call(core_);
  KeyRecord rec;
  return call.ok() && readKey(call, offset_, rec) ? rec.numKeys : 0;
}

std::uint32_t Key::value_count() const {
  Call call(core_);
  KeyRecord rec;
  return call.ok() && readKey(call, offset_, rec) ? rec.numValues : 0;
}

Subkeys Key::subkeys() const {
  Call call(core_);
  if (!call.ok()) return Access::makeSubkeys(core_, {}, call.status());
  KeyRecord rec;
  Status why;
  if (!readKey(call, offset_, rec, &why)) return Access::makeSubkeys(core_, {}, why);
  // A walk asks for the subkeys of every key: a read-only hive's list is
  // read where it lies, when it is one record.
  Libraries::Files::Hive::SubkeyListView view;
  if (call.hive().recordsStable() && viewSubkeyList(call.hive(), rec, view)) {
    prefetchEntries(call.hive(), view.items, view.stride, view.count, 80);
    return Access::viewSubkeys(core_, view.items, view.stride, view.count);
  }
  SubkeyList list;
  if (!loadSubkeyList(call.hive(), rec, list))
    return Access::makeSubkeys(core_, {}, engineStatus("cannot read the subkey list", Code::corrupt));
  std::vector<u32> offsets(list.entries.size());
  for (size_t i = 0; i < offsets.size(); ++i) offsets[i] = list.entries[i].offset;
  return Access::makeSubkeys(core_, std::move(offsets), Status());
}

Values Key::values() const {
  Call call(core_);
  if (!call.ok()) return Access::makeValues(core_, offset_, {}, call.status());
  KeyRecord rec;
  Status why;
  if (!readKey(call, offset_, rec, &why)) return Access::makeValues(core_, offset_, {}, why);
  if (call.hive().recordsStable()) {
    bool failed = false;
    const Libraries::Files::Hive::hive_record* list = valueListRecord(call.hive(), rec, failed);
    if (list) {
      prefetchEntries(call.hive(), list->bytes() + 4, 4, rec.numValues, 24);
      return Access::viewValues(core_, offset_, list->bytes() + 4, rec.numValues);
    }
    if (!failed) return Access::makeValues(core_, offset_, {}, Status());
    return Access::makeValues(core_, offset_, {}, engineStatus("cannot read the value list", Code::corrupt));
  }
  std::vector<u32> offsets;
  if (!loadValueList(call.hive(), rec, offsets))
    return Access::makeValues(core_, offset_, {}, engineStatus("cannot read the value list", Code::corrupt));
  return Access::makeValues(core_, offset_, std::move(offsets), Status());
}

Result<Key> Key::subkey(std::string_view name) const {
  if (name.empty()) return Status(Code::invalid_argument, "empty key name");
  Call call(core_);
  if (!call.ok()) return call.status();
  if (!call.core().writable()) {
    Result<u32> found = lookupInRecords(call.hive(), offset_, name, std::string(name));
    if (!found) return found.status();
    return Access::makeKey(core_, *found);
  }
  Status why;
  Ref<KeyObj> key = call.core().keyObject(offset_, why);
  if (!key) return why;
  Result<Ref<KeyObj>> found = lookup(key, name, std::string(name));
  if (!found) return found.status();
  call.core().remember(*found);
  return Access::makeKey(core_, (*found)->offset());
}

Result<std::vector<std::string>> split_path(std::string_view path) {
  std::vector<std::string_view> parts;
  if (!splitPath(path, parts))
    return Status(Code::invalid_argument, "empty name in key path " + quoted(path));
  return std::vector<std::string>(parts.begin(), parts.end());
}

Result<Key> Key::key(std::string_view path) const {
  Call call(core_);
  if (!call.ok()) return call.status();
  std::vector<std::string_view> parts;
  if (!splitPath(path, parts))
    return Status(Code::invalid_argument, "empty name in key path " + quoted(path));
  if (parts.empty()) return *this;
  std::string walked;
  if (!call.core().writable()) {
    u32 at = offset_;
    for (std::string_view part : parts) {
      walked += walked.empty() ? "" : "\\";
      walked += part;
      Result<u32> next = lookupInRecords(call.hive(), at, part, walked);
      if (!next) return next.status();
      at = *next;
    }
    return Access::makeKey(core_, at);
  }
  Status why;
  Ref<KeyObj> key = call.core().keyObject(offset_, why);
  if (!key) return why;
  for (std::string_view part : parts) {
    walked += walked.empty() ? "" : "\\";
    walked += part;
    Result<Ref<KeyObj>> next = lookup(key, part, walked);
    if (!next) return next.status();
    key = std::move(*next);
  }
  call.core().remember(key);
  return Access::makeKey(core_, key->offset());
}

Result<Key> Key::parent() const {
  Call call(core_);
  if (!call.ok()) return call.status();
  if (offset_ == call.hive().rootOffset()) return Status(Code::key_not_found, "the root key has no parent");
  KeyRecord rec, up;
  Status why;
  if (!readKey(call, offset_, rec, &why)) return why;
  if (!readKey(call, rec.parent, up, &why)) return why;
  return Access::makeKey(core_, rec.parent);
}

Result<Value> Key::value(std::string_view name) const {
  Call call(core_);
  if (!call.ok()) return call.status();
  if (!call.core().writable()) {
    Result<u32> found = valueInRecords(call.hive(), offset_, name);
    if (!found) return found.status();
    return Access::makeValue(core_, *found, offset_);
  }
  Status why;
  Ref<KeyObj> key = call.core().keyObject(offset_, why);
  if (!key) return why;
  Platform::Error::clear();
  Ref<ValueObj> v = key->value(engineName(name)).cast<ValueObj>();
  if (v) return Access::makeValue(core_, v->offset(), offset_);
  if (Platform::Error::get() == Errors::VALUE_NOT_FOUND || Platform::Error::get() == 0)
    return Status(Code::value_not_found, "value not found: " + quoted(name));
  return engineStatus("cannot look up value " + quoted(name), Code::corrupt);
}

Result<SecurityDescriptor> Key::security_descriptor() const {
  Call call(core_);
  if (!call.ok()) return call.status();
  KeyRecord rec;
  Status why;
  if (!readKey(call, offset_, rec, &why)) return why;
  const Libraries::Files::Hive::hive_record* sk = call.hive().cacheLoadRecord(rec.sk);
  if (!sk || sk->signature() != Libraries::Files::Hive::hive_record_sk::SIGNATURE)
    return engineStatus("the key's security record cannot be read", Code::corrupt);
  return Access::makeSecurityDescriptor(core_, rec.sk);
}

Result<Key> Key::create_key(std::string_view path) {
  Call call(core_);
  if (!call.writable()) return call.status();
  return call.atomically([&]() -> Result<Key> {
    std::vector<std::string_view> parts;
    if (!splitPath(path, parts))
      return Status(Code::invalid_argument, "empty name in key path " + quoted(path));
    Status why;
    Ref<KeyObj> key = call.core().keyObject(offset_, why);
    if (!key) return why;
    for (std::string_view part : parts) {
      if (toUtf16(part).size() > KeyObj::MAX_KEY_NAME_LENGTH) {
        return Status(Code::too_large, "key name longer than 255 characters: " + quoted(part));
      }
      Ref<String> name = engineName(part);
      Platform::Error::clear();
      Ref<KeyObj> next = key->key(name).cast<KeyObj>();
      if (!next) {
        if (Platform::Error::get() != Errors::KEY_NOT_FOUND && Platform::Error::get() != 0) {
          return engineStatus("cannot look up " + quoted(part), Code::corrupt);
        }
        Platform::Error::clear();
        next = key->createKey(name).cast<KeyObj>();
        if (!next) {
          return engineStatus("cannot create key " + quoted(part), Code::internal);
        }
      }
      key = next;
    }
    return Access::makeKey(core_, key->offset());
  });
}

Status Key::delete_key(std::string_view path, bool recursive) {
  Call call(core_);
  if (!call.writable()) return call.status();
  return call.atomically([&]() -> Status {
    std::vector<std::string_view> parts;
    if (!splitPath(path, parts))
      return Status(Code::invalid_argument, "empty name in key path " + quoted(path));
    if (parts.empty()) return Status(Code::invalid_argument, "no key named to delete");
    Status why;
    Ref<KeyObj> parent = call.core().keyObject(offset_, why);
    if (!parent) return why;
    for (size_t i = 0; i + 1 < parts.size(); ++i) {
      Ref<KeyObj> next = parent->key(engineName(parts[i])).cast<KeyObj>();
      if (!next) return Status(Code::key_not_found, "key not found: " + quoted(path));
      parent = next;
    }
    Platform::Error::clear();
    Ref<KeyObj> victim = parent->key(engineName(parts.back())).cast<KeyObj>();
    if (!victim) return Status(Code::key_not_found, "key not found: " + quoted(path));
    Platform::Error::clear();
    const bool deleted = recursive ? Util::recursiveKeyDelete(parent, victim) : parent->deleteKey(victim);
    call.core().forgetObjects();
    if (!deleted) {
      if (Platform::Error::get() == Errors::KEY_NOT_EMPTY)
        return Status(Code::not_empty,
                      "key " + quoted(path) + " has subkeys or values (delete it recursively)");
      return engineStatus("cannot delete key " + quoted(path), Code::internal);
    }
    return Status();
  });
}

Status Key::rename(std::string_view new_name) {
  Call call(core_);
  if (!call.writable()) return call.status();
  if (offset_ == call.hive().rootOffset())
    return Status(Code::invalid_argument, "the root key cannot be renamed");
  Status why;
  Ref<KeyObj> key = call.core().keyObject(offset_, why);
  if (!key) return why;
  Ref<KeyObj> parent = key->parent();
  if (!parent) return Status(Code::invalid_argument, "the root key cannot be renamed");
  return move_to(Access::makeKey(core_, parent->offset()), new_name);
}

Status Key::move_to(const Key& new_parent) {
  const std::string name = this->name();
  return move_to(new_parent, name);
}

Status Key::move_to(const Key& new_parent, std::string_view new_name) {
  Call call(core_);
  if (!call.writable()) return call.status();
  return call.atomically([&]() -> Status {
    if (!(new_parent.core_ == core_))
      return Status(Code::invalid_argument, "the new parent is of another hive");
    if (offset_ == call.hive().rootOffset())
      return Status(Code::invalid_argument, "the root key cannot be moved");
    if (new_name.empty()) return Status(Code::invalid_argument, "empty key name");
    if (toUtf16(new_name).size() > KeyObj::MAX_KEY_NAME_LENGTH)
      return Status(Code::too_large, "key name longer than 255 characters: " + quoted(new_name));
    Status why;
    Ref<KeyObj> key = call.core().keyObject(offset_, why);
    if (!key) return why;
    Ref<KeyObj> target = call.core().keyObject(new_parent.offset_, why);
    if (!target) return why;
    Platform::Error::clear();
    if (!target->move(Ref<Interfaces::Config::Hive::Key>(key), engineName(new_name))) {
      if (Platform::Error::get() == Errors::MOVE_NESTED)
        return Status(Code::invalid_argument, "a key cannot be moved below itself");
      if (Platform::Error::get() == Errors::MOVE_NAME_EXISTS || Platform::Error::get() == Errors::KEY_EXISTS)
        return Status(Code::already_exists, "a key named " + quoted(new_name) + " exists there already");
      return engineStatus("cannot move key to " + quoted(new_name), Code::internal);
    }
    // A new name may have moved the record; this handle follows it.
    offset_ = key->offset();
    call.core().forgetObjects();
    return Status();
  });
}

Result<Value> Key::set_value(std::string_view name, ValueType type, std::span<const std::byte> data) {
  Call call(core_);
  if (!call.writable()) return call.status();
  return call.atomically([&]() -> Result<Value> {
    Status why;
    Ref<KeyObj> key = call.core().keyObject(offset_, why);
    if (!key) return why;
    Ref<ValueObj> value;
    Status s = setValueData(*key, name, static_cast<u32>(type), data, value);
    if (!s) return s;
    return Access::makeValue(core_, value->offset(), offset_);
  });
}

Result<Value> Key::set_string(std::string_view name, std::string_view text, ValueType type) {
  return set_value(name, type, encodeString(text, type));
}

Result<Value> Key::set_multi_string(std::string_view name, std::span<const std::string> strings) {
  return set_value(name, ValueType::multi_sz, encodeMultiString(strings));
}

Result<Value> Key::set_dword(std::string_view name, std::uint32_t number, ValueType type) {
  return set_value(name, type, encodeDword(number, type));
}

Result<Value> Key::set_qword(std::string_view name, std::uint64_t number) {
  return set_value(name, ValueType::qword, encodeQword(number));
}

Status Key::delete_value(std::string_view name) {
  Call call(core_);
  if (!call.writable()) return call.status();
  return call.atomically([&]() -> Status {
    Status why;
    Ref<KeyObj> key = call.core().keyObject(offset_, why);
    if (!key) return why;
    Ref<Interfaces::Config::Hive::Value> v = key->value(engineName(name));
    if (!v) return Status(Code::value_not_found, "value not found: " + quoted(name));
    Platform::Error::clear();
    if (!key->deleteValue(v)) return engineStatus("cannot delete value " + quoted(name), Code::internal);
    return Status();
  });
}

Status Key::set_security_descriptor(std::span<const std::byte> descriptor) {
  Call call(core_);
  if (!call.writable()) return call.status();
  return call.atomically([&]() -> Status {
    Status why;
    Ref<KeyObj> key = call.core().keyObject(offset_, why);
    if (!key) return why;
    Platform::Error::clear();
    if (!key->setSecurityDescriptor(reinterpret_cast<const u8*>(descriptor.data()),
                                    static_cast<u32>(descriptor.size())))
      return engineStatus("cannot set the key's security descriptor", Code::internal);
    return Status();
  });
}

Subkeys::iterator Subkeys::begin() {
  iterator it;
  it.owner_ = this;
  it.index_ = static_cast<std::uint32_t>(-1);
  advance(it);
  return it;
}

void Subkeys::advance(iterator& it) {
  Call call(core_);
  const u32 end = count_;
  u32 i = it.index_ + 1;
  u32 at = 0;
  if (call.ok()) {
    for (; i < end; ++i) {
      at = Access::entryOf(*this, i);
      if (i + PREFETCHED < end) {
        const u32 ahead = Access::entryOf(*this, i + PREFETCHED);
        call.hive().prefetchRecord(ahead);
        call.hive().prefetchRecord(ahead + 64);
      }
      KeyRecord rec;
      if (acceptedKeyRecord(call.hive(), at) || readKeyRecord(call.hive(), at, rec)) break;
      ++skipped_;
    }
  } else {
    i = end;
  }
  it.index_ = i;
  if (i < end)
    Access::setKey(it.current_, core_, at);
  else
    it.current_ = Key();
}

}  // namespace hivekit
