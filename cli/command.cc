#include "command.h"

#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "progress.h"

namespace hivekit::cli {
namespace {

// Writes all bytes to a descriptor, retrying short writes.
bool writeAll(int fd, const char* p, size_t length) {
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

}  // namespace

std::string quoteInput(std::string_view text) {
  constexpr size_t LIMIT = 200;
  // Count characters, not bytes: cut before the 201st lead byte.
  size_t characters = 0, cut = 0;
  while (cut < text.size()) {
    if ((static_cast<unsigned char>(text[cut]) & 0xC0) != 0x80 && characters++ == LIMIT) break;
    ++cut;
  }
  std::string out;
  out.reserve(cut + 5);
  out += '\'';
  out.append(text.substr(0, cut));
  out += cut < text.size() ? "...'" : "'";
  return out;
}

int fail(const std::string& message) {
  std::fflush(stdout);
  eraseProgress();
  std::fprintf(stderr, "hivekit: %s\n", message.c_str());
  return EXIT_FAILED;
}

int fail(const Status& status) {
  return fail(status.message().empty() ? std::string(code_name(status.code())) : status.message());
}

int fail(const std::string& what, const Status& status) {
  return fail(what + ": " +
              (status.message().empty() ? std::string(code_name(status.code())) : status.message()));
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
  eraseProgress();
  std::fprintf(stderr, "hivekit: warning: %s\n", message.c_str());
}

bool Output::flush() {
  if (!_error && !text.empty()) {
    std::fflush(stdout);  // keep order with anything printed through stdio
    if (!writeAll(1, text.data(), text.size())) _error = errno ? errno : EIO;
  }
  text.clear();
  return !_error;
}

int Output::reportFailure() const {
  return fail(std::string("cannot write to standard output: ") + std::strerror(_error));
}

int Output::finish(bool complete, const std::string& incomplete) {
  if (!flush()) return reportFailure();
  return complete ? EXIT_OK : fail(incomplete);
}

int print(std::string_view text) {
  Output o;
  o.put(text);
  return o.flush() ? EXIT_OK : o.reportFailure();
}

}  // namespace hivekit::cli
