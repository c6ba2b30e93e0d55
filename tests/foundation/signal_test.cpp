#include "foundation/signal.h"

#include <gtest/gtest.h>

#include <memory>

#include "support.h"

namespace fn {
namespace {

TEST(Signal, SlotsRunInConnectionOrderUntilTheirHandlesGoEvenDuringAnEmission) {
  auto signal = std::make_unique<Signal<int, String const&>>();
  std::vector<String> calls;
  Handle lateHandle, secondHandle;
  Handle firstHandle = signal->connect([&](int n, String const& s) {
    calls.push_back(fmt::format("a{}{}", n, s));
    secondHandle.invalidate();
    if (!lateHandle.valid())
      lateHandle =
          signal->connect([&](int n, String const&) { calls.push_back(fmt::format("late{}", n)); });
  });
  secondHandle =
      signal->connect([&](int n, String const&) { calls.push_back(fmt::format("b{}", n)); });
  signal->connect([&](int n, String const&) { calls.push_back(fmt::format("d{}", n)); }).detach();

  signal->emit(1, "x");  // the late slot, connected during it, hears from the next one on
  signal->emit(2, "y");
  { Handle gone = std::move(lateHandle); }  // destroying a handle disconnects too
  Handle moved = std::move(firstHandle);    // a moved-from handle cancels nothing
  signal->emit(3, "z");
  EXPECT_EQ(calls, (std::vector<String>{"a1x", "d1", "a2y", "d2", "late2", "a3z", "d3"}));
  // A handle that outlives its signal is harmless.
  signal.reset();
  EXPECT_FALSE(moved.valid());
  moved.invalidate();
}

TEST(Signal, SecondFireOnceIsAnAssertion) {
  testing::AssertionRecorder recorder;
  Signal<int> signal;
  signal.fireOnce(1);
  signal.fireOnce(2);
  EXPECT_EQ(recorder.conditions(),
            std::vector<String>{"fireOnce(...) can only be called once per event"});
}

}  // namespace
}  // namespace fn
