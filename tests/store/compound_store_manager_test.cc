// End to end: one manager over a compound store of the App Store store (on the StoreKit
// simulator) and the account store (on the development account server over loopback HTTP).
// The App Store's country counts; purchases of both stores reach the manager as one list, the
// App Store's first.
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "testing/fake_fetcher.h"
#include "tests/store/store_apple_fixture.h"
#include "zbiap/devserver/account_server.h"
#include "zbiap/manager/manager.h"
#include "zbiap/manager/manager_configuration.h"
#include "zbiap/platform/http_client.h"
#include "zbiap/platform/notification_center.h"
#include "zbiap/store/compound_store.h"
#include "zbiap/store/store_morvane.h"

namespace zbiap::testing {
namespace {

constexpr char kToken[] = "user-token";
constexpr char kWebPro[] = "com.example.web.pro";
constexpr char kSaved[] = "com.example.web.saved";

// The host's account delegate: a bearer token and a list kept in memory.
class AccountHost final : public ZBIAPStoreMorvaneDelegate {
 public:
  Value saved;
  void store(ZBIAPStoreMorvane&, bool, HeadersCompletion completion) override {
    completion({{"Authorization", std::string("Bearer ") + kToken}}, nullptr);
  }
  void store(ZBIAPStoreMorvane&, const Array& purchases) override { saved = Value(purchases); }
  Value readInAppPurchasesForStore(ZBIAPStoreMorvane&) override { return saved; }
};

class CompoundStoreManagerTest : public StoreAppleTest {
 protected:
  void SetUp() override {
    StoreAppleTest::SetUp();
    ASSERT_TRUE(server_.start());
    server_.setProducts(kToken, {AccountServer::Product::make(kWebPro, platform_.now())});

    // A list kept by an earlier launch.
    host_->saved = Value(Array{Value(Dictionary{
        {ZBIAPReceiptKeyIAPProductID, Value(kSaved)},
        {ZBIAPReceiptKeyIAPTransactionID, Value("dummy")},
        {ZBIAPReceiptKeyIAPPurchaseDate, Value(platform_.now())},
    })});
    apple_ = ZBIAPStoreApple::create();
    account_ = ZBIAPStoreMorvane::initWithBaseURL(server_.baseURL(), client_);
    account_->setMorvaneStoreDelegate(host_);
    compound_ = ZBIAPCompoundStore::initWithStores({apple_, account_});
    fetcher_ = FakeFetcher::create();
    auto configuration = ZBIAPManagerConfiguration::initWithStore(compound_, kLifetime, "US", fetcher_);
    ASSERT_TRUE(configuration);
    manager_ = ZBIAPManager::initWithConfiguration(configuration);
    ASSERT_TRUE(manager_);
    token_ = NotificationCenter::defaultCenter().addObserver(
        ZBIAPManagerStoreDidUpdateNotification, manager_.get(), [this](const Notification&) {
          EXPECT_TRUE(platform_.mainQueue().isMainThread());
          ++storeNotifications_;
        });
  }

  // Runs the main queue until `done` holds (answers come over real loopback HTTP and from the
  // file watcher's thread, so this waits for them, never for a timer of the library).
  template <typename Done>
  void runUntil(Done done) {
    platform_.runUntil(done);
    settle();
  }

  std::vector<std::string> managerPurchases() const {
    std::vector<std::string> ids;
    for (const auto& iap : manager_->inAppPurchases()) ids.push_back(iap->productIdentifier());
    return ids;
  }

  AccountServer server_;
  std::shared_ptr<HttpClient> client_ = HttpClient::createCurl();
  std::shared_ptr<AccountHost> host_ = std::make_shared<AccountHost>();
  std::shared_ptr<ZBIAPStoreApple> apple_;
  std::shared_ptr<ZBIAPStoreMorvane> account_;
  std::shared_ptr<ZBIAPCompoundStore> compound_;
  std::shared_ptr<FakeFetcher> fetcher_;
  std::shared_ptr<ZBIAPManager> manager_;
  ObserverToken token_;
  int storeNotifications_ = 0;
};

TEST_F(CompoundStoreManagerTest, BothStoresReachOneManager) {
  simulator_->setStorefront("FRA");
  manager_->commitConfiguration();
  platform_.runUntilIdle();
  EXPECT_EQ(manager_->appStoreCountry(), "FR") << "the first store's country, not the fixed DE";
  EXPECT_EQ(compound_->storeDelegate().get(), manager_.get());
  EXPECT_EQ(apple_->storeDelegate().get(), compound_.get());
  EXPECT_EQ(account_->storeDelegate().get(), compound_.get());
  EXPECT_EQ(managerPurchases(), std::vector<std::string>{kSaved}) << "the kept list at start";

  // A restore asks both stores; the account server's list replaces the kept one.
  int restores = 0;
  ZBIAPStoreRestoreResult joined = ZBIAPStoreRestoreResultFailed;
  compound_->restorePurchasesWithCompletion([&](ZBIAPStoreRestoreResult result, ZBIAPErrorPtr e) {
    ++restores;
    joined = result;
    EXPECT_EQ(e, nullptr);
  });
  runUntil([&] { return restores > 0; });
  EXPECT_EQ(restores, 1);
  EXPECT_EQ(joined, ZBIAPStoreRestoreResultChanged);
  EXPECT_EQ(server_.requestCount(), 1u);
  EXPECT_EQ(managerPurchases(), std::vector<std::string>{kWebPro});
  const int afterRestore = storeNotifications_;
  EXPECT_GE(afterRestore, 1);

  // A purchase goes to the App Store store, the only one that sells; its record comes first.
  auto lifetime = products(*apple_)[kLifetime];
  ASSERT_TRUE(lifetime);
  EXPECT_TRUE(compound_->canPurchaseProduct(lifetime));
  bool purchased = false;
  compound_->purchaseProduct(lifetime, [&](bool success, ZBIAPErrorPtr) { purchased = success; });
  runUntil([&] { return purchased; });
  ASSERT_TRUE(purchased);
  EXPECT_EQ(managerPurchases(), (std::vector<std::string>{kLifetime, kWebPro}));
  EXPECT_GT(storeNotifications_, afterRestore);

  // Each store's own answer to a restore.
  std::vector<ZBIAPCompoundStoreResultPtr> results;
  compound_->restoreCompoundPurchasesWithCompletion([&](auto r) { results = r; });
  runUntil([&] { return !results.empty(); });
  ASSERT_EQ(results.size(), 2u);
  for (const auto& result : results) {
    EXPECT_NE(result->result(), ZBIAPStoreRestoreResultFailed);
    EXPECT_EQ(result->error(), nullptr);
  }

  // Signing out of the account leaves the App Store's purchases.
  const int beforeDiscard = storeNotifications_;
  account_->discardInAppPurchases();
  runUntil([] { return true; });
  EXPECT_EQ(managerPurchases(), std::vector<std::string>{kLifetime});
  EXPECT_EQ(storeNotifications_, beforeDiscard + 1);
  EXPECT_EQ(host_->saved, Value(Array{}));
}

}  // namespace
}  // namespace zbiap::testing
