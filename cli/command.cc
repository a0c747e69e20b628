#include "cli/command.h"

#include <unistd.h>

#include <cerrno>
#include <cstdio>

#include "platform/error.h"
#include "platform/log.h"

namespace hivekit::cli {

Diagnostics::Diagnostics() {
  _sink = Platform::Log::addSink(3, [this](const Platform::Log::Message& m) {
    // Damaged lists repeat the same complaint for every entry.
    for (const std::string& seen : _messages)
      if (seen == m.text) return;
    if (_messages.size() >= KEEP) {
      _messages.erase(_messages.begin());
      ++_dropped;
    }
    _messages.push_back(m.text);
  });
}

Diagnostics::~Diagnostics() {
  Platform::Log::removeSink(_sink);
}

void Diagnostics::clear() {
  _messages.clear();
  _dropped = 0;
}

void Context::beginOperation() {
  Platform::Error::set(0);
  diagnostics.clear();
}

int failWithCode(Context& ctx, const std::string& what, Platform::u32 code) {
  std::fflush(stdout);
  char hex[16];
  std::snprintf(hex, sizeof(hex), "0x%X", code);
  std::string text = "hivekit: " + what + " (error " + hex + ")\n";
  // With --verbose the reasons were already shown as they were logged.
  if (!ctx.common.verbose) {
    const Diagnostics& d = ctx.diagnostics;
    if (d.dropped()) text += "  ... (" + std::to_string(d.dropped()) + " earlier messages)\n";
    for (const std::string& m : d.messages()) text += "  " + m + "\n";
  }
  std::fputs(text.c_str(), stderr);
  return EXIT_FAILED;
}

int fail(Context& ctx, const std::string& what) {
  return failWithCode(ctx, what, Platform::Error::get());
}

int usageError(const Command* command, const std::string& message) {
  std::fflush(stdout);
  if (command) {
    std::fprintf(stderr, "hivekit: %s\nusage: hivekit %s\nTry 'hivekit %s --help'.\n", message.c_str(),
                 command->synopsis, command->name);
  } else {
    std::fprintf(stderr, "hivekit: %s\nusage: hivekit COMMAND [options] HIVE ...\nTry 'hivekit --help'.\n",
                 message.c_str());
  }
  return EXIT_USAGE;
}

void warn(const std::string& message) {
  std::fflush(stdout);
  std::fprintf(stderr, "hivekit: warning: %s\n", message.c_str());
}

bool writeAll(int fd, const void* data, size_t length) {
  const char* p = static_cast<const char*>(data);
  while (length) {
    ssize_t n = ::write(fd, p, length);
    if (n < 0) {
      if (errno == EINTR) continue;
      return false;
    }
    p += n;
    length -= static_cast<size_t>(n);
  }
  return true;
}

bool Output::flush() {
  if (!_failed && !text.empty()) {
    std::fflush(stdout);  // keep order with anything printed through stdio
    if (!writeAll(1, text.data(), text.size())) _failed = true;
  }
  text.clear();
  return !_failed;
}

}  // namespace hivekit::cli
