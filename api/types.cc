// The small public types: status codes, value types, times, the version.
#include <cctype>
#include <cstdio>

#include "hivekit/hivekit.h"

namespace hivekit {

std::string_view version() noexcept {
  return HIVEKIT_VERSION;
}

std::string_view code_name(Code code) noexcept {
  switch (code) {
    case Code::ok: return "ok";
    case Code::file_not_found: return "file_not_found";
    case Code::permission_denied: return "permission_denied";
    case Code::is_directory: return "is_directory";
    case Code::in_use: return "in_use";
    case Code::io_error: return "io_error";
    case Code::no_space: return "no_space";
    case Code::not_a_hive: return "not_a_hive";
    case Code::truncated: return "truncated";
    case Code::bad_checksum: return "bad_checksum";
    case Code::dirty: return "dirty";
    case Code::unsupported: return "unsupported";
    case Code::corrupt: return "corrupt";
    case Code::key_not_found: return "key_not_found";
    case Code::value_not_found: return "value_not_found";
    case Code::already_exists: return "already_exists";
    case Code::not_empty: return "not_empty";
    case Code::wrong_type: return "wrong_type";
    case Code::too_large: return "too_large";
    case Code::invalid_argument: return "invalid_argument";
    case Code::read_only: return "read_only";
    case Code::invalid_handle: return "invalid_handle";
    case Code::closed: return "closed";
    case Code::internal: return "internal";
  }
  return "internal";
}

std::string Status::to_string() const {
  if (ok()) return "ok";
  return std::string(code_name(code_)) + ": " + message_;
}

namespace {

struct TypeName {
  ValueType type;
  std::string_view name;  // after "REG_"
};
constexpr TypeName TYPE_NAMES[] = {
    {ValueType::none, "NONE"},
    {ValueType::sz, "SZ"},
    {ValueType::expand_sz, "EXPAND_SZ"},
    {ValueType::binary, "BINARY"},
    {ValueType::dword, "DWORD"},
    {ValueType::dword_big_endian, "DWORD_BIG_ENDIAN"},
    {ValueType::link, "LINK"},
    {ValueType::multi_sz, "MULTI_SZ"},
    {ValueType::resource_list, "RESOURCE_LIST"},
    {ValueType::full_resource_descriptor, "FULL_RESOURCE_DESCRIPTOR"},
    {ValueType::resource_requirements_list, "RESOURCE_REQUIREMENTS_LIST"},
    {ValueType::qword, "QWORD"},
};
constexpr std::string_view FULL_NAMES[] = {
    "REG_NONE",      "REG_SZ",       "REG_EXPAND_SZ",     "REG_BINARY",
    "REG_DWORD",     "REG_DWORD_BIG_ENDIAN", "REG_LINK",   "REG_MULTI_SZ",
    "REG_RESOURCE_LIST", "REG_FULL_RESOURCE_DESCRIPTOR", "REG_RESOURCE_REQUIREMENTS_LIST", "REG_QWORD",
};

bool equalsUpper(std::string_view text, std::string_view upper) {
  if (text.size() != upper.size()) return false;
  for (size_t i = 0; i < text.size(); ++i)
    if (std::toupper(static_cast<unsigned char>(text[i])) != upper[i]) return false;
  return true;
}

}  // namespace

std::string_view type_name(ValueType type) noexcept {
  const auto n = static_cast<std::uint32_t>(type);
  return n < std::size(FULL_NAMES) ? FULL_NAMES[n] : std::string_view();
}

bool parse_type(std::string_view text, ValueType& type) noexcept {
  std::string_view name = text;
  if (name.size() > 4 && equalsUpper(name.substr(0, 4), "REG_")) name.remove_prefix(4);
  for (const TypeName& t : TYPE_NAMES)
    if (equalsUpper(name, t.name)) {
      type = t.type;
      return true;
    }
  if (equalsUpper(name, "DWORD_BE")) {
    type = ValueType::dword_big_endian;
    return true;
  }
  // A number: decimal or 0x hex, up to 32 bits.
  int base = 10;
  std::string_view digits = text;
  if (digits.size() > 2 && digits[0] == '0' && (digits[1] == 'x' || digits[1] == 'X')) {
    digits.remove_prefix(2);
    base = 16;
  }
  if (digits.empty() || digits.size() > 10) return false;
  std::uint64_t v = 0;
  for (char c : digits) {
    int d;
    if (c >= '0' && c <= '9')
      d = c - '0';
    else if (base == 16 && std::isxdigit(static_cast<unsigned char>(c)))
      d = std::tolower(static_cast<unsigned char>(c)) - 'a' + 10;
    else
      return false;
    v = v * static_cast<std::uint64_t>(base) + static_cast<std::uint64_t>(d);
    if (v > 0xffffffffull) return false;
  }
  type = static_cast<ValueType>(v);
  return true;
}

std::string to_iso8601(FileTime t) {
  // Days from 1601-01-01 to the date, by the civil-from-days algorithm on
  // days since 1970-01-01 (which may be negative).
  constexpr std::uint64_t PER_SECOND = 10'000'000;
  constexpr std::int64_t DAYS_1601_TO_1970 = 134774;
  const std::uint64_t seconds = t / PER_SECOND;
  const std::uint32_t fraction = static_cast<std::uint32_t>(t % PER_SECOND);
  const std::int64_t days = static_cast<std::int64_t>(seconds / 86400) - DAYS_1601_TO_1970;
  const std::uint32_t secondOfDay = static_cast<std::uint32_t>(seconds % 86400);
  const std::int64_t z = days + 719468;
  const std::int64_t era = (z >= 0 ? z : z - 146096) / 146097;
  const std::int64_t doe = z - era * 146097;
  const std::int64_t yoe = (doe - doe / 1460 + doe / 36524 - doe / 146096) / 365;
  const std::int64_t doy = doe - (365 * yoe + yoe / 4 - yoe / 100);
  const std::int64_t mp = (5 * doy + 2) / 153;
  const std::int64_t day = doy - (153 * mp + 2) / 5 + 1;
  const std::int64_t month = mp < 10 ? mp + 3 : mp - 9;
  const std::int64_t year = yoe + era * 400 + (month <= 2 ? 1 : 0);
  char out[96];
  std::snprintf(out, sizeof out, "%04lld-%02lld-%02lldT%02u:%02u:%02u.%07uZ", static_cast<long long>(year),
                static_cast<long long>(month), static_cast<long long>(day), secondOfDay / 3600,
                secondOfDay / 60 % 60, secondOfDay % 60, fraction);
  return out;
}

}  // namespace hivekit
