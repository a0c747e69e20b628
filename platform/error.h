// The per-thread error code: a failing call sets it, the caller reads it.
//
// Besides the code, each thread keeps the first failure message logged
// since the error was last cleared (every severity-4 line of the log is
// offered to it), so that a caller can tell a user why, not just what.
#pragma once

#include <string>
#include <string_view>

#include "platform/types.h"

// Thread-locals in the static TLS block (initial-exec), reached without a
// call into the dynamic linker. Not under the sanitizers: GCC 12's
// undefined-behaviour checks misread such a variable's address as null.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define HK_TLS_INITIAL_EXEC
#else
#define HK_TLS_INITIAL_EXEC [[gnu::tls_model("initial-exec")]]
#endif

namespace Platform::Error {

// Codes of the platform itself (the library's own codes are in hive/format/errors.h).
constexpr u32 FILE_NOT_FOUND = 32;
constexpr u32 IO_ERROR = 0x8000;  // OR-ed with errno for other system failures

void set(u32 code);
u32 get();
// Sets `code` when `failed` holds and returns `failed`: the entry checks of
// a call read as one line each, `if (Error::setIf(!_valid, OBJECT_INVALID))
// return false;`, and chain with || in the order they are made.
inline bool setIf(bool failed, u32 code) {
  if (failed) set(code);
  return failed;
}
// The errno of an IO_ERROR code, else 0.
inline int systemError(u32 code) {
  return (code & IO_ERROR) ? static_cast<int>(code & 0x7fff) : 0;
}

// Keeps `text` as this thread's failure message unless one is kept already.
void note(std::string_view text);
// The message kept since the last clear(); empty when none.
const std::string& firstNote();
// Code 0 and no message: call before an operation whose failure you report.
// Inline: every call of the public API clears the error first.
void clearNote();
namespace detail {
// In the static TLS block (initial-exec), reached without a call into the
// dynamic linker. Five bytes fit the room every dynamic linker keeps for
// libraries loaded later (dlopen).
HK_TLS_INITIAL_EXEC extern thread_local u32 tlsError;
HK_TLS_INITIAL_EXEC extern thread_local bool tlsHasNote;
}  // namespace detail
inline void clear() {
  detail::tlsError = 0;
  // The message is nearly never there; its string needs an initialisation
  // check on each thread-local access, which the flag spares.
  if (detail::tlsHasNote) clearNote();
}

}  // namespace Platform::Error
