// The catalogue after start-up: merging responses, store products, refreshes, purchase updates
// and country changes.
#include <gtest/gtest.h>

#include <thread>

#include "tests/manager/manager_fixture.h"
#include "zbiap/foundation/json.h"

namespace zbiap::testing {
namespace {

using std::chrono::seconds;

ZBIAPReceiptIAPPtr purchase(const std::string& product, bool upgradable, int64_t transaction = 1) {
  return ZBIAPReceiptIAP::create(product, 1, std::to_string(transaction), std::nullopt,
                                 Date::fromMicrosSince1970(1700000000LL * 1000000), std::nullopt,
                                 std::nullopt, std::nullopt, 0, upgradable);
}

std::vector<std::string> identifiers(const ZBIAPManager::ProductInfos& dpis) {
  std::vector<std::string> ids;
  for (const auto& dpi : dpis) ids.push_back(dpi->productIdentifier());
  return ids;
}

class CatalogTest : public ManagerTest {
 protected:
  // A manager in state 3 with `products` as its catalogue, its notifications forgotten.
  void startReady(const std::vector<Dictionary>& products) {
    saveCatalogue(products);
    store_->scriptCountry(Answer::kAtOnce, "DE");
    makeManager();
    commit();
    fetcher_->answerPending(FakeFetcher::succeed(makeResponse(products)));
    ASSERT_EQ(manager_->state(), ZBIAPManagerStateReadyProductInfos);
    clearHeard();
  }
  // Refreshes with `response` answered at once; returns the completion's error.
  ZBIAPErrorPtr refresh(std::shared_ptr<ZBIAPProductInfoResponse> response) {
    fetcher_->enqueue(FakeFetcher::succeed(std::move(response)));
    ZBIAPErrorPtr result = ZBIAPError::make("unset", -1);
    manager_->refreshDynamicProductInfosWithCompletion([&](ZBIAPErrorPtr e) { result = e; });
    runUntilIdle();
    return result;
  }
  std::string saved(const char* key) {
    auto data = platform_->userDefaults().dataForKey(key);
    return data ? std::string(data->begin(), data->end()) : "";
  }

