#pragma once

// ipc::PendingCalls: the calls of one reference that wait for their answers, by request id.
//
// Request ids are handed out in sequence; Fibonacci hashing spreads such runs evenly over the
// slots (the low bits alone would make one long cluster of the calls in flight, which every
// removal would have to walk). The table is open-addressed (linear probing, backward-shift
// deletion, no tombstones); it grows at three quarters full and, beyond 1,024 slots, shrinks
// at an eighth. Once it has grown to the usual number of calls in flight a call costs no
// allocation of its own, and a call that is never answered costs one slot, not a stretch of
// them. Loop thread only, like its reference.

#include <algorithm>
#include <bit>
#include <cstdint>
#include <optional>
#include <utility>
#include <vector>

namespace ipc {

template <typename T>
class PendingCalls {
public:
  size_t size() const { return _size; }

  /// Adds the call `id`, replacing one of the same id (ids wrap after 2^32 calls).
  void insert(uint32_t id, T value) {
    if (auto* found = slotOf(id)) {
      found->value = std::move(value);
      return;
    }
    if ((_size + 1) * 4 > _slots.size() * 3)
      resize(std::max(MIN_CAPACITY, _slots.size() * 2));
    place(id, std::move(value));
    ++_size;
  }

  /// Removes the call `id` and gives it back; nullopt when there is none.
  std::optional<T> take(uint32_t id) {
    Slot* found = slotOf(id);
    if (!found)
      return std::nullopt;
    std::optional<T> taken = std::move(found->value);
    erase(static_cast<size_t>(found - _slots.data()));
    // A burst of calls does not keep its table for good; a table of the usual size stays,
    // since a whole window of answers often arrives before the next calls go out.
    if (_slots.size() > KEPT_CAPACITY && _size * 8 < _slots.size())
      resize(_slots.size() / 2);
    return taken;
  }

  /// Removes every call and gives them back in ascending order of id.
  std::vector<std::pair<uint32_t, T>> takeAll() {
    std::vector<std::pair<uint32_t, T>> all;
    all.reserve(_size);
    for (auto& slot : _slots) {
      if (slot.value)
        all.emplace_back(slot.id, std::move(*slot.value));
    }
    std::sort(all.begin(), all.end(),
              [](auto const& a, auto const& b) { return a.first < b.first; });
    _slots = {};
    _size = 0;
    _shift = 32;
    return all;
  }

private:
  static constexpr size_t MIN_CAPACITY = 16;
  static constexpr size_t KEPT_CAPACITY = 1024;

  struct Slot {
    uint32_t id = 0;
    std::optional<T> value;  // empty: a free slot
  };

  size_t mask() const { return _slots.size() - 1; }
  size_t home(uint32_t id) const { return (id * 0x9E3779B9u) >> _shift; }

  Slot* slotOf(uint32_t id) {
    if (_size == 0)
      return nullptr;
    for (size_t i = home(id);; i = (i + 1) & mask()) {
      if (!_slots[i].value)
        return nullptr;
      if (_slots[i].id == id)
        return &_slots[i];
    }
  }

  void place(uint32_t id, T&& value) {
    size_t i = home(id);
    while (_slots[i].value)
      i = (i + 1) & mask();
    _slots[i].id = id;
    _slots[i].value = std::move(value);
  }

  void resize(size_t capacity) {
    std::vector<Slot> old(capacity);
    old.swap(_slots);
    _shift = 32 - std::countr_zero(capacity);
    for (auto& slot : old) {
      if (slot.value)
        place(slot.id, std::move(*slot.value));
    }
  }

  // The entries after the hole that may live in it move up, so that every entry stays
  // reachable from its home slot.
  void erase(size_t hole) {
    for (size_t i = (hole + 1) & mask(); _slots[i].value; i = (i + 1) & mask()) {
      size_t want = home(_slots[i].id);
      // The entry at i may fill the hole unless its home lies in (hole, i], cyclically.
      bool between = hole <= i ? (want > hole && want <= i) : (want > hole || want <= i);
      if (between)
        continue;
      _slots[hole] = std::move(_slots[i]);
      hole = i;
    }
    _slots[hole].value.reset();
    --_size;
  }

  std::vector<Slot> _slots;
  size_t _size = 0;
  int _shift = 32;
};

}  // namespace ipc
