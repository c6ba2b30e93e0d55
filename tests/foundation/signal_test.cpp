#include "foundation/signal.h"

#include <gtest/gtest.h>

#include <memory>

#include "support.h"

namespace fn {
namespace {

TEST(Signal, SlotsRunInConnectionOrderUntilTheirHandlesGoEvenDuringAnEmission) {
  Signal<int, String const&> withArguments;
  std::vector<String> calls;
  Handle a = withArguments.connect(
      [&](int n, String const& s) { calls.push_back(fmt::format("a{}{}", n, s)); });
  Handle b = withArguments.connect(
      [&](int n, String const& s) { calls.push_back(fmt::format("b{}{}", n, s)); });
  EXPECT_TRUE(withArguments.hasConnections());
  withArguments.emit(1, "x");
  withArguments.emit(2, "y");
  EXPECT_EQ(calls, (std::vector<String>{"a1x", "b1x", "a2y", "b2y"}));

  Signal<> signal;
  int first = 0, second = 0, late = 0;
  Handle lateHandle;
  Handle secondHandle;
  Handle firstHandle = signal.connect([&] {
    ++first;
    secondHandle.invalidate();
    if (!lateHandle.valid())
      lateHandle = signal.connect([&] { ++late; });
  });
  secondHandle = signal.connect([&] { ++second; });

  signal.emit();
  EXPECT_EQ(first, 1);
  EXPECT_EQ(second, 0);
  EXPECT_EQ(late, 0);  // connected during the emission: from the next one on
  EXPECT_FALSE(secondHandle.valid());

  signal.emit();
  EXPECT_EQ(late, 1);

  // Destroying a handle disconnects too; a moved-from handle cancels nothing.
  Handle moved = std::move(firstHandle);
  { Handle gone = std::move(lateHandle); }
  signal.emit();
  EXPECT_EQ(first, 3);
  EXPECT_EQ(late, 1);
}

TEST(Signal, DetachedConnectionLivesAsLongAsTheSignal) {
  auto signal = std::make_unique<Signal<int>>();
  int sum = 0;
  {
    Handle handle = signal->connect([&](int n) { sum += n; });
    handle.detach();
    EXPECT_FALSE(handle.valid());
  }
  signal->emit(5);
  EXPECT_EQ(sum, 5);

  // A handle that outlives its signal is harmless.
  Handle survivor = signal->connect([&](int n) { sum += n; });
  signal.reset();
  EXPECT_FALSE(survivor.valid());
  survivor.invalidate();
  EXPECT_EQ(sum, 5);
}

TEST(Signal, SecondFireOnceIsAnAssertion) {
  testing::AssertionRecorder recorder;
  Signal<int> signal;
  int calls = 0;
  Handle handle = signal.connect([&](int) { ++calls; });

  signal.fireOnce(1);
  EXPECT_TRUE(recorder.failures().empty());
  signal.fireOnce(2);
  auto failures = recorder.failures();
  ASSERT_EQ(failures.size(), 1u);
  EXPECT_EQ(failures[0].condition, "fireOnce(...) can only be called once per event");
  EXPECT_EQ(failures[0].source, "libs/foundation/signal");
  EXPECT_EQ(failures[0].function, "fireOnce");
  EXPECT_GT(failures[0].line, 0);
}

}  // namespace
}  // namespace fn
