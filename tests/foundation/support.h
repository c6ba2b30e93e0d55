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

namespace fn {

inline void PrintTo(String const& text, std::ostream* out) {
  *out << '"' << std::string_view(text) << '"';
}
inline void PrintTo(Value const& value, std::ostream* out) {
  *out << std::string_view(value.detailInfo());
}

}  // namespace fn

namespace fn::testing {

/// Runs `loop` until `done` holds or `limit` passes; true only when `done` held in time.
inline bool runFor(uv::Loop& loop,
                   std::function<bool()> const& done,
                   Duration limit = Duration::seconds(5)) {
  bool timedOut = false;
  Handle timeout = loop.schedule(limit, [&timedOut] { timedOut = true; });
  loop.runUntil([&] { return timedOut || done(); });
  return !timedOut && done();
}

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

private:
  mutable std::mutex _mutex;
  std::vector<debug::AssertionInfo> _failures;
  debug::AssertionHook _previous;
};

}  // namespace fn::testing
