// Progress of long commands on standard error, shown only when standard
// error is a terminal (never in pipes, files or tests): one line, redrawn
// in place at most ten times a second and erased at the end.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <string>
#include <thread>

namespace hivekit::cli {

class Progress {
 public:
  // "LABEL: N keys" lines; `label` names the command.
  explicit Progress(std::string label);
  ~Progress();
  Progress(const Progress&) = delete;
  Progress& operator=(const Progress&) = delete;

  // Counts one more key (cheap: draws only when a tenth of a second passed).
  void tick() {
    if (_enabled && (++_count & 255) == 0) draw();
  }

 private:
  void draw();
  std::string _label;
  bool _enabled;
  uint64_t _count = 0;
  int64_t _lastDraw = 0;
};

// For a library call that reports nothing while it runs (export, import,
// recover): a thread draws LABEL, the seconds passed and what `status`
// says (a size written so far), until destroyed.
class ProgressThread {
 public:
  ProgressThread(std::string label, std::function<std::string()> status);
  ~ProgressThread();
  ProgressThread(const ProgressThread&) = delete;
  ProgressThread& operator=(const ProgressThread&) = delete;

 private:
  std::atomic<bool> _stop{false};
  std::thread _thread;
};

// "12.3 MB written" for the file at `path`; "" when it cannot be seen.
std::string fileSize(const std::string& path);

// Erases a progress line being shown, before other text goes to standard
// error (warnings and failures call it).
void eraseProgress();

}  // namespace hivekit::cli
