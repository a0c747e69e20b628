// Hive: opening, creating, flushing and closing; what the base block and
// the logs say; the recovered copy.
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <functional>
#include <memory>

#include "api/core.h"
#include "hive/format/errors.h"
#include "hive/log/log_file.h"
#include "platform/file_stripe.h"
#include "platform/string.h"

namespace hivekit {

using namespace detail;
using Libraries::Files::Hive::HiveCodepage;
using Libraries::Files::Hive::LogFileInfo;
using Platform::FileStripe;
namespace Errors = Libraries::Files::Hive::Errors;
namespace F = Libraries::Files::Hive;

namespace {

const char* const LOG_EXTENSIONS[3] = {".LOG", ".LOG1", ".LOG2"};

bool equalsIgnoreCase(std::string_view a, std::string_view b) {
  if (a.size() != b.size()) return false;
  for (size_t i = 0; i < a.size(); ++i)
    if (std::toupper(static_cast<unsigned char>(a[i])) != std::toupper(static_cast<unsigned char>(b[i])))
      return false;
  return true;
}

// HIVE.LOG, HIVE.LOG1, HIVE.LOG2 beside the hive, the extension in any
// letter case (an exact upper-case match wins, then the smallest name, so
// the choice does not depend on directory order).
std::array<std::string, 3> logsBeside(const std::string& hivePath) {
  std::array<std::string, 3> out;
  const size_t slash = hivePath.rfind('/');
  const std::string dir = slash == std::string::npos ? "." : (slash == 0 ? "/" : hivePath.substr(0, slash));
  const std::string base = slash == std::string::npos ? hivePath : hivePath.substr(slash + 1);
  const std::string prefix = slash == std::string::npos ? "" : hivePath.substr(0, slash + 1);
  if (base.empty()) return out;
  DIR* d = opendir(dir.c_str());
  if (!d) return out;
  bool exact[3] = {false, false, false};
  while (dirent* e = readdir(d)) {
    const std::string name = e->d_name;
    if (name.size() <= base.size() || name.compare(0, base.size(), base) != 0) continue;
    const std::string rest = name.substr(base.size());
    for (int i = 0; i < 3; ++i) {
      if (!equalsIgnoreCase(rest, LOG_EXTENSIONS[i])) continue;
      const bool isExact = rest == LOG_EXTENSIONS[i];
      if (out[i].empty() || (isExact && !exact[i]) || (isExact == exact[i] && prefix + name < out[i])) {
        out[i] = prefix + name;
        exact[i] = isExact;
      }
    }
  }
  closedir(d);
  return out;
}

// Named logs into their slots: by extension, else the first free of .LOG1,
// .LOG2, .LOG. False when there are more than three.
bool namedLogs(const std::vector<std::string>& names, std::array<std::string, 3>& out) {
  for (const std::string& name : names) {
    int slot = 3;
    for (int i = 2; i >= 0 && slot == 3; --i) {
      const std::string_view ext = LOG_EXTENSIONS[i];
      if (name.size() > ext.size() &&
          equalsIgnoreCase(std::string_view(name).substr(name.size() - ext.size()), ext))
        slot = i;
    }
    if (slot == 3 || !out[slot].empty()) {
      slot = 3;
      for (int i : {1, 2, 0})
        if (out[i].empty()) {
          slot = i;
          break;
        }
    }
    if (slot == 3) return false;
    out[slot] = name;
  }
  return true;
}

// The message for an open the engine refused, naming the cause and, for a
// dirty hive, the ways out.
Status openStatus(const std::string& path, const std::array<std::string, 3>& logs) {
  const u32 c = Platform::Error::get();
  const std::string what = "cannot open hive " + quoted(path);
  switch (c) {
    case Errors::BAD_SIGNATURE:
      return Status(Code::not_a_hive, what + ": not a registry hive (no \"regf\" signature)");
    case Errors::FILE_TOO_SMALL:
      return Status(Code::truncated, what + ": the file is truncated (shorter than its base block says)");
    case Errors::UNSUPPORTED_VERSION:
      return Status(Code::unsupported, what + ": unsupported format version");
    case Errors::BAD_CHECKSUM:
      return Status(Code::bad_checksum, what + ": the base block's checksum is wrong and no log repairs it");
    case Errors::DIRTY_NO_LOG: {
      const bool anyLog = !logs[0].empty() || !logs[1].empty() || !logs[2].empty();
      // The first failure noted is why the first log was refused.
      const std::string& why = Platform::Error::firstNote();
      return Status(Code::dirty,
                    what + ": the hive is dirty (its sequence numbers differ) and " +
                        (anyLog ? "none of its logs can be applied" + (why.empty() ? "" : " (" + why + ")")
                                : std::string("no transaction log was found")) +
                        "; open it with accept_dirty (hivekit --dirty) to read it as stored, "
                        "or give its logs");
    }
    case Errors::LOG_UNREADABLE:
      return Status(Code::io_error, what + ": the hive is dirty and one of its logs could not be read");
    default:
      return engineStatus(what, Code::corrupt);
  }
}

// Another open holds the lock (or the lock itself failed: the reason).
Status inUse(const std::string& what) {
  const u32 c = Platform::Error::get();
  if (Platform::Error::systemError(c) == EAGAIN)
    return Status(Code::in_use, what + ": in use by another process");
  return Status(codeFor(c, Code::io_error), what + ": cannot lock it: " + systemText(c));
}

// A rename reaches the disk with its directory.
void syncDirectoryOf(const std::string& path) {
  const size_t slash = path.rfind('/');
  const std::string dir = slash == std::string::npos ? "." : (slash == 0 ? "/" : path.substr(0, slash));
  const int fd = ::open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (fd >= 0) {
    ::fsync(fd);
    ::close(fd);
  }
}

// Makes HIVE.LOG1 for the first flush of a hive that has none: created,
// locked as the hive is, and its directory entry synced before the hive
// comes to depend on it.
std::function<Ref<Interfaces::Stripe>()> makeLog1(const std::string& hivePath,
                                                  std::weak_ptr<OpenFiles> weakFiles) {
  return [hivePath, weakFiles]() -> Ref<Interfaces::Stripe> {
    std::shared_ptr<OpenFiles> files = weakFiles.lock();
    if (!files) return nullptr;
    const std::string path = hivePath + ".LOG1";
    Ref<FileStripe> log = FileStripe::open(path, FileStripe::Read | FileStripe::Write | FileStripe::Create);
    if (!log || !log->lock(FileStripe::Lock::Exclusive, false)) return nullptr;
    syncDirectoryOf(path);
    files->files.push_back(log);
    files->logPaths[1] = path;
    return log;
  };
}

F::HiveCodepage engineCodepage(Codepage cp) {
  switch (cp) {
    case Codepage::ascii:
      return F::ascii;
    case Codepage::windows1250:
      return F::windows1250;
    case Codepage::windows1252:
      return F::windows1252;
    case Codepage::latin1:
      break;
  }
  return F::latin1;
}

}  // namespace

Result<Hive> Hive::open(std::string_view pathView, const OpenOptions& options) {
  const std::string path(pathView);
  Platform::Error::clear();
  if (path.empty()) return Status(Code::invalid_argument, "no hive file named");
  if (options.writable && (options.accept_dirty || options.in_memory))
    return Status(Code::invalid_argument, "accept_dirty and in_memory are for read-only opens");
  if (options.logs != Logs::named && !options.log_files.empty())
    return Status(Code::invalid_argument, "log_files are used only with Logs::named");

  const u32 flags = options.writable ? (FileStripe::Read | FileStripe::Write) : FileStripe::Read;
  Ref<FileStripe> file = FileStripe::open(path, flags);
  if (!file) return fileStatus("cannot open hive", path);
  const auto kind = options.writable ? FileStripe::Lock::Exclusive : FileStripe::Lock::Shared;
  if (!file->lock(kind, options.wait)) return inUse("cannot open hive " + quoted(path));

  std::array<std::string, 3> logPaths;
  if (options.logs == Logs::beside) {
    logPaths = logsBeside(path);
  } else if (options.logs == Logs::named && !namedLogs(options.log_files, logPaths)) {
    return Status(Code::invalid_argument, "more than three log files");
  }
  HiveFile::LogFiles logs;
  Ref<Interfaces::Stripe>* slots[3] = {&logs.primary, &logs.log1, &logs.log2};
  Ref<Platform::String>* names[3] = {&logs.primaryName, &logs.log1Name, &logs.log2Name};
  auto files = std::make_shared<OpenFiles>();
  std::vector<Ref<FileStripe>>& opened = files->files;
  for (int i = 0; i < 3; ++i) {
    if (logPaths[i].empty()) continue;
    Ref<FileStripe> log = FileStripe::open(logPaths[i], flags);
    // A log we may not write is still worth reading.
    if (!log && options.writable) log = FileStripe::open(logPaths[i], FileStripe::Read);
    if (!log) {
      // A log named on purpose must be there; one found beside is optional.
      if (options.logs == Logs::named) return fileStatus("cannot open log", logPaths[i]);
      logPaths[i].clear();
      continue;
    }
    // The logs a writer may change are its alone, as the hive is.
    const auto logKind = log->writable() ? FileStripe::Lock::Exclusive : FileStripe::Lock::Shared;
    if (!log->lock(logKind, options.wait)) return inUse("cannot open log " + quoted(logPaths[i]));
    *slots[i] = log;
    *names[i] = Platform::String::create(logPaths[i]);
    opened.push_back(log);
  }
  // A flush writes its pages to HIVE.LOG1 before the hive (see flush.cc):
  // a writer whose hive has none beside it makes one when first needed.
  if (options.writable && options.logs == Logs::beside && logPaths[1].empty())
    logs.createLog1 = makeLog1(path, files);
  // Logs reach the disk before the hive that depends on them. Weak: the
  // files own the hive's callbacks through the core, not the reverse.
  std::weak_ptr<OpenFiles> weakFiles = files;
  HiveFile::SyncCallback sync = [file, weakFiles]() {
    bool ok = true;
    if (std::shared_ptr<OpenFiles> f = weakFiles.lock())
      for (const Ref<FileStripe>& l : f->files)
        if (l != file && l->writable() && !l->sync()) ok = false;
    return file->sync() && ok;
  };

  u32 mode = options.writable ? 0u : static_cast<u32>(F::modeReadOnly);
  if (options.accept_dirty) mode |= F::modeAcceptDirty;
  if (options.in_memory) mode |= F::modeUnsafe;
  if (options.write_through) mode |= F::modeWriteThrough;
  if (options.unsorted_lists) mode |= F::modeLinearFallback;

  Platform::Error::clear();
  Ref<HiveFile> opened_hive =
      HiveFile::open(Ref<Interfaces::Stripe>(file), logs, mode, engineCodepage(options.codepage), sync);
  if (!opened_hive) return openStatus(path, logPaths);
  Ref<RegistryHiveObj> hive = opened_hive.cast<RegistryHiveObj>();
  if (!hive) return Status(Code::internal, "cannot open hive " + quoted(path) + ": unexpected hive object");
  if (options.fixed_time) hive->setFixedTime(options.fixed_time);
  opened.push_back(file);
  for (int i = 0; i < 3; ++i)
    if (files->logPaths[i].empty()) files->logPaths[i] = logPaths[i];
  auto* core = new HiveCore(std::move(hive), path, options.writable, std::move(files));
  return Hive(CoreRef::adopt(core));
}

Result<Hive> Hive::create(std::string_view pathView, const CreateOptions& options) {
  const std::string path(pathView);
  Platform::Error::clear();
  if (path.empty()) return Status(Code::invalid_argument, "no hive file named");
  if (options.minor_version != 3 && options.minor_version != 5)
    return Status(Code::invalid_argument, "minor_version is 3 or 5");
  const std::string what = "cannot create hive " + quoted(path);
  // The file it replaces must not be in use: hold its lock until the new
  // one has taken its place.
  Ref<FileStripe> old;
  struct stat st;
  if (::stat(path.c_str(), &st) == 0) {
    if (S_ISDIR(st.st_mode)) return Status(Code::is_directory, what + ": it is a directory");
    if (!options.overwrite) return Status(Code::already_exists, what + ": the file exists");
    old = FileStripe::open(path, FileStripe::Read | FileStripe::Write);
    if (!old) return fileStatus("cannot replace", path);
    if (!old->lock(FileStripe::Lock::Exclusive, false)) return inUse(what);
  }
  // Made complete beside the target, then renamed over it.
  std::string temp = path + ".new-XXXXXX";
  const int fd = ::mkstemp(temp.data());
  if (fd < 0) {
    Platform::Error::set(Platform::Error::IO_ERROR | static_cast<u32>(errno));
    return fileStatus(what + ": cannot make a file beside it,", path);
  }
  // A replaced file's permissions carry over; a new one gets the usual 0644.
  ::fchmod(fd, old ? (st.st_mode & 07777) : 0644);
  ::close(fd);
  Ref<FileStripe> file = FileStripe::open(temp, FileStripe::Read | FileStripe::Write);
  bool made = file && file->lock(FileStripe::Lock::Exclusive, false);
  Ref<HiveFile> created;
  if (made) {
    Ref<Interfaces::Stripe> stripe = file;
    const size_t slash = path.rfind('/');
    created = HiveFile::create(
        stripe, options.minor_version, engineCodepage(options.codepage),
        [stripe]() { return stripe->sync(); },
        Platform::utf8ToUtf16(slash == std::string::npos ? path : path.substr(slash + 1)),
        options.fixed_time);
    made = created && ::rename(temp.c_str(), path.c_str()) == 0;
    if (!made && created) Platform::Error::set(Platform::Error::IO_ERROR | static_cast<u32>(errno));
  }
  if (!made) {
    Status s = engineStatus(what, Code::io_error);
    ::unlink(temp.c_str());
    return s;
  }
  syncDirectoryOf(path);
  Ref<RegistryHiveObj> hive = created.cast<RegistryHiveObj>();
  if (!hive) return Status(Code::internal, what + ": unexpected hive object");
  auto files = std::make_shared<OpenFiles>();
  files->files.push_back(file);
  auto* core = new HiveCore(std::move(hive), path, true, std::move(files));
  return Hive(CoreRef::adopt(core));
}

Hive& Hive::operator=(Hive&& other) noexcept {
  if (this != &other) {
    (void)close();
    core_ = std::move(other.core_);
  }
  return *this;
}

Hive::~Hive() {
  (void)close();
}

bool Hive::is_open() const noexcept {
  return core_ && !Access::core(core_)->closed();
}

bool Hive::writable() const noexcept {
  return is_open() && Access::core(core_)->writable();
}

Key Hive::root() const {
  Call call(core_);
  if (!call.ok()) return Key();
  return Access::makeKey(core_, call.hive().rootOffset());
}

Result<Key> Hive::key(std::string_view path) const {
  Key root = this->root();
  if (!root) return Call(core_).status();
  return root.key(path);
}

HiveInfo Hive::info() const {
  HiveInfo info;
  Call call(core_);
  if (!call.ok()) return info;
  RegistryHiveObj& hive = call.hive();
  namespace H = Libraries::Files::Hive;
  const u8* b = hive.header();
  using HH = H::hive_header;
  info.path = call.core().path();
  info.major_version = hive.versionMajor();
  info.minor_version = hive.versionMinor();
  info.primary_sequence = Platform::L32(b + HH::OFS_PRIMARY_SEQ);
  info.secondary_sequence = Platform::L32(b + HH::OFS_SECONDARY_SEQ);
  info.dirty = info.primary_sequence != info.secondary_sequence;
  info.timestamp = Platform::L64(b + HH::OFS_TIMESTAMP);
  info.file_type = Platform::L32(b + HH::OFS_TYPE);
  info.file_format = Platform::L32(b + HH::OFS_FORMAT);
  info.root_offset = Platform::L32(b + HH::OFS_ROOT);
  info.hive_bins_size = hive.hiveLength();
  info.clustering_factor = Platform::L32(b + HH::OFS_CLUSTER);
  info.stored_checksum = Platform::L32(b + HH::OFS_CHECKSUM);
  info.computed_checksum = H::calculateHeaderChecksum(b);
  info.file_name = toUtf8(hive.fullFileName());
  info.writable = call.core().writable();
  if ((hive.mode() & F::modeUnsafe) == 0) {
    // The hbin table grows as records are reached; asking for the last
    // bytes makes it scan to the end.
    if (info.hive_bins_size >= 5 &&
        hive.store().hbinFromOffset(info.hive_bins_size - 5) == H::RecordStore::INVALID_HBIN) {
      info.hbins_state = Platform::Error::firstNote();
      if (info.hbins_state.empty()) info.hbins_state = "a hive bin cannot be read";
    }
    info.hbin_count = hive.hbinCount();
  }
  info.log_mode = static_cast<LogMode>(static_cast<u32>(hive.logMode()));
  if (hive.appliedLog() != RegistryHiveObj::NO_LOG) {
    info.applied_log = static_cast<int>(hive.appliedLog());
    info.applied_sequence = hive.appliedSequence();
  }
  for (u32 i = 0; i < 3; ++i) {
    const LogFileInfo& l = hive.logFile(i);
    LogInfo& out = info.logs[i];
    out.path = call.core().logPaths()[i];
    out.new_format = l.newFormat();
    out.primary_sequence = l.primarySequence();
    out.secondary_sequence = l.secondarySequence();
    out.entries = static_cast<u32>(l.newFormat() ? l.entries.size() : l.pages.size());
    if (!l.entries.empty()) {
      out.first_sequence = l.entries.front().sequence();
      out.last_sequence = l.entries.back().sequence();
    }
    out.applied = l.applied;
    out.usable = l.present() && l.state.empty();
    out.state = out.path.empty() ? std::string() : (!l.present() && l.state.empty() ? "not read" : l.state);
  }
  return info;
}

SecurityDescriptors Hive::security_descriptors() const {
  Key root = this->root();
  if (!root) return Access::makeSecurityDescriptors(core_, 0, Call(core_).status());
  Result<SecurityDescriptor> sd = root.security_descriptor();
  if (!sd) return Access::makeSecurityDescriptors(core_, 0, sd.status());
  return Access::makeSecurityDescriptors(core_, sd->offset(), Status());
}

Status Hive::flush() {
  Call call(core_);
  if (!call.ok()) return call.status();
  if (!call.core().writable()) return Status();
  if (!call.hive().flush())
    return engineStatus("cannot write the changes to " + quoted(call.core().path()), Code::io_error);
  return Status();
}

Status Hive::close() {
  if (!core_) return Status();
  Status result = Access::core(core_)->close();
  core_ = CoreRef();
  return result;
}

Status Hive::recover(std::string_view pathView) const {
  const std::string target(pathView);
  Call call(core_);
  if (!call.ok()) return call.status();
  if (target.empty()) return Status(Code::invalid_argument, "no file named for the recovered copy");
  // Emptying the target first would destroy what is being recovered.
  if (sameFile(call.core().path(), target))
    return Status(Code::invalid_argument, quoted(target) + " is the hive itself");
  for (const std::string& log : call.core().logPaths())
    if (sameFile(log, target))
      return Status(Code::invalid_argument, quoted(target) + " is one of the hive's logs");
  Ref<FileStripe> out = FileStripe::open(
      target, FileStripe::Read | FileStripe::Write | FileStripe::Create | FileStripe::Truncate);
  if (!out) return fileStatus("cannot open", target);
  Platform::Error::clear();
  if (!call.hive().writeRecoveredCopy(out) || !out->sync()) {
    Status s = engineStatus("cannot write the recovered copy to " + quoted(target), Code::io_error);
    // Half a hive is worse than none: nobody should take it for the copy.
    out = nullptr;
    ::unlink(target.c_str());
    return s;
  }
  return Status();
}

}  // namespace hivekit
