#include "api/value_data.h"

#include <algorithm>

#include "hive/format/errors.h"
#include "hive/value/value_limits.h"
#include "hive/value/value_record.h"
#include "platform/string.h"

namespace hivekit::detail {

using Libraries::Files::Hive::ValueDataPlace;
using Libraries::Files::Hive::ValueExtents;
using Libraries::Files::Hive::ValueRecord;
namespace Errors = Libraries::Files::Hive::Errors;
namespace Types = Interfaces::Config::Hive::ValueTypes;

bool readValue(RegistryHiveObj& hive, u32 offset, u32& type, std::vector<std::byte>& data, Status& why,
               u32 from, u32 maxBytes) {
  data.clear();
  ValueRecord rec;
  if (!readValueRecord(hive, offset, rec)) {
    why = engineStatus("cannot read the value", Code::corrupt);
    return false;
  }
  type = rec.type;
  ValueExtents extents;
  // The size comes from the file: allocate for it only once the data
  // records are known to hold that much (which bounds it by the file).
  if (!rec.resident && !loadValueExtents(hive, rec, extents)) {
    why = engineStatus("cannot read the value's data", Code::corrupt);
    return false;
  }
  const u32 want = from >= rec.dataSize ? 0 : std::min(maxBytes, rec.dataSize - from);
  data.resize(want);
  const u32 got = readValueData(hive, rec, extents.extents, from, data.data(), want);
  if (got != want) {
    data.resize(got);
    why = engineStatus("the value's data could not be read completely", Code::corrupt);
    return false;
  }
  return true;
}

bool readValueBytes(const CoreRef& core, RegistryHiveObj& hive, u32 offset, Bytes& out, Status& why) {
  if (hive.recordsStable()) {
    ValueRecord rec;
    if (!readValueRecord(hive, offset, rec)) {
      why = engineStatus("cannot read the value", Code::corrupt);
      out = Bytes();
      return false;
    }
    const u8* data = nullptr;
    switch (locateValueData(hive, rec, data)) {
      case ValueDataPlace::inPlace:
        out = Access::viewBytes(core, data, rec.dataSize);
        return true;
      case ValueDataPlace::damaged:
        why = engineStatus("cannot read the value's data", Code::corrupt);
        out = Bytes();
        return false;
      case ValueDataPlace::fragments:
        break;
    }
  }
  u32 type = 0;
  std::vector<std::byte> data;
  const bool ok = readValue(hive, offset, type, data, why);
  out = Bytes(std::move(data));
  return ok;
}

namespace {

void putUnits(std::vector<std::byte>& out, std::u16string_view units) {
  for (char16_t u : units) {
    out.push_back(static_cast<std::byte>(u & 0xff));
    out.push_back(static_cast<std::byte>(u >> 8));
  }
}

}  // namespace

std::vector<std::byte> encodeString(std::string_view text, ValueType type) {
  std::vector<std::byte> out;
  putUnits(out, toUtf16(text));
  if (type != ValueType::link) out.insert(out.end(), 2, std::byte{0});
  return out;
}

std::vector<std::byte> encodeMultiString(std::span<const std::string> strings) {
  std::vector<std::byte> out;
  for (const std::string& s : strings) {
    putUnits(out, toUtf16(s));
    out.insert(out.end(), 2, std::byte{0});
  }
  out.insert(out.end(), 2, std::byte{0});
  return out;
}

std::vector<std::byte> encodeDword(std::uint32_t n, ValueType type) {
  std::vector<std::byte> out(4);
  for (int i = 0; i < 4; ++i) {
    const int shift = type == ValueType::dword_big_endian ? 24 - 8 * i : 8 * i;
    out[i] = static_cast<std::byte>((n >> shift) & 0xff);
  }
  return out;
}

std::vector<std::byte> encodeQword(std::uint64_t n) {
  std::vector<std::byte> out(8);
  for (int i = 0; i < 8; ++i) out[i] = static_cast<std::byte>((n >> (8 * i)) & 0xff);
  return out;
}

namespace {

// Stores raw bytes under any type: the value passes through the binary
// type, whose data may always be resized.
bool writeBytes(ValueObj& v, u32 type, std::span<const std::byte> bytes) {
  if (v.type() != Types::Binary && !v.setType(Types::Binary)) return false;
  const u32 size = static_cast<u32>(bytes.size());
  if (v.size(size) != size) return false;
  if (size && v.write(bytes.data(), 0, size) != size) {
    if (!Platform::Error::get()) Platform::Error::set(Errors::SHORT_WRITE);
    return false;
  }
  return type == Types::Binary || v.setType(type);
}

Status dataTooLarge(size_t size) {
  return Status(Code::too_large,
                "value data of " + std::to_string(size) + " bytes is more than a value can hold");
}

// The format's limit for the hive's version, checked before anything
// changes (the engine would refuse later, with the value half made).
bool fitsHive(const RegistryHiveObj& hive, size_t size) {
  return size <= Libraries::Files::Hive::maxValueDataSize(hive.versionMinor());
}

Status dataTooLargeFor(const RegistryHiveObj& hive, size_t size) {
  return Status(Code::too_large,
                "value data of " + std::to_string(size) + " bytes is more than a value of this hive " +
                    "(version 1." + std::to_string(hive.versionMinor()) + ") can hold, " +
                    std::to_string(Libraries::Files::Hive::maxValueDataSize(hive.versionMinor())) + " bytes");
}

}  // namespace

// Callers run these inside Call::atomically: a failure part way is taken
// back whole, whatever the type and data had become.
Status replaceValueData(ValueObj& value, u32 type, std::span<const std::byte> data) {
  if (data.size() > 0x7ffffff0u) return dataTooLarge(data.size());
  if (!fitsHive(*value.hive(), data.size())) return dataTooLargeFor(*value.hive(), data.size());
  Platform::Error::clear();
  if (writeBytes(value, type, data)) return Status();
  return Platform::Error::get() == Errors::INVALID_ARGUMENT
             ? dataTooLarge(data.size())
             : engineStatus("cannot set the value", Code::io_error);
}

Status setValueData(KeyObj& key, std::string_view name, u32 type, std::span<const std::byte> data,
                    Ref<ValueObj>& value) {
  const Ref<Platform::String> engineName = Platform::String::fromUtf16(toUtf16(name));
  if (engineName->length() > ValueObj::MAX_VALUE_NAME_LENGTH)
    return Status(Code::too_large, "value name longer than 16383 characters: " + quoted(name));
  if (data.size() > 0x7ffffff0u) return dataTooLarge(data.size());
  if (!fitsHive(*key.hive(), data.size())) return dataTooLargeFor(*key.hive(), data.size());
  Platform::Error::clear();
  value = key.value(engineName).cast<ValueObj>();
  if (value) return replaceValueData(*value, type, data);
  if (Platform::Error::get() != Errors::VALUE_NOT_FOUND && Platform::Error::get() != 0)
    return engineStatus("cannot look up value " + quoted(name), Code::corrupt);
  Platform::Error::clear();
  value = key.createValue(engineName, Types::Binary).cast<ValueObj>();
  if (!value) return engineStatus("cannot create value " + quoted(name), Code::internal);
  Platform::Error::clear();
  if (writeBytes(*value, type, data)) return Status();
  return Platform::Error::get() == Errors::INVALID_ARGUMENT
             ? dataTooLarge(data.size())
             : engineStatus("cannot set value " + quoted(name), Code::io_error);
}

}  // namespace hivekit::detail
