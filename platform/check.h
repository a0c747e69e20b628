// Internal consistency checks that never abort.
//
// A failed check logs "ASSERT CONDITION <text> FAILED IN LINE <n>, FUNCTION
// <qualified name>" at severity 4 on the given channel and makes the
// function return its failure value. HK_ASSERT uses the condition's own
// source text; HK_ASSERT_AS names the condition in the words callers expect.
#pragma once

#include <string>

#include "platform/log.h"

namespace Platform {

// "bool A::B::f(int)" -> "A::B::f".
std::string qualifiedFunctionName(const char* prettyFunction);
void assertFailed(const Log::Channel& channel, const char* condition, int line, const char* prettyFunction);

}  // namespace Platform

#define HK_ASSERT_AS(channel, text, cond, ret)                                    \
  do {                                                                            \
    if (!(cond)) {                                                                \
      ::Platform::assertFailed((channel), (text), __LINE__, __PRETTY_FUNCTION__); \
      return ret;                                                                 \
    }                                                                             \
  } while (0)
#define HK_ASSERT(channel, cond, ret) HK_ASSERT_AS(channel, #cond, cond, ret)
// A check that is only reported; work goes on.
#define HK_CHECK_AS(channel, text, cond)                                                     \
  do {                                                                                       \
    if (!(cond)) ::Platform::assertFailed((channel), (text), __LINE__, __PRETTY_FUNCTION__); \
  } while (0)
#define HK_CHECK(channel, cond) HK_CHECK_AS(channel, #cond, cond)
