#pragma once

// fn::Signal: a list of callbacks that `emit` calls in the order they connected.
// Not thread-safe: a signal and its handles belong to one thread. A slot connected or
// disconnected during an emission takes effect for the next emission; a slot whose handle
// is invalidated mid-emission is not called after that.

#include <functional>
#include <vector>

#include "foundation/assert.h"
#include "foundation/handle.h"

namespace fn {

template <typename... Args>
class Signal {
public:
  using Callback = std::function<void(Args...)>;

  Signal() = default;
  Signal(Signal const&) = delete;
  Signal& operator=(Signal const&) = delete;
  ~Signal() {
    for (auto& slot : _slots)
      slot->invalidate();
  }

  [[nodiscard]] Handle connect(Callback callback) {
    compact();
    auto slot = makeAuto<Slot>(std::move(callback));
    _slots.push_back(slot);
    return Handle(slot);
  }

  void emit(Args... args) {
    auto snapshot = _slots;
    for (auto& slot : snapshot) {
      if (slot->valid())
        slot->callback(args...);
    }
  }

  /// For one-shot events: a second emission is a bug of the caller.
  void fireOnce(Args... args) {
    FN_ASSERT_MSG(!_fired, "fireOnce(...) can only be called once per event");
    _fired = true;
    emit(args...);
  }

  bool hasConnections() const {
    for (auto& slot : _slots) {
      if (slot->valid())
        return true;
    }
    return false;
  }

private:
  struct Slot : Cancellable {
    explicit Slot(Callback c) : callback(std::move(c)) {}
    void invalidate() override { connected = false; }
    bool valid() const override { return connected; }
    Callback callback;
    bool connected = true;
  };

  void compact() {
    std::erase_if(_slots, [](AutoPtr<Slot> const& slot) { return !slot->valid(); });
  }

  std::vector<AutoPtr<Slot>> _slots;
  bool _fired = false;
};

}  // namespace fn
