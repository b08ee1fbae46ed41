// The manager through faults of the receipt file, with the real file monitor: the receipt
// deleted, truncated in the middle of a write, replaced by garbage. The manager keeps the
// purchases it knew; when a good receipt is written again, the next one is read.
#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "testing/fake_fetcher.h"
#include "tests/store/store_apple_fixture.h"
#include "zbiap/manager/manager.h"
#include "zbiap/manager/manager_configuration.h"

namespace zbiap::testing {
namespace {

class ReceiptFaultTest : public StoreAppleTest {
 protected:
  void SetUp() override {
    StoreAppleTest::SetUp();
    store_ = ZBIAPStoreApple::create();
    manager_ =
        ZBIAPManager::initWithConfiguration(ZBIAPManagerConfiguration::initWithStore(store_, kLifetime, "US", fetcher_));
    ASSERT_TRUE(manager_);
    manager_->commitConfiguration();
    platform_.runUntilIdle();
  }

  void TearDown() override {
    fetcher_->dropPending();  // a held fetch holds the manager
    manager_.reset();
    store_.reset();
    StoreAppleTest::TearDown();
  }

  void buy(const char* id) {
    auto product = products(*store_)[id];
    ASSERT_TRUE(product);
    bool purchased = false;
    store_->purchaseProduct(product, [&](bool success, ZBIAPErrorPtr) { purchased = success; });
    platform_.runUntilIdle();
    settle();
    ASSERT_TRUE(purchased);
  }

  std::vector<std::string> purchases() const {
    std::vector<std::string> ids;
    for (const auto& iap : manager_->inAppPurchases()) ids.push_back(iap->productIdentifier());
    return ids;
  }

  std::shared_ptr<ZBIAPStoreApple> store_;
  std::shared_ptr<FakeFetcher> fetcher_ = FakeFetcher::create();
  std::shared_ptr<ZBIAPManager> manager_;
};

TEST_F(ReceiptFaultTest, DeletedTruncatedOrReplacedReceiptsKeepThePurchases) {
  buy(kLifetime);
  const std::vector<std::string> good{kLifetime};
  ASSERT_EQ(purchases(), good);
  std::error_code ec;
  const Data bytes = [&] {
    std::ifstream in(receiptURL(), std::ios::binary);
    return Data(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
  }();
  ASSERT_FALSE(bytes.empty());

  std::filesystem::remove(receiptURL(), ec);
  settle();
  EXPECT_EQ(purchases(), good) << "deleted";

  writeReceiptBytes(Data(bytes.begin(), bytes.begin() + static_cast<long>(bytes.size() / 2)));
  settle();
  EXPECT_EQ(purchases(), good) << "truncated in the middle of a write";

  writeReceiptBytes(Data(512, 0xee), /*inPlace=*/false);
  settle();
  EXPECT_EQ(purchases(), good) << "replaced by garbage";

  // The next good receipt (a new purchase) is read, though the file was gone and bad meanwhile.
  buy(kMonthly);
  EXPECT_EQ(purchases(), (std::vector<std::string>{kLifetime, kMonthly}));

  // Deleted again, then written anew with other content (a new account's history): the monitor
  // still watches the path, and the new receipt counts.
  std::filesystem::remove(receiptURL(), ec);
  settle();
  simulator_->clearPurchaseHistory();
  ASSERT_TRUE(simulator_->writeReceipt());
  settle();
  // The monitor looks for a missing file every 200 ms of the main queue's clock.
  platform_.advanceBy(std::chrono::milliseconds(250));
  settle();
  EXPECT_TRUE(purchases().empty());
}

}  // namespace
}  // namespace zbiap::testing
