// The system log: named channels, severities, sinks.
//
// Severities: 1 tracing, 2 and 3 warnings after which work goes on, 4
// failures. A message is built only when some sink admits its severity, so
// tracing costs one comparison when nobody listens; failures are always
// built, because the thread's error (platform/error.h) keeps the first.
// The standard error sink prints messages at or above the level in
// HIVEKIT_LOG_LEVEL (1-4; unset or 0 prints nothing). Tests and the
// command-line tool add their own sinks to capture messages.
#pragma once

#include <functional>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

#include "platform/types.h"

namespace Platform::Log {

// Severity of failures (the highest).
constexpr int FAILURE = 4;

struct Message {
  std::string channel;
  int level;
  std::string text;
};

class Channel {
 public:
  explicit Channel(const char* name) : _name(name) {}
  const char* name() const { return _name; }
  bool enabled(int level) const;
  void write(int level, const std::string& text) const;

 private:
  const char* _name;
};

// Lowest severity any sink wants; messages below it are never built.
int threshold();
void setStderrLevel(int level);  // 0 = off

using SinkFn = std::function<void(const Message&)>;
// Adds a sink receiving messages at or above `level`; returns its id.
int addSink(int level, SinkFn fn);
void removeSink(int id);

// Collects every message at or above a level while it lives (tests, CLI).
class Capture {
 public:
  explicit Capture(int level = 1);
  ~Capture();
  Capture(const Capture&) = delete;
  Capture& operator=(const Capture&) = delete;
  std::vector<Message> messages() const;
  // True when some message contains the text.
  bool contains(const std::string& text) const;
  void clear();

 private:
  int _id;
  struct State;
  State* _state;
};

// Builds one message with <<, writes it when destroyed. The stream is made
// only for a message that is wanted: making one costs more than most of
// the calls that log.
class Line {
 public:
  Line(const Channel& c, int level) : _c(c), _level(level) {
    if (c.enabled(level)) _s.emplace();
  }
  ~Line() {
    if (_s) _c.write(_level, _s->str());
  }
  template <class T>
  Line& operator<<(const T& v) {
    if (_s) *_s << v;
    return *this;
  }
  Line& operator<<(const std::u16string& v);

 private:
  const Channel& _c;
  int _level;
  std::optional<std::ostringstream> _s;
};

// Hex rendering for offsets: 0x1a2b.
struct Hex {
  u64 v;
};
std::ostream& operator<<(std::ostream& o, Hex h);
inline Hex hex(u64 v) { return Hex{v}; }

}  // namespace Platform::Log

#define HK_LOG(channel, level) ::Platform::Log::Line((channel), (level))
