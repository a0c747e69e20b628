#include "hive/key/subkey_search.h"

#include "platform/error.h"

namespace Libraries::Files::Hive {

SubkeySearch binaryFindSubkey(RegistryHiveObj& hive, u32 keyOffset, u32 count, const Ref<String>& name,
                              SubkeyNames& names, u32& position) {
  if (count == 0) {
    position = 0;
    Error::set(Errors::KEY_NOT_FOUND);
    return SubkeySearch::notFound;
  }
  // The order is that of compareIgnoreCase(upper-cased name, entry name),
  // which upper-cases both sides: the sought name goes through the table
  // twice, each entry's name once (in compareUpcased).
  std::u16string upcased = name->upperUnits();
  for (char16_t& c : upcased) c = String::upcase(c);

  // Orders the name against entry `index`: false when the search has ended
  // (a probe that cannot be opened, or the linear fallback) and `result`
  // is its outcome.
  SubkeySearch result = SubkeySearch::failed;
  auto compareAt = [&](u32 index, int& order) {
    if (names.compare(index, upcased, order)) return true;
    Ref<String> probeName;
    if (!names.name(index, probeName)) {
      HK_LOG(hiveLog, 4) << "Failed to open sub key for binary search. key: " << keyOffset;
      position = INVALID_RECORD;
      result = SubkeySearch::failed;
      return false;
    }
    if ((!probeName || probeName->isEmpty()) && (hive.mode() & modeLinearFallback)) {
      HK_LOG(hiveLog, 2) << "Can't get name of other key for binary search, using linear fallback";
      result = linearFindSubkey(count, name, names, position);
      return false;
    }
    order = probeName ? String::compareUpcased(upcased, probeName->length(),
                                               [&](size_t i) { return probeName->at(i); })
                      : (upcased.empty() ? 0 : 1);
    return true;
  };

  u32 low = 0, high = count;  // the name lies in [low, high)
  // Names added in order go to the end: one look at the last entry (when
  // it reads simply) spares the search.
  int last = 0;
  if (names.compare(high - 1, upcased, last) && last > 0) low = high;
  while (low < high) {
    const u32 mid = low + (high - low) / 2;
    int c = 0;
    if (!compareAt(mid, c)) return result;
    if (c == 0) {
      position = mid;
      return SubkeySearch::found;
    }
    if (c < 0) {
      high = mid;
    } else {
      low = mid + 1;
    }
  }
  position = low;
  Error::set(Errors::KEY_NOT_FOUND);
  return SubkeySearch::notFound;
}

SubkeySearch linearFindSubkey(u32 count, const Ref<String>& name, SubkeyNames& names, u32& position) {
  u32 before = 0;  // entries ordered before the name: where it would go
  for (u32 i = 0; i < count; ++i) {
    Ref<String> probeName;
    if (!names.name(i, probeName)) {
      HK_LOG(hiveLog, 3) << "Failed to get key with index: " << i;
      continue;
    }
    const int c = probeName ? probeName->compareIgnoreCase(*name) : -1;
    if (c == 0) {
      position = i;
      return SubkeySearch::found;
    }
    if (c < 0) before = i + 1;
  }
  position = before;
  Error::set(Errors::KEY_NOT_FOUND);
  return SubkeySearch::notFound;
}

}  // namespace Libraries::Files::Hive
