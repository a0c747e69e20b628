#include "platform/error.h"

namespace Platform::Error {
namespace {
thread_local u32 tlsError = 0;
}
void set(u32 code) { tlsError = code; }
u32 get() { return tlsError; }
}  // namespace Platform::Error
