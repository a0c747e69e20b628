// Shared helpers of the key tests: a look at the list records behind a key.
#pragma once

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "hive/format/errors.h"
#include "hive/key/key_iterator.h"
#include "hive/key/key_obj.h"
#include "hive/registry_hive.h"
#include "platform/error.h"
#include "platform/memory_stripe.h"
#include "tests/support/hives.h"

namespace hivekit::test {

namespace Hive = Libraries::Files::Hive;
namespace Errors = Hive::Errors;
using Hive::hive_record;
using Hive::hive_record_list;
using Hive::hive_record_nk;
using Hive::HiveFile;
using Hive::KeyObj;
using Hive::RegistryHiveObj;
using Platform::MemoryStripe;
using Platform::Ref;
using Platform::String;

inline Ref<KeyObj> asKeyObj(const Ref<Hive::Key>& k) {
  return k.cast<KeyObj>();
}

// The subkey list of a key as the records show it: one entry per list
// record (the single list, or each sublist of an ri) with its signature
// and count.
struct ListShape {
  u16 top = 0;  // signature of the record the nk points to (0: none)
  std::vector<std::pair<u16, u32>> lists;
};

inline ListShape listShape(RegistryHiveObj& hive, u32 nk) {
  ListShape shape;
  const hive_record* rec = hive.cacheLoadRecord(nk);
  if (!rec) return shape;
  const u32 list = rec->u32At(hive_record_nk::OFS_KEY_LIST);
  if (list == Hive::INVALID_RECORD) return shape;
  rec = hive.cacheLoadRecord(list);
  if (!rec) return shape;
  shape.top = rec->signature();
  if (shape.top != hive_record_list::SIGNATURE_RI) {
    shape.lists.push_back({shape.top, rec->u16At(hive_record_list::OFS_COUNT)});
    return shape;
  }
  std::vector<u32> subs;
  for (u32 i = 0; i < rec->u16At(hive_record_list::OFS_COUNT); ++i)
    subs.push_back(rec->u32At(hive_record_list::OFS_ITEMS + 4 * i));
  for (u32 s : subs) {
    const hive_record* sr = hive.cacheLoadRecord(s);
    shape.lists.push_back({sr ? sr->signature() : 0, sr ? sr->u16At(hive_record_list::OFS_COUNT) : 0});
  }
  return shape;
}

// Every subkey name in list order, through a key iterator.
inline std::vector<std::string> subkeyNames(const Ref<Hive::Key>& key) {
  std::vector<std::string> names;
  Ref<Hive::KeyIterator> it = key->keyIterator();
  while (Ref<Hive::Key> k = it->next()) names.push_back(k->name()->toUtf8());
  return names;
}

inline std::string numbered(const char* prefix, u32 i, int width = 5) {
  std::string n = std::to_string(i);
  return prefix + std::string(width - std::min<int>(width, n.size()), '0') + n;
}

}  // namespace hivekit::test
