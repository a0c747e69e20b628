#include "api/core.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "hive/format/errors.h"
#include "hive/key/key_record.h"
#include "hive/util/util.h"
#include "hive/value/value_record.h"
#include "platform/string.h"

namespace hivekit {
namespace detail {

namespace Errors = Libraries::Files::Hive::Errors;
using Libraries::Files::Hive::KeyRecord;
using Libraries::Files::Hive::ValueRecord;

void CoreBase::destroy() const noexcept {
  delete static_cast<const HiveCore*>(this);
}

HiveCore::HiveCore(Ref<RegistryHiveObj> hive, std::string path, bool writable,
                   std::shared_ptr<OpenFiles> files)
    : _hive(std::move(hive)), _path(std::move(path)), _writable(writable), _files(std::move(files)) {}

HiveCore::~HiveCore() {
  // The engine objects kept here hold the hive: let them go first, under
  // its monitor, as every other release of them happens.
  Platform::Mon::Lock lock(_hive->mon());
  _recent.clear();
}

Status HiveCore::close() {
  Platform::Mon::Lock lock(_hive->mon());
  if (_closed.load(std::memory_order_relaxed)) return Status();
  _recent.clear();
  Status result;
  if (_writable) {
    Platform::Error::clear();
    if (!_hive->flush()) result = engineStatus("cannot write the changes to '" + _path + "'", Code::io_error);
  }
  _closed.store(true, std::memory_order_release);
  for (const Ref<Platform::FileStripe>& f : _files->files) f->close();
  return result;
}

namespace {

constexpr size_t RECENT_OBJECTS = 32;

}  // namespace

Ref<KeyObj> HiveCore::keyObject(u32 offset, Status& why) {
  auto known = _recent.find(offset);
  if (known != _recent.end()) {
    if (known->second->valid() && known->second->offset() == offset) return known->second;
    _recent.erase(known);
  }
  RegistryHiveObj& hive = *_hive;
  // The chain of records from the key up to the root, by parent links.
  std::vector<u32> chain;
  for (u32 at = offset; at != hive.rootOffset();) {
    KeyRecord rec;
    if (chain.size() >= Libraries::Files::Hive::Util::MAX_TREE_DEPTH ||
        std::find(chain.begin(), chain.end(), at) != chain.end() || !readKeyRecord(hive, at, rec)) {
      why = Status(Code::invalid_handle, "the key is no longer in the hive, or its parent links are damaged");
      return nullptr;
    }
    chain.push_back(at);
    at = rec.parent;
  }
  Ref<KeyObj> key = hive.rootObj();
  if (!key) {
    why = engineStatus("cannot read the root key");
    return nullptr;
  }
  // Down again by name: the objects the engine hands out for each level.
  for (auto it = chain.rbegin(); it != chain.rend(); ++it) {
    KeyRecord rec;
    std::u16string name;
    if (!readKeyRecord(hive, *it, rec)) {
      why = engineStatus("cannot read a key on the way to the one asked for");
      return nullptr;
    }
    readKeyName(hive, rec, name);
    Ref<KeyObj> child = key->key(Platform::String::fromUtf16(std::move(name))).cast<KeyObj>();
    if (!child || child->offset() != *it) {
      why = Status(Code::invalid_handle,
                   "the key is not where its parent links say (deleted, or a damaged subkey list)");
      return nullptr;
    }
    key = child;
  }
  remember(key);
  return key;
}

void HiveCore::remember(const Ref<KeyObj>& key) {
  if (_recent.size() >= RECENT_OBJECTS) _recent.clear();
  _recent[key->offset()] = key;
}

Ref<ValueObj> HiveCore::valueObject(u32 keyOffset, u32 offset, Status& why) {
  Ref<KeyObj> key = keyObject(keyOffset, why);
  if (!key) return nullptr;
  RegistryHiveObj& hive = *_hive;
  ValueRecord rec;
  std::u16string name;
  if (readValueRecord(hive, offset, rec)) {
    readValueName(hive, rec, name);
    Ref<ValueObj> v = key->value(Platform::String::fromUtf16(std::move(name))).cast<ValueObj>();
    if (v && v->offset() == offset) return v;
  }
  // Two values of one name (a damaged list): find it by place.
  for (u32 i = 0; i < key->values(); ++i) {
    Ref<ValueObj> v = key->value(i);
    if (v && v->offset() == offset) return v;
  }
  why = Status(Code::invalid_handle, "the value is no longer in its key");
  return nullptr;
}

void Call::enter(Guard guard) {
  if (!_core) {
    _status = Status(Code::invalid_handle, "null handle");
    return;
  }
  if (_core->closed()) {
    _status = Status(Code::closed, "the hive '" + _core->path() + "' was closed");
    return;
  }
  if (guard == Guard::objects || _core->writable()) {
    _core->hive().mon()->lock();
    _locked = true;
    // A close that ran while this call waited for the monitor.
    if (_core->closed()) {
      _status = Status(Code::closed, "the hive '" + _core->path() + "' was closed");
      return;
    }
  }
  Platform::Error::clear();
}

bool Call::writable() {
  if (!ok()) return false;
  if (_core->writable()) return true;
  _status = Status(Code::read_only, "the hive '" + _core->path() + "' was opened read-only");
  return false;
}

std::string systemText(u32 engineCode) {
  const int e = Platform::Error::systemError(engineCode);
  return e ? std::strerror(e) : std::string();
}

Code codeFor(u32 c, Code fallback) {
  if (c == Platform::Error::FILE_NOT_FOUND) return Code::file_not_found;
  if (const int e = Platform::Error::systemError(c)) {
    switch (e) {
      case ENOENT:
        return Code::file_not_found;
      case EACCES:
      case EPERM:
      case EROFS:
        return Code::permission_denied;
      case EISDIR:
        return Code::is_directory;
      case ENOSPC:
      case EDQUOT:
      case EFBIG:
        return Code::no_space;
      case EAGAIN:
        return Code::in_use;
      default:
        return Code::io_error;
    }
  }
  switch (c) {
    case Errors::READ_ONLY:
      return Code::read_only;
    case Errors::OBJECT_INVALID:
      return Code::invalid_handle;
    case Errors::ALLOCATION_FAILED:
    case Errors::KEY_LIST_FULL:
      return Code::no_space;
    case Errors::KEY_NOT_FOUND:
      return Code::key_not_found;
    case Errors::VALUE_NOT_FOUND:
      return Code::value_not_found;
    case Errors::KEY_EXISTS:
    case Errors::VALUE_EXISTS:
    case Errors::MOVE_NAME_EXISTS:
    case Errors::MOVE_VALUE_EXISTS:
      return Code::already_exists;
    case Errors::KEY_NAME_INVALID:
    case Errors::VALUE_NAME_TOO_LONG:
    case Errors::MOVE_NAME_TOO_LONG:
    case Errors::VALUE_NEW_NAME_INVALID:
    case Errors::DATA_TOO_LONG:
      return Code::too_large;
    case Errors::MOVE_NESTED:
    case Errors::MOVE_ROOT:
    case Errors::NULL_ARGUMENT:
    case Errors::INVALID_ARGUMENT:
      return Code::invalid_argument;
    case Errors::KEY_NOT_EMPTY:
      return Code::not_empty;
    case Errors::WRONG_TYPE:
    case Errors::STRING_ONE_BYTE:
    case Errors::NUMBER_WRONG_SIZE:
    case Errors::NUMBER_TOO_LARGE:
      return Code::wrong_type;
    case Errors::SHORT_WRITE:
      return Code::io_error;
    case Errors::SHORT_READ:
    case Errors::ROOT_INVALID:
    case Errors::NOT_NK_RECORD:
    case Errors::WRITE_IN_SIZE_FIELD:
    case Errors::MISALIGNED_RECORD:
    case Errors::BAD_KEY_LIST:
    case Errors::VALUE_LIST_TOO_SMALL:
    case Errors::HASH_FAILED:
    case Errors::BAD_VALUE_RECORD:
    case Errors::NO_INSERT_POSITION:
    case Errors::NO_MOVE_POSITION:
      return Code::corrupt;
    case Errors::BAD_SIGNATURE:
      return Code::not_a_hive;
    case Errors::FILE_TOO_SMALL:
      return Code::truncated;
    case Errors::UNSUPPORTED_VERSION:
    case Errors::NOT_SUPPORTED:
      return Code::unsupported;
    case Errors::BAD_CHECKSUM:
      return Code::bad_checksum;
    case Errors::DIRTY_NO_LOG:
      return Code::dirty;
    case Errors::LOG_UNREADABLE:
      return Code::io_error;
    default:
      return fallback;
  }
}

Status engineStatus(std::string_view what, Code fallback) {
  const u32 c = Platform::Error::get();
  std::string message(what);
  const std::string sys = systemText(c);
  if (!sys.empty()) {
    message += ": " + sys;
  } else if (!Platform::Error::firstNote().empty()) {
    message += ": " + Platform::Error::firstNote();
  }
  return Status(codeFor(c, fallback), std::move(message));
}

Status fileStatus(std::string_view whatView, const std::string& path) {
  const u32 c = Platform::Error::get();
  const Code code = codeFor(c, Code::io_error);
  const std::string what = std::string(whatView) + " " + quoted(path);
  switch (code) {
    case Code::file_not_found:
      return Status(code, what + ": no such file");
    case Code::permission_denied:
      return Status(code, what + ": permission denied");
    case Code::is_directory:
      return Status(code, what + ": it is a directory");
    default:
      return Status(code, what + (systemText(c).empty() ? std::string() : ": " + systemText(c)));
  }
}

std::string toUtf8(std::u16string_view units) {
  return Platform::utf16ToWtf8(units);
}

std::u16string toUtf16(std::string_view text) {
  return Platform::wtf8ToUtf16(text);
}

bool asciiName(const u8* bytes, size_t length, std::string& out) {
  u8 any = 0;
  for (size_t i = 0; i < length; ++i) any |= bytes[i];
  if (any & 0x80) return false;
  out.assign(reinterpret_cast<const char*>(bytes), length);
  return true;
}

std::string quoted(std::string_view text) {
  constexpr size_t LIMIT = 200;
  size_t cut = text.size();
  if (cut > LIMIT) {
    // Cut at a character boundary.
    cut = LIMIT;
    while (cut > 0 && (static_cast<unsigned char>(text[cut]) & 0xC0) == 0x80) --cut;
  }
  std::string out;
  out.reserve(cut + 5);
  out.push_back('\'');
  out.append(text.substr(0, cut));
  if (cut < text.size()) out.append("...");
  out.push_back('\'');
  return out;
}

bool splitPath(std::string_view path, std::vector<std::string_view>& parts) {
  parts.clear();
  const char sep = path.find('\\') != std::string_view::npos ? '\\' : '/';
  size_t begin = 0, end = path.size();
  while (begin < end && path[begin] == sep) ++begin;
  while (end > begin && path[end - 1] == sep) --end;
  while (begin < end) {
    size_t next = path.find(sep, begin);
    if (next == std::string_view::npos || next > end) next = end;
    if (next == begin) return false;
    parts.push_back(path.substr(begin, next - begin));
    begin = next + 1;
  }
  return true;
}

bool sameFile(const std::string& a, const std::string& b) {
  struct stat sa, sb;
  return !a.empty() && !b.empty() && ::stat(a.c_str(), &sa) == 0 && ::stat(b.c_str(), &sb) == 0 &&
         sa.st_dev == sb.st_dev && sa.st_ino == sb.st_ino;
}

}  // namespace detail
}  // namespace hivekit
