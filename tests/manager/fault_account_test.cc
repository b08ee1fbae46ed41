// The manager through the account server's faults, over real loopback HTTP: 401 twice (the store
// retries once with fresh headers, then gives up), 204 without a body, and a body that is not
// JSON. In each the manager keeps the purchases it knew and the host's saved list is untouched;
// when the server answers properly again, the next restore brings the new list.
#include <gtest/gtest.h>

#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "testing/fake_fetcher.h"
#include "testing/test_platform.h"
#include "zbiap/devserver/account_server.h"
#include "zbiap/manager/manager.h"
#include "zbiap/manager/manager_configuration.h"
#include "zbiap/store/store_morvane.h"

namespace zbiap::testing {
namespace {

constexpr char kToken[] = "user-token";

// The host: a bearer token, and the list kept between launches (in memory here).
class AccountHost final : public ZBIAPStoreMorvaneDelegate {
 public:
  void store(ZBIAPStoreMorvane&, bool isRetrying, HeadersCompletion completion) override {
    retries += isRetrying ? 1 : 0;
    completion({{"Authorization", std::string("Bearer ") + kToken}}, nullptr);
  }
  void store(ZBIAPStoreMorvane&, const Array& purchases) override {
    saved = Value(purchases);
    ++saves;
  }
  Value readInAppPurchasesForStore(ZBIAPStoreMorvane&) override { return saved; }

  Value saved;
  int saves = 0;
  int retries = 0;
};

class AccountFaultTest : public ::testing::Test {
 protected:
  void SetUp() override {
    platform_ = std::make_unique<TestPlatform>();
    ASSERT_TRUE(server_.start());
    server_.setProducts(kToken,
                        {AccountServer::Product::make("com.example.web.a", platform_->now())});
    manager_ = makeManager();
  }

  void TearDown() override {
    // A held fetch holds its manager: drop them, or each manager keeps itself alive.
    for (const auto& fetcher : fetchers_) fetcher->dropPending();
    manager_.reset();
    platform_.reset();
  }

  std::shared_ptr<ZBIAPManager> makeManager() {
    auto store = ZBIAPStoreMorvane::initWithBaseURL(server_.baseURL());
    store->setMorvaneStoreDelegate(host_);
    fetchers_.push_back(FakeFetcher::create());
    auto manager = ZBIAPManager::create(
        ZBIAPManagerConfiguration::create(store, "com.example.web.a", "US", fetchers_.back()));
    manager->commitConfiguration();
    platform_->runUntilIdle();
    return manager;
  }

  ZBIAPStoreRestoreResult restore() {
    bool done = false;
    ZBIAPStoreRestoreResult result = ZBIAPStoreRestoreResultFailed;
    manager_->configuration()->store()->restorePurchasesWithCompletion(
        [&](ZBIAPStoreRestoreResult r, ZBIAPErrorPtr) {
          result = r;
          done = true;
        });
    EXPECT_TRUE(platform_->runUntil([&] { return done; }));
    return result;
  }

  std::vector<std::string> purchases() const {
    std::vector<std::string> ids;
    for (const auto& iap : manager_->inAppPurchases()) ids.push_back(iap->productIdentifier());
    return ids;
  }

  std::unique_ptr<TestPlatform> platform_;
  AccountServer server_;
  std::shared_ptr<AccountHost> host_ = std::make_shared<AccountHost>();
  std::vector<std::shared_ptr<FakeFetcher>> fetchers_;
  std::shared_ptr<ZBIAPManager> manager_;
};

TEST_F(AccountFaultTest, FaultsKeepThePurchasesAndTheSavedListUntilTheServerRecovers) {
  ASSERT_EQ(restore(), ZBIAPStoreRestoreResultChanged);
  const std::vector<std::string> good{"com.example.web.a"};
  ASSERT_EQ(purchases(), good);
  const Value goodSaved = host_->saved;
  const int goodSaves = host_->saves;

  // Refused twice: one retry with fresh headers, then the restore fails.
  server_.clearRequests();
  server_.enqueueResponse(401, R"({"error":"expired"})");
  server_.enqueueResponse(401, R"({"error":"expired"})");
  EXPECT_EQ(restore(), ZBIAPStoreRestoreResultFailed);
  EXPECT_EQ(server_.requestCount(), 2u);
  EXPECT_EQ(host_->retries, 1);

  struct Case {
    int status;
    const char* body;
  };
  for (const Case& c :
       {Case{204, ""}, Case{200, "{not json"}, Case{200, R"({"products":7})"}, Case{503, "busy"}}) {
    SCOPED_TRACE(std::to_string(c.status) + " " + c.body);
    server_.enqueueResponse(c.status, c.body);
    EXPECT_EQ(restore(), ZBIAPStoreRestoreResultFailed);
  }
  EXPECT_EQ(purchases(), good);
  EXPECT_EQ(host_->saved, goodSaved);
  EXPECT_EQ(host_->saves, goodSaves);

  // The server answers again, with one more product.
  server_.addProduct(kToken, AccountServer::Product::make("com.example.web.b", platform_->now()));
  EXPECT_EQ(restore(), ZBIAPStoreRestoreResultChanged);
  EXPECT_EQ(purchases(), (std::vector<std::string>{"com.example.web.a", "com.example.web.b"}));

  // A new launch starts from the list the host kept, before asking the server.
  manager_ = makeManager();
  EXPECT_EQ(purchases(), (std::vector<std::string>{"com.example.web.a", "com.example.web.b"}));
}

}  // namespace
}  // namespace zbiap::testing
