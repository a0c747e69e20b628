// HIVEKIT_EXPORT marks what the shared library exports: the public API in
// include/hivekit and nothing else. The library is built with hidden
// visibility, so engine internals never become part of its ABI.
#pragma once

#if defined(HIVEKIT_STATIC)
#define HIVEKIT_EXPORT
#elif defined(_WIN32)
#ifdef HIVEKIT_BUILDING
#define HIVEKIT_EXPORT __declspec(dllexport)
#else
#define HIVEKIT_EXPORT __declspec(dllimport)
#endif
#else
#define HIVEKIT_EXPORT [[gnu::visibility("default")]]
#endif
