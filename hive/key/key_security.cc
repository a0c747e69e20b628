// A key's security descriptor: choosing or making the sk record it uses.
#include <cstring>

#include "hive/entry_checks.h"
#include "hive/key/key_obj.h"
#include "hive/security/security_descriptor.h"
#include "platform/check.h"
#include "platform/error.h"

namespace Libraries::Files::Hive {

namespace {

using S = hive_record_sk;
using N = hive_record_nk;

// A self-relative descriptor starts with a 20-byte header.
constexpr u32 MIN_DESCRIPTOR = 20;
// Far beyond any real descriptor (the largest ACL is 64 KiB).
constexpr u32 MAX_DESCRIPTOR = 0x40000;

const hive_record* loadSk(RegistryHiveObj& hive, u32 offset) {
  const hive_record* rec = hive.cacheLoadRecord(offset);
  if (!rec || rec->signature() != S::SIGNATURE || rec->length() < S::OFS_DESCRIPTOR) return nullptr;
  return rec;
}

// The sk record in the ring of `start` that holds exactly these bytes.
u32 findDescriptor(RegistryHiveObj& hive, u32 start, const u8* bytes, u32 length) {
  u32 current = start, previous = INVALID_RECORD, offset = INVALID_RECORD;
  bool damaged = false;
  for (u64 steps = 0; steps <= hive.hiveLength() / S::OFS_DESCRIPTOR; ++steps) {
    if (!SecurityDescriptorIteratorObj::step(hive, start, current, previous, offset, damaged)) break;
    const hive_record* rec = loadSk(hive, offset);
    if (rec && rec->u32At(S::OFS_LENGTH) == length &&
        static_cast<u64>(S::OFS_DESCRIPTOR) + length <= rec->length() &&
        std::memcmp(rec->bytes() + S::OFS_DESCRIPTOR, bytes, length) == 0)
      return offset;
  }
  return INVALID_RECORD;
}

bool writeU32(RegistryHiveObj& hive, u32 record, u32 field, u32 value) {
  u8 b[4];
  W32(b, value);
  return hive.writeRecord(record, b, field, 4);
}

// A new sk record with the descriptor, linked into the ring after `after`
// (its own ring when `after` is not a usable sk record), with no references.
u32 makeDescriptor(RegistryHiveObj& hive, u32 after, const u8* bytes, u32 length) {
  const u32 offset = hive.allocateRecord(S::OFS_DESCRIPTOR + length);
  if (offset == INVALID_RECORD) return INVALID_RECORD;
  const hive_record* prev = loadSk(hive, after);
  const u32 next = prev ? prev->u32At(S::OFS_FLINK) : offset;
  const u32 before = prev ? after : offset;
  std::vector<u8> rec(S::OFS_DESCRIPTOR - 4 + length, 0);
  WB16(rec.data(), S::SIGNATURE);
  W32(rec.data() + S::OFS_FLINK - 4, next);
  W32(rec.data() + S::OFS_BLINK - 4, before);
  W32(rec.data() + S::OFS_REFCOUNT - 4, 0);
  W32(rec.data() + S::OFS_LENGTH - 4, length);
  std::memcpy(rec.data() + S::OFS_DESCRIPTOR - 4, bytes, length);
  if (!hive.writeRecord(offset, rec.data(), 4, static_cast<u32>(rec.size()))) {
    hive.freeRecord(offset);
    return INVALID_RECORD;
  }
  // Link: before -> offset -> next. The neighbours change only after the
  // new record is complete.
  if (prev) {
    if (!writeU32(hive, before, S::OFS_FLINK, offset)) {
      hive.freeRecord(offset);
      return INVALID_RECORD;
    }
    if (loadSk(hive, next) && !writeU32(hive, next, S::OFS_BLINK, offset)) {
      writeU32(hive, before, S::OFS_FLINK, next);
      hive.freeRecord(offset);
      return INVALID_RECORD;
    }
  }
  return offset;
}

// Takes a record whose last reference went out of the ring and frees it;
// the only record of a ring stays.
void dropDescriptor(RegistryHiveObj& hive, u32 offset) {
  const hive_record* rec = loadSk(hive, offset);
  if (!rec || rec->u32At(S::OFS_REFCOUNT) != 0) return;
  const u32 next = rec->u32At(S::OFS_FLINK), prev = rec->u32At(S::OFS_BLINK);
  if (next == offset || prev == offset || !loadSk(hive, next) || !loadSk(hive, prev)) return;
  if (writeU32(hive, prev, S::OFS_FLINK, next) && writeU32(hive, next, S::OFS_BLINK, prev))
    hive.freeRecord(offset);
}

}  // namespace

bool KeyObj::setSecurityDescriptor(const u8* bytes, u32 length) {
  Mon::Lock lock(_hive->mon());
  if (!entryChecks(Entry::change, _readOnly, _valid)) return false;
  if (!bytes || length < MIN_DESCRIPTOR || length > MAX_DESCRIPTOR) {
    HK_LOG(hiveLog, 4) << "Security descriptor of " << length << " bytes refused, key: " << _offset;
    Error::set(Errors::INVALID_ARGUMENT);
    return false;
  }
  const u32 old = sdOffset();
  u32 target = loadSk(*_hive, old) ? findDescriptor(*_hive, old, bytes, length) : INVALID_RECORD;
  if (target == old) return true;
  if (target == INVALID_RECORD) target = makeDescriptor(*_hive, old, bytes, length);
  if (target == INVALID_RECORD) {
    HK_LOG(hiveLog, 4) << "Failed to make a security record for key: " << _offset;
    return false;
  }
  adjustSecurityCellRefCount(_hive.get(), target, true);
  const hive_record* rec = loadSk(*_hive, target);
  if (rec && rec->u32At(S::OFS_REFCOUNT) == 0 && !writeU32(*_hive, target, S::OFS_REFCOUNT, 1)) return false;
  setHeader32(N::OFS_SK, target);
  if (!syncKeyRecord()) {
    setHeader32(N::OFS_SK, old);
    adjustSecurityCellRefCount(_hive.get(), target, false);
    dropDescriptor(*_hive, target);
    return false;
  }
  adjustSecurityCellRefCount(_hive.get(), old, false);
  dropDescriptor(*_hive, old);
  return true;
}

}  // namespace Libraries::Files::Hive
