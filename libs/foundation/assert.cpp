#include "foundation/assert.h"

#include <mutex>
#include <utility>

#include "foundation/logging/category.h"

namespace fn::debug {
namespace {

logging::Category logAssert("fn.assert");

std::mutex hookMutex;
AssertionHook& hook() {
  static AssertionHook instance;
  return instance;
}

// "/home/x/libs/core/ipc/worker.cpp" -> "libs/core/ipc/worker": the form the log and the
// tests use, independent of where the tree was checked out.
String sourcePath(char const* file) {
  std::string_view path(file);
  if (auto at = path.rfind("libs/"); at != std::string_view::npos)
    path.remove_prefix(at);
  if (auto dot = path.rfind('.'); dot != std::string_view::npos && path.find('/', dot) == path.npos)
    path = path.substr(0, dot);
  return String(path);
}

}  // namespace

AssertionHook setAssertionHook(AssertionHook newHook) {
  std::lock_guard lock(hookMutex);
  return std::exchange(hook(), std::move(newHook));
}

namespace internal {

void assertionFailure(char const* file,
                      char const* function,
                      int line,
                      char const* condition,
                      String values) {
  AssertionInfo info{sourcePath(file), function, line, condition, std::move(values)};
  logAssert.log(logging::ERR, "Assertion failed in {} ({}:{}): {}{}{}", info.function, info.source,
                info.line, info.condition, info.values.empty() ? "" : " with ", info.values);
  AssertionHook current;
  {
    std::lock_guard lock(hookMutex);
    current = hook();
  }
  if (current)
    current(info);
}

}  // namespace internal
}  // namespace fn::debug
