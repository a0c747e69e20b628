// Value handles: reads straight from the value's records, changes through
// the engine's value objects.
#include "api/core.h"
#include "api/value_data.h"
#include "hive/format/errors.h"
#include "hive/value/value_record.h"

namespace hivekit {

using namespace detail;
using Libraries::Files::Hive::hive_record;
using Libraries::Files::Hive::ValueRecord;
using VK = Libraries::Files::Hive::hive_record_vk;
namespace Errors = Libraries::Files::Hive::Errors;

namespace {

constexpr u32 PREFETCHED = 32;  // records of a list loaded ahead (as Key::values does)

bool readRecord(const Call& call, u32 offset, ValueRecord& rec) {
  return readValueRecord(call.hive(), offset, rec);
}

std::u16string nameOf(const Call& call, u32 offset) {
  ValueRecord rec;
  std::u16string name;
  if (readRecord(call, offset, rec)) readValueName(call.hive(), rec, name);
  return name;
}

// The data as UTF-16 units (an odd last byte dropped).
std::u16string units(const std::vector<std::byte>& data) {
  std::u16string out(data.size() / 2, u'\0');
  for (size_t i = 0; i < out.size(); ++i)
    out[i] = static_cast<char16_t>(std::to_integer<unsigned>(data[2 * i]) |
                                   (std::to_integer<unsigned>(data[2 * i + 1]) << 8));
  return out;
}

Status wrongType(u32 type, const char* wanted) {
  const std::string_view name = type_name(static_cast<ValueType>(type));
  return Status(Code::wrong_type, "the value is of type " +
                                      (name.empty() ? std::to_string(type) : std::string(name)) + ", not " +
                                      wanted);
}

// Type and data of the value under a fresh call; false with `why`.
bool typedData(const CoreRef& core, u32 offset, u32& type, std::vector<std::byte>& data, Status& why) {
  Call call(core);
  if (!call.ok()) {
    why = call.status();
    return false;
  }
  return readValue(call.hive(), offset, type, data, why);
}

}  // namespace

std::string Value::name() const {
  Call call(core_);
  if (!call.ok()) return {};
  std::string out;
  if (const hive_record* vk = acceptedValueRecord(call.hive(), offset_)) {
    if ((vk->u16At(VK::OFS_FLAGS) & VK::FLAG_COMP_NAME) != 0 &&
        asciiName(vk->bytes() + VK::OFS_NAME, vk->u16At(VK::OFS_NAME_LENGTH), out))
      return out;
  }
  ValueRecord rec;
  if (!readRecord(call, offset_, rec)) return {};
  const u8* stored = call.hive().cacheLoadRecord(offset_)->bytes() + VK::OFS_NAME;
  if (rec.compressedName && asciiName(stored, rec.nameLength, out)) return out;
  std::u16string name;
  readValueName(call.hive(), rec, name);
  return toUtf8(name);
}

std::u16string Value::name_utf16() const {
  Call call(core_);
  return call.ok() ? nameOf(call, offset_) : std::u16string();
}

ValueType Value::type() const {
  Call call(core_);
  if (!call.ok()) return ValueType::none;
  if (const hive_record* vk = acceptedValueRecord(call.hive(), offset_))
    return static_cast<ValueType>(vk->u32At(VK::OFS_TYPE));
  ValueRecord rec;
  return readRecord(call, offset_, rec) ? static_cast<ValueType>(rec.type) : ValueType::none;
}

std::uint32_t Value::size() const {
  Call call(core_);
  if (!call.ok()) return 0;
  if (const hive_record* vk = acceptedValueRecord(call.hive(), offset_))
    return vk->u32At(VK::OFS_DATA_SIZE) & ~VK::DATA_RESIDENT;
  ValueRecord rec;
  return readRecord(call, offset_, rec) ? rec.dataSize : 0;
}

Result<Bytes> Value::data() const {
  Call call(core_);
  if (!call.ok()) return call.status();
  // The usual value of a read-only hive: its data in one piece, shown in
  // place. Anything else takes the full path, which says what is wrong.
  if (call.hive().recordsStable()) {
    const u8* bytes = nullptr;
    u32 size = 0;
    const hive_record* vk = acceptedValueRecord(call.hive(), offset_);
    if (vk && valueDataInPlace(call.hive(), offset_, vk, bytes, size))
      return Access::viewBytes(core_, bytes, size);
  }
  Bytes data;
  Status why;
  if (!readValueBytes(core_, call.hive(), offset_, data, why))
    return Result<Bytes>(std::move(data), std::move(why));
  return data;
}

Result<Bytes> Value::read(std::uint32_t offset, std::uint32_t max_bytes) const {
  Call call(core_);
  if (!call.ok()) return call.status();
  u32 type = 0;
  std::vector<std::byte> data;
  Status why;
  if (!readValue(call.hive(), offset_, type, data, why, offset, max_bytes))
    return Result<Bytes>(Bytes(std::move(data)), std::move(why));
  return Bytes(std::move(data));
}

Result<std::string> Value::string() const {
  u32 type = 0;
  std::vector<std::byte> data;
  Status why;
  if (!typedData(core_, offset_, type, data, why)) return why;
  if (type != static_cast<u32>(ValueType::sz) && type != static_cast<u32>(ValueType::expand_sz))
    return wrongType(type, "REG_SZ or REG_EXPAND_SZ");
  std::u16string text = units(data);
  const size_t end = text.find(u'\0');
  if (end != std::u16string::npos) text.resize(end);
  return toUtf8(text);
}

Result<std::vector<std::string>> Value::multi_string() const {
  u32 type = 0;
  std::vector<std::byte> data;
  Status why;
  if (!typedData(core_, offset_, type, data, why)) return why;
  if (type != static_cast<u32>(ValueType::multi_sz)) return wrongType(type, "REG_MULTI_SZ");
  std::u16string text = units(data);
  // The last string's terminator, then the list's.
  for (int i = 0; i < 2 && !text.empty() && text.back() == u'\0'; ++i) text.pop_back();
  std::vector<std::string> out;
  if (text.empty()) return out;
  size_t start = 0;
  while (true) {
    const size_t end = text.find(u'\0', start);
    out.push_back(toUtf8(std::u16string_view(text).substr(start, end - start)));
    if (end == std::u16string::npos) break;
    start = end + 1;
  }
  return out;
}

Result<std::uint32_t> Value::dword() const {
  u32 type = 0;
  std::vector<std::byte> data;
  Status why;
  if (!typedData(core_, offset_, type, data, why)) return why;
  const bool big = type == static_cast<u32>(ValueType::dword_big_endian);
  if (type != static_cast<u32>(ValueType::dword) && !big) return wrongType(type, "REG_DWORD");
  if (data.size() != 4)
    return Status(Code::wrong_type,
                  "a DWORD value of " + std::to_string(data.size()) + " bytes instead of 4");
  std::uint32_t n = 0;
  for (int i = 0; i < 4; ++i) n |= std::to_integer<std::uint32_t>(data[i]) << (big ? 24 - 8 * i : 8 * i);
  return n;
}

Result<std::uint64_t> Value::qword() const {
  u32 type = 0;
  std::vector<std::byte> data;
  Status why;
  if (!typedData(core_, offset_, type, data, why)) return why;
  if (type != static_cast<u32>(ValueType::qword)) return wrongType(type, "REG_QWORD");
  if (data.size() != 8)
    return Status(Code::wrong_type,
                  "a QWORD value of " + std::to_string(data.size()) + " bytes instead of 8");
  std::uint64_t n = 0;
  for (int i = 0; i < 8; ++i) n |= std::to_integer<std::uint64_t>(data[i]) << (8 * i);
  return n;
}

Result<std::string> Value::link() const {
  u32 type = 0;
  std::vector<std::byte> data;
  Status why;
  if (!typedData(core_, offset_, type, data, why)) return why;
  if (type != static_cast<u32>(ValueType::link)) return wrongType(type, "REG_LINK");
  return toUtf8(units(data));
}

Status Value::set(ValueType type, std::span<const std::byte> data) {
  Call call(core_);
  if (!call.writable()) return call.status();
  return call.atomically([&]() -> Status {
    Status why;
    Ref<ValueObj> v = call.core().valueObject(key_, offset_, why);
    if (!v) return why;
    return replaceValueData(*v, static_cast<u32>(type), data);
  });
}

Status Value::set_string(std::string_view text, ValueType type) {
  return set(type, encodeString(text, type));
}

Status Value::set_multi_string(std::span<const std::string> strings) {
  return set(ValueType::multi_sz, encodeMultiString(strings));
}

Status Value::set_dword(std::uint32_t number, ValueType type) {
  return set(type, encodeDword(number, type));
}

Status Value::set_qword(std::uint64_t number) {
  return set(ValueType::qword, encodeQword(number));
}

Status Value::rename(std::string_view new_name) {
  return move_to(key(), new_name);
}

Status Value::move_to(const Key& key) {
  const std::string name = this->name();
  return move_to(key, name);
}

Status Value::move_to(const Key& key, std::string_view new_name) {
  Call call(core_);
  if (!call.writable()) return call.status();
  return call.atomically([&]() -> Status {
    if (!(Access::ref(key) == core_)) return Status(Code::invalid_argument, "the key is of another hive");
    Status why;
    Ref<ValueObj> v = call.core().valueObject(key_, offset_, why);
    if (!v) return why;
    Ref<KeyObj> target = call.core().keyObject(key.offset(), why);
    if (!target) return why;
    Platform::Error::clear();
    if (!target->move(Ref<Interfaces::Config::Hive::Value>(v),
                      Platform::String::fromUtf16(toUtf16(new_name)))) {
      if (Platform::Error::get() == Errors::MOVE_VALUE_EXISTS ||
          Platform::Error::get() == Errors::VALUE_EXISTS)
        return Status(Code::already_exists, "a value named " + quoted(new_name) + " exists already");
      return engineStatus("cannot move the value to " + quoted(new_name), Code::internal);
    }
    offset_ = v->offset();
    key_ = key.offset();
    return Status();
  });
}

Status Value::remove() {
  Call call(core_);
  if (!call.writable()) return call.status();
  return call.atomically([&]() -> Status {
    Status why;
    Ref<ValueObj> v = call.core().valueObject(key_, offset_, why);
    if (!v) return why;
    Ref<KeyObj> key = call.core().keyObject(key_, why);
    if (!key) return why;
    Platform::Error::clear();
    if (!key->deleteValue(Ref<Interfaces::Config::Hive::Value>(v)))
      return engineStatus("cannot delete the value", Code::internal);
    *this = Value();
    return Status();
  });
}

Key Value::key() const {
  return core_ ? Access::makeKey(core_, key_) : Key();
}

Values::iterator Values::begin() {
  iterator it;
  it.owner_ = this;
  it.index_ = static_cast<std::uint32_t>(-1);
  advance(it);
  return it;
}

void Values::advance(iterator& it) {
  Call call(core_);
  const u32 end = count_;
  u32 i = it.index_ + 1;
  u32 at = 0;
  if (call.ok()) {
    for (; i < end; ++i) {
      at = Access::entryOf(*this, i);
      // Key::values started the loads of the first records; this keeps
      // them ahead on a long list.
      if (i + PREFETCHED < end) call.hive().prefetchRecord(Access::entryOf(*this, i + PREFETCHED));
      // The data is what a walk asks for next.
      if (const hive_record* vk = acceptedValueRecord(call.hive(), at)) {
        const u32 cell = valueDataCell(vk);
        if (cell != Libraries::Files::Hive::INVALID_RECORD) call.hive().prefetchRecord(cell);
        break;
      }
      ValueRecord rec;
      if (readValueRecord(call.hive(), at, rec)) {
        if (!rec.resident) call.hive().prefetchRecord(rec.dataCell());
        break;
      }
      ++skipped_;
    }
  } else {
    i = end;
  }
  it.index_ = i;
  if (i < end)
    Access::setValue(it.current_, core_, at, key_);
  else
    it.current_ = Value();
}

}  // namespace hivekit
