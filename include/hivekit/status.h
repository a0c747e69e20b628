// Status and Result<T>: how every call of hivekit reports failure.
//
// No call throws. A call that can fail returns a Status (ok, or a code and a
// message for people) or a Result<T> (a value, or the Status that tells why
// there is none):
//
//   hivekit::Result<hivekit::Hive> hive = hivekit::Hive::open("SYSTEM");
//   if (!hive) {
//     std::cerr << hive.status().message() << '\n';   // names the cause
//     return 1;
//   }
//   if (hive.status().code() == hivekit::Code::dirty) ...
//
// Messages are meant for people and may change between versions; programs
// decide by code().
#pragma once

#include <string>
#include <string_view>
#include <type_traits>
#include <utility>

#include "hivekit/export.h"

namespace hivekit {

// The class of a failure. Values are stable across versions.
enum class Code : int {
  ok = 0,
  // Files.
  file_not_found = 1,     // the path names nothing
  permission_denied = 2,  // the file exists but may not be opened as asked
  is_directory = 3,       // the path names a directory
  in_use = 4,             // another open of the hive holds a conflicting lock
  io_error = 5,           // the system failed a read, write or sync (errno's text in the message)
  no_space = 6,           // the disk or the hive's address space is full
  // Hive contents.
  not_a_hive = 10,    // no "regf" signature: some other kind of file
  truncated = 11,     // the file is shorter than its base block says
  bad_checksum = 12,  // the base block's checksum is wrong and no log repairs it
  dirty = 13,         // sequence numbers differ and no usable log applies
  unsupported = 14,   // a format version or feature this library does not handle
  corrupt = 15,       // a record the call needs is damaged
  // Keys and values.
  key_not_found = 20,
  value_not_found = 21,
  already_exists = 22,  // a key or value of that name exists
  not_empty = 23,       // a key to delete still has subkeys or values
  wrong_type = 24,      // the value's type or size does not fit the typed call
  too_large = 25,       // data or a name beyond what the format allows
  // Use of the API.
  invalid_argument = 30,  // an empty or malformed name or path, a handle of another hive, ...
  read_only = 31,         // a change on a hive opened read-only
  invalid_handle = 32,    // a null handle, or one whose key or value was deleted
  closed = 33,            // the hive was closed
  internal = 99,          // anything else (the message tells)
};

// A short lower-case name for the code: "file_not_found", "dirty", ...
HIVEKIT_EXPORT std::string_view code_name(Code code) noexcept;

// The outcome of a call: ok, or a code with a message that names the cause
// (and, where there is one, the way out).
class [[nodiscard]] HIVEKIT_EXPORT Status {
 public:
  // Success.
  Status() noexcept = default;
  // A failure; `code` should not be Code::ok.
  Status(Code code, std::string message) : code_(code), message_(std::move(message)) {}

  bool ok() const noexcept { return code_ == Code::ok; }
  explicit operator bool() const noexcept { return ok(); }
  Code code() const noexcept { return code_; }
  // Empty for success.
  const std::string& message() const noexcept { return message_; }
  // "code_name: message", or "ok".
  std::string to_string() const;

 private:
  Code code_ = Code::ok;
  std::string message_;
};

// A value or the Status that says why there is none.
//
// T must be default-constructible: a failed Result holds a default T, so
// that reading value() of a failure is never undefined. For handle types
// (Hive, Key, Value) that default is a null handle whose calls fail with
// Code::invalid_handle, so a chain like hive.key("a")->name() cannot crash.
template <class T>
class [[nodiscard]] Result {
 public:
  static_assert(std::is_default_constructible_v<T>, "Result<T> needs a default-constructible T");

  Result(T value) : value_(std::move(value)) {}
  // A failure; `status` should not be ok.
  Result(Status status) : status_(std::move(status)) {}
  Result(Code code, std::string message) : status_(code, std::move(message)) {}
  // A failure that still carries a value (calls that give one say so, for
  // instance the part of a value's data that could be read).
  Result(T partial, Status status) : value_(std::move(partial)), status_(std::move(status)) {}

  bool ok() const noexcept { return status_.ok(); }
  explicit operator bool() const noexcept { return ok(); }
  const Status& status() const& noexcept { return status_; }
  Status status() && noexcept { return std::move(status_); }

  // The value; a default T when !ok() (unless the call gave a partial one).
  T& value() & noexcept { return value_; }
  const T& value() const& noexcept { return value_; }
  T&& value() && noexcept { return std::move(value_); }
  T& operator*() & noexcept { return value_; }
  const T& operator*() const& noexcept { return value_; }
  T&& operator*() && noexcept { return std::move(value_); }
  T* operator->() noexcept { return &value_; }
  const T* operator->() const noexcept { return &value_; }

  template <class U>
  T value_or(U&& fallback) const& {
    return ok() ? value_ : static_cast<T>(std::forward<U>(fallback));
  }
  template <class U>
  T value_or(U&& fallback) && {
    return ok() ? std::move(value_) : static_cast<T>(std::forward<U>(fallback));
  }

 private:
  T value_{};
  Status status_;
};

}  // namespace hivekit
