// The compound store over scriptable stores: fan-out joins, answers on other threads, the
// combined purchase list and the reports passed up to its delegate.
#include "zbiap/store/compound_store.h"

#include <gtest/gtest.h>

#include <atomic>
#include <mutex>
#include <thread>
#include <vector>

#include "testing/fake_fetcher.h"
#include "testing/fake_store.h"
#include "testing/test_platform.h"
#include "zbiap/manager/manager.h"
#include "zbiap/manager/manager_configuration.h"

namespace zbiap {
namespace {

using testing::FakeStore;

// A store whose answers wait until the test gives them, on the thread the test chooses.
class ScriptStore final : public ZBIAPStore {
 public:
  std::vector<CountryCompletion> country;
  std::vector<ProductsCompletion> products;
  std::vector<RestoreCompletion> restores;
  std::vector<SuccessCompletion> refreshes;
  std::vector<std::string> countryProducts;
  std::vector<std::vector<std::string>> productQueries;
  std::vector<ZBIAPReceiptIAPPtr> purchases;
  std::optional<Date> originalDate;
  bool sells = false;
  int purchaseCalls = 0;
  std::weak_ptr<ZBIAPStoreDelegate> delegate;
  std::weak_ptr<ZBIAPManager> managerRef;

  bool canPurchaseProduct(const ZBIAPStoreProductPtr&) override { return sells; }
  void queryStoreCountryWithProductIdentifier(const std::string& product,
                                              CountryCompletion completion) override {
    countryProducts.push_back(product);
    country.push_back(std::move(completion));
  }
  void queryProducts(const std::vector<std::string>& ids, ProductsCompletion completion) override {
    productQueries.push_back(ids);
    products.push_back(std::move(completion));
  }
  void purchaseProduct(const ZBIAPStoreProductPtr&, SuccessCompletion completion) override {
    ++purchaseCalls;
    if (completion) completion(true, nullptr);
  }
  void restorePurchasesWithCompletion(RestoreCompletion completion) override {
    restores.push_back(std::move(completion));
  }
  void refreshReceiptWithCompletion(SuccessCompletion completion) override {
    refreshes.push_back(std::move(completion));
  }
  std::shared_ptr<ZBIAPStoreDelegate> storeDelegate() const override { return delegate.lock(); }
  void setStoreDelegate(std::weak_ptr<ZBIAPStoreDelegate> d) override { delegate = d; }
  std::shared_ptr<ZBIAPManager> manager() const override { return managerRef.lock(); }
  void setManager(std::weak_ptr<ZBIAPManager> m) override { managerRef = m; }
  std::optional<Date> originalPurchaseDate() const override { return originalDate; }
  std::optional<std::string> originalPurchaseVersion() const override { return "7"; }
  // Run once inside the next read, after the list to return was taken.
  mutable std::function<void()> onRead;
  std::vector<ZBIAPReceiptIAPPtr> inAppPurchases() const override {
    std::vector<ZBIAPReceiptIAPPtr> list = purchases;
    if (onRead) std::exchange(onRead, nullptr)();
    return list;
  }
};

class Recorder final : public ZBIAPStoreDelegate {
 public:
  std::shared_ptr<ZBIAPCompoundStore> compound;
  std::vector<std::string> countries;
  std::vector<size_t> purchaseCounts;
  std::vector<ZBIAPReceiptIAPPtr> inAppPurchases() const override { return {}; }
  void store(ZBIAPStore&, const std::optional<std::string>& code) override {
    countries.push_back(code.value_or("(none)"));
    // As the manager does: a country starts a catalogue query, whose request body lists the
    // purchases. The notice comes with the compound's lock held; the read must not deadlock.
    if (compound) purchasesAtCountry.push_back(compound->inAppPurchases().size());
  }
  std::vector<size_t> purchasesAtCountry;
  void storeDidUpdateInformations(ZBIAPStore& store) override {
    // The compound store's lock is released by now: reading it back must not deadlock.
    purchaseCounts.push_back(compound ? compound->inAppPurchases().size()
                                      : store.inAppPurchases().size());
  }
};

// Runs `f` on a thread of its own and waits for it.
template <typename F>
std::thread::id onOtherThread(F f) {
  std::thread::id id;
  std::thread thread([&] {
    id = std::this_thread::get_id();
    f();
  });
  thread.join();
  return id;
}

ZBIAPReceiptIAPPtr iap(const std::string& product) {
  return ZBIAPReceiptIAP::initWithProductIdentifier(product, 1, "t", std::nullopt,
                                                    Date::fromMicrosSince1970(0), std::nullopt,
                                                    std::nullopt, std::nullopt, 0, false);
}

class CompoundStoreTest : public ::testing::Test {
 protected:
  void SetUp() override {
    compound_ = ZBIAPCompoundStore::initWithStores({first_, second_});
    recorder_->compound = compound_;
    compound_->setStoreDelegate(recorder_);
  }
  void TearDown() override {
    recorder_->compound.reset();
    // The scripted stores keep every completion they were given, and a compound restore's
    // completions hold their store: drop them, or each store would keep itself alive.
    first_->restores.clear();
    second_->restores.clear();
  }

