// The library's log: what it reports while it works (warnings about
// damaged records it skips, the reasons behind failures, tracing).
//
// Nothing is logged unless asked for. Failures also reach the caller in the
// Status of the failed call, so most programs never need the log; tools
// use it for a --verbose mode.
#pragma once

#include <functional>
#include <string_view>

#include "hivekit/export.h"

namespace hivekit {

enum class LogLevel { trace = 1, info = 2, warning = 3, failure = 4, off = 5 };

// Receives one message: its level, the part of the library that wrote it
// ("Hive", "HiveRegImporter", ...) and its text. Called on the thread that
// logged; must not call back into the library.
using LogHandler = std::function<void(LogLevel level, std::string_view channel, std::string_view message)>;

// Sends messages at or above `level` to `handler`, or to standard error as
// "[channel:level] text" when no handler is given; LogLevel::off stops
// logging. Replaces what an earlier call set. The environment variable
// HIVEKIT_LOG_LEVEL (1-4) sets a standard-error level at start-up.
HIVEKIT_EXPORT void set_log(LogLevel level, LogHandler handler = {});

}  // namespace hivekit
