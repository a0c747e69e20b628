#include "platform/error.h"

namespace Platform::Error {
namespace detail {
HK_TLS_INITIAL_EXEC thread_local u32 tlsError = 0;
HK_TLS_INITIAL_EXEC thread_local bool tlsHasNote = false;
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
