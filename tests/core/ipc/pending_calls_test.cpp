#include "core/ipc/pending_calls.h"

#include <gtest/gtest.h>

#include <map>
#include <random>

namespace {

// Calls in flight as a caller makes them: ids in sequence, most answered soon and out of
// order, a few never; checked against a plain map through growth, shrinking and the wrap of
// the ids at 2^32.
TEST(PendingCalls, AgreesWithAPlainMapThroughGrowthShrinkingAndWrappingIds) {
  ipc::PendingCalls<int> table;
  std::map<uint32_t, int> model;
  std::mt19937 random(7);
  uint32_t next = 0xFFFFF000u;
  for (int round = 0; round < 60000; ++round) {
    // Bursts of up to a few thousand calls in flight, then quiet again.
    size_t burst = (round / 10000) % 2 ? 3000 : 40;
    if (model.size() < burst || random() % 2) {
      uint32_t id = next++;
      table.insert(id, round);
      model[id] = round;
    } else {
      // Mostly the oldest ones, sometimes any; now and then one that is not there.
      auto at = model.begin();
      if (random() % 4 == 0)
        std::advance(at, random() % model.size());
      uint32_t id = random() % 50 == 0 ? next + 7 : at->first;
      auto taken = table.take(id);
      auto expected = model.find(id);
      ASSERT_EQ(taken.has_value(), expected != model.end()) << id;
      if (taken) {
        EXPECT_EQ(*taken, expected->second);
        model.erase(expected);
      }
    }
    ASSERT_EQ(table.size(), model.size());
  }
  // A replaced id keeps one entry; everything comes out in ascending order of id.
  table.insert(next - 1, -1);
  model[next - 1] = -1;
  auto all = table.takeAll();
  EXPECT_EQ(all, (std::vector<std::pair<uint32_t, int>>(model.begin(), model.end())));
  EXPECT_EQ(table.size(), 0u);
  EXPECT_FALSE(table.take(next - 1));
}

}  // namespace
