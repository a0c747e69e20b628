// Writing a log-mode hive: changes become new entries of the current
// new-format log, and the written pages are mapped so later reads see them.
// The hive file itself is never written in log mode.
#include <algorithm>
#include <cstring>
#include <vector>

#include "hive/format/errors.h"
#include "hive/log/log_engine.h"
#include "hive/log/marvin32.h"
#include "platform/check.h"
#include "platform/error.h"

namespace Libraries::Files::Hive {

namespace {
std::string nameOf(const LogFileInfo& log) {
  return log.name ? log.name->toUtf8() : std::string("(log)");
}
}  // namespace

void LogEngine::logHeader(u8* out, u32 sequence) const {
  std::memcpy(out, _header, hive_header::BASE_SIZE);
  W32(out + hive_header::OFS_PRIMARY_SEQ, sequence);
  W32(out + hive_header::OFS_SECONDARY_SEQ, sequence);
  W32(out + hive_header::OFS_TYPE, 6);
  W32(out + hive_header::OFS_CHECKSUM, calculateHeaderChecksum(out));
}

// A log is started afresh with a header made from the base block.
bool LogEngine::startLog(LogFileInfo& log, u32 sequence) {
  u8 header[hive_header::BASE_SIZE];
  logHeader(header, sequence);
  if (log.stripe->writeAt(0, header, sizeof header) != sizeof header) {
    HK_LOG(hiveLog, 4) << "Failed to write new log entry header to " << nameOf(log)
                       << "; error: " << Error::get();
    return false;
  }
  std::memcpy(log.header, header, sizeof header);
  log.entries.clear();
  log.state.clear();
  return true;
}

std::vector<u8> LogEngine::logEntryHead(const std::vector<LogPage>& pages, u32 sequence, u32 flags,
                                        u64& size) const {
  u64 dataSize = 0;
  for (const LogPage& p : pages) dataSize += p.length;
  const u64 headSize = hive_log_entry::SIZE + 8ull * pages.size();
  const u64 used = headSize + dataSize;
  size = (used + 511) & ~511ull;
  if (size > 0xFFFFFFFFull) return {};
  std::vector<u8> head(headSize, 0);
  u8* h = head.data();
  std::memcpy(h, "HvLE", 4);
  W32(h + hive_log_entry::OFS_SIZE, static_cast<u32>(size));
  W32(h + hive_log_entry::OFS_FLAGS, flags);
  W32(h + hive_log_entry::OFS_SEQ, sequence);
  W32(h + hive_log_entry::OFS_LENGTH, hiveLength());
  W32(h + hive_log_entry::OFS_COUNT, static_cast<u32>(pages.size()));
  u8* refs = h + hive_log_entry::SIZE;
  for (size_t i = 0; i < pages.size(); ++i) {
    W32(refs + 8 * i, pages[i].offset);
    W32(refs + 8 * i + 4, pages[i].length);
  }
  // The body's hash covers the references, the pages and the zeros behind.
  Marvin32 body;
  body.update(refs, 8ull * pages.size());
  for (const LogPage& p : pages)
    eachPiece(p, _release, [&body](const u8* data, u64 n) {
      body.update(data, n);
      return true;
    });
  static const u8 zeros[512] = {};
  body.update(zeros, size - used);
  W64(h + hive_log_entry::OFS_HASH1, body.finish());
  W64(h + hive_log_entry::OFS_HASH2, marvin32(h, 32));
  return head;
}

bool LogEngine::writeLogEntryBody(Interfaces::Stripe& stripe, u64 position, const std::vector<u8>& head,
                                  const std::vector<LogPage>& pages, u64 size, u64 extraZeros) const {
  u64 at = position + hive_log_entry::SIZE;
  const u64 refs = head.size() - hive_log_entry::SIZE;
  if (stripe.writeAt(at, head.data() + hive_log_entry::SIZE, refs) != refs) return false;
  at += refs;
  for (const LogPage& p : pages) {
    const bool written = eachPiece(p, _release, [&stripe, &at](const u8* data, u64 n) {
      if (stripe.writeAt(at, data, n) != n) return false;
      at += n;
      return true;
    });
    if (!written) return false;
  }
  static const u8 zeros[1024] = {};
  for (u64 left = position + size + extraZeros - at; left > 0;) {
    const u64 n = std::min<u64>(left, sizeof zeros);
    if (stripe.writeAt(at, zeros, n) != n) return false;
    at += n;
    left -= n;
  }
  return true;
}

// The first entry of a checkpoint starts the log afresh: header, entry and
// a zero block that ends the scan before anything an earlier, longer entry
// left behind, all written before the one sync (the file is clean, so
// nothing reads the log until the base block says otherwise). A later
// entry of the same checkpoint (one before it failed) extends the chain the
// dirty file depends on: its body and the zero block behind it are synced
// before its header is written.
u64 LogEngine::writeCheckpointEntry(LogFileInfo& log, const std::vector<LogPage>& pages, u32 sequence,
                                    u64 position) {
  u64 size = 0;
  const std::vector<u8> head = logEntryHead(pages, sequence, 0, size);
  if (head.empty()) return 0;
  const std::string name = nameOf(log);
  const bool first = position == 0;
  if (first) position = hive_header::BASE_SIZE;
  Interfaces::Stripe& stripe = *log.stripe;
  bool ok;
  if (first) {
    u8 header[hive_header::BASE_SIZE];
    logHeader(header, sequence);
    ok = stripe.writeAt(0, header, sizeof header) == sizeof header &&
         stripe.writeAt(position, head.data(), hive_log_entry::SIZE) == hive_log_entry::SIZE &&
         writeLogEntryBody(stripe, position, head, pages, size, 512) && stripe.sync();
    if (ok) {
      std::memcpy(log.header, header, sizeof header);
      log.entries.clear();
      log.state.clear();
    }
  } else {
    ok = writeLogEntryBody(stripe, position, head, pages, size, 512) && stripe.sync() &&
         stripe.writeAt(position, head.data(), hive_log_entry::SIZE) == hive_log_entry::SIZE && stripe.sync();
  }
  if (!ok) {
    HK_LOG(hiveLog, 4) << "Failed to write log entry " << sequence << " to " << name
                       << "; error: " << Log::hex(Error::get());
    return 0;
  }
  LogEntryInfo info;
  info.position = position;
  std::memcpy(info.header, head.data(), hive_log_entry::SIZE);
  log.entries.push_back(info);
  return position + size;
}

bool LogEngine::placeNextEntry(LogFileInfo& log, const std::string& name, u32& sequence, u32& flags,
                               u64& position) {
  // A new entry must be the next one of the recovered chain, or the next
  // open would not apply it. It continues the current log when that log's
  // last entry ends the chain. A log none of whose entries was applied
  // (none accepted, or all beyond a gap) is started afresh one past the
  // chain, or one past the primary file's secondary sequence number when
  // nothing was applied. A log whose entries were applied but do not end
  // the chain cannot be continued.
  const bool chained = _appliedLog != NO_LOG && _logs[_appliedLog].newFormat();
  const bool continues = !log.entries.empty() && chained && log.entries.back().sequence() == _appliedSequence;
  if (continues) {
    const LogEntryInfo& last = log.entries.back();
    sequence = last.sequence() + 1;
    flags = L32(last.header + hive_log_entry::OFS_FLAGS);
    position = last.position + ((static_cast<u64>(last.size()) + 511) & ~511ull);
  } else if (log.applied == 0) {
    sequence = (chained ? _appliedSequence : L32(_header + hive_header::OFS_SECONDARY_SEQ)) + 1;
    if (!startLog(log, sequence)) return false;
    position = hive_header::BASE_SIZE;
  } else {
    HK_LOG(hiveLog, 4) << "Entries of log file " << name << " do not end the recovered state at "
                       << _appliedSequence << "; not writing to it";
    return false;
  }
  return true;
}

bool LogEngine::appendLogEntry(const std::vector<LogPage>& pages) {
  HK_ASSERT(hiveLog, static_cast<bool>(_mapped), false);
  LogFileInfo* log = currentLogFile();
  if (!log) {
    HK_LOG(hiveLog, 4) << "No log file applicable despite the log mode saying so";
    return false;
  }
  if (!log->newFormat()) {
    HK_LOG(hiveLog, 4) << "Writing to an old style log file is not supported";
    return false;
  }
  const std::string name = nameOf(*log);
  // The primary log is never replayed at open: entries written to it would
  // be lost on the next open.
  if (log == &_logs[0]) {
    HK_LOG(hiveLog, 4) << "Writing to the primary log file is not supported: " << name;
    return false;
  }
  u32 sequence, flags = 0;
  u64 position;
  if (!placeNextEntry(*log, name, sequence, flags, position)) return false;

  u64 entrySize = 0;
  const std::vector<u8> head = logEntryHead(pages, sequence, flags, entrySize);
  if (head.empty()) return false;
  const u8* h = head.data();

  // The entry's header goes last, after its references and pages: until
  // then nothing at the position reads as an entry, so a write that fails
  // part way leaves no entry whose header a later open would take with the
  // pages half written (where the log has room behind its entries, cutting
  // it back removes nothing). The pages are synced before the header is
  // written, so a disk that reorders writes cannot keep a header whose
  // pages it lost: replay checks only the header's own hash. On any
  // failure the log is cut back to what it was.
  const u64 oldSize = log->stripe->elementCount();
  if (oldSize < position && log->stripe->setElementCount(position) < position) {
    HK_LOG(hiveLog, 4) << "Failed to resize log file " << name << "; error: " << Error::get();
    Error::set(Errors::INVALID_FILE);
    return false;
  }
  HK_LOG(hiveLog, 1) << "Writing new log entry at " << position;
  if (!writeLogEntryBody(*log->stripe, position, head, pages, entrySize, 0) || !log->stripe->sync() ||
      log->stripe->writeAt(position, h, hive_log_entry::SIZE) != hive_log_entry::SIZE) {
    HK_LOG(hiveLog, 4) << "Failed to write data to log " << name << "; error: " << Error::get();
    if (log->stripe->setElementCount(oldSize) != oldSize)
      HK_LOG(hiveLog, 4) << "Failed to reset size of log file " << name << "; error: " << Error::get();
    return false;
  }

  LogEntryInfo info;
  info.position = position;
  std::memcpy(info.header, h, hive_log_entry::SIZE);
  log->entries.push_back(info);
  ++log->applied;
  _appliedSequence = sequence;
  _appliedLog = static_cast<u32>(log - _logs);
  u64 dataPosition = position + hive_log_entry::SIZE + 8ull * pages.size();
  for (const LogPage& p : pages) {
    _mapped->addMapping(HIVE_HEADER_SIZE + static_cast<u64>(p.offset), p.length, log->stripe, dataPosition);
    dataPosition += p.length;
  }
  return true;
}

LogFileInfo* LogEngine::flushLog() {
  if (_logs[1].stripe) return &_logs[1];
  if (_createLog1) {
    // Asked once: a log that cannot be made now is not retried each flush.
    auto create = std::move(_createLog1);
    _createLog1 = nullptr;
    if (Ref<Interfaces::Stripe> made = create()) {
      _logs[1].stripe = made;
      if (!_logs[1].name) _logs[1].name = String::create("(.LOG1)");
      return &_logs[1];
    }
    HK_LOG(hiveLog, 3) << "No log file could be made for the flush; writing the hive in place";
  }
  return _logs[2].stripe ? &_logs[2] : nullptr;
}

bool LogEngine::handleAction(MappedStripe& stripe, Action action, const void* buffer, u64 offset, u64 size,
                             u64& done) {
  HK_ASSERT_AS(hiveLog, "_logMode != LogMode::None", _logMode != LogMode::None, false);
  if (action == Action::Resize) {
    // Growth of a log-mode hive lives in the log; the file keeps its size.
    done = offset;
    return true;
  }
  if (action != Action::Write || offset > stripe.elementCount()) return false;
  const u8* bytes = static_cast<const u8*>(buffer);
  if (offset < HIVE_HEADER_SIZE) {
    HK_LOG(hiveLog, 1) << "Accessing in header area: " << offset << "/" << size;
    if (offset + size <= HIVE_HEADER_SIZE) {
      HK_LOG(hiveLog, 1) << "Access solely in header area";
      done = size;
      return true;
    }
    const u64 skip = HIVE_HEADER_SIZE - offset;
    bytes += skip;
    size -= skip;
    offset = HIVE_HEADER_SIZE;
    HK_LOG(hiveLog, 1) << "Adjusted access: " << offset << "/" << size;
  }
  const u64 start = offset & ~4095ull;
  const u64 length = ((offset - start + size) + 4095) & ~4095ull;
  HK_LOG(hiveLog, 1) << "Log page range: start " << start << ", end " << start + length << ", length "
                     << length;
  std::vector<u8> page(length, 0);
  // Bytes of the pages that the write does not cover: as the hive reads now.
  const u64 current = stripe.elementCount();
  const u64 existing = start < current ? std::min(length, current - start) : 0;
  if (stripe.readMapped(start, page.data(), existing) != existing) {
    HK_LOG(hiveLog, 4) << "Failed to read original data for log; error: " << Log::hex(Error::get());
    return false;
  }
  std::memcpy(page.data() + (offset - start), bytes, size);
  if (!appendLogEntry(
          {LogPage{static_cast<u32>(start - HIVE_HEADER_SIZE), static_cast<u32>(length), page.data()}}))
    return false;
  done = size + (static_cast<const u8*>(buffer) == bytes ? 0 : bytes - static_cast<const u8*>(buffer));
  return true;
}

}  // namespace Libraries::Files::Hive
