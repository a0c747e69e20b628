#include "progress.h"

#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <mutex>

namespace hivekit::cli {

namespace {

std::mutex lineMutex;
bool lineShown = false;

int64_t nowMs() {
  return std::chrono::duration_cast<std::chrono::milliseconds>(
             std::chrono::steady_clock::now().time_since_epoch())
      .count();
}

void show(const std::string& text) {
  std::lock_guard<std::mutex> lock(lineMutex);
  std::fprintf(stderr, "\r\033[K%s", text.c_str());
  std::fflush(stderr);
  lineShown = true;
}

}  // namespace

std::string fileSize(const std::string& path) {
  struct stat st;
  if (::stat(path.c_str(), &st) != 0) return {};
  char b[48];
  std::snprintf(b, sizeof b, "%.1f MB written", static_cast<double>(st.st_size) / 1e6);
  return b;
}

void eraseProgress() {
  std::lock_guard<std::mutex> lock(lineMutex);
  if (!lineShown) return;
  std::fputs("\r\033[K", stderr);
  std::fflush(stderr);
  lineShown = false;
}

Progress::Progress(std::string label) : _label(std::move(label)), _enabled(::isatty(2) == 1) {
  _lastDraw = nowMs();
}

Progress::~Progress() {
  if (_enabled) eraseProgress();
}

void Progress::draw() {
  const int64_t now = nowMs();
  if (now - _lastDraw < 100) return;
  _lastDraw = now;
  show(_label + ": " + std::to_string(_count) + " keys");
}

ProgressThread::ProgressThread(std::string label, std::function<std::string()> status) {
  if (::isatty(2) != 1) return;
  _thread = std::thread([this, label = std::move(label), status = std::move(status)] {
    const int64_t start = nowMs();
    while (!_stop.load()) {
      for (int i = 0; i < 5 && !_stop.load(); ++i) std::this_thread::sleep_for(std::chrono::milliseconds(20));
      if (_stop.load()) break;
      const std::string more = status ? status() : std::string();
      show(label + ": " + std::to_string((nowMs() - start) / 1000) + " s" +
           (more.empty() ? "" : ", " + more));
    }
  });
}

ProgressThread::~ProgressThread() {
  _stop.store(true);
  if (_thread.joinable()) {
    _thread.join();
    eraseProgress();
  }
}

}  // namespace hivekit::cli
