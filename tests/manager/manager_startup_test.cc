// Start-up: commit, the country step with its soft time-out, the first catalogue query with its
// retry, and the state machine with its notifications.
#include <gtest/gtest.h>

#include <thread>

#include "tests/manager/manager_fixture.h"
#include "zbiap/support/memory_logger.h"

namespace zbiap::testing {
namespace {

using std::chrono::seconds;

class StartupTest : public ManagerTest {
 protected:
  const std::vector<Dictionary> twoProducts_ = {productDictionary("com.example.a", "A"),
                                                productDictionary("com.example.b", "B")};
};

// The store learns it is the delegate and manager before the saved catalogue returns: a country
// reported at once is heard before the restore's outcome, and the manager it is given holds no
// catalogue yet.
TEST_F(StartupTest, StoreIsAttachedBeforeTheCatalogueIsRestored) {
  store_->onDelegateSet = [this] { store_->tellDelegateCountry("FR"); };
  makeManager();
  commit();
  const std::string log = ZBIAPMemoryLogger::combinedLogString();
  const size_t country = log.find("Updating the store's country to 'FR'.");
  ASSERT_NE(country, std::string::npos);
  EXPECT_LT(country, log.find("Failed to load Dynamic Product Infos!"));
}

TEST_F(StartupTest, StoreGivenTheManagerSeesNoSavedCatalogueYet) {
  saveCatalogue(twoProducts_);
  size_t productsSeen = 99;
  store_->onManagerSet = [&] { productsSeen = store_->manager()->dynamicProductInfos().size(); };
  auto manager = makeManager();
  commit();
  store_->onManagerSet = nullptr;
  EXPECT_EQ(productsSeen, 0u);
  EXPECT_EQ(manager->dynamicProductInfos().size(), 2u);
}

TEST_F(StartupTest, WithoutSavedCatalogueTheBundleMakesItReadyAtOnce) {
  fetcher_->setBundle(FakeFetcher::succeed(makeResponse(twoProducts_)));
  auto manager = makeManager();
  commit();

  EXPECT_EQ(fetcher_->bundleFetchCount(), 1u);
  EXPECT_EQ(fetcher_->owner().lock(), std::static_pointer_cast<ProductInfoFetcherOwner>(manager));
  EXPECT_EQ(store_->storeDelegate(), manager);
  EXPECT_EQ(store_->manager(), manager);
  EXPECT_EQ(manager->state(), ZBIAPManagerStateReadyProductInfos);
  EXPECT_EQ(manager->dynamicProductInfos().size(), 2u);
  EXPECT_EQ(heardNames(), (std::vector<std::string>{
                              ZBIAPManagerDidUpdateStateNotification,
                              ZBIAPManagerDidUpdateStateNotification,
                              ZBIAPManagerDidBecomeReadyStateNotification,
                              ZBIAPManagerDidUpdateDynamicProductInfosNotification,
                              ZBIAPManagerDidUpdateStateNotification,
                          }));
  EXPECT_EQ(heard_[1].state, ZBIAPManagerStateReadyNoProductInfos);
  EXPECT_TRUE(logged("Committing configuration."));
  // The bundle load does not count; the country query does.
  EXPECT_EQ(store_->countryQueryProducts(), std::vector<std::string>{kCountryProduct});
  EXPECT_EQ(manager->queryCounter(), 1);
  // The catalogue changed, so its products were asked for; the store knows none of them.
  EXPECT_EQ(store_->productQueries(),
            (std::vector<std::vector<std::string>>{{"com.example.a", "com.example.b"}}));
  EXPECT_TRUE(logged("Error querying store products: (null)"));

  // The country arrives while ready: the new country queries, and so does the step.
  store_->answerCountryQueries("DE");
  EXPECT_EQ(manager->appStoreCountry(), "DE");
  EXPECT_EQ(fetcher_->fetchCount(), 2u);
  EXPECT_EQ(manager->queryCounter(), 2);
  fetcher_->answerPending(FakeFetcher::succeed(makeResponse(twoProducts_)));
  EXPECT_EQ(logCount("Successfully queried Dynamic Product Infos: no change."), 2u);
  EXPECT_EQ(manager->queryCounter(), 0);
  EXPECT_EQ(manager->state(), ZBIAPManagerStateReadyProductInfos);
}

TEST_F(StartupTest, WithSavedCatalogueItStaysConfiguringUntilTheFirstQueryEnds) {
  saveCatalogue(twoProducts_);
  store_->scriptCountry(Answer::kAtOnce, "DE");
  auto manager = makeManager();
  commit();

  EXPECT_EQ(fetcher_->bundleFetchCount(), 0u);
  EXPECT_EQ(manager->state(), ZBIAPManagerStateConfiguring);
  EXPECT_EQ(manager->dynamicProductInfos().size(), 2u);
  // A country learnt in state 1 is kept but starts no query of its own.
  EXPECT_EQ(manager->appStoreCountry(), "DE");
  EXPECT_EQ(fetcher_->fetchCount(), 1u);
  EXPECT_EQ(manager->queryCounter(), 1);

  fetcher_->answerPending(FakeFetcher::succeed(makeResponse(twoProducts_)));
  EXPECT_TRUE(logged("Successfully queried Dynamic Product Infos: no change."));
  EXPECT_EQ(manager->state(), ZBIAPManagerStateReadyProductInfos);
  EXPECT_EQ(manager->queryCounter(), 0);
  // An unchanged catalogue asks the store for nothing, so the state stays 3.
  EXPECT_TRUE(store_->productQueries().empty());
  EXPECT_EQ(heardNames(), (std::vector<std::string>{
                              ZBIAPManagerDidUpdateStateNotification,
                              ZBIAPManagerDidUpdateStateNotification,
                              ZBIAPManagerDidBecomeReadyStateNotification,
                          }));
}

TEST_F(StartupTest, ChangedCatalogueInStateOneIsSavedButAnnouncedByTheStateChange) {
  saveCatalogue(twoProducts_);
  store_->scriptCountry(Answer::kAtOnce, "DE");
  store_->addProducts({FakeStore::makeProduct("com.example.c")});
  fetcher_->setDefault(FakeFetcher::succeed(makeResponse({productDictionary("com.example.c")})));
  auto manager = makeManager();
  commit();

  // Store products arrive while still configuring and make the manager ready at state 4.
  EXPECT_EQ(heardNames(), (std::vector<std::string>{
                              ZBIAPManagerDidUpdateStateNotification,
                              ZBIAPManagerDidUpdateDynamicProductInfosNotification,
                              ZBIAPManagerDidUpdateStateNotification,
                              ZBIAPManagerDidBecomeReadyStateNotification,
                          }));
  EXPECT_EQ(heard_[1].state, ZBIAPManagerStateConfiguring);
  EXPECT_EQ(manager->state(), ZBIAPManagerStateReadyStoreProducts);
  EXPECT_EQ(manager->queryCounter(), 0);
}

TEST_F(StartupTest, FailedBundleLoadIsLoggedAndStartUpGoesOn) {
  fetcher_->setBundle(FakeFetcher::fail(ZBIAPError::make("ZBIAPErrorDomain", 1)));
  store_->scriptCountry(Answer::kAtOnce, "DE");
  auto manager = makeManager();
  commit();
  EXPECT_TRUE(logged("Loading local product infos failed with error: "));
  EXPECT_EQ(manager->state(), ZBIAPManagerStateConfiguring);
  EXPECT_EQ(manager->queryCounter(), 1);

  fetcher_->answerPending(FakeFetcher::succeed(makeResponse({})));
  // The first response is a change even when empty, as there was no catalogue at all.
  EXPECT_EQ(manager->state(), ZBIAPManagerStateReadyNoProductInfos);
  EXPECT_TRUE(logged("Successfully queried Dynamic Product Infos: ("));
  EXPECT_EQ(store_->productQueries(), (std::vector<std::vector<std::string>>{{}}));
  EXPECT_EQ(manager->queryCounter(), 0);
}

TEST_F(StartupTest, SilentStoreIsTimedOutSoftlyAndALateAnswerStillCounts) {
  saveCatalogue(twoProducts_);
  auto manager = makeManager();
  commit();
  EXPECT_EQ(manager->queryCounter(), 1);
  EXPECT_EQ(fetcher_->fetchCount(), 0u);

  advance(seconds(9));
  EXPECT_FALSE(logged("Querying the App Store country timed out (soft)!"));
  EXPECT_EQ(fetcher_->fetchCount(), 0u);
  advance(seconds(1));
  EXPECT_EQ(logCount("Querying the App Store country timed out (soft)!"), 1u);
  EXPECT_TRUE(logged("Querying the store country failed with error: "));
  EXPECT_EQ(fetcher_->fetchCount(), 1u);
  EXPECT_EQ(manager->queryCounter(), 1);  // the country query's count is gone
  fetcher_->answerPending(FakeFetcher::succeed(makeResponse(twoProducts_)));
  EXPECT_EQ(manager->queryCounter(), 0);
  EXPECT_TRUE(manager->isReady());

  // The store answers after all: the country is taken and, being new, queried once more; the
  // step does not run again and the counter does not drop twice.
  store_->answerCountryQueries("FR");
  EXPECT_EQ(manager->appStoreCountry(), "FR");
  EXPECT_EQ(fetcher_->fetchCount(), 2u);
  EXPECT_EQ(manager->queryCounter(), 1);
  fetcher_->answerPending(FakeFetcher::succeed(makeResponse(twoProducts_)));
  EXPECT_EQ(manager->queryCounter(), 0);
  advance(seconds(600));
  EXPECT_EQ(fetcher_->fetchCount(), 2u);
}

TEST_F(StartupTest, CountryErrorEndsTheStepAndTheTimeOutLaterDoesNothing) {
  saveCatalogue(twoProducts_);
  store_->scriptCountry(Answer::kAtOnce, std::nullopt, makeStoreError(ZBIAPStoreErrorOther));
  auto manager = makeManager();
  commit();
  EXPECT_TRUE(logged("Querying the store country failed with error: "));
  EXPECT_EQ(manager->appStoreCountry(), std::nullopt);
  EXPECT_EQ(fetcher_->fetchCount(), 1u);
  advance(seconds(10));
  EXPECT_FALSE(logged("Querying the App Store country timed out (soft)!"));
  EXPECT_EQ(fetcher_->fetchCount(), 1u);
  EXPECT_EQ(manager->queryCounter(), 1);
}

TEST_F(StartupTest, KnownCountrySkipsTheStoreQuery) {
  saveCatalogue(twoProducts_);
  auto manager = makeManager();
  manager->updateCountryCode("DE");  // state 0: kept, nothing started
  EXPECT_EQ(fetcher_->fetchCount(), 0u);
  commit();
  EXPECT_EQ(store_->countryQueryCount(), 0u);
  EXPECT_TRUE(
      logged("Configuration step query App Store country: we already know the country (DE)."));
  EXPECT_TRUE(logged("Configuration step query App Store country: skipping to next step."));
  EXPECT_EQ(fetcher_->fetchCount(), 1u);
  EXPECT_EQ(manager->queryCounter(), 1);
  advance(seconds(10));
  EXPECT_FALSE(logged("Querying the App Store country timed out (soft)!"));
}

TEST_F(StartupTest, FailedQueryStillMakesItReadyAndIsRetriedEverySixtySeconds) {
  saveCatalogue(twoProducts_);
  store_->scriptCountry(Answer::kAtOnce, "DE");
  fetcher_->enqueue(FakeFetcher::fail(ZBIAPError::make("ZBIAPErrorDomain", 1)));
  fetcher_->enqueue(FakeFetcher::fail(nullptr));
  fetcher_->setDefault(FakeFetcher::succeed(makeResponse(twoProducts_)));
  auto manager = makeManager();
  commit();
  EXPECT_TRUE(logged("Error querying Dynamic Product Infos: Error Domain=ZBIAPErrorDomain"));
  EXPECT_EQ(manager->state(), ZBIAPManagerStateReadyProductInfos);
  EXPECT_EQ(manager->queryCounter(), 0);

  advance(seconds(59));
  EXPECT_EQ(fetcher_->fetchCount(), 1u);
  advance(seconds(1));
  EXPECT_EQ(fetcher_->fetchCount(), 2u);
  EXPECT_TRUE(logged("Error querying Dynamic Product Infos: (null)"));
  advance(seconds(60));
  EXPECT_EQ(fetcher_->fetchCount(), 3u);
  EXPECT_TRUE(logged("Successfully queried Dynamic Product Infos: no change."));
  advance(seconds(600));
  EXPECT_EQ(fetcher_->fetchCount(), 3u);
  EXPECT_EQ(manager->queryCounter(), 0);
}

TEST_F(StartupTest, CommitOffTheMainThreadHappensOnItAndASecondCommitOnlyLogs) {
  saveCatalogue(twoProducts_);
  auto manager = makeManager();
  std::thread([&] { manager->commitConfiguration(); }).join();
  EXPECT_EQ(manager->state(), ZBIAPManagerStateNotConfigured);
  runUntilIdle();
  EXPECT_EQ(manager->state(), ZBIAPManagerStateConfiguring);
  EXPECT_EQ(store_->countryQueryCount(), 1u);

  commit();
  EXPECT_TRUE(logged("Commit configuration called even though the manager is already configured."));
  EXPECT_EQ(store_->countryQueryCount(), 1u);
  EXPECT_EQ(heardCount(ZBIAPManagerDidUpdateStateNotification), 1u);
}

TEST_F(StartupTest, AnswersFromOtherThreadsAreHandledOnTheMainQueue) {
  saveCatalogue(twoProducts_);
  store_->scriptCountry(Answer::kOnOtherThread, "DE");
  store_->scriptProducts(Answer::kOnOtherThread);
  store_->addProducts({FakeStore::makeProduct("com.example.a")});
  fetcher_->setDefault(FakeFetcher::succeed(
      makeResponse({productDictionary("com.example.a", "New A")}), Answer::kOnOtherThread));
  auto manager = makeManager();
  manager->commitConfiguration();
  EXPECT_EQ(manager->appStoreCountry(), std::nullopt);  // posted, not yet run
  runUntilIdle();
  EXPECT_EQ(manager->appStoreCountry(), "DE");
  EXPECT_EQ(manager->state(), ZBIAPManagerStateReadyStoreProducts);
  EXPECT_EQ(manager->queryCounter(), 0);
}

TEST_F(StartupTest, ObserversOfStateReadyAndQueryingAreTold) {
  saveCatalogue(twoProducts_);
  store_->scriptCountry(Answer::kAtOnce, "DE");
  auto manager = makeManager();
  std::vector<int64_t> states;
  std::vector<bool> ready, querying;
  std::vector<int64_t> counts;
  tokens_.push_back(
      manager->stateObservers().observe([&](int64_t, int64_t state) { states.push_back(state); }));
  tokens_.push_back(
      manager->readyObservers().observe([&](bool, bool value) { ready.push_back(value); }));
  tokens_.push_back(
      manager->queryingObservers().observe([&](bool, bool value) { querying.push_back(value); }));
  tokens_.push_back(manager->queryCounterObservers().observe(
      [&](int64_t, int64_t count) { counts.push_back(count); }));
  commit();
  fetcher_->answerPending(FakeFetcher::succeed(makeResponse(twoProducts_)));

  EXPECT_EQ(states, (std::vector<int64_t>{1, 3}));
  EXPECT_EQ(ready, (std::vector<bool>{false, true}));
  // Country query 1 -> 0 (answered at once), then the catalogue query 1 -> 0.
  EXPECT_EQ(counts, (std::vector<int64_t>{1, 0, 1, 0}));
  EXPECT_EQ(querying, (std::vector<bool>{true, false, true, false}));
}

}  // namespace
}  // namespace zbiap::testing
