// Checkpoint: the flush of a hive without a log in use, in four steps that
// a crash or a failed write at any moment cannot tear (the format's own
// recovery rules do the rest):
//
//   1. the dirty hbins go, as one new-format entry, to the flush log
//      (.LOG1, made when missing), synced;
//   2. the base block is marked dirty (primary sequence number raised),
//      synced: from here on an open replays the log;
//   3. the hbins are written in place, synced;
//   4. the base block is marked clean (secondary = primary) with the new
//      length and timestamp.
//
// Before step 2 completes the file is the last flush's hive and the log is
// not consulted; after it, the file is dirty and the log's entry lays the
// new pages over whatever step 3 had written. A checkpoint that fails after
// step 1 stays open: its entry is the file's way back, so the next one
// appends its own entry to the same chain (body synced before the entry's
// header, since the file depends on the log by then) rather than starting
// the log afresh. A hive without any log to write is flushed by steps 2 to
// 4 alone: a crash then leaves a dirty hive that opens only as stored,
// never a torn one that claims to be clean.
//
// Works on the hive's in-memory base block (`header`) and the copy of what
// the file holds (`diskHeader`, brought up to date by step 4); both belong
// to the hive and must outlive this object.
#pragma once

#include <vector>

#include "hive/format/format.h"
#include "hive/log/log_engine.h"

namespace Libraries::Files::Hive {

class Checkpoint {
 public:
  using LogPage = LogEngine::LogPage;

  Checkpoint(u8* header, u8* diskHeader, LogEngine& log)
      : _header(header), _diskHeader(diskHeader), _log(log) {}

  // Steps 1 to 4 for the hbin runs `runs` (offsets in the hive bins data),
  // the base block stamped `now`. False at the first step that fails, with
  // the reason logged: the caller keeps its hbins dirty.
  bool run(Interfaces::Stripe& file, const std::vector<LogPage>& runs, u64 now);
  // A checkpoint began and has not marked the base block clean: the next
  // flush must run one even with nothing dirty.
  bool open() const { return _open; }

  // Writes each run in place; false at the first that fails.
  static bool writeRuns(Interfaces::Stripe& file, const std::vector<LogPage>& runs,
                        const LogEngine::PageRelease& release);

 private:
  // The secondary sequence number a new chain starts from: past the file's
  // and past every number another log than `index` carries, so that their
  // entries are stale beside the dirty file.
  u32 chainBase(u32 index) const;
  // The base block as the file holds it with new sequence numbers.
  bool writeBaseBlock(Interfaces::Stripe& file, u8* block, u32 primary, u32 secondary);

  u8* _header;
  u8* _diskHeader;
  LogEngine& _log;
  // The open checkpoint: its log (index as for LogEngine::logFile), the
  // secondary sequence number while it is open, the sequence number of its
  // last entry, and where the next entry goes.
  bool _open = false;
  u32 _logIndex = LogEngine::NO_LOG;
  u32 _base = 0;
  u32 _sequence = 0;
  u64 _next = 0;
};

}  // namespace Libraries::Files::Hive
