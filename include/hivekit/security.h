// SecurityDescriptor: one security record (sk) of a hive, shared by the
// keys that reference it; SecurityDescriptors, all of them as a range.
//
//   for (const hivekit::SecurityDescriptor& sd : hive.security_descriptors())
//     std::cout << sd.offset() << ' ' << sd.reference_count() << ' ' << sd.bytes()->size() << '\n';
#pragma once

#include <cstddef>
#include <cstdint>
#include <iterator>
#include <span>

#include "hivekit/detail/core_ref.h"
#include "hivekit/export.h"
#include "hivekit/status.h"
#include "hivekit/types.h"

namespace hivekit {

class HIVEKIT_EXPORT SecurityDescriptor {
 public:
  // A null handle; calls fail with Code::invalid_handle.
  SecurityDescriptor() noexcept = default;
  explicit operator bool() const noexcept { return static_cast<bool>(core_); }

  // Where the record lies in the hive bins data.
  std::uint32_t offset() const noexcept { return offset_; }
  // How many keys the record says use it.
  std::uint32_t reference_count() const;
  // The self-relative descriptor as stored (owner, group, SACL, DACL).
  // corrupt when it does not fit its record.
  Result<Bytes> bytes() const;
  // Rewrites the descriptor in place, for every key that uses it. Only a
  // descriptor of the same length can be written in place (invalid_argument
  // otherwise): to give one key another descriptor use
  // Key::set_security_descriptor.
  Status overwrite(std::span<const std::byte> descriptor);

 private:
  friend class detail::Access;
  detail::CoreRef core_;
  std::uint32_t offset_ = 0;
};

// The security records of a hive in the order of their circular list,
// starting at the root key's. A damaged link ends the walk after the record
// where it was found, with status() telling why.
class HIVEKIT_EXPORT SecurityDescriptors {
 public:
  class iterator {
   public:
    using value_type = SecurityDescriptor;
    using difference_type = std::ptrdiff_t;
    using reference = const SecurityDescriptor&;
    using pointer = const SecurityDescriptor*;
    using iterator_category = std::input_iterator_tag;

    iterator() = default;
    reference operator*() const noexcept { return current_; }
    pointer operator->() const noexcept { return &current_; }
    iterator& operator++() {
      owner_->advance(*this);
      return *this;
    }
    void operator++(int) { ++*this; }
    bool operator==(const iterator& o) const noexcept { return done_ == o.done_ && (done_ || count_ == o.count_); }

   private:
    friend class SecurityDescriptors;
    SecurityDescriptors* owner_ = nullptr;
    bool done_ = true;
    std::uint32_t count_ = 0;
    SecurityDescriptor current_;
  };

  SecurityDescriptors() = default;
  iterator begin();
  iterator end() noexcept { return iterator(); }
  const Status& status() const noexcept { return status_; }

 private:
  friend class detail::Access;
  void advance(iterator& it);
  detail::CoreRef core_;
  std::uint32_t start_ = 0;
  std::uint32_t next_ = 0;
  std::uint32_t previous_ = 0;
  Status status_;
};

}  // namespace hivekit
