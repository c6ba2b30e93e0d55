#pragma once

// Helpers shared by the foundation tests.

#include <functional>
#include <memory>
#include <mutex>
#include <ostream>
#include <vector>

#include "foundation/assert.h"
#include "foundation/logging/category.h"
#include "foundation/uv/loop.h"
#include "foundation/value.h"
#include "loop_runner.h"

namespace fn {

inline void PrintTo(String const& text, std::ostream* out) {
  *out << '"' << std::string_view(text) << '"';
}
inline void PrintTo(Value const& value, std::ostream* out) {
  *out << std::string_view(value.detailInfo());
}

}  // namespace fn

namespace fn::testing {

using testing_support::drainLoop;
using testing_support::runLoopUntil;

/// Records failed assertions while it lives, then puts the previous hook back.
class AssertionRecorder {
public:
  AssertionRecorder()
      : _previous(debug::setAssertionHook([this](debug::AssertionInfo const& info) {
          std::lock_guard lock(_mutex);
          _failures.push_back(info);
        })) {}
  ~AssertionRecorder() { debug::setAssertionHook(std::move(_previous)); }

  std::vector<debug::AssertionInfo> failures() const {
    std::lock_guard lock(_mutex);
    return _failures;
  }
  std::vector<String> conditions() const {
    std::vector<String> result;
    for (auto const& failure : failures())
      result.push_back(failure.condition);
    return result;
  }

private:
  mutable std::mutex _mutex;
  std::vector<debug::AssertionInfo> _failures;
  debug::AssertionHook _previous;
};

}  // namespace fn::testing
