// Choosing the log mode at open and replaying the logs.
//
// New-format logs are replayed by mapping: logged page ranges are laid over
// the hive file through the mapped stripe, so the file itself is not
// changed. Recovery is chained over both alternate logs: Windows writes
// entries to LOG1 and LOG2 in turn and reconciles some of them into the
// primary file, so the truth is the run of entries, from either log, whose
// sequence numbers continue the primary file's without a gap.
#include <algorithm>
#include <vector>

#include "hive/format/errors.h"
#include "hive/log/log_engine.h"
#include "hive/log/log_pages.h"
#include "platform/check.h"
#include "platform/error.h"

namespace Libraries::Files::Hive {

namespace {

const char* const kLogLabels[3] = {"Primary", "Log1", "Log2"};

std::string nameOf(const LogFileInfo& log) {
  return log.name ? log.name->toUtf8() : std::string("(log)");
}

}  // namespace

bool LogEngine::logUsable(const LogFileInfo& log) const {
  return log.stripe && log.present() && log.primarySequence() == log.secondarySequence() &&
         log.secondarySequence() >= L32(_header + hive_header::OFS_SECONDARY_SEQ);
}

bool LogEngine::chooseLogMode() {
  _logMode = LogMode::None;
  if (L32(_header + hive_header::OFS_PRIMARY_SEQ) == L32(_header + hive_header::OFS_SECONDARY_SEQ))
    return true;
  const bool use1 = logUsable(_logs[1]);
  const bool use2 = logUsable(_logs[2]);
  if (use1 || use2) {
    if (use1 && use2 && _logs[1].newFormat() != _logs[2].newFormat()) {
      HK_LOG(hiveLog, 4) << "Mixing new and old format style logs is not allowed";
      return false;
    }
    _logMode = LogMode::Dual;
  } else if (logUsable(_logs[0])) {
    _logMode = LogMode::Single;
  }
  return true;
}

LogFileInfo* LogEngine::currentLogFile() {
  switch (_logMode) {
    case LogMode::Single:
      return logUsable(_logs[0]) ? &_logs[0] : nullptr;
    case LogMode::Dual: {
      const bool use1 = logUsable(_logs[1]);
      const bool use2 = logUsable(_logs[2]);
      if (use1 && use2) {
        if (_logs[1].primarySequence() == _logs[2].primarySequence()) return nullptr;
        return _logs[1].primarySequence() > _logs[2].primarySequence() ? &_logs[1] : &_logs[2];
      }
      if (use1) return &_logs[1];
      if (use2) return &_logs[2];
      return nullptr;
    }
    case LogMode::None:
      break;
  }
  return nullptr;
}

LogEngine::~LogEngine() {
  if (_mapped) _mapped->setHook(nullptr);
}

Ref<MappedStripe> LogEngine::mapOver(Ref<Interfaces::Stripe> file) {
  _mapped = makeRef<MappedStripe>(std::move(file), this);
  return _mapped;
}

bool LogEngine::isLog(const Interfaces::Stripe* stripe) const {
  for (const LogFileInfo& log : _logs)
    if (log.stripe && log.stripe.get() == stripe) return true;
  return false;
}

void LogEngine::reportNoCurrentLog() const {
  HK_LOG(hiveLog, 4) << "Failed to determine log file for log mode " << static_cast<u32>(_logMode);
  HK_LOG(hiveLog, 4) << "Seq Nrs: primary = " << L32(_header + hive_header::OFS_PRIMARY_SEQ)
                     << ", secondary = " << L32(_header + hive_header::OFS_SECONDARY_SEQ);
  for (u32 i = 0; i < 3; ++i)
    HK_LOG(hiveLog, 4) << kLogLabels[i] << ": has file: " << (_logs[i].stripe ? 1 : 0)
                       << ", new log format: " << _logs[i].newFormat() << ", primary seq "
                       << _logs[i].primarySequence() << ", secondary seq " << _logs[i].secondarySequence()
                       << (_logs[i].state.empty() ? "" : ", ") << _logs[i].state;
}

void LogEngine::logDump() const {
  HK_LOG(hiveLog, 1) << "Seq Nrs: primary = " << L32(_header + hive_header::OFS_PRIMARY_SEQ)
                     << ", secondary = " << L32(_header + hive_header::OFS_SECONDARY_SEQ);
  for (u32 i = 0; i < 3; ++i) {
    const LogFileInfo& log = _logs[i];
    HK_LOG(hiveLog, 1) << kLogLabels[i] << ": Has file: " << (log.stripe ? 1 : 0)
                       << ", New log format: " << (log.newFormat() ? 1 : 0)
                       << ", applicable: " << (logUsable(log) ? 1 : 0);
  }
}

bool LogEngine::applyOldFormatLog(LogFileInfo& log, Interfaces::Stripe& file) {
  const std::string name = nameOf(log);
  HK_LOG(hiveLog, 1) << "Applying" << log.pages.size() << " dirty pages from " << name;
  const u64 logSize = log.stripe->elementCount();
  std::vector<u8> buffer;
  for (const DirtyPage& page : log.pages) {
    // Runs of set bits become one mapping or copy each; the log holds the
    // sectors of a partial page packed, one run after the other.
    u64 logPosition = page.position;
    u32 sector = 0;
    while (sector < 8) {
      if (!(page.mask & (1u << sector))) {
        ++sector;
        continue;
      }
      u32 run = 0;
      while (sector + run < 8 && (page.mask & (1u << (sector + run)))) ++run;
      const u64 fileOffset = HIVE_HEADER_SIZE + static_cast<u64>(page.offset) + sector * 512u;
      const u64 length = run * 512u;
      // A mapping is read only later: a log cut short must fail here, as
      // the copy does, not leave holes in the hive.
      if (logPosition > logSize || logSize - logPosition < length) {
        HK_LOG(hiveLog, 4) << "Failed to read dirty pages from " << name << " at " << logPosition
                           << " of size " << length;
        return false;
      }
      if (_mapped) {
        _mapped->addMapping(fileOffset, length, log.stripe, logPosition);
      } else {
        buffer.resize(length);
        if (log.stripe->readAt(logPosition, buffer.data(), length) != length) {
          HK_LOG(hiveLog, 4) << "Failed to read dirty pages from " << name << " at " << logPosition
                             << " of size " << length;
          return false;
        }
        if (file.writeAt(fileOffset, buffer.data(), length) != length) {
          HK_LOG(hiveLog, 4) << "Failed to write dirty pages from " << name << " to main hive at "
                             << fileOffset << " of size " << length << "; error: " << Error::get();
          return false;
        }
      }
      logPosition += length;
      sector += run;
    }
    ++log.applied;
  }
  if (!log.pages.empty()) _appliedLog = static_cast<u32>(&log - _logs);
  return true;
}

bool LogEngine::mapLogEntry(LogFileInfo& log, const LogEntryInfo& entry) {
  // Each reference covers whole pages, as Windows and this library write
  // them; that also bounds the number of mapped ranges by the log's size.
  const bool ok = forEachEntryRange(log, entry, [&](const LoggedRange& range) {
    _mapped->addMapping(HIVE_HEADER_SIZE + static_cast<u64>(range.offset), range.length, log.stripe,
                        range.position);
    return true;
  });
  if (!ok)
    HK_LOG(hiveLog, 4) << "Failed to retrieve data of log entry at" << entry.position << " of log file "
                       << nameOf(log);
  return ok;
}

bool LogEngine::applyLogMappings(Interfaces::Stripe& file) {
  if (_logMode == LogMode::None) return true;

  // Old-format logs: one log, LOG1 or LOG2, as the log mode chose it. The
  // primary log is never replayed.
  LogFileInfo* one = nullptr;
  const bool use1 = logUsable(_logs[1]), use2 = logUsable(_logs[2]);
  if (use1 && use2)
    one = _logs[1].primarySequence() > _logs[2].primarySequence() ? &_logs[1] : &_logs[2];
  else if (use1)
    one = &_logs[1];
  else if (use2)
    one = &_logs[2];
  else
    return true;
  if (!one->newFormat()) return applyOldFormatLog(*one, file);

  if (!_mapped) {
    HK_LOG(hiveLog, 4) << "Hive mapping does not exist to apply entries from " << nameOf(*one);
    return false;
  }
  return applyNewFormatLogs();
}

bool LogEngine::applyNewFormatLogs() {
  // Every accepted entry of both usable new-format logs, in sequence order.
  struct Candidate {
    LogFileInfo* log;
    const LogEntryInfo* entry;
  };
  std::vector<Candidate> chain;
  for (u32 i = 1; i < 3; ++i) {
    LogFileInfo& log = _logs[i];
    if (!logUsable(log) || !log.newFormat()) continue;
    HK_LOG(hiveLog, 1) << "Applying" << log.entries.size() << " log entries from" << nameOf(log)
                       << " for hive" << baseBlockFileName(_header);
    for (const LogEntryInfo& e : log.entries)
      if (e.sequence() >= log.primarySequence()) chain.push_back({&log, &e});
  }
  // Of an entry logged in both files, the copy in the newer log counts.
  std::stable_sort(chain.begin(), chain.end(), [](const Candidate& a, const Candidate& b) {
    if (a.entry->sequence() != b.entry->sequence()) return a.entry->sequence() < b.entry->sequence();
    return a.log->primarySequence() > b.log->primarySequence();
  });
  // Start at the entry that follows the primary file's last clean state or,
  // when Windows has already folded the first entries into the file, at the
  // first one logged. Every logged entry is at least the primary file's
  // secondary sequence number (older logs are stale), so the chain starts
  // at its first element either way.
  const LogEntryInfo* last = nullptr;
  u32 length = 0;  // hive bins data size of the last entry that changed anything
  for (size_t i = 0; i < chain.size(); ++i) {
    const LogEntryInfo& e = *chain[i].entry;
    if (last && e.sequence() == last->sequence()) continue;  // the same entry from the other log
    if (last && e.sequence() != last->sequence() + 1) {
      HK_LOG(hiveLog, 3) << "Log entry " << e.sequence() << " does not follow entry " << last->sequence()
                         << "; recovery stops there";
      break;
    }
    _appliedSequence = e.sequence();
    _appliedLog = static_cast<u32>(chain[i].log - _logs);
    if (e.pageCount() == 0) {
      last = &e;
      continue;
    }
    if (!mapLogEntry(*chain[i].log, e)) return false;
    ++chain[i].log->applied;
    last = &e;
    length = e.hiveLength();
  }
  if (length > hiveLength()) {
    // The logged hive grew beyond the file: reads past the file's end come
    // from the mapped ranges. A size no hive file can have, or one that
    // neither the file nor the logged pages reach, is not taken.
    const u64 end = u64{length} + HIVE_HEADER_SIZE;
    if (length % hive_hbin::PAGE != 0 || end > 0xffffffffull || end > _mapped->elementCount()) {
      HK_LOG(hiveLog, 3) << "Ignoring hive bins data size " << length << " of log entry " << _appliedSequence;
    } else {
      W32(_header + hive_header::OFS_LENGTH, length);
      W32(_header + hive_header::OFS_CHECKSUM, calculateHeaderChecksum(_header));
    }
  }
  return true;
}

}  // namespace Libraries::Files::Hive
