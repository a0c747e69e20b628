// LogEngine: the transaction logs of one open hive (.LOG, .LOG1, .LOG2).
//
// Reads and checks the three logs at open (log_file.cc), chooses the log
// mode and replays the logs over the hive file (log_replay.cc), and in a
// log mode turns the hive's writes into new log entries (log_writer.cc).
//
// It works on the hive's in-memory base block, which the hive owns and
// hands over at construction: the engine reads its sequence numbers, hive
// bins data size and file name, and a replay that finds the logged hive
// longer than the file raises the size there (checksum updated). It knows
// nothing else of the hive: the record store above sees the logs only as
// the mapped stripe the engine lays over the file.
//
// Invariants:
//  - logFile(i) of a log that failed its checks holds only its name and
//    why it failed (state); it is never replayed nor written.
//  - In a log mode every write of the hive file goes through mapped() and
//    ends up as an entry of the current log, which is mapped over the file:
//    the hive file itself is never written then.
//  - appliedLog()/appliedSequence() name the last entry the chain holds
//    (replayed at open or appended since); a new entry always continues
//    that chain, or the next open would not apply it.
// Callers hold the hive's monitor for everything but the open.
#pragma once

#include <algorithm>
#include <functional>
#include <string>
#include <vector>

#include "hive/format/format.h"
#include "hive/log/log_file.h"
#include "hive/log/mapped_stripe.h"

namespace Libraries::Files::Hive {

class LogEngine : public MappedStripe::Hook {
 public:
  enum class LogMode : u32 { None = 0, Single = 1, Dual = 2 };
  static constexpr u32 NO_LOG = 0xffffffffu;
  static constexpr u32 HIVE_HEADER_SIZE = hive_header::SIZE;

  // A run of bytes of the hive bins data written as one page reference of
  // a log entry.
  struct LogPage {
    u32 offset;  // in the hive bins data
    u32 length;
    const u8* data;
  };

  // The owner of the pages handed in may give their memory back once they
  // are read: every pass over them (hashing, writing) goes in pieces of at
  // most RELEASE_PIECE bytes and calls this after each.
  using PageRelease = std::function<void(const u8* data, u64 length)>;
  static constexpr u64 RELEASE_PIECE = u64{8} << 20;
  // `use(data, length)` on each piece of `page` in order, `release` (when
  // set) after it; false as soon as `use` is.
  template <class Use>
  static bool eachPiece(const LogPage& page, const PageRelease& release, Use&& use) {
    for (u64 done = 0; done < page.length;) {
      const u64 n = std::min<u64>(page.length - done, RELEASE_PIECE);
      if (!use(page.data + done, n)) return false;
      if (release) release(page.data + done, n);
      done += n;
    }
    return true;
  }

  // `header` is the hive's base block (hive_header::SIZE bytes); it must
  // outlive the engine.
  explicit LogEngine(u8* header) : _header(header) {}
  ~LogEngine() override;
  LogEngine(const LogEngine&) = delete;
  LogEngine& operator=(const LogEngine&) = delete;

  // --- Open -------------------------------------------------------------
  // Reads and checks the three logs (any may be null) against the base
  // block. A log that fails is kept as absent, with its name and state.
  // True when one that failed could not be read where it holds bytes
  // (what it would add to recovery is unknown).
  bool readLogs(const Ref<Interfaces::Stripe> (&stripes)[3], const Ref<String> (&names)[3]);
  // Sets logMode() for a dirty base block; false when the usable logs mix
  // the old and the new format.
  bool chooseLogMode();
  // Lays a mapped stripe over `file` (the hive reads through it from then
  // on) and makes this engine its hook; returns it.
  Ref<MappedStripe> mapOver(Ref<Interfaces::Stripe> file);
  // Replays the chosen logs: through the mapped stripe when there is one,
  // else by writing the logged pages into `file`.
  bool applyLogMappings(Interfaces::Stripe& file);
  // After a replay into the file: the log is done with.
  void endLogMode() { _logMode = LogMode::None; }
  // Severity-1 report of the sequence numbers and the three logs.
  void logDump() const;
  // Severity-4 report of why no log could be chosen for the log mode.
  void reportNoCurrentLog() const;

