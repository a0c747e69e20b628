#include "hive/registry_hive.h"

#include <cstring>

#include "platform/check.h"
#include "platform/error.h"

namespace Libraries::Files::Hive {

const Platform::Log::Channel hiveLog("Hive");

RegistryHiveObj::RegistryHiveObj(Ref<Interfaces::Stripe> file, const LogFiles& logs, u32 mode,
                                 HiveCodepage codepage, SyncCallback sync)
    : _stripe(file),
      _file(file),
      _mode(mode),
      _mon(Mon::create()),
      _codepage(codepage),
      _sync(std::move(sync)) {
  if (!readonly()) _log.setCreateLog1(logs.createLog1);
  // A flush reads the hbins once, front to back: spilled ones go back to
  // their file as it goes.
  _log.setPageRelease([this](const u8* data, u64 length) { _store.giveBack(data, length); });
  _valid = construct(logs);
}

// The steps of an open, in order; false ends it with the reason logged.
bool RegistryHiveObj::construct(const LogFiles& logs) {
  if (!_stripe || !checkModeFlags() || !readBaseBlock()) return false;

  // Logs: one that cannot be read is treated as absent.
  const Ref<Interfaces::Stripe> stripes[3] = {logs.primary, logs.log1, logs.log2};
  const Ref<String> names[3] = {logs.primaryName, logs.log1Name, logs.log2Name};
  const bool unreadable = _log.readLogs(stripes, names);
  if (!chooseLogMode(unreadable) || !checkHeaderChecksum()) return false;
  _rootOffset = L32(_header + hive_header::OFS_ROOT);
  if (logMode() != LogMode::None && !replayLogs()) return false;
  if ((_mode & modeWriteThrough) && logMode() != LogMode::None) {
    HK_LOG(hiveLog, 3) << "Write through not supported together with log mode";
    _mode &= ~static_cast<u32>(modeWriteThrough);
  }

  _log.logDump();

  // The record store: every hbin, as the hive reads after the logs.
  if (!(_mode & modeUnsafe) && !_store.load(!_mapped)) return false;

  if (!checkRootRecord()) {
    HK_LOG(hiveLog, 4) << "Root key not valid";
    Error::set(Errors::ROOT_INVALID);
    return false;
  }
  // What the file's base block holds from here on (a replay into the file
  // rewrote it; a replay through the log leaves the file's as it was, and
  // writes of the header area are not passed to the file then).
  std::memcpy(_diskHeader, _header, hive_header::SIZE);
  return true;
}

bool RegistryHiveObj::checkModeFlags() {
  // Mode flags: unsafe reading and accepting a dirty hive are for read-only
  // use only.
  if ((_mode & (modeUnsafe | modeAcceptDirty)) != 0 && (_mode & modeReadOnly) == 0) {
    HK_LOG(hiveLog, 4) << "Invalid combination of mode flags: " << Log::hex(_mode);
    Error::set(Errors::INVALID_ARGUMENT);
    return false;
  }

  if ((_mode & modeUnsafe) && !_store.openUnsafe()) {
    HK_LOG(hiveLog, 4) << "Failed to read the hive file for unsafe mode";
    return false;
  }
  return true;
}

bool RegistryHiveObj::readBaseBlock() {
  // The base block is read straight into the in-memory copy: the log checks
  // below compare against it.
  _stripe->seek(0);
  u64 got = _stripe->read(_header, hive_header::SIZE);
  if (got != hive_header::SIZE) {
    HK_LOG(hiveLog, 4) << "Failed to read file: read " << got << " of " << hive_header::SIZE << " bytes";
    if ((Error::get() & Error::IO_ERROR) == 0) Error::set(Errors::FILE_TOO_SMALL);
    return false;
  }
  u32 signature = L32(_header + hive_header::OFS_SIGNATURE);
  if (B32(_header) != hive_header::SIGNATURE) {
    HK_LOG(hiveLog, 4) << "Wrong signature: " << Log::hex(signature);
    Error::set(Errors::BAD_SIGNATURE);
    return false;
  }
  const u64 fileSize = _store.fileSize();
  u64 minimum = u64{hiveLength()} + HIVE_HEADER_SIZE;
  if (minimum > 0xffffffffull || minimum > fileSize) {
    HK_LOG(hiveLog, 4) << "File too small, file size:    " << fileSize << ", minimum size: " << minimum;
    Error::set(Errors::FILE_TOO_SMALL);
    return false;
  }
  if (versionMajor() != 1) {
    HK_LOG(hiveLog, 4) << "Unsupported registry version, major=" << versionMajor()
                       << " minor=" << versionMinor();
    Error::set(Errors::UNSUPPORTED_VERSION);
    return false;
  }
  return true;
}

bool RegistryHiveObj::chooseLogMode(bool unreadable) {
  const u32 primarySeq = L32(_header + hive_header::OFS_PRIMARY_SEQ);
  const u32 secondarySeq = L32(_header + hive_header::OFS_SECONDARY_SEQ);
  // A dirty hive whose log could not be read would open as an older state
  // than the logs hold, and writes would then continue from that state.
  if (primarySeq != secondarySeq && unreadable) {
    HK_LOG(hiveLog, 4) << "A log file of the dirty hive could not be read; not opening an older state";
    Error::set(Errors::LOG_UNREADABLE);
    return false;
  }
  if (primarySeq != secondarySeq) {
    if (!_log.chooseLogMode()) return false;
    if (logMode() == LogMode::None) {
      if ((_mode & modeAcceptDirty) == 0) {
        HK_LOG(hiveLog, 4) << "Primary Sequence Number and Secondary Sequence Number are different";
        HK_LOG(hiveLog, 4) << "This would require reading the LOG, LOG1 and/or LOG2 files.";
        HK_LOG(hiveLog, 4) << "Primary  : " << primarySeq;
        HK_LOG(hiveLog, 4) << "Secondary: " << secondarySeq;
        Error::set(Errors::DIRTY_NO_LOG);
        return false;
      }
      HK_LOG(hiveLog, 3) << "Primary Sequence Number and Secondary Sequence Number are different; hive "
                            "considered dirty";
      HK_LOG(hiveLog, 1) << "Primary  : " << primarySeq;
      HK_LOG(hiveLog, 1) << "Secondary: " << secondarySeq;
      HK_LOG(hiveLog, 3) << "This would require reading the LOG, LOG1 and/or LOG2 files.";
    }
  }
  return true;
}

bool RegistryHiveObj::checkHeaderChecksum() {
  const u32 stored = L32(_header + hive_header::OFS_CHECKSUM);
  const u32 calculated = calculateHeaderChecksum(_header);
  if (stored != calculated) {
    HK_LOG(hiveLog, 4) << "Checksum wrong, calculated: " << Log::hex(calculated)
                       << " from header:" << Log::hex(stored);
    HK_LOG(hiveLog, 4) << "This would require reading the LOG, LOG1 and/or LOG2 files";
    HK_LOG(hiveLog, 4) << "and restoring the base from a transaction log file";
    Error::set(Errors::BAD_CHECKSUM);
    return false;
  }
  return true;
}

bool RegistryHiveObj::replayLogs() {
  LogFileInfo* current = _log.currentLogFile();
  if (!current) {
    _log.reportNoCurrentLog();
    return false;
  }
  // A writable hive is repaired in place from an old-format log; otherwise
  // the log's pages are laid over the untouched file.
  const bool keepLog = current->newFormat() || readonly();
  if (keepLog) {
    _mapped = _log.mapOver(_file);
    _stripe = _mapped;
  }
  if (!_log.applyLogMappings(*_file)) {
    HK_LOG(hiveLog, 4) << "Failed to apply log file mappings";
    return false;
  }
  if (keepLog) return true;
  W32(_header + hive_header::OFS_SECONDARY_SEQ, L32(_header + hive_header::OFS_PRIMARY_SEQ));
  W32(_header + hive_header::OFS_CHECKSUM, calculateHeaderChecksum(_header));
  if (_stripe->seek(0) != 0) {
    HK_LOG(hiveLog, 4) << "Failed to seek to start of hive to update header; error: "
                       << Log::hex(Error::get());
    return false;
  }
  if (_stripe->write(_header, hive_header::SIZE) != hive_header::SIZE) {
    HK_LOG(hiveLog, 4) << "Failed to write updated header for hive; error: " << Log::hex(Error::get());
    return false;
  }
  _log.endLogMode();
  return true;
}

// The root key object is made on first use (rootObj): a KeyObj holds a
// counted reference to its hive, which the hive cannot hand out while it is
// still being constructed. So the open checks the root record the way a
// KeyObj is checked when it is made, with the same messages.
bool RegistryHiveObj::checkRootRecord() {
  using N = hive_record_nk;
  const hive_record* hr = cacheLoadRecord(_rootOffset);
  if (hr && hr->signature() == N::SIGNATURE && hr->length() >= N::HEADER_SIZE &&
      hr->u16At(N::OFS_NAME_LENGTH) + N::HEADER_SIZE <= hr->length())
    return true;
  if (!hr)
    HK_LOG(hiveLog, 4) << "Failed to get hive record for key:" << _rootOffset;
  else if (hr->signature() != N::SIGNATURE)
    HK_LOG(hiveLog, 4) << "Key record is no nk record: " << _rootOffset;
  else
    HK_LOG(hiveLog, 4) << "Name of key exceeds length of record";
  return false;
}

std::u16string RegistryHiveObj::fullFileName() const {
  return baseBlockFileName(_header);
}

std::u16string RegistryHiveObj::fileName() const {
  std::u16string name = fullFileName();
  const size_t cut = name.find_last_of(u"/\\");
  return cut == std::u16string::npos ? name : name.substr(cut + 1);
}

RegistryHiveObj::~RegistryHiveObj() {
  // The last flush's result has nowhere to go; its messages are in the log.
  flush();
}

bool RegistryHiveObj::dirty() {
  return L32(_header + hive_header::OFS_PRIMARY_SEQ) != L32(_header + hive_header::OFS_SECONDARY_SEQ);
}

bool RegistryHiveObj::stringToRegName(const Ref<String>& name, std::vector<u8>& out, u64& length,
                                      bool& ascii) {
  if (!name) return false;
  const size_t n = name->length();
  out.clear();
  out.reserve(n + 2);
  bool converted = true;
  for (size_t i = 0; i < n && converted; ++i) {
    u8 byte;
    converted = charToCodepage(_codepage, name->at(i), byte);
    if (converted) out.push_back(byte);
  }
  if (converted) {
    if (out.size() == n) {
      out.push_back(0);
      length = n;
      ascii = true;
      return true;
    }
    HK_LOG(hiveLog, 3) << "Unexpected length of name as ascii: " << out.size();
  }
  out.clear();
  for (size_t i = 0; i < n; ++i) {
    char16_t c = name->at(i);
    out.push_back(static_cast<u8>(c));
    out.push_back(static_cast<u8>(c >> 8));
  }
  out.push_back(0);
  out.push_back(0);
  length = 2 * static_cast<u64>(n);
  ascii = false;
  return true;
}

bool RegistryHiveObj::regNameToString(const u8* bytes, u32 length, bool ascii, Ref<String>& out) const {
  if (ascii) {
    std::u16string units;
    bool ok = decodeCodepageName(_codepage, bytes, length, units);
    out = String::fromUtf16(std::move(units));
    return ok;
  }
  std::u16string units(length / 2, u'\0');
  for (u32 i = 0; i < length / 2; ++i) units[i] = static_cast<char16_t>(L16(bytes + 2 * i));
  out = String::fromUtf16(std::move(units));
  return true;
}

}  // namespace Libraries::Files::Hive
