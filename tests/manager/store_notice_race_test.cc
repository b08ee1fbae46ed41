// Two notices of one store race: the first read the older list, and the second ran whole before
// the first wrote it. The manager still ends with the store's current list.
#include <gtest/gtest.h>

#include "tests/manager/manager_fixture.h"

namespace zbiap::testing {
namespace {

ZBIAPReceiptIAPPtr purchase(const std::string& product) {
  return ZBIAPReceiptIAP::initWithProductIdentifier(product, 1, "1", std::nullopt, Date::fromMicrosSince1970(0),
                                 std::nullopt, std::nullopt, std::nullopt, 0, true);
}

TEST_F(ManagerTest, RacingStoreNoticesLeaveTheStoresLatestList) {
  makeManager();
  commit();
  store_->setInAppPurchases({purchase("old")});
  store_->onPurchasesRead = [this] {
    store_->setInAppPurchases({purchase("new")});
    store_->tellDelegateInformationsChanged();
  };
  store_->tellDelegateInformationsChanged();
  ASSERT_EQ(manager_->inAppPurchases().size(), 1u);
  EXPECT_EQ(manager_->inAppPurchases()[0]->productIdentifier(), "new");
}

}  // namespace
}  // namespace zbiap::testing