  // --- State ------------------------------------------------------------
  LogMode logMode() const { return _logMode; }
  // 0 primary (.LOG), 1 first alternate, 2 second alternate.
  const LogFileInfo& logFile(u32 index) const { return _logs[index]; }
  u32 appliedLog() const { return _appliedLog; }
  u32 appliedSequence() const { return _appliedSequence; }
  // The log the mode writes to (the newer usable alternate, or the primary
  // log in single mode); null when none applies.
  LogFileInfo* currentLogFile();
  // True when `stripe` is one of the logs.
  bool isLog(const Interfaces::Stripe* stripe) const;

  // --- Writing ----------------------------------------------------------
  // Appends one entry holding `pages` to the current log and maps them.
  bool appendLogEntry(const std::vector<LogPage>& pages);
  // One entry holding `pages`: header, references, pages, zeros to a
  // multiple of 512. Its head (header and references, both hashes set) is
  // built here; the pages are written from where they are
  // (writeLogEntryBody), so an entry never costs a copy of its pages.
  // `size` is the whole entry's; an empty head when it would not fit a u32
  // size.
  std::vector<u8> logEntryHead(const std::vector<LogPage>& pages, u32 sequence, u32 flags, u64& size) const;
  // Writes all of the entry but its header at `position` (where the entry
  // starts), and `extraZeros` zero bytes behind it.
  bool writeLogEntryBody(Interfaces::Stripe& stripe, u64 position, const std::vector<u8>& head,
                         const std::vector<LogPage>& pages, u64 size, u64 extraZeros) const;
  // The log a flush writes its pages to first (.LOG1, made through
  // createLog1 when missing, else .LOG2); null when there is none.
  LogFileInfo* flushLog();
  void setPageRelease(PageRelease release) { _release = std::move(release); }
  const PageRelease& pageRelease() const { return _release; }
  void setCreateLog1(std::function<Ref<Interfaces::Stripe>()> create) { _createLog1 = std::move(create); }
  u32 indexOf(const LogFileInfo* log) const { return log ? static_cast<u32>(log - _logs) : NO_LOG; }
  // One entry of a checkpoint (see flush.cc) at `position` of `log`, 0
  // for the first one, which starts the log afresh. The end of the entry
  // (where the next goes), or 0 on failure.
  u64 writeCheckpointEntry(LogFileInfo& log, const std::vector<LogPage>& pages, u32 sequence, u64 position);

  // MappedStripe::Hook: writes of a log-mode hive become log entries.
  bool handleAction(MappedStripe& stripe, Action action, const void* buffer, u64 offset, u64 size,
                    u64& done) override;

 private:
  bool initLogFile(Ref<Interfaces::Stripe> log, Ref<String> name, LogFileInfo& info);
  bool checkLogHeader(const u8* header, const std::string& logName, LogFileInfo& info);
  bool readDirtyVector(Interfaces::Stripe& log, const std::string& logName, bool complete, LogFileInfo& info);
  bool logUsable(const LogFileInfo& info) const;
  bool applyOldFormatLog(LogFileInfo& log, Interfaces::Stripe& file);
  bool mapLogEntry(LogFileInfo& log, const LogEntryInfo& entry);
  // The chain of new-format entries of both alternate logs, mapped.
  bool applyNewFormatLogs();
  bool startLog(LogFileInfo& log, u32 sequence);
  // Where the next entry of `log` goes, its sequence number and flags
  // (starting the log afresh when it must); false when it cannot be
  // written to without breaking the recovered chain.
  bool placeNextEntry(LogFileInfo& log, const std::string& name, u32& sequence, u32& flags, u64& position);
  // A copy of the base block's first 512 bytes as a log starts: file type
  // 6, both sequence numbers `sequence`.
  void logHeader(u8* out, u32 sequence) const;
  u32 hiveLength() const { return L32(_header + hive_header::OFS_LENGTH); }

  u8* _header;
  LogMode _logMode = LogMode::None;
  LogFileInfo _logs[3];
  Ref<MappedStripe> _mapped;
  // The last log entry replayed at open or appended since (a new-format
  // log), and the log (index into _logs) it is in.
  u32 _appliedSequence = 0;
  u32 _appliedLog = NO_LOG;
  std::function<Ref<Interfaces::Stripe>()> _createLog1;
  PageRelease _release;
};

}  // namespace Libraries::Files::Hive
