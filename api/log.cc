#include "hivekit/log.h"

#include <mutex>

#include "platform/log.h"

namespace hivekit {

void set_log(LogLevel level, LogHandler handler) {
  static std::mutex lock;
  static int sink = 0;
  std::lock_guard<std::mutex> g(lock);
  if (sink) Platform::Log::removeSink(sink);
  sink = 0;
  Platform::Log::setStderrLevel(0);
  if (level == LogLevel::off) return;
  const int threshold = static_cast<int>(level);
  if (!handler) {
    Platform::Log::setStderrLevel(threshold);
    return;
  }
  sink = Platform::Log::addSink(threshold, [handler = std::move(handler)](const Platform::Log::Message& m) {
    handler(static_cast<LogLevel>(m.level < 1 ? 1 : (m.level > 4 ? 4 : m.level)), m.channel, m.text);
  });
}

}  // namespace hivekit
