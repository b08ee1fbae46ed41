#include <gtest/gtest.h>

#include "tests/manager/manager_fixture.h"

namespace zbiap::testing {
namespace {

using SortTest = ManagerTest;

ZBIAPManager::ProductInfos dpis(const std::vector<std::string>& ids) {
  std::vector<Dictionary> products;
  for (const auto& id : ids) products.push_back(productDictionary(id));
  return *makeResponse(products)->productInfos();
}

std::vector<std::string> ids(const ZBIAPManager::ProductInfos& infos) {
  std::vector<std::string> out;
  for (const auto& dpi : infos) out.push_back(dpi->productIdentifier());
  return out;
}

TEST_F(SortTest, OrdersByTheDurationReadAsCalendarFields) {
  // Durations are calendar fields with the rest at their lowest: "1m" and "1y" are both the
  // first day of year 1 (so the identifier decides), "14d" the 14th of January, "3m" the first
  // of March, "12m" the first of December, "2y" the first day of year 2.
  const auto sorted = ZBIAPManager::sortDynamicProductInfos(
      dpis({"other", "sub.2y", "sub.3m", "plan.1y", "sub.junk", "sub.12m", "sub.14d", "sub.1m"}),
      {"sub.", "plan."});
  EXPECT_EQ(ids(sorted), (std::vector<std::string>{"plan.1y", "sub.1m", "sub.14d", "sub.3m",
                                                   "sub.12m", "sub.2y", "sub.junk", "other"}));
}

TEST_F(SortTest, FirstMatchingPrefixWins) {
  // With "a." first, "a.b.1m" has the duration text "b.1m", which does not read.
  const auto sorted =
      ZBIAPManager::sortDynamicProductInfos(dpis({"a.b.1m", "a.2m"}), {"a.", "a.b."});
  EXPECT_EQ(ids(sorted), (std::vector<std::string>{"a.2m", "a.b.1m"}));
  const auto other =
      ZBIAPManager::sortDynamicProductInfos(dpis({"a.b.1m", "a.2m"}), {"a.b.", "a."});
  EXPECT_EQ(ids(other), (std::vector<std::string>{"a.b.1m", "a.2m"}));
}

TEST_F(SortTest, WithoutPrefixesEverythingIsEqual) {
  const std::vector<std::string> order = {"z.1m", "a.3d", "m"};
  EXPECT_EQ(ids(ZBIAPManager::sortDynamicProductInfos(dpis(order), {})), order);
  EXPECT_TRUE(ZBIAPManager::sortDynamicProductInfos({}, {"a."}).empty());
}

}  // namespace
}  // namespace zbiap::testing
