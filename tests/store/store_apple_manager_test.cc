// End to end: a manager on the App Store store on the StoreKit simulator, with the real file
// monitor on the receipt file. A purchase makes the simulator write a new receipt; the store
// rereads it, tells the manager, and the manager posts its store notification. A receipt
// replaced by someone else takes the monitor's road to the same notification.
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "testing/fake_fetcher.h"
#include "tests/store/store_apple_fixture.h"
#include "zbiap/manager/manager.h"
#include "zbiap/manager/manager_configuration.h"
#include "zbiap/platform/notification_center.h"
#include "zbiap/storekit/receipt_writer.h"

namespace zbiap::testing {
namespace {

class StoreAppleManagerTest : public StoreAppleTest {
 protected:
  void SetUp() override {
    StoreAppleTest::SetUp();
    store_ = ZBIAPStoreApple::create();
    fetcher_ = FakeFetcher::create();
    auto configuration = ZBIAPManagerConfiguration::initWithStore(store_, kLifetime, "US", fetcher_);
    ASSERT_TRUE(configuration);
    manager_ = ZBIAPManager::initWithConfiguration(configuration);
    ASSERT_TRUE(manager_);
    token_ = NotificationCenter::defaultCenter().addObserver(
        ZBIAPManagerStoreDidUpdateNotification, manager_.get(), [this](const Notification&) {
          EXPECT_TRUE(platform_.mainQueue().isMainThread());
          ++storeNotifications_;
        });
  }

  std::shared_ptr<ZBIAPStoreApple> store_;
  std::shared_ptr<FakeFetcher> fetcher_;
  std::shared_ptr<ZBIAPManager> manager_;
  ObserverToken token_;
  int storeNotifications_ = 0;
};

TEST_F(StoreAppleManagerTest, PurchaseAndReceiptChangesReachTheManager) {
  simulator_->setStorefront("FRA");
  manager_->commitConfiguration();
  platform_.runUntilIdle();
  EXPECT_EQ(manager_->appStoreCountry(), "FR") << "learned through a products request";
  EXPECT_EQ(store_->storeDelegate().get(), manager_.get());
  EXPECT_TRUE(manager_->inAppPurchases().empty());
  const int before = storeNotifications_;

  auto lifetime = products(*store_)[kLifetime];
  ASSERT_TRUE(lifetime);
  bool purchased = false;
  store_->purchaseProduct(lifetime, [&](bool success, ZBIAPErrorPtr error) {
    purchased = success;
    EXPECT_EQ(error, nullptr);
  });
  platform_.runUntilIdle();
  ASSERT_TRUE(purchased);
  EXPECT_EQ(simulator_->receiptWriteCount(), 1u);
  EXPECT_EQ(storeNotifications_, before + 1);
  ASSERT_EQ(manager_->inAppPurchases().size(), 1u);
  EXPECT_EQ(manager_->inAppPurchases()[0]->productIdentifier(), kLifetime);

  // The simulator's atomic replacement is also seen by the monitor; rereading the same records
  // is no news.
  settle();
  EXPECT_EQ(storeNotifications_, before + 1);

  // Someone else (a renewal, a restore on another device) replaces the receipt.
  auto writer = ReceiptWriter::create();
  ReceiptContents contents;
  contents.bundleIdentifier = "com.example.app";
  contents.appVersion = "3";
  contents.originalAppVersion = store_->originalPurchaseVersion();
  contents.originalPurchaseDate = store_->originalPurchaseDate();
  contents.creationDate = platform_.now();
  contents.purchases = simulator_->purchaseHistory();
  ReceiptPurchase renewal;
  renewal.productIdentifier = kYearly;
  renewal.transactionIdentifier = "9000";
  renewal.purchaseDate = platform_.now();
  renewal.subscriptionExpirationDate = platform_.now() + std::chrono::hours(24 * 365);
  contents.purchases.push_back(renewal);
  writeReceiptBytes(*writer->write(contents), /*inPlace=*/false);
  settle();
  EXPECT_EQ(storeNotifications_, before + 2);
  ASSERT_EQ(manager_->inAppPurchases().size(), 2u);
  EXPECT_EQ(manager_->inAppPurchases()[1]->productIdentifier(), kYearly);

  // A broken receipt changes nothing and posts nothing.
  writeReceiptBytes(Data(64, 0x00), /*inPlace=*/false);
  settle();
  EXPECT_EQ(storeNotifications_, before + 2);
  EXPECT_EQ(manager_->inAppPurchases().size(), 2u);
}

}  // namespace
}  // namespace zbiap::testing
