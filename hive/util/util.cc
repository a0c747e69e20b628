#include "hive/util/util.h"

#include <algorithm>
#include <string>
#include <utility>
#include <vector>

#include "hive/format/errors.h"
#include "hive/key/key_obj.h"
#include "hive/value/value_obj.h"
#include "platform/error.h"

namespace Libraries::Files::Hive {

using Interfaces::Config::Hive::KeyIterator;
using Interfaces::Config::Hive::Value;
using Interfaces::Config::Hive::ValueIterator;

const Platform::Log::Channel utilLog("HiveUtil");

namespace {

std::u16string nameOf(const Ref<Key>& key) {
  if (!key) return u"";
  Ref<String> name = key->name();
  return name ? name->units() : std::u16string();
}

// The names of a path in backslash form, empty parts skipped.
std::vector<Ref<String>> splitWindowsPath(const std::u16string& path) {
  std::vector<Ref<String>> parts;
  size_t begin = 0;
  while (begin <= path.size()) {
    size_t end = path.find(u'\\', begin);
    if (end == std::u16string::npos) end = path.size();
    if (end > begin) parts.push_back(String::fromUtf16(path.data() + begin, end - begin));
    begin = end + 1;
  }
  return parts;
}

// The common checks of openPath and openOrCreatePath; false with the error
// code set when the arguments are unusable.
bool pathParts(const Ref<Key>& start, const Ref<String>& path, std::vector<Ref<String>>& parts) {
  if (!start || !path) {
    Error::set(Errors::NULL_ARGUMENT);
    return false;
  }
  if (path->isEmpty()) {
    Error::set(Errors::INVALID_ARGUMENT);
    return false;
  }
  size_t skip = 0;
  while (skip < path->length() && path->at(skip) == u'/') ++skip;
  parts = splitWindowsPath(Util::regPathToWindowsStyle(path->sub(skip))->units());
  return true;
}

// Messages of the recursive delete live out of line, so the frames of the
// recursion stay small (each message builds a string stream).
[[gnu::noinline]] void logTreeRefused(const char* what, const std::vector<Ref<String>>& names) {
  std::u16string path;
  for (const Ref<String>& n : names) {
    if (!path.empty()) path += u'\\';
    if (n) path += n->units();
  }
  HK_LOG(utilLog, 3) << what << path;
}

[[gnu::noinline]] void logDeleteFailure(const char* what, const Ref<Key>& key, const Ref<Value>& value,
                                        const char* second, const Ref<Key>& other) {
  Platform::Log::Line line(utilLog, 3);
  line << what;
  if (value) {
    Ref<String> name = value->name();
    line << (name ? name->units() : std::u16string());
  } else {
    line << nameOf(key);
  }
  if (other) {
    line << second << nameOf(other);
  } else {
    line << second << Platform::Log::hex(Error::get());
  }
}

}  // namespace

Ref<String> Util::regPathToWindowsStyle(const Ref<String>& path) {
  if (!path || path->isEmpty()) return String::empty();
  std::u16string out;
  out.reserve(path->length());
  bool escape = false, separator = false;
  for (char16_t c : path->units()) {
    if (!escape && c == u'/') {
      separator = true;
    } else if (c == u'\\') {
      escape = true;
    } else {
      if (separator && !out.empty()) out += u'\\';
      out += c;
      escape = separator = false;
    }
  }
  return String::fromUtf16(std::move(out));
}

Ref<String> Util::regPathFromWindowsStyle(const Ref<String>& path) {
  if (!path || path->isEmpty()) return String::empty();
  std::u16string out;
  out.reserve(path->length());
  bool separator = false;
  for (char16_t c : path->units()) {
    if (c == u'\\') {
      separator = true;
      continue;
    }
    if (separator && !out.empty()) out += u'/';
    if (c == u'/') out += u'\\';
    out += c;
    separator = false;
  }
  return String::fromUtf16(std::move(out));
}

Ref<Key> Util::openPath(const Ref<Key>& start, const Ref<String>& path) {
  std::vector<Ref<String>> parts;
  if (!pathParts(start, path, parts)) return nullptr;
  Ref<Key> key = start;
  for (const Ref<String>& part : parts) {
    Error::set(0);
    key = key->key(part);
    if (!key) {
      if (Error::get() == 0) Error::set(Errors::KEY_NOT_FOUND);
      return nullptr;
    }
  }
  return key;
}

Ref<Key> Util::openOrCreatePath(const Ref<Key>& start, const Ref<String>& path) {
  std::vector<Ref<String>> parts;
  if (!pathParts(start, path, parts)) return nullptr;
  // Keys made by this call, each with its parent, oldest first; removed
  // newest first when a later level fails, so each is empty when deleted.
  std::vector<std::pair<Ref<Key>, Ref<Key>>> created;
  auto undo = [&created]() {
    for (auto it = created.rbegin(); it != created.rend(); ++it) {
      if (!it->first->deleteKey(it->second))
        HK_LOG(utilLog, 3) << "Failed to remove key" << nameOf(it->second) << " of key " << nameOf(it->first)
                           << " for cleanup";
    }
    Error::set(Errors::INVALID_FILE);
  };

  Ref<Key> key = start;
  for (const Ref<String>& part : parts) {
    Error::set(0);
    Ref<Key> next = key->key(part);
    if (!next) {
      u32 error = Error::get();
      if (error != 0 && error != Errors::KEY_NOT_FOUND) {
        HK_LOG(utilLog, 3) << "Failed to open key " << part->units() << " in key " << nameOf(key)
                           << ", error " << Platform::Log::hex(error);
        undo();
        return nullptr;
      }
      next = key->createKey(part);
      if (!next) {
        HK_LOG(utilLog, 3) << "Failed to create key " << part->units() << " in key " << nameOf(key);
        undo();
        return nullptr;
      }
      created.emplace_back(key, next);
    }
    key = std::move(next);
  }
  return key;
}

void Util::WalkBudget::limitBy(const RegistryHiveObj& hive) {
  // Unsafe mode reads records from anywhere in the file, which may hold
  // more than the base block's hive bins size says.
  Mon::Lock lock(hive.mon());
  const u64 length = std::max<u64>(hive.hiveLength(), hive.fileLength());
  _maxItems = length / 8 + 4096;
  _maxBytes = 2 * length + (1u << 20);
}

void Util::WalkBudget::limitBy(const Platform::Object* keyOrValue) {
  if (const auto* k = dynamic_cast<const KeyObj*>(keyOrValue)) limitBy(*k->hive());
  if (const auto* v = dynamic_cast<const ValueObj*>(keyOrValue)) limitBy(*v->hive());
}

bool Util::recordId(const Ref<Key>& key, KeyId& id) {
  if (KeyObj* obj = dynamic_cast<KeyObj*>(key.get())) {
    // A rename in another thread may move the record, and with it the offset.
    Mon::Lock lock(obj->hive()->mon());
    id = KeyId{obj->hive().get(), obj->offset()};
    return true;
  }
  return false;
}

Util::KeyId Util::keyId(const Ref<Key>& key) {
  KeyId id;
  if (!recordId(key, id)) id = KeyId{key.get(), ~0ull};
  return id;
}

struct Util::DeleteWalk {
  // The keys from the parent of the first deleted key down to the current
  // one; ids[0] is that parent.
  std::vector<KeyId> ids;
  std::vector<Ref<String>> names;
};

bool Util::recursiveKeyDelete(const Ref<Key>& parent, const Ref<Key>& key) {
  if (!parent || !key) {
    HK_LOG(utilLog, 3) << "Missing key for recursive delete";
    Error::set(Errors::NULL_ARGUMENT);
    return false;
  }
  DeleteWalk walk;
  walk.ids.push_back(keyId(parent));
  return deleteTree(parent, key, walk);
}

bool Util::deleteTree(const Ref<Key>& parent, const Ref<Key>& key, DeleteWalk& walk) {
  walk.names.push_back(key->name());
  const KeyId id = keyId(key);
  if (std::find(walk.ids.begin(), walk.ids.end(), id) != walk.ids.end()) {
    logTreeRefused("Cycle in key tree at: ", walk.names);
    walk.names.pop_back();
    return false;
  }
  if (walk.ids.size() > MAX_TREE_DEPTH) {
    logTreeRefused("Key tree deeper than 512 levels at: ", walk.names);
    walk.names.pop_back();
    return false;
  }
  walk.ids.push_back(id);

  bool ok = true;
  if (Ref<KeyIterator> keys = key->keyIterator()) {
    while (Ref<Key> subkey = keys->next()) {
      if (!deleteTree(key, subkey, walk)) {
        logDeleteFailure("Failed to recursive delete key:", subkey, nullptr, " of parent: ", key);
        ok = false;
        break;
      }
    }
  }
  if (ok) {
    if (Ref<ValueIterator> values = key->valueIterator()) {
      while (Ref<Value> value = values->next()) {
        if (!key->deleteValue(value)) {
          logDeleteFailure("Failed to delete value:", nullptr, value, " Error: ", nullptr);
          ok = false;
          break;
        }
      }
    }
  }
  if (ok && !parent->deleteKey(key)) {
    logDeleteFailure("Failed to delete key:", key, nullptr, " Error: ", nullptr);
    ok = false;
  }
  walk.ids.pop_back();
  walk.names.pop_back();
  return ok;
}

}  // namespace Libraries::Files::Hive
