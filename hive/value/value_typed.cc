// Typed access to value data: strings, string lists, numbers, raw bytes.
// Thin layers over ValueObj::read, write and size(newSize); what is
// particular here is which types each accepts, the byte layouts and the
// error codes.
#include <algorithm>
#include <cstring>

#include "hive/entry_checks.h"
#include "hive/value/stripe_value.h"
#include "hive/value/value_obj.h"
#include "platform/error.h"

namespace Libraries::Files::Hive {

namespace {

namespace T = Interfaces::Config::Hive::ValueTypes;
using VK = hive_record_vk;

constexpr u64 ALL_ONES = ~0ull;
// Above any size a value can hold; size(newSize) applies the exact limits.
constexpr u64 DATA_SIZE_LIMIT = 0x80000000ull;

bool isStringType(ValueType t) {
  return t == T::String || t == T::ExpandString;
}
bool isNumberType(ValueType t) {
  return t == T::Dword || t == T::DwordBigEndian || t == T::Qword;
}

// The units of a string up to (not including) its first zero unit.
std::u16string_view untilZero(const String& s) {
  std::u16string_view v(s.data(), s.length());
  return v.substr(0, std::min(v.size(), v.find(u'\0')));
}

// Appends units as UTF-16LE bytes.
void putUnits(std::vector<u8>& out, std::u16string_view units) {
  const size_t at = out.size();
  out.resize(at + 2 * units.size());
  for (size_t i = 0; i < units.size(); ++i) W16(out.data() + at + 2 * i, units[i]);
}

// Reads `units` UTF-16LE units of the value's data into `out`, in host
// order. Returns the bytes read.
u32 readUnits(ValueObj& value, u32 units, std::u16string& out) {
  out.assign(units, u'\0');
  const u32 got = value.read(out.data(), 0, 2 * units);
  // The bytes are little-endian; fix them in place for any host.
  u8* bytes = reinterpret_cast<u8*>(out.data());
  for (u32 i = 0; i < units; ++i) out[i] = static_cast<char16_t>(L16(bytes + 2 * i));
  return got;
}

// Keeps an error already set by the failed read (a damaged record says
// more than "short read").
void shortRead() {
  if (Error::get() == 0) Error::set(Errors::SHORT_READ);
}

// The end of a number's read or write: all `width` bytes `moved` (the
// error cleared), or the failure logged and its error set.
bool numberMoved(u32 moved, u32 width, bool writing, u32 record) {
  if (moved == width) {
    Error::set(0);
    return true;
  }
  HK_LOG(hiveLog, 4) << (writing ? "Wrong write result when writing u" : "Wrong read result when reading u")
                     << 8 * width << " value, record = " << Log::hex(record);
  Error::set(writing ? Errors::SHORT_WRITE : Errors::SHORT_READ);
  return false;
}

}  // namespace

// The size field comes from the hive and may claim up to 2 GiB: only once
// the data records are known to hold that much (which bounds it by the
// file) may a reader allocate for it.
bool ValueObj::storageHolds() {
  if (_dataResident || initExtents()) return true;
  shortRead();
  return false;
}

bool ValueObj::setType(ValueType type) {
  Mon::Lock lock(_hive->mon());
  if (!entryChecks(Entry::read, _readOnly, _valid)) return false;
  const u32 previous = L32(_recordData + VK::OFS_TYPE);
  W32(_recordData + VK::OFS_TYPE, type);
  if (!writeRecordData()) {
    HK_LOG(hiveLog, 4) << "Failed to update vk record for setType(). record: " << Log::hex(_offset);
    W32(_recordData + VK::OFS_TYPE, previous);
    return false;
  }
  _type = type;
  _resizable = (_hive->mode() & modeResizableValues) != 0 || _type == T::Binary;
  return true;
}

Ref<Interfaces::Stripe> ValueObj::binary() {
  Mon::Lock lock(_hive->mon());
  if (!entryChecks(Entry::read, _readOnly, _valid)) return nullptr;
  return makeRef<StripeValue>(Ref<ValueObj>(this));
}

bool ValueObj::readText(u32 units, std::u16string& text) {
  if (!storageHolds()) return false;
  const u32 got = readUnits(*this, units, text);
  if (got == 2 * units) return true;
  HK_LOG(hiveLog, 4) << "Wrong read result when reading string, record = " << Log::hex(_offset)
                     << " string length (bytes): " << 2 * units << " read result: " << got;
  shortRead();
  return false;
}

Ref<String> ValueObj::string(u32 maxLength) {
  Mon::Lock lock(_hive->mon());
  if (!entryChecks(Entry::read, _readOnly, _valid) || Error::setIf(!isStringType(_type), Errors::WRONG_TYPE))
    return nullptr;
  Error::set(0);
  const u32 units = _dataSize / 2;  // an odd last byte is ignored
  if (Error::setIf(units > maxLength, Errors::DATA_TOO_LONG)) return nullptr;
  if (units == 0) {
    if (_dataSize == 0) return String::empty();
    Error::set(Errors::STRING_ONE_BYTE);
    return nullptr;
  }
  std::u16string text;
  if (!readText(units, text)) return nullptr;
  // Stored strings end in a zero unit, often followed by slack: the text is
  // what comes before the first zero.
  const size_t end = text.find(u'\0');
  if (end != std::u16string::npos) text.resize(end);
  return String::fromUtf16(std::move(text));
}

bool ValueObj::replaceData(const std::vector<u8>& bytes, const char* what) {
  const u32 newSize = static_cast<u32>(bytes.size());
  if (size(newSize) != newSize) {
    HK_LOG(hiveLog, 4) << "Failed to resize record to set " << what << ", record = " << Log::hex(_offset);
    return false;
  }
  if (write(bytes.data(), 0, newSize) != newSize) {
    HK_LOG(hiveLog, 4) << "Failed to write new " << what << ", record = " << Log::hex(_offset);
    Error::set(Errors::SHORT_WRITE);
    return false;
  }
  Error::set(0);
  return true;
}

bool ValueObj::setString(Ref<String> text) {
  Mon::Lock lock(_hive->mon());
  if (!entryChecks(Entry::change, _readOnly, _valid, text) ||
      Error::setIf(!isStringType(_type), Errors::WRONG_TYPE))
    return false;
  const std::u16string_view units = untilZero(*text);
  if (Error::setIf(units.size() >= DATA_SIZE_LIMIT / 2, Errors::INVALID_ARGUMENT)) return false;
  std::vector<u8> bytes;
  bytes.reserve(2 * units.size() + 2);
  putUnits(bytes, units);
  bytes.push_back(0);
  bytes.push_back(0);
  return replaceData(bytes, "string");
}

u32 ValueObj::numberWidth(Entry entry) {
  if (!entryChecks(entry, _readOnly, _valid) || Error::setIf(!isNumberType(_type), Errors::WRONG_TYPE))
    return 0;
  const u32 width = datasizeFormType(_type);
  return Error::setIf(_dataSize != width, Errors::NUMBER_WRONG_SIZE) ? 0 : width;
}

u64 ValueObj::number() {
  Mon::Lock lock(_hive->mon());
  const u32 width = numberWidth(Entry::read);
  if (width == 0) return ALL_ONES;
  u8 bytes[8] = {};
  if (!numberMoved(read(bytes, 0, width), width, false, _offset)) return ALL_ONES;
  if (_type == T::Qword) return L64(bytes);
  if (_type == T::DwordBigEndian) return B32(bytes);
  return L32(bytes);
}

bool ValueObj::setNumber(u64 number) {
  Mon::Lock lock(_hive->mon());
  const u32 width = numberWidth(Entry::change);
  if (width == 0) return false;
  u8 bytes[8];
  if (_type == T::Qword) {
    W64(bytes, number);
  } else {
    if (Error::setIf(number > 0xffffffffull, Errors::NUMBER_TOO_LARGE)) return false;
    const u32 v = static_cast<u32>(number);
    if (_type == T::DwordBigEndian) {
      WB16(bytes, static_cast<u16>(v >> 16));
      WB16(bytes + 2, static_cast<u16>(v));
    } else {
      W32(bytes, v);
    }
  }
  return numberMoved(write(bytes, 0, width), width, true, _offset);
}

Ref<TVector<Ref<String>>> ValueObj::strings(u32 maxLength) {
  Mon::Lock lock(_hive->mon());
  if (!entryChecks(Entry::read, _readOnly, _valid) ||
      Error::setIf(_type != T::MultiString, Errors::WRONG_TYPE))
    return nullptr;
  Error::set(0);
  const u32 units = _dataSize / 2;
  if (Error::setIf(units > maxLength, Errors::DATA_TOO_LONG)) return nullptr;
  std::u16string text;
  if (!readText(units, text)) return nullptr;
  auto list = TVector<Ref<String>>::create();
  // Each string ends in a zero unit; an empty string (a zero unit right
  // after a terminator, or at the start) ends the list.
  size_t start = 0;
  bool terminated = units == 0;
  while (start < text.size()) {
    size_t end = text.find(u'\0', start);
    if (end == start) {
      terminated = true;
      break;
    }
    if (end == std::u16string::npos) end = text.size();
    list->push_back(String::fromUtf16(text.data() + start, end - start));
    start = end + 1;
  }
  if (!terminated) HK_LOG(hiveLog, 2) << "String list not terminated!, record = " << Log::hex(_offset);
  return list;
}

bool ValueObj::setStrings(Ref<TVector<Ref<String>>> strings) {
  Mon::Lock lock(_hive->mon());
  if (!entryChecks(Entry::change, _readOnly, _valid, strings) ||
      Error::setIf(_type != T::MultiString, Errors::WRONG_TYPE))
    return false;
  std::vector<u8> bytes;
  for (const Ref<String>& s : strings->items()) {
    if (Error::setIf(!s, Errors::NULL_ARGUMENT)) return false;
    putUnits(bytes, untilZero(*s));
    bytes.push_back(0);
    bytes.push_back(0);
    if (Error::setIf(bytes.size() >= DATA_SIZE_LIMIT, Errors::INVALID_ARGUMENT)) return false;
  }
  bytes.push_back(0);
  bytes.push_back(0);
  return replaceData(bytes, "string list");
}

}  // namespace Libraries::Files::Hive
