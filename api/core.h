// The state behind the handles of one open hive, and the helpers every
// call of the public API shares: the guard that checks a handle and takes
// the hive's monitor, the translation of engine failures into Status, text
// conversion and the path grammar.
//
// Internal to the library: nothing here is exported.
#pragma once

#include <array>
#include <atomic>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "hive/key/key_obj.h"
#include "hive/registry_hive.h"
#include "hive/value/value_obj.h"
#include "hivekit/hivekit.h"
#include "platform/error.h"
#include "platform/file_stripe.h"
#include "platform/mon.h"

namespace hivekit::detail {

using Libraries::Files::Hive::HiveFile;
using Libraries::Files::Hive::KeyObj;
using Libraries::Files::Hive::RegistryHiveObj;
using Libraries::Files::Hive::ValueObj;
using Platform::Ref;
using Platform::u16;
using Platform::u32;
using Platform::u64;
using Platform::u8;

// The files of an open hive: the hive file and its logs, with the logs'
// paths ("" for none). Shared with the engine's callbacks, through which a
// log made at the first flush joins them.
struct OpenFiles {
  std::vector<Ref<Platform::FileStripe>> files;
  std::array<std::string, 3> logPaths;
};

class HiveCore final : public CoreBase {
 public:
  // close() closes `files` (dropping their locks) even while handles live on.
  HiveCore(Ref<RegistryHiveObj> hive, std::string path, bool writable, std::shared_ptr<OpenFiles> files);
  ~HiveCore();

  RegistryHiveObj& hive() const { return *_hive; }
  bool closed() const { return _closed.load(std::memory_order_acquire); }
  bool writable() const { return _writable; }
  const std::string& path() const { return _path; }
  // The log files in use (.LOG, .LOG1, .LOG2); "" for none.
  const std::array<std::string, 3>& logPaths() const { return _files->logPaths; }

  // Flushes (when writable), marks the hive closed and closes its files,
  // which releases their locks. The engine objects stay, unusable, until
  // the last handle goes.
  Status close();

  // The engine's own object for the key at `offset` (the one every change
  // must go through, so that all holders see the change), reached from the
  // root by name. Null, with `why` set, when the key cannot be reached that
  // way (deleted, or its parent links are damaged). Caller holds the monitor.
  Ref<KeyObj> keyObject(u32 offset, Status& why);
  // The engine's object for the value at `offset` of the key at `key`.
  Ref<ValueObj> valueObject(u32 key, u32 offset, Status& why);
  // Keeps the object a lookup by path found, so that a change or value
  // lookup through its handle right after needs no walk up the parent links
  // (which a key deeper than the tree limit, or one whose links are damaged,
  // would not survive). Caller holds the monitor.
  void remember(const Ref<KeyObj>& key);
  // Forgets the objects kept for recent changes.
  void forgetObjects() { _recent.clear(); }

