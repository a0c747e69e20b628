// Value: one value of a key, and Values, the values of a key as a range.
//
//   for (const hivekit::Value& v : key.values())
//     std::cout << v.name() << ' ' << hivekit::type_name(v.type()) << ' ' << v.size() << '\n';
//   if (auto host = key.value("Hostname")) std::cout << host->string().value_or("") << '\n';
//
// A Value is a cheap handle (its hive and the place of its record): copying
// one allocates nothing. Reads describe the value as it is at the time of
// the call. A handle whose value was deleted, or moved by a change made
// through another handle, fails with Code::invalid_handle (or, if its record
// was reused meanwhile, may describe whatever took its place: keep handles
// only while the tree they point into is left alone by others).
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
#include "hivekit/status.h"
#include "hivekit/types.h"

namespace hivekit {

class Key;

class HIVEKIT_EXPORT Value {
 public:
  // A null handle: name() is "", calls fail with Code::invalid_handle.
  Value() noexcept = default;
  explicit operator bool() const noexcept { return static_cast<bool>(core_); }

  // "" for the key's default value (shown as @ in registry text files).
  std::string name() const;
  std::u16string name_utf16() const;
  ValueType type() const;
  // Bytes of data the value holds.
  std::uint32_t size() const;

  // The raw data, whatever the type. Fails with corrupt when the data's
  // records are damaged.
  Result<Bytes> data() const;
  // At most `max_bytes` of the data from byte `offset` on: fewer at its
  // end, none past it. Only those bytes are copied, so a look at the start
  // of a value of hundreds of megabytes costs memory for what it shows.
  Result<Bytes> read(std::uint32_t offset, std::uint32_t max_bytes) const;

  // Typed reads. Each fails with wrong_type when the value's type (or, for
  // numbers, its size) does not fit, and corrupt when the data is damaged.
  // REG_SZ or REG_EXPAND_SZ: the text up to the first zero unit (a value
  // without one gives all of it).
  Result<std::string> string() const;
  // REG_MULTI_SZ: every string, empty ones included, up to the terminating
  // empty string (or the end of the data when it has none).
  Result<std::vector<std::string>> multi_string() const;
  // REG_DWORD (4 bytes, little-endian) or REG_DWORD_BIG_ENDIAN.
  Result<std::uint32_t> dword() const;
  // REG_QWORD (8 bytes, little-endian).
  Result<std::uint64_t> qword() const;
  // REG_LINK: the target, all of the data as UTF-16LE.
  Result<std::string> link() const;

  // Changes. On a read-only hive they fail with read_only. A failed change
  // leaves the value as it was.
  // Replaces type and data at once.
  Status set(ValueType type, std::span<const std::byte> data);
  // REG_SZ (or expand_sz / link when `type` says so): the text as UTF-16LE
  // plus a terminating zero unit (none for link).
  Status set_string(std::string_view text, ValueType type = ValueType::sz);
  Status set_multi_string(std::span<const std::string> strings);
  Status set_dword(std::uint32_t number, ValueType type = ValueType::dword);
  Status set_qword(std::uint64_t number);
  // Renames the value in its key; already_exists when another value there
  // has the name (letter case aside).
  Status rename(std::string_view new_name);
  // Moves the value to `key` (of the same hive), keeping its name or under
  // `new_name`; already_exists when `key` has a value of that name.
  Status move_to(const Key& key);
  Status move_to(const Key& key, std::string_view new_name);
  // Deletes the value; this handle is null afterwards.
  Status remove();

  // The key holding this value.
  Key key() const;

 private:
  friend class detail::Access;
  detail::CoreRef core_;
  std::uint32_t offset_ = 0;  // vk record
  std::uint32_t key_ = 0;     // nk record of the key holding it
};

// The values of a key in the order of its value list, for range-for.
// Values that cannot be read (damaged records) are skipped and counted in
// skipped(); a value list that cannot be read at all leaves the range
// empty with status() telling why.
class HIVEKIT_EXPORT Values {
 public:
  class iterator {
   public:
    using value_type = Value;
    using difference_type = std::ptrdiff_t;
    using reference = const Value&;
    using pointer = const Value*;
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
    friend class Values;
    Values* owner_ = nullptr;
    std::uint32_t index_ = 0;
    Value current_;
  };

  Values() = default;
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
  std::uint32_t key_ = 0;
  std::uint32_t count_ = 0;
  // The entries: in place in the list record where the hive's records
  // cannot change (a read-only hive), else a copy of their offsets.
  const unsigned char* items_ = nullptr;
  std::vector<std::uint32_t> offsets_;
  std::uint32_t skipped_ = 0;
  Status status_;
};

}  // namespace hivekit