  std::shared_ptr<ScriptStore> first_ = std::make_shared<ScriptStore>();
  std::shared_ptr<ScriptStore> second_ = std::make_shared<ScriptStore>();
  std::shared_ptr<Recorder> recorder_ = std::make_shared<Recorder>();
  std::shared_ptr<ZBIAPCompoundStore> compound_;
};

TEST(CompoundStoreEmptyTest, NoStoresNeverAnswersFannedCallsAndCannotSell) {
  auto compound = ZBIAPCompoundStore::initWithStores({nullptr});
  int calls = 0;
  compound->queryStoreCountryWithProductIdentifier("p", [&](auto, auto) { ++calls; });
  compound->queryProducts({"p"}, [&](auto, auto) { ++calls; });
  compound->restorePurchasesWithCompletion([&](auto, auto) { ++calls; });
  compound->refreshReceiptWithCompletion([&](auto, auto) { ++calls; });
  compound->restoreCompoundPurchasesWithCompletion([&](auto) { ++calls; });
  EXPECT_EQ(calls, 0);
  EXPECT_FALSE(compound->originalPurchaseDate());
  EXPECT_FALSE(compound->originalPurchaseVersion());
  EXPECT_TRUE(compound->inAppPurchases().empty());
  ZBIAPErrorPtr error;
  compound->purchaseProduct(FakeStore::makeProduct("p"), [&](bool ok, ZBIAPErrorPtr e) {
    EXPECT_FALSE(ok);
    error = e;
  });
  ASSERT_NE(error, nullptr);
  EXPECT_EQ(error->domain(), ZBIAPStoreErrorDomain);
  EXPECT_EQ(error->code(), ZBIAPStoreErrorInvalidArgument);
}

// The first store's country once every store answered, on the thread of the last answer; any
// error fails the query.
TEST_F(CompoundStoreTest, CountryIsTheFirstStoresOnceBothAnswered) {
  const struct {
    std::optional<std::string> first, second;
    ZBIAPErrorPtr secondError;
    std::optional<std::string> country;
  } rows[] = {
      {"DE", "US", nullptr, "DE"},
      {"DE", std::nullopt, ZBIAPError::make("X", 42), std::nullopt},
      {std::nullopt, "US", nullptr, std::nullopt},
  };
  for (size_t i = 0; i < std::size(rows); ++i) {
    int calls = 0;
    std::thread::id answeredOn;
    compound_->queryStoreCountryWithProductIdentifier("com.example.p", [&](auto code, auto error) {
      ++calls;
      answeredOn = std::this_thread::get_id();
      EXPECT_EQ(code, rows[i].country);
      EXPECT_EQ(error, rows[i].secondError);
    });
    EXPECT_EQ(second_->countryProducts.at(i), "com.example.p");
    second_->country[i](rows[i].second, rows[i].secondError);
    EXPECT_EQ(calls, 0);
    std::thread::id last = onOtherThread([&] { first_->country[i](rows[i].first, nullptr); });
    EXPECT_EQ(calls, 1);
    EXPECT_EQ(answeredOn, last);
  }
}

TEST_F(CompoundStoreTest, ProductsJoinInAnswerOrderAndOneFailureDropsThem) {
  std::vector<std::string> ids;
  ZBIAPErrorPtr error;
  int calls = 0;
  auto collect = [&](std::vector<ZBIAPStoreProductPtr> products, ZBIAPErrorPtr e) {
    ++calls;
    ids.clear();
    for (const auto& p : products) ids.push_back(p->productIdentifier());
    error = e;
  };
  compound_->queryProducts({"a", "b"}, collect);
  EXPECT_EQ(second_->productQueries[0], (std::vector<std::string>{"a", "b"}));
  second_->products[0]({FakeStore::makeProduct("b")}, nullptr);
  first_->products[0]({FakeStore::makeProduct("a")}, nullptr);
  EXPECT_EQ(calls, 1);
  EXPECT_EQ(ids, (std::vector<std::string>{"b", "a"}));
  EXPECT_EQ(error, nullptr);

  auto failure = ZBIAPError::make(ZBIAPStoreErrorDomain, 6);
  compound_->queryProducts({"a"}, collect);
  first_->products[1]({FakeStore::makeProduct("a")}, nullptr);
  second_->products[1]({}, failure);
  EXPECT_EQ(calls, 2);
  EXPECT_TRUE(ids.empty());
  EXPECT_EQ(error, failure) << "passed through unchanged, not wrapped";
}

TEST_F(CompoundStoreTest, RestoreJoinsResultsAndPassesTheLastError) {
  const auto kSame = ZBIAPStoreRestoreResultUnchanged;
  const auto kChanged = ZBIAPStoreRestoreResultChanged;
  const auto kFailed = ZBIAPStoreRestoreResultFailed;
  auto early = ZBIAPError::make("E", 1);
  auto late = ZBIAPError::make("E", 2);
  // An error comes through even beside a success; a later error replaces an earlier one.
  const struct {
    ZBIAPStoreRestoreResult a, b, joined;
    ZBIAPErrorPtr errorA = nullptr, errorB = nullptr, error = nullptr;
  } cases[] = {
      {kSame, kChanged, kChanged},
      {kChanged, kFailed, kFailed},
      {kFailed, kChanged, kFailed},
      {kSame, kSame, kSame},
      {kSame, kChanged, kChanged, late, early, late},
  };
  for (size_t i = 0; i < std::size(cases); ++i) {
    const auto& c = cases[i];
    int calls = 0;
    compound_->restorePurchasesWithCompletion([&](auto result, auto error) {
      ++calls;
      EXPECT_EQ(result, c.joined) << i;
      EXPECT_EQ(error, c.error) << i;
    });
    second_->restores[i](c.b, c.errorB);
    onOtherThread([&] { first_->restores[i](c.a, c.errorA); });
    EXPECT_EQ(calls, 1);
  }

  // A refresh succeeds only when every store's does, and keeps an error.
  std::vector<std::pair<bool, ZBIAPErrorPtr>> seen;
  auto record = [&](bool ok, ZBIAPErrorPtr e) { seen.emplace_back(ok, e); };
  compound_->refreshReceiptWithCompletion(record);
  first_->refreshes[0](true, early);
  second_->refreshes[0](true, nullptr);
  compound_->refreshReceiptWithCompletion(record);
  first_->refreshes[1](true, nullptr);
  second_->refreshes[1](false, nullptr);
  EXPECT_EQ(seen, (std::vector<std::pair<bool, ZBIAPErrorPtr>>{{true, early}, {false, nullptr}}));
}

TEST_F(CompoundStoreTest, CompoundRestoreReportsEachStoreInAnswerOrder) {
  std::vector<ZBIAPCompoundStoreResultPtr> results;
  compound_->restoreCompoundPurchasesWithCompletion([&](auto r) { results = r; });
  auto error = ZBIAPError::make("E", 3);
  second_->restores[0](ZBIAPStoreRestoreResultFailed, error);
  EXPECT_TRUE(results.empty());
  first_->restores[0](ZBIAPStoreRestoreResultChanged, nullptr);
  ASSERT_EQ(results.size(), 2u);
  EXPECT_EQ(results[0]->store(), second_);
  EXPECT_EQ(results[0]->result(), ZBIAPStoreRestoreResultFailed);
  EXPECT_EQ(results[0]->error(), error);
  EXPECT_EQ(results[1]->store(), first_);
  EXPECT_EQ(results[1]->result(), ZBIAPStoreRestoreResultChanged);
  EXPECT_EQ(results[1]->error(), nullptr);
}

TEST_F(CompoundStoreTest, PurchaseGoesToTheFirstStoreThatSells) {
  auto product = FakeStore::makeProduct("p");
  EXPECT_FALSE(compound_->canPurchaseProduct(product));
  second_->sells = true;
  EXPECT_TRUE(compound_->canPurchaseProduct(product));
  bool ok = false;
  compound_->purchaseProduct(product, [&](bool success, ZBIAPErrorPtr) { ok = success; });
  EXPECT_TRUE(ok);
  EXPECT_EQ(second_->purchaseCalls, 1);
  first_->sells = true;
  compound_->purchaseProduct(product, nullptr);
  EXPECT_EQ(first_->purchaseCalls, 1);
  EXPECT_EQ(second_->purchaseCalls, 1);
}

TEST_F(CompoundStoreTest, StoresAreWiredAndFirstStoreDataCounts) {
  EXPECT_EQ(first_->storeDelegate().get(), compound_.get());
  EXPECT_EQ(second_->storeDelegate().get(), compound_.get());
  first_->originalDate = Date::fromMicrosSince1970(5);
  EXPECT_EQ(compound_->originalPurchaseDate(), Date::fromMicrosSince1970(5));
  EXPECT_EQ(compound_->originalPurchaseVersion(), "7");
  // The manager given to the compound reaches every store it holds.
  testing::TestPlatform platform;
  auto manager = ZBIAPManager::initWithConfiguration(ZBIAPManagerConfiguration::initWithStore(
      compound_, "p", "US", testing::FakeFetcher::create()));
  ASSERT_NE(manager, nullptr);
  compound_->setManager(manager);
  EXPECT_EQ(compound_->manager(), manager);
  EXPECT_EQ(first_->manager(), manager);
  EXPECT_EQ(second_->manager(), manager);
}

TEST_F(CompoundStoreTest, PurchasesOfAllStoresAreListedInStoreOrder) {
  auto a = std::make_shared<ScriptStore>();
  auto b = std::make_shared<ScriptStore>();
  a->purchases = {iap("shared"), iap("only.a")};
  b->purchases = {iap("shared")};
  auto compound = ZBIAPCompoundStore::initWithStores({a, b});
  std::vector<std::string> ids;
  for (const auto& p : compound->inAppPurchases()) ids.push_back(p->productIdentifier());
  EXPECT_EQ(ids, (std::vector<std::string>{"shared", "only.a", "shared"}));

  // A report replaces that store's part only, and is passed up after the lock is released.
  second_->purchases = {iap("x")};
  compound_->storeDidUpdateInformations(*second_);
  first_->purchases = {iap("y"), iap("z")};
  compound_->storeDidUpdateInformations(*first_);
  EXPECT_EQ(recorder_->purchaseCounts, (std::vector<size_t>{1, 3}));
  ids.clear();
  for (const auto& p : compound_->inAppPurchases()) ids.push_back(p->productIdentifier());
  EXPECT_EQ(ids, (std::vector<std::string>{"y", "z", "x"}));
}

// Two notices of one store race: the first read the older list, and the second ran whole
// before the first wrote it. The compound still ends with the store's current list.
TEST_F(CompoundStoreTest, RacingNoticesOfOneStoreLeaveItsLatestList) {
  first_->purchases = {iap("old")};
  first_->onRead = [this] {
    first_->purchases = {iap("new")};
    compound_->storeDidUpdateInformations(*first_);
  };
  compound_->storeDidUpdateInformations(*first_);
  ASSERT_EQ(compound_->inAppPurchases().size(), 1u);
  EXPECT_EQ(compound_->inAppPurchases()[0]->productIdentifier(), "new");
}

TEST_F(CompoundStoreTest, CountryIsPassedUpOnlyOnceEveryStoreReported) {
  compound_->store(*second_, "US");
  EXPECT_TRUE(recorder_->countries.empty());
  compound_->store(*first_, "DE");
  EXPECT_EQ(recorder_->countries, std::vector<std::string>{"DE"});
  compound_->store(*second_, "FR");
  EXPECT_EQ(recorder_->countries, (std::vector<std::string>{"DE", "DE"}));
  compound_->store(*first_, "AT");
  EXPECT_EQ(recorder_->countries, (std::vector<std::string>{"DE", "DE", "AT"}));
  EXPECT_EQ(recorder_->purchasesAtCountry.size(), 3u);
  // A store that no longer knows its country leaves the map: nothing goes up until it reports.
  compound_->store(*second_, std::nullopt);
  compound_->store(*first_, "CH");
  EXPECT_EQ(recorder_->countries.size(), 3u);
  compound_->store(*second_, "US");
  EXPECT_EQ(recorder_->countries.back(), "CH");
}

}  // namespace
}  // namespace zbiap
