// The system log: named channels, severities, sinks.
//
// Severities: 1 tracing, 2 and 3 warnings after which work goes on, 4
// failures. A message is built only when some sink admits its severity, so
// tracing costs one comparison when nobody listens; failures are built
// also while the thread's error (platform/error.h) has no message, because
// it keeps the first.
// The standard error sink prints messages at or above the level in
// HIVEKIT_LOG_LEVEL (1-4; unset or 0 prints nothing). Tests and the
// command-line tool add their own sinks to capture messages.
#pragma once

#include <functional>
#include <sstream>
#include <string>
#include <string_view>
#include <type_traits>
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

// Hex rendering for offsets in log lines: 0x1a2b.
struct Hex {
  u64 v;
};
inline Hex hex(u64 v) {
  return Hex{v};
}

// Builds one message with <<, writes it when destroyed, only when the
// message is wanted. Text, numbers and offsets append to a string directly:
// damaged input can log a failure per record read, and a string stream per
// message cost more than the reads that failed. Anything else goes through
// a stream as before.
class Line {
 public:
  Line(const Channel& c, int level) : _c(c), _level(level), _on(c.enabled(level)) {}
  ~Line() {
    if (_on) _c.write(_level, _text);
  }
  Line(const Line&) = delete;
  Line& operator=(const Line&) = delete;

  template <class T>
  Line& operator<<(const T& v) {
    if (_on) append(v);
    return *this;
  }

 private:
  void append(const char* v) { _text += v ? v : "(null)"; }
  void append(char v) { _text += v; }
  void append(signed char v) { _text += static_cast<char>(v); }
  void append(unsigned char v) { _text += static_cast<char>(v); }
  void append(bool v) { _text += v ? '1' : '0'; }
  void append(Hex h) { appendNumber(static_cast<unsigned long long>(h.v), 16); }
  void append(const std::u16string& v);
  void appendNumber(long long v, int base = 10);
  void appendNumber(unsigned long long v, int base = 10);
  template <class T>
  void append(const T& v) {
    if constexpr (std::is_integral_v<T> && std::is_signed_v<T>) {
      appendNumber(static_cast<long long>(v));
    } else if constexpr (std::is_integral_v<T>) {
      appendNumber(static_cast<unsigned long long>(v));
    } else if constexpr (std::is_convertible_v<const T&, std::string_view>) {
      _text += std::string_view(v);
    } else {
      std::ostringstream s;
      s << v;
      _text += s.str();
    }
  }

  const Channel& _c;
  int _level;
  bool _on;
  std::string _text;
};

}  // namespace Platform::Log

#define HK_LOG(channel, level) ::Platform::Log::Line((channel), (level))