 private:
  Ref<RegistryHiveObj> _hive;
  std::string _path;
  bool _writable;
  std::atomic<bool> _closed{false};
  std::shared_ptr<OpenFiles> _files;
  // Key objects of recent lookups and changes, so that a run of changes to
  // one key does not walk down from the root each time. Bounded: emptied
  // when full.
  std::unordered_map<u32, Ref<KeyObj>> _recent;
};

// Constructs and opens handles; a friend of each.
class Access {
 public:
  static HiveCore* core(const CoreRef& ref) { return static_cast<HiveCore*>(ref.get()); }
  static const CoreRef& ref(const Key& k) { return k.core_; }
  static const CoreRef& ref(const Value& v) { return v.core_; }
  static u32 keyOf(const Value& v) { return v.key_; }
  static Hive makeHive(CoreRef core) { return Hive(std::move(core)); }
  static const CoreRef& ref(const Hive& h) { return h.core_; }
  static Key makeKey(const CoreRef& core, u32 offset) {
    Key k;
    k.core_ = core;
    k.offset_ = offset;
    return k;
  }
  static void setOffset(Key& k, u32 offset) { k.offset_ = offset; }
  // Points `k` at the key at `offset`: an iterator's handle moving on
  // within one hive keeps its reference (no count to change).
  static void setKey(Key& k, const CoreRef& core, u32 offset) {
    if (!(k.core_ == core)) k.core_ = core;
    k.offset_ = offset;
  }
  static void setValue(Value& v, const CoreRef& core, u32 offset, u32 key) {
    if (!(v.core_ == core)) v.core_ = core;
    v.offset_ = offset;
    v.key_ = key;
  }
  static Value makeValue(const CoreRef& core, u32 offset, u32 key) {
    Value v;
    v.core_ = core;
    v.offset_ = offset;
    v.key_ = key;
    return v;
  }
  static u32 offsetOf(const Value& v) { return v.offset_; }
  // Bytes that point into the hive's records, keeping the hive alive.
  static Bytes viewBytes(const CoreRef& core, const u8* data, u32 size) {
    Bytes b;
    if (size <= Bytes::SMALL) {
      if (size) std::memcpy(b.small_.data(), data, size);
      b.view_ = std::span<const std::byte>(b.small_.data(), size);
      return b;
    }
    b.view_ = std::span<const std::byte>(reinterpret_cast<const std::byte*>(data), size);
    b.keep_ = core;
    return b;
  }
  static void reset(Value& v) { v = Value(); }
  static Subkeys makeSubkeys(const CoreRef& core, std::vector<u32> offsets, Status status) {
    Subkeys s;
    s.core_ = core;
    s.count_ = static_cast<u32>(offsets.size());
    s.offsets_ = std::move(offsets);
    s.status_ = std::move(status);
    return s;
  }
  // Entries read in place, `stride` bytes apart (a read-only hive's records).
  static Subkeys viewSubkeys(const CoreRef& core, const u8* items, u32 stride, u32 count) {
    Subkeys s;
    s.core_ = core;
    s.items_ = items;
    s.stride_ = stride;
    s.count_ = count;
    return s;
  }
  static u32 entryOf(const Subkeys& s, u32 i) {
    return s.items_ ? Platform::L32(s.items_ + i * s.stride_) : s.offsets_[i];
  }
  static Values makeValues(const CoreRef& core, u32 key, std::vector<u32> offsets, Status status) {
    Values s;
    s.core_ = core;
    s.key_ = key;
    s.count_ = static_cast<u32>(offsets.size());
    s.offsets_ = std::move(offsets);
    s.status_ = std::move(status);
    return s;
  }
  static Values viewValues(const CoreRef& core, u32 key, const u8* items, u32 count) {
    Values s;
    s.core_ = core;
    s.key_ = key;
    s.items_ = items;
    s.count_ = count;
    return s;
  }
  static u32 entryOf(const Values& s, u32 i) {
    return s.items_ ? Platform::L32(s.items_ + 4 * i) : s.offsets_[i];
  }
  static SecurityDescriptor makeSecurityDescriptor(const CoreRef& core, u32 offset) {
    SecurityDescriptor sd;
    sd.core_ = core;
    sd.offset_ = offset;
    return sd;
  }
  static const CoreRef& ref(const SecurityDescriptor& sd) { return sd.core_; }
  static SecurityDescriptors makeSecurityDescriptors(const CoreRef& core, u32 start, Status status) {
    SecurityDescriptors s;
    s.core_ = core;
    s.start_ = start;
    s.status_ = std::move(status);
    return s;
  }
};

// Checks a handle and guards one call. Clears the thread's engine error
// first, so a failure reports only this call's cause.
//
// A writable hive is held under its monitor for the call. A read-only
// hive's records never change after the open, so calls that only read
// records take no lock and threads read it side by side; a call that uses
// the engine's key or value objects, or the state HiveCore keeps, asks for
// Guard::objects and takes the monitor whatever the hive.
class Call {
 public:
  enum class Guard { records, objects };
  // The usual call (an open read-only hive, records only) is decided
  // inline, without a lock, an allocation or a call into the library;
  // anything else takes enter().
  explicit Call(const CoreRef& ref, Guard guard = Guard::records) : _core(Access::core(ref)) {
    if (!_core || guard == Guard::objects || _core->writable() || _core->closed()) {
      enter(guard);
      return;
    }
    Platform::Error::clear();
  }
  ~Call() {
    if (_locked) _core->hive().mon()->unlock();
  }
  Call(const Call&) = delete;
  Call& operator=(const Call&) = delete;

  bool ok() const { return _status.ok(); }
  const Status& status() const { return _status; }
  HiveCore& core() const { return *_core; }
  RegistryHiveObj& hive() const { return _core->hive(); }
  // ok() and the hive may be changed; read_only otherwise.
  bool writable();
  // Runs `change` (returning a Status or a Result) as one change of the
  // hive: when it fails, whatever it did is taken back (records, hbins,
  // base block; see RegistryHiveObj::beginChange) and the engine objects
  // that saw it are forgotten, so the hive is exactly as before. Only for
  // a call that is writable().
  template <class F>
  auto atomically(F&& change) {
    _core->hive().beginChange();
    auto result = change();  // its engine objects are gone once it returns
    const bool kept = static_cast<bool>(result);
    _core->hive().endChange(kept);
    if (!kept) _core->forgetObjects();
    return result;
  }

 private:
  // The checks and the monitor of every other call.
  void enter(Guard guard);

  HiveCore* _core;
  bool _locked = false;
  Status _status;
};

// The Status for an engine failure: `what` says what failed, the engine's
// error code picks the class (`fallback` when it set none) and its first
// failure message, when it logged one, follows as the reason.
Status engineStatus(std::string_view what, Code fallback = Code::corrupt);
// Why the file at `path` could not be opened, from the system error the
// engine left: "WHAT 'path': no such file", "...: permission denied", ...
Status fileStatus(std::string_view what, const std::string& path);
// The code for an engine or system error code; `fallback` for 0 or one
// without a class.
Code codeFor(u32 engineCode, Code fallback);
// errno's text for a system error code folded into an engine code.
std::string systemText(u32 engineCode);

// Text at the API: UTF-8 (WTF-8 for unpaired surrogates) <-> UTF-16.
std::string toUtf8(std::u16string_view units);
std::u16string toUtf16(std::string_view text);
// An 8-bit stored name as UTF-8 when all of its bytes are ASCII, which
// every codepage reads as themselves (the usual name needs no decoding
// then); false for any other.
bool asciiName(const u8* bytes, size_t length, std::string& out);
// A name quoted for a message: "'name'", cut to 200 characters.
std::string quoted(std::string_view text);

// Splits a path by the public grammar (see key.h). False for an empty name
// between two separators.
bool splitPath(std::string_view path, std::vector<std::string_view>& parts);

// Is `a` the same file as `b` (device and inode)? False when either cannot
// be examined.
bool sameFile(const std::string& a, const std::string& b);

}  // namespace hivekit::detail
