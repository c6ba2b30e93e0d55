#pragma once

#include <utility>

#include "foundation/export.h"
#include "foundation/object.h"

namespace fn {

/// Something a `Handle` can cancel: a signal connection, a timer, a posted call.
class FN_EXPORT Cancellable : public RefCountedObject {
public:
  virtual void invalidate() = 0;
  virtual bool valid() const = 0;
};

/// Owns a connection or a scheduled call. Destroying the handle cancels it, unless the
/// handle was detached first, which leaves the thing running for as long as its source lives.
class FN_EXPORT Handle {
public:
  Handle() = default;
  explicit Handle(AutoPtr<Cancellable> target) : _target(std::move(target)) {}
  Handle(Handle&& o) noexcept = default;
  Handle& operator=(Handle&& o) noexcept {
    if (this != &o) {
      invalidate();
      _target = std::move(o._target);
    }
    return *this;
  }
  Handle(Handle const&) = delete;
  Handle& operator=(Handle const&) = delete;
  ~Handle() { invalidate(); }

  void invalidate() {
    if (auto target = std::exchange(_target, nullptr))
      target->invalidate();
  }
  void detach() { _target.reset(); }
  /// True while the connection or scheduled call is still pending.
  bool valid() const { return _target && _target->valid(); }

private:
  AutoPtr<Cancellable> _target;
};

}  // namespace fn
