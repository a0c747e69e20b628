#include "tree_walk.h"

#include <algorithm>

#include "text.h"

namespace hivekit::cli {

namespace {
constexpr size_t MAX_DEPTH = 512;
}

TreeWalk::TreeWalk(const Hive& hive, const std::string& hivePath, Output& out, PathForm form, bool readValues,
                   Progress* progress)
    : _out(out), _form(form), _readValues(readValues), _progress(progress), _budget(hive, hivePath) {}

void TreeWalk::appendName(std::string& out, const std::string& name) const {
  switch (_form) {
    case PathForm::listing:
      appendEscaped(out, name, Escape::listing);
      break;
    case PathForm::printable:
      appendEscaped(out, name, Escape::printable);
      break;
    case PathForm::raw:
      out += name;
      break;
  }
}

std::string TreeWalk::pathOf(const std::vector<std::string>& names) const {
  std::string path;
  for (const std::string& name : names) {
    path += '\\';
    appendName(path, name);
  }
  return path.empty() ? "\\" : path;
}

const size_t* TreeWalk::SubkeyCounts::find(uint32_t offset) {
  const uint32_t bit = offset / 8;
  if (bit / 64 >= _entered.size() || !((_entered[bit / 64] >> (bit % 64)) & 1)) return nullptr;
  for (; _indexed < _counts.size(); ++_indexed) _index.emplace(_counts[_indexed].first, _indexed);
  auto it = _index.find(offset);
  return it != _index.end() ? &_counts[it->second].second : nullptr;
}

void TreeWalk::SubkeyCounts::set(uint32_t offset, size_t count) {
  // Record offsets lie in the hive's data, which bounds the bits.
  const uint32_t bit = offset / 8;
  if (bit / 64 >= _entered.size()) _entered.resize(std::max<size_t>(bit / 64 + 1, 2 * _entered.size()));
  _entered[bit / 64] |= uint64_t{1} << (bit % 64);
  _counts.emplace_back(offset, count);
}

void TreeWalk::report(const std::string& message) {
  _out.flush();
  warn(message);
  _ok = false;
}

bool TreeWalk::overBudget() {
  report(
      "the lists of the hive name keys and values more often than a hive of its size can hold; "
      "listing stopped at " +
      _path);
  return false;
}

bool TreeWalk::chargeData(uint64_t bytes) {
  return _budget.charge(0, bytes) || overBudget();
}

bool TreeWalk::run(const Key& start, const std::string& startPath, const Visitor& visit) {
  _path = startPath;
  _stack.clear();
  _pending.clear();
  if (!enter(start, 0, nullptr, visit)) return false;
  while (!_stack.empty()) {
    Frame& top = _stack.back();
    if (top.next == top.end) {
      _pending.resize(top.first);
      _stack.pop_back();
      continue;
    }
    const Key child = _pending[top.next++];
    const size_t parentLength = top.pathLength;
    _path.resize(parentLength);
    if (parentLength > 1) _path += '\\';
    appendName(_path, child.name());
    if (_stack.size() >= MAX_DEPTH) {
      report("key nesting deeper than " + std::to_string(MAX_DEPTH) + " levels at " + _path +
             "; not descending");
      continue;
    }
    const uint32_t offset = child.offset();
    if (std::any_of(_stack.begin(), _stack.end(), [&](const Frame& f) { return f.offset == offset; })) {
      report("subkey " + _path + " leads back to a key above it (cycle); not descending");
      continue;
    }
    // The count is copied: entering the key may grow the table.
    const size_t* known = _subkeyCounts.find(offset);
    const size_t listed = known ? *known : 0;
    if (!enter(child, _stack.size(), known ? &listed : nullptr, visit)) return false;
    _out.maybeFlush();
  }
  return _out.flush() && _ok;
}

// Reads the key's lists, visits it, and stacks its subkeys (none when its
// subtree was walked before: `listedBefore` then holds how many subkeys
// it had). False when the walk must stop.
bool TreeWalk::enter(const Key& key, size_t depth, const size_t* listedBefore, const Visitor& visit) {
  if (!_budget.charge(1)) return overBudget();
  if (_progress) _progress->tick();
  Frame frame;
  frame.offset = key.offset();
  frame.pathLength = _path.size();
  frame.first = frame.end = frame.next = _pending.size();
  uint64_t badKeys = 0, badValues = 0;
  if (!listedBefore) {
    Subkeys subkeys = key.subkeys();
    for (const Key& k : subkeys) _pending.push_back(k);
    frame.end = _pending.size();
    // A list that cannot be read at all leaves every subkey the key's
    // record counts unread.
    badKeys = subkeys.status().ok() ? subkeys.skipped() : key.subkey_count();
    _subkeyCounts.set(frame.offset, frame.end - frame.first);
  }
  _values.clear();
  if (_readValues) {
    Values values = key.values();
    for (const Value& v : values) _values.push_back(v);
    badValues = values.status().ok() ? values.skipped() : key.value_count();
    if (!_budget.charge(_values.size())) return overBudget();
  }
  const Visit v{
      key,    _path, depth, listedBefore ? *listedBefore : frame.end - frame.first, listedBefore != nullptr,
      _values};
  if (!visit(v)) return false;
  if (badKeys || badValues)
    report(_path + ": " + std::to_string(badKeys) + " subkeys and " + std::to_string(badValues) +
           " values could not be read");
  if (listedBefore && *listedBefore != 0)
    report("subkey " + _path + " is listed more than once; its subkeys are listed the first time only");
  _stack.push_back(std::move(frame));
  return true;
}

}  // namespace hivekit::cli
