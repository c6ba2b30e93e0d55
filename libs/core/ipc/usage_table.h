#pragma once

// ipc::UsageTable: the hub's usage accounting of objects, in one flat table.
//
// For each object it keeps the uses the hub counted for its instance (uses its owner holds for
// the holders) and, for each worker holding references to it, that worker's uses. Almost every
// object has one holder, so one holder lives inline in the object's slot; further holders of
// the same object go to a shared overflow list. A slot is 24 bytes and the table stays at most
// three quarters full, so a live reference costs the hub well under 64 bytes, where node-based
// standard maps cost several allocations each.
//
// Open addressing with linear probing and backward-shift deletion (no tombstones); an object
// with neither instance uses nor holders has no slot. Loop thread only, like the dispatcher.

#include <cstdint>
#include <unordered_map>
#include <vector>

#include "core/export.h"
#include "core/ipc/message.h"

namespace ipc {

class CORE_EXPORT UsageTable {
public:
  struct Holder {
    uint16_t worker = 0;
    uint32_t count = 0;
  };

  enum class Release {
    Done,           ///< the holder still holds the object, or others do
    LastHolder,     ///< nobody holds the object any more
    UnknownObject,  ///< nobody held the object
    UnknownHolder,  ///< the worker did not hold the object
  };

  UsageTable();
  ~UsageTable();
  UsageTable(UsageTable const&) = delete;
  UsageTable& operator=(UsageTable const&) = delete;

  void addInstanceUse(ObjectId id);
  void addHolderUse(ObjectId id, uint16_t worker);

  uint32_t instanceUses(ObjectId id) const;
  uint32_t holderUses(ObjectId id, uint16_t worker) const;
  bool hasHolders(ObjectId id) const;
  /// Appends the workers holding `id` to `out`.
  void holders(ObjectId id, std::vector<uint16_t>& out) const;

  /// Takes `count` uses of `worker` from `id`. More uses than were counted release all that
  /// were, and set `tooMany`.
  Release releaseHolder(ObjectId id, uint16_t worker, uint32_t count, bool& tooMany);
  /// Removes the instance uses of `id` and returns them (0 when there were none).
  uint32_t takeInstanceUses(ObjectId id);

  /// Forgets everything about the objects `worker` owns and the uses it holds; appends to
  /// `released` the objects of others that nobody holds any more.
  void forgetWorker(uint16_t worker, std::vector<ObjectId>& released);

  size_t objectCount() const { return _size; }
  /// Adds to `uses` the uses each holder holds, over all objects.
  void usesByHolder(std::unordered_map<uint16_t, uint64_t>& uses) const;

private:
  struct Slot {
    ObjectId id;
    uint32_t instanceUses;
    uint32_t firstCount;  // 0: no holder at all
    uint32_t more;        // 1 + index into _overflow, or 0
    uint16_t firstWorker;
  };

  size_t find(ObjectId id) const;  // index, or npos
  size_t insert(ObjectId id);      // index of the existing or new slot
  void erase(size_t index);
  void eraseIfEmpty(size_t index);
  void grow();
  size_t home(ObjectId id) const;
  std::vector<Holder>* overflow(Slot const& slot);
  std::vector<Holder> const* overflow(Slot const& slot) const;
  void dropOverflow(Slot& slot);
  /// Removes the holder at `position` (-1 = the inline one); false when none is left.
  bool removeHolder(Slot& slot, ptrdiff_t position);

  static constexpr size_t npos = ~size_t(0);
  std::vector<Slot> _slots;
  std::vector<bool> _used;
  size_t _size = 0;
  unsigned _shift = 64;
  uint64_t _seed;
  std::vector<std::vector<Holder>> _overflow;
  std::vector<uint32_t> _freeOverflow;
};

}  // namespace ipc
