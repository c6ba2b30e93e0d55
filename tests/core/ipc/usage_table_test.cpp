#include "core/ipc/usage_table.h"

#include <gtest/gtest.h>

#include <map>
#include <random>

using ipc::ObjectId;
using ipc::UsageTable;
using Release = UsageTable::Release;

namespace {

ObjectId objectOf(uint16_t worker, uint64_t counter) {
  return (counter << 16) + worker;
}

std::vector<uint16_t> holdersOf(UsageTable const& table, ObjectId id) {
  std::vector<uint16_t> out;
  table.holders(id, out);
  std::sort(out.begin(), out.end());
  return out;
}

}  // namespace

TEST(UsageTable, ManyHoldersOfOneObjectAreCountedApartAndReleasedInAnyOrder) {
  UsageTable table;
  ObjectId x = objectOf(1, 7);
  table.addInstanceUse(x);
  for (uint16_t worker : {2, 3, 4, 5, 3, 5, 5})
    table.addHolderUse(x, worker);
  EXPECT_EQ(holdersOf(table, x), (std::vector<uint16_t>{2, 3, 4, 5}));
  EXPECT_EQ(table.holderUses(x, 5), 3u);
  bool tooMany = false;
  // The first holder (kept in the slot itself) goes first: another takes its place.
  EXPECT_EQ(table.releaseHolder(x, 2, 1, tooMany), Release::Done);
  EXPECT_EQ(table.holderUses(x, 3), 2u);
  EXPECT_EQ(table.releaseHolder(x, 2, 1, tooMany), Release::UnknownHolder);
  EXPECT_EQ(table.releaseHolder(x, 5, 1, tooMany), Release::Done);
  EXPECT_EQ(table.holderUses(x, 5), 2u);
  EXPECT_EQ(table.releaseHolder(x, 4, 1, tooMany), Release::Done);
  EXPECT_EQ(table.releaseHolder(x, 5, 9, tooMany), Release::Done);
  EXPECT_TRUE(tooMany);
  EXPECT_EQ(holdersOf(table, x), (std::vector<uint16_t>{3}));
  EXPECT_EQ(table.releaseHolder(x, 3, 2, tooMany), Release::LastHolder);
  EXPECT_FALSE(tooMany);
  // The instance's uses wait for their release; then nothing is left.
  EXPECT_EQ(table.objectCount(), 1u);
  EXPECT_EQ(table.takeInstanceUses(x), 1u);
  EXPECT_EQ(table.objectCount(), 0u);
  EXPECT_EQ(table.releaseHolder(x, 3, 1, tooMany), Release::UnknownObject);
}

// Random uses, releases and deaths against a plain map: growth and the moving of entries on
// erasure must keep every entry reachable.
TEST(UsageTable, AgreesWithAPlainMapThroughGrowthErasureAndDeaths) {
  UsageTable table;
  std::map<ObjectId, std::pair<uint32_t, std::map<uint16_t, uint32_t>>> model;
  std::mt19937_64 random(42);
  auto pickId = [&] { return objectOf(random() % 8, random() % 20000); };
  for (int step = 0; step < 200000; ++step) {
    ObjectId id = pickId();
    auto worker = static_cast<uint16_t>(random() % 8);
    switch (random() % 5) {
      case 0:
        table.addInstanceUse(id);
        ++model[id].first;
        break;
      case 1:
      case 2:
        table.addHolderUse(id, worker);
        ++model[id].second[worker];
        break;
      case 3: {
        bool tooMany = false;
        Release result = table.releaseHolder(id, worker, 1, tooMany);
        auto found = model.find(id);
        if (found == model.end() || found->second.second.empty()) {
          EXPECT_EQ(result, Release::UnknownObject);
          break;
        }
        auto& holders = found->second.second;
        if (!holders.contains(worker)) {
          EXPECT_EQ(result, Release::UnknownHolder);
          break;
        }
        if (--holders[worker] == 0)
          holders.erase(worker);
        EXPECT_EQ(result, holders.empty() ? Release::LastHolder : Release::Done);
        if (holders.empty() && found->second.first == 0)
          model.erase(found);
        break;
      }
      default:
        if (step % 5000 == 4) {
          std::vector<ObjectId> released, expected;
          table.forgetWorker(worker, released);
          for (auto entry = model.begin(); entry != model.end();) {
            auto& [instance, holders] = entry->second;
            bool owned = ipc::ownerOf(entry->first) == worker;
            if (!owned && holders.erase(worker) && holders.empty())
              expected.push_back(entry->first);
            if (owned || (holders.empty() && instance == 0))
              entry = model.erase(entry);
            else
              ++entry;
          }
          std::sort(released.begin(), released.end());
          EXPECT_EQ(released, expected);
        } else {
          uint32_t uses = table.takeInstanceUses(id);
          auto found = model.find(id);
          EXPECT_EQ(uses, found == model.end() ? 0 : found->second.first);
          if (found != model.end()) {
            found->second.first = 0;
            if (found->second.second.empty())
              model.erase(found);
          }
        }
    }
  }
  ASSERT_EQ(table.objectCount(), model.size());
  for (auto const& [id, entry] : model) {
    EXPECT_EQ(table.instanceUses(id), entry.first);
    for (auto const& [worker, count] : entry.second)
      EXPECT_EQ(table.holderUses(id, worker), count);
  }
}
