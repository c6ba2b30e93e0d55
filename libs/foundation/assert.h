#pragma once

// Assertions are for our own bugs. A failed one is reported with its source, function and
// condition through the assertion handler, and execution goes on; tests install a hook that
// records or throws. Bytes that come from outside are never asserted on.

#include <functional>

#include "foundation/export.h"
#include "foundation/string.h"

namespace fn::debug {

struct AssertionInfo {
  String source;  // the repository path without extension, as "libs/core/ipc/worker"
  String function;
  int line = 0;
  String condition;
  String values;
};

using AssertionHook = std::function<void(AssertionInfo const&)>;

/// Replaces the hook called on every failed assertion (after it is logged); returns the old.
FN_EXPORT AssertionHook setAssertionHook(AssertionHook hook);

namespace internal {

FN_EXPORT void assertionFailure(char const* file,
                                char const* function,
                                int line,
                                char const* condition,
                                String values = {});

template <typename... Args>
String formatValues(Args const&... args) {
  String text;
  ((text += (text.empty() ? "" : ", ") + fmt::format("{}", args)), ...);
  return text;
}

}  // namespace internal
}  // namespace fn::debug

#define FN_ASSERT(condition, ...)                              \
  ((condition) ? (void)0                                       \
               : ::fn::debug::internal::assertionFailure(      \
                     __FILE__, __func__, __LINE__, #condition, \
                     ::fn::debug::internal::formatValues(__VA_ARGS__)))

/// For failures whose message is a fixed text rather than the condition.
#define FN_ASSERT_MSG(condition, text) \
  ((condition) ? (void)0               \
               : ::fn::debug::internal::assertionFailure(__FILE__, __func__, __LINE__, text))
