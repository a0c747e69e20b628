// Key: one key of a hive, and Subkeys, the subkeys of a key as a range.
//
//   for (const hivekit::Key& sub : key.subkeys())
//     std::cout << sub.name() << ' ' << hivekit::to_iso8601(sub.last_write()) << '\n';
//   auto tcpip = hive.key("ControlSet001\\Services\\Tcpip");   // or "ControlSet001/Services/Tcpip"
//
// A Key is a cheap handle (its hive and the place of its record): copying
// one allocates nothing, and walking a tree makes no object per key. Reads
// describe the key as it is at the time of the call.
//
// Paths name keys from a key down. A path holding a backslash is split at
// backslashes and "/" is an ordinary character in it (the form Windows and
// registry text files use); a path without one is split at "/". Separators
// at either end are ignored and "" names the key itself. An empty name
// between two separators is invalid_argument. Names compare without regard
// to letter case, as Windows compares them.
//
// A handle whose key was deleted, or whose record moved because of a change
// made through another handle (a rename may move it), fails with
// Code::invalid_handle, or, if the record was reused meanwhile, may describe
// whatever took its place: keep handles only while others leave that part
// of the tree alone. The handle a change is made through stays right.
#pragma once

#include <cstddef>
#include <cstdint>
#include <iterator>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "hivekit/detail/core_ref.h"
#include "hivekit/export.h"
#include "hivekit/security.h"
#include "hivekit/status.h"
#include "hivekit/types.h"
#include "hivekit/value.h"

namespace hivekit {

class Subkeys;

// The names `path` holds, as the path forms above read it (what Key::key,
// create_key and delete_key walk): invalid_argument for an empty name
// inside it. For tools that take key paths from their users.
HIVEKIT_EXPORT Result<std::vector<std::string>> split_path(std::string_view path);

class HIVEKIT_EXPORT Key {
 public:
  // A null handle: name() is "", calls fail with Code::invalid_handle.
  Key() noexcept = default;
  explicit operator bool() const noexcept { return static_cast<bool>(core_); }
  // The same key of the same open hive.
  bool operator==(const Key& o) const noexcept { return core_ == o.core_ && offset_ == o.offset_; }

  // The key's name; "" for the root key.
  std::string name() const;
  std::u16string name_utf16() const;
  // From the root: "\" for the root, "\Software\Classes" below it. Built by
  // following the records' parent links; a damaged link ends it with "\?".
  std::string path() const;
  FileTime last_write() const;
  // The class name stored with the key ("" when it has none).
  std::string class_name() const;
  // The counts the key's record holds.
  std::uint32_t subkey_count() const;
  std::uint32_t value_count() const;
  // Where the key's record lies in the hive bins data (what forensic reports
  // cite). Stays the same unless the key is renamed or moved.
  std::uint32_t offset() const noexcept { return offset_; }

  Subkeys subkeys() const;
  Values values() const;

  // The subkey of that name (key_not_found when there is none).
  Result<Key> subkey(std::string_view name) const;
  // The key at `path` below this one (see the path forms above).
  Result<Key> key(std::string_view path) const;
  // The key above this one; key_not_found for the root.
  Result<Key> parent() const;
  // The value of that name; "" is the default value. value_not_found when
  // there is none.
  Result<Value> value(std::string_view name) const;
  // The descriptor of the key's security record.
  Result<SecurityDescriptor> security_descriptor() const;

  // Changes. On a read-only hive they fail with read_only. A failed change
  // leaves the hive as it was before it.
  //
  // Opens `path` below this key, creating every missing key on the way
  // (an existing key is fine). Fails with too_large for a name of 256
  // characters or more.
  Result<Key> create_key(std::string_view path);
  // Deletes the key at `path` below this one; with `recursive` also every
  // key and value below it, else not_empty when it has any.
  Status delete_key(std::string_view path, bool recursive = false);
  // Gives this key a new name in its parent (already_exists when a sibling
  // has it). Fails with invalid_argument on the root key.
  Status rename(std::string_view new_name);
  // Moves this key below `new_parent` (same hive), keeping its name or
  // under `new_name`. Fails with invalid_argument when `new_parent` is the
  // key itself or below it.
  Status move_to(const Key& new_parent);
  Status move_to(const Key& new_parent, std::string_view new_name);

  // Creates or replaces the value `name` with this type and data.
  Result<Value> set_value(std::string_view name, ValueType type, std::span<const std::byte> data);
  // Shorthands of set_value with the encodings of Value::set_string and
  // friends.
  Result<Value> set_string(std::string_view name, std::string_view text, ValueType type = ValueType::sz);
  Result<Value> set_multi_string(std::string_view name, std::span<const std::string> strings);
  Result<Value> set_dword(std::string_view name, std::uint32_t number, ValueType type = ValueType::dword);
  Result<Value> set_qword(std::string_view name, std::uint64_t number);
  // Deletes the value `name` (value_not_found when there is none).
  Status delete_value(std::string_view name);

  // Gives the key this self-relative security descriptor: the key's security
  // record is replaced by one holding these bytes (shared with other keys
  // that have the same descriptor).
  Status set_security_descriptor(std::span<const std::byte> descriptor);

 private:
  friend class detail::Access;
  friend class Value;
  detail::CoreRef core_;
  std::uint32_t offset_ = 0;  // nk record
};

// The subkeys of a key in the order of its subkey list (name order), for
// range-for. Subkeys that cannot be read (damaged records) are skipped and
// counted in skipped(); a subkey list that cannot be read at all leaves the
// range empty with status() telling why.
class HIVEKIT_EXPORT Subkeys {
 public:
  class iterator {
   public:
    using value_type = Key;
    using difference_type = std::ptrdiff_t;
    using reference = const Key&;
    using pointer = const Key*;
    using iterator_category = std::input_iterator_tag;

    iterator() = default;
    reference operator*() const noexcept { return current_; }
    pointer operator->() const noexcept { return &current_; }
    iterator& operator++() {
      owner_->advance(*this);
      return *this;
    }
    void operator++(int) { ++*this; }
    bool operator==(const iterator& o) const noexcept { return index_ == o.index_; }

   private:
    friend class Subkeys;
    Subkeys* owner_ = nullptr;
    std::uint32_t index_ = 0;
    Key current_;
  };

  Subkeys() = default;
  iterator begin();
  iterator end() noexcept {
    iterator it;
    it.owner_ = this;
    it.index_ = count_;
    return it;
  }
  // Entries in the list (readable or not).
  std::uint32_t size() const noexcept { return count_; }
  std::uint32_t skipped() const noexcept { return skipped_; }
  const Status& status() const noexcept { return status_; }

 private:
  friend class detail::Access;
  void advance(iterator& it);
  detail::CoreRef core_;
  // The entries: where the hive's records cannot change (a read-only hive)
  // and the list is one record, read in place, `stride_` bytes apart;
  // else a copy of their offsets.
  const unsigned char* items_ = nullptr;
  std::uint32_t stride_ = 0;
  std::uint32_t count_ = 0;
  std::vector<std::uint32_t> offsets_;
  std::uint32_t skipped_ = 0;
  Status status_;
};

}  // namespace hivekit
