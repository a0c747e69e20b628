#include "platform/log.h"

#include <atomic>
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <mutex>

#include "platform/error.h"
#include "platform/string.h"

namespace Platform::Log {

namespace {

struct Sink {
  int id;
  int level;
  SinkFn fn;
};

struct Registry {
  std::mutex lock;
  std::vector<Sink> sinks;
  int nextId = 1;
  int stderrLevel = 0;
  std::atomic<int> threshold{100};

  Registry() {
    if (const char* env = std::getenv("HIVEKIT_LOG_LEVEL")) stderrLevel = std::atoi(env);
    recompute();
  }
  void recompute() {
    int t = 100;
    if (stderrLevel > 0) t = stderrLevel;
    for (auto& s : sinks) t = std::min(t, s.level);
    threshold.store(t, std::memory_order_relaxed);
  }
};

Registry& registry() {
  static Registry r;
  return r;
}

}  // namespace

int threshold() {
  return registry().threshold.load(std::memory_order_relaxed);
}

// Failures are built while the thread's error has no message yet: it keeps
// the first one. After that only a sink makes them worth building; damaged
// input can fail on every record read, and those lines would cost more than
// the reads.
bool Channel::enabled(int level) const {
  return level >= threshold() || (level >= FAILURE && !Error::detail::tlsHasNote);
}

void Channel::write(int level, const std::string& text) const {
  if (level >= FAILURE) Error::note(text);
  if (level < threshold()) return;
  Registry& r = registry();
  std::vector<SinkFn> targets;
  bool toStderr;
  {
    std::lock_guard<std::mutex> g(r.lock);
    toStderr = r.stderrLevel > 0 && level >= r.stderrLevel;
    for (auto& s : r.sinks)
      if (level >= s.level) targets.push_back(s.fn);
  }
  Message m{_name, level, text};
  if (toStderr) std::fprintf(stderr, "[%s:%d] %s\n", _name, level, text.c_str());
  for (auto& fn : targets) fn(m);
}

void setStderrLevel(int level) {
  Registry& r = registry();
  std::lock_guard<std::mutex> g(r.lock);
  r.stderrLevel = level;
  r.recompute();
}

int addSink(int level, SinkFn fn) {
  Registry& r = registry();
  std::lock_guard<std::mutex> g(r.lock);
  int id = r.nextId++;
  r.sinks.push_back({id, level, std::move(fn)});
  r.recompute();
  return id;
}

void removeSink(int id) {
  Registry& r = registry();
  std::lock_guard<std::mutex> g(r.lock);
  std::erase_if(r.sinks, [id](const Sink& s) { return s.id == id; });
  r.recompute();
}

struct Capture::State {
  mutable std::mutex lock;
  std::vector<Message> messages;
};

Capture::Capture(int level) : _state(new State) {
  State* s = _state;
  _id = addSink(level, [s](const Message& m) {
    std::lock_guard<std::mutex> g(s->lock);
    s->messages.push_back(m);
  });
}

Capture::~Capture() {
  removeSink(_id);
  delete _state;
}

std::vector<Message> Capture::messages() const {
  std::lock_guard<std::mutex> g(_state->lock);
  return _state->messages;
}

bool Capture::contains(const std::string& text) const {
  std::lock_guard<std::mutex> g(_state->lock);
  for (auto& m : _state->messages)
    if (m.text.find(text) != std::string::npos) return true;
  return false;
}

void Capture::clear() {
  std::lock_guard<std::mutex> g(_state->lock);
  _state->messages.clear();
}

void Line::append(const std::u16string& v) {
  _text += utf16ToUtf8(v);
}

namespace {

template <class N>
void appendDigits(std::string& text, N v, int base) {
  char digits[24];
  auto [end, ec] = std::to_chars(digits, digits + sizeof digits, v, base);
  if (base == 16) text += "0x";
  text.append(digits, end);
}

}  // namespace

void Line::appendNumber(long long v, int base) {
  appendDigits(_text, v, base);
}

void Line::appendNumber(unsigned long long v, int base) {
  appendDigits(_text, v, base);
}

}  // namespace Platform::Log
