#include "platform/error.h"

namespace Platform::Error {
namespace {
thread_local u32 tlsError = 0;
// clear() runs once per call of the public API: a plain flag spares it the
// string (whose thread-local needs an initialisation check) when no
// message was kept, which is nearly always.
thread_local bool tlsHasNote = false;
thread_local std::string tlsNote;
}  // namespace

void set(u32 code) { tlsError = code; }
u32 get() { return tlsError; }

void note(std::string_view text) {
  if (tlsHasNote) return;
  tlsNote.assign(text.substr(0, 1024));
  tlsHasNote = !tlsNote.empty();
}
const std::string& firstNote() { return tlsNote; }

void clear() {
  tlsError = 0;
  if (tlsHasNote) {
    tlsNote.clear();
    tlsHasNote = false;
  }
}

}  // namespace Platform::Error
