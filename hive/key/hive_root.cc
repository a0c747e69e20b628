// The hive's way in to its keys: the root key object, keys by path, and the
// walk of security descriptors from the root key's. They make key objects,
// so they are defined here, with the keys, not with the record store that
// RegistryHiveObj is otherwise: the store below never includes the layers
// that use it.
#include "hive/key/key_obj.h"
#include "hive/registry_hive.h"
#include "hive/security/security_descriptor.h"
#include "platform/error.h"

namespace Libraries::Files::Hive {

// The root key object is made on first use: a KeyObj holds a counted
// reference to its hive, which the hive cannot hand out while it is still
// being constructed (the open checks the root record instead).
Ref<KeyObj> RegistryHiveObj::rootObj() {
  Mon::Lock lock(_mon);
  Ref<KeyObj> root = _root.lock();
  if (root && root->valid()) return root;
  root = makeRef<KeyObj>(Ref<RegistryHiveObj>(this), _rootOffset, nullptr);
  if (!root->valid()) {
    HK_LOG(hiveLog, 4) << "Root key not valid";
    Error::set(Errors::ROOT_INVALID);
    return nullptr;
  }
  _root = root;
  return root;
}

Ref<Key> RegistryHiveObj::root() {
  return rootObj();
}

Ref<Key> RegistryHiveObj::path(Ref<String> path) {
  Ref<KeyObj> root = rootObj();
  if (!root) return nullptr;
  if (!path) return root;
  const std::u16string& units = path->units();
  size_t begin = 0, end = units.size();
  while (begin < end && (units[begin] == u' ' || units[begin] == u'\t')) ++begin;
  while (end > begin && (units[end - 1] == u' ' || units[end - 1] == u'\t')) --end;
  Ref<Key> key = root;
  size_t i = begin;
  while (i < end) {
    size_t j = i;
    while (j < end && units[j] != u'\\' && units[j] != u'/') ++j;
    if (j > i) {
      key = key->key(String::fromUtf16(units.substr(i, j - i)));
      if (!key) return nullptr;
    }
    i = j + 1;
  }
  return key;
}

Ref<SecurityDescriptorIterator> RegistryHiveObj::securityDescriptorIterator() {
  Ref<KeyObj> root = rootObj();
  if (!root) return nullptr;
  return makeRef<SecurityDescriptorIteratorObj>(Ref<RegistryHiveObj>(this), root->sdOffset());
}

}  // namespace Libraries::Files::Hive
