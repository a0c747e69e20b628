// The walk of a key tree that every walking command shares (dump, ls -r,
// find, timeline): depth first, in pre-order, each key's subkeys in the
// order of its subkey list. Safe on damaged hives:
//   - a subkey that leads back to a key on the current path (a cycle) is
//     reported and not entered;
//   - nesting deeper than 512 levels is reported and not entered;
//   - a key listed more than once (under several parents, or twice in one
//     list) is visited each time, but its subkeys only the first time, so
//     lists that each name the next key twice cannot make the walk
//     exponential;
//   - a walk that meets more keys and values than a hive of its size can
//     hold (L/8 + 4096, L the larger of the hive bins size and the file
//     size), or more than 2L + 1 MiB of data (the visitor charges it),
//     stops with a report.
// Problems go to standard error as warnings after what the command wrote
// so far; ok() then tells that the walk was not complete.
#pragma once

#include <hivekit/hivekit.h>

#include <cstdint>
#include <functional>
#include <span>
#include <string>
#include <unordered_map>
#include <vector>

#include "command.h"
#include "progress.h"
#include "walk.h"

namespace hivekit::cli {

class TreeWalk {
 public:
  // How names are written into paths: escaped as in the canonical listing
  // (Escape::listing), for people (Escape::printable), or as they are
  // (raw, for JSON, which escapes on its own).
  enum class PathForm { listing, printable, raw };

  struct Visit {
    const Key& key;
    const std::string& path;
    size_t depth;                   // 0 for the key the walk starts at
    size_t subkeys;                 // subkeys that could be read (for a repeated key: when first listed)
    bool repeated;                  // listed before: its subkeys are not visited again
    std::span<const Value> values;  // in value-list order; empty unless the walk reads values
  };
  // Returns false to stop the walk (a failed write).
  using Visitor = std::function<bool(const Visit&)>;

  // `out`: flushed before each warning, so the two read in order on a
  // terminal. `progress`: ticked once per key (may be null).
  TreeWalk(const Hive& hive, const std::string& hivePath, Output& out, PathForm form, bool readValues,
           Progress* progress = nullptr);

  // Walks the tree below `start`, whose path (in this walk's form) is
  // `startPath`. False when the visitor stopped it or it stopped early.
  bool run(const Key& start, const std::string& startPath, const Visitor& visit);

  // Charges data read by the visitor; false (reported) once over budget.
  bool chargeData(uint64_t bytes);
  // Reports a problem of the current key; makes ok() false.
  void report(const std::string& message);
  // Nothing was left out.
  bool ok() const { return _ok; }
  // The path of the key being visited.
  const std::string& path() const { return _path; }

  // `name` written as this walk writes names into paths.
  void appendName(std::string& out, const std::string& name) const;
  // The path of the key with these names from the root down ("\" for none).
  std::string pathOf(const std::vector<std::string>& names) const;

 private:
  // A key on the current path; its subkeys are [first, end) of _pending
  // (one vector for the whole walk, not one per key).
  struct Frame {
    size_t first = 0;
    size_t end = 0;
    size_t next = 0;
    size_t pathLength = 0;
    uint32_t offset = 0;
  };
  bool enter(const Key& key, size_t depth, const size_t* listedBefore, const Visitor& visit);
  bool overBudget();

  Output& _out;
  PathForm _form;
  bool _readValues;
  Progress* _progress;
  WalkBudget _budget;
  std::string _path;
  std::vector<Frame> _stack;
  std::vector<Key> _pending;
  std::vector<Value> _values;
  // Subkeys listed for each key entered so far, by record offset. Looked
  // up once per key, and nearly always absent: a bit per possible record
  // start answers that, and the counts, kept in the order keys were
  // entered, are indexed only once a key turns up again (a damaged hive).
  class SubkeyCounts {
   public:
    // Null when the key was not entered before.
    const size_t* find(uint32_t offset);
    // Once per key, when it is entered.
    void set(uint32_t offset, size_t count);

   private:
    std::vector<uint64_t> _entered;  // bit offset / 8
    std::vector<std::pair<uint32_t, size_t>> _counts;
    size_t _indexed = 0;                          // entries of _counts in _index
    std::unordered_map<uint32_t, size_t> _index;  // offset -> entry of _counts
  };
  SubkeyCounts _subkeyCounts;
  bool _ok = true;
};

}  // namespace hivekit::cli
