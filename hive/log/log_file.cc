// Reading and checking one transaction log against the primary file.
#include <algorithm>
#include <vector>

#include "hive/format/errors.h"
#include "hive/log/log_engine.h"
#include "hive/log/marvin32.h"
#include "platform/error.h"

namespace Libraries::Files::Hive {

namespace {

// The name part of a base block's file name field: the units after the
// last '/' or '\', up to the first zero unit.
std::u16string headerFileName(const u8* header) {
  std::u16string full;
  for (u32 i = 0; i < hive_header::FILENAME_UNITS; ++i) {
    char16_t c = L16(header + hive_header::OFS_FILENAME + 2 * i);
    if (c == 0) break;
    full.push_back(c);
  }
  size_t cut = full.find_last_of(u"/\\");
  return cut == std::u16string::npos ? full : full.substr(cut + 1);
}

std::string nameOf(const Ref<String>& name) {
  return name ? name->toUtf8() : std::string("(log)");
}

// New format: a run of "HvLE" entries from offset 512, each on a 512-byte
// boundary, numbered without gaps. A damaged, cut or out-of-sequence entry
// ends the run; only a failed read is an error.
bool scanEntries(Interfaces::Stripe& log, const std::string& logName, LogFileInfo& info) {
  const u64 logSize = log.elementCount();
  u64 p = 512;
  u8 block[512];
  while (logSize > p && logSize - p > 512) {
    const u64 n = info.entries.size();
    if (log.readAt(p, block, sizeof block) != sizeof block) {
      HK_LOG(hiveLog, 4) << "Failed to read log entry " << n << " in " << logName
                         << "; error: " << Error::get();
      return false;
    }
    if (B32(block) != hive_log_entry::SIGNATURE) break;
    if (marvin32(block, 32) != L64(block + hive_log_entry::OFS_HASH2)) {
      HK_LOG(hiveLog, 3) << "Hash2 does not match for log entry " << n << " in " << logName;
      break;
    }
    LogEntryInfo entry;
    entry.position = p;
    std::copy(block, block + hive_log_entry::SIZE, entry.header);
    if (!info.entries.empty()) {
      const u32 expected = info.entries.back().sequence() + 1;
      if (entry.sequence() > expected) {
        HK_LOG(hiveLog, 3) << "Log entry " << n << " does not directly follow previous log entry in "
                           << logName;
        break;
      }
      if (entry.sequence() < expected) break;  // left over from an earlier cycle
    }
    // An entry must at least hold its header and end inside the log;
    // anything else would stall or overrun the scan.
    const u64 size = entry.size();
    if (size < hive_log_entry::SIZE || size > logSize - p) {
      HK_LOG(hiveLog, 3) << "Log entry " << n << " in " << logName << " does not fit in the log: size "
                         << size;
      break;
    }
    info.entries.push_back(entry);
    p += (size + 511) & ~511ull;
  }
  return true;
}

}  // namespace

bool LogEngine::readLogs(const Ref<Interfaces::Stripe> (&stripes)[3], const Ref<String> (&names)[3]) {
  const char* const failures[3] = {"Failed to initialize primary log file",
                                   "Failed to initialize first log file",
                                   "Failed to initialize second log file"};
  bool unreadable = false;
  for (u32 i = 0; i < 3; ++i) {
    if (!initLogFile(stripes[i], names[i], _logs[i])) {
      HK_LOG(hiveLog, 4) << failures[i];
      unreadable = unreadable || _logs[i].unreadable;
      std::string state = _logs[i].state;
      _logs[i] = LogFileInfo();
      _logs[i].name = names[i];
      _logs[i].state = state;
    }
  }
  return unreadable;
}

bool LogEngine::initLogFile(Ref<Interfaces::Stripe> log, Ref<String> name, LogFileInfo& info) {
  const u8* primary = _header;
  info = LogFileInfo();
  info.stripe = log;
  info.name = name;
  const std::string logName = nameOf(name);
  if (!log) {
    info.state = "absent";
    return true;
  }
  const u64 logSize = log->elementCount();
  if (logSize == 0) {
    info.state = "empty";
    return true;
  }
  const u64 minimum = static_cast<u64>(L32(primary + hive_header::OFS_CLUSTER)) * 512;
  if (logSize < minimum) {
    info.state = "shorter than one cluster";
    Error::set(Errors::INVALID_FILE);
    return false;
  }
  u8 header[hive_header::BASE_SIZE];
  const u64 got = log->readAt(0, header, sizeof header);
  if (got != sizeof header) {
    HK_LOG(hiveLog, 4) << "Failed to read header from log file " << logName << "; error: " << Error::get();
    info.state = "header unreadable";
    info.unreadable = logSize >= sizeof header;
    return false;
  }
  if (!checkLogHeader(header, logName, info)) return false;
  const u32 type = info.fileType();

  const u32 primarySecondary = L32(primary + hive_header::OFS_SECONDARY_SEQ);
  if (info.primarySequence() < primarySecondary || info.secondarySequence() < primarySecondary) {
    info.state = "stale (older than the hive)";
    return true;
  }

  // Entries are read even when the header's own numbers differ, so a
  // report can show them; such a log is not used for recovery.
  const bool complete = info.primarySequence() == info.secondarySequence();
  if (type == 6) {
    if (!scanEntries(*log, logName, info)) {
      info.state = "entry unreadable";
      info.unreadable = true;
      return false;
    }
    info.state = complete ? "" : "its sequence numbers differ";
    return true;
  }

  return readDirtyVector(*log, logName, complete, info);
}

// The log's base block copy against the hive's: signature, checksum,
// version, file name and file type. Kept in `info` when it passes.
bool LogEngine::checkLogHeader(const u8* header, const std::string& logName, LogFileInfo& info) {
  if (B32(header) != hive_header::SIGNATURE) {
    HK_LOG(hiveLog, 4) << "Signature of log file " << logName << " is invalid: " << Log::hex(B32(header));
    info.state = "bad signature";
    Error::set(Errors::INVALID_FILE);
    return false;
  }
  if (calculateHeaderChecksum(header) != L32(header + hive_header::OFS_CHECKSUM)) {
    HK_LOG(hiveLog, 4) << "Invalid checksum of log file " << logName;
    info.state = "bad checksum";
    Error::set(Errors::INVALID_FILE);
    return false;
  }
  if (L32(header + hive_header::OFS_MAJOR) != L32(_header + hive_header::OFS_MAJOR) ||
      L32(header + hive_header::OFS_MINOR) != L32(_header + hive_header::OFS_MINOR)) {
    HK_LOG(hiveLog, 4) << "Version of log file " << logName << " does not match version of primary file";
    info.state = "version differs from the hive";
    Error::set(Errors::INVALID_FILE);
    return false;
  }
  if (headerFileName(header) != headerFileName(_header)) {
    std::u16string got32, want32;
    for (u32 i = 0; i < hive_header::FILENAME_UNITS; ++i) {
      got32.push_back(L16(header + hive_header::OFS_FILENAME + 2 * i));
      want32.push_back(L16(_header + hive_header::OFS_FILENAME + 2 * i));
    }
    HK_LOG(hiveLog, 4) << "Provided log file " << logName
                       << " does not belong to primary hive; got: " << got32 << ", expected: " << want32;
    info.state = "belongs to another hive";
    Error::set(Errors::INVALID_ARGUMENT);
    return false;
  }
  const u32 type = L32(header + hive_header::OFS_TYPE);
  if (type != 1 && type != 2 && type != 6) {
    HK_LOG(hiveLog, 4) << "Invalid file type of log file " << logName << ": " << type;
    info.state = "unknown file type";
    Error::set(Errors::INVALID_ARGUMENT);
    return false;
  }
  std::copy(header, header + hive_header::BASE_SIZE, info.header);
  return true;
}

// Old format: a "DIRT" dirty vector, one bit per 512-byte sector of the
// hive bins data, then the data of every dirty page.
bool LogEngine::readDirtyVector(Interfaces::Stripe& log, const std::string& logName, bool complete,
                                LogFileInfo& info) {
  const u32 length = L32(_header + hive_header::OFS_LENGTH);
  const u64 logSize = log.elementCount();
  if (length % 512 != 0) HK_LOG(hiveLog, 3) << "Length of hive data is not a multiple of 512: " << length;
  const u64 vectorSize = ((((static_cast<u64>(length) >> 9) + 7) >> 3) + 0x203) & ~0x1FFull;
  std::vector<u8> vector(vectorSize);
  const u64 got = log.readAt(512, vector.data(), vectorSize);
  if (got < std::min(vectorSize, logSize > 512 ? logSize - 512 : 0)) {
    HK_LOG(hiveLog, 4) << "Failed to read log bitmap from " << logName << "; error: " << Error::get();
    info.state = "dirty vector unreadable";
    info.unreadable = true;
    return false;
  }
  if (got == 0) {
    info.state = complete ? "" : "its sequence numbers differ";
    return true;
  }
  if (got < vectorSize) {
    HK_LOG(hiveLog, 4) << "Failed to read log bitmap from " << logName << "; error: " << Error::get();
    info.state = "dirty vector cut short";
    return false;
  }
  if (B32(vector.data()) != hive_log_dirt::SIGNATURE) {
    HK_LOG(hiveLog, 4) << "Unexpected signature of dirty vector for " << logName << ": "
                       << Log::hex(B32(vector.data()));
    info.state = "bad dirty vector signature";
    Error::set(Errors::INVALID_FILE);
    return false;
  }
  u64 position = 512 + vectorSize;
  const u32 pages = length / 4096;
  for (u32 i = 0; i < pages; ++i) {
    const u8 b = vector[4 + i];
    if (b == 0) continue;
    if (b != 0xFF)
      HK_LOG(hiveLog, 3) << "Subset of pages marked dirty for " << logName << " at offset " << i << ": "
                         << Log::hex(b) << " (" << static_cast<u32>(b) << ")";
    info.pages.push_back({b, i * 4096, position});
    position += 4096;
  }
  info.state = complete ? "" : "its sequence numbers differ";
  return true;
}

}  // namespace Libraries::Files::Hive
