#include "platform/error.h"

namespace Platform::Error {
namespace detail {
[[gnu::tls_model("initial-exec")]] thread_local u32 tlsError = 0;
[[gnu::tls_model("initial-exec")]] thread_local bool tlsHasNote = false;
}  // namespace detail
namespace {
thread_local std::string tlsNote;
}  // namespace
using detail::tlsError;
using detail::tlsHasNote;

void set(u32 code) { tlsError = code; }
u32 get() { return tlsError; }

void note(std::string_view text) {
  if (tlsHasNote) return;
  tlsNote.assign(text.substr(0, 1024));
  tlsHasNote = !tlsNote.empty();
}
const std::string& firstNote() { return tlsNote; }

void clearNote() {
  tlsNote.clear();
  tlsHasNote = false;
}

}  // namespace Platform::Error
