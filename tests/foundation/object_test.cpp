#include "foundation/object.h"

#include <gtest/gtest.h>

#include "foundation/signal.h"
#include "foundation/uv/loop.h"
#include "support.h"

namespace fn {
namespace {

// Tells its listeners while it is being destroyed; with a loop, defers its destruction to it,
// as loop-bound classes do.
class Tracked : public RefCountedObject {
public:
  Tracked(int& destroyed, uv::Loop* loop = nullptr) : _destroyed(destroyed), _loop(loop) {}
  ~Tracked() override {
    dying.emit();
    ++_destroyed;
  }
  Signal<> dying;

protected:
  void deleteInstance() override {
    if (!_loop)
      return RefCountedObject::deleteInstance();
    _loop->post([self = this] { delete self; });
  }

private:
  int& _destroyed;
  uv::Loop* _loop;
};

TEST(WeakReference, DiesWithTheLastStrongReferenceAndIsDeadDuringTeardown) {
  uv::Loop loop;
  int destroyed = 0;
  auto first = makeAuto<Tracked>(destroyed);
  WeakReference<Tracked> weak(first);
  AutoPtr<Tracked> second = first;
  bool lockedDuringTeardown = true, lockedLater = true;
  Handle subscription =
      first->dying.connect([&] { lockedDuringTeardown = static_cast<bool>(weak.lock()); });
  // A delivery posted before the object went away runs after it was freed.
  loop.post([weak, &lockedLater] { lockedLater = static_cast<bool>(weak.lock()); });
  first.reset();
  EXPECT_EQ(weak.lock().get(), second.get());
  second.reset();
  EXPECT_EQ(destroyed, 1);
  EXPECT_FALSE(lockedDuringTeardown);
  EXPECT_TRUE(testing::runLoopUntil(loop, [&] { return !lockedLater; }));

  // While the destruction is deferred, nothing gets a strong reference back.
  auto deferred = makeAuto<Tracked>(destroyed, &loop);
  WeakReference<Tracked> weakDeferred(deferred);
  Tracked* raw = deferred.get();
  deferred.reset();
  EXPECT_EQ(destroyed, 1);
  EXPECT_FALSE(raw->tryRetain());
  EXPECT_FALSE(weakDeferred.lock());
  EXPECT_TRUE(testing::runLoopUntil(loop, [&] { return destroyed == 2; }));
}

}  // namespace
}  // namespace fn
