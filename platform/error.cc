#include "platform/error.h"

namespace Platform::Error {
namespace {
// clear() runs once per call of the public API. The code and a plain flag
// sit in the static TLS block (initial-exec), reached without a call into
// the dynamic linker; the flag spares clear() the string (whose
// thread-local needs an initialisation check) when no message was kept,
// which is nearly always. Five bytes fit the room every dynamic linker
// keeps for libraries loaded later (dlopen).
[[gnu::tls_model("initial-exec")]] thread_local u32 tlsError = 0;
[[gnu::tls_model("initial-exec")]] thread_local bool tlsHasNote = false;
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
