#include "core/ipc/usage_table.h"

#include <algorithm>
#include <bit>
#include <random>

namespace ipc {

namespace {

constexpr size_t MIN_CAPACITY = 16;

// Object ids differ mostly in their upper bits, and a peer chooses the ids it sends: a keyed
// mix spreads them over the whole table.
uint64_t mix(uint64_t x) {
  x ^= x >> 30;
  x *= 0xbf58476d1ce4e5b9ull;
  x ^= x >> 27;
  x *= 0x94d049bb133111ebull;
  x ^= x >> 31;
  return x;
}

}  // namespace

UsageTable::UsageTable()
    : _seed(std::random_device()() | (uint64_t(std::random_device()()) << 32)) {}

UsageTable::~UsageTable() = default;

size_t UsageTable::home(ObjectId id) const {
  return static_cast<size_t>(mix(id ^ _seed) >> _shift);
}

size_t UsageTable::find(ObjectId id) const {
  if (_size == 0)
    return npos;
  size_t mask = _slots.size() - 1;
  for (size_t i = home(id);; i = (i + 1) & mask) {
    if (!_used[i])
      return npos;
    if (_slots[i].id == id)
      return i;
  }
}

size_t UsageTable::insert(ObjectId id) {
  if (size_t found = find(id); found != npos)
    return found;
  if ((_size + 1) * 4 > _slots.size() * 3)
    grow();
  size_t mask = _slots.size() - 1;
  size_t i = home(id);
  while (_used[i])
    i = (i + 1) & mask;
  _used[i] = true;
  _slots[i] = Slot{id, 0, 0, 0, 0};
  ++_size;
  return i;
}

void UsageTable::grow() {
  size_t capacity = std::max(MIN_CAPACITY, _slots.size() * 2);
  std::vector<Slot> old(capacity);
  std::vector<bool> oldUsed(capacity, false);
  old.swap(_slots);
  oldUsed.swap(_used);
  _shift = 64 - static_cast<unsigned>(std::countr_zero(capacity));
  size_t mask = capacity - 1;
  for (size_t j = 0; j < old.size(); ++j) {
    if (!oldUsed[j])
      continue;
    size_t i = home(old[j].id);
    while (_used[i])
      i = (i + 1) & mask;
    _used[i] = true;
    _slots[i] = old[j];
  }
}

// Backward-shift deletion: the entries after the hole that may live in it move up, so that
// every entry stays reachable from its home slot without tombstones.
void UsageTable::erase(size_t index) {
  dropOverflow(_slots[index]);
  size_t mask = _slots.size() - 1;
  size_t hole = index;
  for (size_t i = (hole + 1) & mask; _used[i]; i = (i + 1) & mask) {
    size_t want = home(_slots[i].id);
    // The entry at i may fill the hole when its home is not in (hole, i], cyclically.
    bool between = hole <= i ? (want > hole && want <= i) : (want > hole || want <= i);
    if (between)
      continue;
    _slots[hole] = _slots[i];
    hole = i;
  }
  _used[hole] = false;
  --_size;
}

void UsageTable::eraseIfEmpty(size_t index) {
  if (_slots[index].instanceUses == 0 && _slots[index].firstCount == 0)
    erase(index);
}

std::vector<UsageTable::Holder>* UsageTable::overflow(Slot const& slot) {
  return slot.more ? &_overflow[slot.more - 1] : nullptr;
}

std::vector<UsageTable::Holder> const* UsageTable::overflow(Slot const& slot) const {
  return slot.more ? &_overflow[slot.more - 1] : nullptr;
}

void UsageTable::dropOverflow(Slot& slot) {
  if (!slot.more)
    return;
  std::vector<Holder>().swap(_overflow[slot.more - 1]);
  _freeOverflow.push_back(slot.more - 1);
  slot.more = 0;
}

bool UsageTable::removeHolder(Slot& slot, ptrdiff_t position) {
  std::vector<Holder>* more = overflow(slot);
  if (position < 0) {
    // The inline holder goes; the last of the overflow takes its place.
    if (!more || more->empty()) {
      slot.firstCount = 0;
      return false;
    }
    slot.firstWorker = more->back().worker;
    slot.firstCount = more->back().count;
    more->pop_back();
  } else {
    (*more)[static_cast<size_t>(position)] = more->back();
    more->pop_back();
  }
  if (more->empty())
    dropOverflow(slot);
  return true;
}

void UsageTable::addInstanceUse(ObjectId id) {
  ++_slots[insert(id)].instanceUses;
}

void UsageTable::addHolderUse(ObjectId id, uint16_t worker) {
  Slot& slot = _slots[insert(id)];
  if (slot.firstCount == 0) {
    slot.firstWorker = worker;
    slot.firstCount = 1;
    return;
  }
  if (slot.firstWorker == worker) {
    ++slot.firstCount;
    return;
  }
  if (std::vector<Holder>* more = overflow(slot)) {
    for (Holder& holder : *more) {
      if (holder.worker == worker) {
        ++holder.count;
        return;
      }
    }
    more->push_back(Holder{worker, 1});
    return;
  }
  uint32_t index;
  if (!_freeOverflow.empty()) {
    index = _freeOverflow.back();
    _freeOverflow.pop_back();
  } else {
    index = static_cast<uint32_t>(_overflow.size());
    _overflow.emplace_back();
  }
  _overflow[index].push_back(Holder{worker, 1});
  slot.more = index + 1;
}

uint32_t UsageTable::instanceUses(ObjectId id) const {
  size_t i = find(id);
  return i == npos ? 0 : _slots[i].instanceUses;
}

uint32_t UsageTable::holderUses(ObjectId id, uint16_t worker) const {
  size_t i = find(id);
  if (i == npos || _slots[i].firstCount == 0)
    return 0;
  if (_slots[i].firstWorker == worker)
    return _slots[i].firstCount;
  if (auto const* more = overflow(_slots[i])) {
    for (Holder const& holder : *more) {
      if (holder.worker == worker)
        return holder.count;
    }
  }
  return 0;
}

bool UsageTable::hasHolders(ObjectId id) const {
  size_t i = find(id);
  return i != npos && _slots[i].firstCount > 0;
}

void UsageTable::holders(ObjectId id, std::vector<uint16_t>& out) const {
  size_t i = find(id);
  if (i == npos || _slots[i].firstCount == 0)
    return;
  out.push_back(_slots[i].firstWorker);
  if (auto const* more = overflow(_slots[i])) {
    for (Holder const& holder : *more)
      out.push_back(holder.worker);
  }
}

UsageTable::Release UsageTable::releaseHolder(ObjectId id,
                                              uint16_t worker,
                                              uint32_t count,
                                              bool& tooMany) {
  size_t i = find(id);
  if (i == npos || _slots[i].firstCount == 0)
    return Release::UnknownObject;
  Slot& slot = _slots[i];
  uint32_t* held = nullptr;
  ptrdiff_t position = -1;
  if (slot.firstWorker == worker) {
    held = &slot.firstCount;
  } else if (auto* more = overflow(slot)) {
    for (size_t k = 0; k < more->size(); ++k) {
      if ((*more)[k].worker == worker) {
        held = &(*more)[k].count;
        position = static_cast<ptrdiff_t>(k);
        break;
      }
    }
  }
  if (!held)
    return Release::UnknownHolder;
  tooMany = count > *held;
  *held -= std::min(*held, count);
  if (*held == 0 && !removeHolder(slot, position)) {
    // Nobody holds it: the slot stays only while its instance uses await their release.
    eraseIfEmpty(i);
    return Release::LastHolder;
  }
  return Release::Done;
}

uint32_t UsageTable::takeInstanceUses(ObjectId id) {
  size_t i = find(id);
  if (i == npos)
    return 0;
  uint32_t uses = _slots[i].instanceUses;
  _slots[i].instanceUses = 0;
  eraseIfEmpty(i);
  return uses;
}

void UsageTable::forgetWorker(uint16_t worker, std::vector<ObjectId>& released) {
  // First change every slot in place, then erase the emptied ones: erasing moves entries,
  // which a single pass could visit twice or miss.
  std::vector<ObjectId> emptied;
  for (size_t i = 0; i < _slots.size(); ++i) {
    if (!_used[i])
      continue;
    Slot& slot = _slots[i];
    if (ownerOf(slot.id) == worker) {
      slot.instanceUses = 0;
      slot.firstCount = 0;
      dropOverflow(slot);
      emptied.push_back(slot.id);
      continue;
    }
    if (slot.firstCount == 0)
      continue;
    bool stillHeld = true;
    if (slot.firstWorker == worker) {
      stillHeld = removeHolder(slot, -1);
    } else if (auto* more = overflow(slot)) {
      for (size_t k = 0; k < more->size(); ++k) {
        if ((*more)[k].worker == worker) {
          removeHolder(slot, static_cast<ptrdiff_t>(k));
          break;
        }
      }
    }
    if (!stillHeld) {
      released.push_back(slot.id);
      if (slot.instanceUses == 0)
        emptied.push_back(slot.id);
    }
  }
  for (ObjectId id : emptied) {
    if (size_t i = find(id); i != npos)
      eraseIfEmpty(i);
  }
}

void UsageTable::usesByHolder(std::unordered_map<uint16_t, uint64_t>& uses) const {
  for (size_t i = 0; i < _slots.size(); ++i) {
    if (!_used[i] || _slots[i].firstCount == 0)
      continue;
    uses[_slots[i].firstWorker] += _slots[i].firstCount;
    if (auto const* more = overflow(_slots[i])) {
      for (Holder const& holder : *more)
        uses[holder.worker] += holder.count;
    }
  }
}

}  // namespace ipc
