#include "tests/support/hive_builder.h"

#include <algorithm>
#include <cstring>
#include <stdexcept>

#include "platform/string.h"

namespace hivekit::test {

using namespace Libraries::Files::Hive;

namespace {

constexpr u32 MAX_CELL_REQUEST = 256u << 20;  // far beyond any test's needs
constexpr u16 SIG_SK = hive_record_sk::SIGNATURE;

void putSig(u8* p, u16 signature) {
  WB16(p, signature);
}

// A SID: revision 1, the given identifier authority and sub-authorities.
void appendSid(std::vector<u8>& out, u8 authority, std::initializer_list<u32> subs) {
  out.push_back(1);
  out.push_back(static_cast<u8>(subs.size()));
  for (int i = 0; i < 5; ++i) out.push_back(0);
  out.push_back(authority);
  for (u32 s : subs) {
    u8 b[4];
    W32(b, s);
    out.insert(out.end(), b, b + 4);
  }
}

}  // namespace

HiveBuilder::HiveBuilder(u32 minor) : _minor(minor) {}

void HiveBuilder::setSequence(u32 primary, u32 secondary) {
  _primarySeq = primary;
  _secondarySeq = secondary;
}

void HiveBuilder::setVersion(u32 major, u32 minor) {
  _major = major;
  _minor = minor;
}

void HiveBuilder::patch(size_t fileOffset, std::vector<u8> bytes) {
  _patches.emplace_back(fileOffset, std::move(bytes));
}

void HiveBuilder::patch32(size_t fileOffset, u32 value) {
  std::vector<u8> b(4);
  W32(b.data(), value);
  patch(fileOffset, std::move(b));
}

// ---------------------------------------------------------------- records

u32 HiveBuilder::newHbin(u32 size) {
  if (size == 0 || size % hive_hbin::PAGE != 0 || size > MAX_CELL_REQUEST + hive_hbin::PAGE) {
    throw std::logic_error("HiveBuilder::newHbin: size must be a positive multiple of 4096");
  }
  const u32 offset = hbinsSize();
  _bins.resize(_bins.size() + size, 0);
  u8* h = _bins.data() + offset;
  std::memcpy(h, "hbin", 4);
  W32(h + hive_hbin::OFS_OFFSET, offset);
  W32(h + hive_hbin::OFS_SIZE, size);
  _hbins.push_back({offset, size, offset + hive_hbin::SIZE});
  return offset;
}

u32 HiveBuilder::cell(u32 size) {
  if (size > MAX_CELL_REQUEST) throw std::logic_error("HiveBuilder::cell: request too large");
  const u32 length = roundRecordSize(std::max<u32>(size, 1));
  if (_hbins.empty() || _hbins.back().used + length > _hbins.back().offset + _hbins.back().size) {
    const u32 need = length + hive_hbin::SIZE;
    newHbin((need + hive_hbin::PAGE - 1) / hive_hbin::PAGE * hive_hbin::PAGE);
  }
  Bin& bin = _hbins.back();
  const u32 offset = bin.used;
  bin.used += length;
  W32(_bins.data() + offset, static_cast<u32>(-static_cast<Platform::s32>(length)));
  return offset;
}

void HiveBuilder::freeCell(u32 offset) {
  u8* p = at(offset);
  const Platform::s32 size = Platform::LS32(p);
  if (size < 0) W32(p, static_cast<u32>(-size));
}

u8* HiveBuilder::at(u32 offset) {
  if (offset >= _bins.size()) throw std::logic_error("HiveBuilder::at: offset outside the hbins");
  return _bins.data() + offset;
}

u32 HiveBuilder::writeNk(const NkFields& f) {
  const u32 ofs = cell(hive_record_nk::HEADER_SIZE + static_cast<u32>(f.name.size()) + f.slack);
  u8* p = at(ofs);
  using N = hive_record_nk;
  putSig(p + 4, N::SIGNATURE);
  W16(p + N::OFS_FLAGS, f.flags);
  W64(p + N::OFS_LAST_WRITE, f.lastWrite);
  W32(p + N::OFS_ACCESS, f.access);
  W32(p + N::OFS_PARENT, f.parent);
  W32(p + N::OFS_NUM_KEYS, f.numKeys);
  W32(p + N::OFS_NUM_VOLATILE_KEYS, f.numVolatileKeys);
  W32(p + N::OFS_KEY_LIST, f.keyList);
  W32(p + N::OFS_VOLATILE_KEY_LIST, f.volatileKeyList);
  W32(p + N::OFS_NUM_VALUES, f.numValues);
  W32(p + N::OFS_VALUE_LIST, f.valueList);
  W32(p + N::OFS_SK, f.sk);
  W32(p + N::OFS_CLASS, f.classOffset);
  W32(p + N::OFS_MAX_NAME, f.maxName);
  W32(p + N::OFS_MAX_CLASS, f.maxClass);
  W32(p + N::OFS_MAX_VALUE_NAME, f.maxValueName);
  W32(p + N::OFS_MAX_VALUE_DATA, f.maxValueData);
  W32(p + N::OFS_WORK, f.work);
  W16(p + N::OFS_NAME_LENGTH, f.nameLength.value_or(static_cast<u16>(f.name.size())));
  W16(p + N::OFS_CLASS_LENGTH, f.classLength);
  std::copy(f.name.begin(), f.name.end(), p + N::OFS_NAME);
  return ofs;
}

u32 HiveBuilder::writeVk(const VkFields& f) {
  const u32 ofs = cell(hive_record_vk::HEADER_SIZE + static_cast<u32>(f.name.size()) + f.slack);
  u8* p = at(ofs);
  using V = hive_record_vk;
  putSig(p + 4, V::SIGNATURE);
  W16(p + V::OFS_NAME_LENGTH, f.nameLength.value_or(static_cast<u16>(f.name.size())));
  W32(p + V::OFS_DATA_SIZE, f.dataSize);
  W32(p + V::OFS_DATA, f.data);
  W32(p + V::OFS_TYPE, f.type);
  W16(p + V::OFS_FLAGS, f.flags);
  W16(p + V::OFS_SPARE, f.spare);
  std::copy(f.name.begin(), f.name.end(), p + V::OFS_NAME);
  return ofs;
}

u32 HiveBuilder::writeSk(const SkFields& f) {
  const std::vector<u8> sd = f.descriptor.empty() ? sampleDescriptor() : f.descriptor;
  const u32 ofs = cell(hive_record_sk::OFS_DESCRIPTOR + static_cast<u32>(sd.size()));
  u8* p = at(ofs);
  const bool selfLinked = f.flink == 0 && f.blink == 0;
  putSig(p + 4, SIG_SK);
  W32(p + hive_record_sk::OFS_FLINK, selfLinked ? ofs : f.flink);
  W32(p + hive_record_sk::OFS_BLINK, selfLinked ? ofs : f.blink);
  W32(p + hive_record_sk::OFS_REFCOUNT, f.refCount);
  W32(p + hive_record_sk::OFS_LENGTH, f.descriptorLength.value_or(static_cast<u32>(sd.size())));
  std::copy(sd.begin(), sd.end(), p + hive_record_sk::OFS_DESCRIPTOR);
  return ofs;
}

u32 HiveBuilder::writeList(u16 signature, const std::vector<u32>& offsets, const std::vector<u32>& hashes,
                           std::optional<u16> count) {
  const bool hashed =
      signature == hive_record_list::SIGNATURE_LF || signature == hive_record_list::SIGNATURE_LH;
  if (hashed && hashes.size() != offsets.size()) {
    throw std::logic_error("HiveBuilder::writeList: lf/lh need one hash per entry");
  }
  const u32 width = hashed ? 8 : 4;
  const u32 ofs = cell(hive_record_list::OFS_ITEMS + width * static_cast<u32>(offsets.size()));
  u8* p = at(ofs);
  putSig(p + 4, signature);
  W16(p + hive_record_list::OFS_COUNT, count.value_or(static_cast<u16>(offsets.size())));
  for (size_t i = 0; i < offsets.size(); ++i) {
    u8* e = p + hive_record_list::OFS_ITEMS + width * i;
    W32(e, offsets[i]);
    if (hashed) W32(e + 4, hashes[i]);
  }
  return ofs;
}

u32 HiveBuilder::writeDb(u16 count, u32 fragmentList) {
  const u32 ofs = cell(hive_record_db::SIZE);
  u8* p = at(ofs);
  putSig(p + 4, hive_record_db::SIGNATURE);
  W16(p + hive_record_db::OFS_COUNT, count);
  W32(p + hive_record_db::OFS_LIST, fragmentList);
  return ofs;
}

u32 HiveBuilder::writeOffsets(const std::vector<u32>& offsets) {
  const u32 ofs = cell(4 + 4 * static_cast<u32>(offsets.size()));
  for (size_t i = 0; i < offsets.size(); ++i) W32(at(ofs) + 4 + 4 * i, offsets[i]);
  return ofs;
}

u32 HiveBuilder::writeData(const std::vector<u8>& data, u32 minSize) {
  const u32 ofs = cell(std::max<u32>(4 + static_cast<u32>(data.size()), minSize));
  std::copy(data.begin(), data.end(), at(ofs) + 4);
  return ofs;
}

// ---------------------------------------------------------------- names

std::vector<u8> HiveBuilder::latin1(const std::u16string& name) {
  std::vector<u8> out;
  for (char16_t c : name) out.push_back(static_cast<u8>(c));
  return out;
}

std::vector<u8> HiveBuilder::utf16le(const std::u16string& name) {
  std::vector<u8> out(name.size() * 2);
  for (size_t i = 0; i < name.size(); ++i) W16(out.data() + 2 * i, name[i]);
  return out;
}

bool HiveBuilder::fitsLatin1(const std::u16string& name) {
  return std::all_of(name.begin(), name.end(), [](char16_t c) { return c < 256; });
}

std::u16string HiveBuilder::upcase(const std::u16string& name) {
  std::u16string out = name;
  for (char16_t& c : out) c = Platform::String::upcase(c);
  return out;
}

u32 HiveBuilder::lhHash(const std::u16string& name, bool compressed) {
  u32 h = 0;
  for (char16_t c : upcase(name)) {
    const u32 unit = compressed && c > 255 ? 0 : c;
    h = h * 37 + unit;
  }
  return h;
}

u32 HiveBuilder::lfHint(const std::u16string& name) {
  u8 b[4] = {0, 0, 0, 0};
  for (size_t i = 0; i < name.size() && i < 4; ++i) b[i] = name[i] < 256 ? static_cast<u8>(name[i]) : 0;
  return L32(b);
}

std::vector<u8> HiveBuilder::sampleDescriptor() {
  // Header (20 bytes), DACL at 20 (28 bytes), owner at 48, group at 64.
  std::vector<u8> sd;
  sd.reserve(96);
  sd.resize(20, 0);
  sd[0] = 1;                                    // revision
  W16(sd.data() + 2, 0x8004);                   // self-relative, DACL present
  W32(sd.data() + 4, 48);                       // owner
  W32(sd.data() + 8, 64);                       // group
  W32(sd.data() + 16, 20);                      // DACL
  const u8 acl[8] = {2, 0, 28, 0, 1, 0, 0, 0};  // revision 2, size 28, one ACE
  sd.insert(sd.end(), acl, acl + 8);
  const u8 ace[8] = {0, 0x02, 20, 0, 0x3f, 0x00, 0x0f, 0x00};  // allowed, container inherit, KEY_ALL_ACCESS
  sd.insert(sd.end(), ace, ace + 8);
  appendSid(sd, 1, {0});        // Everyone
  appendSid(sd, 5, {32, 544});  // Administrators
  appendSid(sd, 5, {18});       // SYSTEM
  return sd;
}

bool HiveBuilder::storeCompressed(const std::u16string& name, NameForm form) {
  if (form == NameForm::automatic) return fitsLatin1(name);
  return form == NameForm::compressed;
}

// ---------------------------------------------------------------- tree

size_t HiveBuilder::keyIndex(u32 nk) const {
  for (size_t i = 0; i < _keys.size(); ++i) {
    if (_keys[i].nk == nk) return i;
  }
  throw std::logic_error("HiveBuilder: not a key made by root() or key()");
}

u32 HiveBuilder::root(const std::u16string& name) {
  if (!_keys.empty()) throw std::logic_error("HiveBuilder::root: called twice");
  _sk = writeSk({});
  const bool compressed = fitsLatin1(name);
  NkFields f;
  f.flags = hive_record_nk::FLAG_ROOT | hive_record_nk::FLAG_NO_DELETE |
            (compressed ? hive_record_nk::FLAG_COMP_NAME : 0);
  f.lastWrite = _lastWrite;
  f.parent = 0;
  f.sk = _sk;
  f.name = compressed ? latin1(name) : utf16le(name);
  const u32 nk = writeNk(f);
  _keys.push_back({nk, name, {}, {}});
  _rootOffset = nk;
  return nk;
}

u32 HiveBuilder::key(u32 parent, const std::u16string& name, NameForm form) {
  if (_laidOut) throw std::logic_error("HiveBuilder::key: the tree is already laid out");
  const size_t p = keyIndex(parent);
  const bool compressed = storeCompressed(name, form);
  NkFields f;
  f.flags = compressed ? hive_record_nk::FLAG_COMP_NAME : 0;
  f.lastWrite = _lastWrite;
  f.parent = parent;
  f.sk = _sk;
  f.name = compressed ? latin1(name) : utf16le(name);
  const u32 nk = writeNk(f);
  // Sorting and hashing go by the name a reader will decode.
  std::u16string stored = name;
  if (compressed) {
    for (char16_t& c : stored) c &= 0xff;
  }
  _keys[p].subkeys.push_back(static_cast<u32>(_keys.size()));
  _keys.push_back({nk, stored, {}, {}});
  _keys.back().compressed = compressed;
  return nk;
}

u32 HiveBuilder::value(u32 key, const std::u16string& name, u32 type, const std::vector<u8>& data,
                       NameForm form) {
  if (_laidOut) throw std::logic_error("HiveBuilder::value: the tree is already laid out");
  const size_t k = keyIndex(key);
  const bool compressed = storeCompressed(name, form);
  VkFields f;
  f.name = compressed ? latin1(name) : utf16le(name);
  f.flags = compressed ? hive_record_vk::FLAG_COMP_NAME : 0;
  f.type = type;
  const u32 size = static_cast<u32>(data.size());
  if (size <= 4) {
    u8 resident[4] = {0, 0, 0, 0};
    std::copy(data.begin(), data.end(), resident);
    f.dataSize = size | hive_record_vk::DATA_RESIDENT;
    f.data = L32(resident);
  } else {
    f.dataSize = size;
  }
  const u32 vk = writeVk(f);
  if (size > 4) {
    const u32 dataOfs = writeValueData(data);
    W32(at(vk) + hive_record_vk::OFS_DATA, dataOfs);
  }
  KeyInfo& info = _keys[k];
  info.values.push_back(vk);
  info.maxValueName = std::max(info.maxValueName, static_cast<u32>(name.size() * 2));
  info.maxValueData = std::max(info.maxValueData, size);
  return vk;
}

u32 HiveBuilder::writeValueData(const std::vector<u8>& data) {
  const u32 chunk = hive_record_vk::V1_5_MAX_DATA_WITHOUT_DB;
  const u32 size = static_cast<u32>(data.size());
  if (_minor < 4 || size <= chunk) return writeData(data);
  const u32 fragments = (size - 1) / chunk + 1;
  const u32 db = writeDb(static_cast<u16>(fragments), 0);
  const u32 list = writeOffsets(std::vector<u32>(fragments, 0));
  W32(at(db) + hive_record_db::OFS_LIST, list);
  for (u32 i = 0; i < fragments; ++i) {
    const u32 begin = i * chunk;
    const u32 end = std::min(size, begin + chunk);
    const u32 frag = writeData(std::vector<u8>(data.begin() + begin, data.begin() + end), chunk + 4);
    W32(at(list) + 4 + 4 * i, frag);
  }
  return db;
}

u32 HiveBuilder::writeSubkeyList(KeyInfo& k) {
  std::vector<u32> order = k.subkeys;
  std::stable_sort(order.begin(), order.end(),
                   [this](u32 a, u32 b) { return upcase(_keys[a].name) < upcase(_keys[b].name); });
  const bool lh = _minor >= 4;
  const u32 limit = _maxListEntries ? _maxListEntries : (lh ? 1200 : 400);

  auto listOf = [&](size_t begin, size_t end, u16 signature) {
    std::vector<u32> offsets, hashes;
    for (size_t i = begin; i < end; ++i) {
      const KeyInfo& s = _keys[order[i]];
      offsets.push_back(s.nk);
      if (signature == hive_record_list::SIGNATURE_LH) hashes.push_back(lhHash(s.name, s.compressed));
      if (signature == hive_record_list::SIGNATURE_LF) hashes.push_back(lfHint(s.name));
    }
    return writeList(signature, offsets, hashes);
  };

  if (order.size() <= limit) {
    return listOf(0, order.size(), lh ? hive_record_list::SIGNATURE_LH : hive_record_list::SIGNATURE_LF);
  }
  // An ri may point only to lh or li sublists.
  const u16 sub = lh ? hive_record_list::SIGNATURE_LH : hive_record_list::SIGNATURE_LI;
  std::vector<u32> sublists;
  for (size_t begin = 0; begin < order.size(); begin += limit) {
    sublists.push_back(listOf(begin, std::min(order.size(), begin + limit), sub));
  }
  return writeList(hive_record_list::SIGNATURE_RI, sublists);
}

void HiveBuilder::layout() {
  if (_laidOut) return;
  using N = hive_record_nk;
  for (KeyInfo& k : _keys) {
    u32 maxName = 0;
    for (u32 s : k.subkeys) maxName = std::max(maxName, static_cast<u32>(_keys[s].name.size() * 2));
    const u32 keyList = k.subkeys.empty() ? NO_RECORD : writeSubkeyList(k);
    const u32 valueList = k.values.empty() ? NO_RECORD : writeOffsets(k.values);
    u8* p = at(k.nk);
    W32(p + N::OFS_NUM_KEYS, static_cast<u32>(k.subkeys.size()));
    W32(p + N::OFS_KEY_LIST, keyList);
    W32(p + N::OFS_NUM_VALUES, static_cast<u32>(k.values.size()));
    W32(p + N::OFS_VALUE_LIST, valueList);
    W32(p + N::OFS_MAX_NAME, maxName);
    W32(p + N::OFS_MAX_VALUE_NAME, k.maxValueName);
    W32(p + N::OFS_MAX_VALUE_DATA, k.maxValueData);
  }
  if (_sk != NO_RECORD) W32(at(_sk) + hive_record_sk::OFS_REFCOUNT, static_cast<u32>(_keys.size()));
  _laidOut = true;
}

// ---------------------------------------------------------------- image

std::vector<u8> HiveBuilder::build() {
  layout();
  using H = hive_header;
  std::vector<u8> img(H::SIZE + _bins.size(), 0);
  std::copy(_bins.begin(), _bins.end(), img.begin() + H::SIZE);
  for (const Bin& b : _hbins) {
    const u32 end = b.offset + b.size;
    if (b.used < end) W32(img.data() + H::SIZE + b.used, end - b.used);
  }

  u8* h = img.data();
  std::memcpy(h, "regf", 4);
  W32(h + H::OFS_PRIMARY_SEQ, _primarySeq);
  W32(h + H::OFS_SECONDARY_SEQ, _secondarySeq);
  W64(h + H::OFS_TIMESTAMP, _lastWrite);
  W32(h + H::OFS_MAJOR, _major);
  W32(h + H::OFS_MINOR, _minor);
  W32(h + H::OFS_TYPE, _fileType);
  W32(h + H::OFS_FORMAT, _fileFormat);
  W32(h + H::OFS_ROOT, _rootOffset);
  W32(h + H::OFS_LENGTH, _hbinsSize.value_or(hbinsSize()));
  W32(h + H::OFS_CLUSTER, _clustering);
  for (size_t i = 0; i < _fileName.size() && i < H::FILENAME_UNITS; ++i) {
    W16(h + H::OFS_FILENAME + 2 * i, _fileName[i]);
  }
  u32 sum = calculateHeaderChecksum(h);
  if (_corruptChecksum) sum ^= 1;
  W32(h + H::OFS_CHECKSUM, sum);

  for (const auto& [ofs, bytes] : _patches) {
    if (ofs + bytes.size() > img.size()) img.resize(ofs + bytes.size(), 0);
    std::copy(bytes.begin(), bytes.end(), img.begin() + ofs);
  }
  return img;
}

}  // namespace hivekit::test
