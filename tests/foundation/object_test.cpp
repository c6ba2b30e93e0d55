#include "foundation/object.h"

#include <gtest/gtest.h>

#include "foundation/signal.h"
#include "foundation/uv/loop.h"
#include "support.h"

namespace fn {
namespace {

class Tracked : public RefCountedObject {
public:
  explicit Tracked(int& destroyed) : _destroyed(destroyed) {}
  ~Tracked() override { ++_destroyed; }

private:
  int& _destroyed;
};

// Defers its destruction to the loop, as loop-bound classes do.
class DeferredDelete : public Tracked {
public:
  DeferredDelete(int& destroyed, uv::Loop& loop) : Tracked(destroyed), _loop(loop) {}

protected:
  void deleteInstance() override {
    _loop.post([self = this] { delete self; });
  }

private:
  uv::Loop& _loop;
};

// Tells its listeners while it is being destroyed.
class Announcer : public RefCountedObject {
public:
  ~Announcer() override { dying.emit(); }
  Signal<> dying;
};

TEST(WeakReference, DiesWithTheLastStrongReference) {
  int destroyed = 0;
  auto first = makeAuto<Tracked>(destroyed);
  WeakReference<Tracked> weak(first);
  WeakReference<Tracked> weakCopy = weak;
  AutoPtr<Tracked> second = first;
  EXPECT_EQ(first->refCount(), 2);

  first.reset();
  EXPECT_EQ(weak.lock().get(), second.get());

  second.reset();
  EXPECT_EQ(destroyed, 1);
  EXPECT_TRUE(weak.expired());
  EXPECT_FALSE(weak.lock());
  EXPECT_FALSE(weakCopy.lock());
}

TEST(WeakReference, NoStrongReferenceWhileDestructionIsDeferred) {
  uv::Loop loop;
  int destroyed = 0;
  auto object = makeAuto<DeferredDelete>(destroyed, loop);
  WeakReference<DeferredDelete> weak(object);
  DeferredDelete* raw = object.get();

  object.reset();
  EXPECT_EQ(destroyed, 0);
  EXPECT_FALSE(raw->tryRetain());
  EXPECT_EQ(raw->refCount(), 0);
  EXPECT_TRUE(weak.expired());
  EXPECT_FALSE(weak.lock());

  EXPECT_TRUE(testing::runLoopUntil(loop, [&] { return destroyed == 1; }));
  EXPECT_FALSE(weak.lock());
}

TEST(WeakReference, CallbackDuringTeardownFindsADeadReference) {
  uv::Loop loop;
  auto announcer = makeAuto<Announcer>();
  WeakReference<Announcer> weak(announcer);
  int calls = 0;
  bool lockedDuringTeardown = true;
  Handle subscription = announcer->dying.connect([&] {
    ++calls;
    lockedDuringTeardown = static_cast<bool>(weak.lock());
  });
  // A delivery posted before the object went away runs after it was freed.
  bool lockedLater = true;
  loop.post([weak, &lockedLater] { lockedLater = static_cast<bool>(weak.lock()); });

  announcer.reset();
  EXPECT_EQ(calls, 1);
  EXPECT_FALSE(lockedDuringTeardown);
  EXPECT_TRUE(testing::runLoopUntil(loop, [&] { return !lockedLater; }));
}

}  // namespace
}  // namespace fn
