// Value data at the API: reading a value's bytes from its records, the
// byte layouts of the typed values, and setting a value's type and data
// through the engine's objects.
#pragma once

#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "api/core.h"

namespace hivekit::detail {

// The value's type and its data: all of it, or at most `maxBytes` from
// byte `from` on (none when `from` lies at or past its end). False with
// `why` set when a record is damaged; `data` then holds what could be read.
bool readValue(RegistryHiveObj& hive, u32 offset, u32& type, std::vector<std::byte>& data, Status& why,
               u32 from = 0, u32 maxBytes = ~u32{0});

// The value's data as Value::data() gives it: where the hive's records
// cannot change (a read-only hive) and the data lies in one piece, a view
// into the records that keeps the hive alive; else a copy. False with
// `why` set when a record is damaged; `out` then holds what could be read.
bool readValueBytes(const CoreRef& core, RegistryHiveObj& hive, u32 offset, Bytes& out, Status& why);

// Byte layouts of the typed setters.
std::vector<std::byte> encodeString(std::string_view text, ValueType type);
std::vector<std::byte> encodeMultiString(std::span<const std::string> strings);
std::vector<std::byte> encodeDword(std::uint32_t number, ValueType type);
std::vector<std::byte> encodeQword(std::uint64_t number);

// Creates the value `name` of `key`, or replaces an existing one's type and
// data. On failure the key is left as it was (a value this call created is
// deleted again; an existing one gets its old type and data back).
Status setValueData(KeyObj& key, std::string_view name, u32 type, std::span<const std::byte> data,
                    Ref<ValueObj>& value);
// Replaces an existing value's type and data, putting them back on failure.
Status replaceValueData(ValueObj& value, u32 type, std::span<const std::byte> data);

}  // namespace hivekit::detail
