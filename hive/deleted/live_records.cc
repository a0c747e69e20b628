#include "hive/deleted/live_records.h"

#include <algorithm>

#include "hive/value/value_record.h"

namespace Libraries::Files::Hive {

namespace {
using N = hive_record_nk;
using L = hive_record_list;
using VK = hive_record_vk;
using SK = hive_record_sk;
}  // namespace

LiveRecords::LiveRecords(RegistryHiveObj& hive)
    : _hive(hive), _length(hive.binsAvailable()), _entryBudget(u64{hive.binsAvailable()} / 4 + 1024) {
  _bits.assign(_length / GRANULE / 64 + 1, 0);
  const u32 root = hive.rootOffset();
  std::vector<u32> stack{root};
  _parents.emplace(root, INVALID_RECORD);
  while (!stack.empty()) {
    const u32 nk = stack.back();
    stack.pop_back();
    walkKey(nk, stack);
  }
  KeyRecord rootRecord;
  if (readKeyRecord(hive, root, rootRecord)) walkSecurityList(rootRecord.sk);
}

bool LiveRecords::touches(u32 offset, u32 length) const {
  if (length == 0) return false;
  const u64 end = u64{offset} + length;
  if (end > _length) return true;
  const u64 last = (end - 1) / GRANULE;
  for (u64 g = offset / GRANULE; g <= last;) {
    if (g % 64 == 0 && last - g >= 63) {  // a whole word at once
      if (_bits[g / 64] != 0) return true;
      g += 64;
      continue;
    }
    if ((_bits[g / 64] >> (g % 64)) & 1) return true;
    ++g;
  }
  return false;
}

u32 LiveRecords::nextMarked(u32 offset, u32 end, bool used) const {
  const u64 stop = std::min<u64>(end, _length);
  for (u64 g = offset / GRANULE; g * GRANULE < stop;) {
    // Granules of the kind asked for, from g on to the end of its word.
    const u64 word = used ? _bits[g / 64] : ~_bits[g / 64];
    const u64 wanted = word >> (g % 64);
    if (wanted == 0) {
      g = (g / 64 + 1) * 64;
      continue;
    }
    g += static_cast<u64>(__builtin_ctzll(wanted));
    return g * GRANULE < stop ? static_cast<u32>(g * GRANULE) : end;
  }
  return end;
}

u32 LiveRecords::parentOf(u32 nk) const {
  auto it = _parents.find(nk);
  return it == _parents.end() ? INVALID_RECORD : it->second;
}

u32 LiveRecords::ownerOf(u32 vk) const {
  auto it = _values.find(vk);
  return it == _values.end() ? INVALID_RECORD : it->second;
}

u32 LiveRecords::formerOwner(u32 vk) const {
  auto it = _formerOwners.find(vk);
  return it == _formerOwners.end() ? INVALID_RECORD : it->second;
}

void LiveRecords::mark(u32 offset, u32 length) {
  if (length == 0 || offset >= _length) return;
  const u64 end = std::min<u64>(u64{offset} + length, _length);
  for (u64 g = offset / GRANULE; g <= (end - 1) / GRANULE; ++g) _bits[g / 64] |= u64{1} << (g % 64);
}

void LiveRecords::markRecord(u32 offset, u64 used) {
  const hive_record* hr = _hive.cacheLoadRecord(offset);
  if (hr) mark(offset, static_cast<u32>(std::min<u64>(used, hr->length())));
}

void LiveRecords::walkKey(u32 nk, std::vector<u32>& stack) {
  KeyRecord key;
  if (!readKeyRecord(_hive, nk, key)) {
    _parents.erase(nk);  // not a key after all: its bytes are not live
    return;
  }
  markRecord(nk, N::HEADER_SIZE + key.nameLength);
  if (key.classLength != 0 && key.classCell != 0 && key.classCell != INVALID_RECORD)
    markRecord(key.classCell, 4u + key.classLength);
  walkSecurity(key.sk);
  walkValues(key);
  walkSubkeyList(key, stack);
}

void LiveRecords::walkSubkeyList(const KeyRecord& key, std::vector<u32>& stack) {
  SubkeyList list;
  if (key.numKeys == 0 || !loadSubkeyList(_hive, key, list)) return;
  if (list.twoLevel) markRecord(key.keyList, L::OFS_ITEMS + 4u * static_cast<u32>(list.sublists.size()));
  for (const SubkeySublist& sub : list.sublists) {
    const hive_record* hr = _hive.cacheLoadRecord(sub.offset);
    if (!hr) continue;
    const u32 width = hr->signature() == L::SIGNATURE_LI ? 4 : 8;
    markRecord(sub.offset, L::OFS_ITEMS + width * sub.numOfkeys);
  }
  for (const SubkeyEntry& e : list.entries) {
    if (_entryBudget == 0) return;
    --_entryBudget;
    if (_parents.emplace(e.offset, key.offset).second) stack.push_back(e.offset);
  }
}

void LiveRecords::walkValues(const KeyRecord& key) {
  std::vector<u32> offsets;
  if (key.numValues == 0 || !loadValueList(_hive, key, offsets)) return;
  const hive_record* list = _hive.cacheLoadRecord(key.valueList);
  if (!list) return;
  markRecord(key.valueList, 4 + 4 * key.numValues);
  // Entries behind the count: values removed from this key that may
  // still be found in free space.
  for (u32 at = 4 + 4 * key.numValues; at + 4 <= list->length(); at += 4) {
    const u32 vk = list->u32At(at);
    if (vk != 0 && vk % GRANULE == 0 && vk < _length && _entryBudget > 0) {
      --_entryBudget;
      _formerOwners.emplace(vk, key.offset);
    }
  }
  for (u32 vk : offsets) {
    if (_entryBudget == 0) return;
    --_entryBudget;
    walkValue(vk, key.offset);
  }
}

void LiveRecords::walkValue(u32 vk, u32 owner) {
  ValueRecord value;
  if (!_values.emplace(vk, owner).second || !readValueRecord(_hive, vk, value)) return;
  markRecord(vk, VK::HEADER_SIZE + value.nameLength);
  if (value.resident) return;
  ValueExtents extents;
  if (!loadValueExtents(_hive, value, extents)) return;
  if (!value.inDbForm()) {
    markRecord(value.dataCell(), 4 + value.dataSize);
    return;
  }
  markRecord(value.dataCell(), hive_record_db::SIZE);
  markRecord(extents.dbList, 4 + 4 * static_cast<u32>(extents.extents.size()));
  u32 left = value.dataSize;
  for (u32 fragment : extents.extents) {
    const u32 n = std::min(left, VK::V1_5_MAX_DATA_WITHOUT_DB);
    markRecord(fragment, 4 + n);
    left -= n;
  }
}

void LiveRecords::walkSecurity(u32 sk) {
  if (sk == 0 || sk == INVALID_RECORD || !_security.insert(sk).second) return;
  const hive_record* hr = _hive.cacheLoadRecord(sk);
  if (!hr || hr->signature() != SK::SIGNATURE || hr->length() < SK::OFS_DESCRIPTOR) return;
  markRecord(sk, u64{SK::OFS_DESCRIPTOR} + hr->u32At(SK::OFS_LENGTH));
}

void LiveRecords::walkSecurityList(u32 start) {
  // Records on the list that no key uses any more are still live: the
  // list holds them. Every step visits a record not seen before.
  std::unordered_set<u32> seen;
  for (u32 sk = start; seen.insert(sk).second;) {
    const hive_record* hr = _hive.cacheLoadRecord(sk);
    if (!hr || hr->signature() != SK::SIGNATURE || hr->length() < SK::OFS_DESCRIPTOR) return;
    walkSecurity(sk);
    sk = hr->u32At(SK::OFS_FLINK);
  }
}

bool LiveRecords::pathTo(u32 nk, u32 maxDepth, const std::function<bool()>& step,
                         std::vector<std::u16string>& out) const {
  out.clear();
  for (u32 depth = 0; nk != INVALID_RECORD && nk != _hive.rootOffset(); ++depth) {
    KeyRecord key;
    if (depth >= maxDepth || !step() || !readKeyRecord(_hive, nk, key)) return false;
    out.emplace_back();
    readKeyName(_hive, key, out.back());
    nk = parentOf(nk);
  }
  std::reverse(out.begin(), out.end());
  return true;
}

bool LiveRecords::pathThrough(u32 parent, u32 maxDepth, const std::function<bool()>& step,
                              const FormerKey& former, std::vector<std::u16string>& out) const {
  std::vector<std::u16string> chain;  // the former keys above, nearest first
  u32 at = parent;
  for (u32 depth = 0;; ++depth) {
    if (depth < maxDepth && isKey(at) && pathTo(at, maxDepth, step, out)) break;
    KeyRecord key;
    const u8* bytes = nullptr;
    if (depth >= maxDepth || !step() || !former(at, key, bytes)) {
      out.clear();
      return false;
    }
    chain.emplace_back();
    decodeRecordName(_hive.codepage(), bytes + hive_record_nk::OFS_NAME, key.nameLength, key.compressedName(),
                     chain.back());
    at = key.parent;
  }
  out.insert(out.end(), chain.rbegin(), chain.rend());
  return true;
}

}  // namespace Libraries::Files::Hive
