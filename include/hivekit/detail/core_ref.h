// Internal to the public API: a counted reference to an open hive's state.
// Handles (Hive, Key, Value, ...) hold one, so they stay safe to use after
// the Hive object that made them is gone or closed (their calls then fail
// with Code::closed). Counting is inline and lock-free: copying a handle
// costs one atomic increment, no call into the library.
#pragma once

#include <atomic>
#include <cstdint>
#include <utility>

#include "hivekit/export.h"

namespace hivekit::detail {

// The counted part of HiveCore, visible so that counting inlines.
class HIVEKIT_EXPORT CoreBase {
 public:
  CoreBase(const CoreBase&) = delete;
  CoreBase& operator=(const CoreBase&) = delete;

  void retain() const noexcept { refs_.fetch_add(1, std::memory_order_relaxed); }
  void release() const noexcept {
    if (refs_.fetch_sub(1, std::memory_order_acq_rel) == 1) destroy();
  }

 protected:
  CoreBase() = default;
  ~CoreBase() = default;

 private:
  void destroy() const noexcept;  // deletes the hive state
  mutable std::atomic<std::uint32_t> refs_{1};
};

class CoreRef {
 public:
  CoreRef() noexcept = default;
  // Takes over one count already held.
  static CoreRef adopt(CoreBase* core) noexcept {
    CoreRef r;
    r.p_ = core;
    return r;
  }
  CoreRef(const CoreRef& o) noexcept : p_(o.p_) {
    if (p_) p_->retain();
  }
  CoreRef(CoreRef&& o) noexcept : p_(std::exchange(o.p_, nullptr)) {}
  CoreRef& operator=(CoreRef o) noexcept {
    std::swap(p_, o.p_);
    return *this;
  }
  ~CoreRef() {
    if (p_) p_->release();
  }
  // The library turns this back into its hive state.
  CoreBase* get() const noexcept { return p_; }
  explicit operator bool() const noexcept { return p_ != nullptr; }
  bool operator==(const CoreRef& o) const noexcept { return p_ == o.p_; }

 private:
  CoreBase* p_ = nullptr;
};

}  // namespace hivekit::detail
