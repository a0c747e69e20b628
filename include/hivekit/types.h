// Small types shared by the public API: value types, times, codepages and
// the Bytes that value data comes in.
//
// Text at the API is UTF-8 in std::string / std::string_view. Registry
// names are UTF-16 and may hold unpaired surrogates, which UTF-8 cannot
// carry; hivekit writes such a unit as its three-byte form (the
// generalisation of UTF-8 called WTF-8), so every name read from a hive
// converts back to exactly the same UTF-16 when it is passed in again.
#pragma once

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "hivekit/detail/core_ref.h"
#include "hivekit/export.h"

namespace hivekit {

namespace detail {
class Access;
}

// The type of a value. Any 32-bit number may be stored; the enumerators
// are the types Windows defines.
enum class ValueType : std::uint32_t {
  none = 0,
  sz = 1,         // UTF-16LE text, terminated by a zero unit
  expand_sz = 2,  // the same, with %VARIABLE% references
  binary = 3,
  dword = 4,              // 32 bits, little-endian
  dword_big_endian = 5,   // 32 bits, big-endian
  link = 6,               // UTF-16LE symbolic link target, no terminator
  multi_sz = 7,           // UTF-16LE strings, each terminated, then an empty one
  resource_list = 8,
  full_resource_descriptor = 9,
  resource_requirements_list = 10,
  qword = 11,  // 64 bits, little-endian
};

// "REG_SZ", "REG_DWORD", ... for the known types; "" for any other number.
HIVEKIT_EXPORT std::string_view type_name(ValueType type) noexcept;
// The type for "REG_SZ", "sz", "dword", "REG_DWORD_BIG_ENDIAN", ... (any
// letter case, "REG_" optional) or a decimal or 0x-hex number; false when
// the text is neither.
HIVEKIT_EXPORT bool parse_type(std::string_view text, ValueType& type) noexcept;

// A Windows FILETIME: 100-nanosecond units since 1601-01-01 00:00 UTC, as
// hives store last-write times.
using FileTime = std::uint64_t;

// FILETIME and the system clock (UTC). Times before 1970 are negative
// time points; precision is the clock's, 100 ns at best.
inline std::chrono::system_clock::time_point to_time_point(FileTime t) {
  constexpr std::int64_t UNIX_EPOCH = 116444736000000000;  // 1970-01-01 in FILETIME units
  const auto units = std::chrono::duration<std::int64_t, std::ratio<1, 10'000'000>>(
      static_cast<std::int64_t>(t) - UNIX_EPOCH);
  return std::chrono::system_clock::time_point(
      std::chrono::duration_cast<std::chrono::system_clock::duration>(units));
}
inline FileTime to_filetime(std::chrono::system_clock::time_point t) {
  constexpr std::int64_t UNIX_EPOCH = 116444736000000000;
  const auto units =
      std::chrono::duration_cast<std::chrono::duration<std::int64_t, std::ratio<1, 10'000'000>>>(
          t.time_since_epoch());
  return static_cast<FileTime>(units.count() + UNIX_EPOCH);
}
// ISO 8601 in UTC with all seven decimals: "2024-03-01T12:00:00.1234567Z".
HIVEKIT_EXPORT std::string to_iso8601(FileTime t);
// Reads a UTC time in ISO 8601 form: "2024-03-01", "2024-03-01T12:00",
// "2024-03-01T12:00:00", with up to seven decimals of a second, a "T" or a
// blank between date and time, and an optional "Z". False (and `out` left
// alone) for anything else, including a time zone offset and dates before
// 1601 or invalid in the calendar.
HIVEKIT_EXPORT bool parse_iso8601(std::string_view text, FileTime& out) noexcept;

// How 8-bit ("compressed") key and value names are read and written.
// latin1 (byte = character) is how Windows reads them.
enum class Codepage { ascii, latin1, windows1250, windows1252 };

// Value data: bytes that stay valid as long as this object lives, whatever
// happens to the hive or the handles afterwards. A Bytes either holds its
// own copy or, where the hive's bytes are contiguous and cannot change (a
// hive opened read-only), points into the hive and keeps it alive. Data of
// up to SMALL bytes (a DWORD, a QWORD, a short name) is copied into the
// object itself, which costs less than keeping the hive.
class HIVEKIT_EXPORT Bytes {
 public:
  static constexpr std::size_t SMALL = 16;

  Bytes() = default;
  explicit Bytes(std::vector<std::byte> bytes) : owned_(std::move(bytes)), view_(owned_) {}
  Bytes(const Bytes& o) : owned_(o.owned_), keep_(o.keep_) { view_ = o.viewFor(*this); }
  Bytes(Bytes&& o) noexcept : owned_(std::move(o.owned_)), keep_(std::move(o.keep_)) {
    // A moved vector keeps its buffer, so a view into it stays right.
    view_ = o.viewFor(*this);
    o.view_ = {};
  }
  Bytes& operator=(Bytes o) noexcept {
    swap(o);
    return *this;
  }
  void swap(Bytes& o) noexcept {
    const bool mine = inSmall(), theirs = o.inSmall();
    std::swap(owned_, o.owned_);
    std::swap(view_, o.view_);
    std::swap(keep_, o.keep_);
    std::swap(small_, o.small_);
    if (mine) o.view_ = std::span<const std::byte>(o.small_.data(), o.view_.size());
    if (theirs) view_ = std::span<const std::byte>(small_.data(), view_.size());
  }

  std::span<const std::byte> span() const noexcept { return view_; }
  operator std::span<const std::byte>() const noexcept { return view_; }
  const std::byte* data() const noexcept { return view_.data(); }
  std::size_t size() const noexcept { return view_.size(); }
  bool empty() const noexcept { return view_.empty(); }
  const std::byte* begin() const noexcept { return view_.data(); }
  const std::byte* end() const noexcept { return view_.data() + view_.size(); }
  std::byte operator[](std::size_t i) const noexcept { return view_[i]; }
  std::vector<std::byte> to_vector() const { return std::vector<std::byte>(begin(), end()); }

 private:
  friend class detail::Access;
  bool inSmall() const noexcept { return !view_.empty() && view_.data() == small_.data(); }
  // This object's view as `to` holds it, once `to` has its copy of (or has
  // taken over) owned_ and keep_: into the hive, `to`'s own small copy, or
  // its owned bytes.
  std::span<const std::byte> viewFor(Bytes& to) const noexcept {
    if (to.keep_) return view_;
    if (inSmall()) {
      to.small_ = small_;
      return std::span<const std::byte>(to.small_.data(), view_.size());
    }
    return to.owned_;
  }

  std::vector<std::byte> owned_;
  std::span<const std::byte> view_;  // into owned_, small_, or the hive kept by keep_
  detail::CoreRef keep_;
  std::array<std::byte, SMALL> small_{};
};

// Views of text as bytes and back, for callers holding char data.
inline std::span<const std::byte> as_bytes(std::string_view text) noexcept {
  return std::as_bytes(std::span<const char>(text.data(), text.size()));
}

}  // namespace hivekit
