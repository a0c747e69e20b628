// The per-thread error code: a failing call sets it, the caller reads it.
#pragma once

#include "platform/types.h"

namespace Platform::Error {

// Codes of the platform itself (the library's own codes are in hive/errors.h).
constexpr u32 FILE_NOT_FOUND = 32;
constexpr u32 IO_ERROR = 0x8000;  // OR-ed with errno for other system failures

void set(u32 code);
u32 get();

}  // namespace Platform::Error
