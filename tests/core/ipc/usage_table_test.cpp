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

// Random uses, releases (of up to three uses at once) and deaths against a plain map: growth,
// the holders beyond the one kept in the slot and the moving of entries on erasure must keep
// every entry and every holder reachable.
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
        auto count = static_cast<uint32_t>(1 + random() % 3);
        bool tooMany = false;
        Release result = table.releaseHolder(id, worker, count, tooMany);
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
        EXPECT_EQ(tooMany, count > holders[worker]);
        if ((holders[worker] -= std::min(holders[worker], count)) == 0)
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
    std::vector<uint16_t> holders;
    for (auto const& [worker, count] : entry.second) {
      EXPECT_EQ(table.holderUses(id, worker), count);
      holders.push_back(worker);
    }
    EXPECT_EQ(holdersOf(table, id), holders);
  }
}
