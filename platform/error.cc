#include "platform/error.h"

namespace Platform::Error {
namespace {
thread_local u32 tlsError = 0;
thread_local std::string tlsNote;
}  // namespace

void set(u32 code) { tlsError = code; }
u32 get() { return tlsError; }

void note(std::string_view text) {
  if (tlsNote.empty()) tlsNote.assign(text.substr(0, 1024));
}
const std::string& firstNote() { return tlsNote; }

void clear() {
  tlsError = 0;
  tlsNote.clear();
}

}  // namespace Platform::Error
