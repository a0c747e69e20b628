// Hive: an open registry hive file.
//
//   auto hive = hivekit::Hive::open("SYSTEM", {.accept_dirty = true});
//   if (!hive) { std::cerr << hive.status().message() << '\n'; return 1; }
//   auto key = hive->key("ControlSet001\\Services\\Tcpip\\Parameters");
//
// A Hive owns the open file (and its transaction logs). Keys, values and
// the other handles it gives out hold a reference to the same open state:
// they stay safe to use after the Hive is closed or destroyed, and their
// calls then fail with Code::closed.
//
// Threads: one Hive and its handles may be used from several threads at
// once; calls on one hive are serialised inside the library.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "hivekit/detail/core_ref.h"
#include "hivekit/export.h"
#include "hivekit/key.h"
#include "hivekit/security.h"
#include "hivekit/status.h"
#include "hivekit/types.h"

namespace hivekit {

// Which transaction logs an open uses.
enum class Logs {
  beside,  // HIVE.LOG, HIVE.LOG1, HIVE.LOG2 next to the hive, any letter case of the extension
  none,    // no logs: a dirty hive then opens only with accept_dirty
  named,   // exactly OpenOptions::log_files
};

struct OpenOptions {
  // Open for changes. Without it the hive, and its logs, are never written.
  bool writable = false;
  // Read-only opens only: a dirty hive (its sequence numbers differ) whose
  // logs cannot be applied opens as it is stored instead of failing with
  // Code::dirty.
  bool accept_dirty = false;
  // Read-only opens only: read the whole file into memory and serve records
  // from that copy, for damaged hives the normal reader refuses.
  bool in_memory = false;
  // How 8-bit names are read and written.
  Codepage codepage = Codepage::latin1;
  Logs logs = Logs::beside;
  // With Logs::named: the log files, in any order. Each takes the slot its
  // extension names (.LOG, .LOG1, .LOG2); a name without one takes the first
  // free slot of .LOG1, .LOG2, .LOG.
  std::vector<std::string> log_files = {};
  // Writable opens: every change reaches the file at once instead of at
  // flush() (slower; never used together with a log in use).
  bool write_through = false;
  // When a subkey list is not in name order (a damaged hive), find names by
  // reading the whole list instead of failing.
  bool unsorted_lists = false;
  // Another open holding a conflicting lock (see Hive::open) makes this one
  // wait for it instead of failing with Code::in_use.
  bool wait = false;
  // Writable opens: the time changes are stamped with (the last write time
  // of the keys they touch, the base block's timestamp at each flush),
  // instead of the clock; 0 is the clock. For images that must come out
  // byte for byte the same on every run.
  FileTime fixed_time = 0;
};

struct CreateOptions {
  // Format 1.3 (lf lists, data up to 1 MiB in one record) or 1.5 (lh lists,
  // big data in db records), 1.5 being what current Windows writes.
  std::uint32_t minor_version = 5;
  Codepage codepage = Codepage::latin1;
  // Replace an existing file instead of failing with Code::already_exists.
  bool overwrite = false;
  // As OpenOptions::fixed_time, for the new hive's base block and root key
  // and the changes made through the returned Hive.
  FileTime fixed_time = 0;
};

// One transaction log of the hive as the open found it.
struct LogInfo {
  std::string path;         // the file used; "" when there was none
  bool usable = false;      // it could serve recovery
  bool new_format = false;  // "HvLE" entries (else an old "DIRT" vector of dirty pages)
  std::uint32_t primary_sequence = 0;
  std::uint32_t secondary_sequence = 0;
  std::uint32_t entries = 0;  // entries (new format) or dirty pages (old format) it holds
  std::uint32_t first_sequence = 0, last_sequence = 0;  // of its entries (new format)
  std::uint32_t applied = 0;  // entries or pages replayed when the hive was opened
  std::string state;          // why it is not usable ("" when it is)
};

enum class LogMode {
  none,    // no log in use: the hive is clean, or opened dirty as it is
  single,  // the primary log (.LOG)
  dual,    // the alternate logs (.LOG1/.LOG2)
};

// What the base block and the logs say, as the hive reads after any log
// was applied.
struct HiveInfo {
  std::string path;
  std::uint32_t major_version = 0, minor_version = 0;
  std::uint32_t primary_sequence = 0, secondary_sequence = 0;
  bool dirty = false;  // the sequence numbers differ
  FileTime timestamp = 0;
  std::uint32_t file_type = 0;    // 0 primary hive file
  std::uint32_t file_format = 0;  // 1 direct memory load
  std::uint32_t root_offset = 0;
  std::uint32_t hive_bins_size = 0;  // bytes of hive bins after the base block
  std::uint32_t hbin_count = 0;      // 0 when not counted (in_memory opens)
  // Why counting stopped before the end of the hive bins data (a damaged
  // hive bin header); "" when it reached the end, or did not count.
  std::string hbins_state;
  std::uint32_t clustering_factor = 0;
  std::uint32_t stored_checksum = 0, computed_checksum = 0;
  std::string file_name;  // the base block's file name field (printable as stored)
  bool writable = false;
  LogMode log_mode = LogMode::none;
  // The log whose entries or pages were applied last (0 .LOG, 1 .LOG1,
  // 2 .LOG2), -1 when none; and for a new-format log, that entry's sequence.
  int applied_log = -1;
  std::uint32_t applied_sequence = 0;
  std::array<LogInfo, 3> logs;  // .LOG, .LOG1, .LOG2
};

class HIVEKIT_EXPORT Hive {
 public:
  // Opens the hive file at `path`.
  // A writable open locks the hive file and its logs for itself alone; a
  // read-only open shares them with other read-only opens. The locks are
  // advisory, per open (two opens in one process exclude each other as two
  // processes do), and go with the last handle. A conflicting lock fails
  // the open with in_use ("in use by another process") unless
  // options.wait.
  // Fails with: file_not_found, permission_denied, is_directory, in_use,
  // not_a_hive, truncated, bad_checksum, dirty (with the way out in the
  // message), unsupported, corrupt (the root key is unusable), io_error,
  // invalid_argument (options that contradict each other).
  static Result<Hive> open(std::string_view path, const OpenOptions& options = {});
  // Writes a new hive holding only its root key at `path` and opens it
  // writable. Fails with already_exists unless options.overwrite, and with
  // in_use when the file it would replace is open. The new hive is made
  // beside `path` and renamed over it once complete, so a failure leaves
  // any old file as it was.
  static Result<Hive> create(std::string_view path, const CreateOptions& options = {});