  const std::vector<Dictionary> ab_ = {productDictionary("a", "A"), productDictionary("b", "B")};
};

TEST_F(CatalogTest, EqualResponseTakesHeaderGroupsAndFeaturesButChangesNothingElse) {
  startReady(ab_);
  EXPECT_EQ(refresh(makeResponse(ab_, "<h1>Gold</h1>", Dictionary{{"g", Value(1)}},
                                 {Dictionary{{"identifier", Value("f1")}}})),
            nullptr);
  EXPECT_EQ(logCount("Successfully queried Dynamic Product Infos: no change."), 2u);
  EXPECT_EQ(manager_->htmlStoreHeader(), "<h1>Gold</h1>");
  EXPECT_EQ(manager_->featureGroups(), (Dictionary{{"g", Value(1)}}));
  ASSERT_TRUE(manager_->baselineFeatureMetadata());
  EXPECT_EQ(manager_->baselineFeatureMetadata()->size(), 1u);
  EXPECT_EQ(parseJSON(saved("ZBIAPBaselineFeatureMetadata")),
            Value(Array{Value(Dictionary{{"identifier", Value("f1")}})}));
  EXPECT_TRUE(store_->productQueries().empty());
  EXPECT_TRUE(heard_.empty());
  EXPECT_EQ(manager_->queryCounter(), 0);
}

TEST_F(CatalogTest, ChangedResponseIsAnnouncedSavedAndItsProductsAttached) {
  startReady(ab_);
  auto productA = FakeStore::makeProduct("a");
  auto productC = FakeStore::makeProduct("c");
  store_->addProducts({productA, productC});
  const std::vector<Dictionary> cab = {productDictionary("c", "C"), productDictionary("a", "A"),
                                       productDictionary("b", "B")};
  EXPECT_EQ(refresh(makeResponse(cab)), nullptr);

  EXPECT_TRUE(logged("Successfully queried Dynamic Product Infos: (\n    <ZBIAPProductInfoV1:"));
  EXPECT_EQ(identifiers(manager_->dynamicProductInfos()),
            (std::vector<std::string>{"c", "a", "b"}));
  EXPECT_EQ(parseJSON(saved("ZBIAPProductInfos")), Value(Array(cab.begin(), cab.end())));
  EXPECT_EQ(store_->productQueries(), (std::vector<std::vector<std::string>>{{"a", "b", "c"}}));
  EXPECT_EQ(identifiers(manager_->dynamicProductInfosWithStoreProducts()),
            (std::vector<std::string>{"c", "a"}));
  EXPECT_EQ(manager_->dynamicProductInfos()[0]->product(), productC);
  EXPECT_EQ(manager_->dynamicProductInfos()[2]->product(), nullptr);
  EXPECT_EQ(manager_->state(), ZBIAPManagerStateReadyStoreProducts);
  EXPECT_EQ(heardNames(), (std::vector<std::string>{
                              ZBIAPManagerDidUpdateDynamicProductInfosNotification,
                              ZBIAPManagerDidUpdateDynamicProductInfosNotification,
                              ZBIAPManagerDidUpdateStateNotification,
                          }));
  EXPECT_EQ(manager_->queryCounter(), 0);

  // The same products again change no attachment: nothing is posted.
  clearHeard();
  manager_->updateStoreProducts({productA, productC});
  EXPECT_TRUE(heard_.empty());
  EXPECT_EQ(manager_->state(), ZBIAPManagerStateReadyStoreProducts);
}

TEST_F(CatalogTest, ProductsOfUnknownIdentifiersAreKeptForALaterCatalogue) {
  startReady(ab_);
  auto productX = FakeStore::makeProduct("x");
  manager_->updateStoreProducts({productX});
  EXPECT_EQ(manager_->storeProductMap().count("x"), 1u);
  EXPECT_TRUE(manager_->dynamicProductInfosWithStoreProducts().empty());
  EXPECT_EQ(manager_->state(), ZBIAPManagerStateReadyProductInfos);

  // The store does not list x any more, but the product received before is attached.
  EXPECT_EQ(refresh(makeResponse({productDictionary("a", "A"), productDictionary("x", "X")})),
            nullptr);
  EXPECT_EQ(manager_->dynamicProductInfos()[1]->product(), productX);
  EXPECT_TRUE(logged("Error querying store products: (null)"));
  // A newer product under the same identifier replaces the older one.
  auto newerX = FakeStore::makeProduct("x", "1.99");
  manager_->updateStoreProducts({productX, newerX});
  EXPECT_EQ(manager_->storeProductMap().at("x"), newerX);
  EXPECT_EQ(manager_->dynamicProductInfos()[1]->product(), newerX);
  EXPECT_EQ(manager_->state(), ZBIAPManagerStateReadyStoreProducts);

  // A store answer that attaches nothing any more moves back to state 3.
  EXPECT_EQ(refresh(makeResponse({productDictionary("b", "B")})), nullptr);
  manager_->updateStoreProducts({productX});
  EXPECT_EQ(manager_->state(), ZBIAPManagerStateReadyProductInfos);
}

TEST_F(CatalogTest, InactiveProductsAreAskedForOnlyWhenHeldAsUpgradablePurchases) {
  store_->setInAppPurchases({purchase("held", true), purchase("account", false)});
  startReady({productDictionary("a"), productDictionary("held", "H", true),
              productDictionary("account", "Acc", true), productDictionary("", "Nameless")});
  manager_->queryStoreProductsWithCompletion(nullptr);
  runUntilIdle();
  EXPECT_EQ(store_->productQueries(), (std::vector<std::vector<std::string>>{{"a", "held"}}));
  EXPECT_EQ(logCount("Skip inactive or Non-Apple Store Dynamic Product Info: "), 1u);
  EXPECT_TRUE(logged("Found a Dynamic Product Info without an identifier: "));
  // The nameless DPI stays in the catalogue.
  EXPECT_EQ(manager_->dynamicProductInfos().size(), 4u);
}

TEST_F(CatalogTest, StoreFailureIsLoggedPassedOnAndKeepsAttachments) {
  store_->addProducts({FakeStore::makeProduct("a")});
  startReady(ab_);
  manager_->queryStoreProductsWithCompletion(nullptr);
  runUntilIdle();
  ASSERT_EQ(manager_->state(), ZBIAPManagerStateReadyStoreProducts);

  // An empty answer is a failure, whatever the error says.
  store_->clearProducts();
  store_->scriptProducts(Answer::kLater, makeStoreError(ZBIAPStoreErrorOther));
  ZBIAPErrorPtr result;
  bool called = false;
  manager_->queryStoreProductsWithCompletion([&](ZBIAPErrorPtr e) {
    called = true;
    result = e;
  });
  EXPECT_EQ(manager_->queryCounter(), 1);
  std::thread([&] { store_->answerProductQueries(); }).join();
  EXPECT_FALSE(called);  // moved to the main queue
  runUntilIdle();
  ASSERT_TRUE(called);
  ASSERT_NE(result, nullptr);
  EXPECT_EQ(result->domain(), ZBIAPStoreErrorDomain);
  EXPECT_TRUE(logged("Error querying store products: Error Domain=ZBIAPStoreErrorDomain"));
  EXPECT_EQ(manager_->state(), ZBIAPManagerStateReadyStoreProducts);
  EXPECT_EQ(manager_->dynamicProductInfosWithStoreProducts().size(), 1u);
  EXPECT_EQ(manager_->queryCounter(), 0);
}

TEST_F(CatalogTest, RefreshFailsAtOnceUntilReady) {
  makeManager();
  for (int round = 0; round < 2; ++round) {
    const int64_t counter = manager_->queryCounter();
    bool called = false;
    manager_->refreshDynamicProductInfosWithCompletion([&](ZBIAPErrorPtr error) {
      called = true;
      ASSERT_NE(error, nullptr);
      EXPECT_EQ(error->domain(), ZBIAPManagerErrorDomain);
      EXPECT_EQ(error->code(), 0);
      EXPECT_TRUE(error->userInfo().empty());
    });
    EXPECT_TRUE(called);  // synchronously, on the caller's thread
    EXPECT_EQ(fetcher_->fetchCount(), 0u);
    EXPECT_EQ(manager_->queryCounter(), counter);
    commit();  // state 1 on the second round: still not ready
  }
  manager_->refreshDynamicProductInfosWithCompletion(nullptr);  // a null completion is fine
}

TEST_F(CatalogTest, FailedRefreshIsPassedOnButNeitherLoggedNorRetried) {
  startReady(ab_);
  fetcher_->enqueue(FakeFetcher::fail(ZBIAPError::make("ZBIAPErrorDomain", 1)));
  ZBIAPErrorPtr result;
  manager_->refreshDynamicProductInfosWithCompletion([&](ZBIAPErrorPtr e) { result = e; });
  runUntilIdle();
  ASSERT_NE(result, nullptr);
  EXPECT_EQ(result->domain(), "ZBIAPErrorDomain");
  EXPECT_FALSE(logged("Error querying Dynamic Product Infos"));
  advance(seconds(120));
  EXPECT_EQ(fetcher_->fetchCount(), 2u);  // the start-up query and the refresh
  EXPECT_EQ(manager_->queryCounter(), 0);
}

TEST_F(CatalogTest, StoreUpdatesArePostedOnlyWhenSomethingChanged) {
  store_->setInAppPurchases({purchase("a", true)});
  store_->setOriginalPurchaseVersion("1.0");
  startReady(ab_);
  EXPECT_EQ(manager_->inAppPurchases().size(), 1u);
  EXPECT_EQ(manager_->cachedOriginalPurchaseVersion(), "1.0");

  // Equal purchases (the transaction identifier takes no part) and nothing else new.
  store_->setInAppPurchases({purchase("a", true, 99)});
  store_->tellDelegateInformationsChanged();
  runUntilIdle();
  EXPECT_EQ(heardCount(ZBIAPManagerStoreDidUpdateNotification), 0u);

  const Date date = Date::fromMicrosSince1970(1600000000LL * 1000000);
  store_->setOriginalPurchaseDate(date);
  store_->tellDelegateInformationsChanged();
  EXPECT_EQ(heardCount(ZBIAPManagerStoreDidUpdateNotification), 1u);
  EXPECT_EQ(manager_->cachedOriginalPurchaseDate(), date);

  // A date or version that became nil is no change by itself.
  store_->setOriginalPurchaseDate(std::nullopt);
  store_->setOriginalPurchaseVersion(std::nullopt);
  store_->tellDelegateInformationsChanged();
  EXPECT_EQ(heardCount(ZBIAPManagerStoreDidUpdateNotification), 1u);
  EXPECT_EQ(manager_->cachedOriginalPurchaseDate(), date);

  store_->setOriginalPurchaseVersion("2.0");
  store_->tellDelegateInformationsChanged();
  EXPECT_EQ(heardCount(ZBIAPManagerStoreDidUpdateNotification), 2u);
  // With a real change the nil date is taken as well.
  EXPECT_EQ(manager_->cachedOriginalPurchaseDate(), std::nullopt);

  // From another thread the notification follows on the main queue.
  store_->setInAppPurchases({});
  std::thread([&] { store_->tellDelegateInformationsChanged(); }).join();
  EXPECT_TRUE(manager_->inAppPurchases().empty());
  EXPECT_EQ(heardCount(ZBIAPManagerStoreDidUpdateNotification), 2u);
  runUntilIdle();
  EXPECT_EQ(heardCount(ZBIAPManagerStoreDidUpdateNotification), 3u);

  // Two notices race: the first read the older list, and the second ran whole before the
  // first wrote it. The manager still ends with the store's current list.
  store_->setInAppPurchases({purchase("old", true)});
  store_->onPurchasesRead = [&] {
    store_->setInAppPurchases({purchase("new", true)});
    store_->tellDelegateInformationsChanged();
  };
  store_->tellDelegateInformationsChanged();
  ASSERT_EQ(manager_->inAppPurchases().size(), 1u);
  EXPECT_EQ(manager_->inAppPurchases()[0]->productIdentifier(), "new");
}

TEST_F(CatalogTest, CountryChangesFromTheStoreQueryOnlyWhenNew) {
  startReady(ab_);
  const size_t before = fetcher_->fetchCount();
  std::thread([&] { store_->tellDelegateCountry("FR"); }).join();
  EXPECT_EQ(manager_->appStoreCountry(), "DE");
  runUntilIdle();
  EXPECT_EQ(manager_->appStoreCountry(), "FR");
  EXPECT_TRUE(logged("Updating the store's country to 'FR'."));
  EXPECT_EQ(fetcher_->fetchCount(), before + 1);
  store_->tellDelegateCountry("FR");
  store_->tellDelegateCountry("");
  store_->tellDelegateCountry(std::nullopt);
  runUntilIdle();
  EXPECT_EQ(manager_->appStoreCountry(), "FR");
  EXPECT_EQ(fetcher_->fetchCount(), before + 1);
}

}  // namespace
}  // namespace zbiap::testing
