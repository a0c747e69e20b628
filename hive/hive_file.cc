// Opening a hive by path or stripe, and creating a new empty hive.
#include <algorithm>
#include <chrono>
#include <cstring>
#include <initializer_list>
#include <memory>
#include <vector>

#include "hive/registry_hive.h"
#include "platform/error.h"
#include "platform/file_stripe.h"

namespace Libraries::Files::Hive {

namespace {

Ref<Interfaces::Stripe> openLog(const Ref<String>& name, u32 flags) {
  Ref<FileStripe> log = FileStripe::open(name->toUtf8(), flags);
  if (!log && Error::get() != Error::FILE_NOT_FOUND)
    HK_LOG(hiveLog, 3) << "Failed to open hive log file " << name->toUtf8()
                       << "; error: " << Log::hex(Error::get());
  return log;
}

void appendSid(std::vector<u8>& out, u8 authority, std::initializer_list<u32> subAuthorities) {
  out.push_back(1);
  out.push_back(static_cast<u8>(subAuthorities.size()));
  for (int i = 0; i < 5; ++i) out.push_back(0);
  out.push_back(authority);
  for (u32 s : subAuthorities) {
    u8 b[4];
    W32(b, s);
    out.insert(out.end(), b, b + 4);
  }
}

void appendAce(std::vector<u8>& out, u32 mask, u8 authority, std::initializer_list<u32> subAuthorities) {
  std::vector<u8> sid;
  appendSid(sid, authority, subAuthorities);
  u8 head[8];
  head[0] = 0;     // ACCESS_ALLOWED_ACE_TYPE
  head[1] = 0x02;  // CONTAINER_INHERIT_ACE: subkeys inherit it
  W16(head + 2, static_cast<u16>(8 + sid.size()));
  W32(head + 4, mask);
  out.insert(out.end(), head, head + 8);
  out.insert(out.end(), sid.begin(), sid.end());
}

// Self-relative descriptor: owner and group BUILTIN\Administrators; the
// DACL grants full control to Administrators and SYSTEM and read access to
// Everyone.
std::vector<u8> defaultDescriptor() {
  constexpr u32 KEY_ALL_ACCESS = 0xF003F, KEY_READ = 0x20019;
  std::vector<u8> aces;
  appendAce(aces, KEY_ALL_ACCESS, 5, {32, 544});
  appendAce(aces, KEY_ALL_ACCESS, 5, {18});
  appendAce(aces, KEY_READ, 1, {0});
  std::vector<u8> acl(8, 0);
  acl[0] = 2;  // ACL_REVISION
  W16(acl.data() + 2, static_cast<u16>(8 + aces.size()));
  W16(acl.data() + 4, 3);
  acl.insert(acl.end(), aces.begin(), aces.end());
  std::vector<u8> admins;
  appendSid(admins, 5, {32, 544});

  std::vector<u8> sd(20, 0);
  sd[0] = 1;                   // revision
  W16(sd.data() + 2, 0x8004);  // SE_SELF_RELATIVE | SE_DACL_PRESENT
  const u32 dacl = 20, owner = dacl + static_cast<u32>(acl.size()),
            group = owner + static_cast<u32>(admins.size());
  W32(sd.data() + 4, owner);
  W32(sd.data() + 8, group);
  W32(sd.data() + 12, 0);  // no SACL
  W32(sd.data() + 16, dacl);
  sd.insert(sd.end(), acl.begin(), acl.end());
  sd.insert(sd.end(), admins.begin(), admins.end());
  sd.insert(sd.end(), admins.begin(), admins.end());
  return sd;
}

// Base block and one hbin with the root key, its security record and one
// free record.
std::vector<u8> emptyHiveImage(u32 minorVersion, const std::u16string& fileName, u64 now) {
  constexpr u32 HBIN = 4096;
  std::vector<u8> image(hive_header::SIZE + HBIN, 0);

  u8* h = image.data();
  std::memcpy(h, "regf", 4);
  W32(h + hive_header::OFS_PRIMARY_SEQ, 1);
  W32(h + hive_header::OFS_SECONDARY_SEQ, 1);
  W64(h + hive_header::OFS_TIMESTAMP, now);
  W32(h + hive_header::OFS_MAJOR, 1);
  W32(h + hive_header::OFS_MINOR, minorVersion);
  W32(h + hive_header::OFS_TYPE, 0);
  W32(h + hive_header::OFS_FORMAT, 1);
  W32(h + hive_header::OFS_ROOT, hive_hbin::SIZE);
  W32(h + hive_header::OFS_LENGTH, HBIN);
  W32(h + hive_header::OFS_CLUSTER, 1);
  const size_t units = std::min<size_t>(fileName.size(), 31);
  const size_t from = fileName.size() - units;
  for (size_t i = 0; i < units; ++i) W16(h + hive_header::OFS_FILENAME + 2 * i, fileName[from + i]);
  W32(h + hive_header::OFS_CHECKSUM, calculateHeaderChecksum(h));

  u8* bin = image.data() + hive_header::SIZE;
  std::memcpy(bin, "hbin", 4);
  W32(bin + hive_hbin::OFS_OFFSET, 0);
  W32(bin + hive_hbin::OFS_SIZE, HBIN);

  const std::vector<u8> sd = defaultDescriptor();
  const u32 nk = hive_hbin::SIZE;
  const u32 nkLength = roundRecordSize(hive_record_nk::HEADER_SIZE + 4);
  const u32 sk = nk + nkLength;
  const u32 skLength = roundRecordSize(hive_record_sk::OFS_DESCRIPTOR + static_cast<u32>(sd.size()));
  const u32 freeAt = sk + skLength;

  using N = hive_record_nk;
  u8* p = bin + nk;
  W32(p, static_cast<u32>(-static_cast<s32>(nkLength)));
  WB16(p + 4, N::SIGNATURE);
  W16(p + N::OFS_FLAGS, N::FLAG_ROOT | N::FLAG_NO_DELETE | N::FLAG_COMP_NAME);
  W64(p + N::OFS_LAST_WRITE, now);
  W32(p + N::OFS_PARENT, 0);
  W32(p + N::OFS_KEY_LIST, INVALID_RECORD);
  W32(p + N::OFS_VOLATILE_KEY_LIST, INVALID_RECORD);
  W32(p + N::OFS_VALUE_LIST, INVALID_RECORD);
  W32(p + N::OFS_SK, sk);
  W32(p + N::OFS_CLASS, INVALID_RECORD);
  W16(p + N::OFS_NAME_LENGTH, 4);
  std::memcpy(p + N::OFS_NAME, "ROOT", 4);

  using K = hive_record_sk;
  p = bin + sk;
  W32(p, static_cast<u32>(-static_cast<s32>(skLength)));
  WB16(p + 4, K::SIGNATURE);
  W32(p + K::OFS_FLINK, sk);
  W32(p + K::OFS_BLINK, sk);
  W32(p + K::OFS_REFCOUNT, 1);
  W32(p + K::OFS_LENGTH, static_cast<u32>(sd.size()));
  std::memcpy(p + K::OFS_DESCRIPTOR, sd.data(), sd.size());

  W32(bin + freeAt, HBIN - freeAt);
  return image;
}

}  // namespace

Ref<HiveFile> HiveFile::open(Ref<String> path, u32 mode, HiveCodepage codepage) {
  if (!path) {
    HK_LOG(hiveLog, 4) << "No hive file name given";
    Error::set(Errors::NULL_ARGUMENT);
    return nullptr;
  }
  const u32 flags = (mode & modeReadOnly) ? FileStripe::Read : (FileStripe::Read | FileStripe::Write);
  Ref<FileStripe> file = FileStripe::open(path->toUtf8(), flags);
  if (!file) {
    HK_LOG(hiveLog, 4) << "Failed to open hive file " << path->toUtf8()
                       << "; error: " << Log::hex(Error::get());
    Error::set(Errors::INVALID_FILE);
    return nullptr;
  }
  if (!usableStripe(file.get(), "", "File object")) return nullptr;
  LogFiles logs;
  LogFileNames names;
  if (getLogFileNames(path, names)) {
    logs.primaryName = names.primary;
    logs.log1Name = names.log1;
    logs.log2Name = names.log2;
    logs.primary = openLog(names.primary, flags);
    logs.log1 = openLog(names.log1, flags);
    logs.log2 = openLog(names.log2, flags);
  }
  // A flush writes its pages to .LOG1 first; one is made beside the hive
  // when it has none. Its sync below covers it from then on.
  auto made = std::make_shared<Ref<Interfaces::Stripe>>();
  if (!logs.log1 && names.log1) {
    const std::string log1 = names.log1->toUtf8();
    logs.createLog1 = [log1, made]() -> Ref<Interfaces::Stripe> {
      Ref<FileStripe> log = FileStripe::open(log1, FileStripe::Read | FileStripe::Write | FileStripe::Create);
      if (!log) {
        HK_LOG(hiveLog, 3) << "Failed to create hive log file " << log1
                           << "; error: " << Log::hex(Error::get());
        return nullptr;
      }
      *made = log;
      return log;
    };
  }
  // Each log, then the hive file, is asked to reach storage. All must
  // succeed: in a log mode the changes live in a log, so a log that did
  // not reach storage is a flush that did not either.
  std::vector<Ref<Interfaces::Stripe>> logStripes;
  for (const auto& log : {logs.primary, logs.log1, logs.log2})
    if (log) logStripes.push_back(log);
  Ref<Interfaces::Stripe> hiveFile = file;
  SyncCallback sync = [logStripes, hiveFile, made]() {
    bool synced = true;
    for (const auto& log : logStripes) synced = log->sync() && synced;
    if (*made) synced = (*made)->sync() && synced;
    return hiveFile->sync() && synced;
  };
  return HiveFile::open(hiveFile, logs, mode, codepage, std::move(sync));
}

bool HiveFile::usableStripe(const Interfaces::Stripe* stripe, const char* missing, const char* kind) {
  if (!stripe) {
    HK_LOG(hiveLog, 4) << missing;
    Error::set(Errors::NULL_ARGUMENT);
    return false;
  }
  if (stripe->elementSize() == 1) return true;
  HK_LOG(hiveLog, 4) << kind << " with element size != 1 not supported";
  Error::set(Errors::NOT_SUPPORTED);
  return false;
}

Ref<HiveFile> HiveFile::open(Ref<Interfaces::Stripe> stripe, u32 mode, HiveCodepage codepage,
                             SyncCallback sync) {
  return open(std::move(stripe), LogFiles(), mode, codepage, std::move(sync));
}

Ref<HiveFile> HiveFile::open(Ref<Interfaces::Stripe> stripe, const LogFiles& logs, u32 mode,
                             HiveCodepage codepage, SyncCallback sync) {
  if (!usableStripe(stripe.get(), "No hive stripe given")) return nullptr;
  Ref<RegistryHiveObj> hive = makeRef<RegistryHiveObj>(stripe, logs, mode, codepage, std::move(sync));
  if (hive->valid()) return hive;
  // Dropping the object flushes; keep the reason of the failure readable.
  const u32 error = Error::get();
  hive = nullptr;
  Error::set(error);
  return nullptr;
}

bool HiveFile::getLogFileNames(Ref<String> hiveFileName, LogFileNames& names) {
  if (!hiveFileName) {
    Error::set(Errors::NULL_ARGUMENT);
    return false;
  }
  if (hiveFileName->isEmpty()) {
    Error::set(Errors::INVALID_ARGUMENT);
    return false;
  }
  names.primary = hiveFileName->concat(*String::create(".LOG"));
  names.log1 = hiveFileName->concat(*String::create(".LOG1"));
  names.log2 = hiveFileName->concat(*String::create(".LOG2"));
  return true;
}

namespace {

bool minorSupported(u32 minorVersion) {
  if (minorVersion == 3 || minorVersion == 5) return true;
  HK_LOG(hiveLog, 4) << "Unsupported minor version for a new hive: " << minorVersion;
  Error::set(Errors::INVALID_ARGUMENT);
  return false;
}

bool writeImage(Interfaces::Stripe& stripe, const std::vector<u8>& image) {
  if (stripe.writeAt(0, image.data(), image.size()) != image.size()) {
    HK_LOG(hiveLog, 4) << "Failed to write the new hive; error: " << Log::hex(Error::get());
    Error::set(Errors::INVALID_FILE);
    return false;
  }
  return true;
}

}  // namespace

Ref<HiveFile> HiveFile::create(Ref<Interfaces::Stripe> stripe, u32 minorVersion, HiveCodepage codepage,
                               SyncCallback sync, const std::u16string& fileName, u64 fixedTime) {
  if (!usableStripe(stripe.get(), "No stripe given for the new hive") || !minorSupported(minorVersion))
    return nullptr;
  if (stripe->elementCount() != 0) {
    HK_LOG(hiveLog, 4) << "A new hive needs an empty stripe, size: " << stripe->elementCount();
    Error::set(Errors::INVALID_ARGUMENT);
    return nullptr;
  }
  const u64 now = fixedTime ? fixedTime : RegistryHiveObj::clockNow();
  if (!writeImage(*stripe, emptyHiveImage(minorVersion, fileName, now))) return nullptr;
  if (sync && !sync()) {
    HK_LOG(hiveLog, 4) << "Failed to sync the new hive";
    Error::set(Errors::INVALID_FILE);
    return nullptr;
  }
  Ref<HiveFile> hive = open(stripe, LogFiles(), 0, codepage, std::move(sync));
  if (hive) hive.cast<RegistryHiveObj>()->setFixedTime(fixedTime);
  return hive;
}

Ref<HiveFile> HiveFile::create(Ref<String> path, u32 minorVersion, HiveCodepage codepage) {
  if (!path) {
    HK_LOG(hiveLog, 4) << "No file name given for the new hive";
    Error::set(Errors::NULL_ARGUMENT);
    return nullptr;
  }
  if (!minorSupported(minorVersion)) return nullptr;
  Ref<FileStripe> file = FileStripe::open(
      path->toUtf8(), FileStripe::Create | FileStripe::Truncate | FileStripe::Write | FileStripe::Read);
  if (!file) {
    HK_LOG(hiveLog, 4) << "Failed to create hive file " << path->toUtf8()
                       << "; error: " << Log::hex(Error::get());
    Error::set(Errors::INVALID_FILE);
    return nullptr;
  }
  if (!writeImage(*file, emptyHiveImage(minorVersion, path->units(), RegistryHiveObj::clockNow())))
    return nullptr;
  Ref<Interfaces::Stripe> stripe = file;
  SyncCallback sync = [stripe]() { return stripe->sync(); };
  if (!sync()) {
    HK_LOG(hiveLog, 4) << "Failed to sync the new hive file " << path->toUtf8();
    Error::set(Errors::INVALID_FILE);
    return nullptr;
  }
  return open(stripe, LogFiles(), 0, codepage, std::move(sync));
}

}  // namespace Libraries::Files::Hive