  // A closed hive: every call fails with Code::closed (or returns a null
  // handle).
  Hive() noexcept = default;
  Hive(Hive&&) noexcept = default;
  Hive& operator=(Hive&& other) noexcept;
  Hive(const Hive&) = delete;
  Hive& operator=(const Hive&) = delete;
  // Closes the hive (see close()); a failure of its last flush is lost, so
  // writers call flush() or close() themselves.
  ~Hive();

  bool is_open() const noexcept;
  bool writable() const noexcept;

  // The root key. A null handle when the hive is closed.
  Key root() const;
  // The key at `path` below the root (see Key::key for the path forms; ""
  // and "\" are the root). Fails with key_not_found naming the first missing
  // part, invalid_argument for an empty name inside the path.
  Result<Key> key(std::string_view path) const;

  HiveInfo info() const;

  // Every security descriptor of the hive, walking their list from the
  // root key's.
  SecurityDescriptors security_descriptors() const;

  // Writes every change since the last flush. When it returns ok the bytes
  // are on disk (synced). Ok at once for a read-only hive.
  //
  // A flush is a checkpoint a crash cannot tear: the changed pages go to
  // HIVE.LOG1 first (made beside the hive when it has none and the logs
  // are found beside it), then the hive is marked dirty, written, and
  // marked clean. Killed or failing at any moment, it leaves files that
  // open, with their logs, as this flush or the one before; a hive left
  // dirty that way opens with its log in use (see HiveInfo) until
  // `recover` writes a clean copy. Opened with Logs::none (or named logs
  // without .LOG1/.LOG2), the hive is written in place: a crash then
  // leaves a dirty hive that opens only with accept_dirty.
  //
  // Every other change is all or nothing: a call that fails leaves the
  // hive, in memory and on disk, exactly as it was.
  Status flush();
  // Flushes a writable hive and releases the file and its logs. Handles of
  // this hive fail with Code::closed afterwards. The flush's result is
  // returned; the hive is closed either way.
  Status close();

  // Writes the hive as it reads now (logs applied, unflushed changes
  // included) as a clean hive file at `path` that needs no logs. `path` may
  // not be the hive or one of its logs. On failure nothing is left at
  // `path`.
  Status recover(std::string_view path) const;

 private:
  friend class detail::Access;
  explicit Hive(detail::CoreRef core) noexcept : core_(std::move(core)) {}
  detail::CoreRef core_;
};

}  // namespace hivekit
